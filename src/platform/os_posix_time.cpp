// os_posix_time.cpp: calendar time as Windows gives it.
//
// FILETIME counts 100 ns units from 1601-01-01 UTC in the proleptic
// Gregorian calendar; the conversions here are plain arithmetic on civil
// dates, so they do not depend on time_t's range. The time zone comes from
// the C library's view of TZ: Bias is minus the standard offset, and the
// daylight offset and the dates of the changes are found by looking at the
// current year, because POSIX exposes no rule table.
#include <time.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/os.h"
#include "platform/os_fault.h"
#include "platform/os_posix_internal.h"

namespace qbsmtp::os {
namespace {

constexpr std::int64_t ticks_per_second = 10'000'000;
constexpr std::int64_t ticks_per_millisecond = 10'000;
constexpr std::int64_t seconds_per_day = 86'400;
constexpr std::int64_t days_1601_to_1970 = 134'774;

// Days since 1970-01-01 of a civil date (proleptic Gregorian).
std::int64_t days_from_civil(std::int64_t year, unsigned month, unsigned day) {
    year -= month <= 2;
    std::int64_t era = (year >= 0 ? year : year - 399) / 400;
    auto year_of_era = static_cast<unsigned>(year - era * 400);
    unsigned day_of_year = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    unsigned day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
    return era * 146097 + static_cast<std::int64_t>(day_of_era) - 719468;
}

struct CivilDate {
    std::int64_t year;
    unsigned month;
    unsigned day;
};

CivilDate civil_from_days(std::int64_t days) {
    days += 719468;
    std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    auto day_of_era = static_cast<unsigned>(days - era * 146097);
    unsigned year_of_era =
        (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    unsigned day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    unsigned shifted_month = (5 * day_of_year + 2) / 153;
    unsigned day = day_of_year - (153 * shifted_month + 2) / 5 + 1;
    unsigned month = shifted_month < 10 ? shifted_month + 3 : shifted_month - 9;
    return {static_cast<std::int64_t>(year_of_era) + era * 400 + (month <= 2), month, day};
}

bool is_leap_year(unsigned year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

unsigned days_in_month(unsigned year, unsigned month) {
    static constexpr unsigned lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && is_leap_year(year) ? 29 : lengths[month - 1];
}

void fill_system_time(const tm& fields, long nanoseconds, SYSTEMTIME* time) {
    time->wYear = static_cast<WORD>(fields.tm_year + 1900);
    time->wMonth = static_cast<WORD>(fields.tm_mon + 1);
    time->wDayOfWeek = static_cast<WORD>(fields.tm_wday);
    time->wDay = static_cast<WORD>(fields.tm_mday);
    time->wHour = static_cast<WORD>(fields.tm_hour);
    time->wMinute = static_cast<WORD>(fields.tm_min);
    time->wSecond = static_cast<WORD>(fields.tm_sec > 59 ? 59 : fields.tm_sec);  // no leap second
    time->wMilliseconds = static_cast<WORD>(nanoseconds / 1000000);
}

// ---- Time zone ---------------------------------------------------------------

// What the current year of the zone looks like.
struct ZoneYear {
    bool known = false;
    long standard_offset = 0;  // seconds east of UTC
    long daylight_offset = 0;
    bool has_daylight = false;
    std::string standard_name;
    std::string daylight_name;
    time_t to_daylight = 0;  // the change into daylight saving time in this year
    time_t to_standard = 0;
};

// The first second in (low, high] at which is_dst differs from its value
// at low; is_dst changes exactly once in the interval.
time_t find_change(time_t low, time_t high) {
    tm fields;
    localtime_r(&low, &fields);
    int before = fields.tm_isdst > 0;
    while (high - low > 1) {
        time_t middle = low + (high - low) / 2;
        localtime_r(&middle, &fields);
        if ((fields.tm_isdst > 0) == before)
            low = middle;
        else
            high = middle;
    }
    return high;
}

ZoneYear survey_zone(int year) {
    ZoneYear zone;
    time_t start = static_cast<time_t>(days_from_civil(year, 1, 1) * seconds_per_day + 43200);
    time_t previous = start;
    int previous_dst = -1;
    for (int day = 0; day <= 366; ++day) {
        time_t moment = start + static_cast<time_t>(day) * seconds_per_day;
        tm fields;
        if (localtime_r(&moment, &fields) == nullptr) return zone;
        bool dst = fields.tm_isdst > 0;
        if (dst) {
            if (!zone.has_daylight) {
                zone.has_daylight = true;
                zone.daylight_offset = fields.tm_gmtoff;
                zone.daylight_name = fields.tm_zone != nullptr ? fields.tm_zone : "";
            }
        } else if (!zone.known) {
            zone.known = true;
            zone.standard_offset = fields.tm_gmtoff;
            zone.standard_name = fields.tm_zone != nullptr ? fields.tm_zone : "";
        }
        if (previous_dst != -1 && dst != (previous_dst == 1)) {
            time_t change = find_change(previous, moment);
            (dst ? zone.to_daylight : zone.to_standard) = change;
        }
        previous_dst = dst ? 1 : 0;
        previous = moment;
    }
    if (!zone.known && zone.has_daylight) {
        // Daylight saving all year round: take the C library's standard offset.
        zone.known = true;
        zone.standard_offset = -timezone;
        zone.standard_name = tzname[0] != nullptr ? tzname[0] : "";
    }
    return zone;
}

void copy_zone_name(const std::string& name, WCHAR* target) {
    std::size_t length = name.size() < 31 ? name.size() : 31;
    for (std::size_t i = 0; i < length; ++i)
        target[i] = static_cast<WCHAR>(static_cast<unsigned char>(name[i]));
    target[length] = 0;
}

// The date of a change in the "nth weekday of the month" form that Windows
// uses for yearly rules; wall-clock time in the offset before the change.
SYSTEMTIME rule_date(time_t change, long offset_before) {
    SYSTEMTIME date{};
    time_t local = change + offset_before;
    tm fields;
    gmtime_r(&local, &fields);
    date.wMonth = static_cast<WORD>(fields.tm_mon + 1);
    date.wDayOfWeek = static_cast<WORD>(fields.tm_wday);
    unsigned week = static_cast<unsigned>(fields.tm_mday - 1) / 7 + 1;
    unsigned month_length = days_in_month(static_cast<unsigned>(fields.tm_year + 1900),
                                          static_cast<unsigned>(fields.tm_mon + 1));
    if (static_cast<unsigned>(fields.tm_mday) + 7 > month_length) week = 5;  // the last one
    date.wDay = static_cast<WORD>(week);
    date.wHour = static_cast<WORD>(fields.tm_hour);
    date.wMinute = static_cast<WORD>(fields.tm_min);
    return date;
}

// The survey of the zone named by TZ for year, cached between calls; the
// caller holds time_zone_lock().
ZoneYear current_zone(int year) {
    static std::string cached_tz;
    static bool cached_tz_set = false;
    static int cached_year = 0;
    static ZoneYear cached;
    tzset();
    const char* tz = std::getenv("TZ");
    bool tz_set = tz != nullptr;
    if (cached.known && cached_year == year && cached_tz_set == tz_set &&
        (!tz_set || cached_tz == tz))
        return cached;
    cached = survey_zone(year);
    cached_year = year;
    cached_tz_set = tz_set;
    cached_tz = tz_set ? tz : "";
    return cached;
}

}  // namespace

namespace posix {

std::mutex& time_zone_lock() {
    static std::mutex lock;
    return lock;
}

}  // namespace posix

void GetLocalTime(SYSTEMTIME* time) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm fields;
    {
        std::lock_guard lock(posix::time_zone_lock());
        localtime_r(&now.tv_sec, &fields);
    }
    fill_system_time(fields, now.tv_nsec, time);
}

void GetSystemTime(SYSTEMTIME* time) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm fields;
    {
        std::lock_guard lock(posix::time_zone_lock());
        gmtime_r(&now.tv_sec, &fields);
    }
    fill_system_time(fields, now.tv_nsec, time);
}

DWORD GetTimeZoneInformation(TIME_ZONE_INFORMATION* zone) {
    if (fault_hit(Op::GetTimeZoneInformation)) return TIME_ZONE_ID_INVALID;
    if (zone == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return TIME_ZONE_ID_INVALID;
    }
    std::memset(zone, 0, sizeof *zone);
    time_t now = ::time(nullptr);
    std::lock_guard lock(posix::time_zone_lock());
    tm fields;
    if (localtime_r(&now, &fields) == nullptr) return TIME_ZONE_ID_UNKNOWN;
    ZoneYear year = current_zone(fields.tm_year + 1900);
    if (!year.known) return TIME_ZONE_ID_UNKNOWN;

    zone->Bias = static_cast<LONG>(-year.standard_offset / 60);
    zone->StandardBias = 0;
    copy_zone_name(year.standard_name, zone->StandardName);
    if (year.has_daylight) {
        zone->DaylightBias = static_cast<LONG>(-(year.daylight_offset - year.standard_offset) / 60);
        copy_zone_name(year.daylight_name, zone->DaylightName);
        if (year.to_daylight != 0 && year.to_standard != 0) {
            zone->DaylightDate = rule_date(year.to_daylight, year.standard_offset);
            zone->StandardDate = rule_date(year.to_standard, year.daylight_offset);
        }
    } else {
        copy_zone_name(year.standard_name, zone->DaylightName);
    }
    return fields.tm_isdst > 0 ? TIME_ZONE_ID_DAYLIGHT : TIME_ZONE_ID_STANDARD;
}

BOOL SystemTimeToFileTime(const SYSTEMTIME* time, FILETIME* file_time) {
    if (fault_hit(Op::SystemTimeToFileTime)) return 0;
    bool valid = time != nullptr && file_time != nullptr && time->wYear >= 1601 &&
                 time->wYear <= 30827 && time->wMonth >= 1 && time->wMonth <= 12 &&
                 time->wDay >= 1 && time->wDay <= days_in_month(time->wYear, time->wMonth) &&
                 time->wHour <= 23 && time->wMinute <= 59 && time->wSecond <= 59 &&
                 time->wMilliseconds <= 999;
    if (!valid) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    std::int64_t days = days_from_civil(time->wYear, time->wMonth, time->wDay) + days_1601_to_1970;
    std::int64_t seconds =
        days * seconds_per_day + time->wHour * 3600 + time->wMinute * 60 + time->wSecond;
    auto ticks = static_cast<std::uint64_t>(seconds * ticks_per_second +
                                            time->wMilliseconds * ticks_per_millisecond);
    file_time->dwLowDateTime = static_cast<DWORD>(ticks);
    file_time->dwHighDateTime = static_cast<DWORD>(ticks >> 32);
    return 1;
}

BOOL FileTimeToSystemTime(const FILETIME* file_time, SYSTEMTIME* time) {
    if (file_time == nullptr || time == nullptr || (file_time->dwHighDateTime & 0x80000000u) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    auto ticks = static_cast<std::int64_t>(
        (static_cast<std::uint64_t>(file_time->dwHighDateTime) << 32) | file_time->dwLowDateTime);
    std::int64_t seconds = ticks / ticks_per_second;
    std::int64_t days = seconds / seconds_per_day;
    std::int64_t second_of_day = seconds % seconds_per_day;
    CivilDate date = civil_from_days(days - days_1601_to_1970);
    time->wYear = static_cast<WORD>(date.year);
    time->wMonth = static_cast<WORD>(date.month);
    time->wDay = static_cast<WORD>(date.day);
    time->wDayOfWeek = static_cast<WORD>((days + 1) % 7);  // 1601-01-01 was a Monday
    time->wHour = static_cast<WORD>(second_of_day / 3600);
    time->wMinute = static_cast<WORD>(second_of_day / 60 % 60);
    time->wSecond = static_cast<WORD>(second_of_day % 60);
    time->wMilliseconds = static_cast<WORD>(ticks % ticks_per_second / ticks_per_millisecond);
    return 1;
}

LONG CompareFileTime(const FILETIME* a, const FILETIME* b) {
    auto value = [](const FILETIME* t) {
        return (static_cast<std::uint64_t>(t->dwHighDateTime) << 32) | t->dwLowDateTime;
    };
    std::uint64_t left = value(a);
    std::uint64_t right = value(b);
    return left < right ? -1 : (left > right ? 1 : 0);
}

namespace posix {

FILETIME filetime_from_unix(std::int64_t seconds, std::int64_t nanoseconds) {
    std::int64_t ticks =
        (seconds + days_1601_to_1970 * seconds_per_day) * ticks_per_second + nanoseconds / 100;
    if (ticks < 0) ticks = 0;
    auto value = static_cast<std::uint64_t>(ticks);
    return {static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)};
}

}  // namespace posix
}  // namespace qbsmtp::os
