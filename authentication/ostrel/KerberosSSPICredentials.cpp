#include "KerberosSSPICredentials.h"

#include "IntCast.h"
#include "foundation/Trace.h"
#include "ostrel_platform/ISecurityApi.h"

namespace ostrel {

using platform::Security;

const SWCharString g_ssKerberosSSPIMechanism(OSTREL_T("Kerberos/SSPI"));

namespace {

ostrel_char s_szKerberos[] = OSTREL_T("Kerberos");

unsigned short* AuthText(const SWCharString& i_ss) {
    return reinterpret_cast<unsigned short*>(const_cast<ostrel_char*>(i_ss.c_str()));
}

}  // namespace

LPWSTR KerberosPackageName() { return s_szKerberos; }

KerberosSSPICredentials::KerberosSSPICredentials(const SWCharString& i_ssUsername, const SWCharString& i_ssPassword,
                                                 int i_nType) {
    try {
        Acquire(i_ssUsername, i_ssPassword, i_nType);
    } catch (...) {
        resetRefCount();
        throw;
    }
}

void KerberosSSPICredentials::Acquire(const SWCharString& i_ssUsername, const SWCharString& i_ssPassword, int i_nType) {
    SEC_WINNT_AUTH_IDENTITY_W identity = {};
    PVOID pAuthData = nullptr;
    SWCharString ssUser;
    SWCharString ssDomain;
    if (i_ssUsername.isEmpty()) {
        STRACE("ssoplugin: KerberosSSPICredentials::KerberosSSPICredentials() -- Called for SSO.");
        SASSERT(i_ssPassword.isEmpty(), "i_ssPassword.isEmpty()");
    } else {
        STRACE(
            "ssoplugin: KerberosSSPICredentials::KerberosSSPICredentials() -- Username = %1, Password = >>not "
            "traced<<",
            i_ssUsername);
        // At the first backslash (domain, then user), else at the first @ (user, then domain).
        const ostrel_char* pName = i_ssUsername.c_str();
        const size_t nName = i_ssUsername.getNChars();
        const auto itBackslash = i_ssUsername.findFirst(OSTREL_T('\\'));
        const auto itAt = i_ssUsername.findFirst(OSTREL_T('@'));
        const bool bDomainFirst = itBackslash != i_ssUsername.end();
        if (!bDomainFirst && itAt == i_ssUsername.end()) {
            STRACE(
                "ssoplugin: KerberosSSPICredentials::KerberosSSPICredentials() -- %1 is not the right format for "
                "the username.",
                i_ssUsername);
            throw SSOException(STATUS_FAILURE, MSG_BAD_USER_NAME);
        }
        const size_t nAt = (bDomainFirst ? itBackslash : itAt).position();
        const SWCharString ssFirst(pName, nAt);
        const SWCharString ssSecond(pName + nAt + 1, nName - nAt - 1);
        ssUser = bDomainFirst ? ssSecond : ssFirst;
        ssDomain = bDomainFirst ? ssFirst : ssSecond;
        identity.User = AuthText(ssUser);
        identity.UserLength = int_cast<ULONG>(ssUser.getNChars());
        identity.Domain = AuthText(ssDomain);
        identity.DomainLength = int_cast<ULONG>(ssDomain.getNChars());
        identity.Password = AuthText(i_ssPassword);
        identity.PasswordLength = int_cast<ULONG>(i_ssPassword.getNChars());
        identity.Flags = SEC_WINNT_AUTH_IDENTITY_UNICODE;
        pAuthData = &identity;
    }

    ULONG nCredentialUse = 0;
    switch (i_nType) {
        case SSOCredentialsServer:
            nCredentialUse = SECPKG_CRED_INBOUND;
            break;
        case SSOCredentialsClient:
            nCredentialUse = SECPKG_CRED_OUTBOUND;
            break;
        case SSOCredentialsBoth:
            nCredentialUse = SECPKG_CRED_BOTH;
            break;
        default:
            SASSERT_FAIL(
                "ssoplugin: KerberosSSPICredentials::KerberosSSPICredentials() -- Unexpected credential type "
                "requested!");
            throw SSOException(STATUS_FAILURE);
    }

    const SECURITY_STATUS status =
        Security().AcquireCredentialsHandleW(nullptr, KerberosPackageName(), nCredentialUse, nullptr, pAuthData,
                                             nullptr, nullptr, &m_hCredentials, &m_tsCredentialsExpiry);
    if (status == SEC_E_OK) {
        return;
    }
    if (IsHandleSet(m_hCredentials)) {
        Security().FreeCredentialsHandle(&m_hCredentials);
        m_hCredentials = {0, 0};
    }
    switch (status) {
        case SEC_E_INSUFFICIENT_MEMORY:
            STRACE(
                "ssoplugin: KerberosSSPICredentials::KerberosSSPICredentials() -- Out of memory in "
                "AcquireCredentialsHandle().");
            throw SSOException(g_OutOfMemoryException);
        case SEC_E_SECPKG_NOT_FOUND:
            STRACE(
                "ssoplugin: KerberosSSPICredentials::KerberosSSPICredentials() -- Could not load the Kereros "
                "security package.");
            throw MakeSSOException(STATUS_FAILURE, MSG_MECHANISM_UNAVAILABLE, g_ssKerberosSSPIMechanism);
        case SEC_E_NOT_OWNER:
        case SEC_E_UNKNOWN_CREDENTIALS:
        case SEC_E_NO_CREDENTIALS:
            STRACE(
                "ssoplugin: KerberosSSPICredentials::KerberosSSPICredentials() -- Credentials error.  Is the "
                "calling thread running as a valid user?");
            throw SSOException(STATUS_FAILURE, MSG_CREDENTIALS);
        default:
            STRACE(
                "ssoplugin: KerberosSSPICredentials::KerberosSSPICredentials() -- Unknown failure in "
                "AcquireCredentialsHandle(): %1",
                status);
            throw SSOException(STATUS_FAILURE, MSG_CREDENTIALS);
    }
}

KerberosSSPICredentials::~KerberosSSPICredentials() {
    if (!IsHandleSet(m_hCredentials)) {
        return;
    }
    const SECURITY_STATUS status = Security().FreeCredentialsHandle(&m_hCredentials);
    if (status != SEC_E_OK && ShouldAssert()) {
        SWCharString ssMessage(OSTREL_T("FreeCredentialsHandle failed: "));
        if (status == SEC_E_INVALID_HANDLE) {
            ssMessage += OSTREL_T("SEC_E_INVALID_HANDLE");
        } else {
            ssMessage += OSTREL_T("Unknown error: ");
            ssMessage += SWCharStringConv::ToString(static_cast<long long>(status), 10);
        }
        SAssert(__FILE__, __LINE__, "status == SEC_E_OK", ssMessage.c_str());
    }
}

}  // namespace ostrel
