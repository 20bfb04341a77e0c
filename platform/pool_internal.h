// Shared between the pool's creation and deletion and its workers.
#pragma once

#include "platform/pool.h"

namespace zendra {

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
