// Shared between the pool's creation and deletion and its workers.
#pragma once

#include "platform/pool.h"

namespace zendra {

// Worker states, in the slot's argument record. Only a worker running a
// callback holds no library lock, so only such a worker may be terminated:
// the shutdown claims it first, and a worker whose callback returns to find
// itself claimed parks until it is.
enum WorkerState : uint32_t { kIdle = 0, kInCallback = 1, kClaimed = 2 };

// Values of the pool's stopping flag: draining, then (once the shutdown
// budget has run out) taking no more items.
constexpr uint8_t kDraining = 1;
constexpr uint8_t kNoMoreItems = 2;

// Sets the stopping flag under the queue lock, so that an add either queues
// before it or sees it, and wakes the workers.
void SetStopping(PLT_WORK_ITEM_POOL* pool, uint8_t value);

// Fills the slot's argument record, starts a worker on PltThreadFunc, counts
// it live and gives it the pool's priority.
PLT_STATUS StartWorker(PLT_WORK_ITEM_POOL* pool, uint32_t slot);

// Under the queue lock: starts one more worker when the backlog calls for it.
PLT_STATUS GrowPool(PLT_WORK_ITEM_POOL* pool);

// Closes a worker's handle, clears its slot and drops it from the live count.
void ForgetWorker(PLT_WORK_ITEM_POOL* pool, uint32_t slot);

// Waits for every worker within the budget and ends those still running.
PLT_STATUS ShutdownWait(PLT_WORK_ITEM_POOL* pool, uint32_t budgetMs);

}  // namespace zendra
