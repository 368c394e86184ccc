// Narrowing of integers that never cuts a value silently.
#pragma once

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <type_traits>
#include <typeinfo>

namespace ostrel {

class IntCastException : public std::runtime_error {
public:
    enum Kind : int32_t { POSITIVE_OVERFLOW = 1, NEGATIVE_OVERFLOW = 2, UNSIGNED_NEGATIVE = 3 };

    IntCastException(const char* i_pMessage, int32_t i_nKind, uint64_t i_nValue, const char* i_pSourceType,
                     const char* i_pTargetType)
        : std::runtime_error("int cast error"),
          m_nKind(i_nKind),
          m_nValue(i_nValue),
          m_pSourceType(i_pSourceType),
          m_pTargetType(i_pTargetType),
          m_pMessage(i_pMessage) {}
    ~IntCastException() override = default;
    const char* what() const noexcept override { return m_pMessage; }

    int32_t kind() const { return m_nKind; }
    uint64_t value() const { return m_nValue; }
    const char* sourceType() const { return m_pSourceType; }
    const char* targetType() const { return m_pTargetType; }

private:
    int32_t m_nKind;
    uint64_t m_nValue;
    const char* m_pSourceType;
    const char* m_pTargetType;
    const char* m_pMessage;
};

class PositiveOverflowException : public IntCastException {
public:
    PositiveOverflowException(uint64_t i_nValue, const char* i_pSource, const char* i_pTarget)
        : IntCastException("int_cast error: positive overflow", POSITIVE_OVERFLOW, i_nValue, i_pSource, i_pTarget) {}
};

class NegativeOverflowException : public IntCastException {
public:
    NegativeOverflowException(uint64_t i_nValue, const char* i_pSource, const char* i_pTarget)
        : IntCastException("int_cast error: negative overflow ", NEGATIVE_OVERFLOW, i_nValue, i_pSource, i_pTarget) {}
};

class UnsignedNegativeException : public IntCastException {
public:
    UnsignedNegativeException(uint64_t i_nValue, const char* i_pSource, const char* i_pTarget)
        : IntCastException("int cast error: storing negative in unsigned data type", UNSIGNED_NEGATIVE, i_nValue,
                           i_pSource, i_pTarget) {}
};

template <class To, class From>
To int_cast(From i_value) {
    static_assert(std::is_integral_v<To> && std::is_integral_v<From>, "int_cast converts integers");
    const auto bits = static_cast<uint64_t>(i_value);
    if constexpr (std::is_signed_v<From>) {
        if (i_value < 0) {
            if constexpr (std::is_unsigned_v<To>) {
                throw UnsignedNegativeException(bits, typeid(From).name(), typeid(To).name());
            } else if (static_cast<int64_t>(i_value) < static_cast<int64_t>(std::numeric_limits<To>::min())) {
                throw NegativeOverflowException(bits, typeid(From).name(), typeid(To).name());
            }
            return static_cast<To>(i_value);
        }
    }
    if (static_cast<uint64_t>(i_value) > static_cast<uint64_t>(std::numeric_limits<To>::max())) {
        throw PositiveOverflowException(bits, typeid(From).name(), typeid(To).name());
    }
    return static_cast<To>(i_value);
}

}  // namespace ostrel
