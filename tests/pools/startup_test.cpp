// PltInit and PltCleanup: nesting, the default pool's resources and the
// failure results. The nesting count is process-wide: every test leaves it 0.

#include "zt.h"

namespace {

TEST(Startup, NestedCallsBuildOnceAndTheLastCleanupFreesThePool) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    ASSERT_EQ(PltInit(), 0u);
    // Pool record 272, argument array 128, item chunk for 800 items, and the
    // four workers' start blocks.
    EXPECT_MOVED(before, {.AllocBytes = 272 + 128 + (1048 + 40 * 800) + 4 * 24,
                          .LookasideListCount = 1,
                          .EventCount = 1,
                          .CriticalSectionCount = 2,
                          .ThreadCount = 4});
    PLT_RESOURCE_STATS built = zt::Snapshot();
    EXPECT_EQ(PltInit() + PltCleanup(), 0u);
    EXPECT_DELTA(built, {});
    EXPECT_EQ(PltCleanup(), 0u);
    EXPECT_NO_LEAKS(before);
    // A cleanup without init wraps the count; the next init only brings it back.
    EXPECT_EQ(PltCleanup() + PltInit(), 0u);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).ThreadCount, 4u);
}

TEST(Startup, FailuresLeaveNoDefaultPoolAndTheCountIsNotTakenBack) {
    int failures = zt::SweepAllocationFailures([](int nth) {
        PLT_RESOURCE_STATS before = zt::Snapshot();
        PLT_STATUS status, nested = 99;
        bool failed;
        {
            zt::HeapFailure fail(nth);
            status = PltInit();
            failed = fail.failed();
        }
        if (failed) nested = PltInit() + PltCleanup();
        PLT_STATUS cleanup = PltCleanup();
        if (!failed) return status == 0 && cleanup == 0;
        EXPECT_EQ(status, nth == 1 ? 87u : 0u) << "allocation " << nth;
        EXPECT_EQ(nested, 0u) << "allocation " << nth << ": nested calls build nothing";
        EXPECT_EQ(cleanup, 87u) << "allocation " << nth << ": no default pool";
        EXPECT_NO_LEAKS(before) << "allocation " << nth;
        return false;
    });
    EXPECT_EQ(failures, 7) << "record, item chunk, argument array, four start blocks";
    {
        ZT_FAIL_IMPORT(CreateEventW, ERROR_NO_SYSTEM_RESOURCES);
        EXPECT_EQ(PltInit(), 0u);
    }
    EXPECT_EQ(PltCleanup(), 87u);
}

}  // namespace
