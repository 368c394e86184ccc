// The two rules every cached token follows: when it counts as expired, and when
// the cleaner renews its credential.
#include <gtest/gtest.h>

#include "support/FakeToken.h"
#include "support/TraceCapture.h"

using namespace ostrel;
using ostrel_test::FakeToken;
using ostrel_test::ScopedFakeProvider;

namespace {

constexpr int64_t kMinute = 60 * 1000;
constexpr int64_t kHour = 60 * kMinute;

const SDateTime T0 = SDateTime::FromMilliseconds(1700000000000);

SDateTime At(int64_t i_nOffsetMs) { return T0 + STimeSpan(i_nOffsetMs); }

CSmartRefCountPtr<FakeToken> TokenAt(const ScopedFakeProvider& i_provider, int64_t i_nCreated, int64_t i_nRenewed,
                                     int64_t i_nCredentialExpiry) {
    CSmartRefCountPtr<FakeToken> pToken = new FakeToken(i_provider.name());
    pToken->SetTimes(At(i_nCreated), At(i_nRenewed));
    if (i_nCredentialExpiry != FakeToken::kNever) {
        pToken->m_nCredentialExpiryMs = At(i_nCredentialExpiry).GetMilliseconds();
    }
    return pToken;
}

const char* const kExpiredTrace = "ssoplugin: StaticToken::ExpiredByConfiguration() -- This token has expired.";
const char* const kRenegotiatingTrace = "ssoplugin: SSPIStaticToken::Renegotiate() -- Renegotiating token.";
const char* const kRenegotiateFailedTrace =
    "ssoplugin: SSPIStaticToken::Renegotiate() -- Failed to renegotiate security context.";
const char* const kThresholdAssertion = "ASSERT(nThresholdPercentage < 100 && nThresholdPercentage > 0)";

}  // namespace

TEST(StaticTokenBase, StartsNowWithNothingOpen) {
    const SDateTime before = SDateTime::GetCurrentDateTime();
    CSmartRefCountPtr<FakeToken> pToken = new FakeToken(SWCharString());
    const SDateTime after = SDateTime::GetCurrentDateTime();

    EXPECT_FALSE(pToken->GetCreated() < before);
    EXPECT_FALSE(pToken->GetCreated() > after);
    EXPECT_TRUE(pToken->GetRenewed() == pToken->GetCreated());
    EXPECT_FALSE(pToken->IsImpersonated());
    pToken->Impersonate();
    EXPECT_TRUE(pToken->IsImpersonated());
}

TEST(StaticTokenExpiry, ConfiguredLimitCountsFromCreationAndIsStrict) {
    ostrel_test::TraceCapture capture;
    ScopedFakeProvider provider(kHour);
    // Renewed since creation: the configured limit does not move.
    CSmartRefCountPtr<FakeToken> pToken = TokenAt(provider, 0, 50 * kMinute, FakeToken::kNever);

    EXPECT_FALSE(pToken->ExpiredByConfiguration(At(kHour - 1)));
    EXPECT_FALSE(pToken->ExpiredByConfiguration(At(kHour)));
    EXPECT_FALSE(capture.has(kExpiredTrace));
    EXPECT_TRUE(pToken->ExpiredByConfiguration(At(kHour + 1)));
    EXPECT_TRUE(capture.hasLineEndingWith(kExpiredTrace));
    EXPECT_TRUE(pToken->IsExpired(At(kHour + 1)));
}

TEST(StaticTokenExpiry, ZeroConfiguredExpirySetsNoLimit) {
    ScopedFakeProvider provider(0);
    CSmartRefCountPtr<FakeToken> pToken = TokenAt(provider, 0, 0, FakeToken::kNever);
    EXPECT_FALSE(pToken->ExpiredByConfiguration(At(100LL * 365 * 24 * kHour)));
    EXPECT_FALSE(pToken->IsExpired(At(100LL * 365 * 24 * kHour)));
}

TEST(StaticTokenExpiry, MechanismExpiryEndsATokenWithinItsConfiguredLimit) {
    ScopedFakeProvider provider(24 * kHour);
    CSmartRefCountPtr<FakeToken> pToken = TokenAt(provider, 0, 0, 10 * kHour);
    EXPECT_FALSE(pToken->IsExpired(At(10 * kHour)));
    EXPECT_FALSE(pToken->ExpiredByConfiguration(At(10 * kHour + 1)));
    EXPECT_TRUE(pToken->IsExpired(At(10 * kHour + 1)));
}

TEST(StaticTokenExpiry, UnknownProviderFailsTheTestButNotRenegotiate) {
    ostrel_test::TraceCapture capture;
    CSmartRefCountPtr<FakeToken> pToken = new FakeToken(SWCharString(OSTREL_T("NO_SUCH_PROVIDER")));
    try {
        pToken->ExpiredByConfiguration(SDateTime::GetCurrentDateTime());
        FAIL() << "no exception";
    } catch (const SSOException& e) {
        EXPECT_EQ(e.GetCode(), STATUS_FAILURE);
        EXPECT_EQ(e.GetMessageId(), MSG_NO_HANDLER);
    }
    EXPECT_FALSE(pToken->Renegotiate(SDateTime::GetCurrentDateTime()));
    EXPECT_TRUE(capture.hasLineEndingWith("ASSERT(0) ssoplugin: StaticToken::Renegotiate() -- Caught an exception!"));
}

// A 10-hour credential under a 24-hour limit at 5 percent: renewal in its last 30 minutes.
class StaticTokenRenegotiate : public ::testing::Test {
protected:
    static constexpr int64_t kThreshold = 30 * kMinute;

    ScopedFakeProvider m_provider{24 * kHour, 5, true};
    ostrel_test::TraceCapture m_capture;
    CSmartRefCountPtr<FakeToken> m_pToken = TokenAt(m_provider, 0, 0, 10 * kHour);
};

TEST_F(StaticTokenRenegotiate, RenewsFromTheThresholdOnAndRecordsTheScanTime) {
    EXPECT_FALSE(m_pToken->Renegotiate(At(10 * kHour - kThreshold - 1)));
    EXPECT_EQ(m_pToken->m_nRenegotiateCalls, 0);
    EXPECT_FALSE(m_capture.has(kRenegotiatingTrace));

    const SDateTime now = At(10 * kHour - kThreshold);
    EXPECT_TRUE(m_pToken->Renegotiate(now));
    EXPECT_EQ(m_pToken->m_nRenegotiateCalls, 1);
    EXPECT_TRUE(m_pToken->GetRenewed() == now);
    EXPECT_TRUE(m_pToken->GetCreated() == At(0));
    EXPECT_TRUE(m_capture.hasLineEndingWith(kRenegotiatingTrace));
    EXPECT_FALSE(m_capture.has("ASSERT("));
}

TEST_F(StaticTokenRenegotiate, SettingsThatForbidRenewal) {
    const SDateTime now = At(10 * kHour - 1);

    m_provider->SetRenewalsAllowed(false);
    EXPECT_FALSE(m_pToken->Renegotiate(now));
    m_provider->SetRenewalsAllowed(true);

    m_provider->SetCacheExpiry(0);
    EXPECT_FALSE(m_pToken->Renegotiate(now));

    // The limit has to outlast the credential strictly.
    m_provider->SetCacheExpiry(10 * kHour);
    EXPECT_FALSE(m_pToken->Renegotiate(now));

    EXPECT_EQ(m_pToken->m_nRenegotiateCalls, 0);
    m_provider->SetCacheExpiry(10 * kHour + 1);
    EXPECT_TRUE(m_pToken->Renegotiate(now));
    EXPECT_EQ(m_pToken->m_nRenegotiateCalls, 1);
}

TEST_F(StaticTokenRenegotiate, StopsAtTheConfiguredAge) {
    // Renewed at 14 h; the credential would run to 24 h 10 min.
    m_pToken->SetTimes(At(0), At(14 * kHour));
    m_pToken->m_nCredentialExpiryMs = At(24 * kHour + 10 * kMinute).GetMilliseconds();

    EXPECT_FALSE(m_pToken->Renegotiate(At(24 * kHour)));
    EXPECT_EQ(m_pToken->m_nRenegotiateCalls, 0);
    EXPECT_TRUE(m_pToken->Renegotiate(At(24 * kHour - 1)));
}

TEST_F(StaticTokenRenegotiate, UnlimitedCredentialNeverRenewsYetExpiresByConfiguration) {
    m_pToken->m_nCredentialExpiryMs = FakeToken::kNever;
    EXPECT_FALSE(m_pToken->Renegotiate(At(24 * kHour - 1)));
    EXPECT_EQ(m_pToken->m_nRenegotiateCalls, 0);
    EXPECT_TRUE(m_pToken->IsExpired(At(24 * kHour + 1)));
}

TEST_F(StaticTokenRenegotiate, PercentageIsTakenOfTheLifetimeTruncated) {
    m_provider->SetThresholdPercentage(50);
    // 50 percent of 10 hours and 1 ms is 5 hours, half a millisecond dropped.
    m_pToken->m_nCredentialExpiryMs = At(10 * kHour + 1).GetMilliseconds();
    EXPECT_FALSE(m_pToken->Renegotiate(At(5 * kHour)));
    EXPECT_TRUE(m_pToken->Renegotiate(At(5 * kHour + 1)));
    EXPECT_FALSE(m_capture.has("ASSERT("));
}

TEST_F(StaticTokenRenegotiate, PercentageOutOfRangeIsReportedAndActsAsFive) {
    for (const uint8_t nPercentage : {uint8_t{0}, uint8_t{100}, uint8_t{200}}) {
        SCOPED_TRACE(static_cast<int>(nPercentage));
        m_capture.clear();
        m_provider->SetThresholdPercentage(nPercentage);
        CSmartRefCountPtr<FakeToken> pToken = TokenAt(m_provider, 0, 0, 10 * kHour);

        EXPECT_FALSE(pToken->Renegotiate(At(10 * kHour - kThreshold - 1)));
        EXPECT_TRUE(m_capture.hasLineEndingWith(kThresholdAssertion));
        EXPECT_TRUE(pToken->Renegotiate(At(10 * kHour - kThreshold)));
    }
}

TEST_F(StaticTokenRenegotiate, FailedRenewalLeavesTheTokenAsItWas) {
    const SDateTime now = At(10 * kHour - 1);

    m_pToken->m_eRenewal = FakeToken::Renewal::Fail;
    EXPECT_FALSE(m_pToken->Renegotiate(now));
    EXPECT_TRUE(m_pToken->GetRenewed() == At(0));
    EXPECT_FALSE(m_capture.has(kRenegotiateFailedTrace));
    EXPECT_FALSE(m_capture.has("ASSERT("));

    m_pToken->m_eRenewal = FakeToken::Renewal::ThrowSSOException;
    EXPECT_FALSE(m_pToken->Renegotiate(now));
    EXPECT_TRUE(m_pToken->GetRenewed() == At(0));
    EXPECT_TRUE(m_capture.hasLineEndingWith(kRenegotiateFailedTrace));
    EXPECT_FALSE(m_capture.has("ASSERT("));

    m_pToken->m_eRenewal = FakeToken::Renewal::ThrowOther;
    EXPECT_FALSE(m_pToken->Renegotiate(now));
    EXPECT_TRUE(m_pToken->GetRenewed() == At(0));
    EXPECT_TRUE(m_capture.hasLineEndingWith("ASSERT(0) ssoplugin: StaticToken::Renegotiate() -- Caught an exception!"));

    // Each try went as far as the mechanism: the next scan tries again.
    EXPECT_EQ(m_pToken->m_nRenegotiateCalls, 3);
    m_pToken->m_eRenewal = FakeToken::Renewal::Succeed;
    EXPECT_TRUE(m_pToken->Renegotiate(now));
}
