// Subscriptions: identity by (callback, context), refs, the wildcard action,
// compaction with its deliberate skip, and the codes in their order.
#include <gtest/gtest.h>
#include <zendra/msgbus.h>

#include "bus_helpers.h"

namespace {

using mbt::Probe;
using mbt::ProbeCallback;

uint32_t OtherCallback(uint32_t, uint32_t, void*, uint32_t, void*) { return 0; }

TEST(Subscribe, SamePairTwiceIsOneEntryWithTwoRefs) {
    mbt::Bus bus;
    Probe p;
    EXPECT_EQ(MBSubscribe(bus.get(), &ProbeCallback, 1, 1, &p), 0u);
    EXPECT_EQ(MBSubscribe(bus.get(), &ProbeCallback, 1, 1, &p), 0u);
    MB_SLOT& s = bus.slot(1, 1);
    EXPECT_EQ(s.count, 1u);
    EXPECT_EQ(s.subscribers[0].refs, 2);
    EXPECT_EQ(MBUnsubscribe(bus.get(), &ProbeCallback, 1, 1, &p), 0u);
    EXPECT_EQ(s.subscribers[0].refs, 1) << "still live";
    EXPECT_EQ(MBSendMsg(bus.get(), 1, 1, nullptr, 0), 0u);
    EXPECT_EQ(MBUnsubscribe(bus.get(), &ProbeCallback, 1, 1, &p), 0u);
    EXPECT_EQ(s.subscribers[0].refs, 0) << "dead";
    EXPECT_EQ(s.count, 1u) << "a dead entry stays until a later subscription";
    EXPECT_EQ(MBUnsubscribe(bus.get(), &ProbeCallback, 1, 1, &p), 1168u);
    EXPECT_EQ(MBSendMsg(bus.get(), 1, 1, nullptr, 0), 1168u);
    EXPECT_EQ(p.calls, 1);
}

TEST(Subscribe, IdentityIsTheCallbackAndContextPair) {
    mbt::Bus bus;
    Probe a, b;
    EXPECT_EQ(MBSubscribe(bus.get(), &ProbeCallback, 0, 0, &a), 0u);
    EXPECT_EQ(MBSubscribe(bus.get(), &ProbeCallback, 0, 0, &b), 0u);
    EXPECT_EQ(MBSubscribe(bus.get(), &OtherCallback, 0, 0, &a), 0u);
    EXPECT_EQ(bus.slot(0, 0).count, 3u);
    EXPECT_EQ(MBUnsubscribe(bus.get(), &OtherCallback, 0, 0, &b), 1168u);
}

TEST(Subscribe, ReSubscribingRevivesADeadEntryInPlace) {
    mbt::Bus bus;
    Probe a, b;
    MBSubscribe(bus.get(), &ProbeCallback, 0, 0, &a);
    MBSubscribe(bus.get(), &ProbeCallback, 0, 0, &b);
    MBUnsubscribe(bus.get(), &ProbeCallback, 0, 0, &a);
    EXPECT_EQ(MBSubscribe(bus.get(), &ProbeCallback, 0, 0, &a), 0u);
    MB_SLOT& s = bus.slot(0, 0);
    EXPECT_EQ(s.count, 2u);
    EXPECT_EQ(s.subscribers[0].context, &a);
    EXPECT_EQ(s.subscribers[0].refs, 1);
}

TEST(Subscribe, FullSlotRefusesUntilCompactionMakesRoom) {
    mbt::Bus bus(2, 2, 1);
    Probe a, b;
    EXPECT_EQ(MBSubscribe(bus.get(), &ProbeCallback, 1, 0, &a), 0u);
    EXPECT_EQ(MBSubscribe(bus.get(), &ProbeCallback, 1, 0, &b), 1295u);
    EXPECT_EQ(MBUnsubscribe(bus.get(), &ProbeCallback, 1, 0, &a), 0u);
    EXPECT_EQ(MBSubscribe(bus.get(), &ProbeCallback, 1, 0, &b), 0u);
    MB_SLOT& s = bus.slot(1, 0);
    EXPECT_EQ(s.count, 1u);
    EXPECT_EQ(s.subscribers[0].context, &b);
    EXPECT_EQ(s.subscribers[1].callback, nullptr) << "the freed entry is zeroed";
}

TEST(Subscribe, CompactionSkipsTheEntryThatMovedIntoPlace) {
    mbt::Bus bus(1, 1, 4);
    Probe a, b, c, d;
    for (Probe* p : {&a, &b, &c}) MBSubscribe(bus.get(), &ProbeCallback, 0, 0, p);
    MBUnsubscribe(bus.get(), &ProbeCallback, 0, 0, &a);
    MBUnsubscribe(bus.get(), &ProbeCallback, 0, 0, &b);
    MB_SLOT& s = bus.slot(0, 0);
    // [a dead, b dead, c]: a goes, b moves to 0 and is not looked at again.
    EXPECT_EQ(MBSubscribe(bus.get(), &ProbeCallback, 0, 0, &d), 0u);
    ASSERT_EQ(s.count, 3u);
    EXPECT_EQ(s.subscribers[0].context, &b);
    EXPECT_EQ(s.subscribers[0].refs, 0);
    EXPECT_EQ(s.subscribers[1].context, &c);
    EXPECT_EQ(s.subscribers[2].context, &d);
    // The next subscription takes b away.
    EXPECT_EQ(MBSubscribe(bus.get(), &ProbeCallback, 0, 0, &d), 0u);
    ASSERT_EQ(s.count, 2u);
    EXPECT_EQ(s.subscribers[0].context, &c);
    EXPECT_EQ(s.subscribers[1].refs, 2);
}

TEST(Subscribe, CompactionKeepsTheSubscribersOwnDeadEntry) {
    mbt::Bus bus(1, 1, 2);
    Probe a, b;
    MBSubscribe(bus.get(), &ProbeCallback, 0, 0, &a);
    MBSubscribe(bus.get(), &ProbeCallback, 0, 0, &b);
    MBUnsubscribe(bus.get(), &ProbeCallback, 0, 0, &a);
    EXPECT_EQ(MBSubscribe(bus.get(), &ProbeCallback, 0, 0, &a), 0u);
    EXPECT_EQ(bus.slot(0, 0).count, 2u);
    EXPECT_EQ(bus.slot(0, 0).subscribers[0].context, &a) << "kept and revived, not moved";
}

TEST(Subscribe, AllActionsCoversEverySlotOfTheTypeAndStopsAtAFullOne) {
    mbt::Bus bus(2, 3, 1);
    Probe a, blocker;
    EXPECT_EQ(MBSubscribe(bus.get(), &ProbeCallback, 1, MB_ALL_ACTIONS, &a), 0u);
    for (uint32_t action = 0; action < 3; ++action) EXPECT_EQ(bus.slot(1, action).count, 1u);
    EXPECT_EQ(bus.slot(0, 0).count, 0u);
    EXPECT_EQ(MBUnsubscribe(bus.get(), &ProbeCallback, 1, MB_ALL_ACTIONS, &a), 0u);

    EXPECT_EQ(MBSubscribe(bus.get(), &ProbeCallback, 0, 1, &blocker), 0u);
    EXPECT_EQ(MBSubscribe(bus.get(), &ProbeCallback, 0, MB_ALL_ACTIONS, &a), 1295u);
    EXPECT_EQ(bus.slot(0, 0).subscribers[0].context, &a) << "the first slot keeps it";
    EXPECT_EQ(bus.slot(0, 2).count, 0u) << "no slot after the full one is tried";
    // Unsubscribing everywhere visits every slot and reports the missing one.
    EXPECT_EQ(MBUnsubscribe(bus.get(), &ProbeCallback, 0, MB_ALL_ACTIONS, &a), 1168u);
    EXPECT_EQ(bus.slot(0, 0).subscribers[0].refs, 0);
}

TEST(Subscribe, CodesComeInTheirOrder) {
    mbt::Bus bus(2, 2, 2);
    Probe p;
    EXPECT_EQ(MBSubscribe(nullptr, &ProbeCallback, 0, 0, &p), 87u);
    EXPECT_EQ(MBSubscribe(bus.get(), &ProbeCallback, 2, 0, &p), 1295u) << "type == typeCount";
    EXPECT_EQ(MBSubscribe(bus.get(), nullptr, 2, 0, &p), 1295u) << "type is checked first";
    EXPECT_EQ(MBSubscribe(bus.get(), nullptr, 1, 0, &p), 87u);
    EXPECT_EQ(MBSubscribe(bus.get(), &ProbeCallback, 1, 2, &p), 1295u);
    EXPECT_EQ(MBUnsubscribe(nullptr, &ProbeCallback, 0, 0, &p), 87u);
    EXPECT_EQ(MBUnsubscribe(bus.get(), &ProbeCallback, 5, 0, &p), 1295u);
    EXPECT_EQ(MBUnsubscribe(bus.get(), nullptr, 0, 0, &p), 87u);
    EXPECT_EQ(MBUnsubscribe(bus.get(), &ProbeCallback, 0, 7, &p), 1295u);
    EXPECT_EQ(MBUnsubscribe(bus.get(), &ProbeCallback, 0, 0, &p), 1168u) << "never subscribed";
    mbt::Bus noActions(2, 0, 2);
    EXPECT_EQ(MBSubscribe(noActions.get(), &ProbeCallback, 0, MB_ALL_ACTIONS, &p), 0u);
    EXPECT_EQ(MBUnsubscribe(noActions.get(), &ProbeCallback, 0, MB_ALL_ACTIONS, &p), 0u);
}

}  // namespace
