// Tokens and identifiers: thread and process tokens, impersonation, SIDs.
// Windows' names, signatures and meaning; the live implementation is Tokens().
#pragma once

#include <atomic>

#include "ostrel_platform/WinTypes.h"

namespace ostrel::platform {

class ITokenApi {
public:
    virtual ~ITokenApi() = default;

    virtual HANDLE GetCurrentThread() = 0;
    virtual HANDLE GetCurrentProcess() = 0;
    virtual BOOL OpenThreadToken(HANDLE ThreadHandle, DWORD DesiredAccess, BOOL OpenAsSelf, PHANDLE TokenHandle) = 0;
    virtual BOOL OpenProcessToken(HANDLE ProcessHandle, DWORD DesiredAccess, PHANDLE TokenHandle) = 0;
    virtual BOOL ImpersonateLoggedOnUser(HANDLE hToken) = 0;
    virtual BOOL RevertToSelf() = 0;
    virtual BOOL GetTokenInformation(HANDLE TokenHandle, TOKEN_INFORMATION_CLASS TokenInformationClass,
                                     LPVOID TokenInformation, DWORD TokenInformationLength, PDWORD ReturnLength) = 0;
    virtual BOOL IsValidSid(PSID pSid) = 0;
    virtual PSID_IDENTIFIER_AUTHORITY GetSidIdentifierAuthority(PSID pSid) = 0;
    virtual PUCHAR GetSidSubAuthorityCount(PSID pSid) = 0;
    virtual PDWORD GetSidSubAuthority(PSID pSid, DWORD nSubAuthority) = 0;
    virtual BOOL CloseHandle(HANDLE hObject) = 0;
};

namespace detail {
// The port's own implementation, one per platform.
ITokenApi& PortTokenApi();
inline std::atomic<ITokenApi*> g_pTokenApiOverride{nullptr};
}  // namespace detail

// The implementation in force for the whole process.
inline ITokenApi& Tokens() {
    ITokenApi* pOverride = detail::g_pTokenApiOverride.load(std::memory_order_acquire);
    return pOverride != nullptr ? *pOverride : detail::PortTokenApi();
}

// Puts a fake in force for its lifetime; nests, and must end in reverse order.
class ScopedTokenApiOverride {
public:
    explicit ScopedTokenApiOverride(ITokenApi& i_fake)
        : m_pPrevious(detail::g_pTokenApiOverride.exchange(&i_fake, std::memory_order_acq_rel)) {}
    ~ScopedTokenApiOverride() { detail::g_pTokenApiOverride.store(m_pPrevious, std::memory_order_release); }
    ScopedTokenApiOverride(const ScopedTokenApiOverride&) = delete;
    ScopedTokenApiOverride& operator=(const ScopedTokenApiOverride&) = delete;

private:
    ITokenApi* m_pPrevious;
};

}  // namespace ostrel::platform
