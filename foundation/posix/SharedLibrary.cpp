#include "foundation/SharedLibrary.h"

#include <dlfcn.h>

#include <string>
#include <vector>

namespace Tarvik500 {

namespace {

std::string LastLoaderError() {
    const char* pError = dlerror();
    return pError != nullptr ? std::string(pError) : std::string("unknown error");
}

// A bare name is tried as "lib<name>.so", then "<name>.so"; a path or a name
// that already says ".so" (versioned ones too) is taken as it is.
std::vector<std::string> CandidatesFor(const std::string& i_name) {
    if (i_name.find('/') != std::string::npos || i_name.find(".so") != std::string::npos) {
        return {i_name};
    }
    return {"lib" + i_name + ".so", i_name + ".so"};
}

}  // namespace

CSharedLibrary::~CSharedLibrary() { FreeLibrary(); }

void CSharedLibrary::LoadLibraryW(const SWCharString& i_ssName, LoadMode i_eMode, bool i_bFlag) {
    FreeLibrary();
    const std::string name = ToAnsiString(i_ssName.c_str()).c_str();
    if (name.empty()) {
        if (!i_bFlag) {
            return;
        }
        throw CSharedLibraryException("cannot load a shared library without a name");
    }
    const int flags = (i_eMode == LM_NOW_LOCAL ? RTLD_NOW : RTLD_LAZY) | RTLD_LOCAL;
    std::string errors;
    for (const std::string& candidate : CandidatesFor(name)) {
        void* pHandle = dlopen(candidate.c_str(), flags);
        if (pHandle != nullptr) {
            m_pHandle = pHandle;
            m_name = candidate;
            return;
        }
        errors += errors.empty() ? "" : "; ";
        errors += LastLoaderError();
    }
    if (i_bFlag) {
        throw CSharedLibraryException("cannot load shared library \"" + name + "\": " + errors);
    }
}

void* CSharedLibrary::GetFunction(const char* i_pName, bool i_bFlag) const {
    const std::string symbol = i_pName != nullptr ? i_pName : "";
    if (m_pHandle == nullptr) {
        if (!i_bFlag) {
            return nullptr;
        }
        throw CSharedLibraryException("cannot find symbol \"" + symbol + "\": no shared library is loaded");
    }
    dlerror();
    void* pAddress = dlsym(m_pHandle, symbol.c_str());
    if (pAddress == nullptr && i_bFlag) {
        throw CSharedLibraryException("cannot find symbol \"" + symbol + "\" in shared library \"" + m_name +
                                      "\": " + LastLoaderError());
    }
    return pAddress;
}

void CSharedLibrary::FreeLibrary() {
    if (m_pHandle != nullptr) {
        dlclose(m_pHandle);
        m_pHandle = nullptr;
        m_name.clear();
    }
}

}  // namespace Tarvik500
