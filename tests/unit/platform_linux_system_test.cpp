// The Linux port of the system services: message texts and the memory they come in.
#if !defined(_WIN32)

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "platform/linux/LinuxSystemApi.h"

namespace {

using ostrel::platform::linuxport::LinuxSystemApi;
using ostrel::platform::linuxport::PortLastError;

constexpr DWORD kUsualFlags =
    FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;

std::string Narrow(const ostrel_char* p) {
    std::string s;
    for (; *p != 0; ++p) {
        s += *p < 0x80 ? static_cast<char>(*p) : '?';
    }
    return s;
}

// The text as the logic asks for it; empty when there is none.
std::string TextOf(LinuxSystemApi& api, DWORD dwError, DWORD dwLanguage = 1024) {
    LPWSTR p = nullptr;
    const DWORD n =
        api.FormatMessageW(kUsualFlags, nullptr, dwError, dwLanguage, reinterpret_cast<LPWSTR>(&p), 0, nullptr);
    if (n == 0) {
        EXPECT_EQ(p, nullptr);
        return std::string();
    }
    std::string text = Narrow(p);
    EXPECT_EQ(text.size(), n);
    EXPECT_EQ(api.LocalFree(p), nullptr);
    return text;
}

TEST(LinuxSystemTest, EachErrorNumberHasItsOwnReadableSentence) {
    LinuxSystemApi api;
    const DWORD codes[] = {ERROR_SUCCESS,
                           ERROR_ACCESS_DENIED,
                           ERROR_INVALID_HANDLE,
                           ERROR_NOT_ENOUGH_MEMORY,
                           ERROR_NOT_SUPPORTED,
                           ERROR_INVALID_PARAMETER,
                           ERROR_INSUFFICIENT_BUFFER,
                           ERROR_MR_MID_NOT_FOUND,
                           ERROR_ARITHMETIC_OVERFLOW,
                           ERROR_NOACCESS,
                           ERROR_NO_TOKEN,
                           ERROR_PRIVILEGE_NOT_HELD,
                           ERROR_INVALID_SID,
                           ERROR_BAD_IMPERSONATION_LEVEL,
                           ERROR_RESOURCE_LANG_NOT_FOUND};
    std::set<std::string> seen;
    for (DWORD code : codes) {
        const std::string text = TextOf(api, code);
        ASSERT_GT(text.size(), 10u) << code;
        EXPECT_EQ(text.back(), '.') << code;
        // One line: trace and error records carry it verbatim.
        EXPECT_EQ(text.find_first_of("\r\n?%"), std::string::npos) << code;
        EXPECT_TRUE(seen.insert(text).second) << "same text twice: " << text;
    }
    // Each text belongs to its own number.
    EXPECT_NE(TextOf(api, ERROR_NO_TOKEN).find("token"), std::string::npos);
    EXPECT_NE(TextOf(api, ERROR_INVALID_HANDLE).find("handle"), std::string::npos);
    EXPECT_NE(TextOf(api, ERROR_ACCESS_DENIED).find("denied"), std::string::npos);
    EXPECT_NE(TextOf(api, ERROR_INSUFFICIENT_BUFFER).find("too small"), std::string::npos);
    EXPECT_NE(TextOf(api, ERROR_PRIVILEGE_NOT_HELD).find("privilege"), std::string::npos);
}

TEST(LinuxSystemTest, UnknownNumbersAndOtherLanguagesHaveNoText) {
    LinuxSystemApi api;
    EXPECT_EQ(TextOf(api, 0x80090308u), "");  // a security package's code
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_MR_MID_NOT_FOUND));
    EXPECT_EQ(TextOf(api, 4000), "");
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_MR_MID_NOT_FOUND));

    EXPECT_EQ(TextOf(api, ERROR_NO_TOKEN, MAKELANGID(0x07, 0x01)), "");  // German
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_RESOURCE_LANG_NOT_FOUND));
    const std::string neutral = TextOf(api, ERROR_NO_TOKEN, 0);
    EXPECT_EQ(TextOf(api, ERROR_NO_TOKEN, MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US)), neutral);
    EXPECT_EQ(TextOf(api, ERROR_NO_TOKEN, LANG_SYSTEM_DEFAULT), neutral);
}

TEST(LinuxSystemTest, CallersBufferMustHoldTextAndTerminator) {
    LinuxSystemApi api;
    const std::string expected = TextOf(api, ERROR_INVALID_HANDLE);
    const DWORD nFit = static_cast<DWORD>(expected.size() + 1);
    std::u16string buffer(nFit + 4, u'#');
    const DWORD flags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;

    EXPECT_EQ(api.FormatMessageW(flags, nullptr, ERROR_INVALID_HANDLE, 0, buffer.data(), nFit - 1, nullptr), 0u);
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(api.FormatMessageW(flags, nullptr, ERROR_INVALID_HANDLE, 0, buffer.data(), nFit, nullptr), nFit - 1);
    EXPECT_EQ(Narrow(buffer.c_str()), expected);
    EXPECT_EQ(buffer[nFit], u'#');

    EXPECT_EQ(api.FormatMessageW(FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, ERROR_INVALID_HANDLE, 0, buffer.data(), nFit,
                                 nullptr),
              0u);
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(api.FormatMessageW(flags, nullptr, ERROR_INVALID_HANDLE, 0, nullptr, nFit, nullptr), 0u);
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST(LinuxSystemTest, LocalFreeTakesBackOnlyWhatItGaveAndOnlyOnce) {
    LinuxSystemApi api;
    LPWSTR p = nullptr;
    ASSERT_GT(api.FormatMessageW(kUsualFlags, nullptr, ERROR_NO_TOKEN, 0, reinterpret_cast<LPWSTR>(&p), 0, nullptr),
              0u);
    EXPECT_EQ(api.LocalFree(p), nullptr);
    EXPECT_EQ(api.LocalFree(p), p);
    EXPECT_EQ(PortLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    int notOurs = 0;
    EXPECT_EQ(api.LocalFree(&notOurs), &notOurs);
    EXPECT_EQ(api.LocalFree(nullptr), nullptr);

    // nSize asks for at least that many characters.
    ASSERT_GT(api.FormatMessageW(kUsualFlags, nullptr, ERROR_SUCCESS, 0, reinterpret_cast<LPWSTR>(&p), 500, nullptr),
              0u);
    p[499] = u'x';  // inside the allocation: the address sanitizer would object otherwise
    EXPECT_EQ(api.LocalFree(p), nullptr);
}

}  // namespace

#endif  // !_WIN32
