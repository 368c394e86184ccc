// Tokens and identifiers on Windows: the system's own calls, unchanged.
#include "ostrel_platform/ITokenApi.h"

namespace ostrel::platform {
namespace {

class Win32TokenApi final : public ITokenApi {
public:
    HANDLE GetCurrentThread() override { return ::GetCurrentThread(); }
    HANDLE GetCurrentProcess() override { return ::GetCurrentProcess(); }
    BOOL OpenThreadToken(HANDLE ThreadHandle, DWORD DesiredAccess, BOOL OpenAsSelf, PHANDLE TokenHandle) override {
        return ::OpenThreadToken(ThreadHandle, DesiredAccess, OpenAsSelf, TokenHandle);
    }
    BOOL OpenProcessToken(HANDLE ProcessHandle, DWORD DesiredAccess, PHANDLE TokenHandle) override {
        return ::OpenProcessToken(ProcessHandle, DesiredAccess, TokenHandle);
    }
    BOOL ImpersonateLoggedOnUser(HANDLE hToken) override { return ::ImpersonateLoggedOnUser(hToken); }
    BOOL RevertToSelf() override { return ::RevertToSelf(); }
    BOOL GetTokenInformation(HANDLE TokenHandle, TOKEN_INFORMATION_CLASS TokenInformationClass, LPVOID TokenInformation,
                             DWORD TokenInformationLength, PDWORD ReturnLength) override {
        return ::GetTokenInformation(TokenHandle, TokenInformationClass, TokenInformation, TokenInformationLength,
                                     ReturnLength);
    }
    BOOL IsValidSid(PSID pSid) override { return ::IsValidSid(pSid); }
    PSID_IDENTIFIER_AUTHORITY GetSidIdentifierAuthority(PSID pSid) override {
        return ::GetSidIdentifierAuthority(pSid);
    }
    PUCHAR GetSidSubAuthorityCount(PSID pSid) override { return ::GetSidSubAuthorityCount(pSid); }
    PDWORD GetSidSubAuthority(PSID pSid, DWORD nSubAuthority) override {
        return ::GetSidSubAuthority(pSid, nSubAuthority);
    }
    BOOL CloseHandle(HANDLE hObject) override { return ::CloseHandle(hObject); }
};

}  // namespace

ITokenApi& detail::PortTokenApi() {
    static Win32TokenApi s_api;
    return s_api;
}

}  // namespace ostrel::platform
