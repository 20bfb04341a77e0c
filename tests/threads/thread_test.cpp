// Counted threads: creation, waits, termination, closing and their failures.
#include <windows.h>

#include <gtest/gtest.h>
#include <zendra/os.h>

#include "counters.h"
#include "heap_failure.h"
#include "import_hook.h"
#include "sync_helpers.h"

namespace {

struct Context {
    HANDLE go = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    DWORD seenId = 0;
    uint32_t exitCode = 7;
    ~Context() { CloseHandle(go); }
};

uint32_t WaitsForGo(void* p) {
    auto* c = static_cast<Context*>(p);
    c->seenId = GetCurrentThreadId();
    WaitForSingleObject(c->go, INFINITE);
    return c->exitCode;
}

uint32_t ReturnsAtOnce(void* p) { return static_cast<Context*>(p)->exitCode; }

TEST(PltCreateThread, RunsTheRoutineCountsTheThreadAndFreesItsStartBlock) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    Context c;
    c.exitCode = 1234;
    HANDLE thread = nullptr;
    uint32_t id = 0;
    ASSERT_EQ(PltCreateThread(&WaitsForGo, &c, &thread, &id), 0u);
    ASSERT_NE(thread, nullptr);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.ThreadCount, 1u);
    EXPECT_EQ(d.LiveThreadCount, 1u);
    EXPECT_EQ(d.UntaggedAllocCount, 1u) << "the start block is an untagged allocation";
    EXPECT_EQ(d.LiveAllocCount, 1u) << "the start block is alive while the routine runs";

    SetEvent(c.go);
    uint32_t result = 0;
    EXPECT_EQ(PltWaitForThread(thread, 10000, &result), 0u);
    EXPECT_EQ(result, PLT_WAIT_SIGNALED);
    EXPECT_EQ(c.seenId, id);
    DWORD code = 0;
    GetExitCodeThread(thread, &code);
    EXPECT_EQ(code, 1234u) << "the routine's result is the exit code";
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).LiveAllocCount, 0u) << "the thread freed its block";

    EXPECT_EQ(PltCloseThread(thread), 0u);
    EXPECT_NO_LEAKS(before);
}

TEST(PltCreateThread, HandleAndIdOutputsAreOptional) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    Context c;
    ASSERT_EQ(PltCreateThread(&ReturnsAtOnce, &c, nullptr, nullptr), 0u);
    // Without the handle nobody can close it: the live count keeps it.
    ASSERT_TRUE(
        zt::WaitUntil([&] { return zt::Delta(before, zt::Snapshot()).LiveAllocCount == 0; }));
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).LiveThreadCount, 1u);
}

TEST(PltCreateThread, StartBlockAllocationFailureReturns8) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    HANDLE thread = reinterpret_cast<HANDLE>(1);
    Context c;
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(PltCreateThread(&ReturnsAtOnce, &c, &thread, nullptr), 8u);
    }
    EXPECT_EQ(thread, reinterpret_cast<HANDLE>(1));
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.ThreadCount, 0u);
    EXPECT_NO_LEAKS(before);
}

void* g_lastParameter;
DWORD g_createError;
HANDLE WINAPI FailCreateThread(LPSECURITY_ATTRIBUTES, SIZE_T, LPTHREAD_START_ROUTINE, LPVOID param,
                               DWORD, LPDWORD) {
    g_lastParameter = param;
    SetLastError(g_createError);
    return nullptr;
}

TEST(PltCreateThread, CreateThreadFailureReturnsItsErrorAndFreesTheBlock) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    g_createError = ERROR_MAX_THRDS_REACHED;
    HANDLE thread = reinterpret_cast<HANDLE>(1);
    Context c;
    {
        zt::ImportHook hook("CreateThread", reinterpret_cast<void*>(&FailCreateThread));
        EXPECT_EQ(PltCreateThread(&ReturnsAtOnce, &c, &thread, nullptr),
                  static_cast<uint32_t>(ERROR_MAX_THRDS_REACHED));
    }
    EXPECT_EQ(thread, reinterpret_cast<HANDLE>(1));
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).ThreadCount, 0u);
    EXPECT_NO_LEAKS(before);
}

TEST(PltCreateThread, FailureWithoutAnErrorCodeReturnsZeroAndKeepsTheBlock) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    g_createError = 0;
    HANDLE thread = nullptr;
    Context c;
    {
        zt::ImportHook hook("CreateThread", reinterpret_cast<void*>(&FailCreateThread));
        EXPECT_EQ(PltCreateThread(&ReturnsAtOnce, &c, &thread, nullptr), 0u);
    }
    EXPECT_EQ(thread, nullptr);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.ThreadCount, 0u);
    EXPECT_EQ(d.LiveAllocCount, 1u) << "the start block is not freed on this path";
    ASSERT_EQ(PltFree(&g_lastParameter, 0), 0u);
    EXPECT_NO_LEAKS(before);
}

TEST(PltWaitForThread, TimeOutIsResultOneWithStatusZero) {
    Context c;
    HANDLE thread = nullptr;
    ASSERT_EQ(PltCreateThread(&WaitsForGo, &c, &thread, nullptr), 0u);
    uint32_t result = 0;
    EXPECT_EQ(PltWaitForThread(thread, 0, &result), 0u);
    EXPECT_EQ(result, PLT_WAIT_TIMEOUT);
    SetEvent(c.go);
    EXPECT_EQ(PltWaitForThread(thread, PLT_INFINITE, &result), 0u);
    EXPECT_EQ(result, PLT_WAIT_SIGNALED);
    EXPECT_EQ(PltWaitForThread(thread, 0, nullptr), 0u);
    EXPECT_EQ(PltCloseThread(thread), 0u);
}

TEST(PltWaitForThread, BadHandles) {
    uint32_t result = 42;
    EXPECT_EQ(PltWaitForThread(nullptr, 0, &result), 87u);
    EXPECT_EQ(PltWaitForThread(reinterpret_cast<HANDLE>(0x7FFF1230), 0, &result),
              static_cast<uint32_t>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(result, 42u);
}

TEST(PltTerminateThread, EndsARunningThreadWithExitCodeAllOnes) {
    Context c;
    HANDLE thread = nullptr;
    ASSERT_EQ(PltCreateThread(&WaitsForGo, &c, &thread, nullptr), 0u);
    ASSERT_TRUE(zt::WaitUntil([&] { return c.seenId != 0; }));
    EXPECT_EQ(PltTerminateThread(thread), 0u);
    uint32_t result = 0;
    EXPECT_EQ(PltWaitForThread(thread, 10000, &result), 0u);
    EXPECT_EQ(result, PLT_WAIT_SIGNALED);
    DWORD code = 0;
    GetExitCodeThread(thread, &code);
    EXPECT_EQ(code, 0xFFFFFFFFu);
    EXPECT_EQ(PltCloseThread(thread), 0u) << "the handle stays open after termination";
}

TEST(PltTerminateThread, AnEndedThreadKeepsItsExitCode) {
    Context c;
    c.exitCode = 55;
    HANDLE thread = nullptr;
    ASSERT_EQ(PltCreateThread(&ReturnsAtOnce, &c, &thread, nullptr), 0u);
    ASSERT_EQ(PltWaitForThread(thread, 10000, nullptr), 0u);
    EXPECT_EQ(PltTerminateThread(thread), 0u);
    DWORD code = 0;
    GetExitCodeThread(thread, &code);
    EXPECT_EQ(code, 55u);
    EXPECT_EQ(PltCloseThread(thread), 0u);
}

TEST(PltTerminateThread, BadHandles) {
    EXPECT_EQ(PltTerminateThread(nullptr), 87u);
    EXPECT_EQ(PltTerminateThread(reinterpret_cast<HANDLE>(0x7FFF1230)),
              static_cast<uint32_t>(ERROR_INVALID_HANDLE));
}

TEST(PltCloseThread, NullIsNothingAndAFailedCloseKeepsTheCounter) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(PltCloseThread(nullptr), 0u);
    EXPECT_EQ(PltCloseThread(reinterpret_cast<HANDLE>(0x7FFF1230)),
              static_cast<uint32_t>(ERROR_INVALID_HANDLE));
    EXPECT_NO_LEAKS(before);
}

TEST(CurrentThread, IdentifiersMatchWin32) {
    EXPECT_EQ(PltGetCurrentProcessID(), GetCurrentProcessId());
    EXPECT_EQ(PltGetCurrentThreadID(), GetCurrentThreadId());
    EXPECT_EQ(PltGetCurrentThread(), GetCurrentThread());
    EXPECT_EQ(PltGetCurrentThreadContext(), static_cast<uintptr_t>(GetCurrentThreadId()));
    uintptr_t other = 0;
    {
        zt::TestThread t([&] { other = PltGetCurrentThreadContext(); });
    }
    EXPECT_NE(other, PltGetCurrentThreadContext());
    EXPECT_NE(other, 0u);
}

}  // namespace
