// Both reader-writer locks: tickets, recursion of the write side, writer
// preference, counters, and the creation failures of the blocking lock.
#include <string.h>
#include <windows.h>

#include <atomic>
#include <vector>

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
};

struct BlockingKind {
    using Lock = PLT_RW_LOCK;
    static uint32_t Init(Lock* l) { return InitializeReadWriteLock(l); }
    static void Destroy(Lock* l) { DestroyReadWriteLock(l); }
    static void Read(Lock* l, uint32_t* t) { AcquireReadLock(l, t); }
    static void Write(Lock* l, uint32_t* t) { AcquireWriteLock(l, t); }
    static void Release(Lock* l, uint32_t* t) { ReleaseReadWriteLock(l, t); }
};

template <typename K>
class RwLocks : public ::testing::Test {
protected:
    using Lock = typename K::Lock;
    void SetUp() override { ASSERT_NE(K::Init(&lock_), 0u); }
    void TearDown() override { K::Destroy(&lock_); }
    Lock lock_;
};

using Kinds = ::testing::Types<SpinKind, BlockingKind>;
TYPED_TEST_SUITE(RwLocks, Kinds);

TYPED_TEST(RwLocks, ReadTicketIsOneAndReleaseResetsIt) {
    uint32_t t = 77;
    TypeParam::Read(&this->lock_, &t);
    EXPECT_EQ(t, PLT_TICKET_READ);
    EXPECT_EQ(this->lock_.readers, 1u);
    TypeParam::Release(&this->lock_, &t);
    EXPECT_EQ(t, PLT_TICKET_NONE);
    EXPECT_EQ(this->lock_.readers, 0u);
}

TYPED_TEST(RwLocks, WriterTakesTheLockAgainForWritingAndReadingWithoutBlocking) {
    uint32_t w = 0, w2 = 0, r = 0;
    TypeParam::Write(&this->lock_, &w);
    EXPECT_EQ(w, PLT_TICKET_WRITE);
    EXPECT_EQ(this->lock_.owner, GetCurrentThreadId());
    TypeParam::Write(&this->lock_, &w2);
    EXPECT_EQ(w2, PLT_TICKET_WRITE_AGAIN);
    EXPECT_EQ(this->lock_.writers, 2u);
    TypeParam::Read(&this->lock_, &r);
    EXPECT_EQ(r, PLT_TICKET_READ_BY_WRITER);
    EXPECT_EQ(this->lock_.readers, 1u);

    TypeParam::Release(&this->lock_, &r);
    TypeParam::Release(&this->lock_, &w2);
    TypeParam::Release(&this->lock_, &w);
    EXPECT_EQ(r, 0u);
    EXPECT_EQ(w2, 0u);
    EXPECT_EQ(w, 0u);
    EXPECT_EQ(this->lock_.owner, 0u);
    EXPECT_EQ(this->lock_.readers, 0u);
    EXPECT_EQ(this->lock_.writers, 0u);

    // Free for another thread, for writing and for reading.
    uint32_t other = 0;
    zt::Signal done;
    zt::TestThread t([&] {
        uint32_t ticket = 0;
        TypeParam::Write(&this->lock_, &ticket);
        other = ticket;
        TypeParam::Release(&this->lock_, &ticket);
        TypeParam::Read(&this->lock_, &ticket);
        TypeParam::Release(&this->lock_, &ticket);
        done.set();
    });
    EXPECT_TRUE(done.wait());
    EXPECT_EQ(other, PLT_TICKET_WRITE);
}

TYPED_TEST(RwLocks, ReleaseWithTicketZeroOrUnknownChangesNothing) {
    uint32_t r = 0;
    TypeParam::Read(&this->lock_, &r);
    typename TypeParam::Lock copy;
    memcpy(&copy, &this->lock_, sizeof copy);
    for (uint32_t bad : {0u, 5u, 0xFFFFFFFFu}) {
        uint32_t t = bad;
        TypeParam::Release(&this->lock_, &t);
        EXPECT_EQ(t, bad);
        EXPECT_EQ(memcmp(&copy, &this->lock_, sizeof copy), 0) << "ticket " << bad;
    }
    TypeParam::Release(&this->lock_, &r);
}

TYPED_TEST(RwLocks, WriterWaitsForTheLastOfTwoReaders) {
    uint32_t r1 = 0, r2 = 0;
    TypeParam::Read(&this->lock_, &r1);
    zt::Signal secondIn, releaseSecond, writerIn;
    zt::TestThread reader([&] {
        TypeParam::Read(&this->lock_, &r2);
        secondIn.set();
        releaseSecond.wait();
        TypeParam::Release(&this->lock_, &r2);
    });
    ASSERT_TRUE(secondIn.wait());
    uint32_t w = 0;
    zt::TestThread writer([&] {
        TypeParam::Write(&this->lock_, &w);
        writerIn.set();
        TypeParam::Release(&this->lock_, &w);
    });
    ASSERT_TRUE(zt::WaitUntil([&] { return this->lock_.writers == 1; }));
    EXPECT_FALSE(writerIn.wait(100)) << "two readers inside";
    TypeParam::Release(&this->lock_, &r1);
    EXPECT_FALSE(writerIn.wait(100)) << "one reader still inside";
    releaseSecond.set();
    EXPECT_TRUE(writerIn.wait()) << "the last reader left";
}

TYPED_TEST(RwLocks, ReaderArrivingBehindAWaitingWriterWaitsForIt) {
    uint32_t first = 0;
    TypeParam::Read(&this->lock_, &first);
    std::vector<int> order;
    CRITICAL_SECTION orderLock;
    InitializeCriticalSection(&orderLock);
    auto note = [&](int who) {
        EnterCriticalSection(&orderLock);
        order.push_back(who);
        LeaveCriticalSection(&orderLock);
    };
    zt::Signal writerRelease, lateReaderIn;
    zt::TestThread writer([&] {
        uint32_t w = 0;
        TypeParam::Write(&this->lock_, &w);
        note(1);
        writerRelease.wait();
        note(2);
        TypeParam::Release(&this->lock_, &w);
    });
    ASSERT_TRUE(zt::WaitUntil([&] { return this->lock_.writers == 1; }));
    // Give the writer time to reach the wait for the readers to drain.
    Sleep(50);
    zt::TestThread lateReader([&] {
        uint32_t r = 0;
        TypeParam::Read(&this->lock_, &r);
        note(3);
        lateReaderIn.set();
        TypeParam::Release(&this->lock_, &r);
    });
    EXPECT_FALSE(lateReaderIn.wait(150)) << "the late reader queues behind the writer";
    TypeParam::Release(&this->lock_, &first);  // the writer gets in
    ASSERT_TRUE(zt::WaitUntil([&] { return this->lock_.owner != 0; }));
    EXPECT_FALSE(lateReaderIn.wait(100));
    writerRelease.set();
    EXPECT_TRUE(lateReaderIn.wait());
    writer.join();
    lateReader.join();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    DeleteCriticalSection(&orderLock);
}

TYPED_TEST(RwLocks, WritersExcludeEveryoneUnderContention) {
    std::atomic<int> readersInside{0}, writersInside{0};
    std::atomic<int> violations{0};
    long shared = 0;
    const int kRounds = 300;
    auto body = [&](int id) {
        for (int i = 0; i < kRounds; ++i) {
            uint32_t t = 0;
            if ((i + id) % 4 == 0) {
                TypeParam::Write(&this->lock_, &t);
                if (writersInside.fetch_add(1) != 0 || readersInside.load() != 0) ++violations;
                shared = shared + 1;
                writersInside.fetch_sub(1);
            } else {
                TypeParam::Read(&this->lock_, &t);
                readersInside.fetch_add(1);
                if (writersInside.load() != 0) ++violations;
                readersInside.fetch_sub(1);
            }
            TypeParam::Release(&this->lock_, &t);
        }
    };
    {
        zt::TestThread a([&] { body(0); }), b([&] { body(1); }), c([&] { body(2); }),
            d([&] { body(3); });
    }
    EXPECT_EQ(violations.load(), 0);
    EXPECT_EQ(shared, kRounds);  // one in four rounds of four threads writes
    EXPECT_EQ(this->lock_.readers, 0u);
    EXPECT_EQ(this->lock_.writers, 0u);
}

TEST(RwSpinLock, CountsInItsOwnAndTheCriticalSectionPairs) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_RW_SPIN_LOCK lock, zero{};
    memset(&lock, 0xAA, sizeof lock);
    EXPECT_NE(InitializeReadWriteSpinLock(&lock), 0u);
    EXPECT_EQ(lock.readers | lock.writers | lock.owner, 0u);
    EXPECT_DELTA(before, {.RwSpinLockCount = 1,
                          .LiveRwSpinLockCount = 1,
                          .CriticalSectionCount = 1,
                          .LiveCriticalSectionCount = 1});
    EXPECT_EQ(DestroyReadWriteSpinLock(&lock), 0u);
    EXPECT_EQ(memcmp(&lock, &zero, sizeof lock), 0) << "the record is zeroed";
    EXPECT_NO_LEAKS(before);
}

TEST(RwLock, CountsInItsOwnTheEventAndTheMutexPairs) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_RW_LOCK lock, zero{};
    memset(&lock, 0xAA, sizeof lock);
    uint32_t bits = InitializeReadWriteLock(&lock);
    ASSERT_NE(lock.noReaders, nullptr);
    ASSERT_NE(lock.mutex, nullptr);
    EXPECT_EQ(bits, static_cast<uint32_t>(reinterpret_cast<uintptr_t>(lock.noReaders)));
    EXPECT_EQ(WaitForSingleObject(lock.noReaders, 0), WAIT_OBJECT_0) << "initially signalled";
    SetEvent(lock.noReaders);  // put back the signal the check consumed
    EXPECT_DELTA(before, {.RwLockCount = 1,
                          .LiveRwLockCount = 1,
                          .EventCount = 1,
                          .LiveEventCount = 1,
                          .MutexCount = 1,
                          .LiveMutexCount = 1});
    uint32_t t = 0;
    EXPECT_NE(AcquireReadLock(&lock, &t), 0u) << "reports the mutex release";
    ReleaseReadWriteLock(&lock, &t);
    EXPECT_EQ(DestroyReadWriteLock(&lock), 0u);
    EXPECT_EQ(memcmp(&lock, &zero, sizeof lock), 0);
    EXPECT_NO_LEAKS(before);
}

TEST(RwLock, CreationFailuresAreReportedAndOnlyTheCreatedObjectsCount) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_RW_LOCK noMutex, noEvent;
    {
        ZT_FAIL_IMPORT(CreateMutexW, ERROR_TOO_MANY_SEMAPHORES);
        EXPECT_EQ(InitializeReadWriteLock(&noMutex),
                  static_cast<uint32_t>(ERROR_TOO_MANY_SEMAPHORES));
    }
    {
        ZT_FAIL_IMPORT(CreateEventW, ERROR_NO_SYSTEM_RESOURCES);
        EXPECT_EQ(InitializeReadWriteLock(&noEvent),
                  static_cast<uint32_t>(ERROR_NO_SYSTEM_RESOURCES));
    }
    EXPECT_EQ(noMutex.mutex, nullptr);
    EXPECT_NE(noMutex.noReaders, nullptr);
    EXPECT_NE(noEvent.mutex, nullptr);
    EXPECT_EQ(noEvent.noReaders, nullptr);
    EXPECT_DELTA(before, {.RwLockCount = 2,
                          .LiveRwLockCount = 2,
                          .EventCount = 1,
                          .LiveEventCount = 1,
                          .MutexCount = 1,
                          .LiveMutexCount = 1});
    DestroyReadWriteLock(&noMutex);
    DestroyReadWriteLock(&noEvent);
    EXPECT_NO_LEAKS(before);
}

}  // namespace
