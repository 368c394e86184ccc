// Threads, stoppable sleeps and per-thread slots.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "foundation/Threads.h"

namespace {

using Clock = std::chrono::steady_clock;

// Sleeps a minute unless woken; records what the sleep said.
class Sleeper : public TerminatingThread {
public:
    explicit Sleeper(std::atomic<int>* io_pDestroyed = nullptr) : m_pDestroyed(io_pDestroyed) {}
    ~Sleeper() override {
        if (m_pDestroyed != nullptr) {
            ++*m_pDestroyed;
        }
    }

    std::atomic<bool> m_bSleeping{false};
    std::atomic<int> m_nWakes{0};
    std::atomic<bool> m_bStoppedResult{false};

protected:
    void run() override {
        for (;;) {
            m_bSleeping = true;
            const bool bStopped = sleep_with_stop_alarm(60000);
            ++m_nWakes;
            if (bStopped) {
                m_bStoppedResult = true;
                return;
            }
        }
    }

private:
    std::atomic<int>* m_pDestroyed;
};

void WaitFor(const std::atomic<bool>& i_flag) {
    while (!i_flag.load()) {
        std::this_thread::yield();
    }
}

TEST(FoundationThreads, InitializeCountsNestedUses) {
    const bool bBefore = JTCInitialize::initialized();
    {
        JTCInitialize outer;
        EXPECT_TRUE(JTCInitialize::initialized());
        { JTCInitialize inner; }
        EXPECT_TRUE(JTCInitialize::initialized());
    }
    EXPECT_EQ(JTCInitialize::initialized(), bBefore);
}

TEST(FoundationThreads, StopWakesASleeperAtOnce) {
    JTCHandleT<Sleeper> thread(new Sleeper());
    EXPECT_FALSE(thread->isAlive());
    thread->start();
    WaitFor(thread->m_bSleeping);
    const auto begin = Clock::now();
    thread->stop();
    EXPECT_TRUE(thread->join(5000));
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(5));
    EXPECT_TRUE(thread->m_bStoppedResult.load());
    EXPECT_TRUE(thread->isStopped());
    EXPECT_FALSE(thread->isAlive());
}

TEST(FoundationThreads, JoinTimesOutWhileRunningAndAwakeDoesNotStop) {
    JTCHandleT<Sleeper> thread(new Sleeper());
    thread->start();
    WaitFor(thread->m_bSleeping);
    EXPECT_FALSE(thread->join(20));
    EXPECT_TRUE(thread->isAlive());

    thread->awake();
    while (thread->m_nWakes.load() == 0) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(thread->isStopped());
    EXPECT_TRUE(thread->isAlive());

    thread->stop();
    EXPECT_TRUE(thread->join(5000));
    EXPECT_EQ(thread->m_nWakes.load(), 2);
    EXPECT_THROW(thread->start(), JTCException);
}

TEST(FoundationThreads, ARunningThreadKeepsItselfAlive) {
    std::atomic<int> destroyed{0};
    JTCHandleT<Sleeper> thread(new Sleeper(&destroyed));
    Sleeper* pRaw = thread.get();
    thread->start();
    WaitFor(pRaw->m_bSleeping);
    thread = JTCHandleT<Sleeper>();
    EXPECT_EQ(destroyed.load(), 0);

    // The thread's own reference is the last one: it ends, and frees itself, on its own.
    pRaw->stop();
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (destroyed.load() == 0 && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(destroyed.load(), 1);
}

class Thrower : public JTCThread {
protected:
    void run() override { throw std::runtime_error("the body failed"); }
};

TEST(FoundationThreads, AnExceptionInRunEndsOnlyTheThread) {
    JTCHandleT<Thrower> thread(new Thrower());
    thread->start();
    EXPECT_TRUE(thread->join(5000));
    EXPECT_FALSE(thread->isAlive());
}

TEST(FoundationTss, SlotsArePerThreadAndStartEmpty) {
    const uint32_t key = JTCTSS::allocate();
    int mine = 1;
    int theirs = 2;
    EXPECT_EQ(JTCTSS::get(key), nullptr);
    JTCTSS::set(key, &mine);

    void* pSeenFirst = &mine;
    void* pSeenAfterSet = nullptr;
    std::thread other([&] {
        pSeenFirst = JTCTSS::get(key);
        JTCTSS::set(key, &theirs);
        pSeenAfterSet = JTCTSS::get(key);
    });
    other.join();
    EXPECT_EQ(pSeenFirst, nullptr);
    EXPECT_EQ(pSeenAfterSet, &theirs);
    EXPECT_EQ(JTCTSS::get(key), &mine);
    JTCTSS::release(key);
}

TEST(FoundationTss, AReleasedKeyShowsNoStaleValue) {
    const uint32_t key = JTCTSS::allocate();
    int value = 1;
    JTCTSS::set(key, &value);
    JTCTSS::release(key);
    EXPECT_THROW(JTCTSS::get(key), JTCSystemCallException);
    EXPECT_THROW(JTCTSS::set(key, &value), JTCSystemCallException);
    EXPECT_THROW(JTCTSS::release(key), JTCSystemCallException);

    // The freed key comes back first; the old value must not come with it.
    const uint32_t again = JTCTSS::allocate();
    ASSERT_EQ(again, key);
    EXPECT_EQ(JTCTSS::get(again), nullptr);
    JTCTSS::release(again);

    EXPECT_THROW(JTCTSS::get(0), JTCSystemCallException);
}

TEST(FoundationTss, AllocationFailsCleanlyWhenTheTableIsFull) {
    std::vector<uint32_t> keys;
    bool bFull = false;
    for (int i = 0; i < 5000 && !bFull; ++i) {
        try {
            keys.push_back(JTCTSS::allocate());
        } catch (const JTCSystemCallException&) {
            bFull = true;
        }
    }
    EXPECT_TRUE(bFull);
    EXPECT_GT(keys.size(), 0u);
    for (uint32_t key : keys) {
        JTCTSS::release(key);
    }
    const uint32_t key = JTCTSS::allocate();
    JTCTSS::release(key);
}

}  // namespace
