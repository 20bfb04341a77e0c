// The self-check routines that take minutes: the bus under a hundred
// threads, the process check with its fixed waits, and the pool of a
// thousand threads.
#include "selfcheck_support.h"

namespace {

TEST(SelfChecksLong, BusProcessAndThousandThreadsPass) {
    const struct {
        const char* name;
        uint32_t (*routine)(PLT_REPORT_BUFFER*);
    } cases[] = {{"TestWorkItemsEx", TestWorkItemsEx},
                 {"TestMessageBus", TestMessageBus},
                 {"TestProcess", TestProcess}};
    for (const auto& c : cases) {
        Report report;
        ULONGLONG start = GetTickCount64();
        uint32_t result;
        {
            QuietChildren quiet;
            result = c.routine(report.get());
        }
        EXPECT_EQ(result, 0u) << c.name << "\n" << report.text();
        EXPECT_EQ(report.failures(), L"") << c.name;
        printf("%s: %llu ms\n", c.name, GetTickCount64() - start);
    }
    EXPECT_TRUE(NothingLeftBehind());
    // The thread TestProcess terminates never frees its 24-byte start block.
    PLT_RESOURCE_STATS left{};
    left.LiveAllocCount = 1;
    left.LiveAllocBytes = 24;
    left.LiveAllocBySize[0] = 1;
    zt::LeavesBehind(left);
}

}  // namespace
