// Fast locks and spin locks: one critical section, two counter pairs.
#include <windows.h>

#include <gtest/gtest.h>
#include <zendra/platform.h>

#include "counters.h"
#include "sync_helpers.h"

namespace {

struct LockKind {
    const char* name;
    PLT_STATUS (*init)(CRITICAL_SECTION*);
    PLT_STATUS (*acquire)(CRITICAL_SECTION*);
    PLT_STATUS (*release)(CRITICAL_SECTION*);
    PLT_STATUS (*destroy)(CRITICAL_SECTION*);
    PLT_RESOURCE_STATS counted;  // what init moves
};

const LockKind kKinds[] = {
    {"fast",
     &PltInitializeFastLock,
     &PltAcquireFastLock,
     &PltReleaseFastLock,
     &PltDeleteFastLock,
     {.FastLockCount = 1, .LiveFastLockCount = 1}},
    {"spin",
     &PltInitializeSpinLock,
     &PltAcquireSpinLock,
     &PltReleaseSpinLock,
     &PltDeleteSpinLock,
     {.CriticalSectionCount = 1, .LiveCriticalSectionCount = 1}},
};

class CriticalSectionLocks : public ::testing::TestWithParam<LockKind> {};

TEST_P(CriticalSectionLocks, CountInTheirOwnPairExcludeOthersAndAreRecursive) {
    const LockKind& k = GetParam();
    PLT_RESOURCE_STATS before = zt::Snapshot();
    CRITICAL_SECTION lock;
    ASSERT_EQ(k.init(&lock), 0u);
    EXPECT_TRUE(zt::DeltaIs(before, k.counted));
    EXPECT_EQ(lock.SpinCount & 0xFFFFFF, 1024u) << "spin count";
    EXPECT_EQ(k.acquire(&lock), 0u);
    EXPECT_EQ(k.acquire(&lock), 0u);
    BOOL entered = TRUE;
    {
        zt::TestThread other([&] { entered = TryEnterCriticalSection(&lock); });
    }
    EXPECT_FALSE(entered) << "held by this thread";
    EXPECT_EQ(k.release(&lock), 0u);
    EXPECT_EQ(k.release(&lock), 0u);
    {
        zt::TestThread other([&] {
            entered = TryEnterCriticalSection(&lock);
            if (entered) LeaveCriticalSection(&lock);
        });
    }
    EXPECT_TRUE(entered) << "free again";
    EXPECT_EQ(k.destroy(&lock), 0u);
    EXPECT_NO_LEAKS(before);
}

TEST_P(CriticalSectionLocks, SerialiseIncrementsFromTwoThreads) {
    const LockKind& k = GetParam();
    CRITICAL_SECTION lock;
    ASSERT_EQ(k.init(&lock), 0u);
    volatile long counter = 0;
    const long kRounds = 200000;
    auto body = [&] {
        for (long i = 0; i < kRounds; ++i) {
            k.acquire(&lock);
            counter = counter + 1;
            k.release(&lock);
        }
    };
    { zt::TestThread a(body), b(body); }
    EXPECT_EQ(counter, 2 * kRounds);
    EXPECT_EQ(k.destroy(&lock), 0u);
}

INSTANTIATE_TEST_SUITE_P(Kinds, CriticalSectionLocks, ::testing::ValuesIn(kKinds),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
