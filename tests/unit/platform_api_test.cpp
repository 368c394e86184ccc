// The platform families through their process-wide accessors, as the logic sees them: against the Linux ports
// and against Windows itself.
#include <gtest/gtest.h>

#include <cstdint>
#include <thread>
#include <vector>

#include "support/FailingTokenApi.h"

namespace {

using ostrel::platform::System;
using ostrel::platform::Tokens;

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

}  // namespace
