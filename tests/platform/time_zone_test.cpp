// The time zone read from two threads at once, as two sessions stamp their
// mail: the C library's zone state is shared, and the platform serialises
// every call that touches it. Under TSan an unserialised pair is a race.
#include <stdlib.h>

#include <cstdint>
#include <latch>
#include <thread>

#include <gtest/gtest.h>

#include "platform/os.h"

namespace qbsmtp::os {
namespace {

std::int64_t seconds_of(const SYSTEMTIME& time) {
    FILETIME file_time{};
    EXPECT_TRUE(SystemTimeToFileTime(&time, &file_time));
    return static_cast<std::int64_t>(
        (std::uint64_t{file_time.dwHighDateTime} << 32 | file_time.dwLowDateTime) / 10'000'000);
}

TEST(TimeZone, LocalTimeAndZoneFromTwoThreadsAgree) {
#ifdef _WIN32
    GTEST_SKIP() << "Windows takes its zone from the system's settings, never from TZ";
#endif
    // Central European: UTC+1, daylight saving UTC+2 from the last Sunday of
    // March to the last Sunday of October.
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    std::latch start_together(2);
    std::thread stamping([&] {
        start_together.arrive_and_wait();
        for (int i = 0; i < 300; ++i) {
            SYSTEMTIME local;
            SYSTEMTIME system;
            GetSystemTime(&system);
            GetLocalTime(&local);
            const std::int64_t ahead = seconds_of(local) - seconds_of(system);
            // One or two hours ahead; a second may pass between the calls.
            EXPECT_TRUE((ahead >= 3600 && ahead <= 3601) || (ahead >= 7200 && ahead <= 7201))
                << ahead;
        }
    });
    start_together.arrive_and_wait();
    for (int i = 0; i < 300; ++i) {
        TIME_ZONE_INFORMATION zone;
        const DWORD result = GetTimeZoneInformation(&zone);
        EXPECT_TRUE(result == TIME_ZONE_ID_STANDARD || result == TIME_ZONE_ID_DAYLIGHT) << result;
        EXPECT_EQ(zone.Bias, -60);
        EXPECT_EQ(zone.DaylightBias, -60);
        EXPECT_EQ(zone.DaylightDate.wMonth, 3);
        EXPECT_EQ(zone.StandardDate.wMonth, 10);
    }
    stamping.join();
}

}  // namespace
}  // namespace qbsmtp::os
