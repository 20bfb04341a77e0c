// Lookaside lists beside the heap, and work-item pools beside the Windows
// thread pool.
#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <zendra/platform.h>

#include "bench.h"

namespace {

const uint32_t kTag = PLT_TAG('B', 'N', 'C', 'H');

// A list whose first `full` chunks are full and whose last chunk has room.
void FillChunks(PLT_LOOKASIDE_LIST* list, uint32_t full, uint8_t unlocked) {
    PltInitLookasideList(list, 64, 100, PLT_NO_LIMIT, unlocked, nullptr, 0, kTag);
    for (uint32_t i = 0; i < full * 100 + 1; ++i) PltAllocateFromLookasideList(list);
}

zb::Op LookasidePairs(PLT_LOOKASIDE_LIST* list) {
    return [list](long n) {
        for (long i = 0; i < n; ++i)
            PltFreeToLookasideList(list, PltAllocateFromLookasideList(list));
    };
}

void HeapPairs(long n) {
    HANDLE heap = GetProcessHeap();
    for (long i = 0; i < n; ++i) HeapFree(heap, 0, HeapAlloc(heap, 0, 64));
}

std::atomic<long> g_done;
uint32_t CountItem(uint64_t, uint64_t) {
    g_done.fetch_add(1, std::memory_order_relaxed);
    return 0;
}
void CALLBACK CountTp(PTP_CALLBACK_INSTANCE, void*) {
    g_done.fetch_add(1, std::memory_order_relaxed);
}

std::atomic<double> g_seenAt;
uint32_t StampItem(uint64_t, uint64_t) {
    g_seenAt.store(zb::NowNs());
    return 0;
}
void CALLBACK StampTp(PTP_CALLBACK_INSTANCE, void*) { g_seenAt.store(zb::NowNs()); }

void WaitForCount(long target) {
    while (g_done.load() < target) SwitchToThread();
}

}  // namespace

ZB_SUITE(lookaside) {
    zb::Options o;
    o.iterations = zb::Count(200000, 1000000);
    PLT_LOOKASIDE_LIST locked, unlocked;
    FillChunks(&locked, 0, 0);
    FillChunks(&unlocked, 0, 1);
    zb::Compare("lookaside 64 B alloc+free (locked)", LookasidePairs(&locked),
                "HeapAlloc+HeapFree 64 B", HeapPairs, o);
    zb::Compare("lookaside 64 B alloc+free (unlocked)", LookasidePairs(&unlocked),
                "HeapAlloc+HeapFree 64 B", HeapPairs, o);
    PltFreeLookasideList(&unlocked);

    for (uint32_t full : {1u, 10u, 100u}) {
        PLT_LOOKASIDE_LIST deep;
        FillChunks(&deep, full, 0);
        zb::Compare("lookaside pair, " + std::to_string(full) + " full chunks ahead",
                    LookasidePairs(&deep), "no full chunk ahead", LookasidePairs(&locked), o);
        PltFreeLookasideList(&deep);
    }
    PltFreeLookasideList(&locked);
}

ZB_SUITE(workitems) {
    const long kItems = zb::Count(20000, 100000);
    // Items per second with `producers` threads adding a share each.
    auto rate = [&](int producers, auto add) {
        g_done = 0;
        double start = zb::NowNs();
        std::vector<std::thread> threads;
        for (int p = 0; p < producers; ++p)
            threads.emplace_back([&] {
                for (long i = 0; i < kItems / producers; ++i) add();
            });
        for (std::thread& t : threads) t.join();
        WaitForCount(kItems / producers * producers);
        return kItems / ((zb::NowNs() - start) / 1e9);
    };
    for (int producers : {1, 4}) {
        for (int repetition = 0; repetition < 3; ++repetition) {
            PLT_WORK_ITEM_POOL* pool = nullptr;
            PltInitWorkItemPool(&pool, 2, 8, 2);
            double poolRate =
                rate(producers, [&] { PltAddWorkItem(pool, nullptr, &CountItem, 0, 0, 0); });
            PltDeleteWorkItemPool(pool, 1, PLT_INFINITE);
            double tpRate =
                rate(producers, [] { TrySubmitThreadpoolCallback(&CountTp, nullptr, nullptr); });
            std::string name =
                "work items, " + std::to_string(producers) + " producer(s), empty callbacks";
            printf("%-52s %10.0f /s     %-34s %10.0f /s     %6.2fx\n", name.c_str(), poolRate,
                   "TrySubmitThreadpoolCallback", tpRate, poolRate / tpRate);
        }
    }

    // Latency from queueing to the callback starting, one item at a time on
    // an idle pool.
    PLT_WORK_ITEM_POOL* pool = nullptr;
    PltInitWorkItemPool(&pool, 2, 8, 2);
    auto latency = [](auto submit) {
        std::vector<double> samples;
        const long rounds = zb::Count(51, 201);
        for (long i = 0; i < rounds; ++i) {
            g_seenAt = 0;
            double start = zb::NowNs();
            submit();
            while (g_seenAt.load() == 0) YieldProcessor();
            samples.push_back(g_seenAt.load() - start);
            Sleep(1);
        }
        std::sort(samples.begin(), samples.end());
        return samples[samples.size() / 2];
    };
    double poolNs = latency([&] { PltAddWorkItem(pool, nullptr, &StampItem, 0, 0, 0); });
    double tpNs = latency([] { TrySubmitThreadpoolCallback(&StampTp, nullptr, nullptr); });
    printf("%-52s %10.1f us   %-34s %10.1f us   %6.2fx\n", "queue-to-callback latency",
           poolNs / 1000, "TrySubmitThreadpoolCallback", tpNs / 1000, poolNs / tpNs);
    PltDeleteWorkItemPool(pool, 1, PLT_INFINITE);
}
