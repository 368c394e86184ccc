// The platform families through their process-wide accessors, as the logic sees them: against the Linux ports
// and against Windows itself.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "support/FailingTokenApi.h"

namespace {

using ostrel::platform::System;
using ostrel::platform::Tokens;
constexpr DWORD kQuery = TOKEN_DUPLICATE | TOKEN_IMPERSONATE | TOKEN_QUERY;

TEST(Platform, OverridesNestAreSeenEverywhereAndRestoreTheLiveOne) {
    ostrel::platform::ITokenApi* pLive = &Tokens();
    {
        ostrel_test::FailingTokenApi outer;
        ostrel::platform::ScopedTokenApiOverride outerScope(outer);
        {
            ostrel_test::FailingTokenApi inner;
            ostrel::platform::ScopedTokenApiOverride innerScope(inner);
            ostrel::platform::ITokenApi* pSeen = nullptr;
            std::thread([&] { pSeen = &Tokens(); }).join();
            EXPECT_EQ(pSeen, &inner);
        }
        EXPECT_EQ(&Tokens(), &outer);
    }
    EXPECT_EQ(&Tokens(), pLive);
}

TEST(Platform, FileTimesCountFrom1601) {
    const uint64_t kUnix = 116444736000000000ull;
    auto unix = [&](uint64_t s, uint64_t ms) { return kUnix + (s * 1000 + ms) * 10000; };
    const struct {
        uint64_t ticks;
        std::vector<int> fields;  // year, month, day of week, day, hour, minute, second, millisecond
    } rows[] = {
        {0, {1601, 1, 1, 1, 0, 0, 0, 0}},  // a Monday
        {9999, {1601, 1, 1, 1, 0, 0, 0, 0}},
        {kUnix, {1970, 1, 4, 1, 0, 0, 0, 0}},
        {unix(951827696, 789), {2000, 2, 2, 29, 12, 34, 56, 789}},
        {unix(4107542399, 999), {2100, 2, 0, 28, 23, 59, 59, 999}},
        {unix(4107542400, 0), {2100, 3, 1, 1, 0, 0, 0, 0}},  // no 29th in 2100
        {0x7FFFFFFFFFFFFFFFull, {30828, 9, 4, 14, 2, 48, 5, 477}},
    };
    for (const auto& row : rows) {
        FILETIME ft{static_cast<DWORD>(row.ticks & 0xFFFFFFFFu), static_cast<DWORD>(row.ticks >> 32)};
        SYSTEMTIME st{};
        EXPECT_TRUE(System().FileTimeToSystemTime(&ft, &st));
        EXPECT_EQ((std::vector<int>{st.wYear, st.wMonth, st.wDayOfWeek, st.wDay, st.wHour, st.wMinute, st.wSecond,
                                    st.wMilliseconds}),
                  row.fields)
            << row.ticks;
    }
    FILETIME top{0, 0x80000000u};
    SYSTEMTIME st{};
    EXPECT_FALSE(System().FileTimeToSystemTime(&top, &st));
    EXPECT_EQ(System().GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
}

// Token information as the two-call protocol delivers it; every SID inside the buffer.
std::vector<PSID> QuerySids(HANDLE i_hToken, TOKEN_INFORMATION_CLASS i_eClass, std::vector<uint64_t>& o_storage) {
    DWORD dwNeeded = 0, dwShort = 0, dwSize = 0;
    EXPECT_FALSE(Tokens().GetTokenInformation(i_hToken, i_eClass, nullptr, 0, &dwNeeded));
    EXPECT_EQ(System().GetLastError(), DWORD{ERROR_INSUFFICIENT_BUFFER});
    o_storage.assign(dwNeeded / 8 + 1, 0);
    EXPECT_FALSE(Tokens().GetTokenInformation(i_hToken, i_eClass, o_storage.data(), dwNeeded - 1, &dwShort));
    EXPECT_EQ(dwShort, dwNeeded);
    EXPECT_TRUE(Tokens().GetTokenInformation(i_hToken, i_eClass, o_storage.data(), dwNeeded, &dwSize));
    std::vector<PSID> sids;
    if (i_eClass == TokenUser) {
        sids.push_back(reinterpret_cast<TOKEN_USER*>(o_storage.data())->User.Sid);
    } else {
        const auto* pGroups = reinterpret_cast<const TOKEN_GROUPS*>(o_storage.data());
        for (DWORD i = 0; i < pGroups->GroupCount; ++i) {
            sids.push_back(pGroups->Groups[i].Sid);
        }
    }
    const auto* pBegin = reinterpret_cast<const unsigned char*>(o_storage.data());
    for (PSID pSid : sids) {
        const auto* p = static_cast<const unsigned char*>(pSid);
        EXPECT_TRUE(Tokens().IsValidSid(pSid));
        const UCHAR nCount = *Tokens().GetSidSubAuthorityCount(pSid);
        EXPECT_TRUE(p >= pBegin && nCount >= 1 && p + 8 + 4 * nCount <= pBegin + dwSize);
        EXPECT_EQ(reinterpret_cast<const unsigned char*>(Tokens().GetSidIdentifierAuthority(pSid)), p + 2);
        EXPECT_EQ(reinterpret_cast<const unsigned char*>(Tokens().GetSidSubAuthority(pSid, nCount - 1)), p + 4 + 4 * nCount);
    }
    return sids;
}

TEST(Platform, TokensOfTheProcessAndOfAThreadThatImpersonatesIt) {
    std::thread([] {
        HANDLE hThread = reinterpret_cast<HANDLE>(uintptr_t{0x1234});
        EXPECT_FALSE(Tokens().OpenThreadToken(Tokens().GetCurrentThread(), kQuery, TRUE, &hThread));
        EXPECT_EQ(System().GetLastError(), DWORD{ERROR_NO_TOKEN});
        EXPECT_EQ(hThread, nullptr);

        HANDLE hProcess = nullptr;
        ASSERT_TRUE(Tokens().OpenProcessToken(Tokens().GetCurrentProcess(), kQuery, &hProcess));
        std::vector<uint64_t> user, groups, threadUser;
        const PSID pUser = QuerySids(hProcess, TokenUser, user).at(0);
        EXPECT_GE(QuerySids(hProcess, TokenGroups, groups).size(), 1u);
        ASSERT_TRUE(Tokens().ImpersonateLoggedOnUser(hProcess));
        ASSERT_TRUE(Tokens().OpenThreadToken(Tokens().GetCurrentThread(), kQuery, TRUE, &hThread));
        const PSID pThreadUser = QuerySids(hThread, TokenUser, threadUser).at(0);
        EXPECT_EQ(std::memcmp(pThreadUser, pUser, 8 + 4 * *Tokens().GetSidSubAuthorityCount(pUser)), 0);
        EXPECT_TRUE(Tokens().CloseHandle(hThread));
        EXPECT_TRUE(Tokens().RevertToSelf() && Tokens().RevertToSelf()) << "reverting twice is harmless";
        EXPECT_FALSE(Tokens().OpenThreadToken(Tokens().GetCurrentThread(), kQuery, TRUE, &hThread));

        // Closed and made-up handles are refused.
        ASSERT_TRUE(Tokens().CloseHandle(hProcess));
        DWORD n = 0;
        for (HANDLE h : {hProcess, reinterpret_cast<HANDLE>(uintptr_t{0x7ff0})}) {
            EXPECT_FALSE(Tokens().GetTokenInformation(h, TokenUser, nullptr, 0, &n));
            EXPECT_EQ(System().GetLastError(), DWORD{ERROR_INVALID_HANDLE});
        }
        EXPECT_FALSE(Tokens().CloseHandle(hProcess) || Tokens().ImpersonateLoggedOnUser(hProcess));
        EXPECT_EQ(System().GetLastError(), DWORD{ERROR_INVALID_HANDLE});
    }).join();
}

}  // namespace
