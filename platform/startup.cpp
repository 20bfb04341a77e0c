// PltInit and PltCleanup: nested calls, with the default pool built by the
// first and torn down by the last.
#include <zendra/platform.h>

#include "platform/memory.h"
#include "platform/pool.h"
#include "platform/status.h"

using namespace zendra;

namespace zendra {
extern uint32_t g_eventLogState;
}

namespace {

constexpr uint32_t kDefaultInitialThreads = 4;
constexpr uint32_t kDefaultMaximumThreads = 8;
constexpr uint32_t kDefaultPriority = 2;  // normal
constexpr uint32_t kDrainBudgetMs = 1000;

uint32_t g_nesting;
PLT_WORK_ITEM_POOL* g_defaultPool;

}  // namespace

namespace zendra {

PLT_WORK_ITEM_POOL* DefaultPool() { return __atomic_load_n(&g_defaultPool, __ATOMIC_ACQUIRE); }

}  // namespace zendra

extern "C" PLT_STATUS PltInit(void) {
    __atomic_store_n(&g_eventLogState, 2u, __ATOMIC_SEQ_CST);
    if (__atomic_add_fetch(&g_nesting, 1u, __ATOMIC_ACQ_REL) != 1) return kOk;
    ObtainLibraryHeap();
    PLT_WORK_ITEM_POOL* pool = nullptr;
    PLT_STATUS status = PltInitWorkItemPool(&pool, kDefaultInitialThreads, kDefaultMaximumThreads,
                                            kDefaultPriority);
    __atomic_store_n(&g_defaultPool, pool, __ATOMIC_RELEASE);
    // Only a missing pool record is reported; any later failure leaves the
    // library running without a default pool. The count is not taken back.
    return status == kInvalidParameter ? kInvalidParameter : kOk;
}

extern "C" PLT_STATUS PltCleanup(void) {
    if (__atomic_fetch_sub(&g_nesting, 1u, __ATOMIC_ACQ_REL) != 1) return kOk;
    PLT_WORK_ITEM_POOL* pool = __atomic_exchange_n(&g_defaultPool, nullptr, __ATOMIC_ACQ_REL);
    if (pool == nullptr) return kInvalidParameter;
    // Queued items are not discarded: the workers drain them within the budget.
    DestroyPool(pool, kDrainBudgetMs);
    return kOk;
}
