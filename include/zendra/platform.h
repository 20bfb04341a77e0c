/* ZendraPlatform runtime core: status convention, tagged memory, resource
 * counters and the fixed-result exports. C-compatible. */
#ifndef ZENDRA_PLATFORM_H
#define ZENDRA_PLATFORM_H

#include <stddef.h>
#include <stdint.h>
#include <windows.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifdef ZENDRA_BUILDING_DLL
#define ZENDRA_API __declspec(dllexport)
#else
#define ZENDRA_API __declspec(dllimport)
#endif

/* 0 on success, otherwise a Windows system error code. */
typedef uint32_t PLT_STATUS;

/* Four characters, first one in the lowest byte: PLT_TAG('Q','Z','W','I'). */
#define PLT_TAG(a, b, c, d)                                                     \
    ((uint32_t)(uint8_t)(a) | ((uint32_t)(uint8_t)(b) << 8) |                   \
     ((uint32_t)(uint8_t)(c) << 16) | ((uint32_t)(uint8_t)(d) << 24))

#define PLT_ALLOC_ZERO 1u  /* PltMalloc flag: zero-fill the block */
#define PLT_INFINITE 0xFFFFFFFFu
#define PLT_SIZE_BUCKETS 10

/* Wait and acquire results. */
#define PLT_WAIT_TIMEOUT 1u
#define PLT_WAIT_SIGNALED 2u
#define PLT_WAIT_ABANDONED 3u

/* Process-wide resource counters, copied out by PltGetResourceStats. */
typedef struct PLT_RESOURCE_STATS {
    uint32_t AllocCount;
    uint32_t Reserved1;
    uint64_t AllocBytes;
    uint32_t LiveAllocCount;
    uint32_t Reserved2;
    uint64_t LiveAllocBytes;
    uint32_t AllocBySize[PLT_SIZE_BUCKETS];
    uint32_t LiveAllocBySize[PLT_SIZE_BUCKETS];
    uint32_t LookasideListCount;
    uint32_t LiveLookasideListCount;
    uint32_t UntaggedAllocCount;
    uint32_t TagMismatchCount;
    uint32_t RwSpinLockCount;
    uint32_t LiveRwSpinLockCount;
    uint32_t RwLockCount;
    uint32_t LiveRwLockCount;
    uint32_t FastLockCount;
    uint32_t LiveFastLockCount;
    uint32_t EventCount;
    uint32_t LiveEventCount;
    uint32_t MutexCount;
    uint32_t LiveMutexCount;
    uint32_t CriticalSectionCount;
    uint32_t LiveCriticalSectionCount;
    uint32_t FileCount;
    uint32_t LiveFileCount;
    uint32_t ThreadCount;
    uint32_t LiveThreadCount;
    uint32_t ProcessCount;
    uint32_t LiveProcessCount;
} PLT_RESOURCE_STATS;

#ifdef __cplusplus
#define ZENDRA_LAYOUT(cond) static_assert(cond, #cond)
#else
#define ZENDRA_LAYOUT(cond) _Static_assert(cond, #cond)
#endif

ZENDRA_LAYOUT(sizeof(PLT_RESOURCE_STATS) == 200);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, AllocCount) == 0);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, Reserved1) == 4);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, AllocBytes) == 8);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, LiveAllocCount) == 16);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, Reserved2) == 20);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, LiveAllocBytes) == 24);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, AllocBySize) == 32);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, LiveAllocBySize) == 72);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, LookasideListCount) == 112);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, LiveLookasideListCount) == 116);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, UntaggedAllocCount) == 120);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, TagMismatchCount) == 124);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, RwSpinLockCount) == 128);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, LiveRwSpinLockCount) == 132);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, RwLockCount) == 136);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, LiveRwLockCount) == 140);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, FastLockCount) == 144);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, LiveFastLockCount) == 148);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, EventCount) == 152);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, LiveEventCount) == 156);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, MutexCount) == 160);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, LiveMutexCount) == 164);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, CriticalSectionCount) == 168);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, LiveCriticalSectionCount) == 172);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, FileCount) == 176);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, LiveFileCount) == 180);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, ThreadCount) == 184);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, LiveThreadCount) == 188);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, ProcessCount) == 192);
ZENDRA_LAYOUT(offsetof(PLT_RESOURCE_STATS, LiveProcessCount) == 196);

/* Tagged memory. The block is preceded by an 8-byte {tag, size} header. */
ZENDRA_API PLT_STATUS PltMalloc(void** out, uint32_t size, uint32_t flags, uint32_t tag);
ZENDRA_API PLT_STATUS PltFree(void** block, uint32_t tag);
ZENDRA_API PLT_STATUS PltGetResourceStats(PLT_RESOURCE_STATS* out);
ZENDRA_API PLT_STATUS UpdateMemoryUsage(uint32_t size, uint8_t increment);
ZENDRA_API PLT_STATUS PltGetMemoryPageSize(uint32_t* pageSize);

/* System error text; with a null buffer, *length receives the text length. */
ZENDRA_API PLT_STATUS PltGetSystemErrorMsg(uint32_t code, wchar_t* buffer, uint32_t* length);
ZENDRA_API PLT_STATUS PltInitEventLog(void);

/* Kernel-only notions kept as no-ops in user mode: always 0. */
ZENDRA_API PLT_STATUS GetPagePriority(void);
ZENDRA_API PLT_STATUS PltBugCheck(void);
ZENDRA_API PLT_STATUS PltCleanupConfig(void);
ZENDRA_API PLT_STATUS PltCrashMe(void);
ZENDRA_API PLT_STATUS PltGetLogLevel(void);
ZENDRA_API PLT_STATUS PltInitConfig(void);
ZENDRA_API PLT_STATUS PltInitMemory(void);
ZENDRA_API PLT_STATUS PltLowerFromSpinLockLevel(void);
ZENDRA_API PLT_STATUS PltRaiseToSpinLockLevel(void);

/* Logging is not implemented in this build: always 120. */
ZENDRA_API PLT_STATUS PltLogDbg(const wchar_t* format, ...);
ZENDRA_API PLT_STATUS PltLogError(const wchar_t* format, ...);
ZENDRA_API PLT_STATUS PltLogFatal(const wchar_t* format, ...);
ZENDRA_API PLT_STATUS PltLogInfo(const wchar_t* format, ...);
ZENDRA_API PLT_STATUS PltLogWarning(const wchar_t* format, ...);

/* Not implemented in this build: always 120. */
ZENDRA_API PLT_STATUS PltSetLogLevel(uint32_t level);
ZENDRA_API PLT_STATUS PltIssueATAIdentifyCmdEx(void);
ZENDRA_API PLT_STATUS PltIssueATAWriteUncorrectableExtCmd(void);

ZENDRA_API uint32_t Dummy(uint32_t x);
/* SMART write counters are not supported: always 50. */
ZENDRA_API PLT_STATUS PltGetSMARTAttribsWrites(void);

#ifdef __cplusplus
}
#endif

#endif /* ZENDRA_PLATFORM_H */
