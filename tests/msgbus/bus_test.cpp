// Bus creation and deletion: the grid, the resources a bus holds, the tag
// mismatches deletion counts, and the partial failures creation keeps.
#include <windows.h>

#include <gtest/gtest.h>
#include <zendra/msgbus.h>

#include "bus_helpers.h"
#include "counters.h"
#include "heap_failure.h"
#include "import_hook.h"

namespace {

const uint32_t kQZMB = PLT_TAG('Q', 'Z', 'M', 'B');

uint32_t TagOf(const void* block) { return static_cast<const uint32_t*>(block)[-2]; }
uint32_t SizeOf(const void* block) { return static_cast<const uint32_t*>(block)[-1]; }

TEST(BusCreate, BuildsTheGridTheMessageListAndAPoolOfTwoToEight) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    MB_MSG_BUS* bus = nullptr;
    ASSERT_EQ(MBCreateMsgBus(&bus, 3, 2, 5), 0u);
    ASSERT_NE(bus, nullptr);
    EXPECT_EQ(bus->typeCount, 3u);
    EXPECT_EQ(bus->actionCount, 2u);
    EXPECT_EQ(bus->maxSubscribers, 5u);
    EXPECT_NE(bus->pool, nullptr);
    EXPECT_EQ(TagOf(bus), kQZMB);
    EXPECT_EQ(SizeOf(bus), 136u + 3 * 16);
    for (uint32_t t = 0; t < 3; ++t) {
        MB_SLOT* slots = bus->types[t].slots;
        ASSERT_NE(slots, nullptr);
        EXPECT_EQ(TagOf(slots), 0u);
        EXPECT_EQ(SizeOf(slots), 2u * 72 + 16);
        for (uint32_t a = 0; a < 2; ++a) {
            EXPECT_EQ(slots[a].count, 0u);
            EXPECT_EQ(TagOf(slots[a].subscribers), kQZMB);
            EXPECT_EQ(SizeOf(slots[a].subscribers), (5u + 3) * 24);
        }
    }
    EXPECT_EQ(bus->messages.entrySize, 64u);
    EXPECT_EQ(bus->messages.perChunk, 100u);
    EXPECT_EQ(bus->messages.tag, kQZMB);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.RwSpinLockCount, 6u) << "one lock per slot";
    EXPECT_EQ(d.LookasideListCount, 2u) << "messages and the pool's items";
    EXPECT_EQ(d.ThreadCount, 2u);
    EXPECT_EQ(d.EventCount, 1u);

    PLT_RESOURCE_STATS created = zt::Snapshot();
    EXPECT_EQ(MBDeleteMsgBus(bus), 0u);
    // Subscriber arrays and the record go back with tag 0.
    EXPECT_EQ(zt::Delta(created, zt::Snapshot()).TagMismatchCount, 1u + 3 * 2);
    EXPECT_NO_LEAKS(before, zt::kIgnoreThreads);
}

TEST(BusCreate, ZeroCountsAreAcceptedAndRefuseEverything) {
    mbt::Bus bus(0, 0, 0);
    ASSERT_EQ(bus.status(), 0u);
    mbt::Probe p;
    EXPECT_EQ(MBSubscribe(bus.get(), &mbt::ProbeCallback, 0, 0, &p), 1295u);
    EXPECT_EQ(MBSendMsg(bus.get(), 0, 0, nullptr, 0), 1295u);
    mbt::Bus noRoom(1, 1, 0);
    EXPECT_EQ(MBSubscribe(noRoom.get(), &mbt::ProbeCallback, 0, 0, &p), 1295u)
        << "a slot of capacity 0 is always full";
}

TEST(BusCreate, RecordFailureLeavesANullBusAnd8) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    MB_MSG_BUS* bus = reinterpret_cast<MB_MSG_BUS*>(1);
    {
        zt::HeapFailure fail(1);
        EXPECT_EQ(MBCreateMsgBus(&bus, 2, 2, 2), 8u);
    }
    EXPECT_EQ(bus, nullptr);
    EXPECT_NO_LEAKS(before);
    EXPECT_EQ(MBDeleteMsgBus(nullptr), 87u);
}

// Allocations of a 2 x 2 bus: the record, then per type its slot array and
// two subscriber arrays, then the message block, then the pool.
constexpr int kMessageBlock = 1 + 2 * 3 + 1;
constexpr int kPoolRecord = kMessageBlock + 1;

TEST(BusCreate, MessageBlockFailureHandsOutABusThatRefusesEveryCall) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    MB_MSG_BUS* bus = nullptr;
    {
        zt::HeapFailure fail(kMessageBlock);
        EXPECT_EQ(MBCreateMsgBus(&bus, 2, 2, 2), 8u);
    }
    ASSERT_NE(bus, nullptr);
    EXPECT_EQ(bus->typeCount, 0u);
    EXPECT_EQ(bus->pool, nullptr);
    mbt::Probe p;
    EXPECT_EQ(MBSubscribe(bus, &mbt::ProbeCallback, 0, 0, &p), 1295u);
    EXPECT_EQ(MBSendMsg(bus, 0, 0, nullptr, 0), 1295u);
    EXPECT_EQ(MBSendMsgAsync(bus, 0, 0, nullptr, 0, nullptr, nullptr), 1295u);
    EXPECT_EQ(MBDeleteMsgBus(bus), 0u);
    EXPECT_NO_LEAKS(before) << "deletion still frees the grid it cannot address";
}

TEST(BusCreate, PoolFailureHandsOutTheBusWithThePoolsStatus) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    MB_MSG_BUS* bus = nullptr;
    {
        zt::HeapFailure fail(kPoolRecord);
        EXPECT_EQ(MBCreateMsgBus(&bus, 2, 2, 2), 87u);
    }
    ASSERT_NE(bus, nullptr);
    EXPECT_EQ(bus->pool, nullptr);
    mbt::Probe p;
    EXPECT_EQ(MBSubscribe(bus, &mbt::ProbeCallback, 1, 1, &p), 0u);
    EXPECT_EQ(MBSendMsg(bus, 1, 1, nullptr, 0), 0u) << "synchronous delivery needs no pool";
    EXPECT_EQ(MBSendMsgAsync(bus, 1, 1, nullptr, 0, nullptr, nullptr), 87u);
    EXPECT_EQ(bus->messages.inUse, 0u) << "the failed send gave its record back";
    EXPECT_EQ(MBBroadcastMsg(bus, 1, 1, nullptr, 0, nullptr, nullptr), 87u);
    EXPECT_EQ(bus->messages.inUse, 1u) << "a failed broadcast does not reclaim its record";
    EXPECT_EQ(MBDeleteMsgBus(bus), 0u);
    EXPECT_NO_LEAKS(before);
}

TEST(BusCreate, SubscriberArrayFailureLeavesTheRestOfThatTypeUnset) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    MB_MSG_BUS* bus = nullptr;
    {
        zt::HeapFailure fail(4);  // type 0's second subscriber array
        EXPECT_EQ(MBCreateMsgBus(&bus, 2, 2, 2), 0u);
    }
    ASSERT_NE(bus, nullptr);
    mbt::Probe p;
    EXPECT_EQ(MBSubscribe(bus, &mbt::ProbeCallback, 0, 0, &p), 0u);
    EXPECT_EQ(MBSubscribe(bus, &mbt::ProbeCallback, 0, 1, &p), 1295u) << "unset slot: no room";
    EXPECT_EQ(MBUnsubscribe(bus, &mbt::ProbeCallback, 0, 1, &p), 1168u);
    EXPECT_EQ(MBSendMsg(bus, 0, 1, nullptr, 0), 1168u);
    EXPECT_EQ(MBSubscribe(bus, &mbt::ProbeCallback, 1, 1, &p), 0u) << "type 1 was built";
    EXPECT_EQ(MBSendMsg(bus, 0, 0, nullptr, 0), 0u);
    EXPECT_EQ(MBDeleteMsgBus(bus), 0u);
    EXPECT_NO_LEAKS(before, zt::kIgnoreThreads);
}

TEST(BusCreate, EveryAllocationFailureIsSurvivedAndDeletionFreesWhatWasMade) {
    int failures = zt::SweepAllocationFailures([](int nth) {
        PLT_RESOURCE_STATS before = zt::Snapshot();
        MB_MSG_BUS* bus = nullptr;
        bool failed;
        {
            zt::HeapFailure fail(nth);
            MBCreateMsgBus(&bus, 2, 2, 2);
            failed = fail.failed();
        }
        if (bus != nullptr) {
            EXPECT_EQ(MBDeleteMsgBus(bus), 0u) << "allocation " << nth;
        }
        PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
        // Workers terminated in the pool's teardown keep their start block.
        EXPECT_EQ(d.LiveAllocCount, d.ThreadCount - d.LiveThreadCount) << "allocation " << nth;
        EXPECT_EQ(d.LiveEventCount, 0u);
        EXPECT_EQ(d.LiveCriticalSectionCount, 0u) << "allocation " << nth;
        EXPECT_EQ(d.LiveRwSpinLockCount, 0u);
        EXPECT_EQ(d.LiveLookasideListCount, 0u);
        return !failed;
    });
    // Record, 2 x (slot array + 2 subscriber arrays), message block, pool
    // record, item chunk, argument array, two start blocks.
    EXPECT_EQ(failures, 13);
}

}  // namespace
