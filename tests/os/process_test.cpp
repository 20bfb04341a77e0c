// Child processes, the process list, module file names and environment
// variables.
#include <string.h>
#include <wctype.h>
#include <windows.h>
#include <tlhelp32.h>

#include <string>
#include <vector>

#include <zendra/os.h>

#include "zt.h"

namespace {

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
int g_calls;
BOOL WINAPI FakeCreateProcess(LPCWSTR, LPWSTR commandLine, LPSECURITY_ATTRIBUTES,
                              LPSECURITY_ATTRIBUTES, BOOL inherit, DWORD flags, LPVOID environment,
                              LPCWSTR directory, LPSTARTUPINFOW startup,
                              LPPROCESS_INFORMATION info) {
    ++g_calls;
    g_commandLine = commandLine;
    EXPECT_TRUE(!inherit && flags == 0 && environment == nullptr && directory == nullptr &&
                startup->cb == 0)
        << "no inheritance, no flags, the caller's environment and directory, a zero record";
    HANDLE self = GetCurrentProcess();
    DuplicateHandle(self, self, self, &info->hProcess, 0, FALSE, DUPLICATE_SAME_ACCESS);
    DuplicateHandle(self, GetCurrentThread(), self, &info->hThread, 0, FALSE,
                    DUPLICATE_SAME_ACCESS);
    info->dwProcessId = 1234;
    info->dwThreadId = 5678;
    return TRUE;
}

std::wstring CommandLineFor(std::vector<const wchar_t*> args, PLT_STATUS expected = 0) {
    zt::ImportHook hook("CreateProcessW", reinterpret_cast<void*>(&FakeCreateProcess));
    g_commandLine = L"<none>";
    args.push_back(nullptr);
    PLT_PROCESS* process = nullptr;
    EXPECT_EQ(PltCreateProcess(L"app.exe", args.data(), 0, nullptr, &process), expected);
    if (process != nullptr) {
        EXPECT_EQ(process->processId + process->threadId, 1234u + 5678u);
        EXPECT_EQ(PltCloseProcess(process), 0u);
    }
    return g_commandLine;
}

TEST(PltCreateProcess, CommandLineIsASpaceBeforeEachArgumentUpToAnEmptyOne) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    g_calls = 0;
    EXPECT_EQ(CommandLineFor({L"/c", L"dir /s", L"C:\\Windows"}), L" /c dir /s C:\\Windows");
    EXPECT_EQ(CommandLineFor({L"a", L"", L"b"}), L" a");
    // 2047 characters and the terminator fill the 2048; one more is refused
    // before anything is allocated or started.
    std::wstring longest(2046, L'x'), half(1023, L'y');
    EXPECT_EQ(CommandLineFor({longest.c_str()}).size(), 2047u);
    EXPECT_EQ(CommandLineFor({(longest + L"x").c_str()}, 87), L"<none>");
    EXPECT_EQ(CommandLineFor({half.c_str(), half.c_str(), L"z"}, 87), L"<none>");
    EXPECT_EQ(g_calls, 3);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).ProcessCount, 3u);
    EXPECT_NO_LEAKS(before);
}

TEST(PltCreateProcess, RealChildrenWaitFailuresAndClose) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    const wchar_t* exit7[] = {L"/c", L"exit", L"7", nullptr};
    PLT_PROCESS* process = nullptr;
    uint32_t exitCode = 0;
    ASSERT_EQ(PltCreateProcess(L"C:\\windows\\system32\\cmd.exe", exit7, 1, &exitCode, &process),
              0u);
    EXPECT_EQ(exitCode, 7u);
    EXPECT_EQ(GetProcessId(process->process), process->processId);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).LiveProcessCount, 1u);
    EXPECT_EQ(PltCloseProcess(process), 0u);
    // A child outliving the five-second wait gives all ones and keeps running.
    std::wstring child = Own(true) + L"os_test_child.exe";
    const wchar_t* sleep[] = {L"sleep", L"60000", nullptr};
    DWORD start = GetTickCount();
    ASSERT_EQ(PltCreateProcess(child.c_str(), sleep, 1, &exitCode, &process), 0u);
    EXPECT_GE(GetTickCount() - start, 4900u);
    EXPECT_EQ(exitCode, 0xFFFFFFFFu);
    EXPECT_EQ(WaitForSingleObject(process->process, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_TRUE(TerminateProcess(process->process, 9));
    EXPECT_EQ(PltCloseProcess(process), 0u);
    exitCode = 42;
    ASSERT_EQ(PltCreateProcess(child.c_str(), sleep + 2, 0, &exitCode, &process), 0u);
    EXPECT_EQ(exitCode, 42u) << "without wait the exit code is not touched";
    EXPECT_EQ(PltCloseProcess(process), 0u);
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
    EXPECT_EQ(PltCreateProcess(L"C:\\windows\\no_such_program.exe", exit7, 1, nullptr, &process),
              static_cast<uint32_t>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(process, nullptr);
    EXPECT_MOVED(before, {.LiveAllocBytes = 24, .UntaggedAllocCount = 5, .ProcessCount = 3})
        << "three started, two counted refusals";
}

PLT_STATUS Collect(const PLT_PROCESS_ENTRY* entry, void* context) {
    size_t length = wcslen(entry->name);
    for (size_t i = length; i < PLT_PROCESS_NAME_CHARS; ++i) EXPECT_EQ(entry->name[i], 0);
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
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE_VALUE;
}
DWORD g_firstError;
BOOL WINAPI FailingFirst(HANDLE, LPPROCESSENTRY32W) {
    SetLastError(g_firstError);
    return FALSE;
}
int g_closes;
BOOL WINAPI CountingClose(HANDLE handle) { return ++g_closes, CloseHandle(handle); }

TEST(PltGetProcessList, FilterFromEachOfItsFirstCountPositionsAndFailures) {
    std::wstring own = Own(false), upper = own;
    for (wchar_t& c : upper) c = towupper(c);
    EXPECT_EQ(ListsSelf(L"", 5), own);
    EXPECT_EQ(ListsSelf(L"ignored", 0), own) << "count 0: no filter";
    EXPECT_EQ(ListsSelf(upper, 1), own) << "any letter case";
    EXPECT_EQ(ListsSelf(upper.substr(1), 1), L"");
    EXPECT_EQ(ListsSelf(L"xx" + upper, 2), L"") << "the name starts at position 2";
    EXPECT_EQ(ListsSelf(L"xx" + upper, 3), own);
    EXPECT_EQ(ListsSelf(L"xx" + upper, 100000), own) << "positions past the end are not read";
    EXPECT_EQ(PltGetProcessList(nullptr, 0, nullptr, nullptr), 87u);
    {
        zt::ImportHook hook("CreateToolhelp32Snapshot", reinterpret_cast<void*>(&FailingSnapshot));
        EXPECT_EQ(PltGetProcessList(nullptr, 0, Collect, nullptr), 5u);
    }
    zt::ImportHook first("Process32FirstW", reinterpret_cast<void*>(&FailingFirst));
    zt::ImportHook close("CloseHandle", reinterpret_cast<void*>(&CountingClose));
    g_closes = 0;
    g_firstError = ERROR_NO_MORE_FILES;  // an empty snapshot is no failure
    EXPECT_EQ(PltGetProcessList(nullptr, 0, Collect, nullptr), 0u);
    g_firstError = ERROR_BAD_LENGTH;
    EXPECT_EQ(PltGetProcessList(nullptr, 0, Collect, nullptr), 24u);
    EXPECT_EQ(g_closes, 2);
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

TEST(ModuleNames, SplitAtTheLastBackslashWithOneCharacterMoreThanTheSize) {
    wchar_t expected[MAX_PATH], name[MAX_PATH];
    ASSERT_NE(GetModuleFileNameW(nullptr, expected, MAX_PATH), 0u);
    ASSERT_EQ(PltGetModuleName(nullptr, name, MAX_PATH), 0u);
    EXPECT_STREQ(name, expected);
    EXPECT_EQ(Split(L"C:\\dir\\m.dll", 32), L"C:\\dir\\|m.dll");
    EXPECT_EQ(Split(L"C:\\dir\\m.dll", 7), L"C:\\dir\\|m.dll") << "a part as long as the size fits";
    EXPECT_EQ(Split(L"C:\\dir\\m.dll", 6), L"24|m.dll");
    EXPECT_EQ(Split(L"C:\\dir\\m.dll", 4), L"24|24");
    EXPECT_EQ(Split(L"m.dll", 5), L"\\|m.dll") << "no backslash: the path is a lone backslash";
    EXPECT_EQ(Split(L"m.dll", 0), L"24|24");
    EXPECT_EQ(Split(L"C:\\dir\\", 0), L"24|");
    EXPECT_EQ(Split(nullptr, 8), L"5|5") << "the read's error";
    wmemset(name, L'#', 6);
    EXPECT_EQ(PltGetModuleName(nullptr, name, 5), 0u) << "a name cut to fit still succeeds";
    EXPECT_EQ(name[5], L'#');
    HMODULE bogus = reinterpret_cast<HMODULE>(0x10);
    ASSERT_EQ(GetModuleFileNameW(bogus, name, MAX_PATH), 0u);
    DWORD error = GetLastError();
    EXPECT_EQ(PltGetModuleName(bogus, name, MAX_PATH), error);
    EXPECT_EQ(PltGetModuleName(nullptr, nullptr, 5) + PltGetModulePath(nullptr, nullptr, 5) +
                  PltGetModuleFileName(nullptr, nullptr, 5),
              3 * 87u);
}

TEST(PltGetEnvironmentVariable, SizeQueryBufferAndMissingVariables) {
    SetEnvironmentVariableW(L"ZT_ENV_TEST", L"hello");
    SetEnvironmentVariableW(L"ZT_ENV_EMPTY", L"");
    uint32_t size = 0;
    wchar_t value[8] = L"#######";
    ASSERT_EQ(PltGetEnvironmentVariable(L"ZT_ENV_TEST", nullptr, &size), 0u);
    EXPECT_EQ(size, 6u) << "terminator included";
    size = 5;
    EXPECT_EQ(PltGetEnvironmentVariable(L"ZT_ENV_TEST", value, &size) +
                  PltGetEnvironmentVariable(L"ZT_ENV_TEST", value, nullptr),
              0u);
    EXPECT_EQ(std::wstring(value) + std::to_wstring(size), L"#######5") << "too small: untouched";
    size = 8;
    ASSERT_EQ(PltGetEnvironmentVariable(L"ZT_ENV_TEST", value, &size), 0u);
    EXPECT_EQ(std::wstring(value) + std::to_wstring(size), L"hello8");
    EXPECT_EQ(PltGetEnvironmentVariable(L"ZT_ENV_MISSING", value, &size) +
                  PltGetEnvironmentVariable(L"ZT_ENV_MISSING", nullptr, &size),
              2 * 203u);
    EXPECT_EQ(PltGetEnvironmentVariable(nullptr, nullptr, &size), 87u);
    SetLastError(ERROR_ACCESS_DENIED);
    EXPECT_EQ(PltGetEnvironmentVariable(L"ZT_ENV_EMPTY", value, &size), 0u)
        << "empty is no failure";
    EXPECT_STREQ(value, L"");
}

}  // namespace
