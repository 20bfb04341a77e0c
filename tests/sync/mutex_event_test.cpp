// Mutexes and events through the exports: results, counters, failures.
#include <windows.h>

#include <gtest/gtest.h>
#include <zendra/platform.h>

#include "counters.h"
#include "import_failure.h"
#include "sync_helpers.h"

namespace {

const HANDLE kBogusHandle = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7FFF1230));
const uint32_t kInvalidHandle = ERROR_INVALID_HANDLE;

uint32_t WaitZero(void* object) {
    uint32_t result = 0;
    EXPECT_EQ(PltAcquireEvent(static_cast<PLT_EVENT*>(object), 0, &result), 0u);
    return result;
}

TEST(Mutex, AcquireResultsAndCounters) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_MUTEX m{};
    ASSERT_EQ(PltInitializeMutex(&m, nullptr), 0u);
    EXPECT_DELTA(before, {.MutexCount = 1, .LiveMutexCount = 1});
    EXPECT_EQ(WaitZero(&m), PLT_WAIT_SIGNALED);
    EXPECT_EQ(WaitZero(&m), PLT_WAIT_SIGNALED) << "recursive for its owner";
    uint32_t otherStatus = 99, otherResult = 0;
    {
        zt::TestThread other([&] { otherStatus = PltAcquireMutex(&m, 0, &otherResult); });
    }
    EXPECT_EQ(otherStatus, 0u) << "a time-out is not a failing status";
    EXPECT_EQ(otherResult, PLT_WAIT_TIMEOUT);
    {
        zt::TestThread other([&] { otherStatus = PltReleaseMutex(&m); });
    }
    EXPECT_EQ(otherStatus, static_cast<uint32_t>(ERROR_NOT_OWNER));
    EXPECT_EQ(PltReleaseMutex(&m), 0u);
    EXPECT_EQ(PltReleaseMutex(&m), 0u);
    EXPECT_EQ(PltReleaseMutex(&m), static_cast<uint32_t>(ERROR_NOT_OWNER));
    EXPECT_EQ(PltAcquireMutex(&m, 0, nullptr), 0u) << "the result pointer may be null";
    EXPECT_EQ(PltReleaseMutex(&m), 0u);
    EXPECT_EQ(PltDeleteMutex(&m), 0u);
    EXPECT_NO_LEAKS(before);
}

TEST(Mutex, OwnerEndingWithoutReleaseGivesAbandoned) {
    PLT_MUTEX m{};
    ASSERT_EQ(PltInitializeMutex(&m, nullptr), 0u);
    {
        zt::TestThread owner([&] { PltAcquireMutex(&m, PLT_INFINITE, nullptr); });
    }
    uint32_t result = 0;
    EXPECT_EQ(PltAcquireMutex(&m, 1000, &result), 0u);
    EXPECT_EQ(result, PLT_WAIT_ABANDONED);
    EXPECT_EQ(PltReleaseMutex(&m), 0u);
    EXPECT_EQ(PltDeleteMutex(&m), 0u);
}

TEST(NamedObjects, TwoInitsWithOneNameShareTheObject) {
    PLT_MUTEX a{}, b{};
    ASSERT_EQ(PltInitializeMutex(&a, L"ZendraTestNamedMutex"), 0u);
    ASSERT_EQ(PltInitializeMutex(&b, L"ZendraTestNamedMutex"), 0u);
    ASSERT_EQ(PltAcquireMutex(&a, 0, nullptr), 0u);
    uint32_t result = 0;
    {
        zt::TestThread other([&] { PltAcquireMutex(&b, 0, &result); });
    }
    EXPECT_EQ(result, PLT_WAIT_TIMEOUT);
    PltReleaseMutex(&a);
    PLT_EVENT x{}, y{};
    ASSERT_EQ(PltInitializeEvent(&x, 1, 0, L"ZendraTestNamedEvent"), 0u);
    ASSERT_EQ(PltInitializeEvent(&y, 1, 0, L"ZendraTestNamedEvent"), 0u);
    EXPECT_EQ(PltSetEvent(&x), 0u);
    EXPECT_EQ(WaitZero(&y), PLT_WAIT_SIGNALED);
    for (PLT_MUTEX* m : {&a, &b}) EXPECT_EQ(PltDeleteMutex(m), 0u);
    for (PLT_EVENT* e : {&x, &y}) EXPECT_EQ(PltDeleteEvent(e), 0u);
}

TEST(Event, ManualResetStaysSignalledUntilResetAndCounts) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_EVENT e{};
    ASSERT_EQ(PltInitializeEvent(&e, PLT_EVENT_MANUAL_RESET, 0, nullptr), 0u);
    EXPECT_DELTA(before, {.EventCount = 1, .LiveEventCount = 1});
    EXPECT_EQ(WaitZero(&e), PLT_WAIT_TIMEOUT);
    EXPECT_EQ(PltSetEvent(&e), 0u);
    EXPECT_EQ(WaitZero(&e), PLT_WAIT_SIGNALED);
    EXPECT_EQ(WaitZero(&e), PLT_WAIT_SIGNALED);
    EXPECT_EQ(PltResetEvent(&e), 0u);
    EXPECT_EQ(WaitZero(&e), PLT_WAIT_TIMEOUT);
    EXPECT_EQ(PltReleaseEvent(&e), 0u) << "release is another name for set";
    EXPECT_EQ(WaitZero(&e), PLT_WAIT_SIGNALED);
    EXPECT_EQ(PltDeleteEvent(&e), 0u);
    EXPECT_NO_LEAKS(before);
}

TEST(Event, EveryOtherKindIsAutoResetAndAnyNonZeroStateIsSignalled) {
    for (int32_t kind : {0, 2, -1, 100}) {
        PLT_EVENT e{};
        ASSERT_EQ(PltInitializeEvent(&e, kind, 5, nullptr), 0u);
        EXPECT_EQ(WaitZero(&e), PLT_WAIT_SIGNALED) << "kind " << kind;
        EXPECT_EQ(WaitZero(&e), PLT_WAIT_TIMEOUT) << "kind " << kind << " resets itself";
        EXPECT_EQ(PltDeleteEvent(&e), 0u);
    }
}

TEST(Event, PulseWakesAWaiterAndLeavesTheEventReset) {
    PLT_EVENT e{};
    ASSERT_EQ(PltInitializeEvent(&e, 1, 0, nullptr), 0u);
    EXPECT_EQ(PltPulseEvent(&e), 0u);
    EXPECT_EQ(WaitZero(&e), PLT_WAIT_TIMEOUT) << "a pulse without waiters is lost";
    uint32_t result = 0;
    zt::Signal woke;
    zt::TestThread waiter([&] {
        PltAcquireEvent(&e, 20000, &result);
        woke.set();
    });
    // The waiter must be inside its wait: keep pulsing until it wakes.
    EXPECT_TRUE(zt::WaitUntil([&] {
        PltPulseEvent(&e);
        return woke.wait(10);
    }));
    EXPECT_EQ(result, PLT_WAIT_SIGNALED);
    EXPECT_EQ(WaitZero(&e), PLT_WAIT_TIMEOUT);
    EXPECT_EQ(PltDeleteEvent(&e), 0u);
}

TEST(BadHandles, FailedCallsReturnTheErrorAndKeepCountersAndResults) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_MUTEX m{kBogusHandle};
    PLT_EVENT e{kBogusHandle};
    uint32_t result = 42;
    EXPECT_EQ(PltAcquireMutex(&m, 0, &result), kInvalidHandle);
    // The object pointer is not checked: a null object waits on a null handle.
    EXPECT_EQ(PltAcquireMutex(nullptr, 0, &result), kInvalidHandle);
    EXPECT_EQ(result, 42u);
    EXPECT_EQ(PltReleaseMutex(nullptr), kInvalidHandle);
    EXPECT_EQ(PltDeleteMutex(&m), kInvalidHandle);
    EXPECT_EQ(PltSetEvent(&e), kInvalidHandle);
    EXPECT_EQ(PltResetEvent(&e), kInvalidHandle);
    EXPECT_EQ(PltPulseEvent(&e), kInvalidHandle);
    EXPECT_EQ(PltDeleteEvent(&e), kInvalidHandle);
    EXPECT_DELTA(before, {});
}

TEST(CreationFailure, ReturnsTheErrorWithANullHandleAndNoCount) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_MUTEX m{kBogusHandle};
    PLT_EVENT e{kBogusHandle};
    {
        ZT_FAIL_IMPORT(CreateMutexW, ERROR_TOO_MANY_SEMAPHORES);
        EXPECT_EQ(PltInitializeMutex(&m, nullptr),
                  static_cast<uint32_t>(ERROR_TOO_MANY_SEMAPHORES));
    }
    {
        ZT_FAIL_IMPORT(CreateEventW, ERROR_NO_SYSTEM_RESOURCES);
        EXPECT_EQ(PltInitializeEvent(&e, 1, 0, nullptr),
                  static_cast<uint32_t>(ERROR_NO_SYSTEM_RESOURCES));
    }
    EXPECT_EQ(m.handle, nullptr);
    EXPECT_EQ(e.handle, nullptr);
    EXPECT_DELTA(before, {});
}

TEST(NullObjects, InitDeleteSetPulseResetReturnZeroAndCountNothing) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(PltInitializeMutex(nullptr, nullptr) | PltDeleteMutex(nullptr) |
                  PltInitializeEvent(nullptr, 1, 0, nullptr) | PltSetEvent(nullptr) |
                  PltReleaseEvent(nullptr) | PltPulseEvent(nullptr) | PltResetEvent(nullptr) |
                  PltDeleteEvent(nullptr) | PltInitializeFastLock(nullptr) |
                  PltAcquireFastLock(nullptr) | PltReleaseFastLock(nullptr) |
                  PltDeleteFastLock(nullptr) | PltInitializeSpinLock(nullptr) |
                  PltDeleteSpinLock(nullptr),
              0u);
    EXPECT_DELTA(before, {});
}

}  // namespace
