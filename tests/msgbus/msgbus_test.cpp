// The message bus: creation and its partial failures, subscriptions (identity,
// refs, compaction with its deliberate skip, the wildcard action), and
// synchronous, asynchronous and broadcast delivery.
#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include <zendra/msgbus.h>

#include "zt.h"

namespace {

const uint32_t kQZMB = PLT_TAG('Q', 'Z', 'M', 'B');
std::mutex g_lock;

// A subscriber's context: what it saw and what it answers.
struct Probe {
    char name = '?';
    uint32_t answer = 0;
    std::string* journal = nullptr;  // call order across probes
    std::atomic<int> calls{0};
    std::atomic<DWORD> thread{0};
    void* data = nullptr;
};

uint32_t OnMessage(uint32_t, uint32_t, void* data, uint32_t, void* context) {
    auto* p = static_cast<Probe*>(context);
    std::lock_guard<std::mutex> g(g_lock);
    if (p->journal != nullptr) *p->journal += p->name;
    p->data = data;
    p->thread = GetCurrentThreadId();
    ++p->calls;
    return p->answer;
}

struct Completion {
    std::atomic<int> calls{0};
    std::atomic<uint32_t> status{0xDEAD};
    std::atomic<DWORD> thread{0};
    zt::Signal done;
};

uint32_t OnComplete(uint32_t, uint32_t, void*, uint32_t, void* context, uint32_t status) {
    auto* c = static_cast<Completion*>(context);
    c->status = status;
    c->thread = GetCurrentThreadId();
    ++c->calls;
    c->done.set();
    return 12345;  // ignored
}

// Owns a bus for one test; deleting it must return 0.
struct Bus {
    MB_MSG_BUS* bus = nullptr;
    explicit Bus(uint32_t types = 4, uint32_t actions = 4, uint32_t subscribers = 8) {
        EXPECT_EQ(MBCreateMsgBus(&bus, types, actions, subscribers), 0u);
    }
    ~Bus() { EXPECT_EQ(MBDeleteMsgBus(bus), 0u); }
    PLT_STATUS sub(Probe& p, uint32_t t, uint32_t a) {
        return MBSubscribe(bus, &OnMessage, t, a, &p);
    }
    PLT_STATUS unsub(Probe& p, uint32_t t, uint32_t a) {
        return MBUnsubscribe(bus, &OnMessage, t, a, &p);
    }
    // "a2 b0": the entries of a slot, by probe name and refs.
    std::string entries(uint32_t t, uint32_t a) {
        MB_SLOT& s = bus->types[t].slots[a];
        std::string out;
        for (uint32_t i = 0; i < s.count; ++i)
            out += (i ? " " : "") +
                   std::string(1, static_cast<Probe*>(s.subscribers[i].context)->name) +
                   std::to_string(s.subscribers[i].refs);
        return out;
    }
};

const uint32_t* Header(const void* block) { return static_cast<const uint32_t*>(block) - 2; }

TEST(BusCreate, TheGridItsBlocksAndAPoolAndTheTagZeroFreesOfDeletion) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    MB_MSG_BUS* bus = nullptr;
    ASSERT_EQ(MBCreateMsgBus(&bus, 3, 2, 5), 0u);
    EXPECT_TRUE(Header(bus)[0] == kQZMB && Header(bus)[1] == 136u + 3 * 16);
    MB_SLOT* slots = bus->types[2].slots;
    EXPECT_TRUE(Header(slots)[0] == 0 && Header(slots)[1] == 2u * 72 + 16);
    EXPECT_TRUE(Header(slots[1].subscribers)[0] == kQZMB &&
                Header(slots[1].subscribers)[1] == (5u + 3) * 24);
    EXPECT_EQ(bus->messages.entrySize * bus->messages.perChunk, 6400u);
    EXPECT_MOVED(
        before, {.LookasideListCount = 2, .RwSpinLockCount = 6, .EventCount = 1, .ThreadCount = 2});
    PLT_RESOURCE_STATS created = zt::Snapshot();
    EXPECT_EQ(MBDeleteMsgBus(bus), 0u);
    EXPECT_MOVED(created, {.TagMismatchCount = 1 + 3 * 2}) << "record and subscriber arrays";
    EXPECT_EQ(MBDeleteMsgBus(nullptr), 87u);
}

// Allocations of a 2 x 2 bus: the record; per type its slot array and two
// subscriber arrays; the message block; the pool's record, item chunk and
// argument array; two start blocks.
TEST(BusCreate, EveryAllocationFailureIsSurvivedAndDeletionFreesWhatWasMade) {
    Probe p;
    const struct {
        int nth;
        PLT_STATUS status;
        const char* subscribed;           // subscribing in each slot, then sending asynchronously
    } cases[] = {{1, 8, ""},              // no bus at all
                 {4, 0, "0 1295 0 0 0"},  // type 0's second subscriber array
                 {8, 8, "1295 1295 1295 1295 1295"},  // message block: nothing addressable
                 {9, 87, "0 0 0 0 87"}};              // pool: synchronous delivery only
    for (const auto& c : cases) {
        PLT_RESOURCE_STATS before = zt::Snapshot();
        MB_MSG_BUS* bus = reinterpret_cast<MB_MSG_BUS*>(1);
        {
            zt::HeapFailure fail(c.nth);
            EXPECT_EQ(MBCreateMsgBus(&bus, 2, 2, 2), c.status) << c.nth;
        }
        std::string s;
        for (uint32_t slot = 0; bus != nullptr && slot < 4; ++slot)
            s += std::to_string(MBSubscribe(bus, &OnMessage, slot / 2, slot % 2, &p)) + " ";
        if (bus != nullptr)
            s += std::to_string(MBSendMsgAsync(bus, 1, 1, nullptr, 0, nullptr, nullptr));
        EXPECT_EQ(s, c.subscribed) << c.nth;
        EXPECT_EQ(bus != nullptr ? MBDeleteMsgBus(bus) : 0, 0u);
        EXPECT_NO_LEAKS(before) << c.nth;
    }
    EXPECT_EQ(zt::SweepAllocationFailures([](int nth) {
                  PLT_RESOURCE_STATS before = zt::Snapshot();
                  MB_MSG_BUS* bus = nullptr;
                  zt::HeapFailure* fail = new zt::HeapFailure(nth);
                  MBCreateMsgBus(&bus, 2, 2, 2);
                  bool failed = fail->failed();
                  delete fail;
                  EXPECT_EQ(bus != nullptr ? MBDeleteMsgBus(bus) : 0, 0u) << nth;
                  EXPECT_NO_LEAKS(before) << nth;
                  return !failed;
              }),
              13);
}

TEST(Subscribe, IdentityRefsRevivalAndCompactionWithItsSkip) {
    Bus b(1, 2, 4);
    Probe a{'a'}, x{'b'}, c{'c'}, d{'d'}, e{'e'};
    EXPECT_EQ(b.sub(a, 0, 0) + b.sub(a, 0, 0) + b.sub(x, 0, 0), 0u);
    auto other = [](uint32_t, uint32_t, void*, uint32_t, void*) { return 0u; };
    EXPECT_EQ(MBSubscribe(b.bus, other, 0, 0, &c), 0u) << "another callback: another subscriber";
    EXPECT_EQ(b.entries(0, 0), "a2 b1 c1");
    EXPECT_EQ(b.unsub(c, 0, 0), 1168u);
    EXPECT_EQ(b.unsub(a, 0, 0) + b.unsub(x, 0, 0), 0u);
    EXPECT_EQ(b.entries(0, 0), "a1 b0 c1") << "dead entries stay until a subscription";
    EXPECT_EQ(b.unsub(x, 0, 0), 1168u);
    EXPECT_EQ(b.unsub(a, 0, 0) + b.sub(x, 0, 0), 0u);
    EXPECT_EQ(b.entries(0, 0), "b1 c1") << "a goes; b is kept and revived in place";
    // [a0 b0 d1] + e: a goes, b moves into its place unexamined.
    EXPECT_EQ(b.sub(a, 0, 1) + b.sub(x, 0, 1) + b.sub(d, 0, 1), 0u);
    EXPECT_EQ(b.unsub(a, 0, 1) + b.unsub(x, 0, 1) + b.sub(e, 0, 1), 0u);
    EXPECT_EQ(b.entries(0, 1), "b0 d1 e1");
    EXPECT_EQ(b.sub(e, 0, 1), 0u);
    EXPECT_EQ(b.entries(0, 1), "d1 e2");
    EXPECT_EQ(b.bus->types[0].slots[1].subscribers[2].callback, nullptr) << "freed entries zeroed";
}

TEST(Subscribe, FullSlotsTheWildcardActionAndTheCodesInTheirOrder) {
    Bus b(2, 3, 1);
    Probe a{'a'}, x{'b'};
    EXPECT_EQ(b.sub(a, 1, 0) * 10 + b.sub(x, 1, 0), 1295u);
    EXPECT_EQ(b.unsub(a, 1, 0) + b.sub(x, 1, 0), 0u) << "compaction makes room";
    EXPECT_EQ(b.sub(a, 0, MB_ALL_ACTIONS), 0u);
    EXPECT_EQ(b.entries(0, 0) + b.entries(0, 1) + b.entries(0, 2), "a1a1a1");
    EXPECT_EQ(b.unsub(a, 0, MB_ALL_ACTIONS) + b.sub(x, 0, 1), 0u);
    EXPECT_EQ(b.sub(a, 0, MB_ALL_ACTIONS), 1295u) << "stops at the full slot";
    EXPECT_EQ(b.entries(0, 0) + "|" + b.entries(0, 2), "a1|a0");
    EXPECT_EQ(b.unsub(a, 0, MB_ALL_ACTIONS), 1168u) << "every slot visited, one missing";
    EXPECT_EQ(b.entries(0, 0), "a0");
    for (auto [bus, fn, type, action, expected] :
         {std::tuple{(MB_MSG_BUS*)nullptr, &OnMessage, 0u, 0u, 87u},
          {b.bus, &OnMessage, 2u, 0u, 1295u},
          {b.bus, nullptr, 2u, 0u, 1295u},
          {b.bus, nullptr, 1u, 0u, 87u},
          {b.bus, &OnMessage, 1u, 3u, 1295u}}) {
        EXPECT_EQ(MBSubscribe(bus, fn, type, action, &a), expected) << type << action;
        EXPECT_EQ(MBUnsubscribe(bus, fn, type, action, &a), expected) << type << action;
    }
    Bus none(2, 0, 2);
    EXPECT_EQ(none.sub(a, 0, MB_ALL_ACTIONS) + none.unsub(a, 0, MB_ALL_ACTIONS), 0u);
}

// Unsubscribes `victim` from the slot it is called for, and subscribes
// elsewhere (slot 3, 3).
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
        m->subscribed = MBSubscribe(m->bus, &OnMessage, 3, 3, &elsewhere);
        return 0;
    }
};

TEST(SendMsg, EachLiveEntryOnceInEntryOrderAndCallbacksMayUnsubscribe) {
    Bus b;
    EXPECT_EQ(MBSendMsg(b.bus, 1, 1, nullptr, 0), 1168u);
    std::string journal;
    Probe p[3] = {{'a', 1, &journal}, {'b', 2, &journal}, {'c', 0, &journal}};
    for (int i : {1, 0, 2, 0}) EXPECT_EQ(b.sub(p[i], 1, 1), 0u);
    char data[4] = "abc";
    EXPECT_EQ(MBSendMsg(b.bus, 1, 1, data, 4), 3u);
    EXPECT_EQ(journal, "bac") << "a pair subscribed twice is called once";
    EXPECT_TRUE(p[2].data == data && p[2].thread == GetCurrentThreadId()) << "passed, not copied";
    EXPECT_EQ(b.unsub(p[0], 1, 1) + b.unsub(p[0], 1, 1) + b.unsub(p[1], 1, 1), 0u);
    EXPECT_EQ(MBSendMsg(b.bus, 1, 1, data, 4) + MBSendMsg(b.bus, 1, 2, data, 4), 1168u);
    EXPECT_EQ(journal, "bacc");
    Meddler self{b.bus}, first{b.bus}, later{b.bus};
    self.victim = &self;
    first.victim = later.victim = &later;
    Probe after;
    MBSubscribe(b.bus, &Meddler::Callback, 0, 0, &self);
    b.sub(after, 0, 0);
    EXPECT_EQ(MBSendMsg(b.bus, 0, 0, nullptr, 0) + MBSendMsg(b.bus, 0, 0, nullptr, 0), 0u);
    EXPECT_EQ(self.calls * 10 + after.calls, 12) << "not called again; the sends went on";
    EXPECT_EQ(self.subscribed, 0u) << "subscribing to another slot is allowed";
    MBSubscribe(b.bus, &Meddler::Callback, 1, 0, &first);
    MBSubscribe(b.bus, &Meddler::Callback, 1, 0, &later);
    EXPECT_EQ(MBSendMsg(b.bus, 1, 0, nullptr, 0), 0u);
    EXPECT_EQ(later.calls, 0) << "unsubscribed before its turn in the same walk";
    // One address check serves the three senders: every case through one,
    // the null bus and the wildcard through the others.
    EXPECT_CALLS("6 1295 1295 1295 6 1295 6 1295", MBSendMsg(nullptr, 0, 0, nullptr, 0),
                 MBSendMsg(b.bus, 4, 0, nullptr, 0), MBSendMsg(b.bus, 0, 4, nullptr, 0),
                 MBSendMsg(b.bus, 0, MB_ALL_ACTIONS, nullptr, 0),
                 MBSendMsgAsync(nullptr, 0, 0, nullptr, 0, nullptr, nullptr),
                 MBSendMsgAsync(b.bus, 0, MB_ALL_ACTIONS, nullptr, 0, nullptr, nullptr),
                 MBBroadcastMsg(nullptr, 0, 0, nullptr, 0, nullptr, nullptr),
                 MBBroadcastMsg(b.bus, 0, MB_ALL_ACTIONS, nullptr, 0, nullptr, nullptr))
        << "null bus 6; no wildcard for sending";
}

// A callback that unsubscribes itself from, and sends to, its own slot while
// another thread waits there to subscribe: the subscriber holds the slot's
// critical section waiting for this reader, so the callback's own reads must
// not queue behind it.
struct Nested {
    MB_MSG_BUS* bus;
    zt::Signal inside;
    std::string results;
    static uint32_t Callback(uint32_t t, uint32_t a, void*, uint32_t length, void* context) {
        auto* n = static_cast<Nested*>(context);
        if (length != 0) return 0;  // the nested send
        PLT_RW_SPIN_LOCK& lock = n->bus->types[t].slots[a].lock;
        n->inside.set();
        zt::WaitUntil([&] { return lock.writers == 1 && lock.lock.OwningThread != nullptr; });
        n->results =
            zt::Joined({MBSendMsg(n->bus, t, a, n, 1), MBUnsubscribe(n->bus, &Callback, t, a, n)});
        return 0;
    }
};

TEST(SendMsg, CallbacksReadTheirOwnSlotWhileASubscriberWaits) {
    MB_MSG_BUS* bus = nullptr;
    ASSERT_EQ(MBCreateMsgBus(&bus, 1, 1, 4), 0u);
    Nested n{bus};
    Probe late;
    MBSubscribe(bus, &Nested::Callback, 0, 0, &n);
    zt::TestThread sender([&] { MBSendMsg(bus, 0, 0, nullptr, 0); });
    ASSERT_TRUE(n.inside.wait());
    zt::TestThread subscriber([&] { MBSubscribe(bus, &OnMessage, 0, 0, &late); });
    bool done = sender.join(5000) && subscriber.join(5000);
    ASSERT_TRUE(done) << "deadlock";  // the bus is left to the stuck threads then
    EXPECT_EQ(n.results, "0 0");
    EXPECT_EQ(MBDeleteMsgBus(bus), 0u);
}

TEST(SendMsgAsync, CompletionGetsTheSynchronousResultOnAPoolThread) {
    Bus b;
    Completion empty, full;
    EXPECT_EQ(MBSendMsgAsync(b.bus, 1, 1, nullptr, 0, &OnComplete, &empty), 0u);
    ASSERT_TRUE(empty.done.wait());
    EXPECT_EQ(empty.status, 1168u);
    EXPECT_NE(empty.thread, GetCurrentThreadId());
    Probe one{'a', 4}, two{'b', 1};
    EXPECT_EQ(b.sub(one, 1, 1) + b.sub(two, 1, 1), 0u);
    EXPECT_EQ(MBSendMsgAsync(b.bus, 1, 1, nullptr, 0, &OnComplete, &full), 0u);
    ASSERT_TRUE(full.done.wait());
    EXPECT_EQ(full.status, 5u);
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(MBSendMsgAsync(b.bus, 1, 1, nullptr, 0, nullptr, nullptr), 0u);
    EXPECT_TRUE(zt::WaitUntil([&] { return one.calls == 21 && b.bus->messages.inUse == 0; }))
        << "subscribers run without a completion; records are given back";
}

struct Gate {
    zt::Signal open;
    std::atomic<int> entered{0}, delivered{0};
    static uint32_t Callback(uint32_t, uint32_t, void*, uint32_t, void* context) {
        auto* g = static_cast<Gate*>(context);
        ++g->entered;
        g->open.wait(60000);
        return ++g->delivered, 0;
    }
};

TEST(SendMsgAsync, NoRecordGives8AndDeletionDrainsThenRefuses) {
    Gate gate;
    MB_MSG_BUS* bus = nullptr;
    ASSERT_EQ(MBCreateMsgBus(&bus, 1, 1, 2), 0u);
    MBSubscribe(bus, &Gate::Callback, 0, 0, &gate);
    // A hundred records in use fill the first block; the next needs a new one.
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(MBSendMsgAsync(bus, 0, 0, nullptr, 0, nullptr, nullptr), 0u);
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(MBSendMsgAsync(bus, 0, 0, nullptr, 0, nullptr, nullptr) +
                      MBBroadcastMsg(bus, 0, 0, nullptr, 0, nullptr, nullptr),
                  16u);
    }
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
}

TEST(Broadcast, OneRunPerLiveEntryAndOneCompletionWhenIndexZeroIsServed) {
    Bus b(4, 4, 8);
    Probe p[4] = {{'a', 1}, {'b', 2}, {'c', 4}, {'d', 0}};
    for (Probe& probe : p) b.sub(probe, 1, 1);
    std::vector<Completion> done(100);
    for (Completion& c : done)
        ASSERT_EQ(MBBroadcastMsg(b.bus, 1, 1, nullptr, 0, &OnComplete, &c), 0u);
    for (Completion& c : done) ASSERT_TRUE(c.done.wait());
    EXPECT_TRUE(zt::WaitUntil([&] { return b.bus->messages.inUse == 0; })) << "records given back";
    for (Completion& c : done)
        EXPECT_TRUE(c.calls == 1 && (c.status & ~6u) == 1 && c.thread != GetCurrentThreadId());
    for (Probe& probe : p) EXPECT_TRUE(probe.calls == 100 && probe.thread != GetCurrentThreadId());
    // An empty slot, or one holding a dead entry: no completion, record kept.
    Completion none, dead;
    EXPECT_EQ(MBBroadcastMsg(b.bus, 0, 0, nullptr, 0, &OnComplete, &none), 0u);
    EXPECT_EQ(b.sub(p[0], 2, 2) + b.sub(p[1], 2, 2) + b.unsub(p[0], 2, 2), 0u);
    EXPECT_EQ(MBBroadcastMsg(b.bus, 2, 2, nullptr, 0, &OnComplete, &dead), 0u);
    EXPECT_TRUE(zt::WaitUntil([&] { return p[1].calls == 101; }));
    EXPECT_FALSE(none.done.wait(100) || dead.done.wait(100));
    EXPECT_EQ(b.bus->messages.inUse * 1000 + p[0].calls, 2100u);
}

}  // namespace
