// Counted threads (creation, waits, termination, closing) and the four-level
// priority scale on threads and on the current process.

#include <atomic>

#include <zendra/os.h>

#include "zt.h"

namespace {

const HANDLE kBogus = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7FFF1230));

struct Context {
    zt::Signal go;
    std::atomic<DWORD> seenId{0};
    uint32_t exitCode = 7;
};

uint32_t WaitsForGo(void* p) {
    auto* c = static_cast<Context*>(p);
    c->seenId = GetCurrentThreadId();
    c->go.wait(INFINITE);
    return c->exitCode;
}

DWORD ExitCode(HANDLE thread) {
    DWORD code = 0;
    GetExitCodeThread(thread, &code);
    return code;
}

TEST(Threads, CreateWaitTerminateAndCloseWithTheirCounters) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    Context c, d;
    c.exitCode = 1234;
    HANDLE thread = nullptr, other = nullptr;
    uint32_t id = 0, result = 0;
    ASSERT_EQ(PltCreateThread(&WaitsForGo, &c, &thread, &id), 0u);
    PLT_RESOURCE_STATS expected{.AllocCount = 1,
                                .AllocBytes = 24,
                                .LiveAllocCount = 1,
                                .LiveAllocBytes = 24,
                                .UntaggedAllocCount = 1,
                                .ThreadCount = 1,
                                .LiveThreadCount = 1};
    expected.AllocBySize[0] = expected.LiveAllocBySize[0] = 1;
    EXPECT_TRUE(zt::DeltaIs(before, expected)) << "the start block lives while the routine runs";
    EXPECT_EQ(PltWaitForThread(thread, 0, &result), 0u);
    EXPECT_EQ(result, PLT_WAIT_TIMEOUT);
    c.go.set();
    EXPECT_EQ(PltWaitForThread(thread, PLT_INFINITE, &result), 0u);
    EXPECT_EQ(result, PLT_WAIT_SIGNALED);
    EXPECT_EQ(c.seenId, id);
    EXPECT_EQ(PltTerminateThread(thread), 0u) << "an ended thread keeps its exit code";
    EXPECT_EQ(ExitCode(thread), 1234u);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).LiveAllocCount, 0u) << "the thread freed its block";
    ASSERT_EQ(PltCreateThread(&WaitsForGo, &d, &other, nullptr), 0u);
    ASSERT_TRUE(zt::WaitUntil([&] { return d.seenId != 0; }));
    EXPECT_EQ(PltTerminateThread(other), 0u);
    EXPECT_EQ(PltWaitForThread(other, 10000, nullptr), 0u);
    EXPECT_EQ(ExitCode(other), 0xFFFFFFFFu);
    EXPECT_EQ(PltCloseThread(thread) + PltCloseThread(other) + PltCloseThread(nullptr), 0u);
    EXPECT_NO_LEAKS(before, zt::kIgnoreAllocations);  // the terminated thread's start block
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).LiveAllocBytes, 24u);
    for (auto status : {PltWaitForThread(nullptr, 0, &result), PltTerminateThread(nullptr)})
        EXPECT_EQ(status, 87u);
    for (auto status :
         {PltWaitForThread(kBogus, 0, &result), PltTerminateThread(kBogus), PltCloseThread(kBogus)})
        EXPECT_EQ(status, static_cast<uint32_t>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(result, PLT_WAIT_SIGNALED) << "a failed wait leaves the result";
}

void* g_parameter;
DWORD g_createError;
HANDLE WINAPI FailCreateThread(LPSECURITY_ATTRIBUTES, SIZE_T, LPTHREAD_START_ROUTINE, LPVOID param,
                               DWORD, LPDWORD) {
    g_parameter = param;
    SetLastError(g_createError);
    return nullptr;
}

TEST(Threads, CreationFailuresAndOptionalOutputs) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    Context c;
    c.go.set();
    HANDLE thread = kBogus;
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(PltCreateThread(&WaitsForGo, &c, &thread, nullptr), 8u);
    }
    {
        zt::ImportHook hook("CreateThread", reinterpret_cast<void*>(&FailCreateThread));
        g_createError = ERROR_MAX_THRDS_REACHED;
        EXPECT_EQ(PltCreateThread(&WaitsForGo, &c, &thread, nullptr), g_createError);
        EXPECT_EQ(thread, kBogus);
        EXPECT_NO_LEAKS(before);
        g_createError = 0;  // no error code: 0 without a thread, the block kept
        EXPECT_EQ(PltCreateThread(&WaitsForGo, &c, &thread, nullptr), 0u);
    }
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).LiveAllocCount + PltFree(&g_parameter, 0), 1u);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).ThreadCount, 0u);
    ASSERT_EQ(PltCreateThread(&WaitsForGo, &c, nullptr, nullptr), 0u);
    ASSERT_TRUE(
        zt::WaitUntil([&] { return zt::Delta(before, zt::Snapshot()).LiveAllocCount == 0; }));
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).LiveThreadCount, 1u) << "nobody can close it";
}

TEST(Threads, CurrentIdentifiers) {
    EXPECT_EQ(PltGetCurrentProcessID(), GetCurrentProcessId());
    EXPECT_EQ(PltGetCurrentThreadID(), GetCurrentThreadId());
    EXPECT_EQ(PltGetCurrentThread(), GetCurrentThread());
    uintptr_t other = 0;
    zt::TestThread([&] { other = PltGetCurrentThreadContext(); }).join();
    EXPECT_EQ(PltGetCurrentThreadContext(), static_cast<uintptr_t>(GetCurrentThreadId()));
    EXPECT_TRUE(other != 0 && other != PltGetCurrentThreadContext());
}

int WINAPI FailGetThreadPriority(HANDLE) {
    SetLastError(ERROR_ACCESS_DENIED);
    return THREAD_PRIORITY_ERROR_RETURN;
}

TEST(Priority, ThreadLevelsSetReadBackLossilyAndFail) {
    // Set level -> Win32 priority; read Win32 priority -> level.
    const int set[][2] = {
        {PRIO_IDLE, -15}, {PRIO_LOW, -1}, {PRIO_NORMAL, 0}, {PRIO_HIGH, 2}, {7, 0}};
    const int read[][2] = {{-15, PRIO_IDLE}, {-2, PRIO_LOW}, {-1, PRIO_LOW}, {0, PRIO_NORMAL},
                           {1, PRIO_HIGH},   {2, PRIO_HIGH}, {15, PRIO_HIGH}};
    zt::TestThread([&] {
        HANDLE self = GetCurrentThread();
        for (auto [level, win32] : set) {
            EXPECT_EQ(PltSetThreadPriority(level == PRIO_LOW ? nullptr : self, level), 0u);
            EXPECT_EQ(GetThreadPriority(self), win32) << "level " << level;
        }
        for (auto [win32, level] : read) {
            uint32_t got = 99;
            SetThreadPriority(self, win32);
            EXPECT_EQ(PltGetThreadPriority(win32 == 1 ? nullptr : self, &got), 0u);
            EXPECT_EQ(got, static_cast<uint32_t>(level)) << "Win32 priority " << win32;
        }
    }).join();
    uint32_t got = 99;
    EXPECT_EQ(PltGetThreadPriority(nullptr, nullptr), 87u);
    {
        zt::ImportHook hook("GetThreadPriority", reinterpret_cast<void*>(&FailGetThreadPriority));
        EXPECT_EQ(PltGetThreadPriority(nullptr, &got), static_cast<uint32_t>(ERROR_ACCESS_DENIED));
    }
    EXPECT_EQ(got, PRIO_NORMAL) << "the output keeps its pre-set value";
    EXPECT_EQ(PltSetThreadPriority(kBogus, PRIO_LOW), static_cast<uint32_t>(ERROR_INVALID_HANDLE));
}

TEST(Priority, ProcessClassesSetReadBackAndFail) {
    const DWORD set[][2] = {{PRIO_IDLE, IDLE_PRIORITY_CLASS},
                            {PRIO_LOW, BELOW_NORMAL_PRIORITY_CLASS},
                            {PRIO_HIGH, HIGH_PRIORITY_CLASS},
                            {PRIO_NORMAL, NORMAL_PRIORITY_CLASS}};
    for (auto [level, win32] : set) {
        uint32_t got = 99;
        EXPECT_EQ(PltSetCurrentProcessPriority(level), 0u);
        EXPECT_EQ(GetPriorityClass(GetCurrentProcess()), win32);
        EXPECT_EQ(PltGetCurrentProcessPriority(&got), 0u);
        EXPECT_EQ(got, level);
    }
    uint32_t got = 99;
    SetPriorityClass(GetCurrentProcess(), ABOVE_NORMAL_PRIORITY_CLASS);
    EXPECT_EQ(PltGetCurrentProcessPriority(&got), 0u);
    EXPECT_EQ(got, PRIO_HIGH);
    EXPECT_EQ(PltSetCurrentProcessPriority(4), static_cast<uint32_t>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(GetPriorityClass(GetCurrentProcess()),
              static_cast<DWORD>(ABOVE_NORMAL_PRIORITY_CLASS));
    EXPECT_EQ(PltGetCurrentProcessPriority(nullptr), 87u);
    {
        ZT_FAIL_IMPORT(GetPriorityClass, ERROR_ACCESS_DENIED);
        EXPECT_EQ(PltGetCurrentProcessPriority(&got), static_cast<uint32_t>(ERROR_ACCESS_DENIED));
    }
    EXPECT_EQ(got, PRIO_NORMAL);
    SetPriorityClass(GetCurrentProcess(), NORMAL_PRIORITY_CLASS);
}

}  // namespace
