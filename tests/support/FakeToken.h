// A handler with settings only and a token whose clock, renewal and impersonation the test controls.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>

#include "support/TestAccess.h"
#include "authentication/ostrel/SSOException.h"
#include "authentication/ostrel/StaticToken.h"

namespace ostrel_test {

using namespace ostrel;

// Settings only; every mechanism operation is refused as a provider would refuse it.
class FakeHandler : public SSOHandler {
public:
    explicit FakeHandler(int64_t i_nCacheExpiryMs = 0, uint8_t i_nThreshold = 5, bool i_bRenewals = true)
        : SSOHandler(true, i_nCacheExpiryMs, i_nThreshold, i_bRenewals) {}
    template <class F>
    void Set(F i_change) {
        CSmartWriteLocker lock(m_HandlerLock);
        i_change(*this);
    }
    void SetCacheExpiry(int64_t i_nMs) { Set([=](FakeHandler& h) { h.m_tsCacheExpiry = STimeSpan(i_nMs); }); }
    void SetThresholdPercentage(uint8_t i_n) { Set([=](FakeHandler& h) { h.m_nThresholdPercentage = i_n; }); }
    void SetRenewalsAllowed(bool i_b) { Set([=](FakeHandler& h) { h.m_bRenewalsAllowed = i_b; }); }
    void SetCaching(bool i_b) { Set([=](FakeHandler& h) { h.m_bCaching = i_b; }); }

    void InitHandler(const Parameters&) override { Refuse(); }
    void GetRequiredParameters(Parameters&) override { Refuse(); }
    int InitializeContext(SSOCredentialsPtr, SSOSessionPtr, const void*, size_t, void**, size_t*) override { Refuse(); }
    int AcceptContext(SSOCredentialsPtr, SSOSessionPtr, const void*, size_t, void**, size_t*, bool,
                      Parameters&) override {
        Refuse();
    }
    SSOSessionPtr CreateSession(const ParasSeq*) override { Refuse(); }
    SSOCredentialsPtr CreateClientCredentials(const SWCharString&, const SWCharString&, int) override { Refuse(); }
    SSOCredentialsPtr CreateServerCredentials(int) override { Refuse(); }
    void* AllocateBuffer(size_t) override { Refuse(); }
    void FreeBuffer(void*) override { Refuse(); }

private:
    [[noreturn]] static void Refuse() { throw SSOException(STATUS_NOT_SUPPORTED); }
};

// A handler registered under a provider name of its own for the scope.
template <class Handler>
class ScopedProvider {
public:
    template <class... Args>
    explicit ScopedProvider(Args... i_args) : m_pHandler(new Handler(i_args...)) {
        static std::atomic<int> s_nNext{0};
        m_ssName = OSTREL_T("FAKE_PROVIDER_");
        m_ssName += SWCharStringConv::ToString(++s_nNext, 10);
        Register();
    }
    ~ScopedProvider() { TestAccess::SetHandler(m_ssName, nullptr); }
    // Again, after a shutdown cleared the factory.
    void Register() { TestAccess::SetHandler(m_ssName, m_pHandler); }
    ScopedProvider(const ScopedProvider&) = delete;
    ScopedProvider& operator=(const ScopedProvider&) = delete;
    const SWCharString& name() const { return m_ssName; }
    Handler* operator->() const { return m_pHandler.get(); }

private:
    SWCharString m_ssName;
    CSmartRefCountPtr<Handler> m_pHandler;
};
using ScopedFakeProvider = ScopedProvider<FakeHandler>;

// Its credential runs out at a set instant (never, by default); lifetimes count from the last renewal.
class FakeToken : public StaticToken {
public:
    enum class Renewal { Succeed, Fail, ThrowSSOException, ThrowOther };
    static constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

    explicit FakeToken(const SWCharString& i_ssProvider, bool i_bCountsImpersonations = true,
                       std::atomic<int>* io_pDestroyed = nullptr)
        : m_bCounts(i_bCountsImpersonations), m_pDestroyed(io_pDestroyed) {
        m_ssProvider = i_ssProvider;
    }
    // Only before the token is shared.
    void SetTimes(const SDateTime& i_dtCreated, const SDateTime& i_dtRenewed) {
        m_dtCreated = i_dtCreated;
        m_dtRenewed = i_dtRenewed;
    }
    SDateTime GetRenewed() {
        CSmartReadLocker lock(m_Lock);
        return m_dtRenewed;
    }
    int GetImpersonationCount() {
        CSmartReadLocker lock(m_Lock);
        return m_nImpersonations;
    }
    void ExpireIn(int64_t i_nMs) { m_nCredentialExpiryMs = SDateTime::GetCurrentDateTime().GetMilliseconds() + i_nMs; }

    void Impersonate() override {
        ++m_nImpersonateCalls;
        if (m_bImpersonateFails) throw SSOException(STATUS_FAILURE, MSG_IMPERSONATION);
        CSmartWriteLocker lock(m_Lock);
        m_nImpersonations += m_bCounts ? 1 : 0;
    }
    void Revert() override {
        CSmartWriteLocker lock(m_Lock);
        m_nImpersonations -= (m_bCounts && m_nImpersonations > 0) ? 1 : 0;
    }
    bool Expired(const SDateTime& i_now) override {
        if (m_bExpiredThrows) throw SSOException(STATUS_FAILURE);
        return i_now.GetMilliseconds() > m_nCredentialExpiryMs.load();
    }
    bool RenegotiateImpl() override {
        ++m_nRenegotiateCalls;
        if (m_onRenegotiate) m_onRenegotiate();
        switch (m_eRenewal.load()) {
            case Renewal::Fail: return false;
            case Renewal::ThrowSSOException: throw SSOException(STATUS_FAILURE);
            case Renewal::ThrowOther: throw std::runtime_error("renegotiation fell over");
            default:
                if (m_nRenewedLifetimeMs.load() > 0) {
                    m_nCredentialExpiryMs = SDateTime::GetCurrentDateTime().GetMilliseconds() + m_nRenewedLifetimeMs.load();
                }
                return true;
        }
    }
    STimeSpan GetRemainingLifetime(const SDateTime& i_now) override { return Until(i_now.GetMilliseconds()); }
    STimeSpan GetLifetime() override { return Until(m_dtRenewed.GetMilliseconds()); }

    std::atomic<int64_t> m_nCredentialExpiryMs{kNever};  // milliseconds since 1970
    std::atomic<int64_t> m_nRenewedLifetimeMs{0};        // a successful renewal's new credential, if above 0
    std::atomic<Renewal> m_eRenewal{Renewal::Succeed};
    std::atomic<bool> m_bExpiredThrows{false};
    std::atomic<bool> m_bImpersonateFails{false};
    std::function<void()> m_onRenegotiate;  // set before the token is shared
    std::atomic<int> m_nImpersonateCalls{0};
    std::atomic<int> m_nRenegotiateCalls{0};

protected:
    ~FakeToken() override {
        if (m_pDestroyed != nullptr) ++*m_pDestroyed;
    }

private:
    STimeSpan Until(int64_t i_nFrom) const {
        const int64_t nExpiry = m_nCredentialExpiryMs.load();
        return STimeSpan(nExpiry == kNever ? kNever : nExpiry - i_nFrom);
    }
    const bool m_bCounts;
    std::atomic<int>* m_pDestroyed;
};

// Polls until the condition holds or the limit runs out; the result says which.
template <class Condition>
bool WaitUntil(Condition i_condition, std::chrono::milliseconds i_limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + i_limit;
    while (!i_condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// What an SSOException thrown by the call carried: its status and message id, or {0, 0} when none was thrown.
template <class F>
std::pair<uint32_t, uint32_t> Thrown(F i_call) {
    try {
        i_call();
    } catch (const SSOException& e) {
        return {e.GetCode(), e.GetMessageId()};
    }
    return {0, 0};
}

inline std::string Narrow(const SWCharString& i_ss) { return ToAnsiString(i_ss.c_str()).c_str(); }

}  // namespace ostrel_test
