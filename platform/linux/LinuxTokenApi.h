// The Linux port of tokens and identifiers.
//
// A token is a snapshot of an effective uid, an effective gid and the
// supplementary groups. Its SIDs follow the usual Unix mapping: the user is
// S-1-22-1-<uid>, a group S-1-22-2-<gid>.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "ostrel_platform/ITokenApi.h"

namespace ostrel::platform::linuxport {

constexpr BYTE kUnixSidAuthority = 22;
constexpr DWORD kUnixUserRid = 1;
constexpr DWORD kUnixGroupRid = 2;

struct Identity {
    uint32_t m_nUid = 0;
    uint32_t m_nGid = 0;
    std::vector<uint32_t> m_arrGroups;  // supplementary, as the kernel lists them
};

// Same user, same primary group, same set of supplementary groups.
bool SameIdentity(const Identity& i_a, const Identity& i_b);

// What a thread keeps with an impersonation for another port (the security
// package keeps a context's delegated credentials there). It goes when the
// impersonation ends: RevertToSelf, or the next impersonation.
class ImpersonationAttachment {
public:
    virtual ~ImpersonationAttachment() = default;
};

enum class ImpersonationMode {
    // Switch the thread's kernel credentials when it holds CAP_SETUID and
    // CAP_SETGID, and identify only otherwise.
    Automatic,
    // Never touch the kernel credentials.
    IdentificationOnly,
};

// Impersonation acts on the calling thread alone: Linux keeps credentials per
// thread, and the raw system calls used here (unlike libc's set*id wrappers,
// which broadcast to every thread) change only the caller's.
//
// Identification only: a thread that cannot switch users still has the token
// recorded as its own, so OpenThreadToken and GetTokenInformation see the user,
// but what the kernel checks (file access, signals) stays the thread's own.
//
// A thread "has a token" while it impersonates through this class, or when
// its kernel credentials differ from the process's (those of the main thread,
// or its credentials before it began to impersonate here). Unlike Windows,
// Linux gives a new thread its creator's credentials: a thread started during
// a switched impersonation runs as that user, and so has a token.
class LinuxTokenApi final : public ITokenApi {
public:
    explicit LinuxTokenApi(ImpersonationMode i_eMode = ImpersonationMode::Automatic) noexcept : m_eMode(i_eMode) {}

    HANDLE GetCurrentThread() override;
    HANDLE GetCurrentProcess() override;
    // OpenAsSelf makes no difference: opening a token checks no access here.
    BOOL OpenThreadToken(HANDLE ThreadHandle, DWORD DesiredAccess, BOOL OpenAsSelf, PHANDLE TokenHandle) override;
    BOOL OpenProcessToken(HANDLE ProcessHandle, DWORD DesiredAccess, PHANDLE TokenHandle) override;
    // Impersonating while impersonating replaces the first; if a switch fails
    // the thread is left as itself, impersonating nobody.
    BOOL ImpersonateLoggedOnUser(HANDLE hToken) override { return ImpersonateWith(hToken, nullptr); }
    // Also drops credentials the thread took from its creator: afterwards it runs
    // as the process, as a Windows thread does after RevertToSelf.
    BOOL RevertToSelf() override;
    // TokenUser and TokenGroups (the primary group first, then the others).
    BOOL GetTokenInformation(HANDLE TokenHandle, TOKEN_INFORMATION_CLASS TokenInformationClass, LPVOID TokenInformation,
                             DWORD TokenInformationLength, PDWORD ReturnLength) override;
    BOOL IsValidSid(PSID pSid) override;
    PSID_IDENTIFIER_AUTHORITY GetSidIdentifierAuthority(PSID pSid) override;
    PUCHAR GetSidSubAuthorityCount(PSID pSid) override;
    PDWORD GetSidSubAuthority(PSID pSid, DWORD nSubAuthority) override;
    BOOL CloseHandle(HANDLE hObject) override;

    // A primary token with full access for a local account, for the ports that
    // map a principal to one. FALSE and the last error on failure.
    BOOL CreateToken(const Identity& i_identity, PHANDLE o_phToken);

    // ImpersonateLoggedOnUser, with something for the thread to keep meanwhile.
    BOOL ImpersonateWith(HANDLE hToken, std::shared_ptr<const ImpersonationAttachment> i_pAttachment);
    // What the calling thread keeps with its impersonation; null when none.
    static std::shared_ptr<const ImpersonationAttachment> CurrentAttachment();

    // Whether an impersonation on the calling thread would reach the kernel now.
    bool SwitchesKernelCredentials() const;

private:
    ImpersonationMode m_eMode;
};

}  // namespace ostrel::platform::linuxport
