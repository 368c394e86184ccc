// The cleaner's rules while it walks the cache slice by slice, with hosts at work (also under ThreadSanitizer).
#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "authentication/ostrel/SecContextCache.h"
#include "support/FakeToken.h"
#include "support/TraceCapture.h"

using namespace ostrel;
using ostrel_test::FakeToken;
using Tokens = std::vector<CSmartRefCountPtr<FakeToken>>;

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
    // Made an hour ago; its credential ends in i_nEndsInMs, a renewal gives it ten hours.
    SWCharString Add(int64_t i_nEndsInMs, Tokens* o_pTokens = nullptr) {
        CSmartRefCountPtr<FakeToken> pToken{new FakeToken(m_provider.name())};
        const SDateTime now = SDateTime::GetCurrentDateTime();
        pToken->SetTimes(now + STimeSpan(-kHour), now + STimeSpan(-kHour));
        pToken->m_nCredentialExpiryMs = now.GetMilliseconds() + i_nEndsInMs;
        pToken->m_nRenewedLifetimeMs = 10 * kHour;
        if (o_pTokens != nullptr) o_pTokens->push_back(pToken);
        CSmartRefCountPtr<StaticToken> pStatic(pToken);
        return m_pCache->Insert(pStatic);
    }
    // Renewed once at most, all with the one instant of the scan; gives how many were.
    static size_t ExpectRenewedInOneInstant(const Tokens& i_tokens) {
        size_t nRenewed = 0;
        std::set<int64_t> instants;
        for (const CSmartRefCountPtr<FakeToken>& pToken : i_tokens) {
            EXPECT_LE(pToken->m_nRenegotiateCalls, 1);
            if (pToken->m_nRenegotiateCalls == 1) {
                instants.insert(pToken->GetRenewed().GetMilliseconds());
                ++nRenewed;
            }
        }
        EXPECT_EQ(instants.size(), 1u);
        return nRenewed;
    }
    ostrel_test::ScopedFakeProvider m_provider{24 * kHour, 5, true};
    CSmartRefCountPtr<SecContextCache> m_pCache{new SecContextCache(false)};
    JTCHandleT<SecContextUpdateThread> m_hScanner{new SecContextUpdateThread(m_pCache.get())};
};

TEST_F(CacheScale, ScansKeepTheirRulesWhileHostsInsertLookUpImpersonateAndRelease) {
    std::vector<SWCharString> held, gone;
    Tokens heldTokens, renewed;
    for (int i = 0; i < 300; ++i) {
        gone.push_back(Add(-1000));
        Add(1000, &renewed);
        held.push_back(Add(kHour, &heldTokens));
        m_pCache->Impersonate(held.back());
        heldTokens.back()->m_nCredentialExpiryMs = 0;  // expired, but impersonated
    }
    std::atomic<bool> bDone{false};
    auto host = [&] {
        while (!bDone) {
            const SWCharString ssKey = Add(kHour);
            EXPECT_TRUE(m_pCache->Lookup(ssKey));
            m_pCache->Impersonate(ssKey);
            m_pCache->Revert(ssKey);
            EXPECT_TRUE(m_pCache->Release(ssKey));
        }
    };
    std::thread first(host), second(host);
    for (int nScan = 0; nScan < 5; ++nScan) m_hScanner->CleanUp();
    bDone = true;
    first.join();
    second.join();
    EXPECT_EQ(m_pCache->GetCount(), held.size() + renewed.size());
    for (size_t i = 0; i < held.size(); ++i) {
        EXPECT_NO_THROW(m_pCache->Revert(held[i]));
        EXPECT_THROW(m_pCache->Revert(gone[i]), SSOException);
    }
    EXPECT_EQ(ExpectRenewedInOneInstant(renewed), renewed.size());
    m_hScanner->stop();
}

// Inside a renegotiation the whole cache can be locked for writing, and a stop
// ends the scan before the next entry.
TEST_F(CacheScale, RenegotiationHoldsNoCacheLockAndAStopEndsTheScan) {
    for (bool bStop : {false, true}) {
        Tokens tokens;
        std::atomic<bool> bFirst{true};
        for (int i = 0; i < 200; ++i) {
            Add(1000, &tokens);
            tokens.back()->m_onRenegotiate = [&, bStop] {
                if (bFirst.exchange(false)) bStop ? m_hScanner->stop() : m_pCache->ReleaseAll();
            };
        }
        m_hScanner->CleanUp();
        const size_t nRenewed = ExpectRenewedInOneInstant(tokens);
        EXPECT_TRUE(!bStop || nRenewed == 1) << nRenewed << " renewed after a stop";
        EXPECT_EQ(m_pCache->GetCount(), bStop ? tokens.size() : 0u);
        m_pCache->ReleaseAll();
    }
}

}  // namespace
