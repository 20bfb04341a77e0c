// PltInit and PltCleanup: nesting, the default pool's resources, and the
// failure results. One program, since the nesting count is process-wide;
// every test leaves the count at 0.
#include <windows.h>

#include <gtest/gtest.h>
#include <zendra/platform.h>

#include "counters.h"
#include "heap_failure.h"
#include "import_failure.h"

namespace {

TEST(Startup, NestedCallsBuildOnceAndTheLastCleanupFreesThePool) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    ASSERT_EQ(PltInit(), 0u);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.ThreadCount, 4u);
    EXPECT_EQ(d.EventCount, 1u);
    EXPECT_EQ(d.LookasideListCount, 1u);
    EXPECT_EQ(d.CriticalSectionCount, 2u);
    // Pool record 272, argument array 128, item chunk for 800 items, and the
    // four workers' start blocks.
    EXPECT_EQ(d.AllocBytes, 272u + 128u + (1048u + 40u * 800u) + 4u * 24u);

    PLT_RESOURCE_STATS built = zt::Snapshot();
    EXPECT_EQ(PltInit(), 0u);
    EXPECT_EQ(PltCleanup(), 0u);
    EXPECT_NO_LEAKS(built);
    EXPECT_EQ(zt::Delta(built, zt::Snapshot()).ThreadCount, 0u);

    EXPECT_EQ(PltCleanup(), 0u);
    // Workers that ended normally keep their handles: the thread count stays.
    EXPECT_NO_LEAKS(before, zt::kIgnoreThreads);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).LiveThreadCount, 4u);
}

TEST(Startup, CleanupWithoutInitWrapsTheCountAndTheNextInitBuildsNothing) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(PltCleanup(), 0u);  // count 0xFFFFFFFF
    EXPECT_EQ(PltInit(), 0u);     // back to 0, nothing built
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).ThreadCount, 0u);
    ASSERT_EQ(PltInit(), 0u);  // a real first call
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).ThreadCount, 4u);
    EXPECT_EQ(PltCleanup(), 0u);
}

TEST(Startup, PoolRecordFailureIs87AndTheCountIsNotTakenBack) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    {
        zt::HeapFailure fail(1);
        EXPECT_EQ(PltInit(), 87u);
    }
    EXPECT_EQ(PltInit(), 0u) << "nested: builds nothing";
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).ThreadCount, 0u);
    EXPECT_EQ(PltCleanup(), 0u);
    EXPECT_EQ(PltCleanup(), 87u) << "the last cleanup finds no default pool";
    EXPECT_NO_LEAKS(before);
}

TEST(Startup, LaterFailuresAreNotReportedAndLeaveNoDefaultPool) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    {
        ZT_FAIL_IMPORT(CreateEventW, ERROR_NO_SYSTEM_RESOURCES);
        EXPECT_EQ(PltInit(), 0u);
    }
    EXPECT_EQ(PltCleanup(), 87u);
    EXPECT_NO_LEAKS(before);
}

TEST(Startup, EveryAllocationFailureOfTheDefaultPool) {
    int failures = zt::SweepAllocationFailures([](int nth) {
        PLT_RESOURCE_STATS before = zt::Snapshot();
        PLT_STATUS status;
        bool failed;
        {
            zt::HeapFailure fail(nth);
            status = PltInit();
            failed = fail.failed();
        }
        PLT_STATUS cleanup = PltCleanup();
        if (!failed) {
            EXPECT_EQ(status, 0u);
            EXPECT_EQ(cleanup, 0u);
            return true;
        }
        EXPECT_EQ(status, nth == 1 ? 87u : 0u) << "allocation " << nth;
        EXPECT_EQ(cleanup, 87u) << "allocation " << nth << ": no default pool";
        PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
        EXPECT_EQ(d.LiveAllocCount, d.ThreadCount - d.LiveThreadCount);
        EXPECT_EQ(d.LiveEventCount, 0u);
        EXPECT_EQ(d.LiveCriticalSectionCount, 0u);
        return false;
    });
    EXPECT_EQ(failures, 7) << "record, item chunk, argument array, four start blocks";
}

}  // namespace
