// Both reader-writer locks (tickets, recursion of the write side, writer
// preference, counters) and remove locks.
#include <string.h>
#include <windows.h>

#include <atomic>

#include <gtest/gtest.h>
#include <zendra/platform.h>

#include "counters.h"
#include "import_failure.h"
#include "sync_helpers.h"

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
    PLT_RESOURCE_STATS before_;
    typename K::Lock lock_;
};

using Kinds = ::testing::Types<SpinKind, BlockingKind>;
TYPED_TEST_SUITE(RwLocks, Kinds);

TYPED_TEST(RwLocks, TicketsRecursionOfTheWriteSideAndUnknownTickets) {
    auto* l = &this->lock_;
    uint32_t w = 0, w2 = 0, r = 0;
    TypeParam::Write(l, &w);
    EXPECT_EQ(l->owner, GetCurrentThreadId());
    TypeParam::Write(l, &w2);
    TypeParam::Read(l, &r);
    EXPECT_EQ(w * 100 + w2 * 10 + r, 342u) << "write, write again, read by the writer";
    EXPECT_EQ(l->writers * 10 + l->readers, 21u);
    for (uint32_t bad : {0u, 5u}) {
        uint32_t t = bad;
        TypeParam::Release(l, &t);
        EXPECT_EQ(t, bad);
        EXPECT_EQ(l->writers * 10 + l->readers, 21u) << "ticket " << bad << " changes nothing";
    }
    for (uint32_t* t : {&r, &w2, &w}) TypeParam::Release(l, t);
    EXPECT_EQ(r + w2 + w + l->readers + l->writers + l->owner, 0u);
    uint32_t other = 0, read = 0;
    zt::TestThread([&] {
        TypeParam::Write(l, &other);
        TypeParam::Release(l, &w);
        TypeParam::Read(l, &read);
        TypeParam::Release(l, &read);
    }).join();
    EXPECT_EQ(other * 10 + read, 30u) << "free for another thread";
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
    EXPECT_FALSE(lateIn.wait(100));
    writerOut.set();
    EXPECT_TRUE(lateIn.wait());
}

TYPED_TEST(RwLocks, WritersExcludeEveryoneUnderContention) {
    std::atomic<int> readers{0}, writers{0}, violations{0};
    long shared = 0;
    auto body = [&](int id) {
        for (int i = 0; i < 300; ++i) {
            uint32_t t = 0;
            bool write = (i + id) % 4 == 0;
            write ? TypeParam::Write(&this->lock_, &t) : TypeParam::Read(&this->lock_, &t);
            std::atomic<int>& mine = write ? writers : readers;
            if (mine.fetch_add(1) < 0 || writers.load() > (write ? 1 : 0) ||
                (write && readers.load() != 0))
                ++violations;
            if (write) shared = shared + 1;
            mine.fetch_sub(1);
            TypeParam::Release(&this->lock_, &t);
        }
    };
    {
        zt::TestThread a([&] { body(0); }), b([&] { body(1); }), c([&] { body(2); }),
            d([&] { body(3); });
    }
    EXPECT_EQ(violations.load(), 0);
    EXPECT_EQ(shared, 300);
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
    EXPECT_TRUE(noMutex.mutex == nullptr && noMutex.noReaders != nullptr);
    EXPECT_TRUE(noEvent.mutex != nullptr && noEvent.noReaders == nullptr);
    EXPECT_DELTA(before, {.RwLockCount = 2, .LiveRwLockCount = 2, .EventCount = 1,
                          .LiveEventCount = 1, .MutexCount = 1, .LiveMutexCount = 1});
    DestroyReadWriteLock(&noMutex);
    DestroyReadWriteLock(&noEvent);
    EXPECT_NO_LEAKS(before);
}

class RemoveLock : public ::testing::Test {
protected:
    void SetUp() override {
        before_ = zt::Snapshot();
        PLT_STATUS status = PltInitRemoveLock(&lock_);
        ASSERT_NE(lock_.event, nullptr);
        EXPECT_EQ(status, static_cast<uint32_t>(reinterpret_cast<uintptr_t>(lock_.event)));
        EXPECT_DELTA(before_, {.EventCount = 1, .LiveEventCount = 1});
    }
    void TearDown() override {
        EXPECT_EQ(zt::Delta(before_, zt::Snapshot()).LiveEventCount, 1u) << "the owner closes it";
        CloseHandle(lock_.event);
    }
    bool Signalled() { return WaitForSingleObject(lock_.event, 0) == WAIT_OBJECT_0; }
    PLT_RESOURCE_STATS before_;
    PLT_REMOVE_LOCK lock_{7, 7, nullptr};
};

TEST_F(RemoveLock, OwnerWaitsForOtherUsersThenRefusesNewOnes) {
    EXPECT_EQ(PltAcquireRemoveLock(&lock_) + PltReleaseRemoveLock(&lock_), 0u);
    EXPECT_FALSE(Signalled()) << "not removing: no signal";
    ASSERT_EQ(PltAcquireRemoveLock(&lock_), 0u);  // the owner's own
    zt::Signal userIn, letGo, waitOver;
    zt::TestThread user([&] {
        PltAcquireRemoveLock(&lock_);
        userIn.set();
        letGo.wait();
        PltReleaseRemoveLock(&lock_);
    });
    ASSERT_TRUE(userIn.wait());
    uint32_t status = 99;
    zt::TestThread owner([&] {
        status = PltReleaseRemoveLockAndWait(&lock_, PLT_INFINITE);
        waitOver.set();
    });
    EXPECT_FALSE(waitOver.wait(150)) << "another user still holds the lock";
    EXPECT_EQ(lock_.count * 10 + lock_.removing, 11u);
    letGo.set();
    ASSERT_TRUE(waitOver.wait());
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(PltAcquireRemoveLock(&lock_), 1617u);
    EXPECT_EQ(lock_.count, 0u) << "a refused acquisition does not count";
    ULONGLONG start = GetTickCount64();
    EXPECT_EQ(PltReleaseRemoveLockAndWait(&lock_, 5000), 1u) << "a second call returns at once";
    EXPECT_LT(GetTickCount64() - start, 2000u);
    EXPECT_EQ(lock_.count, 0u);
}

TEST_F(RemoveLock, WithoutTheOwnersAcquisitionTheWaitRunsItsFullTimeout) {
    ULONGLONG start = GetTickCount64();
    EXPECT_EQ(PltReleaseRemoveLockAndWait(&lock_, 100), 0u) << "a time-out is not reported";
    EXPECT_GE(GetTickCount64() - start, 90u);
    EXPECT_EQ(lock_.count, 0xFFFFFFFFu);
    EXPECT_EQ(PltAcquireRemoveLock(&lock_) + PltAcquireRemoveLock(&lock_), 2 * 1617u);
}

TEST(RemoveLockFailures, NullLocksAndEventCreation) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(PltInitRemoveLock(nullptr), 0u);
    EXPECT_EQ(PltAcquireRemoveLock(nullptr) + PltReleaseRemoveLock(nullptr) +
                  PltReleaseRemoveLockAndWait(nullptr, 0),
              3 * 87u);
    ZT_FAIL_IMPORT(CreateEventW, ERROR_NO_SYSTEM_RESOURCES);
    PLT_REMOVE_LOCK lock{7, 7, reinterpret_cast<HANDLE>(1)};
    EXPECT_EQ(PltInitRemoveLock(&lock), (uint32_t)ERROR_NO_SYSTEM_RESOURCES);
    EXPECT_EQ(lock.event, nullptr);
    EXPECT_EQ(lock.count | lock.removing, 0u);
    EXPECT_DELTA(before, {});
}

}  // namespace
