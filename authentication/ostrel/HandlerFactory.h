// Providers: the handler interface every mechanism implements, the credentials
// it makes, and the factory that holds one handler per provider name.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Parameters.h"
#include "SSOException.h"
#include "foundation/DateTime.h"
#include "foundation/Locks.h"
#include "foundation/RefCount.h"

namespace ostrel {

class SSOSession;
using SSOSessionPtr = CSmartRefCountPtr<SSOSession>;

// Provider names.
extern const SWCharString g_ssProviderSSPI;
extern const SWCharString g_ssProviderGSSAPI;
extern const SWCharString g_ssProviderThreadToken;

// Statuses a handler's pass can give.
enum HandlerStatus : int {
    SSEC_STATUS_OK = 0,
    SSEC_STATUS_CONTINUE = 1,
    SSEC_STATUS_COMPLETE_NO_OUTPUT = 2,
};

// Credential types.
enum CredentialsType : int { SSOCredentialsServer = 0, SSOCredentialsClient = 1, SSOCredentialsBoth = 2 };

class SSOCredentials : public CRefCount {
protected:
    ~SSOCredentials() override = default;
};
using SSOCredentialsPtr = CSmartRefCountPtr<SSOCredentials>;

// A provider's settings; no login state. Settings are read and written under
// m_HandlerLock, never held across a token operation.
class SSOHandler : public CRefCount {
public:
    virtual void InitHandler(const Parameters& i_params) = 0;
    virtual void GetRequiredParameters(Parameters& o_params) = 0;
    virtual int InitializeContext(SSOCredentialsPtr i_pCredentials, SSOSessionPtr i_pSession, const void* i_pvBuffer,
                                  size_t i_nBufferSize, void** o_ppvBuffer, size_t* o_pnBufferSize) = 0;
    virtual int AcceptContext(SSOCredentialsPtr i_pCredentials, SSOSessionPtr i_pSession, const void* i_pvBuffer,
                              size_t i_nBufferSize, void** o_ppvBuffer, size_t* o_pnBufferSize, bool i_bGetLogonInfo,
                              Parameters& o_params) = 0;
    // Fills the session from who the caller already is; most providers have no such thing.
    virtual int AcquireCurrentContext(const Parameters& i_params, SSOSessionPtr i_pSession);
    virtual SSOSessionPtr CreateSession(const ParasSeq* i_pParas) = 0;
    virtual SSOCredentialsPtr CreateClientCredentials(const SWCharString& i_ssUsername,
                                                      const SWCharString& i_ssPassword, int i_nType) = 0;
    virtual SSOCredentialsPtr CreateServerCredentials(int i_nType) = 0;
    virtual void* AllocateBuffer(size_t i_nSize) = 0;
    virtual void FreeBuffer(void* i_pvBuffer) = 0;

    bool IsCachingOn();
    // Read without the lock: every look-up of a cached context needs it.
    STimeSpan GetCacheExpiry() const { return m_tsCacheExpiry.load(); }
    uint8_t GetThresholdPercentage();
    bool GetRenewalsAllowed();

    // What a renewal decides by, read together so that one InitHandler is seen whole.
    struct RenewalSettings {
        STimeSpan tsCacheExpiry;
        uint8_t nThresholdPercentage;
        bool bRenewalsAllowed;
    };
    RenewalSettings GetRenewalSettings();

protected:
    SSOHandler(bool i_bCaching, int64_t i_nCacheExpiryMs, uint8_t i_nThresholdPercentage, bool i_bRenewalsAllowed)
        : m_bCaching(i_bCaching),
          m_tsCacheExpiry(i_nCacheExpiryMs),
          m_nThresholdPercentage(i_nThresholdPercentage),
          m_bRenewalsAllowed(i_bRenewalsAllowed) {}
    ~SSOHandler() override = default;

    bool m_bCaching;
    SAtomicTimeSpan m_tsCacheExpiry;  // 0: configuration sets no limit; written under m_HandlerLock
    uint8_t m_nThresholdPercentage;
    bool m_bRenewalsAllowed;
    CRWLock m_HandlerLock;
};

class SSOHandlerFactory : public CRefCount {
public:
    static CSmartRefCountPtr<SSOHandlerFactory> instance();

    // Makes the handler of a provider on first request; unknown names throw.
    CSmartRefCountPtr<SSOHandler> GetHandler(const SWCharString& i_ssType);
    void ClearHandlers();

    // Test seams: a handler of the test's own under a name, and allocations
    // of new handlers that fail as if memory had run out.
    void SetHandlerForTesting(const SWCharString& i_ssType, const CSmartRefCountPtr<SSOHandler>& i_pHandler);
    static void FailNextHandlerAllocationsForTesting(int i_nCount);

protected:
    ~SSOHandlerFactory() override = default;

private:
    SSOHandlerFactory() = default;
    friend class SSOHandlerFactorySingleton;

    SIMap<SWCharString, CSmartRefCountPtr<SSOHandler>> m_Handlers;
    CS_Wrapper m_FactoryLock;
};

}  // namespace ostrel
