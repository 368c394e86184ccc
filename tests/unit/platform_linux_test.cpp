// The Linux ports: message texts, SIDs of the Unix mapping, access rules, the handle table, and
// impersonation as the kernel sees it (the last tests need root).
#if !defined(_WIN32)

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <set>
#include <string>
#include <tuple>
#include <thread>
#include <vector>

#include "integration/Identity.h"
#include "platform/linux/GssKrb5.h"
#include "platform/linux/KerberosResults.h"
#include "platform/linux/LinuxSystemApi.h"
#include "platform/linux/LinuxTokenApi.h"

namespace {

using namespace ostrel::platform::linuxport;
constexpr uint32_t kNobody = 65534;
constexpr DWORD kAll = TOKEN_DUPLICATE | TOKEN_IMPERSONATE | TOKEN_QUERY;
constexpr DWORD kAlloc = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;

// The text as the logic asks for it; empty when there is none.
std::string TextOf(DWORD i_nError, DWORD i_nLanguage = 1024) {
    LinuxSystemApi api;
    LPWSTR p = nullptr;
    const DWORD n = api.FormatMessageW(kAlloc, nullptr, i_nError, i_nLanguage, reinterpret_cast<LPWSTR>(&p), 0, nullptr);
    std::string text;
    for (DWORD i = 0; p != nullptr && i < n; ++i) text += p[i] < 0x80 ? static_cast<char>(p[i]) : '?';
    if (p != nullptr) {
        EXPECT_EQ(api.LocalFree(p), nullptr);
    }
    return text;
}

TEST(LinuxSystem, EachErrorHasItsOwnSentenceInEnglishOnly) {
    std::set<std::string> seen;
    for (DWORD code : {ERROR_SUCCESS, ERROR_ACCESS_DENIED, ERROR_INVALID_HANDLE, ERROR_NOT_ENOUGH_MEMORY,
                       ERROR_NOT_SUPPORTED, ERROR_INVALID_PARAMETER, ERROR_INSUFFICIENT_BUFFER, ERROR_MR_MID_NOT_FOUND,
                       ERROR_ARITHMETIC_OVERFLOW, ERROR_NOACCESS, ERROR_NO_TOKEN, ERROR_PRIVILEGE_NOT_HELD,
                       ERROR_INVALID_SID, ERROR_BAD_IMPERSONATION_LEVEL, ERROR_RESOURCE_LANG_NOT_FOUND}) {
        const std::string text = TextOf(code);
        EXPECT_TRUE(text.size() > 10 && text.back() == '.' && text.find_first_of("\r\n?%") == std::string::npos) << text;
        EXPECT_TRUE(seen.insert(text).second) << "twice: " << text;
    }
    for (auto [code, language, error] : std::vector<std::tuple<DWORD, DWORD, DWORD>>{
             {0x80090308u, 1024, ERROR_MR_MID_NOT_FOUND}, {4000, 0, ERROR_MR_MID_NOT_FOUND},
             {ERROR_NO_TOKEN, MAKELANGID(0x07, 0x01), ERROR_RESOURCE_LANG_NOT_FOUND}}) {
        EXPECT_EQ(TextOf(code, language), "");
        EXPECT_EQ(PortLastError(), error);
    }
    EXPECT_EQ(TextOf(ERROR_NO_TOKEN, MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US)), TextOf(ERROR_NO_TOKEN, 0));

    LinuxSystemApi api;  // a caller's buffer must hold text and terminator
    const std::string expected = TextOf(ERROR_INVALID_HANDLE);
    const DWORD nFit = static_cast<DWORD>(expected.size() + 1);
    std::u16string buffer(nFit + 4, u'#');
    const DWORD flags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;
    EXPECT_EQ(api.FormatMessageW(flags, nullptr, ERROR_INVALID_HANDLE, 0, buffer.data(), nFit - 1, nullptr), 0u);
    EXPECT_EQ(PortLastError(), DWORD{ERROR_INSUFFICIENT_BUFFER});
    EXPECT_EQ(api.FormatMessageW(flags, nullptr, ERROR_INVALID_HANDLE, 0, buffer.data(), nFit, nullptr), nFit - 1);
    EXPECT_EQ(buffer[nFit], u'#');
    EXPECT_EQ(api.FormatMessageW(FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, 6, 0, buffer.data(), nFit, nullptr), 0u);
    LPWSTR p = nullptr;  // LocalFree takes back only what it gave, once
    ASSERT_GT(api.FormatMessageW(kAlloc, nullptr, ERROR_SUCCESS, 0, reinterpret_cast<LPWSTR>(&p), 500, nullptr), 0u);
    p[499] = u'x';  // at least nSize characters: inside the allocation
    EXPECT_EQ(api.LocalFree(p), nullptr);
    EXPECT_EQ(api.LocalFree(p), p);
    EXPECT_EQ(PortLastError(), DWORD{ERROR_INVALID_HANDLE});
}

// User or group ids in order, read through the SID accessors of the Unix mapping S-1-22-1-uid, S-1-22-2-gid.
std::vector<uint32_t> Ids(LinuxTokenApi& api, HANDLE h, TOKEN_INFORMATION_CLASS i_eClass) {
    DWORD n = 0;
    EXPECT_FALSE(api.GetTokenInformation(h, i_eClass, nullptr, 0, &n));
    std::vector<uint64_t> buffer(n / 8 + 1);
    EXPECT_TRUE(api.GetTokenInformation(h, i_eClass, buffer.data(), n, &n));
    std::vector<PSID> sids;
    if (i_eClass == TokenUser) {
        sids.push_back(reinterpret_cast<TOKEN_USER*>(buffer.data())->User.Sid);
    } else {
        const auto* pGroups = reinterpret_cast<const TOKEN_GROUPS*>(buffer.data());
        for (DWORD i = 0; i < pGroups->GroupCount; ++i) {
            EXPECT_EQ(pGroups->Groups[i].Attributes, SE_GROUP_MANDATORY | SE_GROUP_ENABLED_BY_DEFAULT | SE_GROUP_ENABLED);
            sids.push_back(pGroups->Groups[i].Sid);
        }
    }
    std::vector<uint32_t> ids;
    for (PSID p : sids) {
        const BYTE* pAuthority = api.GetSidIdentifierAuthority(p)->Value;
        EXPECT_EQ(std::vector<BYTE>(pAuthority, pAuthority + 6), (std::vector<BYTE>{0, 0, 0, 0, 0, 22}));
        EXPECT_EQ(*api.GetSidSubAuthorityCount(p), 2);
        EXPECT_EQ(*api.GetSidSubAuthority(p, 0), i_eClass == TokenUser ? 1u : 2u);
        ids.push_back(*api.GetSidSubAuthority(p, 1));
    }
    return ids;
}

HANDLE MakeToken(LinuxTokenApi& api, uint32_t uid, uint32_t gid, std::vector<uint32_t> groups) {
    HANDLE h = nullptr;
    EXPECT_TRUE(api.CreateToken(Identity{uid, gid, std::move(groups)}, &h));
    return h;
}

TEST(LinuxTokens, SidsSizesAndAccessRules) {
    LinuxTokenApi api;
    HANDLE h = MakeToken(api, 1234, 50, {7, 50, 9, 7});
    EXPECT_EQ(Ids(api, h, TokenUser), std::vector<uint32_t>{1234});
    EXPECT_EQ(Ids(api, h, TokenGroups), (std::vector<uint32_t>{50, 7, 9})) << "the primary group first, each once";
    DWORD n = 0;
    EXPECT_FALSE(api.GetTokenInformation(h, TokenGroups, nullptr, 0, &n));
    EXPECT_EQ(n, offsetof(TOKEN_GROUPS, Groups) + 3 * sizeof(SID_AND_ATTRIBUTES) + 3 * 16);
    std::vector<uint64_t> big(64);
    const DWORD nNeeded = n;  // one byte short is too short, and says how much is needed
    EXPECT_FALSE(api.GetTokenInformation(h, TokenGroups, big.data(), nNeeded - 1, &n));
    EXPECT_TRUE(PortLastError() == ERROR_INSUFFICIENT_BUFFER && n == nNeeded);
    EXPECT_TRUE(api.CloseHandle(h));

    ASSERT_TRUE(api.OpenProcessToken(api.GetCurrentProcess(), TOKEN_QUERY, &h));
    EXPECT_EQ(Ids(api, h, TokenUser), std::vector<uint32_t>{geteuid()});
    EXPECT_EQ(Ids(api, h, TokenGroups).at(0), getegid());
    EXPECT_TRUE(api.CloseHandle(h));
    auto refused = [&](BOOL i_b, DWORD i_nError) { return !i_b && PortLastError() == i_nError; };
    EXPECT_TRUE(refused(api.OpenThreadToken(api.GetCurrentProcess(), kAll, TRUE, &h), ERROR_INVALID_HANDLE));
    EXPECT_TRUE(refused(api.OpenProcessToken(api.GetCurrentThread(), kAll, &h), ERROR_INVALID_HANDLE));
    EXPECT_TRUE(refused(api.OpenProcessToken(api.GetCurrentProcess(), kAll, nullptr), ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(refused(api.CloseHandle(nullptr), ERROR_INVALID_HANDLE));
    alignas(8) BYTE buffer[128];
    ASSERT_TRUE(api.OpenProcessToken(api.GetCurrentProcess(), TOKEN_QUERY, &h));
    EXPECT_TRUE(refused(api.GetTokenInformation(h, TokenUser, nullptr, 0, nullptr), ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(refused(api.GetTokenInformation(h, TokenPrivileges, nullptr, 0, &n), ERROR_NOT_SUPPORTED));
    EXPECT_TRUE(refused(api.GetTokenInformation(h, static_cast<TOKEN_INFORMATION_CLASS>(999), nullptr, 0, &n), ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(refused(api.GetTokenInformation(h, TokenUser, buffer + 1, 100, &n), ERROR_NOACCESS));
    EXPECT_TRUE(refused(api.ImpersonateLoggedOnUser(h), ERROR_ACCESS_DENIED)) << "a primary token needs TOKEN_DUPLICATE";
    EXPECT_TRUE(api.CloseHandle(h));
    ASSERT_TRUE(api.OpenProcessToken(api.GetCurrentProcess(), TOKEN_IMPERSONATE | TOKEN_DUPLICATE, &h));
    EXPECT_TRUE(refused(api.GetTokenInformation(h, TokenUser, nullptr, 0, &n), ERROR_ACCESS_DENIED)) << "no TOKEN_QUERY";
    EXPECT_TRUE(api.CloseHandle(h));
    EXPECT_TRUE(refused(api.CloseHandle(h), ERROR_INVALID_HANDLE));
    EXPECT_TRUE(api.CloseHandle(api.GetCurrentThread()));

    alignas(4) BYTE sid[16] = {1, 2, 0, 0, 0, 0, 0, 22, 1, 0, 0, 0, 0xE8, 0x03, 0, 0};
    EXPECT_TRUE(api.IsValidSid(sid) && *api.GetSidSubAuthority(sid, 1) == 1000u);
    EXPECT_EQ(api.GetSidSubAuthority(sid, 2), nullptr);
    EXPECT_EQ(PortLastError(), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(api.GetSidIdentifierAuthority(nullptr), nullptr);
    EXPECT_EQ(PortLastError(), DWORD{ERROR_INVALID_SID});
    sid[1] = 16;
    EXPECT_FALSE(api.IsValidSid(sid) || api.IsValidSid(nullptr));
}

// The user of the calling thread's token (none: empty) or of the process's.
std::vector<uint32_t> UserOf(LinuxTokenApi& api, bool i_bThread) {
    HANDLE h = nullptr;
    if (i_bThread ? !api.OpenThreadToken(api.GetCurrentThread(), kAll, TRUE, &h)
                  : !api.OpenProcessToken(api.GetCurrentProcess(), kAll, &h))
        return {};
    const std::vector<uint32_t> ids = Ids(api, h, TokenUser);
    EXPECT_TRUE(api.CloseHandle(h));
    return ids;
}

// On a thread of its own: what the kernel and the token queries see while impersonating, and after.
struct Seen {
    ostrel_test::ThreadIdentity kernel;
    std::vector<uint32_t> tokenUser, processUser;
    bool bRestored = false;
};
Seen ImpersonateOnAThread(LinuxTokenApi& api, const std::vector<HANDLE>& i_tokens) {
    Seen seen;
    std::thread([&] {
        const ostrel_test::ThreadIdentity before = ostrel_test::CurrentThreadIdentity();
        for (HANDLE h : i_tokens) EXPECT_TRUE(api.ImpersonateLoggedOnUser(h));
        seen.kernel = ostrel_test::CurrentThreadIdentity();
        seen.tokenUser = UserOf(api, true);
        seen.processUser = UserOf(api, false);
        EXPECT_TRUE(api.RevertToSelf());
        const ostrel_test::ThreadIdentity after = ostrel_test::CurrentThreadIdentity();
        HANDLE h = nullptr;
        seen.bRestored = after.euid == before.euid && after.ruid == before.ruid && after.suid == before.suid &&
                         after.egid == before.egid && after.groups == before.groups &&
                         !api.OpenThreadToken(api.GetCurrentThread(), kAll, TRUE, &h) && PortLastError() == ERROR_NO_TOKEN;
    }).join();
    return seen;
}

TEST(LinuxTokens, ImpersonationSwitchesOnlyTheCallingThreadOrOnlyIdentifies) {
    LinuxTokenApi identify(ImpersonationMode::IdentificationOnly), automatic;
    EXPECT_FALSE(identify.SwitchesKernelCredentials());
    HANDLE hNobody = MakeToken(automatic, kNobody, kNobody, {kNobody});
    HANDLE hDaemon = MakeToken(automatic, 1, 1, {1, 4});
    const Seen identified = ImpersonateOnAThread(identify, {hNobody});
    EXPECT_EQ(identified.kernel.euid, geteuid()) << "identification never reaches the kernel";
    EXPECT_EQ(identified.tokenUser, std::vector<uint32_t>{kNobody});
    EXPECT_TRUE(identified.bRestored);
    if (geteuid() != 0) GTEST_SKIP() << "switching users needs root";
    const Seen switched = ImpersonateOnAThread(automatic, {hNobody, hDaemon});  // the second replaces the first
    EXPECT_EQ(std::tuple(switched.kernel.euid, switched.kernel.egid, switched.kernel.groups),
              std::tuple(1u, 1u, std::vector<gid_t>{1, 4}));
    EXPECT_EQ(switched.tokenUser, std::vector<uint32_t>{1});
    EXPECT_EQ(switched.processUser, std::vector<uint32_t>{0});
    EXPECT_TRUE(switched.bRestored);
    EXPECT_EQ(geteuid(), 0u) << "only the calling thread changed";
    EXPECT_TRUE(automatic.CloseHandle(hNobody) && automatic.CloseHandle(hDaemon));
}

// The gtest main thread is the process's main thread: /proc shows its identity, and threads inherit it.
TEST(LinuxTokens, TheMainThreadImpersonatingLeavesTheProcessTokenAlone) {
    if (geteuid() != 0 || syscall(SYS_gettid) != getpid()) GTEST_SKIP() << "needs root, on the main thread";
    LinuxTokenApi api;
    HANDLE hNobody = MakeToken(api, kNobody, kNobody, {kNobody});
    ASSERT_TRUE(api.ImpersonateLoggedOnUser(hNobody));
    std::vector<uint32_t> childUser, processUser;
    std::thread([&] {  // unlike on Windows, a thread started now runs as nobody, and so has a token
        childUser = UserOf(api, true);
        processUser = UserOf(api, false);
    }).join();
    EXPECT_TRUE(api.RevertToSelf());
    EXPECT_EQ(geteuid(), 0u);
    EXPECT_EQ(childUser, std::vector<uint32_t>{kNobody});
    EXPECT_EQ(processUser, std::vector<uint32_t>{0});
    EXPECT_TRUE(api.CloseHandle(hNobody));
}

// The rows of the result table a realm does not produce on demand: a broken clock, an expired ticket, an altered reply.
TEST(KerberosResults, ClockTicketTimeAndAlteredReplies) {
    using namespace ostrel::platform::linuxport;
    using ostrel::platform::OM_uint32;
    const OM_uint32 nFailure = 13u << 16;  // GSS_S_FAILURE: the minor code tells what went wrong
    EXPECT_EQ(LogonResult(nFailure, krb5err::kSkew), SEC_E_TIME_SKEW);
    EXPECT_EQ(InitiateResult(nFailure, krb5err::kSkew), SEC_E_TIME_SKEW);
    for (OM_uint32 nMinor : {krb5err::kTicketExpired, krb5err::kTicketNotYetValid, krb5err::kSkew}) {
        EXPECT_EQ(AcceptResult(nFailure, nMinor), SEC_E_LOGON_DENIED) << nMinor;
    }
    for (OM_uint32 nMinor : {krb5err::kBadIntegrity, krb5err::kModified}) {
        EXPECT_EQ(InitiateResult(nFailure, nMinor), SEC_E_INVALID_TOKEN) << nMinor;
    }
}

}  // namespace

#endif  // !_WIN32
