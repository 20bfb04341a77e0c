/* ZendraPlatform threads, processes, modules, environment, time and dates.
 * C-compatible. */
#ifndef ZENDRA_OS_H
#define ZENDRA_OS_H

#include <zendra/platform.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- threads ----
 * Unless a comment says otherwise, these calls return 0 or the error of the
 * Win32 call that failed. */

/* The library's four-level priority scale (threads, the current process and
 * the workers of PltInitWorkItemPool). Any other value sets normal priority
 * (for the process, SetPriorityClass refuses it and its error is returned).
 * Reading back is lossy: above-normal, time-critical and real-time all read
 * as PRIO_HIGH. */
#define PRIO_IDLE 0u
#define PRIO_LOW 1u
#define PRIO_NORMAL 2u
#define PRIO_HIGH 3u

/* The routine's result becomes the thread's exit code. */
typedef uint32_t (*PLT_THREAD_ROUTINE)(void* context);

/* The creator owns the handle and closes it with PltCloseThread. NO_MEMORY
 * when the start block cannot be allocated; CreateThread's error. */
ZENDRA_API PLT_STATUS PltCreateThread(PLT_THREAD_ROUTINE routine, void* context, HANDLE* thread,
                                      uint32_t* threadId);
/* Ends the thread with exit code 0xFFFFFFFF unless it has already ended.
 * INVALID_PARAMETER for a null handle. */
ZENDRA_API PLT_STATUS PltTerminateThread(HANDLE thread);
/* *result: PLT_WAIT_TIMEOUT (still running), PLT_WAIT_SIGNALED (ended) or
 * PLT_WAIT_ABANDONED; a time-out returns 0. INVALID_PARAMETER for a null
 * handle. */
ZENDRA_API PLT_STATUS PltWaitForThread(HANDLE thread, uint32_t timeoutMs, uint32_t* result);
/* A null handle returns 0. */
ZENDRA_API PLT_STATUS PltCloseThread(HANDLE thread);
/* A null thread means the calling thread. The two reads return
 * INVALID_PARAMETER for a null priority. */
ZENDRA_API PLT_STATUS PltGetThreadPriority(HANDLE thread, uint32_t* priority);
ZENDRA_API PLT_STATUS PltSetThreadPriority(HANDLE thread, uint32_t priority);
ZENDRA_API PLT_STATUS PltGetCurrentProcessPriority(uint32_t* priority);
ZENDRA_API PLT_STATUS PltSetCurrentProcessPriority(uint32_t priority);
ZENDRA_API uint32_t PltGetCurrentProcessID(void);
ZENDRA_API HANDLE PltGetCurrentThread(void);
ZENDRA_API uint32_t PltGetCurrentThreadID(void);
/* The calling thread's id widened to a pointer-sized value, not a Win32
 * thread context. */
ZENDRA_API uintptr_t PltGetCurrentThreadContext(void);

/* ---- processes, modules and environment ----
 * Unless a comment says otherwise, these calls return 0 or the error of the
 * Win32 call that failed. */

/* A started child, as CreateProcessW fills it; released by PltCloseProcess. */
typedef struct PLT_PROCESS {
    HANDLE process;
    HANDLE thread;
    uint32_t processId;
    uint32_t threadId;
} PLT_PROCESS;

ZENDRA_LAYOUT(sizeof(PLT_PROCESS) == 24);
ZENDRA_LAYOUT(offsetof(PLT_PROCESS, process) == 0);
ZENDRA_LAYOUT(offsetof(PLT_PROCESS, thread) == 8);
ZENDRA_LAYOUT(offsetof(PLT_PROCESS, processId) == 16);
ZENDRA_LAYOUT(offsetof(PLT_PROCESS, threadId) == 20);

#define PLT_PROCESS_NAME_CHARS 260

/* One running process, valid only during the enumeration callback. */
typedef struct PLT_PROCESS_ENTRY {
    wchar_t name[PLT_PROCESS_NAME_CHARS]; /* executable file name, zero-padded */
    uint32_t processId;
} PLT_PROCESS_ENTRY;

ZENDRA_LAYOUT(sizeof(PLT_PROCESS_ENTRY) == 524);
ZENDRA_LAYOUT(offsetof(PLT_PROCESS_ENTRY, name) == 0);
ZENDRA_LAYOUT(offsetof(PLT_PROCESS_ENTRY, processId) == 520);

/* Called once per process; its result is ignored. */
typedef PLT_STATUS (*PLT_PROCESS_CALLBACK)(const PLT_PROCESS_ENTRY* entry, void* context);

/* Longest command line PltCreateProcess builds, terminator included. */
#define PLT_COMMAND_LINE_CHARS 2048

/* Starts `application` with a command line made of one space before each of
 * `arguments` (unquoted), up to the first null pointer or empty string; the
 * application name is not repeated in it. A command line that would not fit
 * in PLT_COMMAND_LINE_CHARS gives INVALID_PARAMETER and starts nothing, as
 * do a null `arguments` or `process`; NO_MEMORY when the record cannot be had. With `wait` set,
 * waits up to 5000 ms and stores the exit code, or 0xFFFFFFFF when the child
 * is still running (it is left running). When CreateProcessW fails, its
 * error is returned and the record allocated for the child stays allocated.
 */
ZENDRA_API PLT_STATUS PltCreateProcess(const wchar_t* application, const wchar_t** arguments,
                                       uint8_t wait, uint32_t* exitCode, PLT_PROCESS** process);
/* INVALID_PARAMETER for a null process; a failed CloseHandle leaves the
 * record allocated. */
ZENDRA_API PLT_STATUS PltCloseProcess(PLT_PROCESS* process);

/* Reports every running process, or with a filter only those whose name
 * equals (ignoring case) the filter text taken from one of its character
 * positions 0 to filterCount - 1: with filterCount 1 the filter is one name
 * compared whole. Positions past the filter's terminator are not used.
 * INVALID_PARAMETER for a null callback. */
ZENDRA_API PLT_STATUS PltGetProcessList(const wchar_t* filter, uint32_t filterCount,
                                        PLT_PROCESS_CALLBACK callback, void* context);

/* Module names; a null module is the process's executable. Sizes are in
 * characters; a null buffer gives INVALID_PARAMETER. Path and file name
 * return BAD_LENGTH when the part is longer than `size`; a part exactly
 * `size` characters long is written with its terminator, one character more
 * than `size`. */
ZENDRA_API PLT_STATUS PltGetModuleName(HMODULE module, wchar_t* buffer, uint32_t size);
ZENDRA_API PLT_STATUS PltGetModulePath(HMODULE module, wchar_t* buffer, uint32_t size);
ZENDRA_API PLT_STATUS PltGetModuleFileName(HMODULE module, wchar_t* buffer, uint32_t size);

/* With a buffer: reads the variable into it (capacity *size characters); a
 * buffer too small returns 0 and leaves both the buffer and *size alone.
 * Without a buffer: *size receives the needed size, terminator included.
 * INVALID_PARAMETER for a null name; Win32's 203 (ERROR_ENVVAR_NOT_FOUND)
 * when the variable does not exist. */
ZENDRA_API PLT_STATUS PltGetEnvironmentVariable(const wchar_t* name, wchar_t* buffer,
                                                uint32_t* size);

/* ---- time and dates ----
 * A null record or output gives INVALID_PARAMETER; otherwise these calls
 * return 0 or the error of the Win32 call that failed. */

/* Broken-down date and time, smallest unit first. timeZoneBias holds the
 * signed bias in minutes (UTC = local time + bias) as two's complement. */
typedef struct PLT_DATE_TIME {
    uint32_t milliseconds;
    uint32_t second;
    uint32_t minute;
    uint32_t hour;
    uint32_t day;
    uint32_t month;
    uint32_t year;
    uint32_t dayOfWeek; /* 0 = Sunday */
    uint32_t timeZoneBias;
} PLT_DATE_TIME;

ZENDRA_LAYOUT(sizeof(PLT_DATE_TIME) == 36);
ZENDRA_LAYOUT(offsetof(PLT_DATE_TIME, milliseconds) == 0);
ZENDRA_LAYOUT(offsetof(PLT_DATE_TIME, second) == 4);
ZENDRA_LAYOUT(offsetof(PLT_DATE_TIME, minute) == 8);
ZENDRA_LAYOUT(offsetof(PLT_DATE_TIME, hour) == 12);
ZENDRA_LAYOUT(offsetof(PLT_DATE_TIME, day) == 16);
ZENDRA_LAYOUT(offsetof(PLT_DATE_TIME, month) == 20);
ZENDRA_LAYOUT(offsetof(PLT_DATE_TIME, year) == 24);
ZENDRA_LAYOUT(offsetof(PLT_DATE_TIME, dayOfWeek) == 28);
ZENDRA_LAYOUT(offsetof(PLT_DATE_TIME, timeZoneBias) == 32);

/* Milliseconds since system start. */
ZENDRA_API uint64_t PltGetTickCount(void);
/* 100-nanosecond intervals since 1601-01-01 UTC. */
ZENDRA_API uint64_t PltGetSystemTime(void);

/* System time <-> date-time record, both read as UTC; timeZoneBias is 0 out
 * and ignored in. Fields above 65535 wrap. */
ZENDRA_API PLT_STATUS PltTimeToDateTime(uint64_t time, PLT_DATE_TIME* dateTime);
ZENDRA_API PLT_STATUS PltDateTimeToTime(const PLT_DATE_TIME* dateTime, uint64_t* time);

/* Current UTC or local date and time, with the time zone's bias. */
ZENDRA_API PLT_STATUS PltGetSystemDateTime(PLT_DATE_TIME* dateTime);
ZENDRA_API PLT_STATUS PltGetLocalDateTime(PLT_DATE_TIME* dateTime);

/* Bias + DaylightBias of the current time zone, in minutes, positive west of
 * Greenwich. The daylight bias is added whether or not daylight saving time
 * is in effect. */
ZENDRA_API PLT_STATUS PltGetTimeZoneDifference(int32_t* minutes);

#ifdef __cplusplus
}
#endif

#endif /* ZENDRA_OS_H */
