// Lookaside lists (which entry is handed out, growth, compaction, limits,
// caller chunks) and work-item pools (service order, growth and retirement,
// removal, deletion, forced termination), with their counters and failures.
#include <string.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <random>
#include <vector>

#include "zt.h"

namespace {

const uint32_t kTag = PLT_TAG('L', 'A', 'L', 'T');

uint8_t* Entry(void* chunk, uint32_t entrySize, uint32_t index) {
    return static_cast<uint8_t*>(chunk) + 1048 + uint64_t{index} * entrySize;
}

TEST(Lookaside, InitCountsListLockAndChunkAndFreeingUndoesIt) {
    for (uint8_t unlocked : {0, 1}) {
        PLT_RESOURCE_STATS before = zt::Snapshot();
        PLT_LOOKASIDE_LIST list, zero{};
        ASSERT_EQ(PltInitLookasideList(&list, 64, 100, PLT_NO_LIMIT, unlocked, nullptr, 16, kTag),
                  0u);
        EXPECT_CALLS("1 1", list.chunks, reinterpret_cast<uint32_t*>(list.first)[-2] == kTag);
        EXPECT_MOVED(before,
                     {.AllocBytes = 1048 + 6400, .LiveAllocCount = 1, .LiveLookasideListCount = 1});
        EXPECT_EQ(zt::Delta(before, zt::Snapshot()).LiveCriticalSectionCount, 1u - unlocked);
        PltFreeLookasideList(&list);
        EXPECT_EQ(memcmp(&list, &zero, sizeof list), 0) << "the record is zeroed";
    }
}

TEST(Lookaside, DepthCapLimitsInnerAndForeignAddressesAndCompaction) {
    PLT_LOOKASIDE_LIST list;
    ASSERT_EQ(PltInitLookasideList(&list, 8, 10000, PLT_NO_LIMIT, 1, nullptr, 0, kTag), 0u);
    for (uint32_t i = 0; i < 8193; ++i) ASSERT_NE(PltAllocateFromLookasideList(&list), nullptr);
    EXPECT_CALLS("8192 2", list.perChunk, list.chunks) << "depth capped by the bitmap";
    PltFreeLookasideList(&list);
    ASSERT_EQ(PltInitLookasideList(&list, 32, 4, 6, 0, nullptr, 0, kTag), 0u);
    std::vector<char*> e;
    for (int i = 0; i < 6; ++i)
        e.push_back(static_cast<char*>(PltAllocateFromLookasideList(&list)));
    strcpy(e[4], "kept");
    auto* chunk = reinterpret_cast<char*>(list.first);
    for (char* foreign :
         {reinterpret_cast<char*>(&list), chunk + 100, chunk + 1048 + 32 * 4, chunk - 1})
        PltFreeToLookasideList(&list, foreign);
    EXPECT_EQ(PltAllocateFromLookasideList(&list), nullptr) << "six in use: the limit";
    EXPECT_CALLS("6 2 2", list.inUse, list.chunks, list.last->inUse) << "foreign addresses ignored";
    PLT_RESOURCE_STATS grown = zt::Snapshot(),
                       freed{.LiveAllocCount = 0xFFFFFFFF,
                             .LiveAllocBytes = static_cast<uint64_t>(-1176)};
    freed.LiveAllocBySize[4] = 0xFFFFFFFF;
    PltFreeToLookasideList(&list, e[5]);
    PltFreeToLookasideList(&list, e[4] + 31);  // an inner address frees its entry
    PltFreeToLookasideList(&list, e[4]);       // a double free is ignored
    EXPECT_CALLS("4 0 1 1", list.inUse, list.last->inUse,
                 PltAllocateFromLookasideList(&list) == e[4], strcmp(e[4], "kept") == 0)
        << "the lowest free entry, never cleared on reuse";
    PltFreeToLookasideList(&list, e[4]);
    PltCompactLookasideList(&list);
    EXPECT_TRUE(zt::DeltaIs(grown, freed)) << "one chunk of 1048 + 4 x 32 bytes freed";
    for (int i = 0; i < 4; ++i) PltFreeToLookasideList(&list, e[i]);
    PltCompactLookasideList(&list);
    EXPECT_CALLS("0 1 1", list.chunks, PltAllocateFromLookasideList(&list) != nullptr, list.chunks)
        << "the first chunk is no exception";
    PltFreeLookasideList(&list);
}

// A model of the list: chunks in creation order with their free entries. The
// list must hand out exactly the lowest free entry of the oldest chunk with
// room, whatever the pattern of frees and compactions.
TEST(Lookaside, HandsOutTheLowestFreeEntryOfTheOldestChunkWithRoom) {
    const uint32_t kEntry = 16, kDepth = 70;  // two bitmap words per chunk
    PLT_LOOKASIDE_LIST list;
    ASSERT_EQ(PltInitLookasideList(&list, kEntry, kDepth, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 0u);
    std::vector<std::pair<uint8_t*, std::vector<bool>>> model{
        {reinterpret_cast<uint8_t*>(list.first), std::vector<bool>(kDepth)}};
    std::vector<uint8_t*> live;
    std::mt19937 rng(1234);
    for (int step = 0; step < 20000; ++step) {
        uint32_t action = rng() % 100;
        if (action < 55 || live.empty()) {
            auto* got = static_cast<uint8_t*>(PltAllocateFromLookasideList(&list));
            uint8_t* expected = nullptr;
            for (auto& [base, used] : model) {
                for (uint32_t i = 0; i < kDepth && expected == nullptr; ++i)
                    if (!used[i]) used[i] = true, expected = Entry(base, kEntry, i);
                if (expected != nullptr) break;
            }
            if (expected == nullptr) {  // a new chunk: learn where it lives
                model.push_back({got - 1048, std::vector<bool>(kDepth)});
                model.back().second[0] = true;
                expected = got;
            }
            ASSERT_EQ(got, expected) << "step " << step;
            live.push_back(got);
        } else if (action < 99) {
            size_t pick = rng() % live.size();
            uint8_t* entry = live[pick];
            live.erase(live.begin() + static_cast<long>(pick));
            PltFreeToLookasideList(&list, entry);
            for (auto& [base, used] : model)
                if (entry >= base + 1048 && entry < Entry(base, kEntry, kDepth))
                    used[(entry - base - 1048) / kEntry] = false;
        } else {
            PltCompactLookasideList(&list);
            std::erase_if(model, [](auto& c) {
                return std::count(c.second.begin(), c.second.end(), true) == 0;
            });
            ASSERT_EQ(list.chunks, model.size());
        }
        ASSERT_EQ(list.inUse, live.size());
    }
    PltFreeLookasideList(&list);
}

TEST(Lookaside, CallersChunkBadArgumentsAndAllocationFailures) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_LOOKASIDE_LIST list;
    void* chunk = nullptr;
    ASSERT_EQ(PltMalloc(&chunk, 1048 + 40 * 5, 0, kTag), 0u);
    memset(chunk, 0xEE, 1048 + 40 * 5);
    ASSERT_EQ(PltInitLookasideList(&list, 40, 5, PLT_NO_LIMIT, 0, chunk, 0, kTag), 0u);
    EXPECT_EQ(PltAllocateFromLookasideList(&list), Entry(chunk, 40, 0)) << "its header zeroed";
    EXPECT_MOVED(before, {.AllocCount = 1}) << "the caller's chunk, no other";
    PltFreeLookasideList(&list);
    EXPECT_EQ(PltInitLookasideList(nullptr, 8, 8, PLT_NO_LIMIT, 0, nullptr, 0, kTag) +
                  PltInitLookasideList(&list, 0, 8, PLT_NO_LIMIT, 0, nullptr, 0, kTag) +
                  PltInitLookasideList(&list, 8, 0, PLT_NO_LIMIT, 0, nullptr, 0, kTag),
              3 * 87u);
    EXPECT_EQ(PltAllocateFromLookasideList(nullptr), nullptr);
    PltFreeToLookasideList(nullptr, &list);
    PltCompactLookasideList(nullptr);
    PltFreeLookasideList(nullptr);
    EXPECT_EQ(PltInitLookasideList(&list, 0x100000, 8192, PLT_NO_LIMIT, 1, nullptr, 0, kTag), 8u)
        << "a chunk beyond 32 bits is refused, not wrapped";
    PltFreeLookasideList(&list);
    before = zt::Snapshot();
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(PltInitLookasideList(&list, 8, 2, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 8u);
    }
    EXPECT_MOVED(before, {.CriticalSectionCount = 1, .LiveCriticalSectionCount = 1});
    EXPECT_EQ(PltAllocateFromLookasideList(&list), nullptr) << "only the lock exists";
    PltFreeLookasideList(&list);
    PltFreeLookasideList(&list);  // finds a zeroed record: the lock is not deleted twice
    ASSERT_EQ(PltInitLookasideList(&list, 8, 1, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 0u);
    void* a = PltAllocateFromLookasideList(&list);
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(PltAllocateFromLookasideList(&list), nullptr);
    }
    PltFreeToLookasideList(&list, a);
    EXPECT_EQ(PltAllocateFromLookasideList(&list), a) << "the list carries on";
    PltFreeLookasideList(&list);
    EXPECT_EQ(PltAllocateFromLookasideList(&list), nullptr) << "a freed list is inert";
    PltCompactLookasideList(&list);
    PltFreeLookasideList(&list);
}

// What the callbacks ran, in order; gated callbacks wait for gate[id % 8].
struct Journal {
    std::mutex lock;
    std::vector<uint64_t> ran;
    std::atomic<int> started{0};
    zt::Signal gate[8];
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

PLT_STATUS Add(PLT_WORK_ITEM_POOL* pool, Journal& j, uint64_t id, uint8_t toFront = 0,
               PLT_WORK_ITEM_ROUTINE fn = &Record, PLT_WORK_ITEM** item = nullptr) {
    return PltAddWorkItem(pool, item, fn, reinterpret_cast<uint64_t>(&j), id, toFront);
}

// A pool whose first worker is held inside a callback until gate[0] opens.
PLT_WORK_ITEM_POOL* BusyPool(Journal& j, uint32_t initial, uint32_t maximum,
                             PLT_WORK_ITEM** blocker = nullptr) {
    PLT_WORK_ITEM_POOL* pool = nullptr;
    EXPECT_EQ(PltInitWorkItemPool(&pool, initial, maximum, 2), 0u);
    EXPECT_EQ(Add(pool, j, 0, 0, &Gated, blocker), 0u);
    EXPECT_TRUE(zt::WaitUntil([&] { return j.started == 1; }));
    return pool;
}

// Starts the workers a pool creates while installed suspended, so that a
// backlog built by several adds is not taken apart while it is being built.
struct HeldWorkers {
    static inline std::vector<HANDLE> held;
    static HANDLE WINAPI Create(LPSECURITY_ATTRIBUTES sa, SIZE_T stack, LPTHREAD_START_ROUTINE fn,
                                LPVOID param, DWORD flags, LPDWORD id) {
        HANDLE h = CreateThread(sa, stack, fn, param, flags | CREATE_SUSPENDED, id), copy;
        DuplicateHandle(GetCurrentProcess(), h, GetCurrentProcess(), &copy, 0, FALSE,
                        DUPLICATE_SAME_ACCESS);
        held.push_back(copy);
        return h;
    }
    zt::ImportHook hook{"CreateThread", reinterpret_cast<void*>(&Create)};
    ~HeldWorkers() {
        for (HANDLE h : held) ResumeThread(h), CloseHandle(h);
        held.clear();
    }
};

TEST(Pool, BadCountsResourcesAndServiceOrder) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_WORK_ITEM_POOL* pool = reinterpret_cast<PLT_WORK_ITEM_POOL*>(1);
    PLT_WORKER_ARGUMENT orphan{};
    EXPECT_CALLS("87 87 87 87 0 87 87", PltInitWorkItemPool(&pool, 2, 1, 2),
                 PltInitWorkItemPool(&pool, 0, 1, 2), PltInitWorkItemPool(&pool, 1, 0, 2),
                 PltInitWorkItemPool(nullptr, 1, 1, 2), pool != nullptr, PltThreadFunc(nullptr),
                 PltThreadFunc(&orphan))
        << "a worker routine without its pool returns at once";
    EXPECT_DELTA(before, {});
    Journal j;
    pool = BusyPool(j, 1, 1);
    // Newest first; an item added to the front goes to the far end.
    for (uint64_t id : {1, 2, 3}) ASSERT_EQ(Add(pool, j, id), 0u);
    ASSERT_EQ(Add(pool, j, 4, 1), 0u);
    j.gate[0].set();
    EXPECT_EQ(PltDeleteWorkItemPool(pool, 1, 10000), 0u);
    EXPECT_EQ(j.ran, (std::vector<uint64_t>{0, 3, 2, 1, 4}));
}

TEST(Pool, GrowsOneWorkerPerAddUpToTheMaximumThenRetires) {
    Journal j;
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_WORK_ITEM_POOL* pool = BusyPool(j, 1, 4);
    // Record (208 + 8 per worker), item chunk (40 x 100 per worker), argument
    // array (16 per worker) and a start block; wake event, queue and list
    // locks, item list, a worker.
    EXPECT_MOVED(before, {.AllocCount = 4,
                          .AllocBytes = (208 + 8 * 4) + (1048 + 40 * 400) + 16 * 4 + 24,
                          .LookasideListCount = 1,
                          .UntaggedAllocCount = 1,
                          .EventCount = 1,
                          .CriticalSectionCount = 2,
                          .ThreadCount = 1});
    EXPECT_EQ(reinterpret_cast<uint32_t*>(pool)[-2], PLT_TAG('Q', 'Z', 'W', 'I'));
    auto threads = [&] { return zt::Delta(before, zt::Snapshot()).ThreadCount; };
    auto live = [&] { return zt::Delta(before, zt::Snapshot()).LiveThreadCount; };
    std::vector<PLT_WORK_ITEM*> items(7);
    std::string grown;
    {
        // Pending 1 and 2 start nobody; 3, 4 and 5 start one worker each
        // (pending reaches live + 2); the sixth finds the pool at its maximum.
        HeldWorkers held;
        for (int i = 1; i <= 6; ++i)
            grown += std::to_string(Add(pool, j, i, 0, &Gated, &items[i]) + threads());
    }
    EXPECT_EQ(grown, "112344");
    ASSERT_TRUE(zt::WaitUntil([&] { return j.started == 4; }));  // items 6, 5, 4 taken
    // Three items queued, four workers: the one let go retires and closes its
    // own handle.
    j.gate[6].set();
    EXPECT_TRUE(zt::WaitUntil([&] { return live() == 3; }));
    // With one item pending, pending - 2 wraps and nobody retires.
    EXPECT_EQ(PltRemoveWorkItem(pool, items[1]) + PltRemoveWorkItem(pool, items[2]), 0u);
    j.gate[5].set();
    ASSERT_TRUE(zt::WaitUntil([&] { return j.started == 5; })) << "item 3 taken";
    Sleep(100);
    EXPECT_EQ(live(), 3u);
    for (zt::Signal& g : j.gate) g.set();
    EXPECT_EQ(PltDeleteWorkItemPool(pool, 1, 10000), 0u);
    EXPECT_EQ(j.ran.size() * 10 + threads(), 54u) << "the removed items never ran";
}

TEST(Pool, RemovalDeletionWithAndWithoutPendingItemsAndRefusals) {
    for (uint8_t runPending : {0, 1}) {
        Journal j;
        PLT_WORK_ITEM* blocker = nullptr;
        PLT_WORK_ITEM* items[4] = {};
        PLT_WORK_ITEM_POOL* pool = BusyPool(j, 1, 1, &blocker);
        for (uint64_t id : {1, 2, 3}) ASSERT_EQ(Add(pool, j, id, 0, &Record, &items[id]), 0u);
        EXPECT_CALLS("0 0 0 0 87 87", PltRemoveWorkItem(pool, items[2]),
                     items[2]->callback != nullptr, PltRemoveWorkItem(pool, items[2]),
                     PltRemoveWorkItem(pool, blocker), PltRemoveWorkItem(nullptr, items[1]),
                     PltRemoveWorkItem(pool, nullptr))
            << "a removed or taken item is left alone";
        // The blocked callback is let go only once additions are refused.
        zt::TestThread releaser([&] {
            PLT_WORK_ITEM* h = reinterpret_cast<PLT_WORK_ITEM*>(1);
            EXPECT_TRUE(
                zt::WaitUntil([&] { return Add(pool, j, 99, 0, &Record, &h) == 0xFFFFFFFFu; }));
            EXPECT_EQ(h, nullptr);
            j.gate[0].set();
        });
        EXPECT_EQ(PltDeleteWorkItemPool(pool, runPending, PLT_INFINITE), 0u);
        // The releaser's probes that came before the deletion began are
        // ordinary items: they run or are discarded with the others.
        std::erase(j.ran, 99u);
        const std::vector<uint64_t> drained{0, 3, 1}, discarded{0};
        EXPECT_EQ(j.ran, runPending ? drained : discarded);
    }
    Journal j;
    PLT_WORK_ITEM_POOL* pool = nullptr;
    ASSERT_EQ(PltInitWorkItemPool(&pool, 2, 4, 2), 0u);
    for (uint64_t id = 0; id < 500; ++id) ASSERT_EQ(Add(pool, j, id, id % 3 == 0), 0u);
    EXPECT_EQ(PltDeleteWorkItemPool(pool, 1, PLT_INFINITE), 0u);
    std::sort(j.ran.begin(), j.ran.end());
    EXPECT_TRUE(j.ran.size() == 500 &&
                std::adjacent_find(j.ran.begin(), j.ran.end()) == j.ran.end())
        << "every item runs once";
    EXPECT_EQ(
        PltAddWorkItem(nullptr, nullptr, &Record, 0, 0, 0) + PltDeleteWorkItemPool(nullptr, 1, 0),
        2 * 87u);
}

TEST(Pool, ACallbackThatNeverReturnsIsTerminatedAtTheBudget) {
    Journal j;  // gate 0 is never set
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_WORK_ITEM_POOL* pool = BusyPool(j, 2, 2);
    ULONGLONG start = GetTickCount64();
    EXPECT_EQ(PltDeleteWorkItemPool(pool, 1, 300), 0u);
    ULONGLONG elapsed = GetTickCount64() - start;
    EXPECT_TRUE(elapsed >= 250 && elapsed < 5000) << elapsed;
    // Every handle closed; the terminated worker never freed its start block.
    zt::LeavesBehind({.LiveAllocCount = 1, .LiveAllocBytes = 24, .LiveAllocBySize = {1}});
    EXPECT_MOVED(before, {.ThreadCount = 2});
    EXPECT_TRUE(j.ran.empty());
}

// A worker that holds a lock when the shutdown budget runs out (here the item
// list's, returning its item after the callback: the hook sleeps before the
// real release) is waited for, not ended there: that would leave the lock held
// and the deletion waiting for it for good. And an add that read "not
// stopping" before the deletion set it is decided again under the queue lock.
std::atomic<DWORD> g_holder, g_adder, g_deleter;
zt::Signal *g_held, *g_stopped, *g_added;
void WINAPI SlowLeave(LPCRITICAL_SECTION section) {
    if (zt::Claim(g_holder)) g_held->set(), Sleep(500);
    if (zt::Claim(g_adder)) g_held->set(), g_stopped->wait();
    LeaveCriticalSection(section);
}
BOOL WINAPI NoteStopped(HANDLE event) {
    if (zt::Claim(g_deleter)) g_stopped->set(), g_added->wait();
    return SetEvent(event);
}
uint32_t NoteHolder(uint64_t, uint64_t) { return g_holder = GetCurrentThreadId(), 0; }

TEST(Pool, ShutdownEndsNoWorkerInsideALockAndRefusesLateAdds) {
    zt::Signal held, stopped, added;
    g_held = &held, g_stopped = &stopped, g_added = &added;
    zt::ImportHook leave("LeaveCriticalSection", reinterpret_cast<void*>(&SlowLeave));
    zt::ImportHook set("SetEvent", reinterpret_cast<void*>(&NoteStopped));
    PLT_WORK_ITEM_POOL* pool = nullptr;
    ASSERT_EQ(PltInitWorkItemPool(&pool, 1, 1, 2), 0u);
    ASSERT_EQ(PltAddWorkItem(pool, nullptr, &NoteHolder, 0, 0, 0), 0u);
    ASSERT_TRUE(held.wait());
    zt::TestThread deleter([&] { EXPECT_EQ(PltDeleteWorkItemPool(pool, 1, 50), 0u); });
    EXPECT_TRUE(deleter.join(5000)) << "the deletion waits for a lock a terminated worker held";
    held.reset();
    ASSERT_EQ(PltInitWorkItemPool(&pool, 1, 1, 2), 0u);
    g_adder = GetCurrentThreadId();  // held between its stopping check and the queue
    PLT_WORK_ITEM* item = reinterpret_cast<PLT_WORK_ITEM*>(1);
    zt::TestThread late([&] {
        held.wait();
        g_deleter = GetCurrentThreadId();
        EXPECT_EQ(PltDeleteWorkItemPool(pool, 0, 1000), 0u);
    });
    EXPECT_CALLS("4294967295 1", PltAddWorkItem(pool, &item, &NoteHolder, 0, 0, 0),
                 item == nullptr);
    added.set();
    EXPECT_TRUE(late.join(5000));
}

int g_threadsAllowed;
HANDLE WINAPI LimitedCreateThread(LPSECURITY_ATTRIBUTES sa, SIZE_T stack, LPTHREAD_START_ROUTINE fn,
                                  LPVOID param, DWORD flags, LPDWORD id) {
    if (g_threadsAllowed-- > 0) return CreateThread(sa, stack, fn, param, flags, id);
    SetLastError(ERROR_MAX_THRDS_REACHED);
    return nullptr;
}

// Set-up failures: the caller gets its status and a null pool; workers already
// started are stopped, and only a terminated one's start block stays.
TEST(Pool, EveryCreationFailureGivesItsStatusAndANullPool) {
    auto attempt = [](int nth) {
        PLT_RESOURCE_STATS before = zt::Snapshot();
        PLT_WORK_ITEM_POOL* pool = reinterpret_cast<PLT_WORK_ITEM_POOL*>(1);
        zt::HeapFailure* fail = new zt::HeapFailure(nth);
        EXPECT_EQ(PltInitWorkItemPool(&pool, 3, 4, 2), nth == 1 ? 87u : 0u) << nth;
        bool failed = nth < 0 || fail->failed();
        delete fail;
        if (!failed) return PltDeleteWorkItemPool(pool, 1, 10000) == 0;
        EXPECT_EQ(pool, nullptr) << nth;
        EXPECT_NO_LEAKS(before) << nth;
        return false;
    };
    // The record, the item chunk, the argument array and three start blocks.
    EXPECT_EQ(zt::SweepAllocationFailures(attempt), 6);
    {
        ZT_FAIL_IMPORT(CreateEventW, ERROR_NO_SYSTEM_RESOURCES);
        attempt(-1);
    }
    {
        ZT_FAIL_IMPORT(SetThreadPriority, ERROR_ACCESS_DENIED);
        attempt(-1);
    }
    for (int allowed : {0, 2}) {
        g_threadsAllowed = allowed;
        zt::ImportHook hook("CreateThread", reinterpret_cast<void*>(&LimitedCreateThread));
        attempt(-1);
    }
}

}  // namespace
