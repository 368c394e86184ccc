// Security packages: the SSPI operations the provider "SSPI" uses, with Windows'
// names, signatures and results. The live implementation is Security().
#pragma once


#include "ostrel_platform/Seam.h"
#include "ostrel_platform/SspiTypes.h"

namespace ostrel::platform {

class ISecurityApi {
public:
    virtual ~ISecurityApi() = default;

    virtual SECURITY_STATUS QuerySecurityPackageInfoW(LPWSTR pszPackageName, PSecPkgInfoW* ppPackageInfo) = 0;
    virtual SECURITY_STATUS FreeContextBuffer(PVOID pvContextBuffer) = 0;
    virtual SECURITY_STATUS AcquireCredentialsHandleW(LPWSTR pszPrincipal, LPWSTR pszPackage, ULONG fCredentialUse,
                                                      PVOID pvLogonId, PVOID pAuthData, SEC_GET_KEY_FN pGetKeyFn,
                                                      PVOID pvGetKeyArgument, PCredHandle phCredential,
                                                      PTimeStamp ptsExpiry) = 0;
    virtual SECURITY_STATUS FreeCredentialsHandle(PCredHandle phCredential) = 0;
    virtual SECURITY_STATUS InitializeSecurityContextW(PCredHandle phCredential, PCtxtHandle phContext,
                                                       SEC_WCHAR* pszTargetName, ULONG fContextReq, ULONG Reserved1,
                                                       ULONG TargetDataRep, PSecBufferDesc pInput, ULONG Reserved2,
                                                       PCtxtHandle phNewContext, PSecBufferDesc pOutput,
                                                       ULONG* pfContextAttr, PTimeStamp ptsExpiry) = 0;
    virtual SECURITY_STATUS AcceptSecurityContext(PCredHandle phCredential, PCtxtHandle phContext,
                                                  PSecBufferDesc pInput, ULONG fContextReq, ULONG TargetDataRep,
                                                  PCtxtHandle phNewContext, PSecBufferDesc pOutput,
                                                  ULONG* pfContextAttr, PTimeStamp ptsExpiry) = 0;
    virtual SECURITY_STATUS DeleteSecurityContext(PCtxtHandle phContext) = 0;
    virtual SECURITY_STATUS QueryContextAttributesW(PCtxtHandle phContext, ULONG ulAttribute, PVOID pBuffer) = 0;
    virtual SECURITY_STATUS ImpersonateSecurityContext(PCtxtHandle phContext) = 0;
    virtual SECURITY_STATUS RevertSecurityContext(PCtxtHandle phContext) = 0;
};

namespace detail {
// The port's own implementation, one per platform.
ISecurityApi& PortSecurityApi();
}  // namespace detail

// The implementation in force for the whole process.
inline ISecurityApi& Security() { return Seam<ISecurityApi>::Get(detail::PortSecurityApi); }

using ScopedSecurityApiOverride = ScopedOverride<ISecurityApi>;

}  // namespace ostrel::platform
