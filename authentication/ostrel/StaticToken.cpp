#include "StaticToken.h"

#include "HandlerFactory.h"
#include "Keys.h"
#include "SSOException.h"
#include "foundation/Trace.h"

namespace ostrel {

StaticToken::StaticToken()
    : m_dtCreated(SDateTime::GetCurrentDateTime()), m_dtRenewed(m_dtCreated), m_nKey(NewKey()) {}

StaticToken::~StaticToken() {
    if (SSOHandler* pHandler = m_pHandler.load(std::memory_order_acquire)) {
        pHandler->release();
    }
}

SSOHandler& StaticToken::Handler() {
    SSOHandler* pHandler = m_pHandler.load(std::memory_order_acquire);
    if (pHandler != nullptr) {
        return *pHandler;
    }
    CSmartRefCountPtr<SSOHandler> pFound = SSOHandlerFactory::instance()->GetHandler(m_ssProvider);
    if (pFound == nullptr) {
        throw SSOException(STATUS_FAILURE);
    }
    SSOHandler* pExpected = nullptr;
    if (m_pHandler.compare_exchange_strong(pExpected, pFound.get(), std::memory_order_acq_rel)) {
        pFound->addRef();
        return *pFound;
    }
    return *pExpected;
}

bool StaticToken::ExpiredByConfiguration(const SDateTime& i_now) {
    // m_dtCreated never changes, so no token lock is needed.
    const STimeSpan tsExpiry = Handler().GetCacheExpiry();
    if (tsExpiry.GetMilliseconds() == 0) {
        return false;
    }
    if (!(m_dtCreated + tsExpiry < i_now)) {
        return false;
    }
    STRACE("ssoplugin: StaticToken::ExpiredByConfiguration() -- This token has expired.");
    return true;
}

bool StaticToken::Renegotiate(const SDateTime& i_now) {
    try {
        const SSOHandler::RenewalSettings settings = Handler().GetRenewalSettings();
        if (!settings.bRenewalsAllowed) {
            return false;
        }
        const STimeSpan tsSpan = settings.tsCacheExpiry;
        if (tsSpan.GetMilliseconds() == 0) {
            return false;
        }
        // A configured limit that ends before the credential leaves nothing to renew for.
        const STimeSpan tsLifetime = GetLifetime();
        if (!(tsSpan > tsLifetime)) {
            return false;
        }
        const STimeSpan tsAge = i_now - m_dtCreated;
        if (!(tsAge < tsSpan)) {
            return false;
        }

        int nThresholdPercentage = settings.nThresholdPercentage;
        SASSERT(nThresholdPercentage < 100 && nThresholdPercentage > 0,
                "nThresholdPercentage < 100 && nThresholdPercentage > 0");
        if (!(nThresholdPercentage < 100 && nThresholdPercentage > 0)) {
            nThresholdPercentage = 5;
        }
        // No guard on the product: it wraps instead of trapping.
        const auto nProduct = static_cast<int64_t>(static_cast<uint64_t>(nThresholdPercentage) *
                                                   static_cast<uint64_t>(tsLifetime.GetMilliseconds()));
        const STimeSpan tsThreshold(nProduct / 100);
        if (GetRemainingLifetime(i_now) > tsThreshold) {
            return false;
        }

        STRACE("ssoplugin: SSPIStaticToken::Renegotiate() -- Renegotiating token.");
        bool bRenewed = false;
        try {
            bRenewed = RenegotiateImpl();
        } catch (SSOException&) {
            STRACE("ssoplugin: SSPIStaticToken::Renegotiate() -- Failed to renegotiate security context.");
            return false;
        }
        if (bRenewed) {
            CSmartWriteLocker lock(m_Lock);
            m_dtRenewed.SetDate(i_now.GetDate());
            m_dtRenewed.SetTime(i_now.GetTime());
        }
        return bRenewed;
    } catch (...) {
        SASSERT_FAIL("ssoplugin: StaticToken::Renegotiate() -- Caught an exception!");
        return false;
    }
}

bool StaticToken::IsImpersonated() {
    CSmartReadLocker lock(m_Lock);
    return m_nImpersonations > 0;
}

}  // namespace ostrel
