// What tests reach inside the library, as a friend of its classes: compiled into tests only, never shipped.
#pragma once

#include "authentication/ostrel/GSSAPIHandler.h"
#include "authentication/ostrel/HandlerFactory.h"
#include "authentication/ostrel/SSOImpl.h"
#include "authentication/ostrel/SecContextCache.h"
#include "authentication/ostrel/SessionManager.h"

namespace ostrel {

class TestAccess {
public:
    // Wakes the cleaner so that its next scan runs now, not in a minute.
    static void WakeUpdateThread(SecContextCache& io_cache) {
        CSmartCS guard(io_cache.m_csUpdateThread);
        if (io_cache.m_hUpdateThread) io_cache.m_hUpdateThread->awake();
    }
    // The live cache, or null while the object is not running.
    static CSmartRefCountPtr<SecContextCache> ContextCache(SSOImpl& i_impl) {
        CSmartReadLocker lock(i_impl.m_Lock);
        return i_impl.m_pSessionManager != nullptr ? i_impl.m_pSessionManager->m_pContextCache : nullptr;
    }
    // A handler of the test's own under a name; null takes the name back.
    static void SetHandler(const SWCharString& i_ssType, const CSmartRefCountPtr<SSOHandler>& i_pHandler) {
        CSmartRefCountPtr<SSOHandlerFactory> pFactory = SSOHandlerFactory::instance();
        CSmartCS guard(pFactory->m_FactoryLock);
        if (i_pHandler == nullptr) pFactory->m_Handlers.RemoveKey(i_ssType);
        if (i_pHandler != nullptr) pFactory->m_Handlers.SetAt(i_ssType, i_pHandler);
    }
    // A session cache's limits, for tests that reach them without waiting or filling it.
    static void Limit(SessionCache& io_cache, int64_t i_nMaxIdleMs, size_t i_nMaxSessions) {
        io_cache.m_nMaxIdleMs = i_nMaxIdleMs;
        io_cache.m_nMaxSessions = i_nMaxSessions;
    }
    // The library the handler binds on its first InitHandler.
    static void SetDll(GSSAPIHandler& io_handler, const CSmartRefCountPtr<GSSAPIDllWrapper>& i_pGssDll) {
        CSmartWriteLocker lock(io_handler.m_HandlerLock);
        io_handler.m_pGssDll = i_pGssDll;
    }
};

}  // namespace ostrel
