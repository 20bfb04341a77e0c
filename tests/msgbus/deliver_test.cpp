// Delivery: synchronous walks, asynchronous sends with completions,
// broadcasts, and deletion that drains what is queued.
#include <windows.h>

#include <atomic>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>
#include <zendra/msgbus.h>

#include "bus_helpers.h"
#include "counters.h"
#include "heap_failure.h"
#include "sync_helpers.h"

namespace {

using mbt::Probe;
using mbt::ProbeCallback;

struct Completion {
    std::atomic<int> calls{0};
    std::atomic<uint32_t> status{0xDEADu};
    std::atomic<DWORD> thread{0};
    zt::Signal done;
    void* data = nullptr;
    uint32_t length = 0;
};

uint32_t OnComplete(uint32_t, uint32_t, void* data, uint32_t length, void* context,
                    uint32_t status) {
    auto* c = static_cast<Completion*>(context);
    c->data = data;
    c->length = length;
    c->status = status;
    c->thread = GetCurrentThreadId();
    ++c->calls;
    c->done.set();
    return 12345;  // ignored
}

TEST(SendMsg, NoSubscriberOneAndTheOrOfSeveral) {
    mbt::Bus bus;
    EXPECT_EQ(MBSendMsg(bus.get(), 1, 1, nullptr, 0), 1168u);
    Probe one, two;
    one.answer = 1;
    two.answer = 2;
    MBSubscribe(bus.get(), &ProbeCallback, 1, 1, &one);
    one.answer = 0;
    EXPECT_EQ(MBSendMsg(bus.get(), 1, 1, nullptr, 0), 0u);
    one.answer = 1;
    MBSubscribe(bus.get(), &ProbeCallback, 1, 1, &two);
    char data[12] = "twelve byte";
    EXPECT_EQ(MBSendMsg(bus.get(), 1, 1, data, sizeof data), 3u);
    EXPECT_EQ(two.lastData, data) << "the data is passed, never copied";
    EXPECT_EQ(two.lastLength, 12u);
    EXPECT_EQ(two.thread.load(), GetCurrentThreadId()) << "called on the sender's thread";
}

TEST(SendMsg, CallsLiveEntriesOnceEachInEntryOrder) {
    mbt::Bus bus;
    std::vector<int> journal;
    std::mutex lock;
    Probe p[3];
    for (int i = 0; i < 3; ++i) {
        p[i].id = i;
        p[i].journal = &journal;
        p[i].journalLock = &lock;
    }
    MBSubscribe(bus.get(), &ProbeCallback, 2, 3, &p[1]);
    MBSubscribe(bus.get(), &ProbeCallback, 2, 3, &p[0]);
    MBSubscribe(bus.get(), &ProbeCallback, 2, 3, &p[2]);
    MBSubscribe(bus.get(), &ProbeCallback, 2, 3, &p[0]);  // refs 2, still one call
    EXPECT_EQ(MBSendMsg(bus.get(), 2, 3, nullptr, 0), 0u);
    EXPECT_EQ(journal, (std::vector<int>{1, 0, 2}));
    EXPECT_EQ(MBSendMsg(bus.get(), 2, 2, nullptr, 0), 1168u) << "slots are separate";
}

struct SelfRemover {
    MB_MSG_BUS* bus;
    void* victim;  // context to unsubscribe, this one's own or a later one's
    int calls = 0;
    static uint32_t Callback(uint32_t type, uint32_t action, void*, uint32_t, void* context) {
        auto* s = static_cast<SelfRemover*>(context);
        ++s->calls;
        MBUnsubscribe(s->bus, &Callback, type, action, s->victim);
        return 0;
    }
};

TEST(SendMsg, ACallbackMayUnsubscribeItselfOrALaterEntry) {
    mbt::Bus bus;
    SelfRemover self{bus.get(), nullptr};
    self.victim = &self;
    Probe after;
    MBSubscribe(bus.get(), &SelfRemover::Callback, 0, 0, &self);
    MBSubscribe(bus.get(), &ProbeCallback, 0, 0, &after);
    EXPECT_EQ(MBSendMsg(bus.get(), 0, 0, nullptr, 0), 0u);
    EXPECT_EQ(MBSendMsg(bus.get(), 0, 0, nullptr, 0), 0u);
    EXPECT_EQ(self.calls, 1) << "not called by the next send";
    EXPECT_EQ(after.calls, 2) << "the current send went on";

    SelfRemover first{bus.get(), nullptr};
    SelfRemover later{bus.get(), nullptr};
    first.victim = &later;
    later.victim = &later;
    MBSubscribe(bus.get(), &SelfRemover::Callback, 1, 0, &first);
    MBSubscribe(bus.get(), &SelfRemover::Callback, 1, 0, &later);
    EXPECT_EQ(MBSendMsg(bus.get(), 1, 0, nullptr, 0), 0u);
    EXPECT_EQ(later.calls, 0) << "unsubscribed before its turn in the same walk";
}

struct CrossSubscriber {
    MB_MSG_BUS* bus;
    PLT_STATUS result = 99;
    static uint32_t Callback(uint32_t, uint32_t, void*, uint32_t, void* context) {
        auto* c = static_cast<CrossSubscriber*>(context);
        c->result = MBSubscribe(c->bus, &ProbeCallback, 3, 3, context);
        return 0;
    }
};

TEST(SendMsg, ACallbackMaySubscribeToAnotherSlot) {
    mbt::Bus bus;
    CrossSubscriber c{bus.get()};
    MBSubscribe(bus.get(), &CrossSubscriber::Callback, 0, 0, &c);
    EXPECT_EQ(MBSendMsg(bus.get(), 0, 0, nullptr, 0), 0u);
    EXPECT_EQ(c.result, 0u);
    EXPECT_EQ(bus.slot(3, 3).count, 1u);
}

TEST(SendMsg, NullBusIs6AndAddressesOutOfRangeAre1295) {
    mbt::Bus bus(2, 2, 2);
    for (auto send :
         {+[](MB_MSG_BUS*b, uint32_t t, uint32_t a) { return MBSendMsg(b, t, a, nullptr, 0); },
          +[](MB_MSG_BUS*b, uint32_t t, uint32_t a) {
              return MBSendMsgAsync(b, t, a, nullptr, 0, nullptr, nullptr);
          },
          +[](MB_MSG_BUS*b, uint32_t t, uint32_t a) {
              return MBBroadcastMsg(b, t, a, nullptr, 0, nullptr, nullptr);
          }}) {
        EXPECT_EQ(send(nullptr, 0, 0), 6u);
        EXPECT_EQ(send(bus.get(), 2, 0), 1295u);
        EXPECT_EQ(send(bus.get(), 0, 2), 1295u);
        EXPECT_EQ(send(bus.get(), 0, MB_ALL_ACTIONS), 1295u) << "no wildcard for sending";
    }
}

TEST(SendMsgAsync, CompletionGetsWhatTheSynchronousSendWouldReturn) {
    mbt::Bus bus;
    Completion empty;
    EXPECT_EQ(MBSendMsgAsync(bus.get(), 1, 1, nullptr, 0, &OnComplete, &empty), 0u);
    ASSERT_TRUE(empty.done.wait());
    EXPECT_EQ(empty.status.load(), 1168u);
    EXPECT_NE(empty.thread.load(), GetCurrentThreadId()) << "never on the sender's thread";

    Probe one, two;
    one.answer = 4;
    two.answer = 1;
    MBSubscribe(bus.get(), &ProbeCallback, 1, 1, &one);
    MBSubscribe(bus.get(), &ProbeCallback, 1, 1, &two);
    Completion full;
    char data[5] = "data";
    EXPECT_EQ(MBSendMsgAsync(bus.get(), 1, 1, data, 5, &OnComplete, &full), 0u);
    ASSERT_TRUE(full.done.wait());
    EXPECT_EQ(full.status.load(), 5u);
    EXPECT_EQ(full.data, data);
    EXPECT_EQ(full.length, 5u);
    EXPECT_EQ(one.calls, 1);
    EXPECT_TRUE(zt::WaitUntil([&] { return bus->messages.inUse == 0; })) << "record given back";
}

TEST(SendMsgAsync, WithoutCompletionTheSubscribersStillRun) {
    mbt::Bus bus;
    Probe p;
    MBSubscribe(bus.get(), &ProbeCallback, 0, 0, &p);
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(MBSendMsgAsync(bus.get(), 0, 0, nullptr, 0, nullptr, nullptr), 0u);
    EXPECT_TRUE(zt::WaitUntil([&] { return p.calls == 20; }));
}

struct Gate {
    zt::Signal open;
    std::atomic<int> entered{0};
    std::atomic<int> delivered{0};
    static uint32_t Callback(uint32_t, uint32_t, void*, uint32_t, void* context) {
        auto* g = static_cast<Gate*>(context);
        ++g->entered;
        g->open.wait(60000);
        ++g->delivered;
        return 0;
    }
};

TEST(SendMsgAsync, NoMessageRecordGives8) {
    mbt::Bus bus;
    Gate gate;
    MBSubscribe(bus.get(), &Gate::Callback, 0, 0, &gate);
    // A hundred records in use fill the first block; the next needs a new one.
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(MBSendMsgAsync(bus.get(), 0, 0, nullptr, 0, nullptr, nullptr), 0u);
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(MBSendMsgAsync(bus.get(), 0, 0, nullptr, 0, nullptr, nullptr), 8u);
        EXPECT_EQ(MBBroadcastMsg(bus.get(), 0, 0, nullptr, 0, nullptr, nullptr), 8u);
    }
    gate.open.set();
    EXPECT_TRUE(zt::WaitUntil([&] { return gate.delivered == 100; }));
}

TEST(SendMsgAsync, RefusedWith0xFFFFFFFFOnceDeletionBegan) {
    Gate gate;
    MB_MSG_BUS* bus = nullptr;
    ASSERT_EQ(MBCreateMsgBus(&bus, 1, 1, 2), 0u);
    MBSubscribe(bus, &Gate::Callback, 0, 0, &gate);
    ASSERT_EQ(MBSendMsgAsync(bus, 0, 0, nullptr, 0, nullptr, nullptr), 0u);
    ASSERT_TRUE(zt::WaitUntil([&] { return gate.entered == 1; }));
    PLT_STATUS refused = 0;
    {
        zt::TestThread deleter([&] { MBDeleteMsgBus(bus); });
        EXPECT_TRUE(zt::WaitUntil([&] {
            refused = MBSendMsgAsync(bus, 0, 0, nullptr, 0, nullptr, nullptr);
            return refused == 0xFFFFFFFFu;
        }));
        gate.open.set();
    }
    EXPECT_EQ(refused, 0xFFFFFFFFu);
}

TEST(BusDelete, QueuedMessagesAreDeliveredBeforeTheBusGoes) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    Gate gate;
    MB_MSG_BUS* bus = nullptr;
    ASSERT_EQ(MBCreateMsgBus(&bus, 1, 1, 2), 0u);
    MBSubscribe(bus, &Gate::Callback, 0, 0, &gate);
    for (int i = 0; i < 30; ++i)
        ASSERT_EQ(MBSendMsgAsync(bus, 0, 0, nullptr, 0, nullptr, nullptr), 0u);
    ASSERT_TRUE(zt::WaitUntil([&] { return gate.entered >= 2; }));
    PLT_STATUS status = 99;
    zt::TestThread deleter([&] { status = MBDeleteMsgBus(bus); });
    Sleep(50);
    gate.open.set();
    ASSERT_TRUE(deleter.join());
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(gate.delivered, 30);
    EXPECT_NO_LEAKS(before, zt::kIgnoreThreads);
}

TEST(Broadcast, ThreeLiveSubscribersRunThreeCallbacksAndOneCompletion) {
    mbt::Bus bus;
    Probe p[3];
    p[0].answer = 1;
    p[1].answer = 2;
    p[2].answer = 4;
    for (Probe& probe : p) MBSubscribe(bus.get(), &ProbeCallback, 1, 1, &probe);
    Completion c;
    char data[3] = "hi";
    EXPECT_EQ(MBBroadcastMsg(bus.get(), 1, 1, data, 3, &OnComplete, &c), 0u);
    ASSERT_TRUE(c.done.wait());
    EXPECT_TRUE(zt::WaitUntil([&] { return p[0].calls + p[1].calls + p[2].calls == 3; }));
    for (Probe& probe : p) {
        EXPECT_EQ(probe.calls, 1);
        EXPECT_EQ(probe.lastData, data);
        EXPECT_NE(probe.thread.load(), GetCurrentThreadId());
    }
    Sleep(50);
    EXPECT_EQ(c.calls, 1);
    // Only what was OR-ed in before index 0 returned is reported; index 0's
    // own result is always part of it.
    EXPECT_EQ(c.status.load() & 1u, 1u);
    EXPECT_EQ(c.status.load() & ~7u, 0u);
    EXPECT_EQ(c.data, data);
    EXPECT_TRUE(zt::WaitUntil([&] { return bus->messages.inUse == 0; })) << "record given back";
}

TEST(Broadcast, EmptySlotQueuesNothingAndNeverCompletes) {
    mbt::Bus bus;
    Completion c;
    EXPECT_EQ(MBBroadcastMsg(bus.get(), 0, 0, nullptr, 0, &OnComplete, &c), 0u);
    EXPECT_FALSE(c.done.wait(200));
    EXPECT_EQ(bus->messages.inUse, 1u) << "the record is not given back";
}

TEST(Broadcast, ADeadEntryInTheSlotMeansNoCompletion) {
    mbt::Bus bus;
    Probe dead, live;
    MBSubscribe(bus.get(), &ProbeCallback, 0, 0, &dead);
    MBSubscribe(bus.get(), &ProbeCallback, 0, 0, &live);
    MBUnsubscribe(bus.get(), &ProbeCallback, 0, 0, &dead);
    Completion c;
    EXPECT_EQ(MBBroadcastMsg(bus.get(), 0, 0, nullptr, 0, &OnComplete, &c), 0u);
    EXPECT_TRUE(zt::WaitUntil([&] { return live.calls == 1; }));
    EXPECT_FALSE(c.done.wait(200)) << "index 0 is never served";
    EXPECT_EQ(dead.calls, 0);
}

TEST(Broadcast, ManyConcurrentBroadcastsEachCompleteOnce) {
    mbt::Bus bus(1, 1, 8);
    Probe p[4];
    for (Probe& probe : p) MBSubscribe(bus.get(), &ProbeCallback, 0, 0, &probe);
    const int kMessages = 200;
    std::vector<Completion> done(kMessages);
    for (Completion& c : done)
        ASSERT_EQ(MBBroadcastMsg(bus.get(), 0, 0, nullptr, 0, &OnComplete, &c), 0u);
    for (Completion& c : done) ASSERT_TRUE(c.done.wait());
    EXPECT_TRUE(zt::WaitUntil([&] { return bus->messages.inUse == 0; }));
    for (Completion& c : done) EXPECT_EQ(c.calls, 1);
    for (Probe& probe : p) EXPECT_EQ(probe.calls, kMessages);
}

}  // namespace
