// Mutexes and events through the exports: results, counters, failures.
#include <windows.h>

#include <gtest/gtest.h>
#include <zendra/platform.h>

#include "counters.h"
#include "import_hook.h"
#include "sync_helpers.h"

namespace {

const HANDLE kBogusHandle = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7FFF1230));

TEST(Mutex, InitAndDeleteMoveTheMutexCounters) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_MUTEX m{};
    ASSERT_EQ(PltInitializeMutex(&m, nullptr), 0u);
    ASSERT_NE(m.handle, nullptr);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.MutexCount, 1u);
    EXPECT_EQ(d.LiveMutexCount, 1u);
    EXPECT_EQ(d.EventCount, 0u);
    EXPECT_EQ(PltDeleteMutex(&m), 0u);
    EXPECT_NO_LEAKS(before);
}

TEST(Mutex, OwnerAcquiresRecursivelyAndOthersTimeOut) {
    PLT_MUTEX m{};
    ASSERT_EQ(PltInitializeMutex(&m, nullptr), 0u);
    uint32_t result = 0;
    EXPECT_EQ(PltAcquireMutex(&m, 0, &result), 0u);
    EXPECT_EQ(result, PLT_WAIT_SIGNALED);
    EXPECT_EQ(PltAcquireMutex(&m, 0, &result), 0u);
    EXPECT_EQ(result, PLT_WAIT_SIGNALED);

    uint32_t otherStatus = 99, otherResult = 0;
    {
        zt::TestThread other([&] { otherStatus = PltAcquireMutex(&m, 0, &otherResult); });
    }
    EXPECT_EQ(otherStatus, 0u) << "a time-out is not a failing status";
    EXPECT_EQ(otherResult, PLT_WAIT_TIMEOUT);

    EXPECT_EQ(PltReleaseMutex(&m), 0u);
    EXPECT_EQ(PltReleaseMutex(&m), 0u);
    EXPECT_EQ(PltReleaseMutex(&m), static_cast<uint32_t>(ERROR_NOT_OWNER));
    EXPECT_EQ(PltAcquireMutex(&m, 0, nullptr), 0u) << "the result pointer may be null";
    EXPECT_EQ(PltReleaseMutex(&m), 0u);
    EXPECT_EQ(PltDeleteMutex(&m), 0u);
}

TEST(Mutex, OwnerEndingWithoutReleaseGivesAbandoned) {
    PLT_MUTEX m{};
    ASSERT_EQ(PltInitializeMutex(&m, nullptr), 0u);
    {
        zt::TestThread owner([&] {
            uint32_t r = 0;
            PltAcquireMutex(&m, PLT_INFINITE, &r);
        });
    }
    uint32_t result = 0;
    EXPECT_EQ(PltAcquireMutex(&m, 1000, &result), 0u);
    EXPECT_EQ(result, PLT_WAIT_ABANDONED);
    EXPECT_EQ(PltReleaseMutex(&m), 0u);
    EXPECT_EQ(PltDeleteMutex(&m), 0u);
}

TEST(Mutex, ReleaseByAnotherThreadFails) {
    PLT_MUTEX m{};
    ASSERT_EQ(PltInitializeMutex(&m, nullptr), 0u);
    ASSERT_EQ(PltAcquireMutex(&m, 0, nullptr), 0u);
    uint32_t status = 0;
    { zt::TestThread other([&] { status = PltReleaseMutex(&m); }); }
    EXPECT_EQ(status, static_cast<uint32_t>(ERROR_NOT_OWNER));
    EXPECT_EQ(PltReleaseMutex(&m), 0u);
    EXPECT_EQ(PltDeleteMutex(&m), 0u);
}

TEST(Mutex, NamedMutexesShareOneObject) {
    PLT_MUTEX a{}, b{};
    ASSERT_EQ(PltInitializeMutex(&a, L"ZendraTestNamedMutex"), 0u);
    ASSERT_EQ(PltInitializeMutex(&b, L"ZendraTestNamedMutex"), 0u);
    ASSERT_EQ(PltAcquireMutex(&a, 0, nullptr), 0u);
    uint32_t result = 0;
    { zt::TestThread other([&] { PltAcquireMutex(&b, 0, &result); }); }
    EXPECT_EQ(result, PLT_WAIT_TIMEOUT);
    EXPECT_EQ(PltReleaseMutex(&a), 0u);
    EXPECT_EQ(PltDeleteMutex(&a), 0u);
    EXPECT_EQ(PltDeleteMutex(&b), 0u);
}

TEST(Mutex, FailedWaitReturnsTheErrorAndLeavesTheResult) {
    PLT_MUTEX m{kBogusHandle};
    uint32_t result = 42;
    EXPECT_EQ(PltAcquireMutex(&m, 0, &result), static_cast<uint32_t>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(result, 42u);
    // The object pointer is not checked; a null object is a null handle.
    EXPECT_EQ(PltAcquireMutex(nullptr, 0, &result), static_cast<uint32_t>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(PltReleaseMutex(nullptr), static_cast<uint32_t>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(result, 42u);
}

TEST(Mutex, DeleteFailureKeepsTheLiveCounter) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_MUTEX m{kBogusHandle};
    EXPECT_EQ(PltDeleteMutex(&m), static_cast<uint32_t>(ERROR_INVALID_HANDLE));
    PLT_EVENT e{kBogusHandle};
    EXPECT_EQ(PltDeleteEvent(&e), static_cast<uint32_t>(ERROR_INVALID_HANDLE));
    EXPECT_NO_LEAKS(before);
}

HANDLE WINAPI FailCreateMutex(LPSECURITY_ATTRIBUTES, BOOL, LPCWSTR) {
    SetLastError(ERROR_TOO_MANY_SEMAPHORES);
    return nullptr;
}
HANDLE WINAPI FailCreateEvent(LPSECURITY_ATTRIBUTES, BOOL, BOOL, LPCWSTR) {
    SetLastError(ERROR_NO_SYSTEM_RESOURCES);
    return nullptr;
}

TEST(Mutex, CreationFailureReturnsTheErrorWithANullHandleAndNoCount) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    zt::ImportHook hook("CreateMutexW", reinterpret_cast<void*>(&FailCreateMutex));
    PLT_MUTEX m{kBogusHandle};
    EXPECT_EQ(PltInitializeMutex(&m, nullptr), static_cast<uint32_t>(ERROR_TOO_MANY_SEMAPHORES));
    EXPECT_EQ(m.handle, nullptr);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.MutexCount, 0u);
    EXPECT_EQ(d.LiveMutexCount, 0u);
}

TEST(Event, CreationFailureReturnsTheErrorWithANullHandleAndNoCount) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    zt::ImportHook hook("CreateEventW", reinterpret_cast<void*>(&FailCreateEvent));
    PLT_EVENT e{kBogusHandle};
    EXPECT_EQ(PltInitializeEvent(&e, 1, 0, nullptr), static_cast<uint32_t>(ERROR_NO_SYSTEM_RESOURCES));
    EXPECT_EQ(e.handle, nullptr);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.EventCount, 0u);
    EXPECT_EQ(d.LiveEventCount, 0u);
}

uint32_t WaitZero(PLT_EVENT* e) {
    uint32_t result = 0;
    EXPECT_EQ(PltAcquireEvent(e, 0, &result), 0u);
    return result;
}

TEST(Event, ManualResetStaysSignalledUntilReset) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_EVENT e{};
    ASSERT_EQ(PltInitializeEvent(&e, PLT_EVENT_MANUAL_RESET, 0, nullptr), 0u);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.EventCount, 1u);
    EXPECT_EQ(d.LiveEventCount, 1u);
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

TEST(Event, EveryOtherKindIsAutoReset) {
    for (int32_t kind : {0, 2, -1, 100}) {
        PLT_EVENT e{};
        ASSERT_EQ(PltInitializeEvent(&e, kind, 0, nullptr), 0u);
        EXPECT_EQ(PltSetEvent(&e), 0u);
        EXPECT_EQ(WaitZero(&e), PLT_WAIT_SIGNALED) << kind;
        EXPECT_EQ(WaitZero(&e), PLT_WAIT_TIMEOUT) << "kind " << kind << " resets itself";
        EXPECT_EQ(PltDeleteEvent(&e), 0u);
    }
}

TEST(Event, AnyNonZeroInitialStateIsSignalled) {
    PLT_EVENT e{};
    ASSERT_EQ(PltInitializeEvent(&e, 1, 5, nullptr), 0u);
    EXPECT_EQ(WaitZero(&e), PLT_WAIT_SIGNALED);
    EXPECT_EQ(PltDeleteEvent(&e), 0u);
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
    // The waiter must be inside its wait before the pulse; keep pulsing
    // until it wakes.
    bool awoken = zt::WaitUntil([&] {
        PltPulseEvent(&e);
        return woke.wait(10);
    });
    EXPECT_TRUE(awoken);
    EXPECT_EQ(result, PLT_WAIT_SIGNALED);
    EXPECT_EQ(WaitZero(&e), PLT_WAIT_TIMEOUT);
    EXPECT_EQ(PltDeleteEvent(&e), 0u);
}

TEST(Event, NamedEventsShareOneObject) {
    PLT_EVENT a{}, b{};
    ASSERT_EQ(PltInitializeEvent(&a, 1, 0, L"ZendraTestNamedEvent"), 0u);
    ASSERT_EQ(PltInitializeEvent(&b, 1, 0, L"ZendraTestNamedEvent"), 0u);
    EXPECT_EQ(PltSetEvent(&a), 0u);
    EXPECT_EQ(WaitZero(&b), PLT_WAIT_SIGNALED);
    EXPECT_EQ(PltDeleteEvent(&a), 0u);
    EXPECT_EQ(PltDeleteEvent(&b), 0u);
}

TEST(Event, SetResetPulseOnABadHandleReturnTheError) {
    PLT_EVENT e{kBogusHandle};
    EXPECT_EQ(PltSetEvent(&e), static_cast<uint32_t>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(PltResetEvent(&e), static_cast<uint32_t>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(PltPulseEvent(&e), static_cast<uint32_t>(ERROR_INVALID_HANDLE));
}

TEST(NullObjects, InitDeleteSetPulseResetReturnZeroAndCountNothing) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(PltInitializeMutex(nullptr, nullptr), 0u);
    EXPECT_EQ(PltDeleteMutex(nullptr), 0u);
    EXPECT_EQ(PltInitializeEvent(nullptr, 1, 0, nullptr), 0u);
    EXPECT_EQ(PltSetEvent(nullptr), 0u);
    EXPECT_EQ(PltReleaseEvent(nullptr), 0u);
    EXPECT_EQ(PltPulseEvent(nullptr), 0u);
    EXPECT_EQ(PltResetEvent(nullptr), 0u);
    EXPECT_EQ(PltDeleteEvent(nullptr), 0u);
    EXPECT_EQ(PltInitializeFastLock(nullptr), 0u);
    EXPECT_EQ(PltAcquireFastLock(nullptr), 0u);
    EXPECT_EQ(PltReleaseFastLock(nullptr), 0u);
    EXPECT_EQ(PltDeleteFastLock(nullptr), 0u);
    EXPECT_EQ(PltInitializeSpinLock(nullptr), 0u);
    EXPECT_EQ(PltDeleteSpinLock(nullptr), 0u);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    PLT_RESOURCE_STATS zero{};
    EXPECT_EQ(memcmp(&d, &zero, sizeof d), 0);
}

}  // namespace
