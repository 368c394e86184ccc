// Tokens and identifiers: thread and process tokens, impersonation, SIDs.
// Windows' names, signatures and meaning; the live implementation is Tokens().
#pragma once


#include "ostrel_platform/Seam.h"
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
}  // namespace detail

// The implementation in force for the whole process.
inline ITokenApi& Tokens() { return Seam<ITokenApi>::Get(detail::PortTokenApi); }

using ScopedTokenApiOverride = ScopedOverride<ITokenApi>;

}  // namespace ostrel::platform
