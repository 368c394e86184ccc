// The context cache: when a token counts as expired or is renewed, the cache as a store, its cleaner's scan
// and thread, and many host threads on it at once.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "authentication/ostrel/ContextManager.h"
#include "authentication/ostrel/SecContextCache.h"
#include "support/FakeToken.h"
#include "support/TraceCapture.h"

using namespace ostrel;
using ostrel_test::FakeToken;
using ostrel_test::Narrow;
using ostrel_test::ScopedFakeProvider;
using ostrel_test::Thrown;
using ostrel_test::WaitUntil;
using TokenPtr = CSmartRefCountPtr<FakeToken>;

namespace {

constexpr int64_t kMin = 60 * 1000;
constexpr int64_t kHour = 60 * kMin;
const SDateTime T0 = SDateTime::FromMilliseconds(1700000000000);
SDateTime At(int64_t i_nMs) { return T0 + STimeSpan(i_nMs); }

class Cache : public ::testing::Test {
protected:
    void TearDown() override { m_pCache->StopUpdateThread(); }
    // Made an hour ago by default, so that a credential near its end is within the renewal threshold.
    TokenPtr NewToken(int64_t i_nCreated = -kHour) {
        TokenPtr p{new FakeToken(m_provider.name(), true, &m_nDestroyed)};
        const SDateTime made = SDateTime::GetCurrentDateTime() + STimeSpan(i_nCreated);
        p->SetTimes(made, made);
        return p;
    }
    SWCharString Insert(const TokenPtr& i_pToken, const ostrel_char* i_pKey = nullptr) {
        CSmartRefCountPtr<StaticToken> p(i_pToken);
        SWCharString ssKey = m_pCache->Insert(p);
        if (i_pKey != nullptr) {  // fixed keys give a known scan order
            EXPECT_TRUE(m_pCache->AddAssociation(ssKey, SWCharString(i_pKey)));
            ssKey = i_pKey;
        }
        return ssKey;
    }
    // One scan run here, on a thread object that never starts.
    void ScanOnce(bool i_bStopped = false) {
        JTCHandleT<SecContextUpdateThread> hThread(new SecContextUpdateThread(m_pCache.get()));
        if (i_bStopped) hThread->stop();
        hThread->CleanUp();
        hThread->stop();
    }
    bool Traced(const std::string& i_text) { return m_capture.hasLineEndingWith("ssoplugin: " + i_text); }

    std::atomic<int> m_nDestroyed{0};
    ScopedFakeProvider m_provider{24 * kHour, uint8_t{5}, true};
    CSmartRefCountPtr<SecContextCache> m_pCache{new SecContextCache(false)};
    ostrel_test::TraceCapture m_capture;
};

}  // namespace

TEST_F(Cache, ExpiryByConfigurationAndByTheMechanism) {
    const struct {
        int64_t limit, credential, now;  // configured limit from creation at T0, credential's end, the moment
        bool byConfiguration, expired;
    } rows[] = {
        {kHour, FakeToken::kNever, kHour, false, false},  // the limit is strict
        {kHour, FakeToken::kNever, kHour + 1, true, true},
        {0, FakeToken::kNever, 100 * 24 * kHour, false, false},  // 0: no limit
        {24 * kHour, 10 * kHour, 10 * kHour, false, false},
        {24 * kHour, 10 * kHour, 10 * kHour + 1, false, true},  // the mechanism ends it first
    };
    for (const auto& row : rows) {
        m_provider->SetCacheExpiry(row.limit);
        TokenPtr p = NewToken();
        p->SetTimes(T0, At(50 * kMin));  // a renewal does not move the configured limit
        p->m_nCredentialExpiryMs = row.credential == FakeToken::kNever ? row.credential : At(row.credential).GetMilliseconds();
        EXPECT_EQ(p->ExpiredByConfiguration(At(row.now)), row.byConfiguration) << row.now;
        EXPECT_EQ(p->IsExpired(At(row.now)), row.expired) << row.now;
        EXPECT_EQ(Traced("StaticToken::ExpiredByConfiguration() -- This token has expired."), row.byConfiguration);
        m_capture.clear();
    }
    TokenPtr pLost{new FakeToken(SWCharString(OSTREL_T("NO_SUCH_PROVIDER")))};
    EXPECT_EQ(Thrown([&] { pLost->ExpiredByConfiguration(At(0)); }), std::make_pair(100u, uint32_t{MSG_NO_HANDLER}));
    EXPECT_FALSE(pLost->Renegotiate(At(0)));
    EXPECT_TRUE(m_capture.hasLineEndingWith("ASSERT(0) ssoplugin: StaticToken::Renegotiate() -- Caught an exception!"));
}

// A 10-hour credential under a 24-hour limit at 5 percent: renewal in its last 30 minutes.
TEST_F(Cache, RenewalOnlyWithinTheThresholdAndTheSettings) {
    using R = FakeToken::Renewal;
    const struct {
        const char* what;
        int64_t limit;
        int threshold;
        bool allowed;
        int64_t renewedAt, credential, now;
        R renewal;
        bool renewed;
        int calls;
        const char* trace;
    } rows[] = {
        {"before the threshold", 24 * kHour, 5, true, 0, 10 * kHour, 10 * kHour - 30 * kMin - 1, R::Succeed, false, 0, ""},
        {"at the threshold", 24 * kHour, 5, true, 0, 10 * kHour, 10 * kHour - 30 * kMin, R::Succeed, true, 1,
         "SSPIStaticToken::Renegotiate() -- Renegotiating token."},
        {"renewals off", 24 * kHour, 5, false, 0, 10 * kHour, 10 * kHour - 1, R::Succeed, false, 0, ""},
        {"limit not past the credential", 10 * kHour, 5, true, 0, 10 * kHour, 10 * kHour - 1, R::Succeed, false, 0, ""},
        {"at the configured age", 24 * kHour, 5, true, 14 * kHour, 24 * kHour + 10 * kMin, 24 * kHour, R::Succeed, false, 0, ""},
        {"0 percent acts as 5", 24 * kHour, 0, true, 0, 10 * kHour, 10 * kHour - 30 * kMin - 1, R::Succeed, false, 0,
         "ASSERT(nThresholdPercentage < 100 && nThresholdPercentage > 0)"},
        {"mechanism fails", 24 * kHour, 5, true, 0, 10 * kHour, 10 * kHour - 1, R::ThrowSSOException, false, 1,
         "SSPIStaticToken::Renegotiate() -- Failed to renegotiate security context."},
        {"mechanism falls over", 24 * kHour, 5, true, 0, 10 * kHour, 10 * kHour - 1, R::ThrowOther, false, 1,
         "ASSERT(0) ssoplugin: StaticToken::Renegotiate() -- Caught an exception!"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        m_capture.clear();
        m_provider->SetCacheExpiry(row.limit);
        m_provider->SetThresholdPercentage(static_cast<uint8_t>(row.threshold));
        m_provider->SetRenewalsAllowed(row.allowed);
        TokenPtr p = NewToken();
        p->SetTimes(T0, At(row.renewedAt));
        p->m_nCredentialExpiryMs = row.credential == FakeToken::kNever ? row.credential : At(row.credential).GetMilliseconds();
        p->m_eRenewal = row.renewal;
        EXPECT_EQ(p->Renegotiate(At(row.now)), row.renewed);
        EXPECT_EQ(p->m_nRenegotiateCalls, row.calls);
        EXPECT_TRUE(p->GetRenewed() == At(row.renewed ? row.now : row.renewedAt));
        EXPECT_TRUE(p->GetCreated() == T0);
        EXPECT_EQ(m_capture.has("ASSERT("), std::string(row.trace).rfind("ASSERT(", 0) == 0);
        if (*row.trace != 0) {
            EXPECT_TRUE(m_capture.hasLineEndingWith(row.trace));
        }
    }
}

TEST_F(Cache, KeysReferencesLookupsAndRemoval) {
    TokenPtr pToken = NewToken();
    const SWCharString ssKey = Insert(pToken);
    EXPECT_EQ(Narrow(ssKey), std::to_string(pToken->GetKey()));
    EXPECT_TRUE(Insert(pToken) == ssKey);  // once in, however often inserted
    EXPECT_EQ(m_capture.count("SecContextCache::Insert() -- 1 contexts now in cache."), 2u);
    TokenPtr pOther = NewToken();
    const SWCharString ssOther = Insert(pOther);
    EXPECT_FALSE(ssOther == ssKey);
    m_pCache->StopUpdateThread();  // a scan's copy of the map would keep the token alive a moment longer
    EXPECT_TRUE(Traced("SecContextCache::Insert() -- 2 contexts now in cache."));
    pToken = nullptr;
    EXPECT_EQ(m_nDestroyed, 0);
    EXPECT_TRUE(m_pCache->Release(ssKey));
    EXPECT_EQ(m_nDestroyed, 1) << "the cache held one reference";
    EXPECT_FALSE(m_pCache->Release(ssKey));

    // Unknown keys, the literals among them, fail each operation in its own way.
    CSmartRefCountPtr<StaticToken> pOut;
    for (const ostrel_char* pKey : {OSTREL_T("host-key"), OSTREL_T("DUMMY_KEY__CACHING_IS_OFF"), OSTREL_T("DUMMY_KEY")}) {
        const SWCharString ssUnknown(pKey);
        EXPECT_FALSE(m_pCache->Lookup(ssUnknown) || m_pCache->Remove(ssUnknown, pOut));
        EXPECT_EQ(Thrown([&] { m_pCache->Impersonate(ssUnknown); }), std::make_pair(100u, uint32_t{MSG_NO_TOKEN}));
        EXPECT_EQ(Thrown([&] { m_pCache->Revert(ssUnknown); }), std::make_pair(100u, uint32_t{MSG_TOKEN_NOT_FOUND}));
        EXPECT_FALSE(m_pCache->AddAssociation(ssUnknown, SWCharString(OSTREL_T("x"))));
    }
    EXPECT_TRUE(Traced("ContextManager::Impersonate() -- token for host-key not found or expired."));
    EXPECT_EQ(m_pCache->GetCount(), 1u);
    EXPECT_TRUE(m_pCache->Remove(ssOther, pOut) && pOut.get() == pOther.get() && !m_pCache->Lookup(ssOther));

    const SWCharString ssBusy = Insert(NewToken());
    m_pCache->Impersonate(ssBusy);
    EXPECT_TRUE(m_pCache->Release(ssBusy));  // open impersonations do not hold it
    Insert(NewToken());
    Insert(NewToken());
    m_pCache->StopUpdateThread();
    m_pCache->ReleaseAll();
    EXPECT_EQ(m_pCache->GetCount(), 0u);
    EXPECT_EQ(m_nDestroyed, 4);
    Insert(NewToken());
    m_pCache->StopUpdateThread();
    m_pCache = nullptr;
    EXPECT_TRUE(Traced("SecContextCache::~SecContextCache() -- Shutting down cleanly with 1 cached contexts"));
    EXPECT_EQ(m_nDestroyed, 5);
    m_pCache = CSmartRefCountPtr<SecContextCache>(new SecContextCache(false));
    EXPECT_EQ(Thrown([] { CSmartRefCountPtr<ContextManager> p{new ContextManager(nullptr)}; }),
              std::make_pair(100u, uint32_t{MSG_DEFAULT}));
    EXPECT_TRUE(m_capture.hasLineEndingWith("ASSERT(m_pContextCache)"));
}

TEST_F(Cache, ExpiredOrImpersonatedTokensAndAssociations) {
    TokenPtr pToken = NewToken(-2000);
    const SWCharString ssKey = Insert(pToken);
    Insert(NewToken(), OSTREL_T("b"));
    m_pCache->StopUpdateThread();  // it would take the expired token first
    m_pCache->Impersonate(ssKey);
    EXPECT_EQ(pToken->GetImpersonationCount(), 1);
    pToken->m_bImpersonateFails = true;  // the token's own failure passes through unchanged
    EXPECT_EQ(Thrown([&] { m_pCache->Impersonate(ssKey); }), std::make_pair(100u, uint32_t{MSG_IMPERSONATION}));
    pToken->m_bImpersonateFails = false;
    // Past the configured limit, then past the credential: refused, kept, and revertable.
    for (int i = 0; i < 2; ++i) {
        i == 0 ? m_provider->SetCacheExpiry(1000) : pToken->ExpireIn(-1);
        EXPECT_FALSE(m_pCache->Lookup(ssKey));
        EXPECT_EQ(Thrown([&] { m_pCache->Impersonate(ssKey); }), std::make_pair(100u, uint32_t{MSG_NO_TOKEN}));
        m_provider->SetCacheExpiry(24 * kHour);
    }
    EXPECT_EQ(pToken->m_nImpersonateCalls, 2);
    const SWCharString kA(OSTREL_T("a"));
    const SWCharString kB(OSTREL_T("b"));
    EXPECT_TRUE(m_pCache->AddAssociation(ssKey, kA));  // an expired context moves too
    EXPECT_TRUE(m_pCache->AddAssociation(kA, kA));
    EXPECT_EQ(m_pCache->GetCount(), 2u);
    m_pCache->Revert(kA);
    EXPECT_EQ(pToken->GetImpersonationCount(), 0);
    EXPECT_EQ(Thrown([&] { m_pCache->Revert(ssKey); }), std::make_pair(100u, uint32_t{MSG_TOKEN_NOT_FOUND}));

    // Onto a taken key: the token there loses the cache's reference.
    EXPECT_TRUE(m_pCache->AddAssociation(kA, kB));
    EXPECT_EQ(m_nDestroyed, 1);
    EXPECT_EQ(m_pCache->GetCount(), 1u);
}

TEST_F(Cache, AScanRemovesRenewsAndSkipsAsItShould) {
    TokenPtr a = NewToken(), b = NewToken(), c = NewToken(), d = NewToken(), e = NewToken();
    // Renewal runs outside the cache's lock: a scan holding it would hang here.
    a->m_onRenegotiate = [this] { EXPECT_TRUE(m_pCache->Release(SWCharString(OSTREL_T("d")))); };
    const std::pair<TokenPtr, const ostrel_char*> all[] = {
        {a, OSTREL_T("a")}, {b, OSTREL_T("b")}, {c, OSTREL_T("c")}, {d, OSTREL_T("d")}, {e, OSTREL_T("e")}};
    for (const auto& [p, k] : all) Insert(p, k);
    m_pCache->StopUpdateThread();  // the scans below are ours alone
    for (const auto& [p, k] : all) {
        p->ExpireIn(kMin);  // all near their end, and a minute is more than any scan takes
    }
    m_pCache->Impersonate(SWCharString(OSTREL_T("c")));
    b->ExpireIn(-1);
    c->ExpireIn(-1);
    e->m_bExpiredThrows = true;
    ScanOnce();
    EXPECT_EQ(a->m_nRenegotiateCalls, 1);
    EXPECT_EQ(b->m_nRenegotiateCalls + c->m_nRenegotiateCalls, 0) << "an expired token is never renewed";
    EXPECT_EQ(d->m_nRenegotiateCalls, 1) << "released during the scan, renewed from the scan's copy";
    EXPECT_TRUE(Traced("SecContextUpdateThread::CleanUp() -- b has been removed."));
    EXPECT_TRUE(Traced("SecContextUpdateThread::CleanUp() -- c is expired but impersonated -- remove later."));
    EXPECT_TRUE(m_capture.hasLineEndingWith("ASSERT(0) ssoplugin: SecContextUpdateThread::CleanUp() -- Caught an internal exception!"));
    EXPECT_EQ(m_pCache->GetCount(), 3u);  // a, c, e

    // A stopped thread abandons its scan; the one without a cache only reports.
    m_capture.clear();
    m_pCache->Revert(SWCharString(OSTREL_T("c")));
    ScanOnce(true);
    EXPECT_TRUE(Traced("SecContextUpdateThread::CleanUp() -- Thread has been stopped; aborting cleanup scan"));
    EXPECT_EQ(m_pCache->GetCount(), 3u);
    JTCHandleT<SecContextUpdateThread> hLost(new SecContextUpdateThread(nullptr));
    hLost->start();
    EXPECT_TRUE(hLost->join(20000));
    EXPECT_TRUE(m_capture.hasLineEndingWith("ASSERT(0) ssoplugin: SecContextUpdateThread::run() -- No cache for this thread to manage!"));
}

TEST_F(Cache, TheCleanerThreadStartsOnceAndStopsAtOnce) {
    const char* const kSleeping = "ssoplugin: SecContextUpdateThread::run() -- Thread sleeping for 60s.";
    EXPECT_FALSE(m_pCache->IsUpdateThreadRunning());
    TokenPtr pIdle = NewToken(), pBusy = NewToken();
    const SWCharString ssIdle = Insert(pIdle), ssBusy = Insert(pBusy);
    m_pCache->StartUpdateThread();
    EXPECT_TRUE(m_pCache->IsUpdateThreadRunning()) << "the first insert starts it";
    EXPECT_EQ(m_capture.count("StartUpdateThread() -- Starting update thread."), 1u);
    ASSERT_TRUE(WaitUntil([&] { return m_capture.has(kSleeping); })) << "no first scan";
    // Woken, it scans again at once.
    m_pCache->Impersonate(ssBusy);
    pIdle->ExpireIn(-1);
    pBusy->ExpireIn(-1);
    pIdle = nullptr;
    TestAccess::WakeUpdateThread(*m_pCache);
    ASSERT_TRUE(WaitUntil([&] { return m_nDestroyed == 1; })) << "the woken cleaner did not remove the idle token";
    m_pCache->Revert(ssBusy);
    TestAccess::WakeUpdateThread(*m_pCache);
    ASSERT_TRUE(WaitUntil([&] { return m_pCache->GetCount() == 0; })) << "nor the reverted one later";

    const auto start = std::chrono::steady_clock::now();
    m_pCache->StopUpdateThread();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30)) << "stop waited out the sleep";
    EXPECT_FALSE(m_pCache->IsUpdateThreadRunning());
    EXPECT_TRUE(Traced("SecContextUpdateThread::run() -- Thread has been stopped."));
    m_pCache->StartUpdateThread();
    EXPECT_EQ(m_capture.count("StartUpdateThread() -- Starting update thread."), 2u);
    EXPECT_FALSE(m_capture.has("ASSERT("));
}

// Meant for the thread sanitizer as much as for its own checks.
TEST_F(Cache, HostThreadsAndTheCleanerKeepEveryPromise) {
    std::atomic<bool> bDone{false};
    std::atomic<uint64_t> nLeftValid{0};
    std::thread waker([&] {
        for (int i = 1; !bDone; ++i) {
            TestAccess::WakeUpdateThread(*m_pCache);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            (void)(i % 250 == 0 && (m_pCache->StopUpdateThread(), true));  // the next insert starts a fresh one
        }
    });
    std::vector<std::thread> workers;
    for (int w = 0; w < 4; ++w) {
        workers.emplace_back([&] {
            for (int n = 0; n < 400; ++n) {
                TokenPtr p = NewToken(-23 * kHour);
                p->ExpireIn(n % 3 == 0 ? 10 * kMin : 24 * kHour);  // some are renewed beside our impersonations
                SWCharString ssKey = Insert(p);
                m_pCache->Impersonate(ssKey);
                p->ExpireIn(n % 2 == 0 ? -1 : 24 * kHour);  // expired while impersonated: kept until the revert
                EXPECT_EQ(m_pCache->GetCount() > 0 && m_pCache->Lookup(ssKey), n % 2 != 0);
                m_pCache->Revert(ssKey);
                nLeftValid += n % 2 != 0 && !(n % 4 == 1 && m_pCache->Release(ssKey));
            }
        });
    }
    for (auto& t : workers) t.join();
    bDone = true;
    waker.join();
    m_pCache->StartUpdateThread();
    TestAccess::WakeUpdateThread(*m_pCache);
    EXPECT_TRUE(WaitUntil([&] { return m_pCache->GetCount() == nLeftValid; })) << m_pCache->GetCount() << " left, " << nLeftValid << " valid";
    m_pCache->StopUpdateThread();
    m_pCache->ReleaseAll();
    EXPECT_EQ(m_nDestroyed, 1600);
}
