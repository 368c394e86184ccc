// Until the port of the security packages is in this build: no package at all.
// The port replaces this file with the real implementation.
#include "ostrel_platform/ISecurityApi.h"

namespace ostrel::platform {
namespace {

class PendingSecurityApi final : public ISecurityApi {
public:
    SECURITY_STATUS QuerySecurityPackageInfoW(LPWSTR, PSecPkgInfoW* ppPackageInfo) override {
        if (ppPackageInfo != nullptr) {
            *ppPackageInfo = nullptr;
        }
        return SEC_E_SECPKG_NOT_FOUND;
    }
    SECURITY_STATUS FreeContextBuffer(PVOID) override { return SEC_E_UNSUPPORTED_FUNCTION; }
    SECURITY_STATUS AcquireCredentialsHandleW(LPWSTR, LPWSTR, ULONG, PVOID, PVOID, SEC_GET_KEY_FN, PVOID, PCredHandle,
                                              PTimeStamp) override {
        return SEC_E_UNSUPPORTED_FUNCTION;
    }
    SECURITY_STATUS FreeCredentialsHandle(PCredHandle) override { return SEC_E_UNSUPPORTED_FUNCTION; }
    SECURITY_STATUS InitializeSecurityContextW(PCredHandle, PCtxtHandle, SEC_WCHAR*, ULONG, ULONG, ULONG,
                                               PSecBufferDesc, ULONG, PCtxtHandle, PSecBufferDesc, ULONG*,
                                               PTimeStamp) override {
        return SEC_E_UNSUPPORTED_FUNCTION;
    }
    SECURITY_STATUS AcceptSecurityContext(PCredHandle, PCtxtHandle, PSecBufferDesc, ULONG, ULONG, PCtxtHandle,
                                          PSecBufferDesc, ULONG*, PTimeStamp) override {
        return SEC_E_UNSUPPORTED_FUNCTION;
    }
    SECURITY_STATUS DeleteSecurityContext(PCtxtHandle) override { return SEC_E_UNSUPPORTED_FUNCTION; }
    SECURITY_STATUS QueryContextAttributesW(PCtxtHandle, ULONG, PVOID) override { return SEC_E_UNSUPPORTED_FUNCTION; }
    SECURITY_STATUS ImpersonateSecurityContext(PCtxtHandle) override { return SEC_E_UNSUPPORTED_FUNCTION; }
    SECURITY_STATUS RevertSecurityContext(PCtxtHandle) override { return SEC_E_UNSUPPORTED_FUNCTION; }
};

}  // namespace

ISecurityApi& detail::PortSecurityApi() {
    static PendingSecurityApi s_api;
    return s_api;
}

}  // namespace ostrel::platform
