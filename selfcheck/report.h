// Writing into the caller's report buffer, and the small helpers every
// self-check shares.
#pragma once

#include <stdarg.h>

#include <zendra/os.h>
#include <zendra/platform.h>
#include <zendra/selfcheck.h>

namespace zendra::selfcheck {

// Limits of one formatted piece, in characters: messages of the bus and
// process checks, and listing lines of the system checks.
constexpr size_t kMessageLimit = 200;
constexpr size_t kListingLimit = 2048;

// Appends text cut to Capacity - length - 4 characters; nothing when that
// difference would wrap.
void Append(PLT_REPORT_BUFFER* report, const wchar_t* text);
// Formats at most `limit` characters and appends them.
void AppendFormat(PLT_REPORT_BUFFER* report, size_t limit, const wchar_t* format, ...);
void AppendFormatV(PLT_REPORT_BUFFER* report, size_t limit, const wchar_t* format, va_list args);
// The text followed by "\r\n".
void AppendLine(PLT_REPORT_BUFFER* report, const wchar_t* text);
// Formats at most `limit` characters, appends them and "\r\n".
void AppendLineFormat(PLT_REPORT_BUFFER* report, size_t limit, const wchar_t* format, ...);
// A failure line: " : Failed - ", the description (if any), "\r\n". Returns 1.
uint32_t Fail(PLT_REPORT_BUFFER* report, const wchar_t* description = nullptr);
// A sub-check that reports no description: a bare failure line when it failed.
inline uint32_t Reported(PLT_REPORT_BUFFER* report, uint32_t result) {
    return result != 0 ? Fail(report) : 0;
}
// The system's text for a status (language neutral, inserts ignored, at
// most 2048 characters) and "\r\n".
void AppendSystemMessage(PLT_REPORT_BUFFER* report, uint32_t status);
// The system message of a failed call, then its failure line. Returns 1.
uint32_t FailWithStatus(PLT_REPORT_BUFFER* report, uint32_t status,
                        const wchar_t* description = nullptr);

// A thread of the library's own (PltCreateThread), for checks that need
// threads outside any pool.
struct CheckThread {
    HANDLE handle = nullptr;
    uint32_t id = 0;
};
bool StartThread(CheckThread* thread, PLT_THREAD_ROUTINE routine, void* context);
// Waits up to timeoutMs; a thread still running then is terminated. Closes
// the handle either way. True when the thread ended within the wait.
bool JoinThread(CheckThread* thread, uint32_t timeoutMs);

// PltAcquireEvent, PltAcquireSpinLock and PltReleaseSpinLock are aliases in
// the export list of these bodies.
inline PLT_STATUS AcquireEvent(PLT_EVENT* event, uint32_t timeoutMs, uint32_t* result) {
    return PltAcquireMutex(reinterpret_cast<PLT_MUTEX*>(event), timeoutMs, result);
}
inline PLT_STATUS AcquireSpinLock(PLT_SPIN_LOCK* lock) { return PltAcquireFastLock(lock); }
inline PLT_STATUS ReleaseSpinLock(PLT_SPIN_LOCK* lock) { return PltReleaseFastLock(lock); }

// An export of this library by name, as callers see it: the aliases of the
// export list have no body of their own to call. Null when it is missing.
void* OwnExport(const char* name);
template <typename F>
F OwnExportAs(const char* name) {
    return reinterpret_cast<F>(OwnExport(name));
}

// Atomic helpers for counters shared with callbacks.
inline uint32_t Load(const volatile uint32_t* value) {
    return __atomic_load_n(value, __ATOMIC_ACQUIRE);
}
inline void Store(volatile uint32_t* value, uint32_t v) {
    __atomic_store_n(value, v, __ATOMIC_RELEASE);
}
inline uint32_t AddOne(volatile uint32_t* value) {
    return __atomic_add_fetch(value, 1u, __ATOMIC_ACQ_REL);
}

// Polls every millisecond until *value reaches target or timeoutMs pass.
bool WaitForCount(const volatile uint32_t* value, uint32_t target, uint32_t timeoutMs);

}  // namespace zendra::selfcheck
