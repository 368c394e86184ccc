#include "DateTime.h"

#include <cstdint>
#include <chrono>
#include <ctime>

#include "LocalTime.h"

namespace Tarvik500 {

namespace {

constexpr int64_t kMsPerSecond = 1000;
constexpr int64_t kSecondsPerDay = 86400;

int64_t FloorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0)) ? 1 : 0); }
int64_t FloorMod(int64_t a, int64_t b) { return a - FloorDiv(a, b) * b; }

// Days since 1970-01-01 of a proleptic Gregorian date; month and day may overflow.
int64_t DaysFromCivil(int64_t y, int64_t m, int64_t d) {
    y += FloorDiv(m - 1, 12);
    m = FloorMod(m - 1, 12) + 1;
    y -= m <= 2 ? 1 : 0;
    const int64_t era = FloorDiv(y, 400);
    const int64_t yoe = y - era * 400;
    const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + doe - 719468;
}


int64_t SecondsFromUtcFields(const std::tm& i_tm) {
    return DaysFromCivil(i_tm.tm_year + 1900LL, i_tm.tm_mon + 1LL, i_tm.tm_mday) * kSecondsPerDay +
           i_tm.tm_hour * 3600LL + i_tm.tm_min * 60LL + i_tm.tm_sec;
}

int64_t SecondsFromLocalFields(const std::tm& i_tm) {
    std::tm fields = i_tm;
    fields.tm_isdst = -1;
    const std::time_t t = std::mktime(&fields);
    if (t == static_cast<std::time_t>(-1)) {
        // Outside what the C library can place in the local zone (or exactly one
        // second before 1970 there): reading the fields as UTC is the best left.
        return SecondsFromUtcFields(i_tm);
    }
    return static_cast<int64_t>(t);
}

std::tm LocalFieldsOf(int64_t i_nSeconds) {
    std::tm fields{};
    if (!BreakDownLocalTime(i_nSeconds, fields)) {
        int64_t year = 0;
        int month = 0;
        int day = 0;
        CivilFromDays(FloorDiv(i_nSeconds, kSecondsPerDay), year, month, day);
        const int64_t secondOfDay = FloorMod(i_nSeconds, kSecondsPerDay);
        fields.tm_year = static_cast<int>(year - 1900);
        fields.tm_mon = month - 1;
        fields.tm_mday = day;
        fields.tm_hour = static_cast<int>(secondOfDay / 3600);
        fields.tm_min = static_cast<int>(secondOfDay / 60 % 60);
        fields.tm_sec = static_cast<int>(secondOfDay % 60);
    }
    return fields;
}

std::tm FieldsOf(const SDate& i_date, const STime& i_time) {
    std::tm fields{};
    fields.tm_year = i_date.m_nYear - 1900;
    fields.tm_mon = i_date.m_nMonth - 1;
    fields.tm_mday = i_date.m_nDay;
    fields.tm_hour = i_time.m_nHour;
    fields.tm_min = i_time.m_nMinute;
    fields.tm_sec = i_time.m_nSecond;
    return fields;
}

}  // namespace

void CivilFromDays(int64_t i_nDays, int64_t& o_y, int& o_m, int& o_d) {
    const int64_t z = i_nDays + 719468;
    const int64_t era = FloorDiv(z, 146097);
    const int64_t doe = z - era * 146097;
    const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const int64_t mp = (5 * doy + 2) / 153;
    o_d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
    o_m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
    o_y = yoe + era * 400 + (o_m <= 2 ? 1 : 0);
}

const STimeZone& STimeZone::TZ_Local() {
    static const STimeZone s_local(false);
    return s_local;
}

const STimeZone& STimeZone::TZ_UTC() {
    static const STimeZone s_utc(true);
    return s_utc;
}

SDateTime::SDateTime(short i_nYear, unsigned char i_nMonth, unsigned char i_nDay, unsigned char i_nHour,
                     unsigned char i_nMinute, unsigned char i_nSecond, unsigned short i_nMillisecond,
                     const STimeZone& i_zone) {
    const SDate date{i_nYear, i_nMonth, i_nDay};
    const STime time{i_nHour, i_nMinute, i_nSecond, i_nMillisecond};
    const std::tm fields = FieldsOf(date, time);
    const int64_t seconds = i_zone.IsUTC() ? SecondsFromUtcFields(fields) : SecondsFromLocalFields(fields);
    m_nMs = seconds * kMsPerSecond + i_nMillisecond;
}

SDateTime SDateTime::GetCurrentDateTime() {
    using namespace std::chrono;
    return FromMilliseconds(duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count());
}

namespace {
int64_t Saturate(bool i_bOverflow, int64_t i_nResult, int64_t i_nTowards) {
    if (!i_bOverflow) {
        return i_nResult;
    }
    return i_nTowards < 0 ? INT64_MIN : INT64_MAX;
}
}  // namespace

SDateTime SDateTime::operator+(const STimeSpan& i_span) const {
    int64_t nSum = 0;
    const bool bOverflow = __builtin_add_overflow(m_nMs, i_span.GetMilliseconds(), &nSum);
    return FromMilliseconds(Saturate(bOverflow, nSum, i_span.GetMilliseconds()));
}

STimeSpan SDateTime::operator-(const SDateTime& i_other) const {
    int64_t nDifference = 0;
    const bool bOverflow = __builtin_sub_overflow(m_nMs, i_other.m_nMs, &nDifference);
    return STimeSpan(Saturate(bOverflow, nDifference, m_nMs));
}

SDateTime SDateTime::FromMilliseconds(int64_t i_nSinceEpoch) {
    SDateTime result;
    result.m_nMs = i_nSinceEpoch;
    return result;
}

// The instant is the same in every zone, and so is its count of seconds.
int64_t SDateTime::GetTimeT(const STimeZone& /*i_zone*/) const { return FloorDiv(m_nMs, kMsPerSecond); }

SDate SDateTime::GetDate() const {
    const std::tm fields = LocalFieldsOf(FloorDiv(m_nMs, kMsPerSecond));
    SDate date;
    date.m_nYear = static_cast<short>(fields.tm_year + 1900);
    date.m_nMonth = static_cast<unsigned char>(fields.tm_mon + 1);
    date.m_nDay = static_cast<unsigned char>(fields.tm_mday);
    return date;
}

STime SDateTime::GetTime() const {
    const std::tm fields = LocalFieldsOf(FloorDiv(m_nMs, kMsPerSecond));
    STime time;
    time.m_nHour = static_cast<unsigned char>(fields.tm_hour);
    time.m_nMinute = static_cast<unsigned char>(fields.tm_min);
    // A leap second from the C library folds into the last ordinary one.
    time.m_nSecond = static_cast<unsigned char>(fields.tm_sec > 59 ? 59 : fields.tm_sec);
    time.m_nMillisecond = static_cast<unsigned short>(FloorMod(m_nMs, kMsPerSecond));
    return time;
}

void SDateTime::SetDate(const SDate& i_date) {
    const STime time = GetTime();
    m_nMs = SecondsFromLocalFields(FieldsOf(i_date, time)) * kMsPerSecond + time.m_nMillisecond;
}

void SDateTime::SetTime(const STime& i_time) {
    const SDate date = GetDate();
    m_nMs = SecondsFromLocalFields(FieldsOf(date, i_time)) * kMsPerSecond + i_time.m_nMillisecond;
}

}  // namespace Tarvik500
