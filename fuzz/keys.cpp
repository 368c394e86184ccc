// Session keys and context keys from a host, one line each: an operation (the first unit) and a key (the rest),
// against a captured context known by its own key and by one the host chose.
#include "FuzzInput.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) { return InitPackage(SSO_PROVIDER_THREADTOKEN); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* i_pData, size_t i_nSize) {
    ostrel_char* pId = nullptr;
    if (SSOAcquireCurrentSecurityContext(SSO_PROVIDER_THREADTOKEN, nullptr, &pId) != SSO_STATUS_OK ||
        SSOAssociateSecurityContext(pId, u"host key") != SSO_STATUS_OK) {
        __builtin_trap();
    }
    for (std::string_view rest(reinterpret_cast<const char*>(i_pData), i_nSize); !rest.empty();) {
        const std::u16string line = Line(rest);
        const ostrel_char* pKey = line.c_str() + (line.empty() ? 0 : 1);
        void* pBuffer = nullptr;
        size_t nLength = 0;
        switch (line.empty() ? 0 : line[0] % 7) {
            case 0: Check(SSOContinueLogin(pKey, "token", 5, &pBuffer, &nLength)), SSOFreeBuffer(pBuffer); break;
            case 1: Accept(pKey, SSO_PROVIDER_THREADTOKEN, "token", 5); break;
            case 2: Check(SSOImpersonate(pKey)), Check(SSORevert(pKey)); break;
            case 3: Check(SSOLookupSecurityContext(pKey)); break;
            case 4: Check(SSOAssociateSecurityContext(pId, pKey)); break;
            case 5: Check(SSOAssociateSecurityContext(pKey, u"another key")); break;
            default: Check(SSOReleaseSecurityContext(pKey));
        }
    }
    SSOFreeString(pId);
    Check(SSOReleaseAllSecurityContexts());
    return 0;
}
