// The worker loop, the grow step and retirement.
#include <zendra/os.h>
#include <zendra/platform.h>

#include "os/priority.h"
#include "platform/counters.h"
#include "platform/pool_internal.h"
#include "platform/status.h"
#include "platform/sync_internal.h"

using namespace zendra;

namespace {

constexpr DWORD kWakeWaitMs = 10000;
constexpr int kSpinLooks = 2000;  // a few microseconds before blocking

bool Stopping(const PLT_WORK_ITEM_POOL* pool) {
    return __atomic_load_n(&pool->stopping, __ATOMIC_ACQUIRE) != 0;
}

uint32_t Pending(const PLT_WORK_ITEM_POOL* pool) {
    return __atomic_load_n(&pool->pending, __ATOMIC_ACQUIRE);
}

uint32_t Live(const PLT_WORK_ITEM_POOL* pool) {
    return __atomic_load_n(&pool->liveThreads, __ATOMIC_ACQUIRE);
}

// Under the queue lock. With fewer than two items pending, pending - 2 wraps,
// the target becomes the maximum and nobody retires: kept on purpose. The
// live count drops here, in the same hold of the lock, so that two workers
// never both retire on one count.
bool ShouldRetire(PLT_WORK_ITEM_POOL* pool) {
    uint32_t pending = Pending(pool);
    uint32_t live = Live(pool);
    if (pending >= live + 2) return false;
    uint32_t surplus = pending - 2;
    uint32_t floor = surplus > pool->initialThreads ? surplus : pool->initialThreads;
    uint32_t target = floor < pool->maximumThreads ? floor : pool->maximumThreads;
    if (live <= target) return false;
    __atomic_fetch_sub(&pool->liveThreads, 1u, __ATOMIC_ACQ_REL);
    return true;
}

bool NoMoreItems(const PLT_WORK_ITEM_POOL* pool) {
    return __atomic_load_n(&pool->stopping, __ATOMIC_ACQUIRE) == kNoMoreItems;
}

// Takes the item at the tail and, in the same hold of the queue lock, marks
// the worker as running a callback: once the shutdown budget has run out no
// worker starts one, and those already in one are known. When more items wait
// and another worker sleeps, that one is woken to share them.
PLT_WORK_ITEM* TakeTail(PLT_WORK_ITEM_POOL* pool, PLT_WORKER_ARGUMENT* self) {
    EnterCriticalSection(&pool->queueLock);
    ListLink* link = NoMoreItems(pool) ? nullptr : ListPopBack(&pool->queue);
    bool wakeAnother = false;
    if (link != nullptr) {
        link->next = link->prev = nullptr;
        __atomic_store_n(&self->state, uint32_t{kInCallback}, __ATOMIC_SEQ_CST);
        __atomic_fetch_sub(&pool->pending, 1u, __ATOMIC_ACQ_REL);
        wakeAnother = pool->sleepers != 0 && !ListEmpty(&pool->queue);
    }
    LeaveCriticalSection(&pool->queueLock);
    if (link == nullptr) return nullptr;
    if (wakeAnother) SetEvent(pool->wake);
    return reinterpret_cast<PLT_WORK_ITEM*>(reinterpret_cast<char*>(link) -
                                            offsetof(PLT_WORK_ITEM, next));
}

// Waits for work when the queue is empty: a short spin first, then an
// announced wait on the wake event, which an add signals only when someone
// announced. Announcing and the last look at the queue share one hold of the
// queue lock with the add's look at the sleepers, so no wake-up is lost.
void AwaitWork(PLT_WORK_ITEM_POOL* pool) {
    for (int spin = 0; spin < kSpinLooks && Pending(pool) == 0 && !Stopping(pool); ++spin)
        YieldProcessor();
    EnterCriticalSection(&pool->queueLock);
    bool wait = ListEmpty(&pool->queue) && !Stopping(pool);
    // A full count leaves this worker unannounced: it looks again soon instead.
    bool announced = wait && pool->sleepers != UINT16_MAX;
    if (announced) ++pool->sleepers;
    LeaveCriticalSection(&pool->queueLock);
    if (!wait) return;
    WaitForSingleObject(pool->wake, announced ? kWakeWaitMs : 1);
    if (!announced) return;
    EnterCriticalSection(&pool->queueLock);
    --pool->sleepers;
    LeaveCriticalSection(&pool->queueLock);
}

void Run(PLT_WORK_ITEM_POOL* pool, PLT_WORK_ITEM* item, PLT_WORKER_ARGUMENT* self) {
    PLT_WORK_ITEM_ROUTINE callback = item->callback;
    if (callback != nullptr) callback(item->argument1, item->argument2);
    uint32_t running = kInCallback;
    if (!__atomic_compare_exchange_n(&self->state, &running, uint32_t{kIdle}, false,
                                     __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) {
        // Claimed by the shutdown while the callback ran: it is about to end
        // this thread, which must not be holding any lock then.
        for (;;) Sleep(INFINITE);
    }
    item->callback = nullptr;
    PltFreeToLookasideList(&pool->items, item);
}

}  // namespace

namespace zendra {

PLT_STATUS StartWorker(PLT_WORK_ITEM_POOL* pool, uint32_t slot) {
    pool->arguments[slot].pool = pool;
    pool->arguments[slot].slot = slot;
    pool->arguments[slot].state = kIdle;
    PLT_STATUS status = PltCreateThread(reinterpret_cast<PLT_THREAD_ROUTINE>(&PltThreadFunc),
                                        &pool->arguments[slot], &pool->threads[slot], nullptr);
    if (status != kOk) return status;
    if (pool->threads[slot] == nullptr) return kNotFound;  // no thread and no error code
    __atomic_fetch_add(&pool->liveThreads, 1u, __ATOMIC_ACQ_REL);
    if (!SetThreadPriority(pool->threads[slot], ThreadPriorityOf(pool->priority)))
        return GetLastError();
    return kOk;
}

PLT_STATUS GrowPool(PLT_WORK_ITEM_POOL* pool) {
    uint32_t live = Live(pool);
    if (Stopping(pool) || live >= pool->maximumThreads || Pending(pool) < live + 2) return kOk;
    for (uint32_t slot = 0; slot < pool->maximumThreads; ++slot) {
        if (pool->threads[slot] == nullptr) return StartWorker(pool, slot);
    }
    return kNotFound;
}

void ForgetWorker(PLT_WORK_ITEM_POOL* pool, uint32_t slot) {
    EnterCriticalSection(&pool->queueLock);
    HANDLE thread = pool->threads[slot];
    pool->threads[slot] = nullptr;
    LeaveCriticalSection(&pool->queueLock);
    if (thread == nullptr) return;
    CloseCounted(thread, Pair::Thread);
    __atomic_fetch_sub(&pool->liveThreads, 1u, __ATOMIC_ACQ_REL);
}

}  // namespace zendra

extern "C" uint32_t PltThreadFunc(PLT_WORKER_ARGUMENT* argument) {
    if (argument == nullptr || argument->pool == nullptr) return kInvalidParameter;
    PLT_WORK_ITEM_POOL* pool = argument->pool;
    const uint32_t slot = argument->slot;
    bool retiring = false;
    // A stopping worker still drains the queue: it leaves only once nothing
    // is pending.
    // A worker that finishes an item takes the next one without waiting
    // while the queue is not empty.
    while (!retiring && (!Stopping(pool) || Pending(pool) != 0) && !NoMoreItems(pool)) {
        PLT_WORK_ITEM* item = TakeTail(pool, argument);
        if (item == nullptr) {
            AwaitWork(pool);
            continue;
        }
        Run(pool, item, argument);
        EnterCriticalSection(&pool->queueLock);
        retiring = !Stopping(pool) && ShouldRetire(pool);
        LeaveCriticalSection(&pool->queueLock);
    }
    SetEvent(pool->wake);
    SetEvent(pool->wake);
    if (!retiring) return kPoolStopping;  // the shutdown wait owns the handle

    EnterCriticalSection(&pool->queueLock);
    // Once stopping is set the shutdown wait may be waiting on this handle:
    // leave it to the wait then, as a stopping worker does.
    if (!Stopping(pool)) {
        CloseCounted(pool->threads[slot], Pair::Thread);
        pool->threads[slot] = nullptr;
    }
    LeaveCriticalSection(&pool->queueLock);
    return 0;  // a retired worker ends with 0
}
