// Counted threads and priorities, child processes and the process list,
// module file names, environment variables, clocks and the date-time record.
#include <string.h>
#include <wctype.h>
#include <windows.h>
#include <tlhelp32.h>

#include <atomic>
#include <string>
#include <vector>

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
    HANDLE thread = nullptr, other = nullptr;
    uint32_t id = 0, result = 0;
    ASSERT_EQ(PltCreateThread(&WaitsForGo, &c, &thread, &id), 0u);
    EXPECT_MOVED(
        before,
        {.LiveAllocBytes = 24, .UntaggedAllocCount = 1, .ThreadCount = 1, .LiveThreadCount = 1})
        << "the start block lives while the routine runs";
    EXPECT_CALLS("0 1", PltWaitForThread(thread, 0, &result), result);
    c.go.set();
    EXPECT_CALLS("0 2 0 7", PltWaitForThread(thread, PLT_INFINITE, &result), result,
                 PltTerminateThread(thread), ExitCode(thread))
        << "an ended thread keeps its exit code";
    EXPECT_EQ(c.seenId, id);
    ASSERT_EQ(PltCreateThread(&WaitsForGo, &d, &other, nullptr), 0u);
    ASSERT_TRUE(zt::WaitUntil([&] { return d.seenId != 0; }));
    EXPECT_CALLS("0 0 4294967295 0 0 0", PltTerminateThread(other),
                 PltWaitForThread(other, 10000, nullptr), ExitCode(other), PltCloseThread(thread),
                 PltCloseThread(other), PltCloseThread(nullptr));
    // The terminated thread's start block stays.
    zt::LeavesBehind({.LiveAllocCount = 1, .LiveAllocBytes = 24, .LiveAllocBySize = {1}});
    EXPECT_CALLS("87 87 6 6 6 2", PltWaitForThread(nullptr, 0, &result),
                 PltTerminateThread(nullptr), PltWaitForThread(kBogus, 0, &result),
                 PltTerminateThread(kBogus), PltCloseThread(kBogus), result);
}

void* g_parameter;
DWORD g_createError;
HANDLE WINAPI FailCreateThread(LPSECURITY_ATTRIBUTES, SIZE_T, LPTHREAD_START_ROUTINE, LPVOID param,
                               DWORD, LPDWORD) {
    g_parameter = param;
    SetLastError(g_createError);
    return nullptr;
}

TEST(Threads, CreationFailuresOptionalOutputsAndTheContext) {
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
        EXPECT_CALLS("164 1", PltCreateThread(&WaitsForGo, &c, &thread, nullptr), thread == kBogus);
        EXPECT_NO_LEAKS(before);
        g_createError = 0;  // no error code: 0 without a thread, the block kept
        EXPECT_EQ(PltCreateThread(&WaitsForGo, &c, &thread, nullptr), 0u);
    }
    EXPECT_MOVED(before, {.LiveAllocCount = 1});
    EXPECT_EQ(PltFree(&g_parameter, 0), 0u);
    ASSERT_EQ(PltCreateThread(&WaitsForGo, &c, nullptr, nullptr), 0u);
    ASSERT_TRUE(
        zt::WaitUntil([&] { return zt::Delta(before, zt::Snapshot()).LiveAllocCount == 0; }));
    zt::LeavesBehind({.LiveThreadCount = 1});  // nobody can close it
}

int WINAPI FailGetThreadPriority(HANDLE) {
    SetLastError(ERROR_ACCESS_DENIED);
    return THREAD_PRIORITY_ERROR_RETURN;
}

TEST(Priority, LossyReadsUnknownLevelsAndFailures) {
    uint32_t level = 99;
    zt::TestThread([&] {
        SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL);
        EXPECT_CALLS("0 3 0 0", PltGetThreadPriority(nullptr, &level), level,
                     PltSetThreadPriority(nullptr, 7), GetThreadPriority(GetCurrentThread()))
            << "time-critical reads as high; an unknown level sets normal";
    }).join();
    EXPECT_CALLS("87 87 87 6 0 2", PltGetThreadPriority(nullptr, nullptr),
                 PltGetCurrentProcessPriority(nullptr), PltSetCurrentProcessPriority(4),
                 PltSetThreadPriority(kBogus, PRIO_LOW), PltGetCurrentProcessPriority(&level),
                 level)
        << "an unknown process level passes class 0, which is refused";
    zt::ImportHook hook("GetThreadPriority", reinterpret_cast<void*>(&FailGetThreadPriority));
    ZT_FAIL_IMPORT(GetPriorityClass, ERROR_ACCESS_DENIED);
    EXPECT_CALLS("5 2", PltGetThreadPriority(nullptr, &level), level)
        << "the output keeps its pre-set 2";
    level = 99;
    EXPECT_CALLS("5 2", PltGetCurrentProcessPriority(&level), level);
}

std::wstring Own(bool directory) {
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring name = path;
    size_t cut = name.rfind(L'\\') + 1;
    return directory ? name.substr(0, cut) : name.substr(cut);
}

// What the library hands to CreateProcessW; the fake child is this process,
// through duplicated handles that PltCloseProcess can close.
std::wstring g_commandLine;
BOOL WINAPI FakeCreateProcess(LPCWSTR, LPWSTR commandLine, LPSECURITY_ATTRIBUTES,
                              LPSECURITY_ATTRIBUTES, BOOL inherit, DWORD flags, LPVOID environment,
                              LPCWSTR directory, LPSTARTUPINFOW startup,
                              LPPROCESS_INFORMATION info) {
    g_commandLine = commandLine;
    EXPECT_TRUE(!inherit && !flags && !environment && !directory && startup->cb == 0)
        << "a zero start-up record";
    HANDLE self = GetCurrentProcess();
    DuplicateHandle(self, self, self, &info->hProcess, 0, FALSE, DUPLICATE_SAME_ACCESS);
    DuplicateHandle(self, GetCurrentThread(), self, &info->hThread, 0, FALSE,
                    DUPLICATE_SAME_ACCESS);
    info->dwProcessId = 1234;
    return TRUE;
}

std::wstring CommandLineFor(std::vector<const wchar_t*> args, PLT_STATUS expected = 0) {
    zt::ImportHook hook("CreateProcessW", reinterpret_cast<void*>(&FakeCreateProcess));
    g_commandLine = L"<none>";
    args.push_back(nullptr);
    PLT_PROCESS* process = nullptr;
    EXPECT_EQ(PltCreateProcess(L"app.exe", args.data(), 0, nullptr, &process), expected);
    if (process != nullptr) {
        EXPECT_CALLS("1234 0", process->processId, PltCloseProcess(process));
    }
    return g_commandLine;
}

TEST(Processes, CommandLineRealChildrenWaitFailuresAndClose) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(CommandLineFor({L"/c", L"dir /s", L"C:\\Windows"}), L" /c dir /s C:\\Windows");
    EXPECT_EQ(CommandLineFor({L"a", L"", L"b"}), L" a") << "an empty argument ends the list";
    // 2047 characters and the terminator fill the 2048; one more is refused
    // before anything is allocated or started.
    std::wstring longest(2046, L'x');
    EXPECT_EQ(CommandLineFor({longest.c_str()}).size(), 2047u);
    EXPECT_EQ(CommandLineFor({longest.c_str(), L""}).size(), 2047u);
    EXPECT_EQ(CommandLineFor({longest.c_str(), L"z"}, 87), L"<none>");
    EXPECT_EQ(CommandLineFor({(longest + L"x").c_str()}, 87), L"<none>") << "with its space, 2048";
    EXPECT_MOVED(before, {.ProcessCount = 4});
    const wchar_t* exit7[] = {L"/c", L"exit", L"7", nullptr};
    PLT_PROCESS* process = nullptr;
    uint32_t exitCode = 0;
    ASSERT_EQ(PltCreateProcess(L"C:\\windows\\system32\\cmd.exe", exit7, 1, &exitCode, &process),
              0u);
    EXPECT_CALLS("7 1 1 0", exitCode, GetProcessId(process->process) == process->processId,
                 zt::Delta(before, zt::Snapshot()).LiveProcessCount, PltCloseProcess(process));
    // A child outliving the five-second wait gives all ones and keeps running.
    std::wstring child = Own(true) + L"os_test_child.exe";
    const wchar_t* sleep[] = {L"sleep", L"60000", nullptr};
    DWORD start = GetTickCount();
    ASSERT_EQ(PltCreateProcess(child.c_str(), sleep, 1, &exitCode, &process), 0u);
    EXPECT_CALLS("1 4294967295 258 1 0", GetTickCount() - start >= 4900, exitCode,
                 WaitForSingleObject(process->process, 0), TerminateProcess(process->process, 9),
                 PltCloseProcess(process));
    exitCode = 42;
    ASSERT_EQ(PltCreateProcess(child.c_str(), sleep + 2, 0, &exitCode, &process), 0u);
    EXPECT_CALLS("42 0", exitCode, PltCloseProcess(process))
        << "without wait the exit code is not touched";
    EXPECT_NO_LEAKS(before);
    EXPECT_EQ(PltCreateProcess(L"app.exe", exit7, 0, nullptr, nullptr) + PltCloseProcess(nullptr) +
                  PltCreateProcess(L"app.exe", nullptr, 0, nullptr, &process),
              3 * 87u);
    PLT_PROCESS bogus = {nullptr, nullptr, 0, 0};  // not a heap block: must not be freed
    EXPECT_EQ(PltCloseProcess(&bogus), static_cast<uint32_t>(ERROR_INVALID_HANDLE));
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(PltCreateProcess(child.c_str(), exit7, 0, nullptr, &process), 8u);
    }
    // A failed start keeps its 24-byte untagged record allocated.
    EXPECT_CALLS("2 1",
                 PltCreateProcess(L"C:\\windows\\no_such_program.exe", exit7, 1, nullptr, &process),
                 process == nullptr);
    EXPECT_MOVED(before, {.UntaggedAllocCount = 9, .ProcessCount = 7});
    zt::LeavesBehind({.LiveAllocCount = 1, .LiveAllocBytes = 24, .LiveAllocBySize = {1}});
}

PLT_STATUS Collect(const PLT_PROCESS_ENTRY* entry, void* context) {
    for (size_t i = wcslen(entry->name); i < PLT_PROCESS_NAME_CHARS; ++i)
        EXPECT_EQ(entry->name[i], 0);
    if (entry->processId == GetCurrentProcessId())
        *static_cast<std::wstring*>(context) = entry->name;
    return 1;  // ignored
}

// The name under which the list reports this process for a filter, or "".
std::wstring ListsSelf(const std::wstring& filter, uint32_t count) {
    std::wstring self;
    EXPECT_EQ(PltGetProcessList(filter.empty() ? nullptr : filter.c_str(), count, Collect, &self),
              0u);
    return self;
}

HANDLE WINAPI FailingSnapshot(DWORD, DWORD) {
    return SetLastError(ERROR_ACCESS_DENIED), INVALID_HANDLE_VALUE;
}
DWORD g_firstError;
BOOL WINAPI FailingFirst(HANDLE, LPPROCESSENTRY32W) { return SetLastError(g_firstError), FALSE; }
int g_closes;
BOOL WINAPI CountingClose(HANDLE handle) { return ++g_closes, CloseHandle(handle); }

TEST(Processes, ListFilterFromEachOfItsFirstCountPositionsAndFailures) {
    std::wstring own = Own(false), upper = own;
    for (wchar_t& c : upper) c = towupper(c);
    EXPECT_EQ(ListsSelf(L"", 5) + ListsSelf(L"ignored", 0) + ListsSelf(upper, 1), own + own + own)
        << "no filter, count 0, any letter case";
    EXPECT_EQ(ListsSelf(upper.substr(1), 1) + ListsSelf(L"xx" + upper, 2), L"")
        << "the name starts at position 2";
    EXPECT_EQ(ListsSelf(L"xx" + upper, 3) + ListsSelf(L"xx" + upper, 100000), own + own)
        << "not read past its end";
    EXPECT_EQ(PltGetProcessList(nullptr, 0, nullptr, nullptr), 87u);
    {
        zt::ImportHook snapshot("CreateToolhelp32Snapshot",
                                reinterpret_cast<void*>(&FailingSnapshot));
        EXPECT_EQ(PltGetProcessList(nullptr, 0, Collect, nullptr), 5u);
    }
    zt::ImportHook first("Process32FirstW", reinterpret_cast<void*>(&FailingFirst));
    zt::ImportHook close("CloseHandle", reinterpret_cast<void*>(&CountingClose));
    g_closes = 0;
    g_firstError = ERROR_NO_MORE_FILES;  // an empty snapshot is no failure
    EXPECT_EQ(PltGetProcessList(nullptr, 0, Collect, nullptr), 0u);
    g_firstError = ERROR_BAD_LENGTH;
    EXPECT_CALLS("24 2", PltGetProcessList(nullptr, 0, Collect, nullptr), g_closes);
}

// GetModuleFileNameW answering with a chosen name, or failing for null.
const wchar_t* g_name;
DWORD WINAPI FakeModuleFileName(HMODULE, LPWSTR buffer, DWORD size) {
    if (g_name == nullptr) return SetLastError(ERROR_ACCESS_DENIED), 0;
    DWORD length = static_cast<DWORD>(wcslen(g_name)), copied = length < size ? length : size - 1;
    wmemcpy(buffer, g_name, copied);
    buffer[copied] = L'\0';
    return length < size ? length : size;
}

// "path|file" of a faked module name, each written into a buffer of size + 1
// characters that ends at a no-access page; a status instead of a failed part.
std::wstring Split(const wchar_t* name, uint32_t size) {
    zt::ImportHook hook("GetModuleFileNameW", reinterpret_cast<void*>(&FakeModuleFileName));
    g_name = name;
    zt::GuardedBuffer path((size + 1) * sizeof(wchar_t)), file((size + 1) * sizeof(wchar_t));
    PLT_STATUS p = PltGetModulePath(nullptr, path.as<wchar_t>(), size);
    PLT_STATUS f = PltGetModuleFileName(nullptr, file.as<wchar_t>(), size);
    return (p ? std::to_wstring(p) : path.as<wchar_t>()) + L"|" +
           (f ? std::to_wstring(f) : file.as<wchar_t>());
}

TEST(Modules, NamesSplitAtTheLastBackslashWithOneCharacterMoreThanTheSize) {
    wchar_t expected[MAX_PATH], name[MAX_PATH];
    ASSERT_NE(GetModuleFileNameW(nullptr, expected, MAX_PATH), 0u);
    ASSERT_EQ(PltGetModuleName(nullptr, name, MAX_PATH), 0u);
    EXPECT_STREQ(name, expected);
    EXPECT_EQ(Split(L"C:\\dir\\m.dll", 7), L"C:\\dir\\|m.dll") << "a part as long as the size fits";
    EXPECT_EQ(Split(L"C:\\dir\\m.dll", 6) + Split(L"C:\\dir\\m.dll", 4), L"24|m.dll24|24");
    EXPECT_EQ(Split(L"m.dll", 5) + Split(L"m.dll", 0), L"\\|m.dll24|24")
        << "no backslash: a lone backslash";
    EXPECT_EQ(Split(L"C:\\dir\\", 0) + Split(nullptr, 8), L"24|5|5") << "the read's error";
    wmemset(name, L'#', 6);
    EXPECT_CALLS("0 35", PltGetModuleName(nullptr, name, 5), name[5])
        << "a name cut to fit succeeds";
    EXPECT_EQ(PltGetModuleName(nullptr, nullptr, 5) + PltGetModulePath(nullptr, nullptr, 5) +
                  PltGetModuleFileName(nullptr, nullptr, 5),
              3 * 87u);
}

TEST(Environment, SizeQueryBufferAndMissingVariables) {
    SetEnvironmentVariableW(L"ZT_ENV_TEST", L"hello");
    SetEnvironmentVariableW(L"ZT_ENV_EMPTY", L"");
    uint32_t size = 0, five = 5, eight = 8;
    wchar_t value[8] = L"#######";
    EXPECT_CALLS("0 6 0 0 35 5", PltGetEnvironmentVariable(L"ZT_ENV_TEST", nullptr, &size), size,
                 PltGetEnvironmentVariable(L"ZT_ENV_TEST", value, &five),
                 PltGetEnvironmentVariable(L"ZT_ENV_TEST", value, nullptr), value[0], five)
        << "too small: success, untouched";
    EXPECT_CALLS("0 8 1", PltGetEnvironmentVariable(L"ZT_ENV_TEST", value, &eight), eight,
                 wcscmp(value, L"hello") == 0);
    EXPECT_CALLS("203 203 87", PltGetEnvironmentVariable(L"ZT_ENV_MISSING", value, &size),
                 PltGetEnvironmentVariable(L"ZT_ENV_MISSING", nullptr, &size),
                 PltGetEnvironmentVariable(nullptr, nullptr, &size));
    SetLastError(ERROR_ACCESS_DENIED);
    EXPECT_CALLS("0 0", PltGetEnvironmentVariable(L"ZT_ENV_EMPTY", value, &size), value[0])
        << "empty: no failure";
}

// A zone of UTC-5 with one hour of daylight saving; both zone records start
// with the same fields.
DWORD g_zoneId;
template <typename Zone>
DWORD WINAPI FakeZone(Zone* zone) {
    memset(zone, 0, sizeof *zone);
    zone->Bias = 300;
    zone->DaylightBias = -60;
    if (g_zoneId == TIME_ZONE_ID_INVALID) SetLastError(ERROR_ACCESS_DENIED);
    return g_zoneId;
}

TEST(Time, FieldOrderUtcConversionsAndTheZoneInEverySeason) {
    const uint64_t leap =
        116444736000000000ull + 1709251199999ull * 10000;  // 2024-02-29 23:59:59.999
    PLT_DATE_TIME t, given{999, 59, 59, 23, 29, 2, 2024 + 65536, 6, 300};  // cut to 16 bits
    uint64_t time = 0;
    EXPECT_CALLS("0 999 59 59 23 29 2 2024 4 0", PltTimeToDateTime(leap, &t), t.milliseconds,
                 t.second, t.minute, t.hour, t.day, t.month, t.year, t.dayOfWeek, t.timeZoneBias);
    EXPECT_CALLS("0 1", PltDateTimeToTime(&given, &time), time == leap)
        << "read as UTC, day and bias ignored";
    given.month = 13;
    EXPECT_CALLS("87 87 87 87 87", PltDateTimeToTime(&given, &time),
                 PltDateTimeToTime(nullptr, &time), PltDateTimeToTime(&t, nullptr),
                 PltTimeToDateTime(0, nullptr), PltTimeToDateTime(0x8000000000000000ull, &t));
    zt::ImportHook info("GetTimeZoneInformation",
                        reinterpret_cast<void*>(&FakeZone<TIME_ZONE_INFORMATION>));
    zt::ImportHook dynamic("GetDynamicTimeZoneInformation",
                           reinterpret_cast<void*>(&FakeZone<DYNAMIC_TIME_ZONE_INFORMATION>));
    int32_t minutes = 0;
    for (DWORD id : {TIME_ZONE_ID_STANDARD, TIME_ZONE_ID_DAYLIGHT, TIME_ZONE_ID_UNKNOWN}) {
        g_zoneId = id;
        EXPECT_CALLS("0 240 0 300", PltGetTimeZoneDifference(&minutes), minutes,
                     PltGetLocalDateTime(&t), t.timeZoneBias)
            << "the daylight bias is added in every season; the record gets the Bias alone";
    }
    g_zoneId = TIME_ZONE_ID_INVALID;
    EXPECT_CALLS("5 0 0", PltGetTimeZoneDifference(&minutes), PltGetSystemDateTime(&t),
                 t.timeZoneBias);
    g_zoneId = 7;  // no zone state: success, output left alone
    EXPECT_CALLS("0 240 87", PltGetTimeZoneDifference(&minutes), minutes,
                 PltGetTimeZoneDifference(nullptr));
}

}  // namespace
