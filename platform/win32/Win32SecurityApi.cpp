// Security packages on Windows: the system's own calls (secur32), unchanged.
#include "ostrel_platform/ISecurityApi.h"

namespace ostrel::platform {
namespace {

class Win32SecurityApi final : public ISecurityApi {
public:
    SECURITY_STATUS QuerySecurityPackageInfoW(LPWSTR pszPackageName, PSecPkgInfoW* ppPackageInfo) override {
        return ::QuerySecurityPackageInfoW(pszPackageName, ppPackageInfo);
    }
    SECURITY_STATUS FreeContextBuffer(PVOID pvContextBuffer) override { return ::FreeContextBuffer(pvContextBuffer); }
    SECURITY_STATUS AcquireCredentialsHandleW(LPWSTR pszPrincipal, LPWSTR pszPackage, ULONG fCredentialUse,
                                              PVOID pvLogonId, PVOID pAuthData, SEC_GET_KEY_FN pGetKeyFn,
                                              PVOID pvGetKeyArgument, PCredHandle phCredential,
                                              PTimeStamp ptsExpiry) override {
        return ::AcquireCredentialsHandleW(pszPrincipal, pszPackage, fCredentialUse, pvLogonId, pAuthData, pGetKeyFn,
                                           pvGetKeyArgument, phCredential, ptsExpiry);
    }
    SECURITY_STATUS FreeCredentialsHandle(PCredHandle phCredential) override {
        return ::FreeCredentialsHandle(phCredential);
    }
    SECURITY_STATUS InitializeSecurityContextW(PCredHandle phCredential, PCtxtHandle phContext,
                                               SEC_WCHAR* pszTargetName, ULONG fContextReq, ULONG Reserved1,
                                               ULONG TargetDataRep, PSecBufferDesc pInput, ULONG Reserved2,
                                               PCtxtHandle phNewContext, PSecBufferDesc pOutput, ULONG* pfContextAttr,
                                               PTimeStamp ptsExpiry) override {
        return ::InitializeSecurityContextW(phCredential, phContext, pszTargetName, fContextReq, Reserved1,
                                            TargetDataRep, pInput, Reserved2, phNewContext, pOutput, pfContextAttr,
                                            ptsExpiry);
    }
    SECURITY_STATUS AcceptSecurityContext(PCredHandle phCredential, PCtxtHandle phContext, PSecBufferDesc pInput,
                                          ULONG fContextReq, ULONG TargetDataRep, PCtxtHandle phNewContext,
                                          PSecBufferDesc pOutput, ULONG* pfContextAttr, PTimeStamp ptsExpiry) override {
        return ::AcceptSecurityContext(phCredential, phContext, pInput, fContextReq, TargetDataRep, phNewContext,
                                       pOutput, pfContextAttr, ptsExpiry);
    }
    SECURITY_STATUS DeleteSecurityContext(PCtxtHandle phContext) override { return ::DeleteSecurityContext(phContext); }
    SECURITY_STATUS QueryContextAttributesW(PCtxtHandle phContext, ULONG ulAttribute, PVOID pBuffer) override {
        return ::QueryContextAttributesW(phContext, ulAttribute, pBuffer);
    }
    SECURITY_STATUS ImpersonateSecurityContext(PCtxtHandle phContext) override {
        return ::ImpersonateSecurityContext(phContext);
    }
    SECURITY_STATUS RevertSecurityContext(PCtxtHandle phContext) override { return ::RevertSecurityContext(phContext); }
};

}  // namespace

ISecurityApi& detail::PortSecurityApi() {
    static Win32SecurityApi s_api;
    return s_api;
}

}  // namespace ostrel::platform
