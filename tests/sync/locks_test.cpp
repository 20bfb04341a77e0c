// Mutexes, events, fast locks and spin locks: results, counters, failures.

#include "zt.h"

namespace {

const HANDLE kBogus = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7FFF1230));
const uint32_t kBadHandle = ERROR_INVALID_HANDLE;

uint32_t WaitZero(void* object) {
    uint32_t result = 0;
    EXPECT_EQ(PltAcquireEvent(static_cast<PLT_EVENT*>(object), 0, &result), 0u);
    return result;
}

uint32_t WaitZeroElsewhere(void* object) {
    uint32_t result = 0;
    zt::TestThread other([&] { result = WaitZero(object); });
    other.join();
    return result;
}

TEST(Mutex, AcquireResultsOwnershipAndCounters) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_MUTEX m{};
    ASSERT_EQ(PltInitializeMutex(&m, nullptr), 0u);
    EXPECT_DELTA(before, {.MutexCount = 1, .LiveMutexCount = 1});
    EXPECT_EQ(WaitZero(&m), PLT_WAIT_SIGNALED);
    EXPECT_EQ(WaitZero(&m), PLT_WAIT_SIGNALED) << "recursive for its owner";
    EXPECT_EQ(WaitZeroElsewhere(&m), PLT_WAIT_TIMEOUT) << "a time-out is status 0";
    uint32_t status = 0;
    { zt::TestThread other([&] { status = PltReleaseMutex(&m); }); }
    EXPECT_EQ(status, static_cast<uint32_t>(ERROR_NOT_OWNER));
    EXPECT_EQ(PltReleaseMutex(&m) + PltReleaseMutex(&m), 0u);
    EXPECT_EQ(PltReleaseMutex(&m), static_cast<uint32_t>(ERROR_NOT_OWNER));
    { zt::TestThread owner([&] { PltAcquireMutex(&m, PLT_INFINITE, nullptr); }); }
    EXPECT_EQ(WaitZero(&m), PLT_WAIT_ABANDONED) << "its owner ended holding it";
    EXPECT_EQ(PltReleaseMutex(&m), 0u);
    EXPECT_EQ(PltDeleteMutex(&m), 0u);
    EXPECT_NO_LEAKS(before);
}

TEST(Event, KindsStatesPulseAndNames) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_EVENT e{}, named{};
    ASSERT_EQ(PltInitializeEvent(&e, PLT_EVENT_MANUAL_RESET, 0, L"ZendraTestEvent"), 0u);
    ASSERT_EQ(PltInitializeEvent(&named, 1, 0, L"ZendraTestEvent"), 0u);
    EXPECT_DELTA(before, {.EventCount = 2, .LiveEventCount = 2});
    EXPECT_EQ(WaitZero(&e), PLT_WAIT_TIMEOUT);
    EXPECT_EQ(PltSetEvent(&e), 0u);
    EXPECT_EQ(WaitZero(&named), PLT_WAIT_SIGNALED) << "one name, one event";
    EXPECT_EQ(WaitZero(&e), PLT_WAIT_SIGNALED) << "manual reset stays signalled";
    EXPECT_EQ(PltResetEvent(&e), 0u);
    EXPECT_EQ(WaitZero(&e), PLT_WAIT_TIMEOUT);
    EXPECT_EQ(PltReleaseEvent(&e), 0u);
    EXPECT_EQ(WaitZero(&e), PLT_WAIT_SIGNALED) << "release is set";
    EXPECT_EQ(PltPulseEvent(&e), 0u);
    EXPECT_EQ(WaitZero(&e), PLT_WAIT_TIMEOUT) << "a pulse leaves the event reset";
    EXPECT_EQ(PltDeleteEvent(&e) + PltDeleteEvent(&named), 0u);
    for (int32_t kind : {0, 2, -1}) {
        ASSERT_EQ(PltInitializeEvent(&e, kind, 5, nullptr), 0u);
        EXPECT_EQ(WaitZero(&e), PLT_WAIT_SIGNALED) << "kind " << kind;
        EXPECT_EQ(WaitZero(&e), PLT_WAIT_TIMEOUT) << "kind " << kind << " resets itself";
        EXPECT_EQ(PltDeleteEvent(&e), 0u);
    }
    EXPECT_NO_LEAKS(before);
}

TEST(MutexEvent, BadHandlesCreationFailuresAndNullObjects) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_MUTEX m{kBogus};
    PLT_EVENT e{kBogus};
    uint32_t result = 42;
    EXPECT_EQ(PltAcquireMutex(&m, 0, &result), kBadHandle);
    EXPECT_EQ(PltAcquireMutex(nullptr, 0, &result), kBadHandle) << "waits on a null handle";
    EXPECT_EQ(result, 42u);
    EXPECT_EQ(PltSetEvent(&e) + PltResetEvent(&e) + PltPulseEvent(&e) + PltDeleteEvent(&e) +
                  PltReleaseMutex(nullptr) + PltDeleteMutex(&m),
              6 * kBadHandle);
    {
        ZT_FAIL_IMPORT(CreateMutexW, ERROR_TOO_MANY_SEMAPHORES);
        EXPECT_EQ(PltInitializeMutex(&m, nullptr), (uint32_t)ERROR_TOO_MANY_SEMAPHORES);
    }
    {
        ZT_FAIL_IMPORT(CreateEventW, ERROR_NO_SYSTEM_RESOURCES);
        EXPECT_EQ(PltInitializeEvent(&e, 1, 0, nullptr), (uint32_t)ERROR_NO_SYSTEM_RESOURCES);
    }
    EXPECT_EQ(m.handle, nullptr);
    EXPECT_EQ(e.handle, nullptr);
    EXPECT_EQ(PltInitializeMutex(nullptr, nullptr) + PltDeleteMutex(nullptr) +
                  PltInitializeEvent(nullptr, 1, 0, nullptr) + PltSetEvent(nullptr) +
                  PltPulseEvent(nullptr) + PltResetEvent(nullptr) + PltDeleteEvent(nullptr) +
                  PltInitializeFastLock(nullptr) + PltAcquireFastLock(nullptr) +
                  PltReleaseFastLock(nullptr) + PltDeleteFastLock(nullptr) +
                  PltInitializeSpinLock(nullptr) + PltDeleteSpinLock(nullptr),
              0u);
    EXPECT_DELTA(before, {});
}

struct CriticalSectionKind {
    PLT_STATUS (*init)(CRITICAL_SECTION*);
    PLT_STATUS (*acquire)(CRITICAL_SECTION*);
    PLT_STATUS (*release)(CRITICAL_SECTION*);
    PLT_STATUS (*destroy)(CRITICAL_SECTION*);
    PLT_RESOURCE_STATS counted;  // what init moves
};

TEST(FastAndSpinLocks, CountInTheirOwnPairAndSerialiseRecursively) {
    const CriticalSectionKind kinds[] = {
        {&PltInitializeFastLock, &PltAcquireFastLock, &PltReleaseFastLock, &PltDeleteFastLock,
         {.FastLockCount = 1, .LiveFastLockCount = 1}},
        {&PltInitializeSpinLock, &PltAcquireSpinLock, &PltReleaseSpinLock, &PltDeleteSpinLock,
         {.CriticalSectionCount = 1, .LiveCriticalSectionCount = 1}}};
    for (const CriticalSectionKind& k : kinds) {
        PLT_RESOURCE_STATS before = zt::Snapshot();
        CRITICAL_SECTION lock;
        ASSERT_EQ(k.init(&lock), 0u);
        EXPECT_TRUE(zt::DeltaIs(before, k.counted));
        EXPECT_EQ(lock.SpinCount & 0xFFFFFF, 1024u);
        EXPECT_EQ(k.acquire(&lock) + k.acquire(&lock), 0u) << "recursive";
        volatile long counter = 0;
        auto body = [&] {
            for (long i = 0; i < 100000; ++i) {
                k.acquire(&lock);
                counter = counter + 1;
                k.release(&lock);
            }
        };
        zt::TestThread a(body), b(body);
        EXPECT_FALSE(a.join(100)) << "held by this thread";
        EXPECT_EQ(k.release(&lock) + k.release(&lock), 0u);
        ASSERT_TRUE(a.join() && b.join());
        EXPECT_EQ(counter, 200000);
        EXPECT_EQ(k.destroy(&lock), 0u);
        EXPECT_NO_LEAKS(before);
    }
}

}  // namespace
