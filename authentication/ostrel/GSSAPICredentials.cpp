#include "GSSAPICredentials.h"

#include "foundation/Trace.h"

namespace ostrel {

namespace {

// Gives a credential back while the library is still bound.
void ReleaseCred(GSSAPIDllWrapper& i_gssDll, gss_cred_id_t& io_CredHandle) {
    if (io_CredHandle == nullptr) {
        return;
    }
    OM_uint32 minor_status = 0;
    SASSERT(!i_gssDll.GSS_ERROR(i_gssDll.gss_release_cred(&minor_status, &io_CredHandle)),
            "!m_pGssDll->GSS_ERROR(m_pGssDll->gss_release_cred(&minor_status, &m_CredHandle))");
    io_CredHandle = nullptr;
}

void ReleaseName(GSSAPIDllWrapper& i_gssDll, gss_name_t& io_Name) {
    if (io_Name == nullptr) {
        return;
    }
    OM_uint32 minor_status = 0;
    SASSERT(!i_gssDll.GSS_ERROR(i_gssDll.gss_release_name(&minor_status, &io_Name)),
            "!m_pGssDll->GSS_ERROR(m_pGssDll->gss_release_name(&minor_status, &ServerName))");
    io_Name = nullptr;
}

// The gate can throw; a destructor must not.
void ReleaseInDestructor(CSmartRefCountPtr<GSSAPIDllWrapper>& io_pGssDll, gss_cred_id_t& io_CredHandle,
                         const char* i_pAssertion) {
    if (io_pGssDll != nullptr) {
        try {
            ReleaseCred(*io_pGssDll, io_CredHandle);
        } catch (...) {
            SASSERT_FAIL(i_pAssertion);
        }
    }
    io_pGssDll = nullptr;
}

const char* AcquireFailureText(OM_uint32 i_nMajor) {
    switch (i_nMajor) {
        case GSSAPIDllWrapper::GSS_S_BAD_MECH:
            return "ssoplugin: GSSAPIClientCredentials::GSSAPIClientCredentials() -- gss_acquire_cred GSS_S_BAD_MECH";
        case GSSAPIDllWrapper::GSS_S_BAD_NAMETYPE:
            return "ssoplugin: GSSAPIClientCredentials::GSSAPIClientCredentials() -- gss_acquire_cred "
                   "GSS_S_BAD_NAMETYPE";
        case GSSAPIDllWrapper::GSS_S_CREDENTIALS_EXPIRED:
            return "ssoplugin: GSSAPIClientCredentials::GSSAPIClientCredentials() -- gss_acquire_cred "
                   "GSS_S_CREDENTIALS_EXPIRED";
        case GSSAPIDllWrapper::GSS_S_NO_CRED:
            return "ssoplugin: GSSAPIClientCredentials::GSSAPIClientCredentials() -- gss_acquire_cred GSS_S_NO_CRED";
        default:
            return "ssoplugin: GSSAPIClientCredentials::GSSAPIClientCredentials() -- gss_acquire_cred UNKNOWN";
    }
}

}  // namespace

GSSAPIClientCredentials::GSSAPIClientCredentials(const SWCharString& /*i_ssUsername*/,
                                                 const SWCharString& /*i_ssPassword*/, int /*i_nType*/,
                                                 CSmartRefCountPtr<GSSAPIDllWrapper> /*i_pGssDll*/) {
    resetRefCount();
    SASSERT_FAIL("ssoplugin: GSSAPIClientCredentials::GSSAPIClientCredentials() -- GSSAPI C++ client not supported.");
    throw SSOException(STATUS_FAILURE);
}

GSSAPIClientCredentials::~GSSAPIClientCredentials() {
    ReleaseInDestructor(m_pGssDll, m_CredHandle,
                        "ssoplugin: GSSAPIClientCredentials::~GSSAPIClientCredentials() -- Caught an exception!");
}

GSSAPIServerCredentials::GSSAPIServerCredentials(const SWCharString& i_ssServerName, int i_nType,
                                                 CSmartRefCountPtr<GSSAPIDllWrapper> i_pGssDll)
    : m_ssServerName(i_ssServerName) {
    try {
        GSSAPIDllWrapper::RequireBound(i_pGssDll);
        m_pGssDll = i_pGssDll;
        Acquire(i_nType);
    } catch (...) {
        // A half-made object has no reference outstanding; its members go in the unwinding.
        if (m_pGssDll != nullptr) {
            ReleaseCred(*m_pGssDll, m_CredHandle);
        }
        resetRefCount();
        throw;
    }
}

void GSSAPIServerCredentials::Acquire(int i_nType) {
    gss_cred_usage_t nUsage;
    switch (i_nType) {
        case SSOCredentialsServer:
            nUsage = GSSAPIDllWrapper::GSS_C_ACCEPT;
            break;
        case SSOCredentialsClient:
            nUsage = GSSAPIDllWrapper::GSS_C_INITIATE;
            break;
        case SSOCredentialsBoth:
            nUsage = GSSAPIDllWrapper::GSS_C_BOTH;
            break;
        default:
            SASSERT_FAIL(
                "ssoplugin: GSSAPIServerCredentials::GSSAPIServerCredentials() -- Unexpected credential type requested!");
            throw SSOException(STATUS_FAILURE);
    }
    gss_name_t ServerName = nullptr;
    OM_uint32 nMinor = 0;
    OM_uint32 nMajor = m_pGssDll->ImportUserName(m_ssServerName, &nMinor, &ServerName);
    if (GSSAPIDllWrapper::GSS_ERROR(nMajor)) {
        STRACE("ssoplugin: GSSAPIClientCredentials::GSSAPIClientCredentials() -- Failed to import name: %1",
               m_pGssDll->GetGSSAPIError(nMajor, nMinor));
        ReleaseName(*m_pGssDll, ServerName);
        throw SSOException(STATUS_FAILURE);
    }
    nMajor = m_pGssDll->gss_acquire_cred(&nMinor, ServerName, GSSAPIDllWrapper::GSS_C_INDEFINITE,
                                         GSSAPIDllWrapper::GSS_C_NO_OID_SET, nUsage, &m_CredHandle, nullptr, nullptr);
    ReleaseName(*m_pGssDll, ServerName);
    if (!GSSAPIDllWrapper::GSS_ERROR(nMajor)) {
        return;
    }
    STRACE("ssoplugin: GSSAPIServerCredentials::GSSAPIServerCredentials() -- gss_acquire_cred failed.");
    STRACE("ssoplugin: GSSAPIServerCredentials::GSSAPIServerCredentials() -- %1",
           m_pGssDll->GetGSSAPIError(nMajor, nMinor));
    STRACE(AcquireFailureText(nMajor));
    ReleaseCred(*m_pGssDll, m_CredHandle);
    throw SSOException(STATUS_FAILURE);
}

GSSAPIServerCredentials::~GSSAPIServerCredentials() {
    ReleaseInDestructor(m_pGssDll, m_CredHandle,
                        "ssoplugin: GSSAPIServerCredentials::~GSSAPIServerCredentials() -- Caught an exception!");
}

}  // namespace ostrel
