// Clock readings and conversions between system time and PLT_DATE_TIME.
#include <zendra/os.h>

#include "platform/status.h"

using namespace zendra;

namespace {

uint64_t FromFileTime(const FILETIME& ft) {
    return uint64_t{ft.dwHighDateTime} << 32 | ft.dwLowDateTime;
}

void FillDateTime(const SYSTEMTIME& st, PLT_DATE_TIME* out) {
    out->milliseconds = st.wMilliseconds;
    out->second = st.wSecond;
    out->minute = st.wMinute;
    out->hour = st.wHour;
    out->day = st.wDay;
    out->month = st.wMonth;
    out->year = st.wYear;
    out->dayOfWeek = st.wDayOfWeek;
    out->timeZoneBias = 0;
}

// The zone's Bias when the query answered with a zone state, else 0.
uint32_t CurrentBias() {
    TIME_ZONE_INFORMATION zone;
    DWORD id = GetTimeZoneInformation(&zone);
    bool known =
        id == TIME_ZONE_ID_UNKNOWN || id == TIME_ZONE_ID_STANDARD || id == TIME_ZONE_ID_DAYLIGHT;
    return known ? static_cast<uint32_t>(zone.Bias) : 0;
}

// The current date and time as `now` reads it, with the zone's bias.
PLT_STATUS CurrentDateTime(void(WINAPI* now)(LPSYSTEMTIME), PLT_DATE_TIME* dateTime) {
    if (dateTime == nullptr) return kInvalidParameter;
    SYSTEMTIME st;
    now(&st);
    FillDateTime(st, dateTime);
    dateTime->timeZoneBias = CurrentBias();
    return kOk;
}

}  // namespace

extern "C" uint64_t PltGetTickCount(void) { return GetTickCount64(); }

extern "C" uint64_t PltGetSystemTime(void) {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return FromFileTime(now);
}

extern "C" PLT_STATUS PltTimeToDateTime(uint64_t time, PLT_DATE_TIME* dateTime) {
    if (dateTime == nullptr) return kInvalidParameter;
    FILETIME ft;
    ft.dwLowDateTime = static_cast<DWORD>(time);
    ft.dwHighDateTime = static_cast<DWORD>(time >> 32);
    SYSTEMTIME st;
    if (!FileTimeToSystemTime(&ft, &st)) return GetLastError();
    FillDateTime(st, dateTime);
    return kOk;
}

extern "C" PLT_STATUS PltDateTimeToTime(const PLT_DATE_TIME* dateTime, uint64_t* time) {
    if (dateTime == nullptr || time == nullptr) return kInvalidParameter;
    // Each field is cut to the 16 bits SYSTEMTIME holds; Win32 ignores the
    // day of the week.
    SYSTEMTIME st;
    st.wMilliseconds = static_cast<WORD>(dateTime->milliseconds);
    st.wSecond = static_cast<WORD>(dateTime->second);
    st.wMinute = static_cast<WORD>(dateTime->minute);
    st.wHour = static_cast<WORD>(dateTime->hour);
    st.wDay = static_cast<WORD>(dateTime->day);
    st.wMonth = static_cast<WORD>(dateTime->month);
    st.wYear = static_cast<WORD>(dateTime->year);
    st.wDayOfWeek = static_cast<WORD>(dateTime->dayOfWeek);
    FILETIME ft;
    if (!SystemTimeToFileTime(&st, &ft)) return GetLastError();
    *time = FromFileTime(ft);
    return kOk;
}

extern "C" PLT_STATUS PltGetSystemDateTime(PLT_DATE_TIME* dateTime) {
    return CurrentDateTime(GetSystemTime, dateTime);
}

extern "C" PLT_STATUS PltGetLocalDateTime(PLT_DATE_TIME* dateTime) {
    return CurrentDateTime(GetLocalTime, dateTime);
}

extern "C" PLT_STATUS PltGetTimeZoneDifference(int32_t* minutes) {
    if (minutes == nullptr) return kInvalidParameter;
    DYNAMIC_TIME_ZONE_INFORMATION zone;
    DWORD id = GetDynamicTimeZoneInformation(&zone);
    if (id == TIME_ZONE_ID_INVALID) return GetLastError();
    // The daylight bias counts in every season: callers rely on one fixed
    // number per zone.
    if (id == TIME_ZONE_ID_UNKNOWN || id == TIME_ZONE_ID_STANDARD || id == TIME_ZONE_ID_DAYLIGHT)
        *minutes = zone.Bias + zone.DaylightBias;
    return kOk;
}
