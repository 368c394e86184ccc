#include "platform/linux/LinuxTokenApi.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <unordered_map>

#include "platform/linux/LinuxCredentials.h"
#include "platform/linux/LinuxSystemApi.h"

namespace ostrel::platform {

namespace linuxport {

namespace {

const HANDLE kCurrentProcess = reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1));
const HANDLE kCurrentThread = reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-2));

struct Token {
    static constexpr uint64_t kMagic = 0x4e454b4f544c5254ull;

    Token(Identity i_identity, DWORD i_dwAccess, TOKEN_TYPE i_eType)
        : m_identity(std::move(i_identity)), m_dwAccess(i_dwAccess), m_eType(i_eType) {}
    ~Token() { m_nMagic = 0; }

    uint64_t m_nMagic = kMagic;
    const Identity m_identity;
    const DWORD m_dwAccess;
    const TOKEN_TYPE m_eType;
};

// Handles are the tokens' addresses, but only those listed here are ever read,
// so that a closed or made-up handle is refused rather than followed. A user
// holds its own reference, so a close on another thread cannot pull it away.
class TokenTable {
public:
    HANDLE Add(std::shared_ptr<Token> i_pToken) {
        std::lock_guard<std::mutex> guard(m_lock);
        HANDLE h = i_pToken.get();
        m_live.emplace(h, std::move(i_pToken));
        return h;
    }
    std::shared_ptr<const Token> Find(HANDLE i_h) {
        std::lock_guard<std::mutex> guard(m_lock);
        auto it = m_live.find(i_h);
        if (it == m_live.end() || it->second->m_nMagic != Token::kMagic) {
            return nullptr;
        }
        return it->second;
    }
    bool Remove(HANDLE i_h) {
        std::shared_ptr<Token> pToken;
        std::lock_guard<std::mutex> guard(m_lock);
        auto it = m_live.find(i_h);
        if (it == m_live.end()) {
            return false;
        }
        pToken = std::move(it->second);
        m_live.erase(it);
        return true;
    }

private:
    std::mutex m_lock;
    std::unordered_map<HANDLE, std::shared_ptr<Token>> m_live;
};

TokenTable& LiveTokens() {
    // Never destroyed: handles may be closed while the process exits.
    static TokenTable* s_pTable = new TokenTable;
    return *s_pTable;
}

// What the calling thread impersonates through this layer.
struct ThreadState {
    bool m_bImpersonating = false;
    Identity m_token;
    // The kernel credentials were changed, and m_original brings them back.
    bool m_bSwitched = false;
    KernelCredentials m_original;
    std::shared_ptr<const ImpersonationAttachment> m_pAttachment;
};

thread_local ThreadState t_state;
// The first use of t_state on a thread registers its destructor, under the
// loader's lock; a thread that never used it leaves it alone, so that a thread
// stopped while its library unloads does not wait for that lock.
thread_local bool t_bStateUsed = false;

ThreadState& State() {
    t_bStateUsed = true;
    return t_state;
}

// While the main thread impersonates, /proc shows its borrowed identity, not the process's.
struct MainThreadRecord {
    std::mutex m_lock;
    std::optional<Identity> m_original;
};

MainThreadRecord& MainRecord() {
    // Never destroyed, like the token table.
    static MainThreadRecord* s_pRecord = new MainThreadRecord;
    return *s_pRecord;
}

const Identity& IdentityAtLoad() {
    static const Identity s_identity = [] {
        KernelCredentials credentials;
        ReadThreadCredentials(credentials);
        return credentials.Effective();
    }();
    return s_identity;
}
[[maybe_unused]] const bool g_bIdentityAtLoadTaken = (IdentityAtLoad(), true);

Identity ProcessIdentity() {
    {
        MainThreadRecord& record = MainRecord();
        std::lock_guard<std::mutex> guard(record.m_lock);
        if (record.m_original) {
            return *record.m_original;
        }
    }
    Identity identity;
    if (ReadProcessStatus(identity)) {
        return identity;
    }
    return IdentityAtLoad();
}

void SetMainOriginal(const std::optional<Identity>& i_original) {
    MainThreadRecord& record = MainRecord();
    std::lock_guard<std::mutex> guard(record.m_lock);
    record.m_original = i_original;
}

DWORD ErrorFromErrno(int i_nErrno) {
    switch (i_nErrno) {
        case EPERM:
            return ERROR_PRIVILEGE_NOT_HELD;
        case ENOMEM:
            return ERROR_NOT_ENOUGH_MEMORY;
        case EINVAL:
            return ERROR_INVALID_PARAMETER;
        default:
            return ERROR_ACCESS_DENIED;
    }
}

DWORD EffectiveAccess(DWORD i_dwDesired) {
    return (i_dwDesired & MAXIMUM_ALLOWED) != 0 ? TOKEN_ALL_ACCESS : i_dwDesired;
}

BOOL NewToken(const Identity& i_identity, DWORD i_dwAccess, TOKEN_TYPE i_eType, PHANDLE o_phToken) {
    try {
        *o_phToken = LiveTokens().Add(std::make_shared<Token>(i_identity, EffectiveAccess(i_dwAccess), i_eType));
        return TRUE;
    } catch (const std::bad_alloc&) {
        return FailWith(ERROR_NOT_ENOUGH_MEMORY);
    }
}

// Undoes a kernel switch of the calling thread; the impersonation record stays.
int UndoSwitch(ThreadState& io_state) {
    if (!io_state.m_bSwitched) {
        return 0;
    }
    if (int e = RestoreThread(io_state.m_original)) {
        return e;
    }
    io_state.m_bSwitched = false;
    if (IsMainThread()) {
        SetMainOriginal(std::nullopt);
    }
    return 0;
}

// A thread that starts during a switched impersonation carries that user's
// credentials; back to the process's. Switching never touches the real ids, so
// a thread whose ids and groups are what the process had at load has nothing to drop.
int DropInherited() {
    KernelCredentials own;
    if (int e = ReadThreadCredentials(own)) {
        return e;
    }
    if (SameIdentity(own.Effective(), Identity{own.m_nRealUid, own.m_nRealGid, IdentityAtLoad().m_arrGroups})) {
        return 0;
    }
    const Identity process = ProcessIdentity();
    if (SameIdentity(own.Effective(), process)) {
        return 0;
    }
    KernelCredentials target = own;
    target.m_nEffectiveUid = process.m_nUid;
    target.m_nEffectiveGid = process.m_nGid;
    target.m_arrGroups = process.m_arrGroups;
    return RestoreThread(target);
}

constexpr BYTE kSubAuthorities = 2;
constexpr size_t kUnixSidBytes = 8 + 4 * kSubAuthorities;

void WriteUnixSid(BYTE* o_pSid, DWORD i_dwRid, uint32_t i_nId) {
    const BYTE header[8] = {SID_REVISION, kSubAuthorities, 0, 0, 0, 0, 0, kUnixSidAuthority};
    std::memcpy(o_pSid, header, sizeof(header));
    std::memcpy(o_pSid + 8, &i_dwRid, 4);
    std::memcpy(o_pSid + 12, &i_nId, 4);
}

// The primary gid first, then each further group once.
std::vector<uint32_t> TokenGroupIds(const Identity& i_identity) {
    std::vector<uint32_t> ids{i_identity.m_nGid};
    for (uint32_t gid : i_identity.m_arrGroups) {
        bool bSeen = false;
        for (uint32_t listed : ids) {
            bSeen = bSeen || listed == gid;
        }
        if (!bSeen) {
            ids.push_back(gid);
        }
    }
    return ids;
}

}  // namespace

HANDLE LinuxTokenApi::GetCurrentThread() { return kCurrentThread; }

HANDLE LinuxTokenApi::GetCurrentProcess() { return kCurrentProcess; }

BOOL LinuxTokenApi::OpenThreadToken(HANDLE ThreadHandle, DWORD DesiredAccess, BOOL OpenAsSelf, PHANDLE TokenHandle) {
    (void)OpenAsSelf;
    if (TokenHandle == nullptr) {
        return FailWith(ERROR_INVALID_PARAMETER);
    }
    *TokenHandle = nullptr;
    if (ThreadHandle != kCurrentThread) {
        return FailWith(ERROR_INVALID_HANDLE);
    }
    try {
        const ThreadState& state = State();
        if (state.m_bImpersonating) {
            return NewToken(state.m_token, DesiredAccess, TokenImpersonation, TokenHandle);
        }
        KernelCredentials credentials;
        if (int e = ReadThreadCredentials(credentials)) {
            return FailWith(ErrorFromErrno(e));
        }
        const Identity own = credentials.Effective();
        if (SameIdentity(own, ProcessIdentity())) {
            return FailWith(ERROR_NO_TOKEN);
        }
        return NewToken(own, DesiredAccess, TokenImpersonation, TokenHandle);
    } catch (const std::bad_alloc&) {
        return FailWith(ERROR_NOT_ENOUGH_MEMORY);
    }
}

BOOL LinuxTokenApi::OpenProcessToken(HANDLE ProcessHandle, DWORD DesiredAccess, PHANDLE TokenHandle) {
    if (TokenHandle == nullptr) {
        return FailWith(ERROR_INVALID_PARAMETER);
    }
    *TokenHandle = nullptr;
    if (ProcessHandle != kCurrentProcess) {
        return FailWith(ERROR_INVALID_HANDLE);
    }
    try {
        return NewToken(ProcessIdentity(), DesiredAccess, TokenPrimary, TokenHandle);
    } catch (const std::bad_alloc&) {
        return FailWith(ERROR_NOT_ENOUGH_MEMORY);
    }
}

BOOL LinuxTokenApi::CreateToken(const Identity& i_identity, PHANDLE o_phToken) {
    if (o_phToken == nullptr) {
        return FailWith(ERROR_INVALID_PARAMETER);
    }
    *o_phToken = nullptr;
    return NewToken(i_identity, TOKEN_ALL_ACCESS, TokenPrimary, o_phToken);
}

bool LinuxTokenApi::SwitchesKernelCredentials() const {
    return m_eMode == ImpersonationMode::Automatic && ThreadMaySwitchUsers();
}

std::shared_ptr<const ImpersonationAttachment> LinuxTokenApi::CurrentAttachment() {
    return t_bStateUsed ? t_state.m_pAttachment : nullptr;
}

BOOL LinuxTokenApi::ImpersonateWith(HANDLE hToken, std::shared_ptr<const ImpersonationAttachment> i_pAttachment) {
    const std::shared_ptr<const Token> pToken = LiveTokens().Find(hToken);
    if (!pToken) {
        return FailWith(ERROR_INVALID_HANDLE);
    }
    // Windows' rule: a primary token is duplicated into an impersonation token.
    const DWORD dwNeeded = TOKEN_QUERY | (pToken->m_eType == TokenPrimary ? TOKEN_DUPLICATE : TOKEN_IMPERSONATE);
    if ((pToken->m_dwAccess & dwNeeded) != dwNeeded) {
        return FailWith(ERROR_ACCESS_DENIED);
    }
    ThreadState& state = State();
    try {
        Identity target = pToken->m_identity;
        // From the thread's own credentials, so that the original is captured afresh.
        if (int e = UndoSwitch(state)) {
            return FailWith(ErrorFromErrno(e));
        }
        KernelCredentials original;
        if (int e = ReadThreadCredentials(original)) {
            return FailWith(ErrorFromErrno(e));
        }
        const bool bSwitch = SwitchesKernelCredentials() && !SameIdentity(original.Effective(), target);
        if (bSwitch) {
            const bool bMain = IsMainThread();
            if (bMain) {
                SetMainOriginal(original.Effective());
            }
            if (int e = SwitchThreadTo(target)) {
                RestoreThread(original);
                if (bMain) {
                    SetMainOriginal(std::nullopt);
                }
                state = ThreadState{};
                return FailWith(ErrorFromErrno(e));
            }
        }
        state.m_bImpersonating = true;
        state.m_token = std::move(target);
        state.m_bSwitched = bSwitch;
        state.m_original = std::move(original);
        state.m_pAttachment = std::move(i_pAttachment);
        return TRUE;
    } catch (const std::bad_alloc&) {
        return FailWith(ERROR_NOT_ENOUGH_MEMORY);
    }
}

BOOL LinuxTokenApi::RevertToSelf() {
    if (t_bStateUsed) {
        ThreadState& state = t_state;
        if (int e = UndoSwitch(state)) {
            return FailWith(ErrorFromErrno(e));
        }
        state.m_bImpersonating = false;
        state.m_token = Identity{};
        // Last: letting go may run another port's clean-up.
        state.m_pAttachment.reset();
    }
    try {
        // Ids the thread gave up for good were its own choice, not an inheritance of ours.
        if (int e = DropInherited(); e != 0 && e != EPERM) {
            return FailWith(ErrorFromErrno(e));
        }
    } catch (const std::bad_alloc&) {
        return FailWith(ERROR_NOT_ENOUGH_MEMORY);
    }
    return TRUE;
}

BOOL LinuxTokenApi::GetTokenInformation(HANDLE TokenHandle, TOKEN_INFORMATION_CLASS TokenInformationClass,
                                        LPVOID TokenInformation, DWORD TokenInformationLength, PDWORD ReturnLength) {
    if (ReturnLength == nullptr) {
        return FailWith(ERROR_INVALID_PARAMETER);
    }
    const std::shared_ptr<const Token> pToken = LiveTokens().Find(TokenHandle);
    if (!pToken) {
        return FailWith(ERROR_INVALID_HANDLE);
    }
    if ((pToken->m_dwAccess & TOKEN_QUERY) == 0) {
        return FailWith(ERROR_ACCESS_DENIED);
    }
    if (TokenInformationClass != TokenUser && TokenInformationClass != TokenGroups) {
        const bool bKnown = TokenInformationClass >= TokenUser && TokenInformationClass <= TokenStatistics;
        return FailWith(bKnown ? ERROR_NOT_SUPPORTED : ERROR_INVALID_PARAMETER);
    }
    try {
        // The entries, then the SIDs they point at, all inside the caller's buffer.
        std::vector<uint32_t> ids;
        DWORD dwRid = kUnixUserRid;
        size_t nHeader = sizeof(TOKEN_USER);
        if (TokenInformationClass == TokenUser) {
            ids.push_back(pToken->m_identity.m_nUid);
        } else {
            ids = TokenGroupIds(pToken->m_identity);
            dwRid = kUnixGroupRid;
            nHeader = offsetof(TOKEN_GROUPS, Groups) + ids.size() * sizeof(SID_AND_ATTRIBUTES);
        }
        const size_t nNeeded = nHeader + ids.size() * kUnixSidBytes;
        if (nNeeded > 0xFFFFFFFFu) {
            return FailWith(ERROR_ARITHMETIC_OVERFLOW);
        }
        *ReturnLength = static_cast<DWORD>(nNeeded);
        if (TokenInformationLength < nNeeded) {
            return FailWith(ERROR_INSUFFICIENT_BUFFER);
        }
        if (TokenInformation == nullptr ||
            reinterpret_cast<uintptr_t>(TokenInformation) % alignof(SID_AND_ATTRIBUTES) != 0) {
            return FailWith(ERROR_NOACCESS);
        }
        BYTE* pOut = static_cast<BYTE*>(TokenInformation);
        std::memset(pOut, 0, nHeader);
        BYTE* pEntries = pOut;
        if (TokenInformationClass == TokenGroups) {
            const auto dwCount = static_cast<DWORD>(ids.size());
            std::memcpy(pOut + offsetof(TOKEN_GROUPS, GroupCount), &dwCount, sizeof(dwCount));
            pEntries = pOut + offsetof(TOKEN_GROUPS, Groups);
        }
        BYTE* pSid = pOut + nHeader;
        for (size_t i = 0; i < ids.size(); ++i, pSid += kUnixSidBytes) {
            WriteUnixSid(pSid, dwRid, ids[i]);
            SID_AND_ATTRIBUTES entry{};
            entry.Sid = pSid;
            entry.Attributes = TokenInformationClass == TokenUser
                                   ? 0u
                                   : SE_GROUP_MANDATORY | SE_GROUP_ENABLED_BY_DEFAULT | SE_GROUP_ENABLED;
            std::memcpy(pEntries + i * sizeof(entry), &entry, sizeof(entry));
        }
        return TRUE;
    } catch (const std::bad_alloc&) {
        return FailWith(ERROR_NOT_ENOUGH_MEMORY);
    }
}

BOOL LinuxTokenApi::IsValidSid(PSID pSid) {
    if (pSid == nullptr) {
        return FALSE;
    }
    const BYTE* p = static_cast<const BYTE*>(pSid);
    return p[0] == SID_REVISION && p[1] <= SID_MAX_SUB_AUTHORITIES ? TRUE : FALSE;
}

PSID_IDENTIFIER_AUTHORITY LinuxTokenApi::GetSidIdentifierAuthority(PSID pSid) {
    if (pSid == nullptr) {
        SetPortLastError(ERROR_INVALID_SID);
        return nullptr;
    }
    SetPortLastError(ERROR_SUCCESS);
    return reinterpret_cast<PSID_IDENTIFIER_AUTHORITY>(static_cast<BYTE*>(pSid) + 2);
}

PUCHAR LinuxTokenApi::GetSidSubAuthorityCount(PSID pSid) {
    if (pSid == nullptr) {
        SetPortLastError(ERROR_INVALID_SID);
        return nullptr;
    }
    SetPortLastError(ERROR_SUCCESS);
    return static_cast<BYTE*>(pSid) + 1;
}

PDWORD LinuxTokenApi::GetSidSubAuthority(PSID pSid, DWORD nSubAuthority) {
    if (pSid == nullptr) {
        SetPortLastError(ERROR_INVALID_SID);
        return nullptr;
    }
    // Windows leaves this undefined; here it is refused rather than read past the SID.
    BYTE* p = static_cast<BYTE*>(pSid);
    if (nSubAuthority >= p[1]) {
        SetPortLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    SetPortLastError(ERROR_SUCCESS);
    return reinterpret_cast<PDWORD>(p + 8 + 4 * static_cast<size_t>(nSubAuthority));
}

BOOL LinuxTokenApi::CloseHandle(HANDLE hObject) {
    if (hObject == kCurrentThread || hObject == kCurrentProcess) {
        return TRUE;
    }
    return LiveTokens().Remove(hObject) ? TRUE : FailWith(ERROR_INVALID_HANDLE);
}

}  // namespace linuxport

// What the port reads is made before it, so that it outlives the port: whoever
// makes the port early (the plug-in's object does, for a cleaner that may still
// be stopping while the library unloads) keeps both alive that long.
ITokenApi& detail::PortTokenApi() {
    static const bool s_bIdentityFirst = (linuxport::IdentityAtLoad(), true);
    static linuxport::LinuxTokenApi s_api;
    (void)s_bIdentityFirst;
    return s_api;
}

}  // namespace ostrel::platform
