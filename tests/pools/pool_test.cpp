// Work-item pools: service order, growth and retirement, removal, deletion
// with and without pending items, forced termination and set-up failures.

#include <algorithm>
#include <atomic>
#include <mutex>
#include <vector>

#include "zt.h"

namespace {

// What the callbacks ran, in order; gated callbacks wait for gate[id].
struct Journal {
    std::mutex lock;
    std::vector<uint64_t> ran;
    std::atomic<int> started{0};
    zt::Signal gate[8];
    std::vector<uint64_t> order() {
        std::lock_guard<std::mutex> g(lock);
        return ran;
    }
};

uint32_t Record(uint64_t journal, uint64_t id) {
    auto* j = reinterpret_cast<Journal*>(journal);
    std::lock_guard<std::mutex> g(j->lock);
    j->ran.push_back(id);
    return 0;
}

uint32_t Gated(uint64_t journal, uint64_t id) {
    auto* j = reinterpret_cast<Journal*>(journal);
    ++j->started;
    j->gate[id % 8].wait(60000);
    return Record(journal, id);
}

// A pool whose first worker is held inside a callback until gate[0] opens.
PLT_WORK_ITEM_POOL* BusyPool(Journal& j, uint32_t initial, uint32_t maximum,
                             PLT_WORK_ITEM** blocker = nullptr) {
    PLT_WORK_ITEM_POOL* pool = nullptr;
    EXPECT_EQ(PltInitWorkItemPool(&pool, initial, maximum, 2), 0u);
    if (pool == nullptr) return nullptr;
    EXPECT_EQ(PltAddWorkItem(pool, blocker, &Gated, reinterpret_cast<uint64_t>(&j), 0, 0), 0u);
    EXPECT_TRUE(zt::WaitUntil([&] { return j.started == 1; }));
    return pool;
}

PLT_STATUS Add(PLT_WORK_ITEM_POOL* pool, Journal& j, uint64_t id, uint8_t toFront = 0,
               PLT_WORK_ITEM_ROUTINE fn = &Record, PLT_WORK_ITEM** item = nullptr) {
    return PltAddWorkItem(pool, item, fn, reinterpret_cast<uint64_t>(&j), id, toFront);
}

// Starts the workers a pool creates while installed suspended, so that a
// backlog built by several adds is not taken apart while it is being built.
class HeldWorkers {
public:
    HeldWorkers() : hook_("CreateThread", reinterpret_cast<void*>(&Create)) {}
    ~HeldWorkers() {
        for (HANDLE h : held()) ResumeThread(h), CloseHandle(h);
        held().clear();
    }

private:
    static std::vector<HANDLE>& held() {
        static std::vector<HANDLE> threads;
        return threads;
    }
    static HANDLE WINAPI Create(LPSECURITY_ATTRIBUTES sa, SIZE_T stack, LPTHREAD_START_ROUTINE fn,
                                LPVOID param, DWORD flags, LPDWORD id) {
        HANDLE h = CreateThread(sa, stack, fn, param, flags | CREATE_SUSPENDED, id), copy;
        DuplicateHandle(GetCurrentProcess(), h, GetCurrentProcess(), &copy, 0, FALSE,
                        DUPLICATE_SAME_ACCESS);
        held().push_back(copy);
        return h;
    }
    zt::ImportHook hook_;
};

uint32_t LiveThreadsSince(const PLT_RESOURCE_STATS& before) {
    return zt::Delta(before, zt::Snapshot()).LiveThreadCount;
}

TEST(PoolCreate, BadCountsAndTheResourcesOfAPool) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    for (auto [initial, maximum] : {std::pair{2u, 1u}, {0u, 1u}, {1u, 0u}}) {
        PLT_WORK_ITEM_POOL* pool = reinterpret_cast<PLT_WORK_ITEM_POOL*>(1);
        EXPECT_EQ(PltInitWorkItemPool(&pool, initial, maximum, 2), 87u);
        EXPECT_EQ(pool, nullptr);
    }
    EXPECT_EQ(PltInitWorkItemPool(nullptr, 1, 1, 2), 87u);
    EXPECT_DELTA(before, {});
    PLT_WORK_ITEM_POOL* pool = nullptr;
    ASSERT_EQ(PltInitWorkItemPool(&pool, 2, 4, 2), 0u);
    // Record (208 + 8 per worker), item chunk (40 x 100 per worker), argument
    // array (16 per worker) and two start blocks; wake event, queue and list
    // locks, item list, two workers.
    EXPECT_MOVED(before, {.AllocCount = 5, .AllocBytes = (208 + 8 * 4) + (1048 + 40 * 400) + 16 * 4 + 2 * 24,
                          .LookasideListCount = 1, .UntaggedAllocCount = 2, .EventCount = 1,
                          .CriticalSectionCount = 2, .ThreadCount = 2});
    EXPECT_EQ(reinterpret_cast<uint32_t*>(pool)[-2], PLT_TAG('Q', 'Z', 'W', 'I'));
    EXPECT_EQ(PltDeleteWorkItemPool(pool, 1, 10000), 0u);
    EXPECT_NO_LEAKS(before, zt::kIgnoreThreads);
}

TEST(PoolOrder, NewestFirstAndToFrontLast) {
    Journal j;
    PLT_WORK_ITEM_POOL* pool = BusyPool(j, 1, 1);
    ASSERT_NE(pool, nullptr);
    for (uint64_t id : {1, 2, 3}) ASSERT_EQ(Add(pool, j, id), 0u);
    ASSERT_EQ(Add(pool, j, 4, 1), 0u);
    j.gate[0].set();
    EXPECT_EQ(PltDeleteWorkItemPool(pool, 1, 10000), 0u);
    EXPECT_EQ(j.order(), (std::vector<uint64_t>{0, 3, 2, 1, 4}));
}

TEST(PoolGrowth, OneWorkerPerAddUpToTheMaximumThenRetirement) {
    Journal j;
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_WORK_ITEM_POOL* pool = BusyPool(j, 1, 4);
    ASSERT_NE(pool, nullptr);
    // Pending 1 and 2 start nobody; 3, 4 and 5 start one worker each (pending
    // reaches live + 2); the sixth finds the pool at its maximum.
    const uint32_t threads[] = {1, 1, 2, 3, 4, 4};
    std::vector<PLT_WORK_ITEM*> items(7);
    {
        HeldWorkers held;
        for (int i = 1; i <= 6; ++i) {
            ASSERT_EQ(Add(pool, j, i, 0, &Gated, &items[i]), 0u);
            EXPECT_EQ(zt::Delta(before, zt::Snapshot()).ThreadCount, threads[i - 1]) << i;
        }
    }
    ASSERT_TRUE(zt::WaitUntil([&] { return j.started == 4; }));  // items 6, 5, 4 taken
    EXPECT_EQ(LiveThreadsSince(before), 4u);
    // Three items queued, four workers: the one let go retires and closes its
    // own handle.
    j.gate[6].set();
    EXPECT_TRUE(zt::WaitUntil([&] { return LiveThreadsSince(before) == 3; }));
    EXPECT_EQ(j.started, 4);
    // With one item pending, pending - 2 wraps and nobody retires.
    EXPECT_EQ(PltRemoveWorkItem(pool, items[1]) + PltRemoveWorkItem(pool, items[2]), 0u);
    j.gate[5].set();
    ASSERT_TRUE(zt::WaitUntil([&] { return j.started == 5; })) << "item 3 taken";
    Sleep(100);
    EXPECT_EQ(LiveThreadsSince(before), 3u);
    for (zt::Signal& g : j.gate) g.set();
    EXPECT_EQ(PltDeleteWorkItemPool(pool, 1, 10000), 0u);
    EXPECT_EQ(j.order().size(), 5u) << "the removed items never ran";
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).ThreadCount, 4u);
}

TEST(PoolRemove, QueuedItemIsNeverCalledAndAnItemThatRanIsLeftAlone) {
    Journal j;
    PLT_WORK_ITEM* blocker = nullptr;
    PLT_WORK_ITEM_POOL* pool = BusyPool(j, 1, 1, &blocker);
    ASSERT_NE(pool, nullptr);
    PLT_WORK_ITEM* queued = nullptr;
    ASSERT_EQ(Add(pool, j, 1, 0, &Record, &queued), 0u);
    EXPECT_EQ(PltRemoveWorkItem(pool, queued), 0u);
    EXPECT_EQ(queued->callback, nullptr);
    EXPECT_EQ(PltRemoveWorkItem(pool, queued) + PltRemoveWorkItem(pool, blocker), 0u);
    EXPECT_EQ(PltRemoveWorkItem(nullptr, queued) + PltRemoveWorkItem(pool, nullptr), 2 * 87u);
    j.gate[0].set();
    EXPECT_EQ(PltDeleteWorkItemPool(pool, 1, 10000), 0u);
    EXPECT_EQ(j.order(), (std::vector<uint64_t>{0}));
}

TEST(PoolDelete, DiscardOrDrainAndRefuseNewItems) {
    for (uint8_t runPending : {0, 1}) {
        Journal j;
        PLT_WORK_ITEM_POOL* pool = BusyPool(j, 1, 1);
        ASSERT_NE(pool, nullptr);
        for (uint64_t id : {1, 2, 3}) ASSERT_EQ(Add(pool, j, id), 0u);
        // The blocked callback is let go only once additions are refused.
        zt::TestThread releaser([&] {
            PLT_WORK_ITEM* h = reinterpret_cast<PLT_WORK_ITEM*>(1);
            EXPECT_TRUE(zt::WaitUntil([&] { return Add(pool, j, 99, 0, &Record, &h) == 0xFFFFFFFFu; }));
            EXPECT_EQ(h, nullptr);
            j.gate[0].set();
        });
        EXPECT_EQ(PltDeleteWorkItemPool(pool, runPending, PLT_INFINITE), 0u);
        const std::vector<uint64_t> drained{0, 3, 2, 1}, discarded{0};
        EXPECT_EQ(j.order(), runPending ? drained : discarded);
    }
    Journal j;
    PLT_WORK_ITEM_POOL* pool = nullptr;
    ASSERT_EQ(PltInitWorkItemPool(&pool, 2, 4, 2), 0u);
    for (uint64_t id = 0; id < 500; ++id) ASSERT_EQ(Add(pool, j, id, id % 3 == 0), 0u);
    EXPECT_EQ(PltDeleteWorkItemPool(pool, 1, PLT_INFINITE), 0u);
    std::vector<uint64_t> ran = j.order();
    std::sort(ran.begin(), ran.end());
    EXPECT_TRUE(ran.size() == 500 && std::adjacent_find(ran.begin(), ran.end()) == ran.end())
        << "every item runs once";
    EXPECT_EQ(PltAddWorkItem(nullptr, nullptr, &Record, 0, 0, 0) +
                  PltDeleteWorkItemPool(nullptr, 1, 0),
              2 * 87u);
}

TEST(PoolDelete, ACallbackThatNeverReturnsIsTerminatedAtTheBudget) {
    Journal j;  // gate 0 is never set
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_WORK_ITEM_POOL* pool = BusyPool(j, 2, 2);
    ASSERT_NE(pool, nullptr);
    ULONGLONG start = GetTickCount64();
    EXPECT_EQ(PltDeleteWorkItemPool(pool, 1, 300), 0u);
    ULONGLONG elapsed = GetTickCount64() - start;
    EXPECT_TRUE(elapsed >= 250 && elapsed < 5000) << elapsed;
    // The terminated worker never freed its 24-byte start block.
    EXPECT_LE(zt::Delta(before, zt::Snapshot()).LiveThreadCount, 1u);
    EXPECT_NO_LEAKS(before, zt::kIgnoreThreads | zt::kIgnoreAllocations);
    EXPECT_MOVED(before, {.LiveAllocCount = 1, .LiveAllocBytes = 24});
    EXPECT_TRUE(j.order().empty());
}

// Set-up failures: the caller gets its status and a null pool; workers
// already started are stopped, and only a terminated one's start block stays.
void ExpectOnlyWorkersRemain(const PLT_RESOURCE_STATS& before) {
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_LE(d.LiveAllocCount, d.ThreadCount - d.LiveThreadCount) << "terminated workers' start blocks";
    EXPECT_EQ(d.LiveAllocBytes, 24u * d.LiveAllocCount);
    EXPECT_EQ(d.LiveEventCount + d.LiveCriticalSectionCount + d.LiveLookasideListCount, 0u);
}

int g_threadsAllowed;
HANDLE WINAPI LimitedCreateThread(LPSECURITY_ATTRIBUTES sa, SIZE_T stack, LPTHREAD_START_ROUTINE fn,
                                  LPVOID param, DWORD flags, LPDWORD id) {
    if (g_threadsAllowed-- > 0) return CreateThread(sa, stack, fn, param, flags, id);
    SetLastError(ERROR_MAX_THRDS_REACHED);
    return nullptr;
}

TEST(PoolCreate, EveryFailureGivesItsStatusAndANullPool) {
    auto attempt = [](int nth, PLT_STATUS expected) {
        PLT_RESOURCE_STATS before = zt::Snapshot();
        PLT_WORK_ITEM_POOL* pool = reinterpret_cast<PLT_WORK_ITEM_POOL*>(1);
        bool failed = true;
        {
            zt::HeapFailure fail(nth);
            EXPECT_EQ(PltInitWorkItemPool(&pool, 3, 4, 2), nth == 1 ? 87u : expected) << nth;
            failed = nth < 0 || fail.failed();
        }
        if (!failed) return PltDeleteWorkItemPool(pool, 1, 10000) == 0;
        EXPECT_EQ(pool, nullptr) << nth;
        ExpectOnlyWorkersRemain(before);
        return false;
    };
    // The record, the item chunk, the argument array and three start blocks.
    EXPECT_EQ(zt::SweepAllocationFailures([&](int nth) { return attempt(nth, 0); }), 6);
    {
        ZT_FAIL_IMPORT(CreateEventW, ERROR_NO_SYSTEM_RESOURCES);
        attempt(-1, 0);
    }
    {
        ZT_FAIL_IMPORT(SetThreadPriority, ERROR_ACCESS_DENIED);
        attempt(-1, 0);
    }
    for (int allowed : {0, 2}) {
        g_threadsAllowed = allowed;
        zt::ImportHook hook("CreateThread", reinterpret_cast<void*>(&LimitedCreateThread));
        attempt(-1, 0);
    }
}

}  // namespace
