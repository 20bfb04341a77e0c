// Clocks and the date-time record.
#include <windows.h>

#include <gtest/gtest.h>
#include <zendra/os.h>

#include "import_hook.h"
#include "wine.h"

namespace {

PLT_DATE_TIME Record(uint32_t year, uint32_t month, uint32_t day, uint32_t hour, uint32_t minute,
                     uint32_t second, uint32_t ms) {
    PLT_DATE_TIME t = {};
    t.year = year;
    t.month = month;
    t.day = day;
    t.hour = hour;
    t.minute = minute;
    t.second = second;
    t.milliseconds = ms;
    return t;
}

const uint64_t kUnixEpoch = 116444736000000000ull;  // 1970-01-01 00:00 UTC
const uint64_t kTicksPerMs = 10000;

TEST(PltTimeToDateTime, ZeroIsMonday1601) {
    PLT_DATE_TIME t;
    memset(&t, 0xFF, sizeof t);
    ASSERT_EQ(PltTimeToDateTime(0, &t), 0u);
    EXPECT_EQ(t.year, 1601u);
    EXPECT_EQ(t.month, 1u);
    EXPECT_EQ(t.day, 1u);
    EXPECT_EQ(t.hour, 0u);
    EXPECT_EQ(t.minute, 0u);
    EXPECT_EQ(t.second, 0u);
    EXPECT_EQ(t.milliseconds, 0u);
    EXPECT_EQ(t.dayOfWeek, 1u) << "Monday";
    EXPECT_EQ(t.timeZoneBias, 0u);
}

TEST(PltTimeToDateTime, FieldsRunFromMillisecondsToYear) {
    // 1970-01-01 was a Thursday; 2024-02-29 23:59:59.999 too.
    PLT_DATE_TIME t;
    ASSERT_EQ(PltTimeToDateTime(kUnixEpoch, &t), 0u);
    EXPECT_EQ(t.year, 1970u);
    EXPECT_EQ(t.dayOfWeek, 4u);
    const uint32_t* fields = reinterpret_cast<const uint32_t*>(&t);
    uint64_t leapDay = kUnixEpoch + (1709251199999ull) * kTicksPerMs;
    ASSERT_EQ(PltTimeToDateTime(leapDay, &t), 0u);
    const uint32_t expected[9] = {999, 59, 59, 23, 29, 2, 2024, 4, 0};
    for (int i = 0; i < 9; ++i) EXPECT_EQ(fields[i], expected[i]) << "field " << i;
}

TEST(PltTimeToDateTime, FailuresAndNull) {
    PLT_DATE_TIME t;
    EXPECT_EQ(PltTimeToDateTime(0, nullptr), 87u);
    // Beyond what FILETIME can express.
    EXPECT_EQ(PltTimeToDateTime(0x8000000000000000ull, &t), 87u);
}

TEST(PltDateTimeToTime, RoundTripsAndRecomputesTheDayOfWeek) {
    const PLT_DATE_TIME dates[] = {
        Record(1601, 1, 1, 0, 0, 0, 0),       Record(1970, 1, 1, 0, 0, 0, 0),
        Record(2000, 2, 29, 12, 30, 45, 500), Record(2024, 12, 31, 23, 59, 59, 999),
        Record(2038, 1, 19, 3, 14, 8, 1),     Record(30827, 12, 31, 23, 59, 59, 999),
    };
    for (PLT_DATE_TIME in : dates) {
        in.dayOfWeek = 6;       // ignored on the way in
        in.timeZoneBias = 300;  // ignored as well: the record is UTC
        uint64_t time = 0;
        ASSERT_EQ(PltDateTimeToTime(&in, &time), 0u) << in.year;
        PLT_DATE_TIME out;
        ASSERT_EQ(PltTimeToDateTime(time, &out), 0u);
        EXPECT_EQ(memcmp(&in, &out, 7 * sizeof(uint32_t)), 0) << in.year;
        EXPECT_EQ(out.timeZoneBias, 0u);
        SYSTEMTIME st = {};
        st.wYear = static_cast<WORD>(in.year);
        st.wMonth = static_cast<WORD>(in.month);
        st.wDay = static_cast<WORD>(in.day);
        FILETIME ft;
        SystemTimeToFileTime(&st, &ft);
        FileTimeToSystemTime(&ft, &st);
        EXPECT_EQ(out.dayOfWeek, st.wDayOfWeek) << in.year;
    }
    uint64_t time = 1;
    PLT_DATE_TIME epoch = Record(1970, 1, 1, 0, 0, 0, 0);
    ASSERT_EQ(PltDateTimeToTime(&epoch, &time), 0u);
    EXPECT_EQ(time, kUnixEpoch);
}

TEST(PltDateTimeToTime, InvalidDatesFailWithTheWin32Error) {
    uint64_t time = 42;
    PLT_DATE_TIME month13 = Record(2024, 13, 1, 0, 0, 0, 0);
    EXPECT_EQ(PltDateTimeToTime(&month13, &time), static_cast<uint32_t>(ERROR_INVALID_PARAMETER));
    PLT_DATE_TIME hour24 = Record(2024, 1, 1, 24, 0, 0, 0);
    EXPECT_EQ(PltDateTimeToTime(&hour24, &time), static_cast<uint32_t>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(time, 42u) << "output untouched on failure";
}

TEST(PltDateTimeToTime, DayBeyondTheMonthFails) {
    ZT_SKIP_ON_WINE("SystemTimeToFileTime accepts 2023-02-29 and gives 2023-03-01");
    uint64_t time = 42;
    PLT_DATE_TIME feb29 = Record(2023, 2, 29, 0, 0, 0, 0);
    EXPECT_EQ(PltDateTimeToTime(&feb29, &time), static_cast<uint32_t>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(time, 42u);
}

TEST(PltDateTimeToTime, FieldsAreCutTo16Bits) {
    PLT_DATE_TIME wrapped = Record(2024 + 65536, 6, 15 + 65536, 8, 0, 0, 0);
    PLT_DATE_TIME plain = Record(2024, 6, 15, 8, 0, 0, 0);
    uint64_t a = 0, b = 1;
    ASSERT_EQ(PltDateTimeToTime(&wrapped, &a), 0u);
    ASSERT_EQ(PltDateTimeToTime(&plain, &b), 0u);
    EXPECT_EQ(a, b);
}

TEST(PltDateTimeToTime, NullArguments) {
    PLT_DATE_TIME t = Record(2024, 1, 1, 0, 0, 0, 0);
    uint64_t time;
    EXPECT_EQ(PltDateTimeToTime(nullptr, &time), 87u);
    EXPECT_EQ(PltDateTimeToTime(&t, nullptr), 87u);
}

TEST(Clocks, AgreeWithWin32) {
    uint64_t tickBefore = GetTickCount64();
    uint64_t tick = PltGetTickCount();
    EXPECT_GE(tick, tickBefore);
    EXPECT_LE(tick, GetTickCount64());

    FILETIME ft;
    GetSystemTimeAsFileTime(&ft);
    uint64_t before = uint64_t{ft.dwHighDateTime} << 32 | ft.dwLowDateTime;
    uint64_t now = PltGetSystemTime();
    GetSystemTimeAsFileTime(&ft);
    uint64_t after = uint64_t{ft.dwHighDateTime} << 32 | ft.dwLowDateTime;
    EXPECT_GE(now, before);
    EXPECT_LE(now, after);
}

TEST(Clocks, SystemAndLocalDateTimeCarryTheZoneBias) {
    TIME_ZONE_INFORMATION zone;
    DWORD id = GetTimeZoneInformation(&zone);
    ASSERT_NE(id, TIME_ZONE_ID_INVALID);

    PLT_DATE_TIME utc, local;
    uint64_t before = PltGetSystemTime();
    ASSERT_EQ(PltGetSystemDateTime(&utc), 0u);
    ASSERT_EQ(PltGetLocalDateTime(&local), 0u);
    uint64_t after = PltGetSystemTime();
    EXPECT_EQ(static_cast<int32_t>(utc.timeZoneBias), zone.Bias);
    EXPECT_EQ(static_cast<int32_t>(local.timeZoneBias), zone.Bias);

    uint64_t utcTime = 0;
    PLT_DATE_TIME copy = utc;
    ASSERT_EQ(PltDateTimeToTime(&copy, &utcTime), 0u);
    EXPECT_GE(utcTime + kTicksPerMs, before);
    EXPECT_LE(utcTime, after);

    SYSTEMTIME st;
    GetLocalTime(&st);
    EXPECT_EQ(local.year, st.wYear);
    EXPECT_LE(local.dayOfWeek, 6u);
    EXPECT_EQ(PltGetSystemDateTime(nullptr), 87u);
    EXPECT_EQ(PltGetLocalDateTime(nullptr), 87u);
}

// A simulated zone: UTC-5 with one hour of daylight saving.
DWORD g_zoneId;
// Both zone records start with the same fields.
template <typename Zone>
DWORD WINAPI FakeZone(Zone* zone) {
    memset(zone, 0, sizeof *zone);
    zone->Bias = 300;
    zone->DaylightBias = -60;
    if (g_zoneId == TIME_ZONE_ID_INVALID) SetLastError(ERROR_ACCESS_DENIED);
    return g_zoneId;
}
void* const FakeTimeZone = reinterpret_cast<void*>(&FakeZone<TIME_ZONE_INFORMATION>);
void* const FakeDynamicTimeZone = reinterpret_cast<void*>(&FakeZone<DYNAMIC_TIME_ZONE_INFORMATION>);

TEST(PltGetTimeZoneDifference, AddsTheDaylightBiasInEverySeason) {
    zt::ImportHook hook("GetDynamicTimeZoneInformation", FakeDynamicTimeZone);
    for (DWORD id : {TIME_ZONE_ID_STANDARD, TIME_ZONE_ID_DAYLIGHT, TIME_ZONE_ID_UNKNOWN}) {
        g_zoneId = id;
        int32_t minutes = 0;
        EXPECT_EQ(PltGetTimeZoneDifference(&minutes), 0u);
        EXPECT_EQ(minutes, 240) << "zone state " << id;
    }
}

TEST(PltGetTimeZoneDifference, FailureAndUnknownResults) {
    zt::ImportHook hook("GetDynamicTimeZoneInformation", FakeDynamicTimeZone);
    int32_t minutes = 12345;
    g_zoneId = TIME_ZONE_ID_INVALID;
    EXPECT_EQ(PltGetTimeZoneDifference(&minutes), static_cast<uint32_t>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(minutes, 12345);
    g_zoneId = 7;  // not a zone state: success, output left alone
    EXPECT_EQ(PltGetTimeZoneDifference(&minutes), 0u);
    EXPECT_EQ(minutes, 12345);
    EXPECT_EQ(PltGetTimeZoneDifference(nullptr), 87u);
}

TEST(PltGetTimeZoneDifference, RealZoneMatchesWin32) {
    DYNAMIC_TIME_ZONE_INFORMATION zone;
    ASSERT_NE(GetDynamicTimeZoneInformation(&zone), TIME_ZONE_ID_INVALID);
    int32_t minutes = 0;
    ASSERT_EQ(PltGetTimeZoneDifference(&minutes), 0u);
    EXPECT_EQ(minutes, zone.Bias + zone.DaylightBias);
}

TEST(Clocks, BiasComesFromTheZoneOnlyWhenItAnswers) {
    zt::ImportHook hook("GetTimeZoneInformation", FakeTimeZone);
    PLT_DATE_TIME t;
    g_zoneId = TIME_ZONE_ID_DAYLIGHT;
    ASSERT_EQ(PltGetSystemDateTime(&t), 0u);
    EXPECT_EQ(t.timeZoneBias, 300u) << "Bias alone, without the daylight bias";
    ASSERT_EQ(PltGetLocalDateTime(&t), 0u);
    EXPECT_EQ(t.timeZoneBias, 300u);
    g_zoneId = TIME_ZONE_ID_INVALID;
    ASSERT_EQ(PltGetSystemDateTime(&t), 0u);
    EXPECT_EQ(t.timeZoneBias, 0u);
    ASSERT_EQ(PltGetLocalDateTime(&t), 0u);
    EXPECT_EQ(t.timeZoneBias, 0u);
}

}  // namespace
