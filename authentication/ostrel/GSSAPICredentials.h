// Credentials of the provider "GSSAPI": the acceptor's, from its service
// principal; a client's can never be made, since this provider only accepts.
#pragma once

#include "GSSAPIDllWrapper.h"
#include "HandlerFactory.h"

namespace ostrel {

class GSSAPIClientCredentials : public SSOCredentials {
public:
    // Always throws.
    GSSAPIClientCredentials(const SWCharString& i_ssUsername, const SWCharString& i_ssPassword, int i_nType,
                            CSmartRefCountPtr<GSSAPIDllWrapper> i_pGssDll);

protected:
    ~GSSAPIClientCredentials() override;

private:
    friend class GSSAPIHandler;
    gss_cred_id_t m_CredHandle = nullptr;
    CSmartRefCountPtr<GSSAPIDllWrapper> m_pGssDll;
};

class GSSAPIServerCredentials : public SSOCredentials {
public:
    GSSAPIServerCredentials(const SWCharString& i_ssServerName, int i_nType,
                            CSmartRefCountPtr<GSSAPIDllWrapper> i_pGssDll);

    gss_cred_id_t GetCredHandle() const { return m_CredHandle; }

protected:
    ~GSSAPIServerCredentials() override;

private:
    friend class GSSAPIHandler;
    SWCharString m_ssServerName;
    gss_cred_id_t m_CredHandle = nullptr;
    void Acquire(int i_nType);
    CSmartRefCountPtr<GSSAPIDllWrapper> m_pGssDll;
};

}  // namespace ostrel
