// Lost wake-ups: an item added to an idle pool must start at once, not after
// the workers' ten-second idle wait. Rounds of single items into a pool whose
// workers went back to sleep, each bounded by a second; ZENDRA_STRESS_ROUNDS
// sets the rounds (kept short for CI).
#include <stdlib.h>

#include <atomic>
#include <thread>
#include <vector>

#include "zt.h"

namespace {

std::atomic<long> g_ran;
uint32_t Ran(uint64_t, uint64_t) { return ++g_ran, 0; }

void Rounds(uint32_t workers, int producers) {
    const char* text = getenv("ZENDRA_STRESS_ROUNDS");
    const long rounds = text != nullptr && atol(text) > 0 ? atol(text) : 300;
    PLT_WORK_ITEM_POOL* pool = nullptr;
    ASSERT_EQ(PltInitWorkItemPool(&pool, workers, workers, 2), 0u);
    g_ran = 0;
    long slow = 0;
    for (long round = 0; round < rounds; ++round) {
        Sleep(round % 4);  // the workers now asleep, now just about to be
        long target = g_ran + producers;
        std::vector<std::thread> adders;
        for (int p = 0; p < producers; ++p)
            adders.emplace_back([&] { PltAddWorkItem(pool, nullptr, &Ran, 0, 0, 0); });
        for (std::thread& t : adders) t.join();
        slow += !zt::WaitUntil([&] { return g_ran >= target; }, 1000);
    }
    EXPECT_EQ(PltDeleteWorkItemPool(pool, 1, PLT_INFINITE), 0u);
    EXPECT_EQ(slow, 0) << "rounds whose items waited more than a second, of " << rounds;
}

TEST(PoolWakeups, OneItemIntoAnIdleWorker) { Rounds(1, 1); }
TEST(PoolWakeups, FourProducersAndEightWorkers) { Rounds(8, 4); }

}  // namespace
