// Shared pieces of the lock implementations.
#pragma once

#include <zendra/platform.h>

#include "platform/counters.h"

namespace zendra {

constexpr DWORD kSpinCount = 1024;  // every critical section of the library

// A critical section counted in the critical-section pair: spin locks and the
// ones inside reader-writer spin locks, lookaside lists, pools and buses.
inline BOOL InitCountedCriticalSection(CRITICAL_SECTION* cs) {
    BOOL ok = InitializeCriticalSectionAndSpinCount(cs, kSpinCount);
    CountCreated(Pair::CriticalSection);
    return ok;
}

inline void DeleteCountedCriticalSection(CRITICAL_SECTION* cs) {
    DeleteCriticalSection(cs);
    CountDestroyed(Pair::CriticalSection);
}

// A handle closed on behalf of a counted object: the live counter moves only
// when the close succeeds.
inline PLT_STATUS CloseCounted(HANDLE handle, Pair pair) {
    if (!CloseHandle(handle)) return GetLastError();
    CountDestroyed(pair);
    return 0;
}

// Maps a wait outcome to the acquire result (1 timed out, 2 signalled,
// 3 abandoned). A failed wait returns its error and leaves *result alone.
PLT_STATUS WaitForObject(HANDLE handle, uint32_t timeoutMs, uint32_t* result);

inline uint64_t CurrentThreadId() { return GetCurrentThreadId(); }

// Whether the calling thread holds a reader-writer lock's write side. The
// owner is written only by the writer itself, so a plain load decides it.
inline bool WriterIsCaller(const uint64_t* owner) {
    return __atomic_load_n(owner, __ATOMIC_ACQUIRE) == CurrentThreadId();
}

// Frees every thread's table of read holds; for an unload of the library.
void ReleaseReadHoldTables();

}  // namespace zendra
