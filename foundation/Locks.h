// Readers-writer lock with its scope guards, and a re-entrant lock.
#pragma once

#include <mutex>
#include <shared_mutex>

namespace Tarvik500 {

// Not re-entrant: a thread must not take it twice.
class CRWLock {
public:
#if defined(_WIN32)
    // mingw's std::shared_mutex (winpthreads) lets readers and writers overlap
    // and can deadlock; Windows' own slim lock, in foundation/win32/RWLock.cpp.
    CRWLock() = default;
    CRWLock(const CRWLock&) = delete;
    CRWLock& operator=(const CRWLock&) = delete;
    void lockRead();
    void unlockRead();
    void lockWrite();
    void unlockWrite();

private:
    void* m_pSlim = nullptr;  // an SRWLOCK: one pointer, zero when free
#else
    void lockRead() { m_mutex.lock_shared(); }
    void unlockRead() { m_mutex.unlock_shared(); }
    void lockWrite() { m_mutex.lock(); }
    void unlockWrite() { m_mutex.unlock(); }

private:
    std::shared_mutex m_mutex;
#endif
};

class CSmartReadLocker {
public:
    explicit CSmartReadLocker(CRWLock& i_lock) : m_lock(i_lock) { m_lock.lockRead(); }
    ~CSmartReadLocker() { m_lock.unlockRead(); }
    CSmartReadLocker(const CSmartReadLocker&) = delete;
    CSmartReadLocker& operator=(const CSmartReadLocker&) = delete;

private:
    CRWLock& m_lock;
};

class CSmartWriteLocker {
public:
    explicit CSmartWriteLocker(CRWLock& i_lock) : m_lock(i_lock) { m_lock.lockWrite(); }
    ~CSmartWriteLocker() { m_lock.unlockWrite(); }
    CSmartWriteLocker(const CSmartWriteLocker&) = delete;
    CSmartWriteLocker& operator=(const CSmartWriteLocker&) = delete;

private:
    CRWLock& m_lock;
};

// Pointer forms; unlock() ends the hold early (there is no atomic upgrade).
class CReadLocker {
public:
    explicit CReadLocker(CRWLock* i_pLock) : m_pLock(i_pLock) { m_pLock->lockRead(); }
    ~CReadLocker() { unlock(); }
    void unlock() {
        if (m_pLock != nullptr) {
            m_pLock->unlockRead();
            m_pLock = nullptr;
        }
    }
    CReadLocker(const CReadLocker&) = delete;
    CReadLocker& operator=(const CReadLocker&) = delete;

private:
    CRWLock* m_pLock;
};

class CWriteLocker {
public:
    explicit CWriteLocker(CRWLock* i_pLock) : m_pLock(i_pLock) { m_pLock->lockWrite(); }
    ~CWriteLocker() { unlock(); }
    void unlock() {
        if (m_pLock != nullptr) {
            m_pLock->unlockWrite();
            m_pLock = nullptr;
        }
    }
    CWriteLocker(const CWriteLocker&) = delete;
    CWriteLocker& operator=(const CWriteLocker&) = delete;

private:
    CRWLock* m_pLock;
};

class CS_Wrapper {
public:
    void enter() { m_mutex.lock(); }
    void leave() { m_mutex.unlock(); }

private:
    std::recursive_mutex m_mutex;
};

class CSmartCS {
public:
    explicit CSmartCS(CS_Wrapper& i_cs) : m_cs(i_cs) { m_cs.enter(); }
    ~CSmartCS() { m_cs.leave(); }
    CSmartCS(const CSmartCS&) = delete;
    CSmartCS& operator=(const CSmartCS&) = delete;

private:
    CS_Wrapper& m_cs;
};

}  // namespace Tarvik500
