// Parameter sequences from a host: a provider's name, then a sequence (FuzzInput.h), copied back as the plug-in
// hands one out, and given to the exports that take one, in a package started afresh.
#include "authentication/ostrel/Parameters.h"

#include "FuzzInput.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* i_pData, size_t i_nSize) {
    std::string_view rest(reinterpret_cast<const char*>(i_pData), i_nSize);
    const std::u16string provider = Line(rest);
    const Sequence seq(rest);
    ParasSeq* pCopy = nullptr;
    ostrel::Parameters(seq.Head()).ToParasSeq(&pCopy);
    Touch(pCopy), ostrel::FreeParasSeq(pCopy), pCopy = nullptr;

    SSOInitPackage();  // a provider keeps its settings until the package ends
    Check(SSOInitProvider(provider.c_str(), seq.Head()));
    Check(SSOGetRequiredParameters(provider.c_str(), &pCopy));
    Touch(pCopy), SSOFreeParameters(pCopy);
    ostrel_char* pId = nullptr;
    if (Check(SSOAcquireCurrentSecurityContext(provider.c_str(), seq.Head(), &pId)) == SSO_STATUS_OK) Touch(pId);
    SSOFreeString(pId), SSOTermPackage();
    return 0;
}
