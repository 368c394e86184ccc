#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "foundation/Locks.h"

using namespace Tarvik500;

// Readers may share the lock; a writer never meets anyone inside. (A platform's
// library once let them overlap, which no other test noticed.)
TEST(FoundationLocks, WritersExcludeEveryoneReadersOnlyWriters) {
    CRWLock lock;
    std::atomic<int> nReaders{0};
    std::atomic<int> nWriters{0};
    std::atomic<int> nViolations{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        const bool bWriter = t % 2 == 0;
        threads.emplace_back([&, bWriter] {
            for (int i = 0; i < 5000; ++i) {
                if (bWriter) {
                    CSmartWriteLocker guard(lock);
                    if (nWriters.fetch_add(1) != 0 || nReaders.load() != 0) {
                        ++nViolations;
                    }
                    std::this_thread::yield();  // widen the window a broken lock would show in
                    nWriters.fetch_sub(1);
                } else {
                    CSmartReadLocker guard(lock);
                    nReaders.fetch_add(1);
                    std::this_thread::yield();
                    if (nWriters.load() != 0) {
                        ++nViolations;
                    }
                    nReaders.fetch_sub(1);
                }
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(nViolations.load(), 0);
}
