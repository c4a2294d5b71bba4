// Calendar conversions and the time zone as TZ describes it.
#include <stdlib.h>
#include <time.h>

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "platform/os.h"
#include "platform/os_fault.h"

namespace qbsmtp::os {
namespace {

std::uint64_t ticks(const FILETIME& t) {
    return (static_cast<std::uint64_t>(t.dwHighDateTime) << 32) | t.dwLowDateTime;
}

SYSTEMTIME date(WORD year, WORD month, WORD day, WORD hour = 0, WORD minute = 0, WORD second = 0,
                WORD ms = 0) {
    SYSTEMTIME t{};
    t.wYear = year;
    t.wMonth = month;
    t.wDay = day;
    t.wHour = hour;
    t.wMinute = minute;
    t.wSecond = second;
    t.wMilliseconds = ms;
    return t;
}

TEST(FileTimes, KnownDatesConvertBothWays) {
    struct Row {
        SYSTEMTIME time;
        std::uint64_t ticks;
        WORD day_of_week;
    };
    const Row rows[] = {
        {date(1601, 1, 1), 0, 1},
        {date(1970, 1, 1), 116444736000000000ULL, 4},
        {date(2000, 2, 29, 23, 59, 59), 125963423990000000ULL, 2},
        {date(2026, 11, 18, 11, 0, 0), 134394732000000000ULL, 3},
        {date(2026, 11, 18, 11, 0, 0, 999), 134394732009990000ULL, 3},
    };
    for (const Row& row : rows) {
        FILETIME file_time{};
        SYSTEMTIME input = row.time;
        input.wDayOfWeek = 6;  // ignored
        ASSERT_TRUE(SystemTimeToFileTime(&input, &file_time)) << row.ticks;
        EXPECT_EQ(ticks(file_time), row.ticks);
        SYSTEMTIME back{};
        ASSERT_TRUE(FileTimeToSystemTime(&file_time, &back));
        EXPECT_EQ(back.wYear, row.time.wYear);
        EXPECT_EQ(back.wMonth, row.time.wMonth);
        EXPECT_EQ(back.wDay, row.time.wDay);
        EXPECT_EQ(back.wHour, row.time.wHour);
        EXPECT_EQ(back.wSecond, row.time.wSecond);
        EXPECT_EQ(back.wMilliseconds, row.time.wMilliseconds);
        EXPECT_EQ(back.wDayOfWeek, row.day_of_week) << row.ticks;
    }
}

TEST(FileTimes, ImpossibleDatesAreRefused) {
    const SYSTEMTIME refused[] = {
        date(2026, 0, 1),           date(2026, 13, 1),
        date(2026, 4, 31),          date(2026, 2, 29),
        date(1900, 2, 29),          date(2026, 1, 0),
        date(2026, 1, 1, 24),       date(2026, 1, 1, 0, 60),
        date(2026, 1, 1, 0, 0, 60), date(2026, 1, 1, 0, 0, 0, 1000),
        date(1600, 12, 31),         date(30828, 1, 1),
    };
    for (const SYSTEMTIME& t : refused) {
        FILETIME file_time{7, 7};
        SetLastError(0);
        EXPECT_FALSE(SystemTimeToFileTime(&t, &file_time))
            << t.wYear << "-" << t.wMonth << "-" << t.wDay << " " << t.wHour << ":" << t.wMinute;
        EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    }
    const SYSTEMTIME accepted[] = {date(2024, 2, 29), date(2000, 2, 29),
                                   date(30827, 12, 31, 23, 59, 59, 999)};
    for (const SYSTEMTIME& t : accepted) {
        FILETIME file_time;
        EXPECT_TRUE(SystemTimeToFileTime(&t, &file_time)) << t.wYear;
    }
}

TEST(FileTimes, CompareOrdersByFullValue) {
    FILETIME low{0xFFFFFFFF, 1};
    FILETIME high{0, 2};
    EXPECT_EQ(CompareFileTime(&low, &high), -1);
    EXPECT_EQ(CompareFileTime(&high, &low), 1);
    EXPECT_EQ(CompareFileTime(&low, &low), 0);
    FILETIME sign_bit{0, 0x80000000};
    SYSTEMTIME out;
    EXPECT_FALSE(FileTimeToSystemTime(&sign_bit, &out));
}

TEST(FileTimes, InjectedFault) {
    FaultScope scope(Op::SystemTimeToFileTime, 1, ERROR_INVALID_PARAMETER);
    SYSTEMTIME t = date(2026, 1, 1);
    FILETIME file_time;
    EXPECT_FALSE(SystemTimeToFileTime(&t, &file_time));
    EXPECT_TRUE(SystemTimeToFileTime(&t, &file_time));
}

// The zone under TZ: result, Bias, DaylightBias; the result depends on the
// date, so it is checked against the C library's view of now.
void set_zone(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
}

bool daylight_now() {
    time_t now = time(nullptr);
    tm fields;
    localtime_r(&now, &fields);
    return fields.tm_isdst > 0;
}

TEST(TimeZone, BiasesFollowTz) {
    struct Row {
        const char* tz;
        LONG bias;
        LONG daylight_bias;
        bool needs_tzdata;
    };
    const Row rows[] = {
        {"UTC0", 0, 0, false},
        {"UTC-1", -60, 0, false},  // a fixed UTC+1 zone
        {"<+0530>-5:30", -330, 0, false},
        {"EST5EDT", 300, -60, false},
        {"EST5EDT,M3.2.0,M11.1.0", 300, -60, false},
        {"CET-1CEST,M3.5.0,M10.5.0/3", -60, -60, false},
        {"Europe/Rome", -60, -60, true},
        {"America/New_York", 300, -60, true},
    };
    for (const Row& row : rows) {
        if (row.needs_tzdata &&
            access((std::string("/usr/share/zoneinfo/") + row.tz).c_str(), R_OK) != 0)
            continue;
        set_zone(row.tz);
        TIME_ZONE_INFORMATION zone;
        DWORD result = GetTimeZoneInformation(&zone);
        EXPECT_EQ(result, daylight_now() ? TIME_ZONE_ID_DAYLIGHT : TIME_ZONE_ID_STANDARD) << row.tz;
        EXPECT_EQ(zone.Bias, row.bias) << row.tz;
        EXPECT_EQ(zone.StandardBias, 0) << row.tz;
        EXPECT_EQ(zone.DaylightBias, row.daylight_bias) << row.tz;
    }
}

TEST(TimeZone, ZoneWithoutDaylightSavingGivesStandard) {
    set_zone("UTC-1");
    TIME_ZONE_INFORMATION zone;
    EXPECT_EQ(GetTimeZoneInformation(&zone), TIME_ZONE_ID_STANDARD);
    EXPECT_EQ(zone.Bias + zone.StandardBias, -60);
    EXPECT_EQ(zone.DaylightDate.wMonth, 0);
}

TEST(TimeZone, RuleDatesOfAYearlyChange) {
    set_zone("CET-1CEST,M3.5.0,M10.5.0/3");
    TIME_ZONE_INFORMATION zone;
    GetTimeZoneInformation(&zone);
    // Into daylight time on the last Sunday of March at 02:00 standard time,
    // back on the last Sunday of October at 03:00 daylight time.
    EXPECT_EQ(zone.DaylightDate.wMonth, 3);
    EXPECT_EQ(zone.DaylightDate.wDay, 5);
    EXPECT_EQ(zone.DaylightDate.wDayOfWeek, 0);
    EXPECT_EQ(zone.DaylightDate.wHour, 2);
    EXPECT_EQ(zone.StandardDate.wMonth, 10);
    EXPECT_EQ(zone.StandardDate.wDay, 5);
    EXPECT_EQ(zone.StandardDate.wHour, 3);
    EXPECT_EQ(zone.StandardName[0], u'C');
}

TEST(TimeZone, LocalTimeAgreesWithSystemTimeAndBias) {
    set_zone("UTC-1");
    SYSTEMTIME local;
    SYSTEMTIME system;
    GetSystemTime(&system);
    GetLocalTime(&local);
    FILETIME local_ft;
    FILETIME system_ft;
    ASSERT_TRUE(SystemTimeToFileTime(&local, &local_ft));
    ASSERT_TRUE(SystemTimeToFileTime(&system, &system_ft));
    std::int64_t difference = static_cast<std::int64_t>(ticks(local_ft) - ticks(system_ft));
    EXPECT_NEAR(static_cast<double>(difference) / 10'000'000, 3600.0, 2.0);
}

TEST(TimeZone, InjectedFaultGivesInvalid) {
    FaultScope scope(Op::GetTimeZoneInformation, 1, ERROR_INVALID_FUNCTION);
    TIME_ZONE_INFORMATION zone;
    EXPECT_EQ(GetTimeZoneInformation(&zone), TIME_ZONE_ID_INVALID);
}

TEST(Ticks, TickCountAdvancesWithSleep) {
    DWORD before = GetTickCount();
    Sleep(30);
    DWORD elapsed = GetTickCount() - before;  // unsigned: right across a wrap too
    EXPECT_GE(elapsed, 29u);
    EXPECT_LT(elapsed, 5000u);
}

}  // namespace
}  // namespace qbsmtp::os
