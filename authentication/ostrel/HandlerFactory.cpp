#include "HandlerFactory.h"

#include <atomic>
#include <new>

#include "GSSAPIHandler.h"
#include "KerberosSSPIHandler.h"
#include "ThreadTokenHandler.h"
#include "foundation/Trace.h"

namespace ostrel {

const SWCharString g_ssProviderSSPI(SSO_PROVIDER_SSPI);
const SWCharString g_ssProviderGSSAPI(SSO_PROVIDER_GSSAPI);
const SWCharString g_ssProviderThreadToken(SSO_PROVIDER_THREADTOKEN);

int SSOHandler::AcquireCurrentContext(const Parameters& /*i_params*/, SSOSessionPtr /*i_pSession*/) {
    throw SSOException(STATUS_NOT_SUPPORTED);
}

bool SSOHandler::IsCachingOn() {
    CSmartReadLocker lock(m_HandlerLock);
    return m_bCaching;
}

SSOHandler::RenewalSettings SSOHandler::GetRenewalSettings() {
    CSmartReadLocker lock(m_HandlerLock);
    return RenewalSettings{m_tsCacheExpiry.load(), m_nThresholdPercentage, m_bRenewalsAllowed};
}

uint8_t SSOHandler::GetThresholdPercentage() {
    CSmartReadLocker lock(m_HandlerLock);
    return m_nThresholdPercentage;
}

bool SSOHandler::GetRenewalsAllowed() {
    CSmartReadLocker lock(m_HandlerLock);
    return m_bRenewalsAllowed;
}

namespace {
std::atomic<int> s_nFailHandlerAllocations{0};

void CheckAllocationSeam() {
    int n = s_nFailHandlerAllocations.load();
    while (n > 0 && !s_nFailHandlerAllocations.compare_exchange_weak(n, n - 1)) {
    }
    if (n > 0) {
        throw std::bad_alloc();
    }
}
}  // namespace

// The one factory, and the critical section that guards its creation.
class SSOHandlerFactorySingleton {
public:
    CSmartRefCountPtr<SSOHandlerFactory> get() {
        CSmartCS guard(m_SingletonLock);
        if (m_pSingleton == nullptr) {
            try {
                m_pSingleton = new SSOHandlerFactory();
            } catch (std::bad_alloc&) {
                SASSERT_FAIL("SSOHandlerFactory::instance() -- out of memory!");
                throw SSOException(g_OutOfMemoryException);
            }
        }
        if (m_pSingleton == nullptr) {
            SASSERT(false, "s_pSingleton");
            SASSERT_FAIL("SSOHandlerFactory::instance() -- singleton is NULL!");
            throw SSOException(STATUS_FAILURE);
        }
        return m_pSingleton;
    }

private:
    CS_Wrapper m_SingletonLock;
    CSmartRefCountPtr<SSOHandlerFactory> m_pSingleton;
};

namespace {
SSOHandlerFactorySingleton s_factory;
}  // namespace

CSmartRefCountPtr<SSOHandlerFactory> SSOHandlerFactory::instance() { return s_factory.get(); }

CSmartRefCountPtr<SSOHandler> SSOHandlerFactory::GetHandler(const SWCharString& i_ssType) {
    STRACE("ssoplugin: SSOHandlerFactory::GetHandler() -- Looking for a handler for %1", i_ssType);
    CSmartCS guard(m_FactoryLock);

    CSmartRefCountPtr<SSOHandler> pHandler;
    if (m_Handlers.Lookup(i_ssType, pHandler)) {
        if (pHandler == nullptr) {
            SASSERT(false, "pHandler");
            throw SSOException(STATUS_FAILURE);
        }
        return pHandler;
    }

    try {
        if (i_ssType == g_ssProviderSSPI) {
            CheckAllocationSeam();
            pHandler = new KerberosSSPIHandler();
        } else if (i_ssType == g_ssProviderThreadToken) {
            CheckAllocationSeam();
            pHandler = new ThreadTokenHandler();
        } else if (i_ssType == g_ssProviderGSSAPI) {
            CheckAllocationSeam();
            pHandler = new GSSAPIHandler();
        }
    } catch (std::bad_alloc&) {
        SASSERT_FAIL("SSOHandlerFactory::GetHandler() -- Out of memory!");
        throw SSOException(g_OutOfMemoryException);
    }
    if (pHandler == nullptr) {
        if (ShouldAssert()) {
            SWCharString ssMessage(OSTREL_T("ssoplugin: SSOHandlerFactory::GetHandler() -- Unsupported type: "));
            ssMessage << i_ssType;
            SAssert(__FILE__, __LINE__, "0", ssMessage.c_str());
        }
        throw MakeSSOException(STATUS_FAILURE, MSG_NO_HANDLER, i_ssType);
    }
    m_Handlers.SetAt(i_ssType, pHandler);
    return pHandler;
}

void SSOHandlerFactory::ClearHandlers() {
    CSmartCS guard(m_FactoryLock);
    m_Handlers.RemoveAll();
}

void SSOHandlerFactory::SetHandlerForTesting(const SWCharString& i_ssType,
                                             const CSmartRefCountPtr<SSOHandler>& i_pHandler) {
    CSmartCS guard(m_FactoryLock);
    if (i_pHandler == nullptr) {
        m_Handlers.RemoveKey(i_ssType);
    } else {
        m_Handlers.SetAt(i_ssType, i_pHandler);
    }
}

void SSOHandlerFactory::FailNextHandlerAllocationsForTesting(int i_nCount) { s_nFailHandlerAllocations = i_nCount; }

}  // namespace ostrel
