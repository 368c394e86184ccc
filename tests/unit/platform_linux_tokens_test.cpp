// The Linux port of tokens and identifiers: SID layout, access rules, the
// handle table, and impersonation as the kernel sees it.
#if !defined(_WIN32)

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/linux/LinuxSystemApi.h"
#include "platform/linux/LinuxTokenApi.h"

namespace {

using ostrel::platform::linuxport::Identity;
using ostrel::platform::linuxport::ImpersonationMode;
using ostrel::platform::linuxport::LinuxSystemApi;
using ostrel::platform::linuxport::LinuxTokenApi;
using ostrel::platform::linuxport::PortLastError;

constexpr uint32_t kNobody = 65534;
constexpr DWORD kAll = TOKEN_DUPLICATE | TOKEN_IMPERSONATE | TOKEN_QUERY;

// The kernel's view of the calling thread, read without the code under test.
struct KernelView {
    uid_t ruid = 0, euid = 0, suid = 0;
    gid_t rgid = 0, egid = 0, sgid = 0;
    std::vector<gid_t> groups;
};

KernelView ReadKernel() {
    KernelView v;
    syscall(SYS_getresuid, &v.ruid, &v.euid, &v.suid);
    syscall(SYS_getresgid, &v.rgid, &v.egid, &v.sgid);
    v.groups.resize(static_cast<size_t>(syscall(SYS_getgroups, 0L, nullptr)));
    v.groups.resize(static_cast<size_t>(syscall(SYS_getgroups, static_cast<long>(v.groups.size()), v.groups.data())));
    return v;
}

bool IsRoot() { return geteuid() == 0; }

HANDLE MakeToken(LinuxTokenApi& api, uint32_t uid, uint32_t gid, std::vector<uint32_t> groups) {
    HANDLE h = nullptr;
    EXPECT_TRUE(api.CreateToken(Identity{uid, gid, std::move(groups)}, &h));
    return h;
}

struct Sid {
    std::vector<uint8_t> authority;
    std::vector<DWORD> subs;
};

Sid ReadSid(LinuxTokenApi& api, PSID p) {
    Sid sid;
    EXPECT_TRUE(api.IsValidSid(p));
    const BYTE* pAuthority = api.GetSidIdentifierAuthority(p)->Value;
    sid.authority.assign(pAuthority, pAuthority + 6);
    for (DWORD i = 0; i < *api.GetSidSubAuthorityCount(p); ++i) {
        sid.subs.push_back(*api.GetSidSubAuthority(p, i));
    }
    return sid;
}

const std::vector<uint8_t> kUnixAuthority{0, 0, 0, 0, 0, 22};

// User and group ids in order, read through the SID accessors.
uint32_t TokenUid(LinuxTokenApi& api, HANDLE h) {
    alignas(8) BYTE buffer[256];
    DWORD n = 0;
    EXPECT_TRUE(api.GetTokenInformation(h, TokenUser, buffer, sizeof(buffer), &n));
    const Sid sid = ReadSid(api, reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid);
    EXPECT_EQ(sid.authority, kUnixAuthority);
    EXPECT_EQ(sid.subs.size(), 2u);
    EXPECT_EQ(sid.subs.at(0), 1u);
    return sid.subs.at(1);
}

std::vector<uint32_t> TokenGids(LinuxTokenApi& api, HANDLE h) {
    DWORD n = 0;
    EXPECT_FALSE(api.GetTokenInformation(h, TokenGroups, nullptr, 0, &n));
    std::vector<uint64_t> buffer(n / 8 + 1);
    EXPECT_TRUE(api.GetTokenInformation(h, TokenGroups, buffer.data(), n, &n));
    const auto* pGroups = reinterpret_cast<const TOKEN_GROUPS*>(buffer.data());
    std::vector<uint32_t> gids;
    for (DWORD i = 0; i < pGroups->GroupCount; ++i) {
        const Sid sid = ReadSid(api, pGroups->Groups[i].Sid);
        EXPECT_EQ(sid.authority, kUnixAuthority);
        EXPECT_EQ(sid.subs.at(0), 2u);
        EXPECT_EQ(pGroups->Groups[i].Attributes, SE_GROUP_MANDATORY | SE_GROUP_ENABLED_BY_DEFAULT | SE_GROUP_ENABLED);
        gids.push_back(sid.subs.at(1));
    }
    return gids;
}

// Leaves no thread impersonating whatever an assertion does.
struct RevertOnExit {
    LinuxTokenApi& api;
    ~RevertOnExit() { EXPECT_TRUE(api.RevertToSelf()); }
};

TEST(LinuxTokenTest, SidsFollowTheUnixMappingAndListThePrimaryGroupFirst) {
    LinuxTokenApi api;
    HANDLE h = MakeToken(api, 1234, 50, {7, 50, 9, 7});
    EXPECT_EQ(TokenUid(api, h), 1234u);
    EXPECT_EQ(TokenGids(api, h), (std::vector<uint32_t>{50, 7, 9}));

    // Exact sizes: entries, then one 16-byte SID per entry.
    DWORD n = 0;
    EXPECT_FALSE(api.GetTokenInformation(h, TokenUser, nullptr, 0, &n));
    EXPECT_EQ(n, sizeof(TOKEN_USER) + 16);
    EXPECT_FALSE(api.GetTokenInformation(h, TokenGroups, nullptr, 0, &n));
    EXPECT_EQ(n, offsetof(TOKEN_GROUPS, Groups) + 3 * sizeof(SID_AND_ATTRIBUTES) + 3 * 16);
    EXPECT_TRUE(api.CloseHandle(h));
}

TEST(LinuxTokenTest, ProcessTokenIsTheProcesssIdentity) {
    LinuxTokenApi api;
    HANDLE h = nullptr;
    ASSERT_TRUE(api.OpenProcessToken(api.GetCurrentProcess(), TOKEN_QUERY, &h));
    EXPECT_EQ(TokenUid(api, h), geteuid());
    std::vector<uint32_t> expected{getegid()};
    for (gid_t gid : ReadKernel().groups) {
        if (std::find(expected.begin(), expected.end(), gid) == expected.end()) {
            expected.push_back(gid);
        }
    }
    EXPECT_EQ(TokenGids(api, h), expected);
    EXPECT_TRUE(api.CloseHandle(h));
}

TEST(LinuxTokenTest, CallsRefuseWrongHandlesRightsAndArguments) {
    LinuxTokenApi api;
    HANDLE h = nullptr;
    EXPECT_FALSE(api.OpenThreadToken(api.GetCurrentProcess(), kAll, TRUE, &h));
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_FALSE(api.OpenProcessToken(api.GetCurrentThread(), kAll, &h));
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_FALSE(api.OpenProcessToken(api.GetCurrentProcess(), kAll, nullptr));
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(api.CloseHandle(api.GetCurrentThread()));
    EXPECT_FALSE(api.CloseHandle(nullptr));
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));

    // Without TOKEN_QUERY nothing may be read; a primary token needs TOKEN_DUPLICATE to be impersonated.
    ASSERT_TRUE(api.OpenProcessToken(api.GetCurrentProcess(), TOKEN_IMPERSONATE, &h));
    DWORD n = 0;
    EXPECT_FALSE(api.GetTokenInformation(h, TokenUser, nullptr, 0, &n));
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_FALSE(api.ImpersonateLoggedOnUser(h));
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_TRUE(api.CloseHandle(h));

    ASSERT_TRUE(api.OpenProcessToken(api.GetCurrentProcess(), TOKEN_QUERY, &h));
    EXPECT_FALSE(api.GetTokenInformation(h, TokenUser, nullptr, 0, nullptr));
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_FALSE(api.GetTokenInformation(h, TokenPrivileges, nullptr, 0, &n));
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_FALSE(api.GetTokenInformation(h, static_cast<TOKEN_INFORMATION_CLASS>(999), nullptr, 0, &n));
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    alignas(8) BYTE buffer[128];
    EXPECT_FALSE(api.GetTokenInformation(h, TokenUser, buffer + 1, 100, &n));
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_NOACCESS));
    EXPECT_TRUE(api.CloseHandle(h));
}

TEST(LinuxTokenTest, SidAccessorsCheckRevisionCountAndIndex) {
    LinuxTokenApi api;
    alignas(4) BYTE sid[16] = {1, 2, 0, 0, 0, 0, 0, 22, 1, 0, 0, 0, 0xE8, 0x03, 0, 0};
    EXPECT_TRUE(api.IsValidSid(sid));
    EXPECT_EQ(*api.GetSidSubAuthority(sid, 1), 1000u);
    EXPECT_EQ(api.GetSidSubAuthority(sid, 2), nullptr);
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(api.GetSidIdentifierAuthority(nullptr), nullptr);
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_INVALID_SID));
    EXPECT_FALSE(api.IsValidSid(nullptr));
    sid[0] = 2;
    EXPECT_FALSE(api.IsValidSid(sid));
    sid[0] = 1;
    sid[1] = 16;
    EXPECT_FALSE(api.IsValidSid(sid));
}

TEST(LinuxTokenTest, HandlesClosedWhileInUseAreRefusedNotFollowed) {
    LinuxTokenApi api;
    std::atomic<bool> bStop{false};
    std::atomic<int> nBadOutcomes{0};
    std::vector<std::thread> users;
    std::vector<HANDLE> shared(16);
    for (HANDLE& h : shared) {
        h = MakeToken(api, 1000, 1000, {1000, 27});
    }
    for (int t = 0; t < 3; ++t) {
        users.emplace_back([&] {
            alignas(8) BYTE buffer[256];
            while (!bStop.load()) {
                for (HANDLE h : shared) {
                    DWORD n = 0;
                    if (api.GetTokenInformation(h, TokenGroups, buffer, sizeof(buffer), &n)) {
                        nBadOutcomes += reinterpret_cast<TOKEN_GROUPS*>(buffer)->GroupCount == 2 ? 0 : 1;
                    } else if (PortLastError() != static_cast<DWORD>(ERROR_INVALID_HANDLE)) {
                        ++nBadOutcomes;
                    }
                }
            }
        });
    }
    for (HANDLE h : shared) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        EXPECT_TRUE(api.CloseHandle(h));
    }
    bStop = true;
    for (std::thread& t : users) {
        t.join();
    }
    EXPECT_EQ(nBadOutcomes.load(), 0);
}

// Every error the token port can produce has a text.
TEST(LinuxTokenTest, EveryErrorTheTokenPortRaisesHasAText) {
    LinuxTokenApi api;
    LinuxSystemApi system;
    std::set<DWORD> raised;
    auto note = [&](BOOL bResult) {
        EXPECT_FALSE(bResult);
        raised.insert(PortLastError());
    };
    HANDLE h = nullptr;
    DWORD n = 0;
    note(api.OpenThreadToken(api.GetCurrentProcess(), kAll, TRUE, &h));
    note(api.OpenProcessToken(api.GetCurrentProcess(), kAll, nullptr));
    std::thread([&] { note(api.OpenThreadToken(api.GetCurrentThread(), kAll, TRUE, &h)); }).join();
    ASSERT_TRUE(api.OpenProcessToken(api.GetCurrentProcess(), TOKEN_IMPERSONATE, &h));
    note(api.GetTokenInformation(h, TokenUser, nullptr, 0, &n));
    api.CloseHandle(h);
    ASSERT_TRUE(api.OpenProcessToken(api.GetCurrentProcess(), TOKEN_QUERY, &h));
    note(api.GetTokenInformation(h, TokenUser, nullptr, 0, &n));
    note(api.GetTokenInformation(h, TokenOwner, nullptr, 0, &n));
    alignas(8) BYTE buffer[128];
    note(api.GetTokenInformation(h, TokenUser, buffer + 4, 100, &n));
    api.CloseHandle(h);
    api.GetSidSubAuthority(nullptr, 0);
    raised.insert(PortLastError());
    // Failures of the kernel's calls map to these.
    raised.insert({ERROR_PRIVILEGE_NOT_HELD, ERROR_NOT_ENOUGH_MEMORY, ERROR_ARITHMETIC_OVERFLOW});

    EXPECT_GE(raised.size(), 10u);
    for (DWORD dwError : raised) {
        ostrel_char text[256] = {};
        EXPECT_GT(system.FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, dwError,
                                        LANG_USER_DEFAULT, text, 256, nullptr),
                  10u)
            << dwError;
    }
}

// No root needed: identification never reaches the kernel.
TEST(LinuxTokenTest, IdentificationOnlyShowsTheUserToQueriesButNotToTheKernel) {
    LinuxTokenApi api(ImpersonationMode::IdentificationOnly);
    EXPECT_FALSE(api.SwitchesKernelCredentials());
    std::thread([&] {
        const KernelView before = ReadKernel();
        HANDLE hNobody = MakeToken(api, kNobody, kNobody, {kNobody});
        {
            RevertOnExit revert{api};
            ASSERT_TRUE(api.ImpersonateLoggedOnUser(hNobody));
            const KernelView during = ReadKernel();
            EXPECT_EQ(during.euid, before.euid);
            EXPECT_EQ(during.egid, before.egid);
            EXPECT_EQ(during.groups, before.groups);

            HANDLE hThread = nullptr;
            ASSERT_TRUE(api.OpenThreadToken(api.GetCurrentThread(), kAll, TRUE, &hThread));
            EXPECT_EQ(TokenUid(api, hThread), kNobody);
            EXPECT_EQ(TokenGids(api, hThread), std::vector<uint32_t>{kNobody});
            EXPECT_TRUE(api.CloseHandle(hThread));
            // Closing the token it impersonates does not end the impersonation.
            EXPECT_TRUE(api.CloseHandle(hNobody));
            ASSERT_TRUE(api.OpenThreadToken(api.GetCurrentThread(), kAll, TRUE, &hThread));
            EXPECT_EQ(TokenUid(api, hThread), kNobody);
            EXPECT_TRUE(api.CloseHandle(hThread));
        }
        HANDLE hAfter = nullptr;
        EXPECT_FALSE(api.OpenThreadToken(api.GetCurrentThread(), kAll, TRUE, &hAfter));
        EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_NO_TOKEN));
    }).join();
}

// Lets two threads take turns.
class Baton {
public:
    void Pass(int i_nStep) {
        std::lock_guard<std::mutex> guard(m_lock);
        m_nStep = i_nStep;
        m_changed.notify_all();
    }
    void Await(int i_nStep) {
        std::unique_lock<std::mutex> lock(m_lock);
        m_changed.wait(lock, [&] { return m_nStep >= i_nStep; });
    }

private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    int m_nStep = 0;
};

uid_t OwnerOfNewFile(const std::string& i_path) {
    std::remove(i_path.c_str());
    FILE* f = std::fopen(i_path.c_str(), "w");
    if (f == nullptr) {
        return static_cast<uid_t>(-1);
    }
    std::fclose(f);
    struct stat st {};
    stat(i_path.c_str(), &st);
    std::remove(i_path.c_str());
    return st.st_uid;
}

// /tmp, since any user may create files there.
std::string TempPath(const char* i_pName) { return std::string("/tmp/") + i_pName + std::to_string(getpid()); }

TEST(LinuxTokenRootTest, ImpersonationChangesOnlyTheCallingThreadAndRevertRestoresIt) {
    if (!IsRoot()) {
        GTEST_SKIP() << "switching users needs root";
    }
    LinuxTokenApi api;
    const KernelView mainBefore = ReadKernel();
    HANDLE hNobody = MakeToken(api, kNobody, kNobody, {kNobody});
    Baton baton;
    KernelView otherDuring;
    std::thread other([&] {
        baton.Await(1);
        otherDuring = ReadKernel();
        baton.Pass(2);
    });
    std::thread impersonator([&] {
        const KernelView before = ReadKernel();
        {
            RevertOnExit revert{api};
            EXPECT_TRUE(api.SwitchesKernelCredentials());
            ASSERT_TRUE(api.ImpersonateLoggedOnUser(hNobody));
            const KernelView during = ReadKernel();
            EXPECT_EQ(during.euid, kNobody);
            EXPECT_EQ(during.egid, kNobody);
            EXPECT_EQ(during.groups, std::vector<gid_t>{kNobody});
            // Real and saved ids keep the way back open.
            EXPECT_EQ(during.ruid, before.ruid);
            EXPECT_EQ(during.suid, before.suid);
            EXPECT_EQ(OwnerOfNewFile(TempPath("ostrel-imp-")), kNobody);

            HANDLE hThread = nullptr;
            ASSERT_TRUE(api.OpenThreadToken(api.GetCurrentThread(), kAll, TRUE, &hThread));
            EXPECT_EQ(TokenUid(api, hThread), kNobody);
            EXPECT_TRUE(api.CloseHandle(hThread));
            HANDLE hProcess = nullptr;
            ASSERT_TRUE(api.OpenProcessToken(api.GetCurrentProcess(), kAll, &hProcess));
            EXPECT_EQ(TokenUid(api, hProcess), 0u);
            EXPECT_TRUE(api.CloseHandle(hProcess));

            baton.Pass(1);
            baton.Await(2);
        }
        const KernelView after = ReadKernel();
        EXPECT_EQ(after.ruid, before.ruid);
        EXPECT_EQ(after.euid, before.euid);
        EXPECT_EQ(after.suid, before.suid);
        EXPECT_EQ(after.egid, before.egid);
        EXPECT_EQ(after.groups, before.groups);
        EXPECT_EQ(OwnerOfNewFile(TempPath("ostrel-rev-")), 0u);
        HANDLE hAfter = nullptr;
        EXPECT_FALSE(api.OpenThreadToken(api.GetCurrentThread(), kAll, TRUE, &hAfter));
        EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_NO_TOKEN));
    });
    impersonator.join();
    baton.Pass(2);  // releases the other thread should the impersonation have failed
    other.join();
    EXPECT_EQ(otherDuring.euid, 0u);
    EXPECT_EQ(otherDuring.groups, mainBefore.groups);
    EXPECT_EQ(ReadKernel().euid, 0u);
    EXPECT_TRUE(api.CloseHandle(hNobody));
}

TEST(LinuxTokenRootTest, ImpersonatingAgainReplacesAndRevertGoesBackToTheStart) {
    if (!IsRoot()) {
        GTEST_SKIP() << "switching users needs root";
    }
    LinuxTokenApi api;
    HANDLE hNobody = MakeToken(api, kNobody, kNobody, {kNobody});
    HANDLE hDaemon = MakeToken(api, 1, 1, {1, 4});
    std::thread([&] {
        const KernelView before = ReadKernel();
        {
            RevertOnExit revert{api};
            ASSERT_TRUE(api.ImpersonateLoggedOnUser(hNobody));
            ASSERT_TRUE(api.ImpersonateLoggedOnUser(hDaemon));
            const KernelView during = ReadKernel();
            EXPECT_EQ(during.euid, 1u);
            EXPECT_EQ(during.egid, 1u);
            EXPECT_EQ(during.groups, (std::vector<gid_t>{1, 4}));
        }
        const KernelView after = ReadKernel();
        EXPECT_EQ(after.euid, before.euid);
        EXPECT_EQ(after.egid, before.egid);
        EXPECT_EQ(after.groups, before.groups);
    }).join();
    EXPECT_TRUE(api.CloseHandle(hNobody));
    EXPECT_TRUE(api.CloseHandle(hDaemon));
}

// The gtest main thread is the process's main thread: /proc shows its identity.
TEST(LinuxTokenRootTest, MainThreadImpersonatingDoesNotChangeTheProcesssIdentity) {
    if (!IsRoot()) {
        GTEST_SKIP() << "switching users needs root";
    }
    if (syscall(SYS_gettid) != getpid()) {
        GTEST_SKIP() << "needs to run on the main thread";
    }
    LinuxTokenApi api;
    HANDLE hNobody = MakeToken(api, kNobody, kNobody, {kNobody});
    Baton baton;
    // Started before the impersonation: Linux threads inherit their creator's credentials.
    std::thread observer([&] {
        baton.Await(1);
        HANDLE h = nullptr;
        EXPECT_FALSE(api.OpenThreadToken(api.GetCurrentThread(), kAll, TRUE, &h));
        EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_NO_TOKEN));
        EXPECT_TRUE(api.OpenProcessToken(api.GetCurrentProcess(), kAll, &h));
        if (h != nullptr) {
            EXPECT_EQ(TokenUid(api, h), 0u);
            EXPECT_TRUE(api.CloseHandle(h));
        }
    });
    {
        RevertOnExit revert{api};
        const bool bImpersonating = api.ImpersonateLoggedOnUser(hNobody) != FALSE;
        baton.Pass(1);
        observer.join();
        ASSERT_TRUE(bImpersonating);
        ASSERT_EQ(ReadKernel().euid, kNobody);

        // Unlike on Windows, a thread started now runs as nobody, and so has a token.
        std::thread([&] {
            EXPECT_EQ(ReadKernel().euid, kNobody);
            HANDLE h = nullptr;
            EXPECT_TRUE(api.OpenThreadToken(api.GetCurrentThread(), kAll, TRUE, &h));
            if (h != nullptr) {
                EXPECT_EQ(TokenUid(api, h), kNobody);
                EXPECT_TRUE(api.CloseHandle(h));
            }
        }).join();
    }
    EXPECT_EQ(ReadKernel().euid, 0u);
    EXPECT_TRUE(api.CloseHandle(hNobody));
}

// A thread that changed its own credentials, not through this layer, has a token.
TEST(LinuxTokenRootTest, ThreadWithItsOwnCredentialsHasAThreadToken) {
    if (!IsRoot()) {
        GTEST_SKIP() << "switching users needs root";
    }
    LinuxTokenApi api;
    std::thread([&] {
        const gid_t groups[] = {kNobody};
        ASSERT_EQ(syscall(SYS_setgroups, 1L, groups), 0);
        ASSERT_EQ(syscall(SYS_setresgid, -1L, static_cast<long>(kNobody), -1L), 0);
        ASSERT_EQ(syscall(SYS_setresuid, -1L, static_cast<long>(kNobody), -1L), 0);
        HANDLE h = nullptr;
        EXPECT_TRUE(api.OpenThreadToken(api.GetCurrentThread(), kAll, TRUE, &h));
        if (h != nullptr) {
            EXPECT_EQ(TokenUid(api, h), kNobody);
            EXPECT_EQ(TokenGids(api, h), std::vector<uint32_t>{kNobody});
            EXPECT_TRUE(api.CloseHandle(h));
        }
        // The thread ends here; its credentials end with it.
    }).join();
    EXPECT_EQ(ReadKernel().euid, 0u);
}

// A thread that has given up root falls back to identification on its own.
TEST(LinuxTokenRootTest, ThreadWithoutTheCapabilityIsIdentifiedOnly) {
    if (!IsRoot()) {
        GTEST_SKIP() << "needs root to give it up";
    }
    LinuxTokenApi api;
    HANDLE hDaemon = MakeToken(api, 1, 1, {1});
    std::thread([&] {
        const gid_t groups[] = {kNobody};
        ASSERT_EQ(syscall(SYS_setgroups, 1L, groups), 0);
        ASSERT_EQ(
            syscall(SYS_setresgid, static_cast<long>(kNobody), static_cast<long>(kNobody), static_cast<long>(kNobody)),
            0);
        // All three uids non-zero: the kernel drops every capability.
        ASSERT_EQ(
            syscall(SYS_setresuid, static_cast<long>(kNobody), static_cast<long>(kNobody), static_cast<long>(kNobody)),
            0);
        EXPECT_FALSE(api.SwitchesKernelCredentials());
        RevertOnExit revert{api};
        ASSERT_TRUE(api.ImpersonateLoggedOnUser(hDaemon));
        EXPECT_EQ(ReadKernel().euid, kNobody);
        HANDLE h = nullptr;
        ASSERT_TRUE(api.OpenThreadToken(api.GetCurrentThread(), kAll, TRUE, &h));
        EXPECT_EQ(TokenUid(api, h), 1u);
        EXPECT_TRUE(api.CloseHandle(h));
    }).join();
    EXPECT_TRUE(api.CloseHandle(hDaemon));
}

}  // namespace

#endif  // !_WIN32
