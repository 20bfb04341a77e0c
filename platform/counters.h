// The process-wide resource counters. Every object the library creates moves
// a created counter and a live counter, each with one atomic operation.
#pragma once

#include <zendra/platform.h>

namespace zendra {

extern PLT_RESOURCE_STATS g_stats;

// Counters that come in (created, live) pairs, named by the created field.
enum class Pair : uint32_t {
    Lookaside = offsetof(PLT_RESOURCE_STATS, LookasideListCount),
    RwSpinLock = offsetof(PLT_RESOURCE_STATS, RwSpinLockCount),
    RwLock = offsetof(PLT_RESOURCE_STATS, RwLockCount),
    FastLock = offsetof(PLT_RESOURCE_STATS, FastLockCount),
    Event = offsetof(PLT_RESOURCE_STATS, EventCount),
    Mutex = offsetof(PLT_RESOURCE_STATS, MutexCount),
    CriticalSection = offsetof(PLT_RESOURCE_STATS, CriticalSectionCount),
    File = offsetof(PLT_RESOURCE_STATS, FileCount),
    Thread = offsetof(PLT_RESOURCE_STATS, ThreadCount),
    Process = offsetof(PLT_RESOURCE_STATS, ProcessCount),
};

inline uint32_t* CounterAt(uint32_t offset) {
    return reinterpret_cast<uint32_t*>(reinterpret_cast<char*>(&g_stats) + offset);
}

inline void Increment(uint32_t* counter) { __atomic_fetch_add(counter, 1u, __ATOMIC_RELAXED); }
inline void Decrement(uint32_t* counter) { __atomic_fetch_sub(counter, 1u, __ATOMIC_RELAXED); }

// One object of the pair's kind was created: total and live both go up.
inline void CountCreated(Pair pair) {
    uint32_t* total = CounterAt(static_cast<uint32_t>(pair));
    Increment(total);
    Increment(total + 1);
}

// One object of the pair's kind was destroyed: only the live counter moves.
inline void CountDestroyed(Pair pair) { Decrement(CounterAt(static_cast<uint32_t>(pair)) + 1); }

// Size bucket of a requested size, smallest bound first.
inline uint32_t SizeBucket(uint32_t size) {
    if (size <= 32) return 0;
    if (size <= 128) return 1;
    if (size <= 512) return 2;
    if (size <= 1024) return 3;
    if (size <= 4096) return 4;
    if (size <= 32768) return 5;
    if (size <= 131072) return 6;
    if (size <= 262144) return 7;
    if (size <= 1048576) return 8;
    return 9;
}

}  // namespace zendra
