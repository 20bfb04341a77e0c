// Clocks and the date-time record.
#include <string.h>

#include <string>

#include <zendra/os.h>

#include "zt.h"

namespace {

const uint64_t kUnixEpoch = 116444736000000000ull;

std::string Text(const PLT_DATE_TIME& t) {
    char s[64];
    snprintf(s, sizeof s, "%u-%02u-%02u %02u:%02u:%02u.%03u d%u b%d", t.year, t.month, t.day,
             t.hour, t.minute, t.second, t.milliseconds, t.dayOfWeek,
             static_cast<int32_t>(t.timeZoneBias));
    return s;
}

PLT_DATE_TIME Date(uint32_t year, uint32_t month, uint32_t day, uint32_t hour = 0,
                   uint32_t minute = 0, uint32_t second = 0, uint32_t ms = 0) {
    return PLT_DATE_TIME{ms, second, minute, hour, day, month, year, 6, 300};
}

TEST(DateTime, ConversionsBothWaysAsUtc) {
    PLT_DATE_TIME t;
    ASSERT_EQ(PltTimeToDateTime(0, &t), 0u);
    EXPECT_EQ(Text(t), "1601-01-01 00:00:00.000 d1 b0") << "a Monday, no bias";
    ASSERT_EQ(PltTimeToDateTime(kUnixEpoch + 1709251199999ull * 10000, &t), 0u);
    EXPECT_EQ(Text(t), "2024-02-29 23:59:59.999 d4 b0");
    EXPECT_EQ(PltTimeToDateTime(0x8000000000000000ull, &t) + PltTimeToDateTime(0, nullptr),
              2 * 87u);
    // The day of the week and the bias given are ignored; fields are cut to
    // 16 bits.
    const struct {
        PLT_DATE_TIME in;
        uint64_t time;
    } cases[] = {{Date(1970, 1, 1), kUnixEpoch},
                 {Date(1970 + 65536, 1, 1 + 65536), kUnixEpoch},
                 {Date(2024, 2, 29, 23, 59, 59, 999), kUnixEpoch + 1709251199999ull * 10000},
                 {Date(30827, 12, 31, 23, 59, 59, 999), 0x7FFF35F4F06C58F0ull}};
    for (const auto& c : cases) {
        uint64_t time = 0;
        ASSERT_EQ(PltDateTimeToTime(&c.in, &time), 0u) << c.in.year;
        EXPECT_EQ(time, c.time) << c.in.year;
    }
    uint64_t time = 42;
    PLT_DATE_TIME month13 = Date(2024, 13, 1), hour24 = Date(2024, 1, 1, 24);
    EXPECT_EQ(PltDateTimeToTime(&month13, &time) + PltDateTimeToTime(&hour24, &time),
              2u * ERROR_INVALID_PARAMETER);
    EXPECT_EQ(time, 42u);
    EXPECT_EQ(PltDateTimeToTime(nullptr, &time) + PltDateTimeToTime(&month13, nullptr), 2 * 87u);
}

TEST(DateTime, DayBeyondTheMonthFails) {
    ZT_SKIP_ON_WINE("SystemTimeToFileTime accepts 2023-02-29 and gives 2023-03-01");
    uint64_t time = 42;
    PLT_DATE_TIME feb29 = Date(2023, 2, 29);
    EXPECT_EQ(PltDateTimeToTime(&feb29, &time), static_cast<uint32_t>(ERROR_INVALID_PARAMETER));
}

// A zone of UTC-5 with one hour of daylight saving; both zone records start
// with the same fields.
DWORD g_zoneId;
template <typename Zone>
DWORD WINAPI FakeZone(Zone* zone) {
    memset(zone, 0, sizeof *zone);
    zone->Bias = 300;
    zone->DaylightBias = -60;
    if (g_zoneId == TIME_ZONE_ID_INVALID) SetLastError(ERROR_ACCESS_DENIED);
    return g_zoneId;
}

TEST(Clocks, NowAndTheZoneInEverySeason) {
    uint64_t tick = GetTickCount64();
    FILETIME ft;
    GetSystemTimeAsFileTime(&ft);
    uint64_t before = uint64_t{ft.dwHighDateTime} << 32 | ft.dwLowDateTime,
             now = PltGetSystemTime();
    EXPECT_TRUE(PltGetTickCount() >= tick && now >= before && now - before < 50000000u);
    PLT_DATE_TIME utc, local;
    uint64_t utcTime = 0;
    ASSERT_EQ(PltGetSystemDateTime(&utc) + PltDateTimeToTime(&utc, &utcTime), 0u);
    EXPECT_LT(utcTime - (now - now % 10000), 50000000u);
    EXPECT_EQ(PltGetSystemDateTime(nullptr) + PltGetLocalDateTime(nullptr), 2 * 87u);
    zt::ImportHook info("GetTimeZoneInformation",
                        reinterpret_cast<void*>(&FakeZone<TIME_ZONE_INFORMATION>));
    zt::ImportHook dynamic("GetDynamicTimeZoneInformation",
                           reinterpret_cast<void*>(&FakeZone<DYNAMIC_TIME_ZONE_INFORMATION>));
    for (DWORD id : {TIME_ZONE_ID_STANDARD, TIME_ZONE_ID_DAYLIGHT, TIME_ZONE_ID_UNKNOWN}) {
        g_zoneId = id;
        int32_t minutes = 0;
        EXPECT_EQ(PltGetTimeZoneDifference(&minutes), 0u);
        EXPECT_EQ(minutes, 240) << "the daylight bias is added in every season, state " << id;
        ASSERT_EQ(PltGetSystemDateTime(&utc) + PltGetLocalDateTime(&local), 0u);
        EXPECT_EQ(utc.timeZoneBias * 1000 + local.timeZoneBias, 300300u) << "Bias alone";
    }
    int32_t minutes = 12345;
    g_zoneId = TIME_ZONE_ID_INVALID;
    EXPECT_EQ(PltGetTimeZoneDifference(&minutes), static_cast<uint32_t>(ERROR_ACCESS_DENIED));
    ASSERT_EQ(PltGetSystemDateTime(&utc) + PltGetLocalDateTime(&local), 0u);
    EXPECT_EQ(utc.timeZoneBias + local.timeZoneBias, 0u);
    g_zoneId = 7;  // no zone state: success, output left alone
    EXPECT_EQ(PltGetTimeZoneDifference(&minutes), 0u);
    EXPECT_EQ(minutes, 12345);
    EXPECT_EQ(PltGetTimeZoneDifference(nullptr), 87u);
}

}  // namespace
