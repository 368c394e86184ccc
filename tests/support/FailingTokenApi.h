// The real token operations, with chosen ones made to fail as the system would.
#pragma once

#include "authentication/ostrel/ThreadTokenHandler.h"
#include "ostrel_platform/ISystemApi.h"
#include "ostrel_platform/ITokenApi.h"

namespace ostrel_test {

class FailingTokenApi : public ostrel::platform::ITokenApi {
public:
    bool bFailThreadToken = false, bFailProcessToken = false, bFailImpersonate = false, bFailRevert = false;
    DWORD nError = ERROR_ACCESS_DENIED;

    HANDLE GetCurrentThread() override { return m_real.GetCurrentThread(); }
    HANDLE GetCurrentProcess() override { return m_real.GetCurrentProcess(); }
    BOOL OpenThreadToken(HANDLE h, DWORD a, BOOL s, PHANDLE t) override {
        return bFailThreadToken ? Fail() : m_real.OpenThreadToken(h, a, s, t);
    }
    BOOL OpenProcessToken(HANDLE h, DWORD a, PHANDLE t) override {
        return bFailProcessToken ? Fail() : m_real.OpenProcessToken(h, a, t);
    }
    BOOL ImpersonateLoggedOnUser(HANDLE t) override { return bFailImpersonate ? Fail() : m_real.ImpersonateLoggedOnUser(t); }
    BOOL RevertToSelf() override { return bFailRevert ? Fail() : m_real.RevertToSelf(); }
    BOOL GetTokenInformation(HANDLE t, TOKEN_INFORMATION_CLASS c, LPVOID p, DWORD n, PDWORD r) override {
        return m_real.GetTokenInformation(t, c, p, n, r);
    }
    BOOL IsValidSid(PSID p) override { return m_real.IsValidSid(p); }
    PSID_IDENTIFIER_AUTHORITY GetSidIdentifierAuthority(PSID p) override { return m_real.GetSidIdentifierAuthority(p); }
    PUCHAR GetSidSubAuthorityCount(PSID p) override { return m_real.GetSidSubAuthorityCount(p); }
    PDWORD GetSidSubAuthority(PSID p, DWORD n) override { return m_real.GetSidSubAuthority(p, n); }
    BOOL CloseHandle(HANDLE h) override { return m_real.CloseHandle(h); }

private:
    BOOL Fail() {
        ostrel::platform::System().SetLastError(nError);
        return FALSE;
    }
    ostrel::platform::ITokenApi& m_real = ostrel::platform::Tokens();
};

// The system's own text for an error number, as the plug-in traces it.
inline std::string SystemText(DWORD i_nError) {
    ostrel::platform::System().SetLastError(i_nError);
    return Tarvik500::ToAnsiString(ostrel::LastErrorText().c_str()).c_str();
}

}  // namespace ostrel_test
