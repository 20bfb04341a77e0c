// Delivery: synchronous walks, asynchronous sends with completions,
// broadcasts, and deletion that drains what is queued.
#include <windows.h>

#include <vector>

#include <gtest/gtest.h>
#include <zendra/msgbus.h>

#include "bus_helpers.h"
#include "counters.h"
#include "heap_failure.h"
#include "sync_helpers.h"

namespace {

using mbt::Completion;
using mbt::OnComplete;
using mbt::Probe;

TEST(SendMsg, CallsEachLiveEntryOnceInEntryOrderAndOrsTheResults) {
    mbt::Bus bus;
    EXPECT_EQ(MBSendMsg(bus.get(), 1, 1, nullptr, 0), 1168u);
    std::string journal;
    Probe p[3] = {{'a', 1}, {'b', 2}, {'c', 0}};
    for (Probe& probe : p) probe.journal = &journal;
    for (int i : {1, 0, 2, 0}) EXPECT_EQ(bus.sub(p[i], 1, 1), 0u);
    char data[4] = "abc";
    EXPECT_EQ(MBSendMsg(bus.get(), 1, 1, data, sizeof data), 3u);
    EXPECT_EQ(journal, "bac") << "a pair subscribed twice is called once";
    EXPECT_EQ(p[2].lastData, data) << "the data is passed, never copied";
    EXPECT_EQ(p[2].thread.load(), GetCurrentThreadId());
    EXPECT_EQ(bus.unsub(p[0], 1, 1) + bus.unsub(p[0], 1, 1) + bus.unsub(p[1], 1, 1), 0u);
    EXPECT_EQ(MBSendMsg(bus.get(), 1, 1, data, 4), 0u);
    EXPECT_EQ(journal, "bacc");
    EXPECT_EQ(MBSendMsg(bus.get(), 1, 2, nullptr, 0), 1168u) << "slots are separate";
    for (auto send : {+[](MB_MSG_BUS* b, uint32_t t, uint32_t a) { return MBSendMsg(b, t, a, nullptr, 0); },
                      +[](MB_MSG_BUS* b, uint32_t t, uint32_t a) { return MBSendMsgAsync(b, t, a, nullptr, 0, nullptr, nullptr); },
                      +[](MB_MSG_BUS* b, uint32_t t, uint32_t a) { return MBBroadcastMsg(b, t, a, nullptr, 0, nullptr, nullptr); }}) {
        EXPECT_EQ(send(nullptr, 0, 0), 6u);
        EXPECT_EQ(send(bus.get(), 4, 0) + send(bus.get(), 0, 4) + send(bus.get(), 0, MB_ALL_ACTIONS),
                  3 * 1295u);
    }
}

// Unsubscribes `victim` from the slot it is called for, and subscribes a
// probe to slot (3, 3).
struct Meddler {
    MB_MSG_BUS* bus;
    void* victim;
    int calls = 0;
    PLT_STATUS subscribed = 99;
    static uint32_t Callback(uint32_t type, uint32_t action, void*, uint32_t, void* context) {
        auto* m = static_cast<Meddler*>(context);
        ++m->calls;
        MBUnsubscribe(m->bus, &Callback, type, action, m->victim);
        static Probe elsewhere;
        m->subscribed = MBSubscribe(m->bus, &mbt::ProbeCallback, 3, 3, &elsewhere);
        return 0;
    }
};

TEST(SendMsg, CallbacksMayUnsubscribeAnyPairAndSubscribeElsewhere) {
    mbt::Bus bus;
    Meddler self{bus.get()}, first{bus.get()}, later{bus.get()};
    self.victim = &self;
    first.victim = later.victim = &later;
    Probe after;
    MBSubscribe(bus.get(), &Meddler::Callback, 0, 0, &self);
    bus.sub(after, 0, 0);
    EXPECT_EQ(MBSendMsg(bus.get(), 0, 0, nullptr, 0) + MBSendMsg(bus.get(), 0, 0, nullptr, 0), 0u);
    EXPECT_EQ(self.calls * 10 + after.calls, 12) << "not called again; the send went on";
    EXPECT_EQ(self.subscribed, 0u);
    MBSubscribe(bus.get(), &Meddler::Callback, 1, 0, &first);
    MBSubscribe(bus.get(), &Meddler::Callback, 1, 0, &later);
    EXPECT_EQ(MBSendMsg(bus.get(), 1, 0, nullptr, 0), 0u);
    EXPECT_EQ(later.calls, 0) << "unsubscribed before its turn in the same walk";
}

TEST(SendMsgAsync, CompletionGetsWhatTheSynchronousSendWouldReturn) {
    mbt::Bus bus;
    Completion empty, full;
    EXPECT_EQ(MBSendMsgAsync(bus.get(), 1, 1, nullptr, 0, &OnComplete, &empty), 0u);
    ASSERT_TRUE(empty.done.wait());
    EXPECT_EQ(empty.status.load(), 1168u);
    EXPECT_NE(empty.thread.load(), GetCurrentThreadId()) << "never on the sender's thread";
    Probe one{'a', 4}, two{'b', 1};
    bus.sub(one, 1, 1);
    bus.sub(two, 1, 1);
    char data[5] = "data";
    EXPECT_EQ(MBSendMsgAsync(bus.get(), 1, 1, data, 5, &OnComplete, &full), 0u);
    ASSERT_TRUE(full.done.wait());
    EXPECT_EQ(full.status.load(), 5u);
    EXPECT_EQ(full.data, data);
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(MBSendMsgAsync(bus.get(), 1, 1, nullptr, 0, nullptr, nullptr), 0u);
    EXPECT_TRUE(zt::WaitUntil([&] { return one.calls == 21 && bus->messages.inUse == 0; }))
        << "subscribers run without a completion; records are given back";
}

struct Gate {
    zt::Signal open;
    std::atomic<int> entered{0}, delivered{0};
    static uint32_t Callback(uint32_t, uint32_t, void*, uint32_t, void* context) {
        auto* g = static_cast<Gate*>(context);
        ++g->entered;
        g->open.wait(60000);
        ++g->delivered;
        return 0;
    }
};

TEST(SendMsgAsync, NoRecordGives8AndDeletionDrainsThenRefuses) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    Gate gate;
    MB_MSG_BUS* bus = nullptr;
    ASSERT_EQ(MBCreateMsgBus(&bus, 1, 1, 2), 0u);
    MBSubscribe(bus, &Gate::Callback, 0, 0, &gate);
    // A hundred records in use fill the first block; the next needs a new one.
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(MBSendMsgAsync(bus, 0, 0, nullptr, 0, nullptr, nullptr), 0u);
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(MBSendMsgAsync(bus, 0, 0, nullptr, 0, nullptr, nullptr), 8u);
        EXPECT_EQ(MBBroadcastMsg(bus, 0, 0, nullptr, 0, nullptr, nullptr), 8u);
    }
    ASSERT_TRUE(zt::WaitUntil([&] { return gate.entered >= 2; }));
    PLT_STATUS status = 99;
    zt::TestThread deleter([&] { status = MBDeleteMsgBus(bus); });
    int accepted = 100;
    EXPECT_TRUE(zt::WaitUntil([&] {
        PLT_STATUS s = MBSendMsgAsync(bus, 0, 0, nullptr, 0, nullptr, nullptr);
        return (accepted += s == 0, s == 0xFFFFFFFFu);
    }));
    gate.open.set();
    ASSERT_TRUE(deleter.join());
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(gate.delivered, accepted) << "queued messages are delivered before the bus goes";
    EXPECT_NO_LEAKS(before, zt::kIgnoreThreads);
}

TEST(Broadcast, OneRunPerLiveEntryAndOneCompletionWhenIndexZeroIsServed) {
    mbt::Bus bus;
    Probe p[3] = {{'a', 1}, {'b', 2}, {'c', 4}};
    for (Probe& probe : p) bus.sub(probe, 1, 1);
    Completion c;
    char data[3] = "hi";
    EXPECT_EQ(MBBroadcastMsg(bus.get(), 1, 1, data, 3, &OnComplete, &c), 0u);
    ASSERT_TRUE(c.done.wait());
    EXPECT_TRUE(zt::WaitUntil([&] { return p[0].calls + p[1].calls + p[2].calls == 3; }));
    for (Probe& probe : p) EXPECT_TRUE(probe.lastData == data && probe.thread != GetCurrentThreadId());
    EXPECT_TRUE(zt::WaitUntil([&] { return bus->messages.inUse == 0; })) << "record given back";
    EXPECT_EQ(c.calls, 1);
    // Only what was OR-ed in before index 0 returned; index 0's own result always.
    EXPECT_EQ(c.status.load() & ~6u, 1u);
    EXPECT_EQ(c.data, data);
    // An empty slot, or one holding a dead entry: no completion, record kept.
    Completion none, dead;
    EXPECT_EQ(MBBroadcastMsg(bus.get(), 0, 0, nullptr, 0, &OnComplete, &none), 0u);
    Probe gone{'g'}, live{'l'};
    bus.sub(gone, 2, 2);
    bus.sub(live, 2, 2);
    bus.unsub(gone, 2, 2);
    EXPECT_EQ(MBBroadcastMsg(bus.get(), 2, 2, nullptr, 0, &OnComplete, &dead), 0u);
    EXPECT_TRUE(zt::WaitUntil([&] { return live.calls == 1; }));
    EXPECT_FALSE(none.done.wait(100) || dead.done.wait(100));
    EXPECT_EQ(bus->messages.inUse * 10 + gone.calls, 20u);
}

TEST(Broadcast, ManyConcurrentBroadcastsEachCompleteOnce) {
    mbt::Bus bus(1, 1, 8);
    Probe p[4];
    for (Probe& probe : p) bus.sub(probe, 0, 0);
    std::vector<Completion> done(200);
    for (Completion& c : done)
        ASSERT_EQ(MBBroadcastMsg(bus.get(), 0, 0, nullptr, 0, &OnComplete, &c), 0u);
    for (Completion& c : done) ASSERT_TRUE(c.done.wait());
    EXPECT_TRUE(zt::WaitUntil([&] { return bus->messages.inUse == 0; }));
    for (Completion& c : done) EXPECT_EQ(c.calls, 1);
    for (Probe& probe : p) EXPECT_EQ(probe.calls, 200);
}

}  // namespace
