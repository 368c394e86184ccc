// Dates, times and spans in milliseconds.
#pragma once

#include <atomic>
#include <cstdint>

namespace Tarvik500 {

// Days since 1970-01-01 to a proleptic Gregorian date (any sign of day count).
void CivilFromDays(int64_t i_nDays, int64_t& o_y, int& o_m, int& o_d);

class STimeSpan {
public:
    STimeSpan() = default;
    explicit STimeSpan(int64_t i_nMilliseconds) : m_nMilliseconds(i_nMilliseconds) {}
    int64_t GetMilliseconds() const { return m_nMilliseconds; }
    bool operator<(const STimeSpan& o) const { return m_nMilliseconds < o.m_nMilliseconds; }
    bool operator>(const STimeSpan& o) const { return m_nMilliseconds > o.m_nMilliseconds; }
    bool operator==(const STimeSpan& o) const { return m_nMilliseconds == o.m_nMilliseconds; }

private:
    int64_t m_nMilliseconds = 0;
};

// A span that readers take without a lock; writers keep their own order.
class SAtomicTimeSpan {
public:
    explicit SAtomicTimeSpan(int64_t i_nMilliseconds) : m_nMilliseconds(i_nMilliseconds) {}
    SAtomicTimeSpan& operator=(const STimeSpan& i_span) {
        m_nMilliseconds.store(i_span.GetMilliseconds(), std::memory_order_release);
        return *this;
    }
    STimeSpan load() const { return STimeSpan(m_nMilliseconds.load(std::memory_order_acquire)); }

private:
    std::atomic<int64_t> m_nMilliseconds;
};

class STimeZone {
public:
    static const STimeZone& TZ_Local();
    static const STimeZone& TZ_UTC();
    bool IsUTC() const { return m_bUTC; }

private:
    explicit STimeZone(bool i_bUTC) : m_bUTC(i_bUTC) {}
    bool m_bUTC;
};

// The date part and the time part of an instant, as fields in local time.
struct SDate {
    short m_nYear = 1970;
    unsigned char m_nMonth = 1;
    unsigned char m_nDay = 1;
};
struct STime {
    unsigned char m_nHour = 0;
    unsigned char m_nMinute = 0;
    unsigned char m_nSecond = 0;
    unsigned short m_nMillisecond = 0;
};

// An instant, kept as milliseconds since 1970 UTC whatever zone built it.
class SDateTime {
public:
    SDateTime() = default;
    SDateTime(short i_nYear, unsigned char i_nMonth, unsigned char i_nDay, unsigned char i_nHour,
              unsigned char i_nMinute, unsigned char i_nSecond, unsigned short i_nMillisecond,
              const STimeZone& i_zone);
    static SDateTime GetCurrentDateTime();
    static SDateTime FromMilliseconds(int64_t i_nSinceEpoch);

    bool operator<(const SDateTime& o) const { return m_nMs < o.m_nMs; }
    bool operator>(const SDateTime& o) const { return m_nMs > o.m_nMs; }
    bool operator==(const SDateTime& o) const { return m_nMs == o.m_nMs; }
    // Both saturate at the ends of the 64-bit range rather than wrap.
    SDateTime operator+(const STimeSpan& i_span) const;
    STimeSpan operator-(const SDateTime& i_other) const;

    int64_t GetTimeT(const STimeZone& i_zone) const;
    int64_t GetMilliseconds() const { return m_nMs; }
    SDate GetDate() const;
    STime GetTime() const;
    // Replace one part, keeping the other, in local time.
    void SetDate(const SDate& i_date);
    void SetTime(const STime& i_time);

private:
    int64_t m_nMs = 0;
};

}  // namespace Tarvik500
