/* ZendraPlatform threads, processes, modules, environment, time and dates.
 * C-compatible. */
#ifndef ZENDRA_OS_H
#define ZENDRA_OS_H

#include <zendra/platform.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- threads ---- */

/* The library's four-level priority scale (threads, the current process and
 * pool workers). Reading back is lossy: above-normal, time-critical and
 * real-time all read as PRIO_HIGH. */
#define PRIO_IDLE 0u
#define PRIO_LOW 1u
#define PRIO_NORMAL 2u
#define PRIO_HIGH 3u

/* The routine's result becomes the thread's exit code. */
typedef uint32_t (*PLT_THREAD_ROUTINE)(void* context);

/* The creator owns the handle and closes it with PltCloseThread. */
ZENDRA_API PLT_STATUS PltCreateThread(PLT_THREAD_ROUTINE routine, void* context, HANDLE* thread,
                                      uint32_t* threadId);
/* Ends the thread with exit code 0xFFFFFFFF unless it has already ended. */
ZENDRA_API PLT_STATUS PltTerminateThread(HANDLE thread);
/* *result: PLT_WAIT_TIMEOUT (still running), PLT_WAIT_SIGNALED (ended) or
 * PLT_WAIT_ABANDONED; a time-out returns 0. */
ZENDRA_API PLT_STATUS PltWaitForThread(HANDLE thread, uint32_t timeoutMs, uint32_t* result);
ZENDRA_API PLT_STATUS PltCloseThread(HANDLE thread);
/* A null thread means the calling thread. */
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

/* ---- processes, modules and environment ---- */

/* ---- time and dates ---- */

#ifdef __cplusplus
}
#endif

#endif /* ZENDRA_OS_H */
