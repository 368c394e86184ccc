// The Linux port of the security packages: one package, "Kerberos", over the
// GSS-API library bound at run time, with the Kerberos mechanism only, and with
// the results Windows gives (docs/security-package.md).
//
// Handles are entries of the port's tables; every call into the library passes
// the process's gate. Impersonating a server context uses the token port's
// per-thread impersonation, with the client's local account; the thread then
// keeps the context's delegated credentials as its outbound ones until it
// reverts (RevertSecurityContext or RevertToSelf).
#pragma once

#include "foundation/SString.h"
#include "ostrel_platform/ISecurityApi.h"
#include "platform/linux/GssKrb5.h"
#include "platform/linux/KerberosObjects.h"
#include "platform/linux/SecurityHandles.h"
#include "platform/linux/SspiBuffers.h"

namespace ostrel::platform::linuxport {

class LinuxSecurityApi final : public ISecurityApi {
public:
    // The library by name; bound on first use, and tried again while it fails.
    explicit LinuxSecurityApi(Tarvik500::SWCharString i_ssLibrary);

    SECURITY_STATUS QuerySecurityPackageInfoW(LPWSTR pszPackageName, PSecPkgInfoW* ppPackageInfo) override;
    SECURITY_STATUS FreeContextBuffer(PVOID pvContextBuffer) override;
    // The principal, logon ID and get-key arguments are not used. With a
    // SEC_WINNT_AUTH_IDENTITY_W no KDC is asked here: the first context logs on.
    SECURITY_STATUS AcquireCredentialsHandleW(LPWSTR pszPrincipal, LPWSTR pszPackage, ULONG fCredentialUse,
                                              PVOID pvLogonId, PVOID pAuthData, SEC_GET_KEY_FN pGetKeyFn,
                                              PVOID pvGetKeyArgument, PCredHandle phCredential,
                                              PTimeStamp ptsExpiry) override;
    SECURITY_STATUS FreeCredentialsHandle(PCredHandle phCredential) override;
    SECURITY_STATUS InitializeSecurityContextW(PCredHandle phCredential, PCtxtHandle phContext,
                                               SEC_WCHAR* pszTargetName, ULONG fContextReq, ULONG Reserved1,
                                               ULONG TargetDataRep, PSecBufferDesc pInput, ULONG Reserved2,
                                               PCtxtHandle phNewContext, PSecBufferDesc pOutput, ULONG* pfContextAttr,
                                               PTimeStamp ptsExpiry) override;
    SECURITY_STATUS AcceptSecurityContext(PCredHandle phCredential, PCtxtHandle phContext, PSecBufferDesc pInput,
                                          ULONG fContextReq, ULONG TargetDataRep, PCtxtHandle phNewContext,
                                          PSecBufferDesc pOutput, ULONG* pfContextAttr, PTimeStamp ptsExpiry) override;
    SECURITY_STATUS DeleteSecurityContext(PCtxtHandle phContext) override;
    // SECPKG_ATTR_LIFESPAN only: the ticket's start and end.
    SECURITY_STATUS QueryContextAttributesW(PCtxtHandle phContext, ULONG ulAttribute, PVOID pBuffer) override;
    SECURITY_STATUS ImpersonateSecurityContext(PCtxtHandle phContext) override;
    SECURITY_STATUS RevertSecurityContext(PCtxtHandle phContext) override;

private:
    SECURITY_STATUS AcquireInitiator(KerberosCredential& io_credential, PVOID i_pAuthData);
    // A pass after its checks; i_phExisting null: the context is new, and goes
    // into the table if the pass succeeds.
    SECURITY_STATUS Initiate(const std::shared_ptr<KerberosContext>& i_pContext, const gss_buffer_desc* i_pInput,
                             const SecHandle* i_phExisting, OutputBuffer& io_output, PCtxtHandle o_phContext,
                             ULONG* o_pfAttributes, PTimeStamp o_ptsExpiry);
    SECURITY_STATUS Accept(const std::shared_ptr<KerberosContext>& i_pContext, gss_buffer_desc& i_input,
                           const SecHandle* i_phExisting, OutputBuffer& io_output, PCtxtHandle o_phContext,
                           ULONG* o_pfAttributes, PTimeStamp o_ptsExpiry);
    // After a pass's library call: the token out, a new context in, the attributes.
    SECURITY_STATUS FinishPass(const std::shared_ptr<KerberosContext>& i_pContext, OM_uint32 i_nMajor,
                               OM_uint32 i_nFlags, gss_buffer_desc& io_token, const SecHandle* i_phExisting,
                               OutputBuffer& io_output, PCtxtHandle o_phContext, ULONG* o_pfAttributes,
                               PTimeStamp o_ptsExpiry);

    GssKrb5 m_gss;
    HandleTable<KerberosCredential> m_credentials;
    HandleTable<KerberosContext> m_contexts;
};

}  // namespace ostrel::platform::linuxport
