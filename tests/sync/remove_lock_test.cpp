// Remove locks: counting users, refusing new ones once removal began, and the
// owner's wait with its deliberate quirks.
#include <windows.h>

#include <gtest/gtest.h>
#include <zendra/platform.h>

#include "counters.h"
#include "import_failure.h"
#include "sync_helpers.h"

namespace {

class RemoveLock : public ::testing::Test {
protected:
    void SetUp() override {
        before_ = zt::Snapshot();
        status_ = PltInitRemoveLock(&lock_);
        ASSERT_NE(lock_.event, nullptr);
    }
    void TearDown() override {
        // Nothing in the library closes the event: the owner does.
        PLT_RESOURCE_STATS d = zt::Delta(before_, zt::Snapshot());
        EXPECT_EQ(d.LiveEventCount, 1u);
        CloseHandle(lock_.event);
    }
    PLT_RESOURCE_STATS before_;
    PLT_STATUS status_ = 0;
    PLT_REMOVE_LOCK lock_{};
};

TEST_F(RemoveLock, InitReturnsTheEventHandleLowBitsAndCountsTheEvent) {
    EXPECT_NE(status_, 0u);
    EXPECT_EQ(status_, static_cast<uint32_t>(reinterpret_cast<uintptr_t>(lock_.event)));
    EXPECT_EQ(lock_.removing, 0u);
    EXPECT_EQ(lock_.count, 0u);
    EXPECT_EQ(WaitForSingleObject(lock_.event, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_EQ(zt::Delta(before_, zt::Snapshot()).EventCount, 1u);
}

TEST_F(RemoveLock, AcquireAndReleaseMoveTheCountWithoutSignalling) {
    EXPECT_EQ(PltAcquireRemoveLock(&lock_), 0u);
    EXPECT_EQ(lock_.count, 1u);
    EXPECT_EQ(PltReleaseRemoveLock(&lock_), 0u);
    EXPECT_EQ(lock_.count, 0u);
    EXPECT_EQ(WaitForSingleObject(lock_.event, 0), static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST_F(RemoveLock, AcquireAfterReleaseAndWaitIsRefusedWithoutCounting) {
    ASSERT_EQ(PltAcquireRemoveLock(&lock_), 0u);
    EXPECT_EQ(PltReleaseRemoveLockAndWait(&lock_, PLT_INFINITE), 0u);
    EXPECT_EQ(lock_.removing, 1u);
    EXPECT_EQ(PltAcquireRemoveLock(&lock_), 1617u);
    EXPECT_EQ(lock_.count, 0u);
}

TEST_F(RemoveLock, OwnerWaitsForTheOtherUsersRelease) {
    ASSERT_EQ(PltAcquireRemoveLock(&lock_), 0u);  // the owner's own
    zt::Signal userIn, letGo;
    volatile LONG released = 0;
    zt::TestThread user([&] {
        PltAcquireRemoveLock(&lock_);
        userIn.set();
        letGo.wait();
        InterlockedExchange(&released, 1);
        PltReleaseRemoveLock(&lock_);
    });
    ASSERT_TRUE(userIn.wait());
    uint32_t status = 99;
    zt::Signal waitOver;
    zt::TestThread owner([&] {
        status = PltReleaseRemoveLockAndWait(&lock_, PLT_INFINITE);
        waitOver.set();
    });
    EXPECT_FALSE(waitOver.wait(150)) << "another user still holds the lock";
    EXPECT_EQ(lock_.count, 1u);
    letGo.set();
    ASSERT_TRUE(waitOver.wait());
    EXPECT_EQ(released, 1);
    EXPECT_EQ(status, 0u);
}

TEST_F(RemoveLock, SecondReleaseAndWaitReturnsOneAtOnce) {
    ASSERT_EQ(PltAcquireRemoveLock(&lock_), 0u);
    ASSERT_EQ(PltAcquireRemoveLock(&lock_), 0u);
    EXPECT_EQ(PltReleaseRemoveLockAndWait(&lock_, 0), 0u);
    EXPECT_EQ(lock_.count, 1u);
    ULONGLONG start = GetTickCount64();
    EXPECT_EQ(PltReleaseRemoveLockAndWait(&lock_, 5000), 1u);
    EXPECT_LT(GetTickCount64() - start, 2000u);
    EXPECT_EQ(lock_.count, 1u) << "a second call neither decrements nor waits";
    EXPECT_EQ(PltReleaseRemoveLock(&lock_), 0u);
    EXPECT_EQ(WaitForSingleObject(lock_.event, 0), WAIT_OBJECT_0) << "last release signals";
}

TEST_F(RemoveLock, WithoutTheOwnersAcquisitionTheWaitRunsItsFullTimeout) {
    ULONGLONG start = GetTickCount64();
    EXPECT_EQ(PltReleaseRemoveLockAndWait(&lock_, 100), 0u) << "a time-out is not reported";
    EXPECT_GE(GetTickCount64() - start, 90u);
    EXPECT_EQ(lock_.count, 0xFFFFFFFFu) << "the count went below zero";
}

TEST(RemoveLockNull, InitReturnsZeroOthersRefuse) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(PltInitRemoveLock(nullptr), 0u);
    EXPECT_EQ(PltAcquireRemoveLock(nullptr), 87u);
    EXPECT_EQ(PltReleaseRemoveLock(nullptr), 87u);
    EXPECT_EQ(PltReleaseRemoveLockAndWait(nullptr, 0), 87u);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).EventCount, 0u);
}

TEST(RemoveLockFailure, EventCreationFailureReturnsTheError) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    ZT_FAIL_IMPORT(CreateEventW, ERROR_NO_SYSTEM_RESOURCES);
    PLT_REMOVE_LOCK lock{7, 7, reinterpret_cast<HANDLE>(1)};
    EXPECT_EQ(PltInitRemoveLock(&lock), static_cast<uint32_t>(ERROR_NO_SYSTEM_RESOURCES));
    EXPECT_EQ(lock.event, nullptr);
    EXPECT_EQ(lock.count | lock.removing, 0u);
    EXPECT_DELTA(before, {});
}

}  // namespace
