// Message ids and substitution strings: a status and an id as decimal text, a line each, then the substitution
// strings, a line each. A host asks for the id's text; a record of them travels as a failure's does.
#include <cstdlib>

#include "FuzzInput.h"
#include "authentication/ostrel/ErrorManager.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) { return SSOInitPackage() == SSO_STATUS_OK ? 0 : 1; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* i_pData, size_t i_nSize) {
    std::string_view rest(reinterpret_cast<const char*>(i_pData), i_nSize);
    const auto nStatus = static_cast<uint32_t>(std::strtoul(RawLine(rest).c_str(), nullptr, 10));
    const auto nId = static_cast<uint32_t>(std::strtoul(RawLine(rest).c_str(), nullptr, 10));
    ostrel::SIArray<ostrel::SWCharString> arrSubst;
    while (!rest.empty()) arrSubst.Add(ostrel::SWCharString(Line(rest).c_str()));
    ostrel_char* pText = nullptr;
    Touch(SSOGetMessageContent(nId, &pText) == SSO_STATUS_OK ? pText : nullptr), SSOFreeString(pText);

    ostrel::CSmartRefCountPtr<ostrel::ErrorManager> pErrors{new ostrel::ErrorManager()};
    pErrors->SetThreadError(ostrel::SSOException(nStatus, nId, arrSubst));  // never fetched: the manager frees it
    pErrors->SetThreadError(ostrel::SSOException(nStatus, nId, arrSubst));
    Plugin_Exception_Struct* pError = pErrors->GetThreadError();
    // 106 is the one shared record, whatever the id.
    if (pError == nullptr || (nStatus != SSO_STATUS_OUT_OF_MEMORY && pError->messageId != nId)) __builtin_trap();
    for (const SubstString* p = pError->pSubstStrings; p != nullptr; p = p->next) Touch(p->data);
    Touch(pError->message), ostrel::FreeErrorStruct(pError);
    return 0;
}
