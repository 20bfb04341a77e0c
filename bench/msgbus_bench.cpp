// The message bus beside direct calls through a function-pointer array.
#include <atomic>
#include <string>

#include <zendra/msgbus.h>

#include "bench.h"

namespace {

std::atomic<long> g_calls;
uint32_t Handled(uint32_t, uint32_t, void*, uint32_t, void*) { return 0; }
uint32_t Counted(uint32_t, uint32_t, void*, uint32_t, void*) {
    g_calls.fetch_add(1, std::memory_order_relaxed);
    return 0;
}
std::atomic<long> g_completions;
uint32_t Completed(uint32_t, uint32_t, void*, uint32_t, void*, uint32_t) {
    g_completions.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

// What a sender would do without the bus: call each subscriber in turn.
MB_SUBSCRIBER_CALLBACK volatile g_direct[8];
int g_contexts[8];

}  // namespace

ZB_SUITE(msgbus) {
    for (int subscribers : {1, 8}) {
        MB_MSG_BUS* bus = nullptr;
        MBCreateMsgBus(&bus, 4, 4, 16);
        for (int i = 0; i < subscribers; ++i) {
            MBSubscribe(bus, &Handled, 1, 1, &g_contexts[i]);
            g_direct[i] = &Handled;
        }
        zb::Options o;
        o.iterations = zb::Count(100000, 500000);
        char data[16] = {};
        zb::Compare(
            "MBSendMsg, " + std::to_string(subscribers) + " subscriber(s)",
            [&](long n) {
                for (long i = 0; i < n; ++i) MBSendMsg(bus, 1, 1, data, sizeof data);
            },
            "direct calls through a pointer array",
            [&](long n) {
                for (long i = 0; i < n; ++i) {
                    uint32_t status = 0;
                    for (int s = 0; s < subscribers; ++s)
                        status |= g_direct[s](1, 1, data, sizeof data, &g_contexts[s]);
                    if (status == 0xFFFFFFFF) break;
                }
            },
            o);
        MBDeleteMsgBus(bus);
    }

    // Throughput of one sender: time from the first send to the last
    // completion.
    const long kMessages = zb::Count(5000, 20000);
    for (int repetition = 0; repetition < 3; ++repetition) {
        MB_MSG_BUS* bus = nullptr;
        MBCreateMsgBus(&bus, 2, 2, 16);
        MBSubscribe(bus, &Counted, 1, 1, nullptr);
        g_completions = 0;
        double start = zb::NowNs();
        for (long i = 0; i < kMessages; ++i)
            MBSendMsgAsync(bus, 1, 1, nullptr, 0, &Completed, nullptr);
        while (g_completions.load() < kMessages) SwitchToThread();
        zb::Report("MBSendMsgAsync, one sender, 1 subscriber",
                   kMessages / ((zb::NowNs() - start) / 1e9), "messages/s");
        MBDeleteMsgBus(bus);
    }

    for (int repetition = 0; repetition < 3; ++repetition) {
        MB_MSG_BUS* bus = nullptr;
        MBCreateMsgBus(&bus, 2, 2, 16);
        for (int i = 0; i < 8; ++i) MBSubscribe(bus, &Counted, 1, 1, &g_contexts[i]);
        const long kBroadcasts = zb::Count(500, 2000);
        g_calls = 0;
        g_completions = 0;
        double start = zb::NowNs();
        for (long i = 0; i < kBroadcasts; ++i)
            MBBroadcastMsg(bus, 1, 1, nullptr, 0, &Completed, nullptr);
        while (g_calls.load() < kBroadcasts * 8) SwitchToThread();
        double seconds = (zb::NowNs() - start) / 1e9;
        zb::Report("MBBroadcastMsg to 8 subscribers", kBroadcasts / seconds, "broadcasts/s");
        MBDeleteMsgBus(bus);
    }
}
