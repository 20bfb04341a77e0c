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
#define PLT_TAG(a, b, c, d)                                                                    \
    ((uint32_t)(uint8_t)(a) | ((uint32_t)(uint8_t)(b) << 8) | ((uint32_t)(uint8_t)(c) << 16) | \
     ((uint32_t)(uint8_t)(d) << 24))

#define PLT_ALLOC_ZERO 1u /* PltMalloc flag: zero-fill the block */
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

/* ---- mutexes, fast locks, spin locks and events ----
 * Callers own the storage; init fills it in place, delete leaves it stale. */

typedef struct PLT_MUTEX {
    HANDLE handle;
} PLT_MUTEX;

typedef struct PLT_EVENT {
    HANDLE handle;
} PLT_EVENT;

/* Both are a critical section with spin count 1024; they differ only in the
 * counters they move. */
typedef CRITICAL_SECTION PLT_FAST_LOCK;
typedef CRITICAL_SECTION PLT_SPIN_LOCK;

#define PLT_EVENT_MANUAL_RESET 1 /* any other kind is auto-reset */

ZENDRA_LAYOUT(sizeof(PLT_MUTEX) == 8);
ZENDRA_LAYOUT(sizeof(PLT_EVENT) == 8);
ZENDRA_LAYOUT(sizeof(PLT_FAST_LOCK) == 40);

ZENDRA_API PLT_STATUS PltInitializeMutex(PLT_MUTEX* mutex, const wchar_t* name);
/* *result: PLT_WAIT_TIMEOUT, PLT_WAIT_SIGNALED or PLT_WAIT_ABANDONED; a time-out
 * returns 0 like an acquisition. */
ZENDRA_API PLT_STATUS PltAcquireMutex(PLT_MUTEX* mutex, uint32_t timeoutMs, uint32_t* result);
ZENDRA_API PLT_STATUS PltReleaseMutex(PLT_MUTEX* mutex);
ZENDRA_API PLT_STATUS PltDeleteMutex(PLT_MUTEX* mutex);

ZENDRA_API PLT_STATUS PltInitializeFastLock(PLT_FAST_LOCK* lock);
ZENDRA_API PLT_STATUS PltAcquireFastLock(PLT_FAST_LOCK* lock);
ZENDRA_API PLT_STATUS PltReleaseFastLock(PLT_FAST_LOCK* lock);
ZENDRA_API PLT_STATUS PltDeleteFastLock(PLT_FAST_LOCK* lock);

ZENDRA_API PLT_STATUS PltInitializeSpinLock(PLT_SPIN_LOCK* lock);
ZENDRA_API PLT_STATUS PltAcquireSpinLock(PLT_SPIN_LOCK* lock);
ZENDRA_API PLT_STATUS PltReleaseSpinLock(PLT_SPIN_LOCK* lock);
ZENDRA_API PLT_STATUS PltDeleteSpinLock(PLT_SPIN_LOCK* lock);

ZENDRA_API PLT_STATUS PltInitializeEvent(PLT_EVENT* event, int32_t kind, int32_t signaled,
                                         const wchar_t* name);
ZENDRA_API PLT_STATUS PltAcquireEvent(PLT_EVENT* event, uint32_t timeoutMs, uint32_t* result);
ZENDRA_API PLT_STATUS PltSetEvent(PLT_EVENT* event);
ZENDRA_API PLT_STATUS PltReleaseEvent(PLT_EVENT* event);
ZENDRA_API PLT_STATUS PltPulseEvent(PLT_EVENT* event);
ZENDRA_API PLT_STATUS PltResetEvent(PLT_EVENT* event);
ZENDRA_API PLT_STATUS PltDeleteEvent(PLT_EVENT* event);

/* ---- reader-writer locks ----
 * Acquisition writes a ticket that the caller hands back on release. These
 * calls do not follow the status convention; callers ignore their results. */

#define PLT_TICKET_NONE 0u
#define PLT_TICKET_READ 1u
#define PLT_TICKET_READ_BY_WRITER 2u
#define PLT_TICKET_WRITE 3u
#define PLT_TICKET_WRITE_AGAIN 4u

typedef struct PLT_RW_SPIN_LOCK {
    CRITICAL_SECTION lock; /* held by a writer for the whole of its write */
    uint32_t readers;
    uint32_t writers; /* holding or waiting, recursive holds included */
    uint64_t owner;   /* thread id of the writer, 0 when none */
} PLT_RW_SPIN_LOCK;

typedef struct PLT_RW_LOCK {
    HANDLE mutex;     /* held by a writer for the whole of its write */
    HANDLE noReaders; /* auto-reset; signalled while there are no readers */
    uint32_t readers;
    uint32_t writers;
    uint64_t owner;
} PLT_RW_LOCK;

ZENDRA_LAYOUT(offsetof(PLT_RW_SPIN_LOCK, readers) == 40);
ZENDRA_LAYOUT(offsetof(PLT_RW_SPIN_LOCK, writers) == 44);
ZENDRA_LAYOUT(offsetof(PLT_RW_SPIN_LOCK, owner) == 48);
ZENDRA_LAYOUT(sizeof(PLT_RW_SPIN_LOCK) == 56);
ZENDRA_LAYOUT(offsetof(PLT_RW_LOCK, noReaders) == 8);
ZENDRA_LAYOUT(offsetof(PLT_RW_LOCK, readers) == 16);
ZENDRA_LAYOUT(offsetof(PLT_RW_LOCK, writers) == 20);
ZENDRA_LAYOUT(offsetof(PLT_RW_LOCK, owner) == 24);
ZENDRA_LAYOUT(sizeof(PLT_RW_LOCK) == 32);

ZENDRA_API uint32_t InitializeReadWriteSpinLock(PLT_RW_SPIN_LOCK* lock);
ZENDRA_API uint32_t DestroyReadWriteSpinLock(PLT_RW_SPIN_LOCK* lock);
ZENDRA_API void AcquireReadSpinLock(PLT_RW_SPIN_LOCK* lock, uint32_t* ticket);
ZENDRA_API uint32_t AcquireWriteSpinLock(PLT_RW_SPIN_LOCK* lock, uint32_t* ticket);
ZENDRA_API void ReleaseReadWriteSpinLock(PLT_RW_SPIN_LOCK* lock, uint32_t* ticket);

ZENDRA_API uint32_t InitializeReadWriteLock(PLT_RW_LOCK* lock);
ZENDRA_API uint32_t DestroyReadWriteLock(PLT_RW_LOCK* lock);
ZENDRA_API uint32_t AcquireReadLock(PLT_RW_LOCK* lock, uint32_t* ticket);
ZENDRA_API uint32_t AcquireWriteLock(PLT_RW_LOCK* lock, uint32_t* ticket);
ZENDRA_API uint32_t ReleaseReadWriteLock(PLT_RW_LOCK* lock, uint32_t* ticket);

/* ---- remove locks ---- */

typedef struct PLT_REMOVE_LOCK {
    uint32_t removing; /* 1 once release-and-wait has been called */
    uint32_t count;    /* outstanding acquisitions; starts at 0, not 1 */
    HANDLE event;      /* set by the last release while removing */
} PLT_REMOVE_LOCK;

ZENDRA_LAYOUT(offsetof(PLT_REMOVE_LOCK, count) == 4);
ZENDRA_LAYOUT(offsetof(PLT_REMOVE_LOCK, event) == 8);
ZENDRA_LAYOUT(sizeof(PLT_REMOVE_LOCK) == 16);

/* Returns the low 32 bits of the new event handle on success (non-zero!):
 * judge success by lock->event being non-null. */
ZENDRA_API PLT_STATUS PltInitRemoveLock(PLT_REMOVE_LOCK* lock);
ZENDRA_API PLT_STATUS PltAcquireRemoveLock(PLT_REMOVE_LOCK* lock);
ZENDRA_API PLT_STATUS PltReleaseRemoveLock(PLT_REMOVE_LOCK* lock);
/* The owner's last call: drops its own acquisition and waits for the others.
 * A time-out is not reported; a second call returns 1 at once. */
ZENDRA_API PLT_STATUS PltReleaseRemoveLockAndWait(PLT_REMOVE_LOCK* lock, uint32_t timeoutMs);

/* ---- lookaside lists ----
 * Fixed-size entries carved from chunks; each chunk carries a bitmap of the
 * entries handed out. The list record lives in caller storage. */

#define PLT_LOOKASIDE_MAX_DEPTH 8192u /* entries per chunk: the bitmap's size */
#define PLT_LOOKASIDE_CHUNK_HEADER 1048u
#define PLT_NO_LIMIT 0xFFFFFFFFu

typedef struct PLT_LOOKASIDE_CHUNK {
    struct PLT_LOOKASIDE_CHUNK* next;     /* next chunk, or the list head */
    struct PLT_LOOKASIDE_CHUNK* previous; /* previous chunk, or the list head */
    uint32_t inUse;                       /* entries of this chunk handed out */
    uint32_t reserved;                    /* zero */
    uint64_t bitmap[128];                 /* bit i of word w: entry 64w + i handed out */
    /* entry k follows at PLT_LOOKASIDE_CHUNK_HEADER + k * entry size */
} PLT_LOOKASIDE_CHUNK;

typedef struct PLT_LOOKASIDE_LIST {
    uint8_t unlocked;  /* non-zero: no lock, the caller serialises */
    uint8_t state;     /* private: 1 after a failed init, only the lock exists */
    uint16_t scanWord; /* private: no clear bit below this word of roomChunk */
    uint32_t entrySize;
    uint32_t perChunk; /* requested depth, capped at PLT_LOOKASIDE_MAX_DEPTH */
    uint32_t maxInUse; /* PLT_NO_LIMIT for none */
    uint32_t inUse;
    uint32_t chunks;
    uint32_t tag;
    uint32_t allocFlags;
    CRITICAL_SECTION lock;      /* initialised only when locked */
    PLT_LOOKASIDE_CHUNK* first; /* chunk list head, in order of creation */
    PLT_LOOKASIDE_CHUNK* last;
    /* Private: the oldest chunk with room and the chunk last looked up, with
     * their positions in the chunk list, so that allocation and free do not
     * walk every full chunk. Null when not known. */
    PLT_LOOKASIDE_CHUNK* roomChunk;
    PLT_LOOKASIDE_CHUNK* recentChunk;
    uint32_t roomIndex;
    uint32_t recentIndex;
} PLT_LOOKASIDE_LIST;

ZENDRA_LAYOUT(offsetof(PLT_LOOKASIDE_CHUNK, inUse) == 16);
ZENDRA_LAYOUT(offsetof(PLT_LOOKASIDE_CHUNK, reserved) == 20);
ZENDRA_LAYOUT(offsetof(PLT_LOOKASIDE_CHUNK, bitmap) == 24);
ZENDRA_LAYOUT(sizeof(PLT_LOOKASIDE_CHUNK) == PLT_LOOKASIDE_CHUNK_HEADER);
ZENDRA_LAYOUT(offsetof(PLT_LOOKASIDE_LIST, entrySize) == 4);
ZENDRA_LAYOUT(offsetof(PLT_LOOKASIDE_LIST, perChunk) == 8);
ZENDRA_LAYOUT(offsetof(PLT_LOOKASIDE_LIST, maxInUse) == 12);
ZENDRA_LAYOUT(offsetof(PLT_LOOKASIDE_LIST, inUse) == 16);
ZENDRA_LAYOUT(offsetof(PLT_LOOKASIDE_LIST, chunks) == 20);
ZENDRA_LAYOUT(offsetof(PLT_LOOKASIDE_LIST, tag) == 24);
ZENDRA_LAYOUT(offsetof(PLT_LOOKASIDE_LIST, allocFlags) == 28);
ZENDRA_LAYOUT(offsetof(PLT_LOOKASIDE_LIST, lock) == 32);
ZENDRA_LAYOUT(offsetof(PLT_LOOKASIDE_LIST, first) == 72);
ZENDRA_LAYOUT(offsetof(PLT_LOOKASIDE_LIST, last) == 80);
ZENDRA_LAYOUT(sizeof(PLT_LOOKASIDE_LIST) == 112);

/* entrySize 0 and depth 0 are refused with 87. A caller's firstChunk must
 * come from PltMalloc under the same tag and hold at least
 * 1048 + entrySize * min(depth, 8192) bytes: the list frees it like its own. */
ZENDRA_API PLT_STATUS PltInitLookasideList(PLT_LOOKASIDE_LIST* list, uint32_t entrySize,
                                           uint32_t depth, uint32_t maxInUse, uint8_t unlocked,
                                           void* firstChunk, uint32_t allocFlags, uint32_t tag);
/* The lowest free entry of the oldest chunk with room; null at the limit or
 * when memory is exhausted. */
ZENDRA_API void* PltAllocateFromLookasideList(PLT_LOOKASIDE_LIST* list);
/* Addresses outside every chunk, and entries already free, are ignored. */
ZENDRA_API void PltFreeToLookasideList(PLT_LOOKASIDE_LIST* list, void* entry);
/* Frees every chunk with no entry in use, the first one included. */
ZENDRA_API void PltCompactLookasideList(PLT_LOOKASIDE_LIST* list);
ZENDRA_API void PltFreeLookasideList(PLT_LOOKASIDE_LIST* list);

/* ---- work-item pools ----
 * Worker threads that grow with the backlog up to a maximum. Workers take the
 * most recently queued item first; an item queued with toFront set goes to
 * the far end and runs after every item already queued. */

typedef uint32_t (*PLT_WORK_ITEM_ROUTINE)(uint64_t argument1, uint64_t argument2);

/* One 40-byte entry of the pool's item list; its address is the handle. */
typedef struct PLT_WORK_ITEM {
    PLT_WORK_ITEM_ROUTINE callback;
    uint64_t argument1;
    uint64_t argument2;
    struct PLT_WORK_ITEM* next; /* queue links; both null once taken */
    struct PLT_WORK_ITEM* previous;
} PLT_WORK_ITEM;

ZENDRA_LAYOUT(sizeof(PLT_WORK_ITEM) == 40);
ZENDRA_LAYOUT(offsetof(PLT_WORK_ITEM, next) == 24);

typedef struct PLT_WORK_ITEM_POOL PLT_WORK_ITEM_POOL;

/* Argument of a worker thread: the pool and the worker's slot. */
typedef struct PLT_WORKER_ARGUMENT {
    PLT_WORK_ITEM_POOL* pool;
    uint32_t slot;
} PLT_WORKER_ARGUMENT;

/* 87 for bad counts or when the pool record cannot be had. Any later
 * failure returns 0 with *pool null: test the pointer, not only the status. */
ZENDRA_API PLT_STATUS PltInitWorkItemPool(PLT_WORK_ITEM_POOL** pool, uint32_t initialThreads,
                                          uint32_t maximumThreads, uint32_t priority);
/* runPending 0 discards queued items uncalled; otherwise the workers drain the
 * queue within the time-out (ms, PLT_INFINITE for none). Workers still running
 * then are terminated. */
ZENDRA_API PLT_STATUS PltDeleteWorkItemPool(PLT_WORK_ITEM_POOL* pool, uint8_t runPending,
                                            uint32_t timeoutMs);
/* *item (optional) is always written: the handle, or null on failure.
 * 0xFFFFFFFF once deletion has begun. */
ZENDRA_API PLT_STATUS PltAddWorkItem(PLT_WORK_ITEM_POOL* pool, PLT_WORK_ITEM** item,
                                     PLT_WORK_ITEM_ROUTINE callback, uint64_t argument1,
                                     uint64_t argument2, uint8_t toFront);
/* Only for items known to be still queued; an item already taken is left. */
ZENDRA_API PLT_STATUS PltRemoveWorkItem(PLT_WORK_ITEM_POOL* pool, PLT_WORK_ITEM* item);
/* Worker thread entry. */
ZENDRA_API uint32_t PltThreadFunc(PLT_WORKER_ARGUMENT* argument);

/* ---- start-up and shutdown ----
 * Calls nest; the first PltInit builds the default pool (4 workers, up to 8)
 * and the last PltCleanup drains it for at most 1000 ms. */
ZENDRA_API PLT_STATUS PltInit(void);
ZENDRA_API PLT_STATUS PltCleanup(void);

#ifdef __cplusplus
}
#endif

#endif /* ZENDRA_PLATFORM_H */
