#include "SString.h"

#include <cstdlib>
#include <string>

namespace Tarvik500 {

size_t WideLength(const ostrel_char* i_pText) { return SWCharStringBase::Length(i_pText); }

ostrel_char* WideDup(const ostrel_char* i_pText) {
    const size_t n = WideLength(i_pText);
    auto* pCopy = static_cast<ostrel_char*>(std::malloc((n + 1) * sizeof(ostrel_char)));
    if (pCopy != nullptr) {
        if (n > 0) {
            std::memcpy(pCopy, i_pText, n * sizeof(ostrel_char));
        }
        pCopy[n] = 0;
    }
    return pCopy;
}

namespace {

bool Utf8ToUtf16(const char* i_pText, std::u16string& o_out) {
    const auto* p = reinterpret_cast<const unsigned char*>(i_pText);
    while (*p != 0) {
        uint32_t cp;
        int extra;
        if (*p < 0x80) {
            cp = *p;
            extra = 0;
        } else if ((*p & 0xE0) == 0xC0) {
            cp = *p & 0x1F;
            extra = 1;
        } else if ((*p & 0xF0) == 0xE0) {
            cp = *p & 0x0F;
            extra = 2;
        } else if ((*p & 0xF8) == 0xF0) {
            cp = *p & 0x07;
            extra = 3;
        } else {
            return false;
        }
        ++p;
        for (int i = 0; i < extra; ++i, ++p) {
            if ((*p & 0xC0) != 0x80) {
                return false;
            }
            cp = (cp << 6) | (*p & 0x3F);
        }
        // Overlong forms, surrogates and values past U+10FFFF are not text.
        static const uint32_t s_minimum[4] = {0, 0x80, 0x800, 0x10000};
        if (cp < s_minimum[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            return false;
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            o_out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            o_out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            o_out.push_back(static_cast<char16_t>(cp));
        }
    }
    return true;
}

bool Utf16ToUtf8(const ostrel_char* i_pText, std::string& o_out) {
    for (const ostrel_char* p = i_pText; *p != 0; ++p) {
        uint32_t cp = static_cast<uint16_t>(*p);
        if (cp >= 0xD800 && cp <= 0xDBFF) {
            const uint32_t low = static_cast<uint16_t>(p[1]);
            if (low < 0xDC00 || low > 0xDFFF) {
                return false;
            }
            cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
            ++p;
        } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
            return false;
        }
        EncodeUtf8(cp, [&](char c) { o_out.push_back(c); });
    }
    return true;
}

}  // namespace

template <>
bool SString_t<ostrel_char, 1>::copyFrom(const ostrel_char* i_pText) {
    assign(i_pText, Length(i_pText));
    return true;
}

template <>
bool SString_t<ostrel_char, 1>::copyFrom(const char* i_pText) {
    std::u16string converted;
    if (i_pText != nullptr && !Utf8ToUtf16(i_pText, converted)) {
        return false;
    }
    assign(reinterpret_cast<const ostrel_char*>(converted.data()), converted.size());
    return true;
}

template <>
bool SString_t<char, 0>::copyFrom(const ostrel_char* i_pText) {
    std::string converted;
    if (i_pText != nullptr && !Utf16ToUtf8(i_pText, converted)) {
        return false;
    }
    assign(converted.data(), converted.size());
    return true;
}

template <>
bool SString_t<char, 0>::copyFrom(const char* i_pText) {
    assign(i_pText, Length(i_pText));
    return true;
}

SWCharString& operator<<(SWCharString& io_ss, const ostrel_char* i_pText) {
    io_ss += i_pText;
    return io_ss;
}

SWCharString& operator<<(SWCharString& io_ss, const SWCharString& i_ss) {
    io_ss += i_ss;
    return io_ss;
}

SAnsiString ToAnsiString(const ostrel_char* i_pText) {
    SAnsiString result;
    if (!result.copyFrom(i_pText)) {
        return SAnsiString("?");
    }
    return result;
}

SWCharString ToWCharString(const char* i_pText) {
    SWCharString result;
    if (!result.copyFrom(i_pText)) {
        return SWCharString(OSTREL_T("?"));
    }
    return result;
}

namespace {

SWCharString DigitsOf(unsigned long long i_nMagnitude, bool i_bNegative, int i_nBase) {
    if (i_nBase < 2 || i_nBase > 36) {
        i_nBase = 10;
    }
    ostrel_char digits[72];
    size_t n = sizeof(digits) / sizeof(digits[0]);
    digits[--n] = 0;
    do {
        const auto d = static_cast<int>(i_nMagnitude % static_cast<unsigned>(i_nBase));
        digits[--n] = static_cast<ostrel_char>(d < 10 ? '0' + d : 'a' + d - 10);
        i_nMagnitude /= static_cast<unsigned>(i_nBase);
    } while (i_nMagnitude != 0);
    if (i_bNegative) {
        digits[--n] = '-';
    }
    return SWCharString(digits + n);
}

}  // namespace

SWCharString SWCharStringConv::ToString(int i_nValue, int i_nBase) {
    return ToString(static_cast<long long>(i_nValue), i_nBase);
}

SWCharString SWCharStringConv::ToString(long long i_nValue, int i_nBase) {
    const bool bNegative = i_nValue < 0;
    const unsigned long long magnitude =
        bNegative ? 0ULL - static_cast<unsigned long long>(i_nValue) : static_cast<unsigned long long>(i_nValue);
    return DigitsOf(magnitude, bNegative, i_nBase);
}

SWCharString SWCharStringConv::ToString(unsigned long long i_nValue, int i_nBase) {
    return DigitsOf(i_nValue, false, i_nBase);
}

bool ToInt32(const SWCharString& i_ss, int& o_nValue) {
    return StringConvToInteger<SWCharString, ostrel_char, int>(i_ss, o_nValue, 0, 2147483647, 214748364, 10, true);
}

bool ToInt64(const SWCharString& i_ss, int64_t& o_nValue) {
    return StringConvToInteger<SWCharString, ostrel_char, int64_t>(i_ss, o_nValue, 0, INT64_C(9223372036854775807),
                                                                  INT64_C(922337203685477580), 10, true);
}

bool ToUInt64(const SWCharString& i_ss, uint64_t& o_nValue) {
    return StringConvToInteger<SWCharString, ostrel_char, uint64_t>(
        i_ss, o_nValue, 0, UINT64_C(18446744073709551615), UINT64_C(1844674407370955161), 10, false);
}

}  // namespace Tarvik500
