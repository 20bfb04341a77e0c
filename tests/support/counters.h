// Resource-counter snapshots, exact counter moves and the leak assertion.
#pragma once

#include <gtest/gtest.h>
#include <zendra/platform.h>

namespace zt {

PLT_RESOURCE_STATS Snapshot();

// after - before, field by field (wrapping in 32/64 bits like the counters).
PLT_RESOURCE_STATS Delta(const PLT_RESOURCE_STATS& before, const PLT_RESOURCE_STATS& after);

// Live counters a check may leave aside, where the behaviour under test keeps
// such objects on purpose.
enum LiveMask : unsigned {
    kCheckAll = 0,
    kIgnoreThreads = 1u << 0,
    kIgnoreEvents = 1u << 1,
    kIgnoreAllocations = 1u << 2,
};

// The counters moved by exactly `expected` since `before`: every field, so the
// ones left out of `expected` must not have moved.
::testing::AssertionResult DeltaIs(const PLT_RESOURCE_STATS& before,
                                   const PLT_RESOURCE_STATS& expected);

// Every live counter and live byte count is back where it was in `before`.
::testing::AssertionResult NoLeaks(const PLT_RESOURCE_STATS& before, unsigned ignore = kCheckAll);

}  // namespace zt

#define EXPECT_NO_LEAKS(before, ...) EXPECT_TRUE(::zt::NoLeaks(before, ##__VA_ARGS__))
#define EXPECT_DELTA(before, ...) EXPECT_TRUE(::zt::DeltaIs(before, PLT_RESOURCE_STATS __VA_ARGS__))
