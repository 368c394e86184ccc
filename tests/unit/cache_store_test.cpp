// The context cache as a store: keys, look-ups, impersonation, associations,
// releases, and the front that refuses to stand without a cache.
#include <gtest/gtest.h>

#include "authentication/ostrel/ContextManager.h"
#include "authentication/ostrel/SecContextCache.h"
#include "support/FakeToken.h"
#include "support/TraceCapture.h"

using namespace ostrel;
using ostrel_test::FakeToken;
using ostrel_test::Narrow;
using ostrel_test::ScopedFakeProvider;

namespace {

template <class F>
void ExpectSSOException(F i_call, uint32_t i_nStatus, uint32_t i_nMessageId) {
    try {
        i_call();
        ADD_FAILURE() << "no exception";
    } catch (const SSOException& e) {
        EXPECT_EQ(e.GetCode(), i_nStatus);
        EXPECT_EQ(e.GetMessageId(), i_nMessageId);
    }
}

class ContextCacheStore : public ::testing::Test {
protected:
    // The cleaner would race the expiry cases; these tests drive the cache alone.
    void TearDown() override { m_pCache->StopUpdateThread(); }

    CSmartRefCountPtr<FakeToken> NewToken(bool i_bCountsImpersonations = true) {
        return new FakeToken(m_provider.name(), i_bCountsImpersonations, &m_nDestroyed);
    }
    SWCharString Insert(const CSmartRefCountPtr<FakeToken>& i_pToken) {
        CSmartRefCountPtr<StaticToken> pToken(i_pToken);
        SWCharString ssKey = m_pCache->Insert(pToken);
        m_pCache->StopUpdateThread();
        return ssKey;
    }
    static void Expire(FakeToken& io_token) {
        io_token.m_nCredentialExpiryMs = SDateTime::GetCurrentDateTime().GetMilliseconds() - 1;
    }

    std::atomic<int> m_nDestroyed{0};
    ScopedFakeProvider m_provider;
    CSmartRefCountPtr<SecContextCache> m_pCache = new SecContextCache(false);
    ostrel_test::TraceCapture m_capture;
};

const SWCharString kA(OSTREL_T("host-key-a"));
const SWCharString kB(OSTREL_T("host-key-b"));

}  // namespace

TEST_F(ContextCacheStore, KeyIsTheTokensNumberInDecimalAndTheCacheHoldsOneReference) {
    CSmartRefCountPtr<FakeToken> pToken = NewToken();
    const SWCharString ssKey = Insert(pToken);
    EXPECT_EQ(Narrow(ssKey), std::to_string(pToken->GetKey()));
    EXPECT_TRUE(m_capture.hasLineEndingWith("ssoplugin: SecContextCache::Insert() -- 1 contexts now in cache."));

    EXPECT_TRUE(Insert(pToken) == ssKey);
    EXPECT_EQ(m_pCache->GetCount(), 1u);
    EXPECT_EQ(m_capture.count("-- 1 contexts now in cache."), 2u);

    CSmartRefCountPtr<FakeToken> pOther = NewToken();
    EXPECT_FALSE(Insert(pOther) == ssKey);
    EXPECT_TRUE(m_capture.hasLineEndingWith("ssoplugin: SecContextCache::Insert() -- 2 contexts now in cache."));

    // One reference for the cache, however often the token went in.
    pToken = nullptr;
    EXPECT_EQ(m_nDestroyed, 0);
    EXPECT_TRUE(m_pCache->Lookup(ssKey));
    EXPECT_TRUE(m_pCache->Release(ssKey));
    EXPECT_EQ(m_nDestroyed, 1);
    EXPECT_FALSE(m_pCache->Release(ssKey));
    EXPECT_FALSE(m_pCache->Lookup(ssKey));
}

TEST_F(ContextCacheStore, ImpersonateAndRevertReachTheToken) {
    CSmartRefCountPtr<FakeToken> pToken = NewToken();
    const SWCharString ssKey = Insert(pToken);

    m_pCache->Impersonate(ssKey);
    EXPECT_EQ(pToken->GetImpersonationCount(), 1);
    m_pCache->Revert(ssKey);
    EXPECT_EQ(pToken->GetImpersonationCount(), 0);

    // The token's own failure passes through unchanged.
    pToken->m_bImpersonateFails = true;
    ExpectSSOException([&] { m_pCache->Impersonate(ssKey); }, STATUS_FAILURE, MSG_IMPERSONATION);
    EXPECT_FALSE(m_capture.has("not found or expired"));
}

TEST_F(ContextCacheStore, UnknownKeysFailEachInItsOwnWay) {
    Insert(NewToken());
    ExpectSSOException([&] { m_pCache->Impersonate(kA); }, STATUS_FAILURE, MSG_NO_TOKEN);
    EXPECT_TRUE(m_capture.hasLineEndingWith(
        "ssoplugin: ContextManager::Impersonate() -- token for host-key-a not found or expired."));
    ExpectSSOException([&] { m_pCache->Revert(kA); }, STATUS_FAILURE, MSG_TOKEN_NOT_FOUND);
    EXPECT_TRUE(m_capture.hasLineEndingWith("ssoplugin: ContextManager::Revert() -- token for host-key-a not found."));
    EXPECT_FALSE(m_pCache->AddAssociation(kA, kB));
    EXPECT_TRUE(m_capture.hasLineEndingWith(
        "ssoplugin: SecContextCache::AddAssociation() -- Token for host-key-a is not in cache."));
    EXPECT_FALSE(m_pCache->Lookup(kB));
    EXPECT_EQ(m_pCache->GetCount(), 1u);
}

TEST_F(ContextCacheStore, TheLiteralKeysAreNeverFound) {
    Insert(NewToken());
    for (const ostrel_char* pKey : {OSTREL_T("DUMMY_KEY__CACHING_IS_OFF"), OSTREL_T("DUMMY_KEY"), OSTREL_T("NOKEY")}) {
        const SWCharString ssKey(pKey);
        SCOPED_TRACE(Narrow(ssKey));
        EXPECT_FALSE(m_pCache->Lookup(ssKey));
        ExpectSSOException([&] { m_pCache->Impersonate(ssKey); }, STATUS_FAILURE, MSG_NO_TOKEN);
        EXPECT_FALSE(m_pCache->Release(ssKey));
    }
}

TEST_F(ContextCacheStore, ExpiredTokenIsRefusedYetStaysAndCanBeReverted) {
    CSmartRefCountPtr<FakeToken> pToken = NewToken();
    const SWCharString ssKey = Insert(pToken);
    m_pCache->Impersonate(ssKey);
    Expire(*pToken);

    EXPECT_FALSE(m_pCache->Lookup(ssKey));
    ExpectSSOException([&] { m_pCache->Impersonate(ssKey); }, STATUS_FAILURE, MSG_NO_TOKEN);
    EXPECT_EQ(pToken->m_nImpersonateCalls, 1);
    EXPECT_EQ(m_pCache->GetCount(), 1u);

    m_pCache->Revert(ssKey);
    EXPECT_EQ(pToken->GetImpersonationCount(), 0);
    EXPECT_EQ(m_pCache->GetCount(), 1u);
}

TEST_F(ContextCacheStore, TokenPastItsConfiguredLimitIsRefused) {
    CSmartRefCountPtr<FakeToken> pToken = NewToken();
    const SDateTime longAgo = SDateTime::GetCurrentDateTime() + STimeSpan(-2000);
    pToken->SetTimes(longAgo, longAgo);
    const SWCharString ssKey = Insert(pToken);
    // Only now, with the cleaner stopped, so that it cannot take the token first.
    m_provider->SetCacheExpiry(1000);

    EXPECT_FALSE(m_pCache->Lookup(ssKey));
    ExpectSSOException([&] { m_pCache->Impersonate(ssKey); }, STATUS_FAILURE, MSG_NO_TOKEN);
    m_pCache->Revert(ssKey);
    EXPECT_EQ(pToken->m_nRevertCalls, 1);

    m_provider->SetCacheExpiry(0);
    EXPECT_TRUE(m_pCache->Lookup(ssKey));
}

TEST_F(ContextCacheStore, AssociationMovesTheContextToTheNewKey) {
    CSmartRefCountPtr<FakeToken> pToken = NewToken();
    const SWCharString ssKey = Insert(pToken);

    EXPECT_TRUE(m_pCache->AddAssociation(ssKey, kA));
    EXPECT_FALSE(m_pCache->Lookup(ssKey));
    EXPECT_TRUE(m_pCache->Lookup(kA));
    EXPECT_EQ(m_pCache->GetCount(), 1u);
    m_pCache->Impersonate(kA);
    EXPECT_EQ(pToken->GetImpersonationCount(), 1);

    EXPECT_TRUE(m_pCache->AddAssociation(kA, kA));
    EXPECT_TRUE(m_pCache->Lookup(kA));
    EXPECT_EQ(m_pCache->GetCount(), 1u);

    // No expiry test: an expired context moves too.
    Expire(*pToken);
    EXPECT_TRUE(m_pCache->AddAssociation(kA, kB));
    m_pCache->Revert(kB);
    EXPECT_EQ(pToken->GetImpersonationCount(), 0);
}

TEST_F(ContextCacheStore, AssociationOntoATakenKeyDropsTheOtherToken) {
    const SWCharString ssFirst = Insert(NewToken());
    const SWCharString ssSecond = Insert(NewToken());
    ASSERT_TRUE(m_pCache->AddAssociation(ssSecond, kA));
    EXPECT_EQ(m_nDestroyed, 0);

    ASSERT_TRUE(m_pCache->AddAssociation(ssFirst, kA));
    EXPECT_EQ(m_nDestroyed, 1);
    EXPECT_EQ(m_pCache->GetCount(), 1u);
    EXPECT_TRUE(m_pCache->Lookup(kA));
}

TEST_F(ContextCacheStore, ReleaseIgnoresOpenImpersonations) {
    CSmartRefCountPtr<FakeToken> pToken = NewToken();
    const SWCharString ssKey = Insert(pToken);
    m_pCache->Impersonate(ssKey);

    EXPECT_TRUE(m_pCache->Release(ssKey));
    EXPECT_EQ(m_pCache->GetCount(), 0u);
    ExpectSSOException([&] { m_pCache->Revert(ssKey); }, STATUS_FAILURE, MSG_TOKEN_NOT_FOUND);
    EXPECT_EQ(pToken->m_nRevertCalls, 0);
}

TEST_F(ContextCacheStore, ReleaseAllAndRemove) {
    m_pCache->ReleaseAll();
    EXPECT_EQ(m_pCache->GetCount(), 0u);

    CSmartRefCountPtr<FakeToken> pToken = NewToken();
    const SWCharString ssKey = Insert(pToken);
    CSmartRefCountPtr<StaticToken> pOut;
    EXPECT_FALSE(m_pCache->Remove(kA, pOut));
    EXPECT_EQ(pOut.get(), nullptr);
    EXPECT_TRUE(m_pCache->Remove(ssKey, pOut));
    EXPECT_EQ(pOut.get(), pToken.get());
    EXPECT_FALSE(m_pCache->Lookup(ssKey));
    EXPECT_FALSE(m_pCache->Remove(ssKey, pOut));

    Insert(NewToken());
    Insert(NewToken());
    const SWCharString ssImpersonated = Insert(NewToken());
    m_pCache->Impersonate(ssImpersonated);
    EXPECT_EQ(m_pCache->GetCount(), 3u);
    m_pCache->ReleaseAll();
    EXPECT_EQ(m_pCache->GetCount(), 0u);
    EXPECT_EQ(m_nDestroyed, 3);
}

TEST_F(ContextCacheStore, DestructorReportsWhatIsLeft) {
    Insert(NewToken());
    Insert(NewToken());
    m_pCache = nullptr;
    EXPECT_TRUE(m_capture.hasLineEndingWith(
        "ssoplugin: SecContextCache::~SecContextCache() -- Shutting down cleanly with 2 cached contexts"));
    EXPECT_EQ(m_nDestroyed, 2);
    m_pCache = new SecContextCache(false);
}

TEST(ContextManagerTest, RefusesANullCache) {
    ostrel_test::TraceCapture capture;
    ExpectSSOException([] { CSmartRefCountPtr<ContextManager> p = new ContextManager(nullptr); }, STATUS_FAILURE,
                       MSG_DEFAULT);
    EXPECT_TRUE(capture.hasLineEndingWith("ASSERT(m_pContextCache)"));
}
