// TestWorkItems and TestWorkItemsEx: pools created with good and bad
// sizes, at each priority, running, draining and removing work items.
#include <initializer_list>
#include "selfcheck/report.h"

namespace zendra::selfcheck {
namespace {

constexpr uint32_t kDeleteBudgetMs = 10000;

uint32_t Nothing(uint64_t, uint64_t) { return 0; }

uint32_t Count(uint64_t counter, uint64_t) {
    AddOne(reinterpret_cast<volatile uint32_t*>(counter));
    return 0;
}

// Queues `count` items of `routine`, every other one at the far end when
// `alternate` is set. True when every queueing returned 0.
bool Queue(PLT_WORK_ITEM_POOL* pool, uint32_t count, PLT_WORK_ITEM_ROUTINE routine,
           uint64_t argument, bool alternate = false) {
    for (uint32_t i = 0; i < count; ++i) {
        PLT_WORK_ITEM* item = nullptr;
        uint8_t toFront = alternate && i % 2 == 1;
        if (PltAddWorkItem(pool, &item, routine, argument, i, toFront) != 0 || item == nullptr)
            return false;
    }
    return true;
}

// Maximum below initial, or zero, is refused; 14 to 24 threads run 24
// items and the pool is deleted after draining them.
uint32_t CreateQueueDelete() {
    PLT_WORK_ITEM_POOL* pool = reinterpret_cast<PLT_WORK_ITEM_POOL*>(1);
    if (PltInitWorkItemPool(&pool, 10, 0, PRIO_NORMAL) != PLT_STATUS_INVALID_PARAMETER ||
        pool != nullptr ||
        PltInitWorkItemPool(&pool, 10, 5, PRIO_NORMAL) != PLT_STATUS_INVALID_PARAMETER)
        return 1;
    if (PltInitWorkItemPool(&pool, 14, 24, PRIO_NORMAL) != 0 || pool == nullptr) return 1;
    bool ok = Queue(pool, 24, Nothing, 0);
    return PltDeleteWorkItemPool(pool, 1, kDeleteBudgetMs) == 0 && ok ? 0 : 1;
}

// Every queued item runs before the deletion returns.
uint32_t RunAll(uint32_t initial, uint32_t maximum, uint32_t items, bool alternate) {
    PLT_WORK_ITEM_POOL* pool = nullptr;
    if (PltInitWorkItemPool(&pool, initial, maximum, PRIO_NORMAL) != 0 || pool == nullptr) return 1;
    volatile uint32_t ran = 0;
    bool ok = Queue(pool, items, Count, reinterpret_cast<uint64_t>(&ran), alternate);
    ok = PltDeleteWorkItemPool(pool, 1, kDeleteBudgetMs) == 0 && ok;
    return ok && Load(&ran) == items ? 0 : 1;
}

struct PriorityProbe {
    uint32_t expected;
    volatile uint32_t ran, wrong;
};

uint32_t CheckPriority(uint64_t context, uint64_t) {
    auto* probe = reinterpret_cast<PriorityProbe*>(context);
    uint32_t priority = 0xFFFFFFFF;
    if (PltGetThreadPriority(nullptr, &priority) != 0 || priority != probe->expected)
        AddOne(&probe->wrong);
    AddOne(&probe->ran);
    return 0;
}

// Pools of 14 to 24 workers at low, normal and high priority: each item
// finds its worker at the pool's priority.
uint32_t Priorities() {
    for (uint32_t level : {PRIO_LOW, PRIO_NORMAL, PRIO_HIGH}) {
        PLT_WORK_ITEM_POOL* pool = nullptr;
        if (PltInitWorkItemPool(&pool, 14, 24, level) != 0 || pool == nullptr) return 1;
        PriorityProbe probe{level, 0, 0};
        bool ok = Queue(pool, 24, CheckPriority, reinterpret_cast<uint64_t>(&probe));
        ok = PltDeleteWorkItemPool(pool, 1, kDeleteBudgetMs) == 0 && ok;
        if (!ok || Load(&probe.ran) != 24 || Load(&probe.wrong) != 0) return 1;
    }
    return 0;
}

// ---- a pool of a thousand threads ----

constexpr uint32_t kThousand = 1000;
constexpr uint32_t kQueuedBehind = 100;

struct Gate {
    HANDLE open;
    volatile uint32_t inside;
};

uint32_t WaitAtGate(uint64_t context, uint64_t) {
    auto* gate = reinterpret_cast<Gate*>(context);
    AddOne(&gate->inside);
    WaitForSingleObject(gate->open, 60000);
    return 0;
}

// Every worker is held inside an item, so items queued behind them stay
// queued: removing each returns 0 and none of them ever runs.
uint32_t ThousandThreads() {
    Gate gate{CreateEventW(nullptr, TRUE, FALSE, nullptr), 0};
    if (gate.open == nullptr) return 1;
    PLT_WORK_ITEM_POOL* pool = nullptr;
    bool ok = PltInitWorkItemPool(&pool, kThousand, kThousand, PRIO_NORMAL) == 0 && pool != nullptr;
    ok = ok && Queue(pool, kThousand, WaitAtGate, reinterpret_cast<uint64_t>(&gate)) &&
         WaitForCount(&gate.inside, kThousand, 120000);
    volatile uint32_t ranBehind = 0;
    PLT_WORK_ITEM* behind[kQueuedBehind] = {};
    for (uint32_t i = 0; ok && i < kQueuedBehind; ++i)
        ok = PltAddWorkItem(pool, &behind[i], Count, reinterpret_cast<uint64_t>(&ranBehind), i,
                            i % 2) == 0;
    for (uint32_t i = 0; ok && i < kQueuedBehind; ++i) ok = PltRemoveWorkItem(pool, behind[i]) == 0;
    SetEvent(gate.open);
    Sleep(1000);
    if (pool != nullptr) ok = PltDeleteWorkItemPool(pool, 1, kDeleteBudgetMs) == 0 && ok;
    CloseHandle(gate.open);
    return ok && Load(&ranBehind) == 0 ? 0 : 1;
}

}  // namespace
}  // namespace zendra::selfcheck

using namespace zendra::selfcheck;

extern "C" uint32_t TestWorkItems(PLT_REPORT_BUFFER* report) {
    uint32_t result = Reported(report, CreateQueueDelete());
    result |= Reported(report, RunAll(100, 200, 1000, false));
    result |= Reported(report, Priorities());
    result |= Reported(report, RunAll(50, 50, 500, true));
    return result;
}

extern "C" uint32_t TestWorkItemsEx(PLT_REPORT_BUFFER* report) {
    return Reported(report, ThousandThreads());
}
