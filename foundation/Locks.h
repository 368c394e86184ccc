// Readers-writer lock with its scope guards, and a re-entrant lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

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
    // Writers first: a waiting writer keeps new readers out, so that a steady
    // stream of readers cannot starve it. One word; the slow paths sleep on it.
    CRWLock() = default;
    CRWLock(const CRWLock&) = delete;
    CRWLock& operator=(const CRWLock&) = delete;
    void lockRead() {
        uint32_t s = m_state.load(std::memory_order_relaxed);
        if ((s & (kWriter | kWaitingWriters)) != 0 || (s & kReaders) == kReaders ||
            !m_state.compare_exchange_weak(s, s + 1, std::memory_order_acquire, std::memory_order_relaxed)) {
            lockReadSlow();
        }
    }
    void unlockRead() {
        const uint32_t s = m_state.fetch_sub(1, std::memory_order_release);
        // The last reader out lets a sleeping writer in.
        if ((s & kReaders) == 1 && (s & kSleepers) != 0) {
            wakeAll();
        }
    }
    void lockWrite() {
        uint32_t s = 0;
        if (!m_state.compare_exchange_strong(s, kWriter, std::memory_order_acquire, std::memory_order_relaxed)) {
            lockWriteSlow();
        }
    }
    void unlockWrite() {
        if ((m_state.fetch_and(~(kWriter | kSleepers), std::memory_order_release) & kSleepers) != 0) {
            m_state.notify_all();
        }
    }

private:
    static constexpr uint32_t kReaders = 0x7FFFu;           // readers inside
    static constexpr uint32_t kOneWaitingWriter = 0x8000u;  // writers waiting, counted
    static constexpr uint32_t kWaitingWriters = 0x3FFF8000u;
    static constexpr uint32_t kSleepers = 0x40000000u;  // someone may sleep on the word
    static constexpr uint32_t kWriter = 0x80000000u;    // a writer inside

    void lockReadSlow();
    void lockWriteSlow();
    void wakeAll();
    // Marks the word as slept on and sleeps while it keeps the value s.
    void sleepOn(uint32_t s);

    std::atomic<uint32_t> m_state{0};
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
