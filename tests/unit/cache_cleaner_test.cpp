// The cleaner: its life as a thread, and what one scan removes, keeps and renews.
#include <gtest/gtest.h>

#include <chrono>

#include "authentication/ostrel/SecContextCache.h"
#include "support/FakeToken.h"
#include "support/TraceCapture.h"

using namespace ostrel;
using ostrel_test::FakeToken;
using ostrel_test::Narrow;
using ostrel_test::ScopedFakeProvider;
using ostrel_test::WaitUntil;

namespace {

constexpr int64_t kHour = 60 * 60 * 1000;

const char* const kSleeping = "ssoplugin: SecContextUpdateThread::run() -- Thread sleeping for 60s.";

class Cleaner : public ::testing::Test {
protected:
    void TearDown() override { m_pCache->StopUpdateThread(); }

    // Made an hour ago, so that a credential near its end is within the renewal threshold.
    CSmartRefCountPtr<FakeToken> NewToken() {
        CSmartRefCountPtr<FakeToken> pToken = new FakeToken(m_provider.name(), true, &m_nDestroyed);
        const SDateTime anHourAgo = SDateTime::GetCurrentDateTime() + STimeSpan(-kHour);
        pToken->SetTimes(anHourAgo, anHourAgo);
        return pToken;
    }
    SWCharString Insert(const CSmartRefCountPtr<FakeToken>& i_pToken) {
        CSmartRefCountPtr<StaticToken> pToken(i_pToken);
        return m_pCache->Insert(pToken);
    }
    // Fixed keys give a known scan order.
    void InsertAs(const CSmartRefCountPtr<FakeToken>& i_pToken, const ostrel_char* i_pKey) {
        ASSERT_TRUE(m_pCache->AddAssociation(Insert(i_pToken), SWCharString(i_pKey)));
    }
    static void Expire(FakeToken& io_token) {
        io_token.m_nCredentialExpiryMs = SDateTime::GetCurrentDateTime().GetMilliseconds() - 1;
    }
    // Within the last 5 percent of its credential, so a scan renews it.
    static void NearItsEnd(FakeToken& io_token) {
        io_token.m_nCredentialExpiryMs = SDateTime::GetCurrentDateTime().GetMilliseconds() + 1000;
    }
    // One scan run here, on a thread object that never starts.
    void ScanOnce() {
        JTCHandleT<SecContextUpdateThread> hThread(new SecContextUpdateThread(m_pCache.get()));
        hThread->CleanUp();
        hThread->stop();
    }

    std::atomic<int> m_nDestroyed{0};
    ScopedFakeProvider m_provider{24 * kHour, 5, true};
    CSmartRefCountPtr<SecContextCache> m_pCache = new SecContextCache(false);
    ostrel_test::TraceCapture m_capture;
};

}  // namespace

TEST_F(Cleaner, FirstInsertStartsItAndStopWakesItsSleepAtOnce) {
    EXPECT_FALSE(m_pCache->IsUpdateThreadRunning());
    Insert(NewToken());
    EXPECT_TRUE(m_pCache->IsUpdateThreadRunning());
    EXPECT_TRUE(
        m_capture.hasLineEndingWith("ssoplugin: SecContextCache::StartUpdateThread() -- Starting update thread."));
    EXPECT_TRUE(
        m_capture.hasLineEndingWith("ssoplugin: SecContextCache::StartUpdateThread() -- Update thread started."));
    ASSERT_TRUE(WaitUntil([&] { return m_capture.has(kSleeping); }));
    EXPECT_TRUE(m_capture.hasLineEndingWith("ssoplugin: SecContextUpdateThread::run() -- Thread starting up."));

    const auto start = std::chrono::steady_clock::now();
    m_pCache->StopUpdateThread();
    // Far below the 60 s sleep, far above any scheduling delay.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_FALSE(m_pCache->IsUpdateThreadRunning());
    EXPECT_TRUE(m_capture.hasLineEndingWith("ssoplugin: SecContextCache::StopUpdateThread() -- stopping the thread."));
    EXPECT_TRUE(m_capture.hasLineEndingWith("ssoplugin: SecContextUpdateThread::run() -- Thread has been stopped."));
    EXPECT_TRUE(m_capture.hasLineEndingWith("ssoplugin: SecContextUpdateThread::run() -- Thread stopped."));
    EXPECT_FALSE(m_capture.has("ASSERT("));
}

TEST_F(Cleaner, OneThreadAtATimeAndAFreshOneAfterStop) {
    const char* const kStarting = "StartUpdateThread() -- Starting update thread.";
    m_pCache->StopUpdateThread();  // nothing to stop: only the trace
    EXPECT_EQ(m_capture.count("StopUpdateThread() -- stopping the thread."), 1u);

    m_pCache->StartUpdateThread();
    m_pCache->StartUpdateThread();
    Insert(NewToken());
    EXPECT_EQ(m_capture.count(kStarting), 1u);

    m_pCache->StopUpdateThread();
    m_pCache->StartUpdateThread();
    EXPECT_TRUE(m_pCache->IsUpdateThreadRunning());
    EXPECT_EQ(m_capture.count(kStarting), 2u);

    CSmartRefCountPtr<SecContextCache> pStarted = new SecContextCache(true);
    EXPECT_TRUE(pStarted->IsUpdateThreadRunning());
    pStarted->StopUpdateThread();
}

TEST_F(Cleaner, RunningScanRemovesExpiredIdleAndKeepsExpiredImpersonatedUntilReverted) {
    CSmartRefCountPtr<FakeToken> pIdle = NewToken();
    CSmartRefCountPtr<FakeToken> pBusy = NewToken();
    CSmartRefCountPtr<FakeToken> pValid = NewToken();
    const SWCharString ssIdle = Insert(pIdle);
    const SWCharString ssBusy = Insert(pBusy);
    const SWCharString ssValid = Insert(pValid);
    // The first insert's scan runs at once; let it end before the tokens expire.
    ASSERT_TRUE(WaitUntil([&] { return m_capture.has(kSleeping); }));
    m_pCache->Impersonate(ssBusy);
    Expire(*pIdle);
    Expire(*pBusy);
    pIdle = nullptr;  // the cache's reference is the last one
    const int nRenegotiationsBefore = pBusy->m_nRenegotiateCalls;

    m_pCache->WakeUpdateThreadForTesting();
    ASSERT_TRUE(WaitUntil([&] { return m_nDestroyed == 1; }));
    ASSERT_TRUE(WaitUntil([&] {
        return m_capture.hasLineEndingWith("ssoplugin: SecContextUpdateThread::CleanUp() -- " + Narrow(ssBusy) +
                                           " is expired but impersonated -- remove later.");
    }));
    EXPECT_TRUE(m_capture.hasLineEndingWith("ssoplugin: SecContextUpdateThread::CleanUp() -- " + Narrow(ssIdle) +
                                            " has been removed."));
    EXPECT_EQ(m_pCache->GetCount(), 2u);

    m_pCache->Revert(ssBusy);
    m_pCache->WakeUpdateThreadForTesting();
    ASSERT_TRUE(WaitUntil([&] { return m_pCache->GetCount() == 1u; }));
    EXPECT_TRUE(m_pCache->Lookup(ssValid));
    EXPECT_EQ(pBusy->m_nRenegotiateCalls, nRenegotiationsBefore) << "an expired token is never renewed";
    EXPECT_FALSE(m_capture.has("ASSERT("));
}

TEST_F(Cleaner, ScanRenewsOnlyWhatHasNotExpiredAndHoldsNoCacheLockMeanwhile) {
    CSmartRefCountPtr<FakeToken> pA = NewToken();
    CSmartRefCountPtr<FakeToken> pB = NewToken();
    CSmartRefCountPtr<FakeToken> pC = NewToken();
    CSmartRefCountPtr<FakeToken> pD = NewToken();
    // Renewal takes both sides of the cache's lock: a scan holding it would hang here.
    pA->m_onRenegotiate = [this] {
        EXPECT_TRUE(m_pCache->Lookup(SWCharString(OSTREL_T("a"))));
        EXPECT_TRUE(m_pCache->Release(SWCharString(OSTREL_T("d"))));
    };
    InsertAs(pA, OSTREL_T("a"));
    InsertAs(pB, OSTREL_T("b"));
    InsertAs(pC, OSTREL_T("c"));
    InsertAs(pD, OSTREL_T("d"));
    m_pCache->StopUpdateThread();
    m_pCache->Impersonate(SWCharString(OSTREL_T("c")));
    for (FakeToken* p : {pA.get(), pB.get(), pC.get(), pD.get()}) {
        NearItsEnd(*p);
    }
    Expire(*pB);
    Expire(*pC);

    ScanOnce();

    EXPECT_EQ(pA->m_nRenegotiateCalls, 1);
    EXPECT_EQ(pB->m_nRenegotiateCalls, 0);
    EXPECT_EQ(pC->m_nRenegotiateCalls, 0);
    // Released during the scan, still renewed from the scan's copy.
    EXPECT_EQ(pD->m_nRenegotiateCalls, 1);
    EXPECT_TRUE(m_capture.hasLineEndingWith("ssoplugin: SecContextUpdateThread::CleanUp() -- b has been removed."));
    EXPECT_TRUE(m_capture.hasLineEndingWith(
        "ssoplugin: SecContextUpdateThread::CleanUp() -- c is expired but impersonated -- remove later."));
    EXPECT_EQ(m_pCache->GetCount(), 2u);
    EXPECT_TRUE(m_pCache->Lookup(SWCharString(OSTREL_T("a"))));
    EXPECT_FALSE(m_capture.has("ASSERT("));
}

TEST_F(Cleaner, AnExceptionEndsTheScanForTheTokensBehindIt) {
    CSmartRefCountPtr<FakeToken> pA = NewToken();
    CSmartRefCountPtr<FakeToken> pB = NewToken();
    CSmartRefCountPtr<FakeToken> pC = NewToken();
    InsertAs(pA, OSTREL_T("a"));
    InsertAs(pB, OSTREL_T("b"));
    InsertAs(pC, OSTREL_T("c"));
    m_pCache->StopUpdateThread();
    NearItsEnd(*pA);
    NearItsEnd(*pC);
    pB->m_bExpiredThrows = true;

    ScanOnce();
    EXPECT_EQ(pA->m_nRenegotiateCalls, 1);
    EXPECT_EQ(pC->m_nRenegotiateCalls, 0);
    EXPECT_TRUE(m_capture.hasLineEndingWith(
        "ASSERT(0) ssoplugin: SecContextUpdateThread::CleanUp() -- Caught an internal exception!"));

    pB->m_bExpiredThrows = false;
    ScanOnce();
    EXPECT_EQ(pC->m_nRenegotiateCalls, 1);
    EXPECT_EQ(m_pCache->GetCount(), 3u);
}

TEST_F(Cleaner, AStoppedThreadAbandonsItsScan) {
    CSmartRefCountPtr<FakeToken> pToken = NewToken();
    Insert(pToken);
    m_pCache->StopUpdateThread();
    Expire(*pToken);

    JTCHandleT<SecContextUpdateThread> hThread(new SecContextUpdateThread(m_pCache.get()));
    hThread->stop();
    hThread->CleanUp();
    EXPECT_TRUE(m_capture.hasLineEndingWith(
        "ssoplugin: SecContextUpdateThread::CleanUp() -- Thread has been stopped; aborting cleanup scan"));
    EXPECT_EQ(m_pCache->GetCount(), 1u);
}

TEST_F(Cleaner, WithoutACacheItOnlyReports) {
    JTCHandleT<SecContextUpdateThread> hThread(new SecContextUpdateThread(nullptr));
    hThread->CleanUp();
    EXPECT_TRUE(m_capture.hasLineEndingWith(
        "ASSERT(0) ssoplugin: SecContextUpdateThread::CleanUp() -- No cache for this thread to manage!"));
    hThread->start();
    EXPECT_TRUE(hThread->join(20000));
    EXPECT_TRUE(m_capture.hasLineEndingWith(
        "ASSERT(0) ssoplugin: SecContextUpdateThread::run() -- No cache for this thread to manage!"));
    EXPECT_FALSE(m_capture.has("Thread starting up."));

    // Dropped without a stop: reported.
    hThread = nullptr;
    EXPECT_TRUE(m_capture.hasLineEndingWith("ASSERT(isStopped())"));
}
