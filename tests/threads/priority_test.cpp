// The four-level priority scale on threads and on the current process.
#include <windows.h>

#include <gtest/gtest.h>
#include <zendra/os.h>

#include "import_failure.h"
#include "sync_helpers.h"

namespace {

// Runs `body` on a fresh thread that the test owns, so that priorities set
// on it do not leak into other tests.
void OnScratchThread(const std::function<void(HANDLE)>& body) {
    zt::Signal done;
    HANDLE self = nullptr;
    zt::TestThread t([&] {
        DuplicateHandle(GetCurrentProcess(), GetCurrentThread(), GetCurrentProcess(), &self, 0,
                        FALSE, DUPLICATE_SAME_ACCESS);
        body(self);
        CloseHandle(self);
    });
}

TEST(ThreadPriority, EachLevelSetsItsWin32PriorityAndReadsBack) {
    struct Case {
        uint32_t level;
        int win32;
    };
    const Case cases[] = {{PRIO_IDLE, THREAD_PRIORITY_IDLE},
                          {PRIO_LOW, THREAD_PRIORITY_BELOW_NORMAL},
                          {PRIO_NORMAL, THREAD_PRIORITY_NORMAL},
                          {PRIO_HIGH, THREAD_PRIORITY_HIGHEST}};
    OnScratchThread([&](HANDLE self) {
        for (const Case& c : cases) {
            EXPECT_EQ(PltSetThreadPriority(self, c.level), 0u) << c.level;
            EXPECT_EQ(GetThreadPriority(self), c.win32) << c.level;
            uint32_t read = 99;
            EXPECT_EQ(PltGetThreadPriority(self, &read), 0u);
            EXPECT_EQ(read, c.level);
        }
    });
}

TEST(ThreadPriority, UnknownLevelAndNullThreadSetNormalOnTheCaller) {
    OnScratchThread([&](HANDLE self) {
        SetThreadPriority(self, THREAD_PRIORITY_HIGHEST);
        EXPECT_EQ(PltSetThreadPriority(nullptr, 7), 0u);
        EXPECT_EQ(GetThreadPriority(self), THREAD_PRIORITY_NORMAL);
        EXPECT_EQ(PltSetThreadPriority(nullptr, PRIO_LOW), 0u);
        EXPECT_EQ(GetThreadPriority(self), THREAD_PRIORITY_BELOW_NORMAL);
        uint32_t read = 99;
        EXPECT_EQ(PltGetThreadPriority(nullptr, &read), 0u);
        EXPECT_EQ(read, PRIO_LOW);
    });
}

TEST(ThreadPriority, ReadingIsLossy) {
    struct Case {
        int win32;
        uint32_t level;
    };
    const Case cases[] = {{THREAD_PRIORITY_LOWEST, PRIO_LOW},
                          {THREAD_PRIORITY_ABOVE_NORMAL, PRIO_HIGH},
                          {THREAD_PRIORITY_TIME_CRITICAL, PRIO_HIGH}};
    OnScratchThread([&](HANDLE self) {
        for (const Case& c : cases) {
            ASSERT_TRUE(SetThreadPriority(self, c.win32)) << c.win32;
            uint32_t read = 99;
            EXPECT_EQ(PltGetThreadPriority(self, &read), 0u);
            EXPECT_EQ(read, c.level) << "Win32 priority " << c.win32;
        }
    });
}

int WINAPI FailGetThreadPriority(HANDLE) {
    SetLastError(ERROR_ACCESS_DENIED);
    return THREAD_PRIORITY_ERROR_RETURN;
}

TEST(ThreadPriority, Failures) {
    EXPECT_EQ(PltGetThreadPriority(nullptr, nullptr), 87u);
    uint32_t read = 99;
    {
        zt::ImportHook hook("GetThreadPriority", reinterpret_cast<void*>(&FailGetThreadPriority));
        EXPECT_EQ(PltGetThreadPriority(nullptr, &read), static_cast<uint32_t>(ERROR_ACCESS_DENIED));
    }
    EXPECT_EQ(read, PRIO_NORMAL) << "the output keeps its pre-set value";
    EXPECT_EQ(PltSetThreadPriority(reinterpret_cast<HANDLE>(0x7FFF1230), PRIO_LOW),
              static_cast<uint32_t>(ERROR_INVALID_HANDLE));
}

class ProcessPriority : public ::testing::Test {
protected:
    void TearDown() override { SetPriorityClass(GetCurrentProcess(), NORMAL_PRIORITY_CLASS); }
};

TEST_F(ProcessPriority, EachLevelSetsItsClassAndReadsBack) {
    struct Case {
        uint32_t level;
        DWORD win32;
    };
    const Case cases[] = {{PRIO_IDLE, IDLE_PRIORITY_CLASS},
                          {PRIO_LOW, BELOW_NORMAL_PRIORITY_CLASS},
                          {PRIO_HIGH, HIGH_PRIORITY_CLASS},
                          {PRIO_NORMAL, NORMAL_PRIORITY_CLASS}};
    for (const Case& c : cases) {
        EXPECT_EQ(PltSetCurrentProcessPriority(c.level), 0u) << c.level;
        EXPECT_EQ(GetPriorityClass(GetCurrentProcess()), c.win32) << c.level;
        uint32_t read = 99;
        EXPECT_EQ(PltGetCurrentProcessPriority(&read), 0u);
        EXPECT_EQ(read, c.level);
    }
}

TEST_F(ProcessPriority, AboveNormalReadsAsHighAndUnknownLevelsAreRefused) {
    ASSERT_TRUE(SetPriorityClass(GetCurrentProcess(), ABOVE_NORMAL_PRIORITY_CLASS));
    uint32_t read = 99;
    EXPECT_EQ(PltGetCurrentProcessPriority(&read), 0u);
    EXPECT_EQ(read, PRIO_HIGH);
    EXPECT_EQ(PltSetCurrentProcessPriority(4), static_cast<uint32_t>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(GetPriorityClass(GetCurrentProcess()),
              static_cast<DWORD>(ABOVE_NORMAL_PRIORITY_CLASS));
    EXPECT_EQ(PltGetCurrentProcessPriority(nullptr), 87u);
}

TEST_F(ProcessPriority, ReadFailureKeepsNormal) {
    ZT_FAIL_IMPORT(GetPriorityClass, ERROR_ACCESS_DENIED);
    uint32_t read = 99;
    EXPECT_EQ(PltGetCurrentProcessPriority(&read), static_cast<uint32_t>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(read, PRIO_NORMAL);
}

}  // namespace
