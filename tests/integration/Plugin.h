// Loads the built plug-in by path and resolves its functions, as a host does.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "ostrel/ostrel.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace ostrel_test {

#define OSTREL_EXPORTS(X)                                                                                           \
    X(SSOInitPackage) X(SSOTermPackage) X(SSOFreeString) X(SSOGetError) X(SSOFreeError) X(SSOGetMessageContent)     \
    X(SSOReleaseAllProviderSecContexts) X(SSOInitProvider) X(SSOGetRequiredParameters) X(SSOStartLogin)             \
    X(SSOContinueLogin) X(SSOAcceptLogin) X(SSOImpersonate) X(SSORevert) X(SSOAssociateSecurityContext)             \
    X(SSOLookupSecurityContext) X(SSOAcquireCurrentSecurityContext) X(SSOReleaseSecurityContext)                   \
    X(SSOReleaseAllSecurityContexts) X(SSOFreeBuffer) X(SSOFreeParameters) X(ExternalSSOCreateHandle)               \
    X(ExternalSSODestroyHandle) X(ExternalSSOVerifyUser)

class Plugin {
public:
    // Loads another library by path too; the boundary's functions it lacks stay null.
    explicit Plugin(const char* i_pPath = OSTREL_PLUGIN_PATH) {
#if defined(_WIN32)
        m_pHandle = reinterpret_cast<void*>(::LoadLibraryA(i_pPath));
#else
        m_pHandle = ::dlopen(i_pPath, RTLD_NOW | RTLD_LOCAL);
#endif
        if (m_pHandle == nullptr) {
            ADD_FAILURE() << "cannot load " << i_pPath;
        }
#define OSTREL_RESOLVE(name) name = reinterpret_cast<decltype(&::name)>(symbol(#name));
        OSTREL_EXPORTS(OSTREL_RESOLVE)
#undef OSTREL_RESOLVE
    }
    ~Plugin() {
#if defined(_WIN32)
        (void)(m_pHandle != nullptr && ::FreeLibrary(reinterpret_cast<HMODULE>(m_pHandle)));
#else
        (void)(m_pHandle != nullptr && ::dlclose(m_pHandle));
#endif
    }
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;

    void* symbol(const char* i_pName) const {
#if defined(_WIN32)
        return m_pHandle ? reinterpret_cast<void*>(::GetProcAddress(reinterpret_cast<HMODULE>(m_pHandle), i_pName)) : nullptr;
#else
        return m_pHandle != nullptr ? ::dlsym(m_pHandle, i_pName) : nullptr;
#endif
    }

#define OSTREL_MEMBER(name) decltype(&::name) name = nullptr;
    OSTREL_EXPORTS(OSTREL_MEMBER)
#undef OSTREL_MEMBER

private:
    void* m_pHandle = nullptr;
};

inline std::u16string Text(const ostrel_char* p) {
    return p == nullptr ? std::u16string() : std::u16string(reinterpret_cast<const char16_t*>(p));
}

// Sets or clears an environment variable for the scope of a test.
class ScopedEnv {
public:
    ScopedEnv(const char* i_pName, const char* i_pValue) : m_name(i_pName), m_bHad(std::getenv(i_pName) != nullptr) {
        m_old = m_bHad ? std::getenv(i_pName) : "";
        set(i_pValue);
    }
    ~ScopedEnv() { set(m_bHad ? m_old.c_str() : nullptr); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;
    void set(const char* i_pValue) {
#if defined(_WIN32)
        _putenv_s(m_name.c_str(), i_pValue != nullptr ? i_pValue : "");
#else
        (void)(i_pValue != nullptr ? ::setenv(m_name.c_str(), i_pValue, 1) : ::unsetenv(m_name.c_str()));
#endif
    }

private:
    std::string m_name, m_old;
    bool m_bHad;
};

}  // namespace ostrel_test
