// Bus creation and deletion, and subscriptions: the grid, the resources a bus
// holds, the partial failures creation keeps, identity and refs, the wildcard
// action, compaction with its deliberate skip, and the codes in their order.
#include <windows.h>

#include <functional>

#include <gtest/gtest.h>
#include <zendra/msgbus.h>

#include "bus_helpers.h"
#include "counters.h"
#include "heap_failure.h"

namespace {

using mbt::Entries;
using mbt::Probe;

const uint32_t kQZMB = PLT_TAG('Q', 'Z', 'M', 'B');
const uint32_t* Header(const void* block) { return static_cast<const uint32_t*>(block) - 2; }

TEST(BusCreate, BuildsTheGridTheMessageListAndAPoolOfTwoToEight) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    MB_MSG_BUS* bus = nullptr;
    ASSERT_EQ(MBCreateMsgBus(&bus, 3, 2, 5), 0u);
    EXPECT_EQ(bus->typeCount * 100 + bus->actionCount * 10 + bus->maxSubscribers, 325u);
    EXPECT_TRUE(Header(bus)[0] == kQZMB && Header(bus)[1] == 136u + 3 * 16);
    for (uint32_t t = 0; t < 3; ++t) {
        MB_SLOT* slots = bus->types[t].slots;
        EXPECT_TRUE(Header(slots)[0] == 0 && Header(slots)[1] == 2u * 72 + 16);
        for (uint32_t a = 0; a < 2; ++a)
            EXPECT_TRUE(Header(slots[a].subscribers)[0] == kQZMB &&
                        Header(slots[a].subscribers)[1] == (5u + 3) * 24);
    }
    EXPECT_EQ(bus->messages.entrySize * bus->messages.perChunk, 6400u);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.RwSpinLockCount * 1000 + d.LookasideListCount * 100 + d.ThreadCount * 10 +
                  d.EventCount,
              6221u)
        << "a lock per slot, messages and pool items, two workers and the wake event";
    PLT_RESOURCE_STATS created = zt::Snapshot();
    EXPECT_EQ(MBDeleteMsgBus(bus), 0u);
    EXPECT_EQ(zt::Delta(created, zt::Snapshot()).TagMismatchCount, 1u + 3 * 2)
        << "the record and subscriber arrays go back with tag 0";
    EXPECT_NO_LEAKS(before, zt::kIgnoreThreads);
    EXPECT_EQ(MBDeleteMsgBus(nullptr), 87u);
    mbt::Bus empty(1, 1, 0);
    Probe p;
    EXPECT_EQ(empty.sub(p, 0, 0), 1295u) << "a slot of capacity 0 is always full";
}

// Allocations of a 2 x 2 bus: the record; per type its slot array and two
// subscriber arrays; the message block; the pool's record, item chunk and
// argument array; two start blocks.
TEST(BusCreate, EveryAllocationFailureIsSurvivedAndDeletionFreesWhatWasMade) {
    Probe p;
    auto subscribeAll = [&](MB_MSG_BUS* bus) {
        std::string s;
        for (uint32_t slot = 0; slot < 4; ++slot)
            s += std::to_string(MBSubscribe(bus, &mbt::ProbeCallback, slot / 2, slot % 2, &p)) + " ";
        return s;
    };
    const struct {
        int nth;
        PLT_STATUS status;
        const char* subscribed;  // subscribing in each slot
        PLT_STATUS async;
    } cases[] = {{1, 8, nullptr, 0},  // no bus at all
                 {4, 0, "0 1295 0 0 ", 0},  // type 0's second subscriber array
                 {8, 8, "1295 1295 1295 1295 ", 1295},  // message block: nothing addressable
                 {9, 87, "0 0 0 0 ", 87}};  // pool: synchronous delivery only
    for (const auto& c : cases) {
        SCOPED_TRACE(c.nth);
        PLT_RESOURCE_STATS before = zt::Snapshot();
        MB_MSG_BUS* bus = reinterpret_cast<MB_MSG_BUS*>(1);
        {
            zt::HeapFailure fail(c.nth);
            EXPECT_EQ(MBCreateMsgBus(&bus, 2, 2, 2), c.status);
        }
        ASSERT_EQ(bus == nullptr, c.subscribed == nullptr);
        if (bus == nullptr) continue;
        EXPECT_EQ(subscribeAll(bus), c.subscribed);
        if (c.nth == 4) EXPECT_EQ(MBUnsubscribe(bus, &mbt::ProbeCallback, 0, 1, &p), 1168u);
        EXPECT_EQ(MBSendMsgAsync(bus, 1, 1, nullptr, 0, nullptr, nullptr), c.async);
        EXPECT_EQ(MBDeleteMsgBus(bus), 0u);
        EXPECT_NO_LEAKS(before, zt::kIgnoreThreads);
    }
    int failures = zt::SweepAllocationFailures([](int nth) {
        PLT_RESOURCE_STATS before = zt::Snapshot();
        MB_MSG_BUS* bus = nullptr;
        bool failed;
        {
            zt::HeapFailure fail(nth);
            MBCreateMsgBus(&bus, 2, 2, 2);
            failed = fail.failed();
        }
        if (bus != nullptr) EXPECT_EQ(MBDeleteMsgBus(bus), 0u) << "allocation " << nth;
        PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
        EXPECT_LE(d.LiveAllocCount, d.ThreadCount - d.LiveThreadCount) << "allocation " << nth;
        EXPECT_EQ(d.LiveEventCount + d.LiveCriticalSectionCount + d.LiveRwSpinLockCount +
                      d.LiveLookasideListCount,
                  0u)
            << "allocation " << nth;
        return !failed;
    });
    EXPECT_EQ(failures, 13);
}

TEST(Subscribe, IdentityRefsRevivalAndCompactionWithItsSkip) {
    mbt::Bus bus(1, 2, 4);
    Probe a{'a'}, b{'b'}, c{'c'}, d{'d'}, e{'e'};
    EXPECT_EQ(bus.sub(a, 0, 0) + bus.sub(a, 0, 0) + bus.sub(b, 0, 0), 0u);
    EXPECT_EQ(MBSubscribe(bus.get(), [](uint32_t, uint32_t, void*, uint32_t, void*) { return 0u; },
                          0, 0, &c),
              0u)
        << "another callback with the same context is another subscriber";
    EXPECT_EQ(Entries(bus.get(), 0, 0), "a2 b1 c1");
    EXPECT_EQ(bus.unsub(c, 0, 0), 1168u);
    EXPECT_EQ(bus.unsub(a, 0, 0) + bus.unsub(b, 0, 0), 0u);
    EXPECT_EQ(Entries(bus.get(), 0, 0), "a1 b0 c1") << "dead entries stay until a subscription";
    EXPECT_EQ(bus.unsub(b, 0, 0), 1168u);
    EXPECT_EQ(bus.unsub(a, 0, 0) + bus.sub(b, 0, 0), 0u);
    EXPECT_EQ(Entries(bus.get(), 0, 0), "b1 c1") << "a goes; b is kept and revived in place";
    // [a0 b0 d1] + e: a goes, b moves into its place unexamined.
    EXPECT_EQ(bus.sub(a, 0, 1) + bus.sub(b, 0, 1) + bus.sub(d, 0, 1), 0u);
    EXPECT_EQ(bus.unsub(a, 0, 1) + bus.unsub(b, 0, 1) + bus.sub(e, 0, 1), 0u);
    EXPECT_EQ(Entries(bus.get(), 0, 1), "b0 d1 e1");
    EXPECT_EQ(bus.sub(e, 0, 1), 0u);
    EXPECT_EQ(Entries(bus.get(), 0, 1), "d1 e2");
    EXPECT_EQ(bus->types[0].slots[1].subscribers[2].callback, nullptr) << "freed entries zeroed";
}

TEST(Subscribe, FullSlotsTheWildcardActionAndTheCodesInTheirOrder) {
    mbt::Bus bus(2, 3, 1);
    Probe a{'a'}, b{'b'};
    EXPECT_EQ(bus.sub(a, 1, 0), 0u);
    EXPECT_EQ(bus.sub(b, 1, 0), 1295u);
    EXPECT_EQ(bus.unsub(a, 1, 0) + bus.sub(b, 1, 0), 0u) << "compaction makes room";
    EXPECT_EQ(Entries(bus.get(), 1, 0), "b1");
    EXPECT_EQ(bus.sub(a, 0, MB_ALL_ACTIONS), 0u);
    EXPECT_EQ(Entries(bus.get(), 0, 0) + Entries(bus.get(), 0, 1) + Entries(bus.get(), 0, 2),
              "a1a1a1");
    EXPECT_EQ(bus.unsub(a, 0, MB_ALL_ACTIONS) + bus.sub(b, 0, 1), 0u);
    EXPECT_EQ(bus.sub(a, 0, MB_ALL_ACTIONS), 1295u) << "stops at the full slot";
    EXPECT_EQ(Entries(bus.get(), 0, 0) + "|" + Entries(bus.get(), 0, 2), "a1|a0");
    EXPECT_EQ(bus.unsub(a, 0, MB_ALL_ACTIONS), 1168u) << "every slot visited, one missing";
    EXPECT_EQ(Entries(bus.get(), 0, 0), "a0");
    const struct {
        MB_MSG_BUS* bus;
        bool callback;
        uint32_t type, action;
        PLT_STATUS expected;
    } cases[] = {{nullptr, true, 0, 0, 87},  {bus.get(), true, 2, 0, 1295},
                 {bus.get(), false, 2, 0, 1295}, {bus.get(), false, 1, 0, 87},
                 {bus.get(), true, 1, 3, 1295}};
    for (const auto& c : cases) {
        MB_SUBSCRIBER_CALLBACK fn = c.callback ? &mbt::ProbeCallback : nullptr;
        EXPECT_EQ(MBSubscribe(c.bus, fn, c.type, c.action, &a), c.expected) << c.type << c.action;
        EXPECT_EQ(MBUnsubscribe(c.bus, fn, c.type, c.action, &a), c.expected) << c.type << c.action;
    }
    mbt::Bus noActions(2, 0, 2);
    EXPECT_EQ(noActions.sub(a, 0, MB_ALL_ACTIONS) + noActions.unsub(a, 0, MB_ALL_ACTIONS), 0u);
}

}  // namespace
