// Readers-writer lock with its scope guards, and a re-entrant lock.
#pragma once

#include <mutex>
#if !defined(_WIN32)
#include <pthread.h>
#endif

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
    // A waiting writer goes first, as with Windows' lock: readers that keep
    // coming (verifications on one handle, logins) must not hold it off for ever.
    CRWLock() {
        pthread_rwlockattr_t attr;
        pthread_rwlockattr_init(&attr);
#if defined(__GLIBC__)
        pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
#endif
        pthread_rwlock_init(&m_lock, &attr);
        pthread_rwlockattr_destroy(&attr);
    }
    ~CRWLock() { pthread_rwlock_destroy(&m_lock); }
    CRWLock(const CRWLock&) = delete;
    CRWLock& operator=(const CRWLock&) = delete;
    void lockRead() { pthread_rwlock_rdlock(&m_lock); }
    void unlockRead() { pthread_rwlock_unlock(&m_lock); }
    void lockWrite() { pthread_rwlock_wrlock(&m_lock); }
    void unlockWrite() { pthread_rwlock_unlock(&m_lock); }

private:
    pthread_rwlock_t m_lock;
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
