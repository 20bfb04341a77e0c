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

/* 0 on success, otherwise a Windows system error code: one of the codes
 * below, or the GetLastError() value of the Win32 call that failed, passed
 * through unchanged. Each export's comment names the codes it returns. */
typedef uint32_t PLT_STATUS;

/* Comments in these headers name the codes without the PLT_STATUS_ prefix. */
#define PLT_STATUS_SUCCESS 0u
#define PLT_STATUS_INVALID_HANDLE 6u     /* free before any allocation; null bus */
#define PLT_STATUS_NO_MEMORY 8u          /* heap exhausted, or no free list entry */
#define PLT_STATUS_UNCONVERTIBLE_TEXT 9u /* the C runtime's locale cannot convert it */
#define PLT_STATUS_INVALID_DATA 13u      /* a bad hexadecimal digit */
#define PLT_STATUS_BAD_LENGTH 24u        /* a module name part does not fit */
#define PLT_STATUS_NOT_SUPPORTED 50u
#define PLT_STATUS_INVALID_PARAMETER 87u
#define PLT_STATUS_BUFFER_OVERFLOW 111u /* a conversion does not fit */
#define PLT_STATUS_NOT_IMPLEMENTED 120u
#define PLT_STATUS_NOT_FOUND 1168u
#define PLT_STATUS_INDEX_OUT_OF_RANGE 1295u /* message bus type, action or slot room */
#define PLT_STATUS_DEVICE_REMOVED 1617u     /* remove lock being removed */
#define PLT_STATUS_POOL_STOPPING 0xFFFFFFFFu
/* The socket accept loop ended because its listener was closed. */
#define PLT_STATUS_ACCEPT_ENDED 0xE001000Au
/* A directory path without a single separator (a COM-style code). */
#define PLT_STATUS_NO_DIRECTORY 0x8004016Bu

/* Four characters, first one in the lowest byte: PLT_TAG('Q','Z','W','I'). */
#define PLT_TAG(a, b, c, d)                                                                    \
    ((uint32_t)(uint8_t)(a) | ((uint32_t)(uint8_t)(b) << 8) | ((uint32_t)(uint8_t)(c) << 16) | \
     ((uint32_t)(uint8_t)(d) << 24))

#define PLT_ALLOC_ZERO 1u /* PltMalloc flag: zero-fill the block */
#define PLT_INFINITE 0xFFFFFFFFu
/* Buckets of AllocBySize and LiveAllocBySize, numbered from 0 to
 * PLT_SIZE_BUCKETS - 1 by requested size: at most 32, 128, 512, 1024, 4096,
 * 32768, 131072, 262144, 1048576 bytes, and above. */
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

/* Layout checks of the records that cross the boundary. C99 has no static
 * assertion: there a false condition gives an array of negative size. */
#if defined(__cplusplus) && __cplusplus >= 201103L
#define ZENDRA_LAYOUT(cond) static_assert(cond, #cond)
#elif !defined(__cplusplus) && defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define ZENDRA_LAYOUT(cond) _Static_assert(cond, #cond)
#else
/* __COUNTER__ rather than __LINE__: two headers may check on the same line. */
#define ZENDRA_LAYOUT_NAME2(n) zendra_layout_check_##n
#define ZENDRA_LAYOUT_NAME(n) ZENDRA_LAYOUT_NAME2(n)
#define ZENDRA_LAYOUT(cond) typedef char ZENDRA_LAYOUT_NAME(__COUNTER__)[(cond) ? 1 : -1]
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

/* Tagged memory. The block is preceded by an 8-byte {tag, size} header.
 * PltMalloc: INVALID_PARAMETER for a null out; NO_MEMORY (*out null). */
ZENDRA_API PLT_STATUS PltMalloc(void** out, uint32_t size, uint32_t flags, uint32_t tag);
/* Sets *block to null on success. INVALID_HANDLE before the process's first
 * allocation; INVALID_PARAMETER for a null block or *block; HeapFree's error
 * (*block kept). A tag other than the block's is counted, never refused. */
ZENDRA_API PLT_STATUS PltFree(void** block, uint32_t tag);
/* Copies the counters field by field; 0, or INVALID_PARAMETER for a null out. */
ZENDRA_API PLT_STATUS PltGetResourceStats(PLT_RESOURCE_STATS* out);
/* Moves only the size's bucket counters (up both, or down the live one); 0. */
ZENDRA_API PLT_STATUS UpdateMemoryUsage(uint32_t size, uint8_t increment);
/* INVALID_PARAMETER for a null pageSize; IsWow64Process's error (4096 stored). */
ZENDRA_API PLT_STATUS PltGetMemoryPageSize(uint32_t* pageSize);

/* System error text; with a null buffer, *length receives the text length.
 * FormatMessageW's error on failure. */
ZENDRA_API PLT_STATUS PltGetSystemErrorMsg(uint32_t code, wchar_t* buffer, uint32_t* length);
/* Always 0. */
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

/* Logging is not implemented in this build: always NOT_IMPLEMENTED. */
ZENDRA_API PLT_STATUS PltLogDbg(const wchar_t* format, ...);
ZENDRA_API PLT_STATUS PltLogError(const wchar_t* format, ...);
ZENDRA_API PLT_STATUS PltLogFatal(const wchar_t* format, ...);
ZENDRA_API PLT_STATUS PltLogInfo(const wchar_t* format, ...);
ZENDRA_API PLT_STATUS PltLogWarning(const wchar_t* format, ...);

/* Not implemented in this build: always NOT_IMPLEMENTED. */
ZENDRA_API PLT_STATUS PltSetLogLevel(uint32_t level);
ZENDRA_API PLT_STATUS PltIssueATAIdentifyCmdEx(void);
ZENDRA_API PLT_STATUS PltIssueATAWriteUncorrectableExtCmd(void);

/* x * 100 in 32-bit arithmetic; not a status. */
ZENDRA_API uint32_t Dummy(uint32_t x);
/* SMART write counters are not supported: always NOT_SUPPORTED. */
ZENDRA_API PLT_STATUS PltGetSMARTAttribsWrites(void);

/* ---- mutexes, fast locks, spin locks and events ----
 * Callers own the storage; init fills it in place, delete leaves it stale.
 * A null object given to init, delete, set, pulse, reset or to the fast and
 * spin lock calls returns 0 and does nothing. Failures return the Win32
 * call's error (GetLastError()); no other code is returned. */

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
 * returns 0 like an acquisition. A failed wait returns its error, *result
 * untouched. Also exported as PltAcquireEvent. */
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
 * judge success by lock->event being non-null. CreateEventW's error on
 * failure; a null lock returns 0. */
ZENDRA_API PLT_STATUS PltInitRemoveLock(PLT_REMOVE_LOCK* lock);
/* DEVICE_REMOVED once release-and-wait has been called;
 * INVALID_PARAMETER for a null lock. */
ZENDRA_API PLT_STATUS PltAcquireRemoveLock(PLT_REMOVE_LOCK* lock);
/* INVALID_PARAMETER for a null lock; SetEvent's error. */
ZENDRA_API PLT_STATUS PltReleaseRemoveLock(PLT_REMOVE_LOCK* lock);
/* The owner's last call: drops its own acquisition and waits for the others.
 * A time-out is not reported; a second call returns 1 at once.
 * INVALID_PARAMETER for a null lock; a failed wait returns its error. */
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

/* INVALID_PARAMETER for a null list, entrySize 0 or depth 0; NO_MEMORY when
 * the first chunk cannot be allocated. A caller's firstChunk must
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

/* A work item's callback. Its return value is ignored. */
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
    uint32_t state; /* private: whether the worker runs a callback */
} PLT_WORKER_ARGUMENT;

/* priority is one of PRIO_IDLE, PRIO_LOW, PRIO_NORMAL or PRIO_HIGH (os.h);
 * any other value runs the workers at normal priority. INVALID_PARAMETER for
 * a null pool, initialThreads 0, maximumThreads 0 or below initialThreads,
 * or when the pool record cannot be allocated (*pool null). Any later failure
 * returns 0 with *pool null: test the pointer, not only the status. */
ZENDRA_API PLT_STATUS PltInitWorkItemPool(PLT_WORK_ITEM_POOL** pool, uint32_t initialThreads,
                                          uint32_t maximumThreads, uint32_t priority);
/* runPending 0 discards queued items uncalled; otherwise the workers drain the
 * queue within the time-out (ms, PLT_INFINITE for none). Workers still running
 * then are terminated. INVALID_PARAMETER for a null pool, else 0. */
ZENDRA_API PLT_STATUS PltDeleteWorkItemPool(PLT_WORK_ITEM_POOL* pool, uint8_t runPending,
                                            uint32_t timeoutMs);
/* *item (optional) is always written: the handle, or null on failure.
 * INVALID_PARAMETER for a null pool; POOL_STOPPING once deletion
 * has begun; NO_MEMORY when no item entry can be had. */
ZENDRA_API PLT_STATUS PltAddWorkItem(PLT_WORK_ITEM_POOL* pool, PLT_WORK_ITEM** item,
                                     PLT_WORK_ITEM_ROUTINE callback, uint64_t argument1,
                                     uint64_t argument2, uint8_t toFront);
/* Only for items known to be still queued; an item already taken is left
 * (0). INVALID_PARAMETER for a null pool or item. */
ZENDRA_API PLT_STATUS PltRemoveWorkItem(PLT_WORK_ITEM_POOL* pool, PLT_WORK_ITEM* item);
/* Worker thread entry, started by the pool; not for callers. */
ZENDRA_API uint32_t PltThreadFunc(PLT_WORKER_ARGUMENT* argument);

/* ---- start-up and shutdown ----
 * Calls nest; the first PltInit builds the default pool (4 workers, up to 8)
 * and the last PltCleanup drains it for at most 1000 ms. PltInit returns
 * INVALID_PARAMETER when the pool record cannot be allocated; any other
 * failure to build the pool returns 0 and the library runs without it.
 * PltCleanup returns INVALID_PARAMETER when the last call finds no default
 * pool; nested calls return 0. */
ZENDRA_API PLT_STATUS PltInit(void);
ZENDRA_API PLT_STATUS PltCleanup(void);

#ifdef __cplusplus
}
#endif

#endif /* ZENDRA_PLATFORM_H */
