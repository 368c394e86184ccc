// Shared-library binding, dates, the message store, stored secrets and code sets.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "foundation/Codeset.h"
#include "foundation/DateTime.h"
#include "foundation/ResManager.h"
#include "foundation/Scrambler.h"
#include "foundation/SharedLibrary.h"

using namespace Tarvik500;

namespace {

#if defined(_WIN32)
constexpr char kLibraryExtension[] = ".dll";
#else
constexpr char kLibraryExtension[] = ".so";
#endif

SWCharString Wide(const std::string& i_text) { return ToWCharString(i_text.c_str()); }

std::string TestLibraryPath() {
    return std::string(OSTREL_TEST_LIBRARY_DIR) + "/ostrel_test_library" + kLibraryExtension;
}

TEST(FoundationSharedLibrary, LoadsAndCallsASymbol) {
    CSharedLibrary library;
    EXPECT_FALSE(library.IsLoaded());
    library.LoadLibraryW(Wide(TestLibraryPath()), CSharedLibrary::LM_NOW_LOCAL, true);
    ASSERT_TRUE(library.IsLoaded());
    using AnswerFn = int (*)();
    auto pAnswer = reinterpret_cast<AnswerFn>(library.GetFunction("ostrel_test_answer", true));
    ASSERT_NE(pAnswer, nullptr);
    EXPECT_EQ(pAnswer(), 42);

    try {
        library.GetFunction("ostrel_no_such_symbol", true);
        ADD_FAILURE() << "a missing symbol was found";
    } catch (const CSharedLibraryException& e) {
        EXPECT_NE(std::string(e.text()).find("ostrel_no_such_symbol"), std::string::npos) << e.text();
    }
    EXPECT_EQ(library.GetFunction("ostrel_no_such_symbol", false), nullptr);

    library.FreeLibrary();
    EXPECT_FALSE(library.IsLoaded());
    EXPECT_THROW(library.GetFunction("ostrel_test_answer", true), CSharedLibraryException);
}

TEST(FoundationSharedLibrary, AMissingLibraryIsNamedInTheError) {
    CSharedLibrary library;
    try {
        library.LoadLibraryW(Wide("ostrel_no_such_library"), CSharedLibrary::LM_NOW_LOCAL, true);
        ADD_FAILURE() << "a missing library was loaded";
    } catch (const CSharedLibraryException& e) {
        EXPECT_NE(std::string(e.text()).find("ostrel_no_such_library"), std::string::npos) << e.text();
    }
    EXPECT_FALSE(library.IsLoaded());
}

TEST(FoundationDateTime, OrderAndSpans) {
    const SDateTime epochPlusOne(1970, 1, 1, 0, 0, 1, 0, STimeZone::TZ_UTC());
    EXPECT_EQ(epochPlusOne.GetTimeT(STimeZone::TZ_UTC()), 1);
    const SDateTime leapDay(2000, 2, 29, 12, 0, 0, 500, STimeZone::TZ_UTC());
    EXPECT_EQ(leapDay.GetTimeT(STimeZone::TZ_Local()), 951825600);
    EXPECT_EQ(leapDay.GetMilliseconds(), INT64_C(951825600500));

    const SDateTime later = leapDay + STimeSpan(90061001);
    EXPECT_TRUE(later > leapDay);
    EXPECT_TRUE(leapDay < later);
    EXPECT_EQ((later - leapDay).GetMilliseconds(), 90061001);
    EXPECT_EQ((leapDay - later).GetMilliseconds(), -90061001);
    EXPECT_TRUE(later == SDateTime(2000, 3, 1, 13, 1, 1, 501, STimeZone::TZ_UTC()));

    // Seconds round down, also before 1970.
    EXPECT_EQ(SDateTime::FromMilliseconds(-1).GetTimeT(STimeZone::TZ_UTC()), -1);

    const auto before = static_cast<int64_t>(std::time(nullptr));
    const int64_t now = SDateTime::GetCurrentDateTime().GetTimeT(STimeZone::TZ_Local());
    EXPECT_GE(now, before);
    EXPECT_LE(now, before + 5);
}

TEST(FoundationDateTime, LocalFieldsRoundTrip) {
    const SDateTime built(2024, 3, 15, 13, 45, 30, 250, STimeZone::TZ_Local());
    const SDate date = built.GetDate();
    const STime time = built.GetTime();
    EXPECT_EQ(date.m_nYear, 2024);
    EXPECT_EQ(date.m_nMonth, 3);
    EXPECT_EQ(date.m_nDay, 15);
    EXPECT_EQ(time.m_nHour, 13);
    EXPECT_EQ(time.m_nMinute, 45);
    EXPECT_EQ(time.m_nSecond, 30);
    EXPECT_EQ(time.m_nMillisecond, 250);

    SDateTime moved = built;
    moved.SetDate(SDate{2024, 3, 16});
    EXPECT_EQ((moved - built).GetMilliseconds(), INT64_C(86400000));
    EXPECT_EQ(moved.GetTime().m_nHour, 13);
    moved.SetTime(STime{14, 45, 30, 250});
    EXPECT_EQ((moved - built).GetMilliseconds(), INT64_C(90000000));
}

#if !defined(_WIN32)
TEST(FoundationDateTime, LocalMeansTheMachineZone) {
    const char* pOld = std::getenv("TZ");
    const std::string old = pOld != nullptr ? pOld : "";
    setenv("TZ", "XST5", 1);  // five hours behind UTC, no summer time
    tzset();
    const SDateTime local(2024, 1, 1, 0, 0, 0, 0, STimeZone::TZ_Local());
    const SDateTime utc(2024, 1, 1, 5, 0, 0, 0, STimeZone::TZ_UTC());
    const bool bSame = local == utc;
    const unsigned hour = utc.GetTime().m_nHour;
    if (pOld != nullptr) {
        setenv("TZ", old.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
    EXPECT_TRUE(bSame);
    EXPECT_EQ(hour, 0u);
}
#endif

TEST(FoundationMessages, EveryRaisedIdHasAText) {
    EXPECT_TRUE(SResManager::Initialize());
    const unsigned long plain[] = {42254, 42256, 42502, 47300, 47702, 49442, 49443, 49444, 49446, 49447, 49448,
                                   49449, 50046, 50054, 61748, 61749, 61773, 61774, 61775, 61776, 61869};
    const unsigned long substituted[] = {42038, 50047, 61777, 61778};
    auto has = [](const SWCharString& s, const char* what) {
        return std::string(ToAnsiString(s.c_str()).c_str()).find(what) != std::string::npos;
    };
    for (unsigned long id : plain) {
        const SWCharString text = SResManager::LoadStringW(id, 0);
        EXPECT_FALSE(text.isEmpty()) << id;
        EXPECT_FALSE(has(text, "%")) << id;
    }
    for (unsigned long id : substituted) {
        const SWCharString text = SResManager::LoadStringW(id, 0);
        EXPECT_TRUE(has(text, "%1")) << id;
        EXPECT_FALSE(has(text, "%2")) << id;
    }
    EXPECT_TRUE(SResManager::LoadStringW(0, 0).isEmpty());
    EXPECT_TRUE(SResManager::LoadStringW(42255, 0).isEmpty());
    EXPECT_TRUE(SResManager::LoadStringW(99999, 0).isEmpty());
    EXPECT_TRUE(SResManager::Terminate());
}

// The stored form built from its written description, not from the code.
std::string DocumentedStoredForm(const std::array<unsigned char, 8>& i_salt, const std::string& i_plain) {
    uint64_t seed = UINT64_C(0xcbf29ce484222325);
    for (unsigned char c : std::string("ostrel stored secret v1")) {
        seed = (seed ^ c) * UINT64_C(0x100000001b3);
    }
    for (unsigned char c : i_salt) {
        seed = (seed ^ c) * UINT64_C(0x100000001b3);
    }
    uint32_t check = 0x811c9dc5u;
    for (unsigned char c : i_salt) {
        check = (check ^ c) * 0x01000193u;
    }
    std::string payload;
    for (size_t i = 0; i < i_plain.size(); ++i) {
        uint64_t z = seed + (i / 8 + 1) * UINT64_C(0x9E3779B97F4A7C15);
        z = (z ^ (z >> 30)) * UINT64_C(0xBF58476D1CE4E5B9);
        z = (z ^ (z >> 27)) * UINT64_C(0x94D049BB133111EB);
        z ^= z >> 31;
        const auto c = static_cast<unsigned char>(i_plain[i]);
        payload += static_cast<char>(c ^ static_cast<unsigned char>(z >> (8 * (i % 8))));
        check = (check ^ c) * 0x01000193u;
    }
    auto hex = [](const std::string& bytes) {
        std::string out;
        for (unsigned char c : bytes) {
            out += "0123456789abcdef"[c >> 4];
            out += "0123456789abcdef"[c & 15];
        }
        return out;
    };
    char checkHex[9];
    std::snprintf(checkHex, sizeof(checkHex), "%08x", check);
    return "OSS1:" + hex(std::string(i_salt.begin(), i_salt.end())) + ":" + hex(payload) + ":" + checkHex;
}

TEST(FoundationScrambler, RoundTripsWithAFreshSaltEachTime) {
    const ostrel_char secretText[] = {'s', 'e', 'c', 'r', 0x00E9, 't', ' ', 0xD834, 0xDD1E, 0};
    const SWCharString secret(secretText);
    SWCharString first;
    SWCharString second;
    ASSERT_TRUE(SScrambler::EncryptPasswordDB(secret, first));
    ASSERT_TRUE(SScrambler::EncryptPasswordDB(secret, second));
    EXPECT_FALSE(first == second);
    EXPECT_EQ(std::string(ToAnsiString(first.c_str()).c_str()).rfind("OSS1:", 0), 0u);

    SWCharString plain;
    ASSERT_TRUE(SScrambler::DecryptPasswordDB(first, plain));
    EXPECT_TRUE(plain == secret);
    ASSERT_TRUE(SScrambler::DecryptPasswordDB(second, plain));
    EXPECT_TRUE(plain == secret);

    SWCharString stored;
    ASSERT_TRUE(SScrambler::EncryptPasswordDB(SWCharString(), stored));
    plain = OSTREL_T("not yet");
    ASSERT_TRUE(SScrambler::DecryptPasswordDB(stored, plain));
    EXPECT_TRUE(plain.isEmpty());

    const ostrel_char unpaired[] = {'a', 0xD800, 0};
    EXPECT_FALSE(SScrambler::EncryptPasswordDB(SWCharString(unpaired), stored));
}

TEST(FoundationScrambler, MatchesItsWrittenDescription) {
    const std::array<unsigned char, 8> salt = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef};
    SWCharString plain;
    ASSERT_TRUE(SScrambler::DecryptPasswordDB(Wide(DocumentedStoredForm(salt, "a longer shared secret")), plain));
    EXPECT_TRUE(plain == OSTREL_T("a longer shared secret"));
}

TEST(FoundationScrambler, MalformedFormsFailAndLeaveTheOutputAlone) {
    const std::array<unsigned char, 8> salt = {9, 8, 7, 6, 5, 4, 3, 2};
    const std::string good = DocumentedStoredForm(salt, "pass");
    std::string badChecksum = good;
    badChecksum.back() = badChecksum.back() == '0' ? '1' : '0';
    std::string tampered = good;
    tampered[5 + 16 + 1] = tampered[5 + 16 + 1] == 'a' ? 'b' : 'a';
    std::string upper = good;
    for (char& c : upper) {
        c = (c >= 'a' && c <= 'f') ? static_cast<char>(c - 'a' + 'A') : c;
    }

    const std::string malformed[] = {
        "",
        "OSS1:",
        "OSS2" + good.substr(4),
        "oss1" + good.substr(4),
        good.substr(0, good.size() - 1),
        good + "0",
        good.substr(0, 10) + "g" + good.substr(11),
        good.substr(0, 5) + good.substr(7),
        "OSS1:0102030405060708:abc:00000000",
        badChecksum,
        tampered,
        good + ":00",
        DocumentedStoredForm(salt, "\xC3\x28"),
        DocumentedStoredForm(salt, std::string("a\0b", 3)),
    };
    for (const std::string& stored : malformed) {
        SWCharString plain(OSTREL_T("untouched"));
        EXPECT_FALSE(SScrambler::DecryptPasswordDB(Wide(stored), plain)) << stored;
        EXPECT_TRUE(plain == OSTREL_T("untouched")) << stored;
    }

    SWCharString plain;
    EXPECT_TRUE(SScrambler::DecryptPasswordDB(Wide(upper), plain));
    EXPECT_TRUE(plain == OSTREL_T("pass"));
    const ostrel_char wideDigit[] = {'O', 'S', 'S', '1', ':', 0x0660, 0};
    EXPECT_FALSE(SScrambler::DecryptPasswordDB(SWCharString(wideDigit), plain));
}

TEST(FoundationCodeset, Utf8BothWays) {
    const ostrel_char text[] = {'G', 'r', 0x00FC, 0x00DF, 'e', ' ', 0xD834, 0xDD1E, 0};
    const SSimpleBuffer bytes = MBCSCodesetConverter::TToExplicitCodeset(SWCharString(text), ECS_UTF8);
    const char expected[] =
        "Gr\xC3\xBC\xC3\x9F"
        "e \xF0\x9D\x84\x9E";
    EXPECT_EQ(bytes.size(), sizeof(expected) - 1);
    EXPECT_STREQ(bytes.data(), expected);
    const SSimpleBuffer copy = bytes;
    EXPECT_EQ(copy.data(), bytes.data());

    EXPECT_TRUE(MBCSCodesetConverter::ExplicitCodesetToT(bytes.data(), ECS_UTF8) == text);
    EXPECT_TRUE(MBCSCodesetConverter::ExplicitCodesetToT(nullptr, ECS_UTF8).isEmpty());
    EXPECT_TRUE(MBCSCodesetConverter::ExplicitCodesetToT("\xFF", ECS_UTF8) == OSTREL_T("?"));

    const ostrel_char unpaired[] = {'x', 0xDC00, 0};
    EXPECT_STREQ(MBCSCodesetConverter::TToExplicitCodeset(SWCharString(unpaired), ECS_UTF8).data(), "?");
    const SSimpleBuffer empty = MBCSCodesetConverter::TToExplicitCodeset(SWCharString(), ECS_UTF8);
    EXPECT_EQ(empty.size(), 0u);
    EXPECT_STREQ(empty.data(), "");
}

}  // namespace
