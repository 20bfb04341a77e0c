// The test programs' main: GoogleTest with a leak check around every test.
#include "zt.h"

namespace zt {

PLT_RESOURCE_STATS g_start, g_left;

// Every test ends with the live counters where they were when it started,
// plus what it declared it leaves behind.
class LeakCheck : public ::testing::EmptyTestEventListener {
    void OnTestStart(const ::testing::TestInfo&) override {
        g_left = PLT_RESOURCE_STATS{};
        g_start = Snapshot();
    }
    void OnTestEnd(const ::testing::TestInfo& test) override {
        if (test.result()->Skipped()) return;
        EXPECT_TRUE(LiveMovedBy(g_start, g_left)) << "left behind by " << test.name();
    }
};

void LeavesBehind(const PLT_RESOURCE_STATS& live) { g_left = live; }

}  // namespace zt

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::UnitTest::GetInstance()->listeners().Append(new zt::LeakCheck);
    return RUN_ALL_TESTS();
}
