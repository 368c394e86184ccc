#include <thread>

#include "foundation/Locks.h"

namespace Tarvik500 {

// Whoever clears the mark wakes every sleeper; those that still cannot go on
// mark the word again before they sleep, so no wake-up is lost.
void CRWLock::sleepOn(uint32_t s) {
    if ((s & kSleepers) == 0) {
        if (!m_state.compare_exchange_weak(s, s | kSleepers, std::memory_order_relaxed)) {
            return;
        }
        s |= kSleepers;
    }
    m_state.wait(s, std::memory_order_relaxed);
}

void CRWLock::wakeAll() {
    m_state.fetch_and(~kSleepers, std::memory_order_relaxed);
    m_state.notify_all();
}

void CRWLock::lockReadSlow() {
    for (;;) {
        uint32_t s = m_state.load(std::memory_order_relaxed);
        if ((s & (kWriter | kWaitingWriters)) == 0 && (s & kReaders) != kReaders) {
            if (m_state.compare_exchange_weak(s, s + 1, std::memory_order_acquire, std::memory_order_relaxed)) {
                return;
            }
            continue;
        }
        sleepOn(s);
    }
}

void CRWLock::lockWriteSlow() {
    // Counted among the waiting writers first: from here on no new reader gets in.
    uint32_t s = m_state.load(std::memory_order_relaxed);
    for (;;) {
        if ((s & kWaitingWriters) == kWaitingWriters) {
            std::this_thread::yield();
            s = m_state.load(std::memory_order_relaxed);
        } else if (m_state.compare_exchange_weak(s, s + kOneWaitingWriter, std::memory_order_relaxed)) {
            break;
        }
    }
    for (;;) {
        s = m_state.load(std::memory_order_relaxed);
        if ((s & (kWriter | kReaders)) == 0) {
            if (m_state.compare_exchange_weak(s, (s - kOneWaitingWriter) | kWriter, std::memory_order_acquire,
                                              std::memory_order_relaxed)) {
                return;
            }
            continue;
        }
        sleepOn(s);
    }
}

}  // namespace Tarvik500
