// Stress: a hundred threads subscribing, sending and unsubscribing on one
// slot of one bus must end without deadlock and with the counters back.
// ZENDRA_STRESS_ROUNDS sets the rounds per thread (kept short for CI).
#include <stdlib.h>

#include <atomic>
#include <thread>
#include <vector>

#include <zendra/msgbus.h>

#include "zt.h"

namespace {

std::atomic<long> g_delivered, g_completed, g_failures;

uint32_t Count(uint32_t, uint32_t, void*, uint32_t, void*) { return ++g_delivered, 0; }
uint32_t Completed(uint32_t, uint32_t, void*, uint32_t, void*, uint32_t) { return ++g_completed; }

void RunStress(bool async) {
    const char* text = getenv("ZENDRA_STRESS_ROUNDS");
    const long rounds = text != nullptr && atoi(text) > 0 ? atoi(text) : 500, threads = 100;
    PLT_RESOURCE_STATS before = zt::Snapshot();
    g_delivered = g_completed = g_failures = 0;
    MB_MSG_BUS* bus = nullptr;
    ASSERT_EQ(MBCreateMsgBus(&bus, 50, 50, 128), 0u);
    auto body = [&] {
        int me = 0;  // a context of this thread's own
        for (long i = 0; i < rounds; ++i) {
            PLT_STATUS s = MBSubscribe(bus, &Count, 1, 1, &me);
            g_failures += s != 0 && s != 1295;  // a full slot is allowed
            s = async ? MBSendMsgAsync(bus, 1, 1, nullptr, 0, &Completed, nullptr)
                      : MBSendMsg(bus, 1, 1, nullptr, 0);
            g_failures += s != 0 && s != 1168;
            Sleep(1);
            s = MBUnsubscribe(bus, &Count, 1, 1, &me);
            g_failures += s != 0 && s != 1168;
            Sleep(1);
        }
    };
    std::vector<std::thread> workers;
    for (long i = 0; i < threads; ++i) workers.emplace_back(body);
    for (std::thread& t : workers) t.join();
    EXPECT_EQ(g_failures.load(), 0);
    EXPECT_GT(g_delivered.load(), 0);
    EXPECT_EQ(MBDeleteMsgBus(bus), 0u);
    EXPECT_EQ(g_completed.load(), async ? threads * rounds : 0);
    EXPECT_NO_LEAKS(before);
}

TEST(BusStress, HundredThreadsSubscribeSendUnsubscribe) { RunStress(false); }
TEST(BusStress, HundredThreadsSubscribeSendAsyncUnsubscribe) { RunStress(true); }

}  // namespace
