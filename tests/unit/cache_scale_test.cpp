// The cleaner's rules while it walks the cache slice by slice, with hosts at
// work on other threads (run it under ThreadSanitizer too).
#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

#include "authentication/ostrel/SecContextCache.h"
#include "support/FakeToken.h"
#include "support/TraceCapture.h"

using namespace ostrel;
using ostrel_test::FakeToken;

namespace {

constexpr int64_t kHour = 60 * 60 * 1000;

class CacheScale : public ::testing::Test {
protected:
    // The cache's own cleaner scans once at start, then sleeps through the test.
    void SetUp() override {
        ostrel_test::TraceCapture capture;
        m_pCache->StartUpdateThread();
        ASSERT_TRUE(ostrel_test::WaitUntil([&] { return capture.has("Thread sleeping for 60s."); }));
    }
    void TearDown() override { m_pCache->StopUpdateThread(); }

    // Made an hour ago; its credential ends in i_nEndsInMs.
    CSmartRefCountPtr<FakeToken> Add(int64_t i_nEndsInMs, std::vector<SWCharString>& o_keys) {
        CSmartRefCountPtr<FakeToken> pToken = new FakeToken(m_provider.name());
        const SDateTime now = SDateTime::GetCurrentDateTime();
        pToken->SetTimes(now + STimeSpan(-kHour), now + STimeSpan(-kHour));
        pToken->m_nCredentialExpiryMs = now.GetMilliseconds() + i_nEndsInMs;
        pToken->m_nRenewedLifetimeMs = 10 * kHour;
        CSmartRefCountPtr<StaticToken> pStatic(pToken);
        o_keys.push_back(m_pCache->Insert(pStatic));
        return pToken;
    }
    ostrel_test::ScopedFakeProvider m_provider{24 * kHour, 5, true};
    CSmartRefCountPtr<SecContextCache> m_pCache = new SecContextCache(false);
    JTCHandleT<SecContextUpdateThread> m_hScanner{new SecContextUpdateThread(m_pCache.get())};
};

TEST_F(CacheScale, ScansKeepTheirRulesWhileHostsInsertLookUpImpersonateAndRelease) {
    std::vector<SWCharString> held, gone, renewed;
    std::vector<CSmartRefCountPtr<FakeToken>> renewedTokens;
    for (int i = 0; i < 300; ++i) {
        Add(-1000, gone);
        renewedTokens.push_back(Add(1000, renewed));
        CSmartRefCountPtr<FakeToken> pHeld = Add(kHour, held);
        m_pCache->Impersonate(held.back());
        pHeld->m_nCredentialExpiryMs = 0;  // expired, but impersonated
    }
    std::atomic<bool> bDone{false};
    std::vector<std::thread> hosts;
    for (int t = 0; t < 2; ++t) {
        hosts.emplace_back([&] {
            for (int i = 0; !bDone; ++i) {
                std::vector<SWCharString> mine;
                Add(kHour, mine);
                EXPECT_TRUE(m_pCache->Lookup(mine[0]));
                m_pCache->Impersonate(mine[0]);
                m_pCache->Revert(mine[0]);
                EXPECT_FALSE(m_pCache->Lookup(held[i % held.size()]));
                EXPECT_TRUE(m_pCache->Release(mine[0]));
            }
        });
    }
    for (int nScan = 0; nScan < 5; ++nScan) {
        m_hScanner->CleanUp();
    }
    bDone = true;
    for (std::thread& host : hosts) {
        host.join();
    }
    EXPECT_EQ(m_pCache->GetCount(), held.size() + renewed.size());
    for (const SWCharString& ssKey : held) {
        EXPECT_NO_THROW(m_pCache->Revert(ssKey));
    }
    for (const SWCharString& ssKey : gone) {
        EXPECT_THROW(m_pCache->Revert(ssKey), SSOException);
    }
    // Renewed once each, all with the one instant of the scan that renewed them.
    std::set<int64_t> instants;
    for (const CSmartRefCountPtr<FakeToken>& pToken : renewedTokens) {
        EXPECT_EQ(pToken->m_nRenegotiateCalls, 1);
        instants.insert(pToken->GetRenewed().GetMilliseconds());
    }
    EXPECT_EQ(instants.size(), 1u);
    m_hScanner->stop();
}

// Inside a renegotiation the whole cache can be locked for writing, and a stop
// ends the scan before the next entry.
TEST_F(CacheScale, RenegotiationHoldsNoCacheLockAndAStopEndsTheScan) {
    for (bool bStop : {false, true}) {
        std::vector<SWCharString> keys;
        std::vector<CSmartRefCountPtr<FakeToken>> tokens;
        std::atomic<bool> bFirst{true};
        for (int i = 0; i < 200; ++i) {
            tokens.push_back(Add(1000, keys));
            tokens.back()->m_onRenegotiate = [&, bStop] {
                if (bFirst.exchange(false)) {
                    bStop ? m_hScanner->stop() : m_pCache->ReleaseAll();
                }
            };
        }
        ostrel_test::TraceCapture capture;
        m_hScanner->CleanUp();
        int nCalls = 0;
        std::set<int64_t> instants;
        for (const CSmartRefCountPtr<FakeToken>& pToken : tokens) {
            nCalls += pToken->m_nRenegotiateCalls;
            if (pToken->m_nRenegotiateCalls > 0) {
                instants.insert(pToken->GetRenewed().GetMilliseconds());
            }
        }
        // Released during the scan: what the scan still held was renewed, with the scan's one instant.
        EXPECT_TRUE(!bStop || nCalls == 1) << nCalls << " renegotiations";
        EXPECT_EQ(instants.size(), 1u);
        EXPECT_EQ(capture.has("Thread has been stopped; aborting cleanup scan"), bStop);
        EXPECT_EQ(m_pCache->GetCount(), bStop ? keys.size() : 0u);
        m_pCache->ReleaseAll();
    }
}

}  // namespace
