// Strings with value semantics over shared, reference-counted buffers.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <type_traits>

#include "ostrel/ostrel.h"

namespace Tarvik500 {

// 16-bit text helpers: the platform's wchar_t is not 16 bits everywhere.
size_t WideLength(const ostrel_char* i_pText);
// malloc-based duplicate of 16-bit text; NULL when memory runs out.
ostrel_char* WideDup(const ostrel_char* i_pText);

template <class CharT>
struct SStringBuffer {
    std::atomic<int> m_nRefs;
    size_t m_nChars;
    CharT m_chars[1];  // followed by the rest of the characters and the terminator
};

template <class CharT, int Kind>
class SString_t;

template <class CharT, int Kind>
class SString_t {
public:
    using SChar_t = CharT;
    using Buffer = SStringBuffer<CharT>;

    // A position in the characters; at the end it reads as the terminator.
    class iterator {
    public:
        iterator(const SString_t* i_pOwner, size_t i_nPos) : m_pOwner(i_pOwner), m_nPos(i_nPos) {}
        CharT operator*() const { return m_pOwner->c_str()[m_nPos]; }
        iterator& operator++() {
            if (m_nPos < m_pOwner->getNChars()) {
                ++m_nPos;
            }
            return *this;
        }
        size_t position() const { return m_nPos; }
        iterator find(const SString_t& i_ssWhat) const { return m_pOwner->findFrom(i_ssWhat, m_nPos); }
        bool operator==(const iterator& i_other) const { return m_nPos == i_other.m_nPos; }

    private:
        const SString_t* m_pOwner;
        size_t m_nPos;
    };

    SString_t() noexcept : m_pBuffer(EmptyBuffer()) {}
    SString_t(const CharT* i_pText) : m_pBuffer(EmptyBuffer()) { assign(i_pText, Length(i_pText)); }
    SString_t(const CharT* i_pText, size_t i_nChars) : m_pBuffer(EmptyBuffer()) { assign(i_pText, i_nChars); }
    SString_t(const SString_t& i_other) noexcept : m_pBuffer(i_other.m_pBuffer) { setBuffer(m_pBuffer); }
    SString_t(SString_t&& i_other) noexcept : m_pBuffer(i_other.m_pBuffer) { i_other.m_pBuffer = EmptyBuffer(); }
    ~SString_t() { releaseBuffer(m_pBuffer); }

    SString_t& operator=(const SString_t& i_other) noexcept {
        Buffer* pOld = m_pBuffer;
        setBuffer(i_other.m_pBuffer);
        m_pBuffer = i_other.m_pBuffer;
        releaseBuffer(pOld);
        return *this;
    }
    SString_t& operator=(SString_t&& i_other) noexcept {
        if (this != &i_other) {
            releaseBuffer(m_pBuffer);
            m_pBuffer = i_other.m_pBuffer;
            i_other.m_pBuffer = EmptyBuffer();
        }
        return *this;
    }
    SString_t& operator=(const CharT* i_pText) {
        assign(i_pText, Length(i_pText));
        return *this;
    }

    SString_t& operator+=(const SString_t& i_other) { return append(i_other.c_str(), i_other.getNChars()); }
    SString_t& operator+=(const CharT* i_pText) { return append(i_pText, Length(i_pText)); }
    SString_t& operator+=(CharT i_char) { return append(&i_char, 1); }
    SString_t operator+(const SString_t& i_other) const {
        SString_t result(*this);
        result += i_other;
        return result;
    }

    bool operator==(const SString_t& i_other) const {
        return m_pBuffer == i_other.m_pBuffer || compareFast(i_other) == 0;
    }
    bool operator==(const CharT* i_pText) const {
        const size_t n = Length(i_pText);
        return n == getNChars() && Compare(c_str(), i_pText, n) == 0;
    }
    bool operator!=(const SString_t& i_other) const { return !(*this == i_other); }

    // Lexicographic by code unit: a strict total order, equal exactly when operator== is.
    int compareFast(const SString_t& i_other) const {
        const size_t a = getNChars();
        const size_t b = i_other.getNChars();
        const int nCommon = Compare(c_str(), i_other.c_str(), a < b ? a : b);
        if (nCommon != 0 || a == b) {
            return nCommon;
        }
        return a < b ? -1 : 1;
    }

    bool isEmpty() const noexcept { return m_pBuffer->m_nChars == 0; }
    uint64_t getNChars() const noexcept { return m_pBuffer->m_nChars; }
    const CharT* c_str() const noexcept { return m_pBuffer->m_chars; }
    operator const CharT*() const noexcept { return c_str(); }

    iterator begin() const { return iterator(this, 0); }
    iterator end() const { return iterator(this, getNChars()); }
    iterator findFirst(CharT i_char) const {
        for (size_t i = 0; i < getNChars(); ++i) {
            if (c_str()[i] == i_char) {
                return iterator(this, i);
            }
        }
        return end();
    }
    iterator find(const SString_t& i_ssWhat) const { return findFrom(i_ssWhat, 0); }
    iterator findFrom(const SString_t& i_ssWhat, size_t i_nStart) const {
        const size_t n = getNChars();
        const size_t m = i_ssWhat.getNChars();
        if (m == 0) {
            return iterator(this, i_nStart <= n ? i_nStart : n);
        }
        for (size_t i = i_nStart; i + m <= n; ++i) {
            if (Compare(c_str() + i, i_ssWhat.c_str(), m) == 0) {
                return iterator(this, i);
            }
        }
        return end();
    }
    SString_t left(const iterator& i_pos) const { return SString_t(c_str(), i_pos.position()); }
    SString_t right(const iterator& i_pos) const {
        return SString_t(c_str() + i_pos.position(), getNChars() - i_pos.position());
    }

    void trimRight() {
        size_t n = getNChars();
        while (n > 0 && IsSpace(c_str()[n - 1])) {
            --n;
        }
        if (n != getNChars()) {
            assign(c_str(), n);
        }
    }

    // Replaces the contents, converting between the widths where they differ.
    bool copyFrom(const ostrel_char* i_pText);
    bool copyFrom(const char* i_pText);

    static size_t Length(const CharT* i_pText) {
        size_t n = 0;
        if (i_pText != nullptr) {
            while (i_pText[n] != 0) {
                ++n;
            }
        }
        return n;
    }

protected:
    static Buffer* EmptyBuffer() noexcept {
        // Never released: its count only has to stay above zero.
        static Buffer s_empty{{1 << 30}, 0, {0}};
        return &s_empty;
    }
    static bool IsEmptyBuffer(const Buffer* i_pBuffer) noexcept { return i_pBuffer == EmptyBuffer(); }
    static void setBuffer(Buffer* i_pBuffer) noexcept {
        if (!IsEmptyBuffer(i_pBuffer)) {
            i_pBuffer->m_nRefs.fetch_add(1, std::memory_order_relaxed);
        }
    }
    static void releaseBuffer(Buffer* i_pBuffer) noexcept {
        if (!IsEmptyBuffer(i_pBuffer) && i_pBuffer->m_nRefs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            i_pBuffer->~Buffer();
            ::operator delete(static_cast<void*>(i_pBuffer));
        }
    }
    static Buffer* NewBuffer(size_t i_nChars) {
        void* pMemory = ::operator new(sizeof(Buffer) + i_nChars * sizeof(CharT));
        Buffer* pBuffer = new (pMemory) Buffer{{1}, i_nChars, {0}};
        pBuffer->m_chars[i_nChars] = 0;
        return pBuffer;
    }
    static int Compare(const CharT* a, const CharT* b, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            if (a[i] != b[i]) {
                return static_cast<uint32_t>(a[i]) < static_cast<uint32_t>(b[i]) ? -1 : 1;
            }
        }
        return 0;
    }
    static bool IsSpace(CharT c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

    // A fresh buffer on every change keeps earlier copies as they were.
    void assign(const CharT* i_pText, size_t i_nChars) {
        if (i_nChars == 0) {
            releaseBuffer(m_pBuffer);
            m_pBuffer = EmptyBuffer();
            return;
        }
        Buffer* pNew = NewBuffer(i_nChars);
        std::memcpy(pNew->m_chars, i_pText, i_nChars * sizeof(CharT));
        releaseBuffer(m_pBuffer);
        m_pBuffer = pNew;
    }
    SString_t& append(const CharT* i_pText, size_t i_nChars) {
        if (i_nChars == 0) {
            return *this;
        }
        const size_t nOld = getNChars();
        Buffer* pNew = NewBuffer(nOld + i_nChars);
        std::memcpy(pNew->m_chars, c_str(), nOld * sizeof(CharT));
        std::memcpy(pNew->m_chars + nOld, i_pText, i_nChars * sizeof(CharT));
        releaseBuffer(m_pBuffer);
        m_pBuffer = pNew;
        return *this;
    }

    Buffer* m_pBuffer;
};

using SWCharStringBase = SString_t<ostrel_char, 1>;
using SAnsiString = SString_t<char, 0>;

// The UTF-8 bytes of one code point, each handed to i_put in order.
template <class Put>
void EncodeUtf8(uint32_t i_nCode, Put&& i_put) {
    if (i_nCode < 0x80) {
        i_put(static_cast<char>(i_nCode));
        return;
    }
    const int nExtra = i_nCode < 0x800 ? 1 : i_nCode < 0x10000 ? 2 : 3;
    static constexpr unsigned char s_lead[4] = {0, 0xC0, 0xE0, 0xF0};
    i_put(static_cast<char>(s_lead[nExtra] | (i_nCode >> (6 * nExtra))));
    for (int i = nExtra - 1; i >= 0; --i) {
        i_put(static_cast<char>(0x80 | ((i_nCode >> (6 * i)) & 0x3F)));
    }
}

// Narrow text is UTF-8 throughout; the conversions live in SString.cpp.
template <>
bool SString_t<ostrel_char, 1>::copyFrom(const ostrel_char* i_pText);
template <>
bool SString_t<ostrel_char, 1>::copyFrom(const char* i_pText);
template <>
bool SString_t<char, 0>::copyFrom(const ostrel_char* i_pText);
template <>
bool SString_t<char, 0>::copyFrom(const char* i_pText);

class SWCharString : public SWCharStringBase {
public:
    using SWCharStringBase::SWCharStringBase;
    using SWCharStringBase::operator=;
    SWCharString() noexcept = default;
    SWCharString(const SWCharStringBase& i_other) : SWCharStringBase(i_other) {}
    SWCharString operator+(const SWCharString& i_other) const {
        SWCharString result(*this);
        result += i_other;
        return result;
    }
    SWCharString left(const iterator& i_pos) const { return SWCharStringBase::left(i_pos); }
    SWCharString right(const iterator& i_pos) const { return SWCharStringBase::right(i_pos); }
};

SWCharString& operator<<(SWCharString& io_ss, const ostrel_char* i_pText);
SWCharString& operator<<(SWCharString& io_ss, const SWCharString& i_ss);

// Conversions that never fail outwards: an unconvertible text becomes "?".
SAnsiString ToAnsiString(const ostrel_char* i_pText);
SWCharString ToWCharString(const char* i_pText);

class SWCharStringConv {
public:
    static SWCharString ToString(int i_nValue, int i_nBase);
    static SWCharString ToString(long long i_nValue, int i_nBase);
    static SWCharString ToString(unsigned long long i_nValue, int i_nBase);
    static SWCharString ToString(long i_nValue, int i_nBase) { return ToString(static_cast<long long>(i_nValue), i_nBase); }
    static SWCharString ToString(unsigned long i_nValue, int i_nBase) {
        return ToString(static_cast<unsigned long long>(i_nValue), i_nBase);
    }
};

// Parses s into out within [-max-1, max] (signed) or [0, max]; the empty string is 0.
template <class StringT, class CharT, class T>
bool StringConvToInteger(const StringT& s, T& out, CharT separator, T max, T maxDivBase, int base, bool isSigned) {
    const CharT* p = s.c_str();
    if (*p == 0) {
        out = 0;
        return true;
    }
    bool bNegative = false;
    if (*p == '-' || *p == '+') {
        if (*p == '-') {
            if (!isSigned) {
                return false;
            }
            bNegative = true;
        }
        ++p;
    }
    if (*p == 0) {
        return false;
    }
    // Magnitudes are gathered as unsigned so that the most negative value fits;
    // the exact bound test makes maxDivBase a hint the callers pass for form's sake.
    (void)maxDivBase;
    using U = std::make_unsigned_t<T>;
    const U uLimit = bNegative ? static_cast<U>(max) + 1 : static_cast<U>(max);
    const U uBase = static_cast<U>(base);
    U value = 0;
    for (; *p != 0; ++p) {
        if (separator != 0 && *p == separator) {
            continue;
        }
        int digit;
        if (*p >= '0' && *p <= '9') {
            digit = static_cast<int>(*p - '0');
        } else if (*p >= 'a' && *p <= 'z') {
            digit = static_cast<int>(*p - 'a') + 10;
        } else if (*p >= 'A' && *p <= 'Z') {
            digit = static_cast<int>(*p - 'A') + 10;
        } else {
            return false;
        }
        if (digit >= base || value > (uLimit - static_cast<U>(digit)) / uBase) {
            return false;
        }
        value = value * uBase + static_cast<U>(digit);
    }
    out = bNegative ? static_cast<T>(U(0) - value) : static_cast<T>(value);
    return true;
}

// The calls the logic makes, with the bounds fixed once.
bool ToInt32(const SWCharString& i_ss, int& o_nValue);
bool ToInt64(const SWCharString& i_ss, int64_t& o_nValue);
bool ToUInt64(const SWCharString& i_ss, uint64_t& o_nValue);

}  // namespace Tarvik500
