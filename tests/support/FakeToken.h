// A handler and a token that the context cache tests drive by hand: settings,
// credential expiry, renewal outcome and impersonation are all under test control.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>

#include "authentication/ostrel/HandlerFactory.h"
#include "authentication/ostrel/SSOException.h"
#include "authentication/ostrel/StaticToken.h"

namespace ostrel_test {

// Settings only; every mechanism operation is refused as a provider would refuse it.
class FakeHandler : public ostrel::SSOHandler {
public:
    explicit FakeHandler(int64_t i_nCacheExpiryMs = 0, uint8_t i_nThresholdPercentage = 5,
                         bool i_bRenewalsAllowed = true)
        : SSOHandler(true, i_nCacheExpiryMs, i_nThresholdPercentage, i_bRenewalsAllowed) {}

    void SetCacheExpiry(int64_t i_nMs) {
        Tarvik500::CSmartWriteLocker lock(m_HandlerLock);
        m_tsCacheExpiry = Tarvik500::STimeSpan(i_nMs);
    }
    void SetThresholdPercentage(uint8_t i_nPercentage) {
        Tarvik500::CSmartWriteLocker lock(m_HandlerLock);
        m_nThresholdPercentage = i_nPercentage;
    }
    void SetRenewalsAllowed(bool i_bAllowed) {
        Tarvik500::CSmartWriteLocker lock(m_HandlerLock);
        m_bRenewalsAllowed = i_bAllowed;
    }
    void SetCaching(bool i_bCaching) {
        Tarvik500::CSmartWriteLocker lock(m_HandlerLock);
        m_bCaching = i_bCaching;
    }

    void InitHandler(const ostrel::Parameters&) override { Refuse(); }
    void GetRequiredParameters(ostrel::Parameters&) override { Refuse(); }
    int InitializeContext(ostrel::SSOCredentialsPtr, ostrel::SSOSessionPtr, const void*, size_t, void**,
                          size_t*) override {
        Refuse();
    }
    int AcceptContext(ostrel::SSOCredentialsPtr, ostrel::SSOSessionPtr, const void*, size_t, void**, size_t*, bool,
                      ostrel::Parameters&) override {
        Refuse();
    }
    ostrel::SSOSessionPtr CreateSession(const ParasSeq*) override { Refuse(); }
    ostrel::SSOCredentialsPtr CreateClientCredentials(const Tarvik500::SWCharString&, const Tarvik500::SWCharString&,
                                                      int) override {
        Refuse();
    }
    ostrel::SSOCredentialsPtr CreateServerCredentials(int) override { Refuse(); }
    void* AllocateBuffer(size_t) override { Refuse(); }
    void FreeBuffer(void*) override { Refuse(); }

protected:
    ~FakeHandler() override = default;

private:
    [[noreturn]] static void Refuse() { throw ostrel::SSOException(ostrel::STATUS_NOT_SUPPORTED); }
};

// A fake handler registered under a provider name of its own for the scope.
class ScopedFakeProvider {
public:
    explicit ScopedFakeProvider(int64_t i_nCacheExpiryMs = 0, uint8_t i_nThresholdPercentage = 5,
                                bool i_bRenewalsAllowed = true)
        : m_ssName(NextName()),
          m_pHandler(new FakeHandler(i_nCacheExpiryMs, i_nThresholdPercentage, i_bRenewalsAllowed)) {
        ostrel::SSOHandlerFactory::instance()->SetHandlerForTesting(m_ssName, m_pHandler);
    }
    ~ScopedFakeProvider() { ostrel::SSOHandlerFactory::instance()->SetHandlerForTesting(m_ssName, nullptr); }
    ScopedFakeProvider(const ScopedFakeProvider&) = delete;
    ScopedFakeProvider& operator=(const ScopedFakeProvider&) = delete;

    const Tarvik500::SWCharString& name() const { return m_ssName; }
    FakeHandler* operator->() const { return m_pHandler.get(); }

private:
    static Tarvik500::SWCharString NextName() {
        static std::atomic<int> s_nNext{0};
        Tarvik500::SWCharString ssName(OSTREL_T("FAKE_PROVIDER_"));
        ssName += Tarvik500::SWCharStringConv::ToString(++s_nNext, 10);
        return ssName;
    }

    Tarvik500::SWCharString m_ssName;
    Tarvik500::CSmartRefCountPtr<FakeHandler> m_pHandler;
};

// A token whose credential runs out at a set instant (never, by default), like a
// mechanism's context: the lifetimes are measured from that instant.
class FakeToken : public ostrel::StaticToken {
public:
    enum class Renewal { Succeed, Fail, ThrowSSOException, ThrowOther };
    static constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

    explicit FakeToken(const Tarvik500::SWCharString& i_ssProvider, bool i_bCountsImpersonations = true,
                       std::atomic<int>* io_pDestroyed = nullptr)
        : m_bCountsImpersonations(i_bCountsImpersonations), m_pDestroyed(io_pDestroyed) {
        m_ssProvider = i_ssProvider;
    }

    // Only before the token is shared.
    void SetTimes(const Tarvik500::SDateTime& i_dtCreated, const Tarvik500::SDateTime& i_dtRenewed) {
        m_dtCreated = i_dtCreated;
        m_dtRenewed = i_dtRenewed;
    }
    Tarvik500::SDateTime GetRenewed() {
        Tarvik500::CSmartReadLocker lock(m_Lock);
        return m_dtRenewed;
    }
    int GetImpersonationCount() {
        Tarvik500::CSmartReadLocker lock(m_Lock);
        return m_nImpersonations;
    }

    void Impersonate() override {
        ++m_nImpersonateCalls;
        if (m_bImpersonateFails) {
            throw ostrel::SSOException(ostrel::STATUS_FAILURE, ostrel::MSG_IMPERSONATION);
        }
        if (m_bCountsImpersonations) {
            Tarvik500::CSmartWriteLocker lock(m_Lock);
            ++m_nImpersonations;
        }
    }
    void Revert() override {
        ++m_nRevertCalls;
        if (m_bCountsImpersonations) {
            Tarvik500::CSmartWriteLocker lock(m_Lock);
            if (m_nImpersonations > 0) {
                --m_nImpersonations;
            }
        }
    }
    bool Expired(const Tarvik500::SDateTime& i_now) override {
        if (m_bExpiredThrows) {
            throw ostrel::SSOException(ostrel::STATUS_FAILURE);
        }
        return i_now.GetMilliseconds() > m_nCredentialExpiryMs.load();
    }
    bool RenegotiateImpl() override {
        ++m_nRenegotiateCalls;
        if (m_onRenegotiate) {
            m_onRenegotiate();
        }
        switch (m_eRenewal.load()) {
            case Renewal::Succeed:
                if (m_nRenewedLifetimeMs.load() > 0) {
                    m_nCredentialExpiryMs =
                        Tarvik500::SDateTime::GetCurrentDateTime().GetMilliseconds() + m_nRenewedLifetimeMs.load();
                }
                return true;
            case Renewal::Fail:
                return false;
            case Renewal::ThrowSSOException:
                throw ostrel::SSOException(ostrel::STATUS_FAILURE);
            case Renewal::ThrowOther:
                throw std::runtime_error("renegotiation fell over");
        }
        return false;
    }
    Tarvik500::STimeSpan GetRemainingLifetime(const Tarvik500::SDateTime& i_now) override {
        const int64_t nExpiry = m_nCredentialExpiryMs.load();
        return Tarvik500::STimeSpan(nExpiry == kNever ? kNever : nExpiry - i_now.GetMilliseconds());
    }
    Tarvik500::STimeSpan GetLifetime() override {
        const int64_t nExpiry = m_nCredentialExpiryMs.load();
        return Tarvik500::STimeSpan(nExpiry == kNever ? kNever : nExpiry - m_dtRenewed.GetMilliseconds());
    }

    // Controls.
    std::atomic<int64_t> m_nCredentialExpiryMs{kNever};  // milliseconds since 1970
    std::atomic<int64_t> m_nRenewedLifetimeMs{0};        // a successful renewal's new credential, if above 0
    std::atomic<Renewal> m_eRenewal{Renewal::Succeed};
    std::atomic<bool> m_bExpiredThrows{false};
    std::atomic<bool> m_bImpersonateFails{false};
    std::function<void()> m_onRenegotiate;  // set before the token is shared
    // Observations.
    std::atomic<int> m_nImpersonateCalls{0};
    std::atomic<int> m_nRevertCalls{0};
    std::atomic<int> m_nRenegotiateCalls{0};

protected:
    ~FakeToken() override {
        if (m_pDestroyed != nullptr) {
            ++*m_pDestroyed;
        }
    }

private:
    const bool m_bCountsImpersonations;
    std::atomic<int>* m_pDestroyed;
};

// Polls until the condition holds or the limit runs out; the result says which.
template <class Condition>
bool WaitUntil(Condition i_condition, std::chrono::milliseconds i_limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + i_limit;
    while (!i_condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

inline std::string Narrow(const Tarvik500::SWCharString& i_ss) { return Tarvik500::ToAnsiString(i_ss.c_str()).c_str(); }

}  // namespace ostrel_test
