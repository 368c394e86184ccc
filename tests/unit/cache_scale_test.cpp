// What a renegotiation inside a scan may do to the cache and to the scan.
#include <gtest/gtest.h>

#include <atomic>
#include <set>

#include "authentication/ostrel/SecContextCache.h"
#include "support/FakeToken.h"
#include "support/TraceCapture.h"

using namespace ostrel;
using ostrel_test::FakeToken;

namespace {

constexpr int64_t kHour = 60 * 60 * 1000;

// Inside a renegotiation the whole cache can be locked for writing, and a stop ends the scan before the next
// entry. Whatever is renewed is renewed once, with the one instant of the scan.
TEST(CacheScale, RenegotiationHoldsNoCacheLockAndAStopEndsTheScan) {
    ostrel_test::ScopedFakeProvider provider{24 * kHour, 5, true};
    CSmartRefCountPtr<SecContextCache> pCache{new SecContextCache(false)};
    JTCHandleT<SecContextUpdateThread> hScanner{new SecContextUpdateThread(pCache.get())};
    ostrel_test::TraceCapture capture;  // the cache's own cleaner scans once at start, then sleeps through the test
    pCache->StartUpdateThread();
    ASSERT_TRUE(ostrel_test::WaitUntil([&] { return capture.has("Thread sleeping for 60s."); }));
    for (bool bStop : {false, true}) {
        std::vector<CSmartRefCountPtr<FakeToken>> tokens;
        std::atomic<bool> bFirst{true};
        const SDateTime now = SDateTime::GetCurrentDateTime();
        for (int i = 0; i < 200; ++i) {  // made an hour ago, ending in a second; a renewal gives ten hours
            CSmartRefCountPtr<FakeToken> pToken{new FakeToken(provider.name())};
            pToken->SetTimes(now + STimeSpan(-kHour), now + STimeSpan(-kHour));
            pToken->m_nCredentialExpiryMs = now.GetMilliseconds() + 1000;
            pToken->m_nRenewedLifetimeMs = 10 * kHour;
            pToken->m_onRenegotiate = [&, bStop] {
                if (bFirst.exchange(false)) bStop ? hScanner->stop() : pCache->ReleaseAll();
            };
            tokens.push_back(pToken);
            CSmartRefCountPtr<StaticToken> pStatic(pToken);
            pCache->Insert(pStatic);
        }
        hScanner->CleanUp();
        size_t nRenewed = 0;
        std::set<int64_t> instants;
        for (const CSmartRefCountPtr<FakeToken>& pToken : tokens) {
            EXPECT_LE(pToken->m_nRenegotiateCalls, 1);
            if (pToken->m_nRenegotiateCalls == 1) {
                instants.insert(pToken->GetRenewed().GetMilliseconds());
                ++nRenewed;
            }
        }
        EXPECT_EQ(instants.size(), 1u);
        EXPECT_TRUE(!bStop || nRenewed == 1) << nRenewed << " renewed after a stop";
        EXPECT_EQ(pCache->GetCount(), bStop ? tokens.size() : 0u);
        pCache->ReleaseAll();
    }
    pCache->StopUpdateThread();
}

}  // namespace
