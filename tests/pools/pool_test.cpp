// Work-item pools: service order, growth and retirement, removal, deletion
// with and without pending items, forced termination and set-up failures.
#include <string.h>
#include <windows.h>

#include <atomic>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>
#include <zendra/platform.h>

#include "counters.h"
#include "heap_failure.h"
#include "import_failure.h"
#include "sync_helpers.h"

namespace {

const uint32_t kQZWI = PLT_TAG('Q', 'Z', 'W', 'I');

// Shared state the callbacks see through their first argument.
struct Journal {
    std::mutex lock;
    std::vector<uint64_t> ran;
    std::atomic<int> started{0};
    zt::Signal gate;  // blocking callbacks wait on it
    void note(uint64_t id) {
        std::lock_guard<std::mutex> g(lock);
        ran.push_back(id);
    }
    std::vector<uint64_t> order() {
        std::lock_guard<std::mutex> g(lock);
        return ran;
    }
};

uint32_t Record(uint64_t journal, uint64_t id) {
    reinterpret_cast<Journal*>(journal)->note(id);
    return 0;
}

uint32_t BlockThenRecord(uint64_t journal, uint64_t id) {
    auto* j = reinterpret_cast<Journal*>(journal);
    ++j->started;
    j->gate.wait(60000);
    j->note(id);
    return 0;
}

uint64_t J(Journal& j) { return reinterpret_cast<uint64_t>(&j); }

// A pool whose first worker is held inside a callback until j.gate opens.
PLT_WORK_ITEM_POOL* PoolWithBusyWorker(Journal& j, uint32_t initial, uint32_t maximum,
                                       PLT_WORK_ITEM** blocker = nullptr) {
    PLT_WORK_ITEM_POOL* pool = nullptr;
    EXPECT_EQ(PltInitWorkItemPool(&pool, initial, maximum, 2), 0u);
    if (pool == nullptr) return nullptr;
    EXPECT_EQ(PltAddWorkItem(pool, blocker, &BlockThenRecord, J(j), 0, 0), 0u);
    EXPECT_TRUE(zt::WaitUntil([&] { return j.started == 1; }));
    return pool;
}

uint32_t LiveThreadsSince(const PLT_RESOURCE_STATS& before) {
    return zt::Delta(before, zt::Snapshot()).LiveThreadCount;
}

// Holds back the workers a pool starts while installed, so that a backlog
// built by several adds is not taken apart before the test has finished
// building it. Resume() lets them run.
class HeldWorkers {
public:
    HeldWorkers() : hook_("CreateThread", reinterpret_cast<void*>(&Create)) {}
    ~HeldWorkers() { Resume(); }
    void Resume() {
        for (HANDLE h : held()) {
            ResumeThread(h);
            CloseHandle(h);
        }
        held().clear();
    }

private:
    static std::vector<HANDLE>& held() {
        static std::vector<HANDLE> threads;
        return threads;
    }
    static HANDLE WINAPI Create(LPSECURITY_ATTRIBUTES sa, SIZE_T stack, LPTHREAD_START_ROUTINE fn,
                                LPVOID param, DWORD flags, LPDWORD id) {
        HANDLE h = CreateThread(sa, stack, fn, param, flags | CREATE_SUSPENDED, id);
        HANDLE copy = nullptr;
        DuplicateHandle(GetCurrentProcess(), h, GetCurrentProcess(), &copy, 0, FALSE,
                        DUPLICATE_SAME_ACCESS);
        held().push_back(copy);
        return h;
    }
    zt::ImportHook hook_;
};

TEST(PoolCreate, BadCountsAreRefusedWithANullPool) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    struct Case {
        uint32_t initial, maximum;
    };
    for (Case c : {Case{2, 1}, Case{0, 1}, Case{1, 0}, Case{0, 0}, Case{10, 5}}) {
        PLT_WORK_ITEM_POOL* pool = reinterpret_cast<PLT_WORK_ITEM_POOL*>(1);
        EXPECT_EQ(PltInitWorkItemPool(&pool, c.initial, c.maximum, 2), 87u);
        EXPECT_EQ(pool, nullptr);
    }
    EXPECT_EQ(PltInitWorkItemPool(nullptr, 1, 1, 2), 87u);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.AllocCount, 0u);
    EXPECT_EQ(d.ThreadCount, 0u);
}

TEST(PoolCreate, MakesItsRecordEventListLockArgumentsAndWorkers) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_WORK_ITEM_POOL* pool = nullptr;
    ASSERT_EQ(PltInitWorkItemPool(&pool, 2, 4, 2), 0u);
    ASSERT_NE(pool, nullptr);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.EventCount, 1u);
    EXPECT_EQ(d.CriticalSectionCount, 2u) << "queue lock and item list lock";
    EXPECT_EQ(d.LookasideListCount, 1u);
    EXPECT_EQ(d.ThreadCount, 2u);
    EXPECT_EQ(d.UntaggedAllocCount, 2u) << "one start block per worker";
    // Record (208 + 8 per worker), item chunk (40 x 100 per worker), argument
    // array (16 per worker) and the two start blocks.
    EXPECT_EQ(d.AllocBytes, (208u + 8 * 4) + (1048u + 40 * 400) + 16u * 4 + 2u * 24);
    EXPECT_EQ(static_cast<uint32_t*>(static_cast<void*>(pool))[-2], kQZWI);
    EXPECT_EQ(PltDeleteWorkItemPool(pool, 1, 10000), 0u);
    // Workers that ended keep their handles open, deliberately.
    EXPECT_NO_LEAKS(before, zt::kIgnoreThreads);
    EXPECT_EQ(LiveThreadsSince(before), 2u);
}

TEST(PoolOrder, NewestFirstAndToFrontItemsLast) {
    Journal j;
    PLT_WORK_ITEM_POOL* pool = PoolWithBusyWorker(j, 1, 1);
    ASSERT_NE(pool, nullptr);
    for (uint64_t id : {1, 2, 3})
        ASSERT_EQ(PltAddWorkItem(pool, nullptr, &Record, J(j), id, 0), 0u);
    ASSERT_EQ(PltAddWorkItem(pool, nullptr, &Record, J(j), 4, 1), 0u);
    j.gate.set();
    EXPECT_EQ(PltDeleteWorkItemPool(pool, 1, 10000), 0u);
    EXPECT_EQ(j.order(), (std::vector<uint64_t>{0, 3, 2, 1, 4}));
}

TEST(PoolOrder, CallbackGetsBothArgumentsAndMayQueueMoreWork) {
    struct Chain {
        PLT_WORK_ITEM_POOL* pool;
        std::atomic<int> depth{0};
        uint64_t seen = 0;
        zt::Signal done;
        static uint32_t Step(uint64_t self, uint64_t value) {
            auto* c = reinterpret_cast<Chain*>(self);
            c->seen = value;
            if (++c->depth < 5)
                PltAddWorkItem(c->pool, nullptr, &Step, self, value + 1, 0);
            else
                c->done.set();
            return 0;
        }
    } chain;
    ASSERT_EQ(PltInitWorkItemPool(&chain.pool, 1, 2, 2), 0u);
    ASSERT_EQ(PltAddWorkItem(chain.pool, nullptr, &Chain::Step, reinterpret_cast<uint64_t>(&chain),
                             0xFEDCBA9876543210ull, 0),
              0u);
    EXPECT_TRUE(chain.done.wait());
    EXPECT_EQ(chain.seen, 0xFEDCBA9876543214ull);
    EXPECT_EQ(PltDeleteWorkItemPool(chain.pool, 1, 10000), 0u);
}

TEST(PoolGrowth, BacklogStartsOneWorkerPerAddUpToTheMaximum) {
    Journal j;
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_WORK_ITEM_POOL* pool = PoolWithBusyWorker(j, 1, 4);
    ASSERT_NE(pool, nullptr);
    // Pending 1 and 2 start nobody; 3, 4 and 5 start one worker each (pending
    // reaches live + 2); the sixth finds the pool at its maximum.
    const uint32_t expectedThreads[] = {1, 1, 2, 3, 4, 4};
    {
        HeldWorkers held;
        for (int i = 0; i < 6; ++i) {
            ASSERT_EQ(PltAddWorkItem(pool, nullptr, &BlockThenRecord, J(j), i + 1, 0), 0u);
            EXPECT_EQ(zt::Delta(before, zt::Snapshot()).ThreadCount, expectedThreads[i])
                << "add " << i;
        }
    }
    ASSERT_TRUE(zt::WaitUntil([&] { return j.started == 4; }));
    j.gate.set();
    EXPECT_EQ(PltDeleteWorkItemPool(pool, 1, 10000), 0u);
    EXPECT_EQ(j.order().size(), 7u);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).ThreadCount, 4u);
}

// Grows a pool of 1 to 4 workers, all blocked, with three items queued.
struct GrownPool {
    Journal j;
    std::vector<zt::Signal*> gates;
    std::vector<PLT_WORK_ITEM*> items;
    PLT_WORK_ITEM_POOL* pool = nullptr;
    std::atomic<int> started{0};
    std::vector<std::atomic<int>> startedIds = std::vector<std::atomic<int>>(7);

    static uint32_t Gated(uint64_t self, uint64_t id) {
        auto* g = reinterpret_cast<GrownPool*>(self);
        g->startedIds[id] = 1;
        ++g->started;
        g->gates[id]->wait(60000);
        g->j.note(id);
        return 0;
    }
    void Build() {
        for (int i = 0; i < 7; ++i) gates.push_back(new zt::Signal);
        ASSERT_EQ(PltInitWorkItemPool(&pool, 1, 4, 2), 0u);
        items.resize(7);
        ASSERT_EQ(PltAddWorkItem(pool, &items[0], &Gated, reinterpret_cast<uint64_t>(this), 0, 0),
                  0u);
        ASSERT_TRUE(zt::WaitUntil([&] { return started == 1; }));
        {
            HeldWorkers held;
            for (uint64_t id = 1; id <= 6; ++id)
                ASSERT_EQ(PltAddWorkItem(pool, &items[id], &Gated, reinterpret_cast<uint64_t>(this),
                                         id, 0),
                          0u);
        }
        ASSERT_TRUE(zt::WaitUntil([&] { return started == 4; }));
    }
    ~GrownPool() {
        for (zt::Signal* g : gates) g->set();
        if (pool != nullptr) PltDeleteWorkItemPool(pool, 1, 10000);
        for (zt::Signal* g : gates) delete g;
    }
};

TEST(PoolRetirement, AWorkerRetiresWhenTheBacklogShrinksBelowTheWorkers) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    GrownPool g;
    ASSERT_NO_FATAL_FAILURE(g.Build());
    EXPECT_EQ(LiveThreadsSince(before), 4u);
    // Three items still queued, four workers: the one released retires.
    g.gates[0]->set();
    EXPECT_TRUE(zt::WaitUntil([&] { return LiveThreadsSince(before) == 3; }))
        << "the retiring worker closes its own handle";
}

TEST(PoolRetirement, NobodyRetiresWithFewerThanTwoItemsPending) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    GrownPool g;
    ASSERT_NO_FATAL_FAILURE(g.Build());
    int removed = 0;
    for (int id = 1; id <= 6 && removed < 2; ++id) {
        if (!g.startedIds[id]) {
            EXPECT_EQ(PltRemoveWorkItem(g.pool, g.items[id]), 0u);
            ++removed;
        }
    }
    ASSERT_EQ(removed, 2);
    g.gates[0]->set();  // finishes with one item pending: pending - 2 wraps
    ASSERT_TRUE(zt::WaitUntil([&] { return g.started == 5; })) << "it takes the last item";
    EXPECT_EQ(LiveThreadsSince(before), 4u);
}

TEST(PoolRemove, QueuedItemIsNeverCalledAndAnItemThatRanIsLeftAlone) {
    Journal j;
    PLT_WORK_ITEM* blocker = nullptr;
    PLT_WORK_ITEM_POOL* pool = PoolWithBusyWorker(j, 1, 1, &blocker);
    ASSERT_NE(pool, nullptr);
    PLT_WORK_ITEM* queued = nullptr;
    ASSERT_EQ(PltAddWorkItem(pool, &queued, &Record, J(j), 1, 0), 0u);
    ASSERT_NE(queued, nullptr);
    EXPECT_EQ(PltRemoveWorkItem(pool, queued), 0u);
    EXPECT_EQ(queued->callback, nullptr);
    EXPECT_EQ(PltRemoveWorkItem(pool, queued), 0u) << "a second removal does nothing";
    EXPECT_EQ(PltRemoveWorkItem(pool, blocker), 0u) << "already taken: left alone";
    j.gate.set();
    EXPECT_EQ(PltDeleteWorkItemPool(pool, 1, 10000), 0u);
    EXPECT_EQ(j.order(), (std::vector<uint64_t>{0}));
    EXPECT_EQ(PltRemoveWorkItem(nullptr, queued), 87u);
    EXPECT_EQ(PltRemoveWorkItem(reinterpret_cast<PLT_WORK_ITEM_POOL*>(&j), nullptr), 87u);
}

TEST(PoolDelete, WithoutRunPendingNoQueuedCallbackRuns) {
    Journal j;
    PLT_WORK_ITEM_POOL* pool = PoolWithBusyWorker(j, 1, 1);
    ASSERT_NE(pool, nullptr);
    for (uint64_t id : {1, 2, 3})
        ASSERT_EQ(PltAddWorkItem(pool, nullptr, &Record, J(j), id, 0), 0u);
    // The queue is discarded as soon as deletion begins, before the wait;
    // the blocked callback is let go only once additions are refused.
    zt::TestThread releaser([&] {
        zt::WaitUntil([&] {
            PLT_WORK_ITEM* h = reinterpret_cast<PLT_WORK_ITEM*>(1);
            PLT_STATUS s = PltAddWorkItem(pool, &h, &Record, J(j), 99, 0);
            return s == 0xFFFFFFFFu && h == nullptr;
        });
        Sleep(100);
        j.gate.set();
    });
    EXPECT_EQ(PltDeleteWorkItemPool(pool, 0, PLT_INFINITE), 0u);
    EXPECT_EQ(j.order(), (std::vector<uint64_t>{0}));
}

TEST(PoolDelete, WithRunPendingEveryQueuedItemRunsOnce) {
    Journal j;
    PLT_WORK_ITEM_POOL* pool = nullptr;
    ASSERT_EQ(PltInitWorkItemPool(&pool, 2, 4, 2), 0u);
    for (uint64_t id = 0; id < 500; ++id)
        ASSERT_EQ(PltAddWorkItem(pool, nullptr, &Record, J(j), id, id % 3 == 0), 0u);
    EXPECT_EQ(PltDeleteWorkItemPool(pool, 1, PLT_INFINITE), 0u);
    std::vector<uint64_t> ran = j.order();
    std::sort(ran.begin(), ran.end());
    ASSERT_EQ(ran.size(), 500u);
    for (uint64_t id = 0; id < 500; ++id) EXPECT_EQ(ran[id], id);
}

TEST(PoolDelete, AddingAfterDeletionBeganIsRefused) {
    Journal j;
    PLT_WORK_ITEM_POOL* pool = PoolWithBusyWorker(j, 1, 1);
    ASSERT_NE(pool, nullptr);
    std::atomic<uint32_t> refused{0};
    zt::TestThread deleter([&] { PltDeleteWorkItemPool(pool, 1, PLT_INFINITE); });
    EXPECT_TRUE(zt::WaitUntil([&] {
        PLT_WORK_ITEM* h = nullptr;
        PLT_STATUS s = PltAddWorkItem(pool, &h, &Record, J(j), 1, 0);
        if (s == 0xFFFFFFFFu) refused = s;
        return s == 0xFFFFFFFFu;
    }));
    EXPECT_EQ(refused.load(), 0xFFFFFFFFu);
    j.gate.set();
    EXPECT_TRUE(deleter.join());
    EXPECT_EQ(PltAddWorkItem(nullptr, nullptr, &Record, 0, 0, 0), 87u);
    EXPECT_EQ(PltDeleteWorkItemPool(nullptr, 1, 0), 87u);
}

TEST(PoolDelete, ACallbackThatNeverReturnsIsTerminatedAtTheBudget) {
    Journal j;  // its gate is never set
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_WORK_ITEM_POOL* pool = PoolWithBusyWorker(j, 2, 2);
    ASSERT_NE(pool, nullptr);
    ULONGLONG start = GetTickCount64();
    EXPECT_EQ(PltDeleteWorkItemPool(pool, 1, 300), 0u);
    ULONGLONG elapsed = GetTickCount64() - start;
    EXPECT_GE(elapsed, 250u);
    EXPECT_LT(elapsed, 5000u);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    // The terminated worker's handle is closed, but its start block was never
    // freed. The idle worker ended: it keeps its handle when its slot comes
    // first, and loses it when it is visited after the budget ran out.
    EXPECT_LE(d.LiveThreadCount, 1u);
    EXPECT_EQ(d.LiveAllocCount, 1u);
    EXPECT_EQ(d.LiveAllocBytes, 24u);
    EXPECT_EQ(d.LiveEventCount, 0u);
    EXPECT_EQ(d.LiveCriticalSectionCount, 0u);
    EXPECT_EQ(d.LiveLookasideListCount, 0u);
    EXPECT_TRUE(j.order().empty());
}

// Set-up failures: whatever fails, the caller gets its status and a null
// pool. Workers already started end within the teardown's short budget and
// keep their handle, or are terminated and keep their start block.
void ExpectOnlyWorkersRemain(const PLT_RESOURCE_STATS& before) {
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.LiveAllocCount, d.ThreadCount - d.LiveThreadCount)
        << "start blocks of terminated workers";
    EXPECT_EQ(d.LiveAllocBytes, 24u * d.LiveAllocCount);
    EXPECT_EQ(d.LiveEventCount, 0u);
    EXPECT_EQ(d.LiveCriticalSectionCount, 0u);
    EXPECT_EQ(d.LiveLookasideListCount, 0u);
}

TEST(PoolCreateFailure, EveryAllocationFailureGivesItsStatusAndANullPool) {
    int failures = zt::SweepAllocationFailures([](int nth) {
        PLT_RESOURCE_STATS before = zt::Snapshot();
        PLT_WORK_ITEM_POOL* pool = reinterpret_cast<PLT_WORK_ITEM_POOL*>(1);
        PLT_STATUS status;
        bool failed;
        {
            zt::HeapFailure fail(nth);
            status = PltInitWorkItemPool(&pool, 3, 4, 2);
            failed = fail.failed();
        }
        if (!failed) {
            EXPECT_EQ(status, 0u);
            EXPECT_NE(pool, nullptr);
            PltDeleteWorkItemPool(pool, 1, 10000);
            return true;
        }
        EXPECT_EQ(status, nth == 1 ? 87u : 0u) << "allocation " << nth;
        EXPECT_EQ(pool, nullptr) << "allocation " << nth;
        ExpectOnlyWorkersRemain(before);
        return false;
    });
    // The record, the item chunk, the argument array and three start blocks.
    EXPECT_EQ(failures, 6);
}

int g_threadsAllowed;
HANDLE WINAPI LimitedCreateThread(LPSECURITY_ATTRIBUTES sa, SIZE_T stack, LPTHREAD_START_ROUTINE fn,
                                  LPVOID param, DWORD flags, LPDWORD id) {
    if (g_threadsAllowed-- <= 0) {
        SetLastError(ERROR_MAX_THRDS_REACHED);
        return nullptr;
    }
    return CreateThread(sa, stack, fn, param, flags, id);
}

TEST(PoolCreateFailure, Win32CreationFailuresGiveZeroAndANullPool) {
    auto attempt = [](const char* what) {
        SCOPED_TRACE(what);
        PLT_RESOURCE_STATS before = zt::Snapshot();
        PLT_WORK_ITEM_POOL* pool = reinterpret_cast<PLT_WORK_ITEM_POOL*>(1);
        EXPECT_EQ(PltInitWorkItemPool(&pool, 3, 4, 2), 0u);
        EXPECT_EQ(pool, nullptr);
        ExpectOnlyWorkersRemain(before);
    };
    {
        ZT_FAIL_IMPORT(CreateEventW, ERROR_NO_SYSTEM_RESOURCES);
        attempt("wake event");
    }
    {
        ZT_FAIL_IMPORT(SetThreadPriority, ERROR_ACCESS_DENIED);
        attempt("worker priority");
    }
    for (int allowed : {0, 2}) {
        g_threadsAllowed = allowed;
        zt::ImportHook hook("CreateThread", reinterpret_cast<void*>(&LimitedCreateThread));
        attempt(allowed == 0 ? "first worker" : "third worker");
    }
}

}  // namespace
