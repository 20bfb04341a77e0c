// Clocks and the date-time record.
#include <string.h>
#include <windows.h>

#include <gtest/gtest.h>
#include <zendra/os.h>

#include "import_hook.h"
#include "wine.h"

namespace {

PLT_DATE_TIME Date(uint32_t year, uint32_t month, uint32_t day, uint32_t hour = 0,
                   uint32_t minute = 0, uint32_t second = 0, uint32_t ms = 0) {
    return PLT_DATE_TIME{ms, second, minute, hour, day, month, year, 0, 0};
}

bool SameFields(const PLT_DATE_TIME& a, const PLT_DATE_TIME& b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

TEST(PltTimeToDateTime, ZeroIsMonday1601AndFieldsRunUpward) {
    PLT_DATE_TIME t;
    ASSERT_EQ(PltTimeToDateTime(0, &t), 0u);
    PLT_DATE_TIME monday = Date(1601, 1, 1);
    monday.dayOfWeek = 1;
    EXPECT_TRUE(SameFields(t, monday));
    // 2024-02-29 23:59:59.999 UTC, a Thursday.
    ASSERT_EQ(PltTimeToDateTime(116444736000000000ull + 1709251199999ull * 10000, &t), 0u);
    PLT_DATE_TIME leap = Date(2024, 2, 29, 23, 59, 59, 999);
    leap.dayOfWeek = 4;
    EXPECT_TRUE(SameFields(t, leap));
    EXPECT_EQ(PltTimeToDateTime(0x8000000000000000ull, &t), 87u) << "beyond FILETIME";
    EXPECT_EQ(PltTimeToDateTime(0, nullptr), 87u);
}

TEST(PltDateTimeToTime, RoundTripsAsUtcRecomputingTheDayOfWeek) {
    for (PLT_DATE_TIME in : {Date(1601, 1, 1), Date(1970, 1, 1), Date(2000, 2, 29, 12, 30, 45, 500),
                             Date(30827, 12, 31, 23, 59, 59, 999)}) {
        PLT_DATE_TIME given = in;
        given.dayOfWeek = 6;       // ignored on the way in
        given.timeZoneBias = 300;  // ignored as well
        uint64_t time = 0;
        ASSERT_EQ(PltDateTimeToTime(&given, &time), 0u) << in.year;
        PLT_DATE_TIME out;
        ASSERT_EQ(PltTimeToDateTime(time, &out), 0u);
        SYSTEMTIME st = {static_cast<WORD>(in.year),
                         static_cast<WORD>(in.month),
                         0,
                         static_cast<WORD>(in.day),
                         0,
                         0,
                         0,
                         0};
        FILETIME ft;
        SystemTimeToFileTime(&st, &ft);
        FileTimeToSystemTime(&ft, &st);
        in.dayOfWeek = st.wDayOfWeek;
        EXPECT_TRUE(SameFields(out, in)) << in.year;
    }
    uint64_t time = 0;
    PLT_DATE_TIME epoch = Date(1970, 1, 1);
    ASSERT_EQ(PltDateTimeToTime(&epoch, &time), 0u);
    EXPECT_EQ(time, 116444736000000000ull);
    // Fields are cut to 16 bits.
    PLT_DATE_TIME wrapped = Date(1970 + 65536, 1, 1 + 65536);
    ASSERT_EQ(PltDateTimeToTime(&wrapped, &time), 0u);
    EXPECT_EQ(time, 116444736000000000ull);
}

TEST(PltDateTimeToTime, InvalidDatesFailWithTheWin32Error) {
    uint64_t time = 42;
    PLT_DATE_TIME month13 = Date(2024, 13, 1), hour24 = Date(2024, 1, 1, 24);
    EXPECT_EQ(PltDateTimeToTime(&month13, &time), static_cast<uint32_t>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(PltDateTimeToTime(&hour24, &time), static_cast<uint32_t>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(time, 42u);
    EXPECT_EQ(PltDateTimeToTime(nullptr, &time), 87u);
    EXPECT_EQ(PltDateTimeToTime(&month13, nullptr), 87u);
}

TEST(PltDateTimeToTime, DayBeyondTheMonthFails) {
    ZT_SKIP_ON_WINE("SystemTimeToFileTime accepts 2023-02-29 and gives 2023-03-01");
    uint64_t time = 42;
    PLT_DATE_TIME feb29 = Date(2023, 2, 29);
    EXPECT_EQ(PltDateTimeToTime(&feb29, &time), static_cast<uint32_t>(ERROR_INVALID_PARAMETER));
}

TEST(Clocks, ReadTheSystemClocks) {
    uint64_t tick = GetTickCount64();
    EXPECT_GE(PltGetTickCount(), tick);
    FILETIME ft;
    GetSystemTimeAsFileTime(&ft);
    uint64_t before = uint64_t{ft.dwHighDateTime} << 32 | ft.dwLowDateTime;
    uint64_t now = PltGetSystemTime();
    EXPECT_GE(now, before);
    EXPECT_LT(now - before, 50000000u) << "within 5 s";

    TIME_ZONE_INFORMATION zone;
    ASSERT_NE(GetTimeZoneInformation(&zone), TIME_ZONE_ID_INVALID);
    PLT_DATE_TIME utc, local;
    ASSERT_EQ(PltGetSystemDateTime(&utc), 0u);
    ASSERT_EQ(PltGetLocalDateTime(&local), 0u);
    EXPECT_EQ(static_cast<int32_t>(utc.timeZoneBias), zone.Bias);
    EXPECT_EQ(static_cast<int32_t>(local.timeZoneBias), zone.Bias);
    uint64_t utcTime = 0;
    ASSERT_EQ(PltDateTimeToTime(&utc, &utcTime), 0u);
    EXPECT_LT(utcTime - (now - now % 10000), 50000000u);
    EXPECT_EQ(PltGetSystemDateTime(nullptr) + PltGetLocalDateTime(nullptr), 2 * 87u);
}

// A simulated zone of UTC-5 with one hour of daylight saving; both zone
// records start with the same fields.
DWORD g_zoneId;
template <typename Zone>
DWORD WINAPI FakeZone(Zone* zone) {
    memset(zone, 0, sizeof *zone);
    zone->Bias = 300;
    zone->DaylightBias = -60;
    if (g_zoneId == TIME_ZONE_ID_INVALID) SetLastError(ERROR_ACCESS_DENIED);
    return g_zoneId;
}

TEST(PltGetTimeZoneDifference, AddsTheDaylightBiasInEverySeason) {
    zt::ImportHook hook("GetDynamicTimeZoneInformation",
                        reinterpret_cast<void*>(&FakeZone<DYNAMIC_TIME_ZONE_INFORMATION>));
    for (DWORD id : {TIME_ZONE_ID_STANDARD, TIME_ZONE_ID_DAYLIGHT, TIME_ZONE_ID_UNKNOWN}) {
        g_zoneId = id;
        int32_t minutes = 0;
        EXPECT_EQ(PltGetTimeZoneDifference(&minutes), 0u);
        EXPECT_EQ(minutes, 240) << "zone state " << id;
    }
    int32_t minutes = 12345;
    g_zoneId = TIME_ZONE_ID_INVALID;
    EXPECT_EQ(PltGetTimeZoneDifference(&minutes), static_cast<uint32_t>(ERROR_ACCESS_DENIED));
    g_zoneId = 7;  // no zone state: success, output left alone
    EXPECT_EQ(PltGetTimeZoneDifference(&minutes), 0u);
    EXPECT_EQ(minutes, 12345);
    EXPECT_EQ(PltGetTimeZoneDifference(nullptr), 87u);
}

TEST(PltGetSystemDateTime, BiasOnlyWhenTheZoneAnswers) {
    zt::ImportHook hook("GetTimeZoneInformation",
                        reinterpret_cast<void*>(&FakeZone<TIME_ZONE_INFORMATION>));
    PLT_DATE_TIME utc, local;
    g_zoneId = TIME_ZONE_ID_DAYLIGHT;
    ASSERT_EQ(PltGetSystemDateTime(&utc) + PltGetLocalDateTime(&local), 0u);
    EXPECT_EQ(utc.timeZoneBias, 300u) << "Bias alone";
    EXPECT_EQ(local.timeZoneBias, 300u);
    g_zoneId = TIME_ZONE_ID_INVALID;
    ASSERT_EQ(PltGetSystemDateTime(&utc) + PltGetLocalDateTime(&local), 0u);
    EXPECT_EQ(utc.timeZoneBias + local.timeZoneBias, 0u);
}

}  // namespace
