// The platform families through their process-wide accessors, as the logic
// sees them. Runs against the Linux ports and against Windows itself.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "ostrel_platform/ISystemApi.h"
#include "ostrel_platform/ITokenApi.h"

namespace {

using ostrel::platform::ISystemApi;
using ostrel::platform::ITokenApi;
using ostrel::platform::ScopedSystemApiOverride;
using ostrel::platform::ScopedTokenApiOverride;
using ostrel::platform::System;
using ostrel::platform::Tokens;
using ::testing::_;
using ::testing::Return;

// The error constants are long literals; the API speaks DWORD.
constexpr DWORD kSuccess = ERROR_SUCCESS;
constexpr DWORD kInvalidHandle = ERROR_INVALID_HANDLE;
constexpr DWORD kInsufficientBuffer = ERROR_INSUFFICIENT_BUFFER;
constexpr DWORD kNoToken = ERROR_NO_TOKEN;
constexpr DWORD kInvalidParameter = ERROR_INVALID_PARAMETER;
constexpr DWORD kMessageNotFound = ERROR_MR_MID_NOT_FOUND;
constexpr DWORD kQueryAccess = TOKEN_DUPLICATE | TOKEN_IMPERSONATE | TOKEN_QUERY;

class MockTokenApi : public ITokenApi {
public:
    MOCK_METHOD(HANDLE, GetCurrentThread, (), (override));
    MOCK_METHOD(HANDLE, GetCurrentProcess, (), (override));
    MOCK_METHOD(BOOL, OpenThreadToken, (HANDLE, DWORD, BOOL, PHANDLE), (override));
    MOCK_METHOD(BOOL, OpenProcessToken, (HANDLE, DWORD, PHANDLE), (override));
    MOCK_METHOD(BOOL, ImpersonateLoggedOnUser, (HANDLE), (override));
    MOCK_METHOD(BOOL, RevertToSelf, (), (override));
    MOCK_METHOD(BOOL, GetTokenInformation, (HANDLE, TOKEN_INFORMATION_CLASS, LPVOID, DWORD, PDWORD), (override));
    MOCK_METHOD(BOOL, IsValidSid, (PSID), (override));
    MOCK_METHOD(PSID_IDENTIFIER_AUTHORITY, GetSidIdentifierAuthority, (PSID), (override));
    MOCK_METHOD(PUCHAR, GetSidSubAuthorityCount, (PSID), (override));
    MOCK_METHOD(PDWORD, GetSidSubAuthority, (PSID, DWORD), (override));
    MOCK_METHOD(BOOL, CloseHandle, (HANDLE), (override));
};

class MockSystemApi : public ISystemApi {
public:
    MOCK_METHOD(DWORD, GetLastError, (), (override));
    MOCK_METHOD(void, SetLastError, (DWORD), (override));
    MOCK_METHOD(DWORD, FormatMessageW, (DWORD, LPCVOID, DWORD, DWORD, LPWSTR, DWORD, va_list*), (override));
    MOCK_METHOD(HLOCAL, LocalFree, (HLOCAL), (override));
    MOCK_METHOD(BOOL, FileTimeToSystemTime, (const FILETIME*, LPSYSTEMTIME), (override));
    MOCK_METHOD(int, WSAStartup, (WORD, LPWSADATA), (override));
};

TEST(PlatformOverrideTest, TokenFakesNestAndRestoreTheLiveImplementation) {
    ITokenApi* pLive = &Tokens();
    {
        MockTokenApi outer;
        ScopedTokenApiOverride outerScope(outer);
        EXPECT_EQ(&Tokens(), &outer);
        {
            MockTokenApi inner;
            ScopedTokenApiOverride innerScope(inner);
            EXPECT_CALL(inner, OpenThreadToken(_, 14, TRUE, _)).WillOnce(Return(FALSE));
            HANDLE h = nullptr;
            EXPECT_FALSE(Tokens().OpenThreadToken(nullptr, 14, TRUE, &h));
        }
        EXPECT_EQ(&Tokens(), &outer);
    }
    EXPECT_EQ(&Tokens(), pLive);
}

TEST(PlatformOverrideTest, SystemFakeSeenByOtherThreadsAndRestored) {
    ISystemApi* pLive = &System();
    {
        MockSystemApi fake;
        ScopedSystemApiOverride scope(fake);
        EXPECT_CALL(fake, GetLastError()).WillOnce(Return(4242u));
        DWORD dwSeen = 0;
        std::thread([&] { dwSeen = System().GetLastError(); }).join();
        EXPECT_EQ(dwSeen, 4242u);
    }
    EXPECT_EQ(&System(), pLive);
}

TEST(PlatformSystemTest, LastErrorBelongsToEachThread) {
    std::atomic<int> nStep{0};
    DWORD dwAtStart = 99;
    DWORD dwAfterOwnSet = 0;
    std::thread other([&] {
        while (nStep.load() != 1) {
        }
        dwAtStart = System().GetLastError();
        System().SetLastError(2222);
        dwAfterOwnSet = System().GetLastError();
        nStep = 2;
    });
    // Between the set and the read no other system call runs here: on Windows
    // starting and joining threads succeed by resetting the last error.
    System().SetLastError(1111);
    nStep = 1;
    while (nStep.load() != 2) {
    }
    const DWORD dwOwn = System().GetLastError();
    other.join();
    EXPECT_EQ(dwOwn, 1111u);
    EXPECT_EQ(dwAtStart, kSuccess);
    EXPECT_EQ(dwAfterOwnSet, 2222u);
}

SYSTEMTIME Convert(uint64_t i_nTicks) {
    FILETIME ft{static_cast<DWORD>(i_nTicks & 0xFFFFFFFFu), static_cast<DWORD>(i_nTicks >> 32)};
    SYSTEMTIME st{};
    EXPECT_TRUE(System().FileTimeToSystemTime(&ft, &st)) << i_nTicks;
    return st;
}

void ExpectTime(const SYSTEMTIME& st, int y, int mo, int dow, int d, int h, int mi, int s, int ms) {
    EXPECT_EQ(st.wYear, y);
    EXPECT_EQ(st.wMonth, mo);
    EXPECT_EQ(st.wDayOfWeek, dow);
    EXPECT_EQ(st.wDay, d);
    EXPECT_EQ(st.wHour, h);
    EXPECT_EQ(st.wMinute, mi);
    EXPECT_EQ(st.wSecond, s);
    EXPECT_EQ(st.wMilliseconds, ms);
}

constexpr uint64_t kUnixEpochTicks = 116444736000000000ull;
uint64_t TicksOfUnix(uint64_t i_nSeconds, uint64_t i_nMilliseconds) {
    return kUnixEpochTicks + (i_nSeconds * 1000 + i_nMilliseconds) * 10000;
}

TEST(PlatformSystemTest, FileTimeToSystemTimeCountsFrom1601) {
    ExpectTime(Convert(0), 1601, 1, 1, 1, 0, 0, 0, 0);                // a Monday
    ExpectTime(Convert(9999), 1601, 1, 1, 1, 0, 0, 0, 0);             // below a millisecond
    ExpectTime(Convert(kUnixEpochTicks), 1970, 1, 4, 1, 0, 0, 0, 0);  // a Thursday
    ExpectTime(Convert(TicksOfUnix(951827696, 789)), 2000, 2, 2, 29, 12, 34, 56, 789);
    ExpectTime(Convert(TicksOfUnix(4107542399, 999)), 2100, 2, 0, 28, 23, 59, 59, 999);
    ExpectTime(Convert(TicksOfUnix(4107542400, 0)), 2100, 3, 1, 1, 0, 0, 0, 0);  // no 29th in 2100
    ExpectTime(Convert(0x7FFFFFFFFFFFFFFFull), 30828, 9, 4, 14, 2, 48, 5, 477);
}

TEST(PlatformSystemTest, FileTimeToSystemTimeRefusesTheTopBit) {
    FILETIME ft{0, 0x80000000u};
    SYSTEMTIME st{};
    System().SetLastError(0);
    EXPECT_FALSE(System().FileTimeToSystemTime(&ft, &st));
    EXPECT_EQ(System().GetLastError(), kInvalidParameter);
}

TEST(PlatformSystemTest, FormatMessageAllocatesTextForKnownErrorsOnly) {
    LPWSTR pText = nullptr;
    const DWORD nChars = System().FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
        ERROR_NO_TOKEN, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<LPWSTR>(&pText), 0, nullptr);
    ASSERT_GT(nChars, 0u);
    ASSERT_NE(pText, nullptr);
    EXPECT_EQ(pText[nChars], 0);
    EXPECT_EQ(System().LocalFree(pText), nullptr);

    LPWSTR pNone = nullptr;
    EXPECT_EQ(System().FormatMessageW(
                  FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                  0x2FFFFFFFu, 1024, reinterpret_cast<LPWSTR>(&pNone), 0, nullptr),
              0u);
    EXPECT_EQ(System().GetLastError(), kMessageNotFound);
    EXPECT_EQ(pNone, nullptr);
}

TEST(PlatformTokenTest, ThreadWithoutImpersonationHasNoToken) {
    HANDLE hToken = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x1234));
    BOOL bOpened = TRUE;
    DWORD dwError = 0;
    std::thread([&] {
        bOpened = Tokens().OpenThreadToken(Tokens().GetCurrentThread(), kQueryAccess, TRUE, &hToken);
        dwError = System().GetLastError();
    }).join();
    EXPECT_FALSE(bOpened);
    EXPECT_EQ(dwError, kNoToken);
    EXPECT_EQ(hToken, nullptr);
}

// Token information as the two-call protocol delivers it.
struct TokenInfo {
    std::vector<uint64_t> m_storage;  // 8-byte aligned, as malloc's would be
    DWORD m_dwSize = 0;
    const unsigned char* Bytes() const { return reinterpret_cast<const unsigned char*>(m_storage.data()); }
};

TokenInfo QueryToken(HANDLE i_hToken, TOKEN_INFORMATION_CLASS i_eClass) {
    TokenInfo info;
    DWORD dwNeeded = 0;
    System().SetLastError(0);
    EXPECT_FALSE(Tokens().GetTokenInformation(i_hToken, i_eClass, nullptr, 0, &dwNeeded));
    EXPECT_EQ(System().GetLastError(), kInsufficientBuffer);
    EXPECT_GT(dwNeeded, 0u);
    info.m_storage.resize(dwNeeded / 8 + 1);
    DWORD dwShort = 0;
    EXPECT_FALSE(Tokens().GetTokenInformation(i_hToken, i_eClass, info.m_storage.data(), dwNeeded - 1, &dwShort));
    EXPECT_EQ(System().GetLastError(), kInsufficientBuffer);
    EXPECT_EQ(dwShort, dwNeeded);
    EXPECT_TRUE(Tokens().GetTokenInformation(i_hToken, i_eClass, info.m_storage.data(), dwNeeded, &info.m_dwSize));
    EXPECT_LE(info.m_dwSize, dwNeeded);
    return info;
}

void ExpectSidInside(PSID i_pSid, const TokenInfo& i_info) {
    const auto* p = static_cast<const unsigned char*>(i_pSid);
    const unsigned char* pEnd = i_info.Bytes() + i_info.m_dwSize;
    ASSERT_TRUE(p >= i_info.Bytes() && p + 8 <= pEnd);
    ASSERT_TRUE(Tokens().IsValidSid(i_pSid));
    const UCHAR nCount = *Tokens().GetSidSubAuthorityCount(i_pSid);
    ASSERT_GE(nCount, 1);
    EXPECT_LE(p + 8 + 4 * nCount, pEnd);
    EXPECT_EQ(reinterpret_cast<const unsigned char*>(Tokens().GetSidIdentifierAuthority(i_pSid)), p + 2);
    EXPECT_EQ(reinterpret_cast<const unsigned char*>(Tokens().GetSidSubAuthority(i_pSid, nCount - 1)),
              p + 8 + 4 * (nCount - 1));
}

TEST(PlatformTokenTest, ProcessTokenAnswersUserAndGroupsInTwoCalls) {
    HANDLE hToken = nullptr;
    ASSERT_TRUE(Tokens().OpenProcessToken(Tokens().GetCurrentProcess(), kQueryAccess, &hToken));

    const TokenInfo user = QueryToken(hToken, TokenUser);
    ExpectSidInside(reinterpret_cast<const TOKEN_USER*>(user.Bytes())->User.Sid, user);

    const TokenInfo groups = QueryToken(hToken, TokenGroups);
    const auto* pGroups = reinterpret_cast<const TOKEN_GROUPS*>(groups.Bytes());
    ASSERT_GE(pGroups->GroupCount, 1u);
    for (DWORD i = 0; i < pGroups->GroupCount; ++i) {
        ExpectSidInside(pGroups->Groups[i].Sid, groups);
    }
    EXPECT_TRUE(Tokens().CloseHandle(hToken));
}

TEST(PlatformTokenTest, ClosedAndMadeUpHandlesAreRefused) {
    HANDLE hToken = nullptr;
    ASSERT_TRUE(Tokens().OpenProcessToken(Tokens().GetCurrentProcess(), kQueryAccess, &hToken));
    ASSERT_TRUE(Tokens().CloseHandle(hToken));

    DWORD dwNeeded = 0;
    EXPECT_FALSE(Tokens().GetTokenInformation(hToken, TokenUser, nullptr, 0, &dwNeeded));
    EXPECT_EQ(System().GetLastError(), kInvalidHandle);
    EXPECT_FALSE(Tokens().CloseHandle(hToken));
    EXPECT_EQ(System().GetLastError(), kInvalidHandle);
    EXPECT_FALSE(Tokens().ImpersonateLoggedOnUser(hToken));
    EXPECT_EQ(System().GetLastError(), kInvalidHandle);

    HANDLE hMadeUp = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7ff0));
    EXPECT_FALSE(Tokens().GetTokenInformation(hMadeUp, TokenGroups, nullptr, 0, &dwNeeded));
    EXPECT_EQ(System().GetLastError(), kInvalidHandle);
}

// The thread token provider's path: no token, impersonate the process, a token, revert.
TEST(PlatformTokenTest, ImpersonatingTheProcessTokenGivesTheThreadAToken) {
    std::thread([] {
        HANDLE hProcess = nullptr;
        ASSERT_TRUE(Tokens().OpenProcessToken(Tokens().GetCurrentProcess(), kQueryAccess, &hProcess));
        ASSERT_TRUE(Tokens().ImpersonateLoggedOnUser(hProcess));

        HANDLE hThread = nullptr;
        EXPECT_TRUE(Tokens().OpenThreadToken(Tokens().GetCurrentThread(), kQueryAccess, TRUE, &hThread));
        if (hThread != nullptr) {
            std::vector<uint64_t> a(512), b(512);
            DWORD n = 0;
            ASSERT_TRUE(Tokens().GetTokenInformation(hThread, TokenUser, a.data(), 4096, &n));
            ASSERT_TRUE(Tokens().GetTokenInformation(hProcess, TokenUser, b.data(), 4096, &n));
            PSID pThreadSid = reinterpret_cast<TOKEN_USER*>(a.data())->User.Sid;
            PSID pProcessSid = reinterpret_cast<TOKEN_USER*>(b.data())->User.Sid;
            const UCHAR nCount = *Tokens().GetSidSubAuthorityCount(pThreadSid);
            ASSERT_EQ(nCount, *Tokens().GetSidSubAuthorityCount(pProcessSid));
            EXPECT_EQ(std::memcmp(pThreadSid, pProcessSid, 8 + 4 * nCount), 0);
            EXPECT_TRUE(Tokens().CloseHandle(hThread));
        }

        EXPECT_TRUE(Tokens().RevertToSelf());
        EXPECT_TRUE(Tokens().RevertToSelf());  // reverting twice is harmless
        EXPECT_FALSE(Tokens().OpenThreadToken(Tokens().GetCurrentThread(), kQueryAccess, TRUE, &hThread));
        EXPECT_EQ(System().GetLastError(), kNoToken);
        EXPECT_TRUE(Tokens().CloseHandle(hProcess));
    }).join();
}

}  // namespace
