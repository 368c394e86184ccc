// The thread classes: start and end of the thread library, threads with a
// timed join, threads that can be asked to stop, and per-thread slots.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

class JTCException : public std::runtime_error {
public:
    explicit JTCException(const std::string& i_text) : std::runtime_error(i_text) {}
    const char* getMessage() const noexcept { return what(); }
};
class JTCSystemCallException : public JTCException {
public:
    using JTCException::JTCException;
};
class JTCInterruptedException : public JTCException {
public:
    using JTCException::JTCException;
};

// Keeps the thread library started; initialized() is true while one lives.
class JTCInitialize {
public:
    JTCInitialize();
    ~JTCInitialize();
    JTCInitialize(const JTCInitialize&) = delete;
    JTCInitialize& operator=(const JTCInitialize&) = delete;
    static bool initialized();
};

// Makes a host thread known to the thread library for a scope.
class JTCAdoptCurrentThread {
public:
    JTCAdoptCurrentThread() = default;
    ~JTCAdoptCurrentThread() = default;
};

// Reference count that starts at 0, held only through JTCHandleT.
class JTCRefCount {
public:
    JTCRefCount() = default;
    JTCRefCount(const JTCRefCount&) = delete;
    JTCRefCount& operator=(const JTCRefCount&) = delete;
    void __incRef() noexcept { m_nRefCount.fetch_add(1, std::memory_order_relaxed); }
    void __decRef() noexcept {
        if (m_nRefCount.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
        }
    }

protected:
    virtual ~JTCRefCount() = default;

private:
    std::atomic<int32_t> m_nRefCount{0};
};

template <class T>
class JTCHandleT {
public:
    JTCHandleT(T* i_p = nullptr) : m_p(i_p) {
        if (m_p != nullptr) {
            m_p->__incRef();
        }
    }
    JTCHandleT(const JTCHandleT& i_other) : JTCHandleT(i_other.m_p) {}
    ~JTCHandleT() {
        if (m_p != nullptr) {
            m_p->__decRef();
        }
    }
    JTCHandleT& operator=(const JTCHandleT& i_other) {
        if (m_p != i_other.m_p) {
            T* pOld = m_p;
            m_p = i_other.m_p;
            if (m_p != nullptr) {
                m_p->__incRef();
            }
            if (pOld != nullptr) {
                pOld->__decRef();
            }
        }
        return *this;
    }
    T* operator->() const { return m_p; }
    T* get() const { return m_p; }
    explicit operator bool() const { return m_p != nullptr; }

private:
    T* m_p;
};

// A thread that runs the virtual run(). The running thread holds a handle on
// itself, so the object lives until run() has returned.
class JTCThread : public virtual JTCRefCount {
public:
    JTCThread() = default;
    ~JTCThread() override;

    void start();
    // Waits at most i_nMilliseconds for run() to end; true when it has.
    bool join(long i_nMilliseconds);
    bool isAlive() const;
    // Whether the caller is this thread itself, which can never wait for its own end.
    bool isCurrent() const;

protected:
    virtual void run() = 0;

private:
    static void entry(JTCThread* i_pSelf);

    mutable std::mutex m_mutex;
    std::condition_variable m_cvDone;
    std::thread m_thread;
    bool m_bStarted = false;
    bool m_bDone = false;
};

// A thread that can be asked to end, and woken from its sleep.
class TerminatingThread : public JTCThread {
public:
    virtual bool isStopped() const;
    virtual void stop();
    virtual void awake();
    // Sleeps at most i_nMilliseconds; true when the thread was stopped meanwhile.
    virtual bool sleep_with_stop_alarm(int i_nMilliseconds);

private:
    mutable std::mutex m_sleepMutex;
    std::condition_variable m_cvWake;
    bool m_bStopped = false;
    bool m_bAwakened = false;
};

// One void* per key and thread, null until set.
class JTCTSS {
public:
    static uint32_t allocate();
    static void* get(uint32_t i_nKey);
    static void set(uint32_t i_nKey, void* i_pValue);
    static void release(uint32_t i_nKey);
};
