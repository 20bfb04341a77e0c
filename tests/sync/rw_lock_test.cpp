// Both reader-writer locks (tickets, recursion of the write side, writer
// preference, counters) and remove locks.
#include <string.h>

#include <string>

#include "zt.h"

namespace {

struct SpinKind {
    using Lock = PLT_RW_SPIN_LOCK;
    static uint32_t Init(Lock* l) { return InitializeReadWriteSpinLock(l); }
    static void Destroy(Lock* l) { DestroyReadWriteSpinLock(l); }
    static void Read(Lock* l, uint32_t* t) { AcquireReadSpinLock(l, t); }
    static void Write(Lock* l, uint32_t* t) { AcquireWriteSpinLock(l, t); }
    static void Release(Lock* l, uint32_t* t) { ReleaseReadWriteSpinLock(l, t); }
    static constexpr PLT_RESOURCE_STATS kCounted{.RwSpinLockCount = 1, .LiveRwSpinLockCount = 1,
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
    static constexpr PLT_RESOURCE_STATS kCounted{.RwLockCount = 1, .LiveRwLockCount = 1,
                                                 .EventCount = 1, .LiveEventCount = 1,
                                                 .MutexCount = 1, .LiveMutexCount = 1};
};

template <typename K>
class RwLocks : public ::testing::Test {
protected:
    void SetUp() override {
        before_ = zt::Snapshot();
        memset(&lock_, 0xAA, sizeof lock_);
        ASSERT_NE(K::Init(&lock_), 0u);
        EXPECT_TRUE(zt::DeltaIs(before_, K::kCounted));
        EXPECT_EQ(lock_.readers | lock_.writers | lock_.owner, 0u);
    }
    void TearDown() override {
        K::Destroy(&lock_);
        typename K::Lock zero{};
        EXPECT_EQ(memcmp(&lock_, &zero, sizeof lock_), 0) << "the record is zeroed";
        EXPECT_NO_LEAKS(before_);
    }
    // "readers/writers/owned by this thread"
    std::string State() {
        return std::to_string(lock_.readers) + "/" + std::to_string(lock_.writers) +
               (lock_.owner == GetCurrentThreadId() ? "/mine" : lock_.owner ? "/other" : "");
    }
    PLT_RESOURCE_STATS before_;
    typename K::Lock lock_;
};

using Kinds = ::testing::Types<SpinKind, BlockingKind>;
TYPED_TEST_SUITE(RwLocks, Kinds);

TYPED_TEST(RwLocks, TicketsRecursionOfTheWriteSideAndUnknownTickets) {
    auto* l = &this->lock_;
    uint32_t w = 0, w2 = 0, r = 0, bad[] = {0, 5};
    TypeParam::Write(l, &w);
    TypeParam::Write(l, &w2);
    TypeParam::Read(l, &r);
    EXPECT_EQ(w * 100 + w2 * 10 + r, 342u) << "write, write again, read by the writer";
    for (uint32_t& t : bad) TypeParam::Release(l, &t);
    EXPECT_EQ(bad[0] * 10 + bad[1], 5u);
    EXPECT_EQ(this->State(), "1/2/mine") << "unknown tickets change nothing";
    for (uint32_t* t : {&r, &w2, &w}) TypeParam::Release(l, t);
    EXPECT_EQ(r + w2 + w, 0u);
    EXPECT_EQ(this->State(), "0/0");
    zt::TestThread([&] {
        TypeParam::Write(l, &w);
        TypeParam::Release(l, &w);
        TypeParam::Read(l, &r);
        TypeParam::Release(l, &r);
    }).join();
    EXPECT_EQ(this->State(), "0/0") << "free for another thread";
}

TYPED_TEST(RwLocks, WriterWaitsForReadersAndLateReadersWaitForTheWriter) {
    auto* l = &this->lock_;
    uint32_t r1 = 0, r2 = 0;
    TypeParam::Read(l, &r1);
    zt::Signal secondIn, releaseSecond, writerIn, writerOut, lateIn;
    zt::TestThread reader([&] {
        TypeParam::Read(l, &r2);
        secondIn.set();
        releaseSecond.wait();
        TypeParam::Release(l, &r2);
    });
    ASSERT_TRUE(secondIn.wait());
    zt::TestThread writer([&] {
        uint32_t w = 0;
        TypeParam::Write(l, &w);
        writerIn.set();
        writerOut.wait();
        TypeParam::Release(l, &w);
    });
    ASSERT_TRUE(zt::WaitUntil([&] { return l->writers == 1; }));
    Sleep(50);  // let the writer reach its wait for the readers to drain
    zt::TestThread late([&] {
        uint32_t r = 0;
        TypeParam::Read(l, &r);
        lateIn.set();
        TypeParam::Release(l, &r);
    });
    EXPECT_FALSE(writerIn.wait(100)) << "two readers inside";
    TypeParam::Release(l, &r1);
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
    EXPECT_DELTA(before, {.RwLockCount = 2, .LiveRwLockCount = 2, .EventCount = 1,
                          .LiveEventCount = 1, .MutexCount = 1, .LiveMutexCount = 1});
    DestroyReadWriteLock(&noMutex);
    DestroyReadWriteLock(&noEvent);
    EXPECT_NO_LEAKS(before);
}

TEST(RemoveLock, OwnerWaitsForOtherUsersThenRefusesNewOnes) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_REMOVE_LOCK lock{7, 7, nullptr};
    PLT_STATUS bits = PltInitRemoveLock(&lock);
    EXPECT_EQ(bits, static_cast<uint32_t>(reinterpret_cast<uintptr_t>(lock.event)));
    EXPECT_DELTA(before, {.EventCount = 1, .LiveEventCount = 1});
    EXPECT_EQ(PltAcquireRemoveLock(&lock) + PltReleaseRemoveLock(&lock), 0u);
    EXPECT_EQ(WaitForSingleObject(lock.event, 0), (DWORD)WAIT_TIMEOUT) << "not removing: no signal";
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
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(PltAcquireRemoveLock(&lock), 1617u);
    EXPECT_EQ(lock.count, 0u) << "a refused acquisition does not count";
    ULONGLONG start = GetTickCount64();
    EXPECT_EQ(PltReleaseRemoveLockAndWait(&lock, 5000), 1u) << "a second call returns at once";
    EXPECT_TRUE(GetTickCount64() - start < 2000 && lock.count == 0);
    // Without the owner's own acquisition the wait runs its full time-out.
    PLT_REMOVE_LOCK bare;
    PltInitRemoveLock(&bare);
    start = GetTickCount64();
    EXPECT_EQ(PltReleaseRemoveLockAndWait(&bare, 100), 0u) << "a time-out is not reported";
    EXPECT_TRUE(GetTickCount64() - start >= 90 && bare.count == 0xFFFFFFFFu);
    EXPECT_DELTA(before, {.EventCount = 2, .LiveEventCount = 2}) << "the owner closes the events";
    CloseHandle(lock.event);
    CloseHandle(bare.event);
}

TEST(RemoveLock, NullLocksAndEventCreationFailure) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(PltInitRemoveLock(nullptr), 0u);
    EXPECT_EQ(PltAcquireRemoveLock(nullptr) + PltReleaseRemoveLock(nullptr) +
                  PltReleaseRemoveLockAndWait(nullptr, 0),
              3 * 87u);
    ZT_FAIL_IMPORT(CreateEventW, ERROR_NO_SYSTEM_RESOURCES);
    PLT_REMOVE_LOCK lock{7, 7, reinterpret_cast<HANDLE>(1)};
    EXPECT_EQ(PltInitRemoveLock(&lock), (uint32_t)ERROR_NO_SYSTEM_RESOURCES);
    EXPECT_TRUE(lock.event == nullptr && lock.count == 0 && lock.removing == 0);
    EXPECT_DELTA(before, {});
}

}  // namespace
