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

// Loads another library by path too; the boundary's functions it lacks stay null.
class Plugin {
public:
    explicit Plugin(const char* i_pPath = OSTREL_PLUGIN_PATH) {
#if defined(_WIN32)
        m_pHandle = reinterpret_cast<void*>(::LoadLibraryA(i_pPath));
#else
        m_pHandle = ::dlopen(i_pPath, RTLD_NOW | RTLD_LOCAL);
#endif
        if (m_pHandle == nullptr) {
            ADD_FAILURE() << "cannot load " << i_pPath;
        }
#define OSTREL_RESOLVE(name) name = reinterpret_cast<decltype(&::name)>(symbol(#name))
        OSTREL_RESOLVE(SSOInitPackage);
        OSTREL_RESOLVE(SSOTermPackage);
        OSTREL_RESOLVE(SSOFreeString);
        OSTREL_RESOLVE(SSOGetError);
        OSTREL_RESOLVE(SSOFreeError);
        OSTREL_RESOLVE(SSOGetMessageContent);
        OSTREL_RESOLVE(SSOReleaseAllProviderSecContexts);
        OSTREL_RESOLVE(SSOInitProvider);
        OSTREL_RESOLVE(SSOGetRequiredParameters);
        OSTREL_RESOLVE(SSOStartLogin);
        OSTREL_RESOLVE(SSOContinueLogin);
        OSTREL_RESOLVE(SSOAcceptLogin);
        OSTREL_RESOLVE(SSOImpersonate);
        OSTREL_RESOLVE(SSORevert);
        OSTREL_RESOLVE(SSOAssociateSecurityContext);
        OSTREL_RESOLVE(SSOLookupSecurityContext);
        OSTREL_RESOLVE(SSOAcquireCurrentSecurityContext);
        OSTREL_RESOLVE(SSOReleaseSecurityContext);
        OSTREL_RESOLVE(SSOReleaseAllSecurityContexts);
        OSTREL_RESOLVE(SSOFreeBuffer);
        OSTREL_RESOLVE(SSOFreeParameters);
        OSTREL_RESOLVE(ExternalSSOCreateHandle);
        OSTREL_RESOLVE(ExternalSSODestroyHandle);
        OSTREL_RESOLVE(ExternalSSOVerifyUser);
#undef OSTREL_RESOLVE
    }
    ~Plugin() {
        if (m_pHandle != nullptr) {
#if defined(_WIN32)
            ::FreeLibrary(reinterpret_cast<HMODULE>(m_pHandle));
#else
            ::dlclose(m_pHandle);
#endif
        }
    }
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;

    void* symbol(const char* i_pName) const {
        if (m_pHandle == nullptr) {
            return nullptr;
        }
#if defined(_WIN32)
        return reinterpret_cast<void*>(::GetProcAddress(reinterpret_cast<HMODULE>(m_pHandle), i_pName));
#else
        return ::dlsym(m_pHandle, i_pName);
#endif
    }

    decltype(&::SSOInitPackage) SSOInitPackage = nullptr;
    decltype(&::SSOTermPackage) SSOTermPackage = nullptr;
    decltype(&::SSOFreeString) SSOFreeString = nullptr;
    decltype(&::SSOGetError) SSOGetError = nullptr;
    decltype(&::SSOFreeError) SSOFreeError = nullptr;
    decltype(&::SSOGetMessageContent) SSOGetMessageContent = nullptr;
    decltype(&::SSOReleaseAllProviderSecContexts) SSOReleaseAllProviderSecContexts = nullptr;
    decltype(&::SSOInitProvider) SSOInitProvider = nullptr;
    decltype(&::SSOGetRequiredParameters) SSOGetRequiredParameters = nullptr;
    decltype(&::SSOStartLogin) SSOStartLogin = nullptr;
    decltype(&::SSOContinueLogin) SSOContinueLogin = nullptr;
    decltype(&::SSOAcceptLogin) SSOAcceptLogin = nullptr;
    decltype(&::SSOImpersonate) SSOImpersonate = nullptr;
    decltype(&::SSORevert) SSORevert = nullptr;
    decltype(&::SSOAssociateSecurityContext) SSOAssociateSecurityContext = nullptr;
    decltype(&::SSOLookupSecurityContext) SSOLookupSecurityContext = nullptr;
    decltype(&::SSOAcquireCurrentSecurityContext) SSOAcquireCurrentSecurityContext = nullptr;
    decltype(&::SSOReleaseSecurityContext) SSOReleaseSecurityContext = nullptr;
    decltype(&::SSOReleaseAllSecurityContexts) SSOReleaseAllSecurityContexts = nullptr;
    decltype(&::SSOFreeBuffer) SSOFreeBuffer = nullptr;
    decltype(&::SSOFreeParameters) SSOFreeParameters = nullptr;
    decltype(&::ExternalSSOCreateHandle) ExternalSSOCreateHandle = nullptr;
    decltype(&::ExternalSSODestroyHandle) ExternalSSODestroyHandle = nullptr;
    decltype(&::ExternalSSOVerifyUser) ExternalSSOVerifyUser = nullptr;

private:
    void* m_pHandle = nullptr;
};

inline std::u16string Text(const ostrel_char* p) {
    return p == nullptr ? std::u16string() : std::u16string(reinterpret_cast<const char16_t*>(p));
}

// Sets or clears an environment variable for the scope of a test.
class ScopedEnv {
public:
    ScopedEnv(const char* i_pName, const char* i_pValue) : m_name(i_pName) {
        const char* pOld = std::getenv(i_pName);
        m_bHad = pOld != nullptr;
        if (m_bHad) {
            m_old = pOld;
        }
        set(i_pValue);
    }
    ~ScopedEnv() { set(m_bHad ? m_old.c_str() : nullptr); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

    void set(const char* i_pValue) {
#if defined(_WIN32)
        _putenv_s(m_name.c_str(), i_pValue != nullptr ? i_pValue : "");
#else
        if (i_pValue != nullptr) {
            ::setenv(m_name.c_str(), i_pValue, 1);
        } else {
            ::unsetenv(m_name.c_str());
        }
#endif
    }

private:
    std::string m_name;
    std::string m_old;
    bool m_bHad = false;
};

}  // namespace ostrel_test
