#ifndef NOMINMAX
#define NOMINMAX
#endif
#include "foundation/SharedLibrary.h"

#include <windows.h>

#include <string>

namespace Tarvik500 {

namespace {

std::string SystemMessage(DWORD i_nError) {
    wchar_t* pText = nullptr;
    const DWORD nChars =
        FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                       nullptr, i_nError, 0, reinterpret_cast<wchar_t*>(&pText), 0, nullptr);
    std::string text;
    if (nChars != 0 && pText != nullptr) {
        text = ToAnsiString(pText).c_str();
        LocalFree(pText);
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
            text.pop_back();
        }
    }
    return text + " (error " + std::to_string(i_nError) + ")";
}

// A name whose last part has no dot gets ".dll"; anything else is taken as it is.
std::wstring FileNameFor(const SWCharString& i_ssName) {
    std::wstring name(i_ssName.c_str(), i_ssName.getNChars());
    const size_t lastSeparator = name.find_last_of(L"\\/");
    const size_t lastDot = name.find_last_of(L'.');
    if (lastDot == std::wstring::npos || (lastSeparator != std::wstring::npos && lastDot < lastSeparator)) {
        name += L".dll";
    }
    return name;
}

}  // namespace

CSharedLibrary::~CSharedLibrary() { FreeLibrary(); }

void CSharedLibrary::LoadLibraryW(const SWCharString& i_ssName, LoadMode /*i_eMode*/, bool i_bFlag) {
    FreeLibrary();
    const std::string name = ToAnsiString(i_ssName.c_str()).c_str();
    if (name.empty()) {
        if (!i_bFlag) {
            return;
        }
        throw CSharedLibraryException("cannot load a shared library without a name");
    }
    const std::wstring fileName = FileNameFor(i_ssName);
    HMODULE hModule = ::LoadLibraryW(fileName.c_str());
    if (hModule == nullptr) {
        const DWORD nError = GetLastError();
        if (i_bFlag) {
            throw CSharedLibraryException("cannot load shared library \"" + name + "\": " + SystemMessage(nError));
        }
        return;
    }
    m_pHandle = reinterpret_cast<void*>(hModule);
    m_name = ToAnsiString(fileName.c_str()).c_str();
}

void* CSharedLibrary::GetFunction(const char* i_pName, bool i_bFlag) const {
    const std::string symbol = i_pName != nullptr ? i_pName : "";
    if (m_pHandle == nullptr) {
        if (!i_bFlag) {
            return nullptr;
        }
        throw CSharedLibraryException("cannot find symbol \"" + symbol + "\": no shared library is loaded");
    }
    FARPROC pProc = GetProcAddress(static_cast<HMODULE>(m_pHandle), symbol.c_str());
    if (pProc == nullptr) {
        const DWORD nError = GetLastError();
        if (i_bFlag) {
            throw CSharedLibraryException("cannot find symbol \"" + symbol + "\" in shared library \"" + m_name +
                                          "\": " + SystemMessage(nError));
        }
        return nullptr;
    }
    return reinterpret_cast<void*>(pProc);
}

void CSharedLibrary::FreeLibrary() {
    if (m_pHandle != nullptr) {
        ::FreeLibrary(static_cast<HMODULE>(m_pHandle));
        m_pHandle = nullptr;
        m_name.clear();
    }
}

}  // namespace Tarvik500
