#include "StaticToken.h"

#include "HandlerFactory.h"
#include "SSOException.h"
#include "foundation/Trace.h"

namespace ostrel {

StaticToken::StaticToken() : m_dtCreated(SDateTime::GetCurrentDateTime()), m_dtRenewed(m_dtCreated) {}

bool StaticToken::ExpiredByConfiguration(const SDateTime& i_now) {
    // m_dtCreated never changes, so no token lock is needed.
    STimeSpan tsExpiry;
    {
        CSmartRefCountPtr<SSOHandler> pHandler = SSOHandlerFactory::instance()->GetHandler(m_ssProvider);
        tsExpiry = pHandler->GetCacheExpiry();
    }
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
        CSmartRefCountPtr<SSOHandler> pHandler = SSOHandlerFactory::instance()->GetHandler(m_ssProvider);
        if (!pHandler->GetRenewalsAllowed()) {
            return false;
        }
        const STimeSpan tsSpan = pHandler->GetCacheExpiry();
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

        int nThresholdPercentage = pHandler->GetThresholdPercentage();
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
