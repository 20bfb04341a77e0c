// Stress: many threads subscribing, sending and unsubscribing on one slot of
// one bus. It must end without deadlock and with the counters back.
// ZENDRA_STRESS_ROUNDS sets the rounds per thread (default kept short for CI).
#include <stdlib.h>
#include <windows.h>

#include <atomic>
#include <vector>

#include <gtest/gtest.h>
#include <zendra/msgbus.h>

#include "counters.h"

namespace {

const int kThreads = 100;

int Rounds() {
    const char* text = getenv("ZENDRA_STRESS_ROUNDS");
    int rounds = text != nullptr ? atoi(text) : 0;
    return rounds > 0 ? rounds : 500;
}

std::atomic<long> g_delivered;
std::atomic<long> g_completed;

uint32_t Count(uint32_t, uint32_t, void*, uint32_t length, void*) {
    if (length == 0) ++g_delivered;
    return 0;
}

uint32_t Completed(uint32_t, uint32_t, void*, uint32_t, void*, uint32_t) {
    ++g_completed;
    return 0;
}

struct Worker {
    MB_MSG_BUS* bus;
    bool async;
    int rounds;
    std::atomic<int> failures{0};
    static DWORD WINAPI Run(void* p) {
        auto* w = static_cast<Worker*>(p);
        int me = 0;  // a context of this thread's own
        for (int i = 0; i < w->rounds; ++i) {
            PLT_STATUS s = MBSubscribe(w->bus, &Count, 1, 1, &me);
            if (s != 0 && s != 1295) ++w->failures;  // a full slot is allowed
            if (w->async)
                s = MBSendMsgAsync(w->bus, 1, 1, nullptr, 0, &Completed, nullptr);
            else
                s = MBSendMsg(w->bus, 1, 1, nullptr, 0);
            if (s != 0 && s != 1168) ++w->failures;
            Sleep(1);
            s = MBUnsubscribe(w->bus, &Count, 1, 1, &me);
            if (s != 0 && s != 1168) ++w->failures;
            Sleep(1);
        }
        return 0;
    }
};

void RunStress(bool async) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    g_delivered = 0;
    g_completed = 0;
    MB_MSG_BUS* bus = nullptr;
    ASSERT_EQ(MBCreateMsgBus(&bus, 50, 50, 128), 0u);
    Worker w{bus, async, Rounds()};
    std::vector<HANDLE> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.push_back(CreateThread(nullptr, 0, &Worker::Run, &w, 0, nullptr));
        Sleep(1);
    }
    DWORD deadline = GetTickCount() + 15 * 60 * 1000;
    for (HANDLE h : threads) {
        DWORD left = deadline - GetTickCount();
        ASSERT_EQ(WaitForSingleObject(h, static_cast<int>(left) > 0 ? left : 0), WAIT_OBJECT_0)
            << "deadlock: a thread did not finish";
        CloseHandle(h);
    }
    EXPECT_EQ(w.failures, 0);
    EXPECT_GT(g_delivered.load(), 0);
    EXPECT_EQ(MBDeleteMsgBus(bus), 0u);
    if (async) {
        EXPECT_EQ(g_completed.load(), static_cast<long>(kThreads) * w.rounds);
    }
    EXPECT_NO_LEAKS(before, zt::kIgnoreThreads);
}

TEST(BusStress, HundredThreadsSubscribeSendUnsubscribe) { RunStress(false); }

TEST(BusStress, HundredThreadsSubscribeSendAsyncUnsubscribe) { RunStress(true); }

}  // namespace
