// Many host threads on one cache while its cleaner scans, renews and removes.
// Meant for ThreadSanitizer as much as for its own checks.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "authentication/ostrel/SecContextCache.h"
#include "support/FakeToken.h"

using namespace ostrel;
using ostrel_test::FakeToken;
using ostrel_test::ScopedFakeProvider;

namespace {

constexpr int kWorkers = 4;
constexpr int kRoundsPerWorker = 1500;
constexpr auto kTimeLimit = std::chrono::seconds(4);

}  // namespace

TEST(ContextCacheStress, HostThreadsAndTheCleanerKeepEveryPromise) {
    ScopedFakeProvider provider(24 * 60 * 60 * 1000, 5, true);
    std::atomic<int> nCreated{0};
    std::atomic<int> nDestroyed{0};
    std::atomic<int> nRemovedByCleaner{0};
    std::atomic<uint64_t> nLeftValid{0};
    std::atomic<bool> bDone{false};
    CSmartRefCountPtr<SecContextCache> pCache = new SecContextCache(false);
    const auto deadline = std::chrono::steady_clock::now() + kTimeLimit;

    auto worker = [&](int i_nWorker) {
        const int64_t nHour = 60 * 60 * 1000;
        for (int nRound = 0; nRound < kRoundsPerWorker && std::chrono::steady_clock::now() < deadline; ++nRound) {
            try {
                CSmartRefCountPtr<FakeToken> pToken = new FakeToken(provider.name(), true, &nDestroyed);
                ++nCreated;
                const SDateTime made = SDateTime::GetCurrentDateTime() + STimeSpan(-23 * nHour);
                pToken->SetTimes(made, made);
                // Every third token is near its end, so the cleaner renews it beside our impersonations.
                if (nRound % 3 == 0) {
                    pToken->m_nCredentialExpiryMs = SDateTime::GetCurrentDateTime().GetMilliseconds() + 10 * 60 * 1000;
                }
                CSmartRefCountPtr<StaticToken> pStatic(pToken);
                SWCharString ssKey = pCache->Insert(pStatic);

                // Only this thread changes its own keys, and the cleaner takes only expired tokens.
                EXPECT_TRUE(pCache->Lookup(ssKey));
                pCache->Impersonate(ssKey);
                EXPECT_TRUE(pCache->Lookup(ssKey));
                pCache->Revert(ssKey);

                if (nRound % 2 == 0) {
                    SWCharString ssNewKey(OSTREL_T("worker-"));
                    ssNewKey += SWCharStringConv::ToString(i_nWorker, 10);
                    ssNewKey += OSTREL_T("-");
                    ssNewKey += SWCharStringConv::ToString(nRound, 10);
                    EXPECT_TRUE(pCache->AddAssociation(ssKey, ssNewKey));
                    EXPECT_FALSE(pCache->Lookup(ssKey));
                    ssKey = ssNewKey;
                }

                switch (nRound % 4) {
                    case 0:
                        EXPECT_TRUE(pCache->Release(ssKey));
                        break;
                    case 1: {
                        // Expired while impersonated: the cleaner must leave it until the revert.
                        pCache->Impersonate(ssKey);
                        pToken->m_nCredentialExpiryMs = SDateTime::GetCurrentDateTime().GetMilliseconds() - 1;
                        std::this_thread::yield();
                        pCache->Revert(ssKey);
                        EXPECT_FALSE(pCache->Lookup(ssKey));
                        if (!pCache->Release(ssKey)) {
                            ++nRemovedByCleaner;
                        }
                        break;
                    }
                    case 2:
                        // Left expired for the cleaner.
                        pToken->m_nCredentialExpiryMs = SDateTime::GetCurrentDateTime().GetMilliseconds() - 1;
                        break;
                    default:
                        // Left valid until the end.
                        ++nLeftValid;
                        break;
                }
            } catch (const SSOException& e) {
                ADD_FAILURE() << "worker " << i_nWorker << " round " << nRound << ": status " << e.GetCode()
                              << ", message " << e.GetMessageId();
            }
        }
    };

    std::thread waker([&] {
        while (!bDone) {
            pCache->WakeUpdateThreadForTesting();
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    std::thread stopper([&] {
        // Stops now and then; the next Insert starts a fresh cleaner.
        while (!bDone) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            pCache->StopUpdateThread();
        }
    });
    std::vector<std::thread> workers;
    for (int i = 0; i < kWorkers; ++i) {
        workers.emplace_back(worker, i);
    }
    for (std::thread& t : workers) {
        t.join();
    }
    bDone = true;
    waker.join();
    stopper.join();

    // A last scan takes whatever was left expired.
    pCache->StartUpdateThread();
    pCache->WakeUpdateThreadForTesting();
    // Exactly the valid ones stay: the cleaner never takes a token that has not expired.
    EXPECT_TRUE(ostrel_test::WaitUntil([&] { return pCache->GetCount() == nLeftValid.load(); }))
        << pCache->GetCount() << " left, " << nLeftValid.load() << " valid";
    pCache->StopUpdateThread();
    EXPECT_FALSE(pCache->IsUpdateThreadRunning());

    pCache->ReleaseAll();
    EXPECT_EQ(pCache->GetCount(), 0u);
    EXPECT_GT(nCreated.load(), kWorkers);
    EXPECT_EQ(nDestroyed.load(), nCreated.load());
    ::testing::Test::RecordProperty("removed_by_cleaner", nRemovedByCleaner.load());
}
