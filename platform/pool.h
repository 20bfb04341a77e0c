// Internal view of a work-item pool.
#pragma once

#include <zendra/platform.h>

#include "platform/list.h"

struct PLT_WORK_ITEM_POOL {
    uint32_t maximumThreads;
    uint32_t initialThreads;  // also the floor below which workers never retire
    HANDLE wake;              // auto-reset
    CRITICAL_SECTION queueLock;
    PLT_LOOKASIDE_LIST items;  // 40-byte work items
    uint32_t pending;          // queued and not yet taken (atomic)
    uint32_t liveThreads;      // atomic
    zendra::ListLink queue;    // workers take from the tail
    uint8_t stopping;          // set once deletion begins, never cleared
    uint8_t spare;
    uint16_t sleepers;  // under the queue lock: workers that announced a wait
    uint32_t priority;
    PLT_WORKER_ARGUMENT* arguments;
    HANDLE threads[1];  // one slot per possible worker; null when free
};

// The counters show the record's size: 208 bytes and one handle per worker.
static_assert(offsetof(PLT_WORK_ITEM_POOL, threads) == 208, "fixed part of the pool record");

namespace zendra {

constexpr uint32_t kPoolTag = PLT_TAG('Q', 'Z', 'W', 'I');

// Stops the pool's workers within the budget and frees everything.
void DestroyPool(PLT_WORK_ITEM_POOL* pool, uint32_t timeoutMs);

// The default pool of PltInit, or null.
PLT_WORK_ITEM_POOL* DefaultPool();

}  // namespace zendra
