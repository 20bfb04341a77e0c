// Mutexes, events, fast and spin locks, both reader-writer locks and remove
// locks: results, counters, recursion, writer preference and failures.
#include <string.h>

#include <atomic>
#include <string>

#include "zt.h"

namespace {

const HANDLE kBogus = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7FFF1230));

uint32_t WaitZero(void* object) {
    uint32_t result = 0;
    EXPECT_EQ(PltAcquireEvent(static_cast<PLT_EVENT*>(object), 0, &result), 0u);
    return result;
}

TEST(MutexEvent, ResultsKindsAndCounters) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_MUTEX m{};
    PLT_EVENT e{}, a{};
    ASSERT_EQ(PltInitializeMutex(&m, nullptr) +
                  PltInitializeEvent(&e, PLT_EVENT_MANUAL_RESET, 0, nullptr) +
                  PltInitializeEvent(&a, 2, 5, nullptr),
              0u);
    EXPECT_DELTA(before,
                 {.EventCount = 2, .LiveEventCount = 2, .MutexCount = 1, .LiveMutexCount = 1});
    zt::TestThread([&] {
        EXPECT_CALLS("2 2", WaitZero(&m), WaitZero(&e) + PltSetEvent(&e) + 1);
    }).join();
    EXPECT_CALLS("3 2 2 2 0 1", WaitZero(&m), WaitZero(&m), WaitZero(&e), WaitZero(&e),
                 PltResetEvent(&e), WaitZero(&e))
        << "abandoned by its owner, then recursive; a time-out is status 0; manual reset";
    EXPECT_CALLS("2 1 0 2 0 1", WaitZero(&a), WaitZero(&a), PltReleaseEvent(&e), WaitZero(&e),
                 PltPulseEvent(&e), WaitZero(&e))
        << "any kind but 1 resets itself; release is set; a pulse leaves the event reset";
    EXPECT_CALLS("0 0 0 0 0", PltReleaseMutex(&m), PltReleaseMutex(&m), PltDeleteMutex(&m),
                 PltDeleteEvent(&e), PltDeleteEvent(&a));
}

TEST(MutexEvent, BadHandlesCreationFailuresAndNullObjects) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_MUTEX m{kBogus};
    PLT_EVENT e{kBogus};
    uint32_t result = 42;
    EXPECT_EQ(PltAcquireMutex(&m, 0, &result) + PltAcquireMutex(nullptr, 0, &result) +
                  PltSetEvent(&e) + PltResetEvent(&e) + PltPulseEvent(&e) + PltDeleteEvent(&e) +
                  PltReleaseMutex(nullptr) + PltDeleteMutex(&m) + result,
              8u * ERROR_INVALID_HANDLE + 42);
    {
        ZT_FAIL_IMPORT(CreateMutexW, ERROR_TOO_MANY_SEMAPHORES);
        EXPECT_EQ(PltInitializeMutex(&m, nullptr), (uint32_t)ERROR_TOO_MANY_SEMAPHORES);
    }
    {
        ZT_FAIL_IMPORT(CreateEventW, ERROR_NO_SYSTEM_RESOURCES);
        EXPECT_EQ(PltInitializeEvent(&e, 1, 0, nullptr), (uint32_t)ERROR_NO_SYSTEM_RESOURCES);
    }
    EXPECT_TRUE(m.handle == nullptr && e.handle == nullptr);
    EXPECT_EQ(PltInitializeMutex(nullptr, nullptr) + PltDeleteMutex(nullptr) +
                  PltInitializeEvent(nullptr, 1, 0, nullptr) + PltSetEvent(nullptr) +
                  PltPulseEvent(nullptr) + PltResetEvent(nullptr) + PltDeleteEvent(nullptr) +
                  PltInitializeFastLock(nullptr) + PltAcquireFastLock(nullptr) +
                  PltReleaseFastLock(nullptr) + PltDeleteFastLock(nullptr) +
                  PltInitializeSpinLock(nullptr) + PltDeleteSpinLock(nullptr),
              0u);
    EXPECT_DELTA(before, {});
}

TEST(FastAndSpinLocks, CountInTheirOwnPair) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    CRITICAL_SECTION fast, spin;
    ASSERT_EQ(PltInitializeFastLock(&fast) + PltAcquireFastLock(&fast) + PltReleaseFastLock(&fast),
              0u);
    EXPECT_DELTA(before, {.FastLockCount = 1, .LiveFastLockCount = 1});
    before = zt::Snapshot();
    ASSERT_EQ(PltInitializeSpinLock(&spin) + PltAcquireSpinLock(&spin) + PltReleaseSpinLock(&spin),
              0u);
    EXPECT_DELTA(before, {.CriticalSectionCount = 1, .LiveCriticalSectionCount = 1});
    EXPECT_CALLS("1024 1024 0 0", static_cast<int64_t>(fast.SpinCount & 0xFFFFFF),
                 static_cast<int64_t>(spin.SpinCount & 0xFFFFFF), PltDeleteFastLock(&fast),
                 PltDeleteSpinLock(&spin));
}

struct SpinKind {
    using Lock = PLT_RW_SPIN_LOCK;
    static uint32_t Init(Lock* l) { return InitializeReadWriteSpinLock(l); }
    static void Destroy(Lock* l) { DestroyReadWriteSpinLock(l); }
    static void Read(Lock* l, uint32_t* t) { AcquireReadSpinLock(l, t); }
    static void Write(Lock* l, uint32_t* t) { AcquireWriteSpinLock(l, t); }
    static void Release(Lock* l, uint32_t* t) { ReleaseReadWriteSpinLock(l, t); }
    static constexpr PLT_RESOURCE_STATS kCounted{.RwSpinLockCount = 1,
                                                 .LiveRwSpinLockCount = 1,
                                                 .CriticalSectionCount = 1,
                                                 .LiveCriticalSectionCount = 1};
};

struct BlockingKind {
    using Lock = PLT_RW_LOCK;
    static uint32_t Init(Lock* l) { return InitializeReadWriteLock(l); }
    static void Destroy(Lock* l) { DestroyReadWriteLock(l); }
    static void Read(Lock* l, uint32_t* t) { AcquireReadLock(l, t); }
    static void Write(Lock* l, uint32_t* t) { AcquireWriteLock(l, t); }
    static void Release(Lock* l, uint32_t* t) { ReleaseReadWriteLock(l, t); }
    static constexpr PLT_RESOURCE_STATS kCounted{.RwLockCount = 1,
                                                 .LiveRwLockCount = 1,
                                                 .EventCount = 1,
                                                 .LiveEventCount = 1,
                                                 .MutexCount = 1,
                                                 .LiveMutexCount = 1};
};

template <typename K>
struct RwLocks : ::testing::Test {
    void SetUp() override {
        memset(&lock, 0xAA, sizeof lock);
        ASSERT_NE(K::Init(&lock), 0u);
        EXPECT_TRUE(zt::DeltaIs(before, K::kCounted));
        EXPECT_EQ(State(), "0/0");
    }
    void TearDown() override {
        K::Destroy(&lock);
        typename K::Lock zero{};
        EXPECT_EQ(memcmp(&lock, &zero, sizeof lock), 0) << "the record is zeroed";
    }
    // "readers/writers[/owner]"
    std::string State() {
        return std::to_string(lock.readers) + "/" + std::to_string(lock.writers) +
               (lock.owner == GetCurrentThreadId() ? "/mine"
                : lock.owner                       ? "/other"
                                                   : "");
    }
    PLT_RESOURCE_STATS before = zt::Snapshot();
    typename K::Lock lock;
};

using Kinds = ::testing::Types<SpinKind, BlockingKind>;
TYPED_TEST_SUITE(RwLocks, Kinds);

TYPED_TEST(RwLocks, TicketsRecursionOfTheWriteSideAndWriterPreference) {
    auto* l = &this->lock;
    uint32_t w = 0, w2 = 0, r = 0, bad[] = {0, 5};
    TypeParam::Write(l, &w);
    TypeParam::Write(l, &w2);
    TypeParam::Read(l, &r);
    for (uint32_t& t : bad) TypeParam::Release(l, &t);
    EXPECT_CALLS("3 4 2 0 5", w, w2, r, bad[0], bad[1]) << "write, again, read by the writer";
    EXPECT_EQ(this->State(), "1/2/mine") << "unknown tickets change nothing";
    for (uint32_t* t : {&r, &w2, &w}) TypeParam::Release(l, t);
    EXPECT_EQ(this->State() + std::to_string(r + w2 + w), "0/00");
    // Two readers inside, a writer waiting for them, a reader arriving behind it.
    zt::Signal secondIn, releaseSecond, writerIn, writerOut, lateIn;
    TypeParam::Read(l, &r);
    zt::TestThread reader([&] {
        TypeParam::Read(l, &w2);
        secondIn.set();
        releaseSecond.wait();
        TypeParam::Release(l, &w2);
    });
    ASSERT_TRUE(secondIn.wait());
    zt::TestThread writer([&] {
        TypeParam::Write(l, &w);
        writerIn.set();
        writerOut.wait();
        TypeParam::Release(l, &w);
    });
    ASSERT_TRUE(zt::WaitUntil([&] { return l->writers == 1; }));
    Sleep(50);  // let the writer reach its wait for the readers to drain
    zt::TestThread late([&] {
        uint32_t t = 0;
        TypeParam::Read(l, &t);
        lateIn.set();
        TypeParam::Release(l, &t);
    });
    EXPECT_FALSE(writerIn.wait(100)) << "two readers inside";
    TypeParam::Release(l, &r);
    EXPECT_FALSE(writerIn.wait(100)) << "one reader still inside";
    EXPECT_FALSE(lateIn.isSet()) << "the late reader queues behind the writer";
    releaseSecond.set();
    EXPECT_TRUE(writerIn.wait());
    EXPECT_EQ(this->State(), "0/1/other");
    EXPECT_FALSE(lateIn.wait(100));
    writerOut.set();
    EXPECT_TRUE(lateIn.wait());
}

TEST(RwLock, CreationFailuresCountOnlyWhatWasCreated) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_RW_LOCK noMutex, noEvent;
    {
        ZT_FAIL_IMPORT(CreateMutexW, ERROR_TOO_MANY_SEMAPHORES);
        EXPECT_EQ(InitializeReadWriteLock(&noMutex), (uint32_t)ERROR_TOO_MANY_SEMAPHORES);
    }
    {
        ZT_FAIL_IMPORT(CreateEventW, ERROR_NO_SYSTEM_RESOURCES);
        EXPECT_EQ(InitializeReadWriteLock(&noEvent), (uint32_t)ERROR_NO_SYSTEM_RESOURCES);
    }
    EXPECT_TRUE(!noMutex.mutex && noMutex.noReaders && noEvent.mutex && !noEvent.noReaders);
    EXPECT_DELTA(before, {.RwLockCount = 2,
                          .LiveRwLockCount = 2,
                          .EventCount = 1,
                          .LiveEventCount = 1,
                          .MutexCount = 1,
                          .LiveMutexCount = 1});
    DestroyReadWriteLock(&noMutex);
    DestroyReadWriteLock(&noEvent);
}

// A reader's release drops the count to 0 and then sets the no-readers event;
// the hook holds it between the two while a second reader enters and a writer
// arrives, which must not take the late signal for an empty lock.
std::atomic<DWORD> g_slowSetter;
zt::Signal *g_inWindow, *g_leaveWindow;
BOOL WINAPI SlowSetEvent(HANDLE event) {
    if (zt::Claim(g_slowSetter)) g_inWindow->set(), g_leaveWindow->wait();
    return SetEvent(event);
}

TEST(RwLock, NoWriterBesideAReaderThatEnteredAsTheLastOneLeft) {
    PLT_RW_LOCK lock;
    uint32_t first = 0, second = 0, w = 0;
    zt::Signal inWindow, leaveWindow;
    g_inWindow = &inWindow;
    g_leaveWindow = &leaveWindow;
    InitializeReadWriteLock(&lock);
    AcquireReadLock(&lock, &first);
    zt::ImportHook hook("SetEvent", reinterpret_cast<void*>(&SlowSetEvent));
    zt::TestThread leaving([&] {
        g_slowSetter = GetCurrentThreadId();
        ReleaseReadWriteLock(&lock, &first);
    });
    ASSERT_TRUE(inWindow.wait());
    AcquireReadLock(&lock, &second);
    zt::TestThread writer([&] { AcquireWriteLock(&lock, &w); });
    ASSERT_TRUE(zt::WaitUntil([&] { return lock.writers == 1; }));
    leaveWindow.set();
    EXPECT_FALSE(zt::WaitUntil([&] { return lock.owner != 0; }, 1000))
        << "a writer beside a reader";
    ReleaseReadWriteLock(&lock, &second);
    EXPECT_TRUE(writer.join(10000));
    ReleaseReadWriteLock(&lock, &w);
    DestroyReadWriteLock(&lock);
}

// The owner's wait ends only when no acquisition that succeeded is still held.
// Users acquire in a loop and count themselves while they hold; the owner, once
// its wait has ended, looks at that count and users look whether it has ended.
// Sequentially consistent, one of the two always sees the other.
TEST(RemoveLock, NoAcquisitionIsHeldOnceTheOwnersWaitHasEnded) {
    int rounds = 0, late = 0;
    for (ULONGLONG end = GetTickCount64() + 1500; GetTickCount64() < end; ++rounds) {
        PLT_REMOVE_LOCK lock;
        std::atomic<bool> ended{false}, stop{false};
        std::atomic<int> holders{0}, seen{0}, acquired{0};
        PltInitRemoveLock(&lock);
        PltAcquireRemoveLock(&lock);
        auto user = [&] {
            while (!stop) {
                if (PltAcquireRemoveLock(&lock) != 0) continue;
                ++holders, ++acquired;
                seen += ended;
                --holders;
                PltReleaseRemoveLock(&lock);
            }
        };
        zt::TestThread a(user), b(user);
        while (acquired < 200) YieldProcessor();  // both users busy
        PltReleaseRemoveLockAndWait(&lock, PLT_INFINITE);
        ended = true;
        seen += holders;
        stop = true;
        a.join();
        b.join();
        late += seen;
        CloseHandle(lock.event);  // the owner's: it stays counted
    }
    EXPECT_EQ(late, 0) << "acquisitions held after the owner's wait, in " << rounds << " rounds";
    zt::LeavesBehind({.LiveEventCount = static_cast<uint32_t>(rounds)});
}

TEST(RemoveLock, OwnerWaitsForOtherUsersThenRefusesNewOnes) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_REMOVE_LOCK lock{7, 7, nullptr}, bare;
    PLT_STATUS bits = PltInitRemoveLock(&lock);
    EXPECT_EQ(bits, static_cast<uint32_t>(reinterpret_cast<uintptr_t>(lock.event)));
    EXPECT_CALLS("0 0 258", PltAcquireRemoveLock(&lock), PltReleaseRemoveLock(&lock),
                 WaitForSingleObject(lock.event, 0))
        << "not removing: no signal";
    ASSERT_EQ(PltAcquireRemoveLock(&lock), 0u);  // the owner's own
    zt::Signal userIn, letGo, waitOver;
    zt::TestThread user([&] {
        PltAcquireRemoveLock(&lock);
        userIn.set();
        letGo.wait();
        PltReleaseRemoveLock(&lock);
    });
    ASSERT_TRUE(userIn.wait());
    uint32_t status = 99;
    zt::TestThread owner([&] {
        status = PltReleaseRemoveLockAndWait(&lock, PLT_INFINITE);
        waitOver.set();
    });
    EXPECT_FALSE(waitOver.wait(150)) << "another user still holds the lock";
    EXPECT_EQ(lock.count * 10 + lock.removing, 11u);
    letGo.set();
    ASSERT_TRUE(waitOver.wait());
    ULONGLONG start = GetTickCount64();
    EXPECT_CALLS("0 1617 0 1 0", status, PltAcquireRemoveLock(&lock), lock.count,
                 PltReleaseRemoveLockAndWait(&lock, 5000), lock.count)
        << "refused without counting; a second call returns 1 at once";
    EXPECT_LT(GetTickCount64() - start, 2000u);
    // Without the owner's own acquisition the wait runs its full time-out.
    PltInitRemoveLock(&bare);
    start = GetTickCount64();
    EXPECT_EQ(PltReleaseRemoveLockAndWait(&bare, 100), 0u) << "a time-out is not reported";
    EXPECT_TRUE(GetTickCount64() - start >= 90 && bare.count == 0xFFFFFFFFu);
    EXPECT_DELTA(before, {.EventCount = 2, .LiveEventCount = 2});
    zt::LeavesBehind({.LiveEventCount = 2});  // the owner closes the events
    CloseHandle(lock.event);
    CloseHandle(bare.event);
    EXPECT_EQ(PltAcquireRemoveLock(nullptr) + PltReleaseRemoveLock(nullptr) +
                  PltReleaseRemoveLockAndWait(nullptr, 0) + PltInitRemoveLock(nullptr),
              3 * 87u);
    ZT_FAIL_IMPORT(CreateEventW, ERROR_NO_SYSTEM_RESOURCES);
    lock = {7, 7, kBogus};
    EXPECT_EQ(PltInitRemoveLock(&lock), (uint32_t)ERROR_NO_SYSTEM_RESOURCES);
    EXPECT_TRUE(lock.event == nullptr && lock.count == 0 && lock.removing == 0);
}

}  // namespace
