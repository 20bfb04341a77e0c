// Work-item pools: creation, queueing, removal and deletion. The worker loop
// and the grow step are in pool_worker.cpp.
#include <string.h>

#include <zendra/os.h>
#include <zendra/platform.h>

#include "platform/counters.h"
#include "platform/pool.h"
#include "platform/pool_internal.h"
#include "platform/status.h"
#include "platform/sync_internal.h"

using namespace zendra;

namespace {

constexpr uint32_t kItemsPerThread = 100;
constexpr uint32_t kTeardownBudgetMs = 20;

PLT_WORK_ITEM* ItemOf(ListLink* link) {
    return reinterpret_cast<PLT_WORK_ITEM*>(reinterpret_cast<char*>(link) -
                                            offsetof(PLT_WORK_ITEM, next));
}

void ReturnItem(PLT_WORK_ITEM_POOL* pool, PLT_WORK_ITEM* item) {
    PltFreeToLookasideList(&pool->items, item);
}

// Unlinks queued items from the tail without running them.
void DiscardQueue(PLT_WORK_ITEM_POOL* pool) {
    for (;;) {
        EnterCriticalSection(&pool->queueLock);
        ListLink* link = ListPopBack(&pool->queue);
        if (link != nullptr) __atomic_fetch_sub(&pool->pending, 1u, __ATOMIC_ACQ_REL);
        LeaveCriticalSection(&pool->queueLock);
        if (link == nullptr) return;
        ReturnItem(pool, ItemOf(link));
    }
}

// Frees what a pool owns once its workers are gone. Parts never made (a
// pool whose creation failed half-way) are skipped.
void FreePoolParts(PLT_WORK_ITEM_POOL* pool, bool lockMade) {
    PltFreeLookasideList(&pool->items);
    if (pool->arguments != nullptr) {
        void* arguments = pool->arguments;
        PltFree(&arguments, kPoolTag);
    }
    if (pool->wake != nullptr) CloseCounted(pool->wake, Pair::Event);
    if (lockMade) DeleteCountedCriticalSection(&pool->queueLock);
    void* memory = pool;
    PltFree(&memory, kPoolTag);
}

// The record, its event, its item list, its lock and the argument array; the
// workers are started by the caller. False leaves the pool to TearDown.
bool BuildPool(PLT_WORK_ITEM_POOL* pool, uint32_t initial, uint32_t maximum, uint32_t priority,
               bool* lockMade) {
    pool->maximumThreads = maximum;
    pool->initialThreads = initial;
    pool->wake = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (pool->wake == nullptr) return false;
    CountCreated(Pair::Event);
    uint64_t depth = uint64_t{kItemsPerThread} * maximum;
    if (PltInitLookasideList(&pool->items, sizeof(PLT_WORK_ITEM),
                             depth < PLT_LOOKASIDE_MAX_DEPTH ? static_cast<uint32_t>(depth)
                                                             : PLT_LOOKASIDE_MAX_DEPTH,
                             PLT_NO_LIMIT, 0, nullptr, 16, kPoolTag) != kOk)
        return false;
    InitCountedCriticalSection(&pool->queueLock);
    *lockMade = true;
    ListInit(&pool->queue);
    pool->stopping = 0;
    pool->priority = priority;
    void* arguments = nullptr;
    if (PltMalloc(&arguments, sizeof(PLT_WORKER_ARGUMENT) * maximum, 16, kPoolTag) != kOk)
        return false;
    memset(arguments, 0, sizeof(PLT_WORKER_ARGUMENT) * maximum);
    pool->arguments = static_cast<PLT_WORKER_ARGUMENT*>(arguments);
    return true;
}

}  // namespace

namespace zendra {

void SetStopping(PLT_WORK_ITEM_POOL* pool, uint8_t value) {
    EnterCriticalSection(&pool->queueLock);
    __atomic_store_n(&pool->stopping, value, __ATOMIC_SEQ_CST);
    LeaveCriticalSection(&pool->queueLock);
    SetEvent(pool->wake);
}

PLT_STATUS ShutdownWait(PLT_WORK_ITEM_POOL* pool, uint32_t budgetMs) {
    // Every occupied slot is visited: the live count can lag behind the slots
    // while a worker retires, and a worker left running would outlive the
    // pool. A worker that retired before stopping was set has already closed
    // its handle and cleared its slot under the lock.
    PLT_STATUS lastError = kOk;
    uint64_t waited = 0;
    bool overBudget = false;
    for (uint32_t slot = 0; slot < pool->maximumThreads; ++slot) {
        EnterCriticalSection(&pool->queueLock);
        HANDLE thread = pool->threads[slot];
        LeaveCriticalSection(&pool->queueLock);
        if (thread == nullptr) continue;
        ULONGLONG start = GetTickCount64();
        DWORD outcome = WaitForSingleObject(thread, overBudget ? 1 : budgetMs);
        if (!overBudget) waited += GetTickCount64() - start;
        if (outcome == WAIT_FAILED) lastError = GetLastError();
        if (outcome == WAIT_TIMEOUT) {
            // The budget has run out: workers take no more items, and only
            // one running a callback is ended by force. Any other holds the
            // queue or an item-list lock at most for a moment and then leaves;
            // ending it there would leave that lock held for good.
            SetStopping(pool, kNoMoreItems);
            uint32_t running = kInCallback;
            if (__atomic_compare_exchange_n(&pool->arguments[slot].state, &running, kClaimed, false,
                                            __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) {
                if (overBudget)
                    TerminateThread(thread, 0xFFFFFFFFu);
                else
                    PltTerminateThread(thread);
            } else {
                while (WaitForSingleObject(thread, 100) == WAIT_TIMEOUT) SetEvent(pool->wake);
            }
        }
        // Ended, left or terminated: its handle is closed and its slot freed.
        ForgetWorker(pool, slot);
        if (budgetMs != PLT_INFINITE && waited > budgetMs) overBudget = true;
    }
    return lastError;
}

void DestroyPool(PLT_WORK_ITEM_POOL* pool, uint32_t timeoutMs) {
    SetStopping(pool, kDraining);
    ShutdownWait(pool, timeoutMs);
    FreePoolParts(pool, true);
}

}  // namespace zendra

extern "C" PLT_STATUS PltInitWorkItemPool(PLT_WORK_ITEM_POOL** out, uint32_t initialThreads,
                                          uint32_t maximumThreads, uint32_t priority) {
    if (out == nullptr) return kInvalidParameter;
    *out = nullptr;
    if (initialThreads == 0 || maximumThreads == 0 || maximumThreads < initialThreads)
        return kInvalidParameter;
    uint64_t bytes =
        offsetof(PLT_WORK_ITEM_POOL, threads) + uint64_t{sizeof(HANDLE)} * maximumThreads;
    uint64_t argumentBytes = uint64_t{sizeof(PLT_WORKER_ARGUMENT)} * maximumThreads;
    if (bytes > 0xFFFFFFFFu || argumentBytes > 0xFFFFFFFFu) return kInvalidParameter;
    void* memory = nullptr;
    // A missing pool record is reported as a bad argument, not as 8.
    if (PltMalloc(&memory, static_cast<uint32_t>(bytes), 16, kPoolTag) != kOk)
        return kInvalidParameter;
    memset(memory, 0, static_cast<size_t>(bytes));
    auto* pool = static_cast<PLT_WORK_ITEM_POOL*>(memory);

    bool lockMade = false;
    bool ready = BuildPool(pool, initialThreads, maximumThreads, priority, &lockMade);
    for (uint32_t slot = 0; ready && slot < initialThreads; ++slot) {
        ready = StartWorker(pool, slot) == kOk;
    }
    if (!ready) {
        // Creation failures are not reported: the caller sees a null pool.
        if (lockMade) {
            SetStopping(pool, kDraining);
            ShutdownWait(pool, kTeardownBudgetMs);
        }
        FreePoolParts(pool, lockMade);
        return kOk;
    }
    *out = pool;
    return kOk;
}

extern "C" PLT_STATUS PltDeleteWorkItemPool(PLT_WORK_ITEM_POOL* pool, uint8_t runPending,
                                            uint32_t timeoutMs) {
    if (pool == nullptr) return kInvalidParameter;
    SetStopping(pool, kDraining);
    if (!runPending) DiscardQueue(pool);
    DestroyPool(pool, timeoutMs);
    return kOk;
}

extern "C" PLT_STATUS PltAddWorkItem(PLT_WORK_ITEM_POOL* pool, PLT_WORK_ITEM** handle,
                                     PLT_WORK_ITEM_ROUTINE callback, uint64_t argument1,
                                     uint64_t argument2, uint8_t toFront) {
    if (handle != nullptr) *handle = nullptr;
    if (pool == nullptr) return kInvalidParameter;
    if (__atomic_load_n(&pool->stopping, __ATOMIC_ACQUIRE)) return kPoolStopping;
    auto* item = static_cast<PLT_WORK_ITEM*>(PltAllocateFromLookasideList(&pool->items));
    if (item == nullptr) return kNoMemory;
    item->callback = callback;
    item->argument1 = argument1;
    item->argument2 = argument2;
    item->next = item->previous = nullptr;
    // The handle is written before a worker can see the item, so that it may
    // live in memory the callback releases.
    if (handle != nullptr) *handle = item;

    EnterCriticalSection(&pool->queueLock);
    // Decided again under the lock: deletion sets stopping under it before it
    // discards the queue, so an item queued here is never left behind.
    if (__atomic_load_n(&pool->stopping, __ATOMIC_ACQUIRE)) {
        LeaveCriticalSection(&pool->queueLock);
        if (handle != nullptr) *handle = nullptr;
        item->callback = nullptr;
        ReturnItem(pool, item);
        return kPoolStopping;
    }
    __atomic_fetch_add(&pool->pending, 1u, __ATOMIC_ACQ_REL);
    auto* link = reinterpret_cast<ListLink*>(&item->next);
    if (toFront)
        ListPushFront(&pool->queue, link);
    else
        ListPushBack(&pool->queue, link);
    GrowPool(pool);  // its status is not the caller's concern
    // The wake event is only for workers that announced a wait under this
    // lock: one that announces later sees the item before it waits.
    bool wake = pool->sleepers != 0;
    LeaveCriticalSection(&pool->queueLock);
    if (wake) SetEvent(pool->wake);
    return kOk;
}

extern "C" PLT_STATUS PltRemoveWorkItem(PLT_WORK_ITEM_POOL* pool, PLT_WORK_ITEM* item) {
    if (pool == nullptr || item == nullptr) return kInvalidParameter;
    EnterCriticalSection(&pool->queueLock);
    // Already taken, run or removed: nothing to do.
    if (item->callback == nullptr || (item->next == nullptr && item->previous == nullptr)) {
        LeaveCriticalSection(&pool->queueLock);
        return kOk;
    }
    ListUnlink(reinterpret_cast<ListLink*>(&item->next));
    item->next = item->previous = nullptr;
    __atomic_fetch_sub(&pool->pending, 1u, __ATOMIC_ACQ_REL);
    LeaveCriticalSection(&pool->queueLock);
    item->callback = nullptr;
    ReturnItem(pool, item);
    return kOk;
}
