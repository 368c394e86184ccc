#include "Threads.h"

#include <chrono>
#include <new>
#include <system_error>
#include <vector>

namespace {

std::atomic<int> s_nInitCount{0};

}  // namespace

JTCInitialize::JTCInitialize() { s_nInitCount.fetch_add(1, std::memory_order_acq_rel); }

JTCInitialize::~JTCInitialize() { s_nInitCount.fetch_sub(1, std::memory_order_acq_rel); }

bool JTCInitialize::initialized() { return s_nInitCount.load(std::memory_order_acquire) > 0; }

// ---------------------------------------------------------------------------

JTCThread::~JTCThread() {
    if (m_thread.joinable()) {
        // The last handle can be the running thread's own, dropped as run() ends.
        if (m_thread.get_id() == std::this_thread::get_id()) {
            m_thread.detach();
        } else {
            m_thread.join();
        }
    }
}

void JTCThread::start() {
    std::lock_guard<std::mutex> guard(m_mutex);
    if (m_bStarted) {
        throw JTCException("JTCThread::start: the thread was started already");
    }
    // The new thread's reference is taken here, before the caller can drop its own.
    __incRef();
    try {
        m_thread = std::thread(&JTCThread::entry, this);
    } catch (const std::system_error& e) {
        __decRef();
        throw JTCSystemCallException(std::string("JTCThread::start: cannot create a thread: ") + e.what());
    } catch (const std::bad_alloc&) {
        __decRef();
        throw;
    }
    m_bStarted = true;
}

void JTCThread::entry(JTCThread* i_pSelf) {
    try {
        i_pSelf->run();
    } catch (...) {
        // An exception ends the thread's work, never the process.
    }
    {
        std::lock_guard<std::mutex> guard(i_pSelf->m_mutex);
        i_pSelf->m_bDone = true;
        i_pSelf->m_cvDone.notify_all();
    }
    i_pSelf->__decRef();
}

bool JTCThread::join(long i_nMilliseconds) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_bStarted) {
        return true;
    }
    if (m_thread.get_id() == std::this_thread::get_id()) {
        return m_bDone;
    }
    // Beyond a year is forever; it also keeps the clock arithmetic from overflowing.
    constexpr long long kForever = 365LL * 24 * 3600 * 1000;
    if (static_cast<long long>(i_nMilliseconds) >= kForever) {
        m_cvDone.wait(lock, [this] { return m_bDone; });
    } else if (!m_cvDone.wait_for(lock, std::chrono::milliseconds(i_nMilliseconds > 0 ? i_nMilliseconds : 0),
                                  [this] { return m_bDone; })) {
        return false;
    }
    // run() has returned; joining as well means none of our code is left on that thread.
    if (m_thread.joinable()) {
        m_thread.join();
    }
    return true;
}

bool JTCThread::isCurrent() const {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_bStarted && m_thread.get_id() == std::this_thread::get_id();
}

bool JTCThread::isAlive() const {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_bStarted && !m_bDone;
}

// ---------------------------------------------------------------------------

bool TerminatingThread::isStopped() const {
    std::lock_guard<std::mutex> guard(m_sleepMutex);
    return m_bStopped;
}

// Notifying under the lock: once the sleeper runs on, this object may be gone
// (its own reference can be the last), so nothing may touch it after the unlock.
void TerminatingThread::stop() {
    std::lock_guard<std::mutex> guard(m_sleepMutex);
    m_bStopped = true;
    m_cvWake.notify_all();
}

void TerminatingThread::awake() {
    std::lock_guard<std::mutex> guard(m_sleepMutex);
    m_bAwakened = true;
    m_cvWake.notify_all();
}

bool TerminatingThread::sleep_with_stop_alarm(int i_nMilliseconds) {
    std::unique_lock<std::mutex> lock(m_sleepMutex);
    const auto limit = std::chrono::milliseconds(i_nMilliseconds > 0 ? i_nMilliseconds : 0);
    // A wake-up that came before the sleep still counts: it is not lost.
    m_cvWake.wait_for(lock, limit, [this] { return m_bStopped || m_bAwakened; });
    m_bAwakened = false;
    return m_bStopped;
}

// ---------------------------------------------------------------------------
// Keys are indexes into one process-wide table. Each allocation gets a new
// generation, and a thread's slot only counts when its generation matches, so a
// key that is released and handed out again never shows an old value.

namespace {

constexpr uint32_t kMaxKeys = 1024;

struct KeyTable {
    std::mutex mutex;
    // Odd while the key is allocated; every allocate and release adds one.
    std::atomic<uint64_t> generation[kMaxKeys] = {};
};

KeyTable& Keys() {
    static KeyTable s_table;
    return s_table;
}

struct Slot {
    uint64_t generation = 0;
    void* pValue = nullptr;
};

thread_local std::vector<Slot> t_slots;

// Key 0 is never handed out, so a zeroed key is never valid.
uint64_t LiveGeneration(uint32_t i_nKey, const char* i_pWhat) {
    if (i_nKey == 0 || i_nKey > kMaxKeys) {
        throw JTCSystemCallException(std::string(i_pWhat) + ": invalid thread-specific storage key " +
                                     std::to_string(i_nKey));
    }
    const uint64_t generation = Keys().generation[i_nKey - 1].load(std::memory_order_acquire);
    if ((generation & 1) == 0) {
        throw JTCSystemCallException(std::string(i_pWhat) + ": thread-specific storage key " + std::to_string(i_nKey) +
                                     " is not allocated");
    }
    return generation;
}

}  // namespace

uint32_t JTCTSS::allocate() {
    KeyTable& table = Keys();
    std::lock_guard<std::mutex> guard(table.mutex);
    for (uint32_t i = 0; i < kMaxKeys; ++i) {
        if ((table.generation[i].load(std::memory_order_relaxed) & 1) == 0) {
            table.generation[i].fetch_add(1, std::memory_order_acq_rel);
            return i + 1;
        }
    }
    throw JTCSystemCallException("JTCTSS::allocate: all " + std::to_string(kMaxKeys) +
                                 " thread-specific storage keys are in use");
}

void* JTCTSS::get(uint32_t i_nKey) {
    const uint64_t generation = LiveGeneration(i_nKey, "JTCTSS::get");
    const size_t index = i_nKey - 1;
    if (index < t_slots.size() && t_slots[index].generation == generation) {
        return t_slots[index].pValue;
    }
    return nullptr;
}

void JTCTSS::set(uint32_t i_nKey, void* i_pValue) {
    const uint64_t generation = LiveGeneration(i_nKey, "JTCTSS::set");
    const size_t index = i_nKey - 1;
    if (index >= t_slots.size()) {
        try {
            t_slots.resize(index + 1);
        } catch (const std::bad_alloc&) {
            // Callers handle the thread library's failures, not bad_alloc, here.
            throw JTCSystemCallException("JTCTSS::set: out of memory for thread-specific storage");
        }
    }
    t_slots[index] = Slot{generation, i_pValue};
}

void JTCTSS::release(uint32_t i_nKey) {
    KeyTable& table = Keys();
    std::lock_guard<std::mutex> guard(table.mutex);
    LiveGeneration(i_nKey, "JTCTSS::release");
    table.generation[i_nKey - 1].fetch_add(1, std::memory_order_acq_rel);
}
