// The provider "GSSAPI": accepts Kerberos logins through a GSS-API library
// bound at run time and tells the host the client's name. It keeps nothing
// once a login is over: no cache, no impersonation, no client side.
#pragma once

#include "GSSAPICredentials.h"
#include "GSSAPIDllWrapper.h"
#include "HandlerFactory.h"
#include "SSOSession.h"
#include "StaticToken.h"

namespace ostrel {

extern const SWCharString g_ssKeyGssapiUserName;  // "GSSAPI_USER_NAME"

class GSSAPIHandler : public SSOHandler {
public:
    GSSAPIHandler();

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

    SWCharString GetSPN();
    void* CopyGssBuffer(gss_buffer_desc* i_pBuffer);

protected:
    ~GSSAPIHandler() override;

private:
    friend class TestAccess;
    CSmartRefCountPtr<GSSAPIDllWrapper> Dll();
    // The library's output token to the caller (an error token is not passed on);
    // the library's buffer goes back to it either way.
    void TakeOutputToken(GSSAPIDllWrapper& i_gssDll, gss_buffer_desc& io_buffer, OM_uint32 i_nMajor,
                         void** o_ppvBuffer, size_t* o_pnBufferSize, const char* i_pReleaseCondition);

    SISet<SWCharString> m_RequiredParameters;
    Parameters m_GlobalParameters;
    SWCharString m_ssSPN;
    CSmartRefCountPtr<GSSAPIDllWrapper> m_pGssDll;
};

class GSSAPISession : public SSOSession {
public:
    GSSAPISession(CSmartRefCountPtr<GSSAPIDllWrapper> i_pGssDll, const ParasSeq* i_pParas);
    CSmartRefCountPtr<StaticToken> GetStaticToken() override;

protected:
    ~GSSAPISession() override;

private:
    friend class GSSAPIHandler;
    gss_ctx_id_t m_Context = GSSAPIDllWrapper::GSS_C_NO_CONTEXT;  // owned
    // The library said the context is complete; only then may a closing call finish the login.
    bool m_bComplete = false;
    CSmartRefCountPtr<GSSAPIDllWrapper> m_pGssDll;
};

// Holds nothing of the context: it stays in the session and goes with it.
class GSSAPIStaticToken : public StaticToken {
public:
    GSSAPIStaticToken();

    void Impersonate() override;
    void Revert() override;
    bool Expired(const SDateTime& i_now) override;
    bool RenegotiateImpl() override;
    STimeSpan GetRemainingLifetime(const SDateTime& i_now) override;
    STimeSpan GetLifetime() override;

protected:
    ~GSSAPIStaticToken() override = default;
};

}  // namespace ostrel
