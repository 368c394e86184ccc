// Logins under way between their passes, and the driver of a pass.
#pragma once

#include <cstddef>

#include "HandlerFactory.h"
#include "SSOSession.h"
#include "SecContextCache.h"

namespace ostrel {

class SessionCache {
public:
    SessionCache() = default;
    ~SessionCache();
    SessionCache(const SessionCache&) = delete;
    SessionCache& operator=(const SessionCache&) = delete;

    // NULL when there is none; the caller decides whether that is an error.
    SSOSessionPtr GetSession(const SSOSession::SessionIdentifier& i_Key);
    SSOSessionPtr CreateSession(CSmartRefCountPtr<SSOHandler> i_pHandler, const ParasSeq* i_pParas);
    // A second release of one key does no harm.
    void ReleaseSession(const SSOSession::SessionIdentifier& i_Key);

    uint64_t GetCount();

private:
    CRWLock m_SessionLock;
    SIMap<SSOSession::SessionIdentifier, CSmartRefCountPtr<SSOSession>> m_Sessions;
};

class SessionManager : public CRefCount {
public:
    explicit SessionManager(CSmartRefCountPtr<SecContextCache> i_pContextCache);

    uint32_t GenerateClientContext(const SWCharString& i_ssUsername, const SWCharString& i_ssPassword,
                                   const SWCharString& i_ssProvider, const ParasSeq* i_pParameters,
                                   const void* i_pvBuffer, size_t i_nBufferLength, const SWCharString& i_ssSessionKey,
                                   void** o_ppvBuffer, size_t* o_pnBufferLength, SWCharString& o_ssSessionKey);
    uint32_t GenerateServerContext(const SWCharString& i_ssProvider, const SWCharString& i_ssSessionKey,
                                   const void* i_pvBuffer, size_t i_nBufferLength, void** o_ppvBuffer,
                                   size_t* o_pnBufferLength, bool i_bGetLogonInfo, Parameters& o_params,
                                   SWCharString& o_ssSessionKey);
    uint32_t AcquireCurrentContext(const SWCharString& i_ssProvider, const ParasSeq* i_pParameters,
                                   SWCharString& o_ssSessionID);

    // Token bytes for the host: array new here, array delete in SSOFreeBuffer.
    static void* AllocateExternalBuffer(size_t i_Size);
    static void CopyToExternalBuffer(const void* i_pbSource, void** o_ppbExternalBuffer, size_t i_nLength);

    uint64_t GetSessionCount() { return m_SessionCache.GetCount(); }
    // Test seam: the shared cache, for tests that drive its cleaner.
    CSmartRefCountPtr<SecContextCache> GetContextCacheForTesting() { return m_pContextCache; }

protected:
    ~SessionManager() override;

private:
    SessionCache m_SessionCache;
    CSmartRefCountPtr<SecContextCache> m_pContextCache;
};

}  // namespace ostrel
