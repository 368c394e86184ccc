// The provider "SSPI": Kerberos through the system's security packages, at both
// ends of a login. A finished server context becomes an SSPIStaticToken, which
// threads impersonate and the cleaner renews by a Kerberos exchange with itself.
#pragma once

#include "HandlerFactory.h"
#include "KerberosSSPICredentials.h"
#include "SSOSession.h"
#include "StaticToken.h"
#include "ostrel_platform/SspiTypes.h"

namespace ostrel {

extern const SWCharString g_ssKeySspiUserSid;        // "SSPI_USER_SID"
extern const SWCharString g_ssKeySspiUserGroupSids;  // "SSPI_USER_GROUP_SIDS"

class KerberosSSPIHandler : public SSOHandler {
public:
    KerberosSSPIHandler();

    void InitHandler(const Parameters& i_params) override;
    void GetRequiredParameters(Parameters& o_params) override;
    int InitializeContext(SSOCredentialsPtr i_pCredentials, SSOSessionPtr i_pSession, const void* i_pvBuffer,
                          size_t i_nBufferSize, void** o_ppvBuffer, size_t* o_pnBufferSize) override;
    int AcceptContext(SSOCredentialsPtr i_pCredentials, SSOSessionPtr i_pSession, const void* i_pvBuffer,
                      size_t i_nBufferSize, void** o_ppvBuffer, size_t* o_pnBufferSize, bool i_bGetLogonInfo,
                      Parameters& o_params) override;
    SSOSessionPtr CreateSession(const ParasSeq* i_pParas) override;
    SSOCredentialsPtr CreateClientCredentials(const SWCharString& i_ssUsername, const SWCharString& i_ssPassword,
                                              int i_nType) override;
    SSOCredentialsPtr CreateServerCredentials(int i_nType) override;
    void* AllocateBuffer(size_t i_nSize) override;
    void FreeBuffer(void* i_pvBuffer) override;

    // The target of a renegotiation: the SPN of the last InitHandler.
    SWCharString GetSPN();

    // Logon information: who the impersonated context's thread token says the user is.
    void GetLogonInformation(SSOSessionPtr i_pSession, Parameters& o_params);
    BOOL GetUserData(HANDLE i_hUserHandle, TOKEN_INFORMATION_CLASS i_eClass, void** o_TokenInformation);
    void SIDToSString(PSID i_pSid, SWCharString& o_ssSid);
    SWCharString GetSystemErrorMessage(DWORD i_nError);

protected:
    ~KerberosSSPIHandler() override = default;

private:
    size_t m_nMaxTokenSize = 0;
    SISet<SWCharString> m_RequiredParameters;
    SISet<SWCharString> m_RequiredGlobalParameters;
    Parameters m_GlobalParameters;
};

class SSPISession : public SSOSession {
public:
    explicit SSPISession(const ParasSeq* i_pParas);
    CSmartRefCountPtr<StaticToken> GetStaticToken() override;

protected:
    ~SSPISession() override;

private:
    friend class KerberosSSPIHandler;
    CtxtHandle m_hContext = {0, 0};  // owned while set
    // The package has said the context is complete; only then may a closing call finish a login.
    bool m_bComplete = false;
};

class SSPIStaticToken : public StaticToken {
public:
    explicit SSPIStaticToken(const CtxtHandle* i_pContextHandle);

    void Impersonate() override;
    void Revert() override;
    bool Expired(const SDateTime& i_now) override;
    bool RenegotiateImpl() override;
    STimeSpan GetRemainingLifetime(const SDateTime& i_now) override;
    STimeSpan GetLifetime() override;

protected:
    ~SSPIStaticToken() override;

private:
    // The context's expiry as a local date; false when it can't be read.
    static bool ExpiryToDateTime(const TimeStamp& i_tsExpiry, SDateTime& o_dtExpiry);
    // Back to the process's identity when the package can't revert; throws if that fails too.
    static void RevertToSelfOrThrow(const char* i_pAssertion);

    CtxtHandle m_hContext = {0, 0};  // owned while set
    // Zero until the package fills it: an unreadable lifespan reads as long expired.
    SecPkgContext_Lifespan m_Lifespan = {};
};

}  // namespace ostrel
