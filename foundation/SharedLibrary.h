// Binds one shared library at run time.
#pragma once

#include <stdexcept>
#include <string>

#include "SString.h"

namespace Tarvik500 {

class CSharedLibraryException : public std::runtime_error {
public:
    explicit CSharedLibraryException(const std::string& i_text) : std::runtime_error(i_text) {}
    const char* text() const noexcept { return what(); }
};

class CSharedLibrary {
public:
    enum LoadMode { LM_DEFAULT = 0, LM_NOW_LOCAL = 1 };

    CSharedLibrary() = default;
    ~CSharedLibrary();
    CSharedLibrary(const CSharedLibrary&) = delete;
    CSharedLibrary& operator=(const CSharedLibrary&) = delete;

    // The name comes without the platform's extension; a name that already has
    // one, or a path, is taken as it is. LM_NOW_LOCAL binds every symbol at once
    // and keeps them out of the global scope. With i_bFlag a failure throws
    // CSharedLibraryException; without it, no library is held afterwards.
    void LoadLibraryW(const SWCharString& i_ssName, LoadMode i_eMode, bool i_bFlag);
    // With i_bFlag a missing symbol (or no library) throws CSharedLibraryException;
    // without it the result is null.
    void* GetFunction(const char* i_pName, bool i_bFlag) const;
    void FreeLibrary();
    bool IsLoaded() const { return m_pHandle != nullptr; }

private:
    void* m_pHandle = nullptr;
    std::string m_name;
};

}  // namespace Tarvik500
