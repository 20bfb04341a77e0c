// TestProcess: threads waited for and terminated, three threads sharing a
// lock, a child process, module names, thread priorities, an environment
// variable, the thread context and the process list.
#include <stdio.h>
#include <wchar.h>

#include <zendra/os.h>

#include "selfcheck/report.h"

namespace zendra::selfcheck {
namespace {

constexpr uint32_t kFailed = 0xFFFFFFFFu;
constexpr uint32_t kThreadWaitMs = 10000;


uint32_t Failed(PLT_REPORT_BUFFER* report, const wchar_t* description = nullptr) {
    Fail(report, description);
    return kFailed;
}

uint32_t FailedWith(PLT_REPORT_BUFFER* report, uint32_t status) {
    FailWithStatus(report, status);
    return kFailed;
}

uint32_t SleepFor(void* milliseconds) {
    Sleep(static_cast<DWORD>(reinterpret_cast<uintptr_t>(milliseconds)));
    return 0;
}

// A thread that does nothing for `sleepMs` while this one waits 10 seconds
// for it: one that outlives the wait is terminated. The terminated thread
// never frees its start block (24 bytes), which stays allocated.
uint32_t WaitedFor(PLT_REPORT_BUFFER* report, uint32_t sleepMs, bool shouldFinish) {
    CheckThread thread;
    if (!StartThread(&thread, SleepFor, reinterpret_cast<void*>(uintptr_t{sleepMs})))
        return Failed(report, L"CreateThread MUST return a threadHandle");
    uint32_t result = 0, outcome = 0;
    if (PltWaitForThread(thread.handle, kThreadWaitMs, &result) != 0) result = 0;
    if (result == PLT_WAIT_SIGNALED) {
        AppendLineFormat(report, kMessageLimit, L"Thread finished its job");
        if (!shouldFinish) outcome = Failed(report);
    } else if (result == PLT_WAIT_TIMEOUT) {
        AppendLineFormat(report, kMessageLimit, L"Time out before thread finished its job. Must Kill Thread");
        if (PltTerminateThread(thread.handle) != 0 || shouldFinish) outcome = Failed(report);
    } else {
        outcome = Failed(report, L"Unknown Return code");
        PltTerminateThread(thread.handle);
    }
    PltCloseThread(thread.handle);
    return outcome;
}

uint32_t RunThreads(PLT_REPORT_BUFFER* report) {
    AppendLineFormat(report, kMessageLimit, L"Test 1 to run threads");
    AppendLineFormat(report, kMessageLimit, L"Invoke thread and wait for 10 seconds. Do nothing for 5 seconds in between");
    uint32_t result = WaitedFor(report, 5000, true);
    AppendLineFormat(report, kMessageLimit, L"Invoke thread and wait for 10 seconds. Do nothing for 15 seconds in between");
    return result | WaitedFor(report, 15000, false);
}

// ---- three threads and one lock ----

struct SharedLock {
    PLT_REPORT_BUFFER* report;
    PLT_FAST_LOCK printing;  // the report is written from every thread
    PLT_MUTEX lock;
    volatile uint32_t holders, overlapped;
};

struct LockUser {
    SharedLock* shared;
    uint32_t number;
};

void SharedLine(SharedLock* s, const wchar_t* format, uint32_t number) {
    PltAcquireFastLock(&s->printing);
    AppendLineFormat(s->report, kMessageLimit, format, number);
    PltReleaseFastLock(&s->printing);
}

uint32_t UseLock(void* context) {
    auto* user = static_cast<LockUser*>(context);
    SharedLock* s = user->shared;
    SharedLine(s, L"Thread %d: acquiring lock", user->number);
    uint32_t result = 0;
    if (PltAcquireMutex(&s->lock, PLT_INFINITE, &result) != 0 || result != PLT_WAIT_SIGNALED)
        return AddOne(&s->overlapped), 1;
    if (AddOne(&s->holders) != 1) AddOne(&s->overlapped);
    Sleep(2000);
    __atomic_sub_fetch(&s->holders, 1u, __ATOMIC_ACQ_REL);
    SharedLine(s, L"Thread %d: releasing lock", user->number);
    PltReleaseMutex(&s->lock);
    return 0;
}

uint32_t ThreadsSharingALock(PLT_REPORT_BUFFER* report) {
    AppendLineFormat(report, kMessageLimit, L"Test 2 to run threads");
    SharedLock s{report, {}, {}, 0, 0};
    if (PltInitializeMutex(&s.lock, nullptr) != 0) return Failed(report);
    PltInitializeFastLock(&s.printing);
    LockUser users[3] = {{&s, 1}, {&s, 2}, {&s, 3}};
    CheckThread threads[3];
    uint32_t outcome = 0;
    for (uint32_t i = 0; i < 3 && outcome == 0; ++i) {
        PltAcquireFastLock(&s.printing);
        if (i != 1)
            AppendLineFormat(report, kMessageLimit, i == 0 ? L"Create thread 1 and wait for 10 ms before next one"
                                : L"Create thread 3 and wait for 20 seconds ....");
        PltReleaseFastLock(&s.printing);
        if (!StartThread(&threads[i], UseLock, &users[i]) || threads[i].id == 0)
            outcome = Failed(report, L"CreateThread MUST return a thread ID");
        if (i < 2) Sleep(10);
    }
    // One budget of 20 seconds for all three.
    ULONGLONG deadline = GetTickCount64() + 20000;
    bool ended = true;
    for (CheckThread& t : threads) {
        if (t.handle == nullptr) continue;
        ULONGLONG now = GetTickCount64();
        uint32_t result = 0;
        PltWaitForThread(t.handle, now < deadline ? static_cast<uint32_t>(deadline - now) : 0,
                         &result);
        ended = ended && result == PLT_WAIT_SIGNALED;
    }
    PltAcquireFastLock(&s.printing);
    AppendLineFormat(report, kMessageLimit, L"attempt to delete all 3 threads");
    PltReleaseFastLock(&s.printing);
    for (CheckThread& t : threads)
        if (t.handle != nullptr) JoinThread(&t, 0);
    if (outcome == 0 && (!ended || Load(&s.overlapped) != 0)) outcome = Failed(report);
    PltDeleteFastLock(&s.printing);
    PltDeleteMutex(&s.lock);
    return outcome;
}

// ---- a child process ----

uint32_t ChildProcess(PLT_REPORT_BUFFER* report) {
    const wchar_t* arguments[] = {L"/c", L"dir", L"/s", L"C:\\Windows\\System32", nullptr};
    PLT_PROCESS* child = nullptr;
    uint32_t exitCode = 0;
    PLT_STATUS status =
        PltCreateProcess(L"C:\\Windows\\System32\\cmd.exe", arguments, 1, &exitCode, &child);
    if (status != 0 || child == nullptr) return FailedWith(report, status);
    // A child still running after the five seconds the call waits is waited
    // for here, so that nothing outlives the check.
    if (exitCode == 0xFFFFFFFF) {
        DWORD code = 0;
        if (WaitForSingleObject(child->process, 120000) != WAIT_OBJECT_0)
            TerminateProcess(child->process, 0xFFFFFFFF);
        WaitForSingleObject(child->process, 10000);
        exitCode = GetExitCodeProcess(child->process, &code) ? code : 0xFFFFFFFF;
    }
    status = PltCloseProcess(child);
    if (status != 0) return FailedWith(report, status);
    return exitCode == 0 ? 0 : Failed(report);
}

uint32_t ModuleNames(PLT_REPORT_BUFFER* report) {
    AppendLineFormat(report, kMessageLimit, L"Test to get the current executable name");
    wchar_t name[MAX_PATH], path[MAX_PATH], file[MAX_PATH];
    PLT_STATUS status = PltGetModuleName(nullptr, name, MAX_PATH);
    if (status != 0) return FailedWith(report, status);
    AppendLineFormat(report, kMessageLimit, L"Module name: %s", name);
    if ((status = PltGetModulePath(nullptr, path, MAX_PATH - 1)) != 0 ||
        (status = PltGetModuleFileName(nullptr, file, MAX_PATH - 1)) != 0)
        return FailedWith(report, status);
    AppendLineFormat(report, kMessageLimit, L"Module path: %s", path);
    // The path and the file name make up the full name again.
    size_t length = wcslen(path);
    return wcsncmp(name, path, length) == 0 && wcscmp(name + length, file) == 0 && file[0] != 0
               ? 0
               : Failed(report);
}

const wchar_t* PriorityName(uint32_t priority) {
    static const wchar_t* const names[] = {L"PRIO_IDLE", L"PRIO_LOW", L"PRIO_NORMAL", L"PRIO_HIGH"};
    return priority < 4 ? names[priority] : L"?";
}

uint32_t Priorities(PLT_REPORT_BUFFER* report) {
    AppendLineFormat(report, kMessageLimit, L"Test get-set priorities");
    int raw = GetThreadPriority(GetCurrentThread());
    uint32_t initial = 0, now = 0, outcome = 0;
    if (PltGetThreadPriority(nullptr, &initial) != 0)
        return Failed(report, L"PltGetThreadPriority() FAILED");
    AppendLineFormat(report, kMessageLimit, L"Initial Priority %ls", PriorityName(initial));
    if (PltSetThreadPriority(nullptr, PRIO_HIGH) != 0)
        return Failed(report, L"PltSetThreadPriority() FAILED");
    AppendLineFormat(report, kMessageLimit, L"Modified thread Priority to high ");
    if (PltGetThreadPriority(nullptr, &now) != 0 || now != PRIO_HIGH)
        outcome = Failed(report, L"PltGetThreadPriority() FAILED");
    AppendLineFormat(report, kMessageLimit, L"Modified Priority %ls", PriorityName(now));
    if (PltSetThreadPriority(nullptr, initial) != 0)
        outcome = Failed(report, L"PltSetThreadPriority() FAILED");
    if (PltGetThreadPriority(nullptr, &now) != 0 || now != initial)
        outcome = Failed(report, L"PltGetThreadPriority() FAILED");
    AppendLineFormat(report, kMessageLimit, L"Modified Priority back to --- %ls", PriorityName(now));
    // The scale is lossy: put the caller's exact priority back.
    SetThreadPriority(GetCurrentThread(), raw);
    return outcome;
}

uint32_t EnvironmentVariable(PLT_REPORT_BUFFER* report) {
    AppendLineFormat(report, kMessageLimit, L"Test to get an environment variable");
    uint32_t size = 0;
    PLT_STATUS status = PltGetEnvironmentVariable(L"PATH", nullptr, &size);
    if (status != 0) return FailedWith(report, status);
    void* value = nullptr;
    if ((status = PltMalloc(&value, size * sizeof(wchar_t), PLT_ALLOC_ZERO, 0)) != 0)
        return FailedWith(report, status);
    status = PltGetEnvironmentVariable(L"PATH", static_cast<wchar_t*>(value), &size);
    if (status == 0) AppendLineFormat(report, kMessageLimit, L"%ls: %ls", L"PATH", static_cast<wchar_t*>(value));
    bool filled = static_cast<wchar_t*>(value)[0] != L'\0';
    PltFree(&value, 0);
    if (status != 0) return FailedWith(report, status);
    return filled ? 0 : Failed(report);
}

uint32_t ThreadContext(PLT_REPORT_BUFFER* report) {
    return PltGetCurrentThreadContext() != 0
               ? 0
               : Failed(report, L"Current Thread Context must return a non null value");
}

PLT_STATUS CountProcess(const PLT_PROCESS_ENTRY*, void* context) {
    ++*static_cast<int64_t*>(context);
    return 0;
}

uint32_t ProcessList(PLT_REPORT_BUFFER* report) {
    int64_t count = 0;
    PLT_STATUS status = PltGetProcessList(nullptr, 0, CountProcess, &count);
    if (status != 0) return FailedWith(report, status);
    AppendLineFormat(report, kMessageLimit, L"ProcessCount: %lld", static_cast<long long>(count));
    return count > 0 ? 0 : Failed(report, L"Process count must be greater than zero");
}

}  // namespace
}  // namespace zendra::selfcheck

using namespace zendra::selfcheck;

extern "C" uint32_t TestProcess(PLT_REPORT_BUFFER* report) {
    uint32_t (*const checks[])(PLT_REPORT_BUFFER*) = {
        RunThreads, ThreadsSharingALock, ChildProcess,  ModuleNames,
        Priorities, EnvironmentVariable, ThreadContext, ProcessList};
    uint32_t result = 0;
    for (auto check : checks) result |= check(report);
    return result;
}
