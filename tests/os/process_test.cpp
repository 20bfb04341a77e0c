// Child processes and the process list.
#include <string.h>
#include <wctype.h>
#include <windows.h>
#include <tlhelp32.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zendra/os.h>

#include "counters.h"
#include "heap_failure.h"
#include "import_hook.h"

namespace {

std::wstring Own(bool directory) {
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring name = path;
    size_t cut = name.rfind(L'\\') + 1;
    return directory ? name.substr(0, cut) : name.substr(cut);
}

// What the library hands to CreateProcessW; the fake "child" is this
// process, through duplicated handles that PltCloseProcess can close.
struct Call {
    int count = 0;
    std::wstring commandLine;
    DWORD startupSize = 99, flags = 99;
    BOOL inherit = TRUE;
    LPVOID environment = nullptr;
    LPCWSTR directory = nullptr;
} g_call;

BOOL WINAPI FakeCreateProcess(LPCWSTR, LPWSTR commandLine, LPSECURITY_ATTRIBUTES,
                              LPSECURITY_ATTRIBUTES, BOOL inherit, DWORD flags, LPVOID environment,
                              LPCWSTR directory, LPSTARTUPINFOW startup,
                              LPPROCESS_INFORMATION info) {
    g_call = {g_call.count + 1, commandLine, startup->cb, flags, inherit, environment, directory};
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
    g_call = Call();
    args.push_back(nullptr);
    PLT_PROCESS* process = reinterpret_cast<PLT_PROCESS*>(1);
    EXPECT_EQ(PltCreateProcess(L"app.exe", args.data(), 0, nullptr, &process), expected);
    if (process == nullptr) return L"<none>";
    EXPECT_EQ(process->processId + process->threadId, 1234u + 5678u);
    EXPECT_EQ(PltCloseProcess(process), 0u);
    return g_call.commandLine;
}

TEST(PltCreateProcess, CommandLineIsASpaceBeforeEachArgumentUpToAnEmptyOne) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(CommandLineFor({L"/c", L"dir /s", L"C:\\Windows"}), L" /c dir /s C:\\Windows");
    EXPECT_EQ(CommandLineFor({L"a", L"", L"b"}), L" a");
    EXPECT_EQ(g_call.startupSize, 0u) << "an all-zero start-up record, size included";
    EXPECT_FALSE(g_call.inherit);
    EXPECT_EQ(g_call.flags, 0u);
    EXPECT_EQ(g_call.environment, nullptr);
    EXPECT_EQ(g_call.directory, nullptr);
    // 2047 characters and the terminator fill the 2048; one more is refused
    // before anything is allocated or started.
    std::wstring longest(2046, L'x'), half(1023, L'y');
    EXPECT_EQ(CommandLineFor({longest.c_str()}).size(), 2047u);
    EXPECT_EQ(CommandLineFor({(longest + L"x").c_str()}, 87), L"<none>");
    EXPECT_EQ(CommandLineFor({half.c_str(), half.c_str(), L"z"}, 87), L"<none>");
    EXPECT_EQ(g_call.count, 0);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).ProcessCount, 3u);
    EXPECT_NO_LEAKS(before);
}

TEST(PltCreateProcess, RefusalsAndFailures) {
    const wchar_t* args[] = {L"x", nullptr};
    PLT_PROCESS* process = nullptr;
    EXPECT_EQ(PltCreateProcess(L"app.exe", args, 0, nullptr, nullptr), 87u);
    EXPECT_EQ(PltCreateProcess(L"app.exe", nullptr, 0, nullptr, &process), 87u);
    EXPECT_EQ(PltCloseProcess(nullptr), 87u);
    PLT_PROCESS bogus = {nullptr, nullptr, 0, 0};  // not a heap block: must not be freed
    EXPECT_EQ(PltCloseProcess(&bogus), static_cast<uint32_t>(ERROR_INVALID_HANDLE));
    PLT_RESOURCE_STATS before = zt::Snapshot();
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(PltCreateProcess(L"C:\\windows\\system32\\cmd.exe", args, 0, nullptr, &process),
                  8u);
    }
    EXPECT_NO_LEAKS(before);
    // A failed start keeps its 24-byte untagged record allocated.
    EXPECT_EQ(PltCreateProcess(L"C:\\windows\\no_such_program.exe", args, 1, nullptr, &process),
              static_cast<uint32_t>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(process, nullptr);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.LiveAllocBytes, 24u);
    EXPECT_EQ(d.UntaggedAllocCount, 2u) << "the refused allocation counted too";
    EXPECT_EQ(d.ProcessCount, 0u);
}

TEST(PltCreateProcess, WaitsFiveSecondsForTheExitCode) {
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

    // A child outliving the wait gives all ones and keeps running.
    std::wstring child = Own(true) + L"os_test_child.exe";
    const wchar_t* sleep[] = {L"sleep", L"60000", nullptr};
    DWORD start = GetTickCount();
    ASSERT_EQ(PltCreateProcess(child.c_str(), sleep, 1, &exitCode, &process), 0u);
    EXPECT_GE(GetTickCount() - start, 4900u);
    EXPECT_EQ(exitCode, 0xFFFFFFFFu);
    EXPECT_EQ(WaitForSingleObject(process->process, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_TRUE(TerminateProcess(process->process, 9));
    EXPECT_EQ(PltCloseProcess(process), 0u);

    // Without wait the exit code is not touched.
    const wchar_t* exit3[] = {L"exit", L"3", nullptr};
    ASSERT_EQ(PltCreateProcess(child.c_str(), exit3, 0, &exitCode, &process), 0u);
    EXPECT_EQ(exitCode, 0xFFFFFFFFu);
    ASSERT_EQ(WaitForSingleObject(process->process, 30000), WAIT_OBJECT_0);
    DWORD code = 0;
    GetExitCodeProcess(process->process, &code);
    EXPECT_EQ(code, 3u);
    EXPECT_EQ(PltCloseProcess(process), 0u);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).ProcessCount, 3u);
    EXPECT_NO_LEAKS(before);
}

PLT_STATUS Collect(const PLT_PROCESS_ENTRY* entry, void* context) {
    size_t length = wcslen(entry->name);
    for (size_t i = length; i < PLT_PROCESS_NAME_CHARS; ++i) EXPECT_EQ(entry->name[i], 0);
    static_cast<std::vector<std::wstring>*>(context)->push_back(std::wstring(entry->name) + L"#" +
                                                                std::to_wstring(entry->processId));
    return 1;  // ignored
}

// Which processes the list reports for a filter, and whether this one is.
bool ListsSelf(const std::wstring& filter, uint32_t count, std::vector<std::wstring>* seen) {
    seen->clear();
    EXPECT_EQ(PltGetProcessList(filter.empty() ? nullptr : filter.c_str(), count, Collect, seen),
              0u);
    std::wstring self = L"#" + std::to_wstring(GetCurrentProcessId());
    for (const std::wstring& s : *seen)
        if (s.size() > self.size() && s.compare(s.size() - self.size(), self.size(), self) == 0)
            return true;
    return false;
}

TEST(PltGetProcessList, FilterMatchesTheNameFromEachOfItsFirstCountPositions) {
    std::wstring upper = Own(false);
    for (wchar_t& c : upper) c = towupper(c);
    ASSERT_NE(upper, Own(false));
    std::vector<std::wstring> seen;
    EXPECT_TRUE(ListsSelf(L"", 5, &seen));
    EXPECT_GT(seen.size(), 1u);
    EXPECT_TRUE(ListsSelf(L"ignored", 0, &seen)) << "count 0: no filter";
    EXPECT_TRUE(ListsSelf(upper, 1, &seen)) << "any letter case";
    for (const std::wstring& s : seen)
        EXPECT_EQ(_wcsnicmp(s.c_str(), upper.c_str(), upper.size()), 0);
    EXPECT_FALSE(ListsSelf(upper.substr(1), 1, &seen));
    // The name starts at position 2 of the filter.
    EXPECT_FALSE(ListsSelf(L"xx" + upper, 2, &seen));
    EXPECT_TRUE(ListsSelf(L"xx" + upper, 3, &seen));
    EXPECT_TRUE(ListsSelf(L"xx" + upper, 100000, &seen)) << "positions past the end are not read";
    EXPECT_EQ(PltGetProcessList(nullptr, 0, nullptr, nullptr), 87u);
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
BOOL WINAPI CountingClose(HANDLE handle) {
    ++g_closes;
    return CloseHandle(handle);
}

TEST(PltGetProcessList, SnapshotFailuresCloseTheSnapshot) {
    std::vector<std::wstring> seen;
    {
        zt::ImportHook hook("CreateToolhelp32Snapshot", reinterpret_cast<void*>(&FailingSnapshot));
        EXPECT_EQ(PltGetProcessList(nullptr, 0, Collect, &seen), 5u);
    }
    zt::ImportHook first("Process32FirstW", reinterpret_cast<void*>(&FailingFirst));
    zt::ImportHook close("CloseHandle", reinterpret_cast<void*>(&CountingClose));
    g_closes = 0;
    g_firstError = ERROR_NO_MORE_FILES;  // an empty snapshot is no failure
    EXPECT_EQ(PltGetProcessList(nullptr, 0, Collect, &seen), 0u);
    g_firstError = ERROR_BAD_LENGTH;
    EXPECT_EQ(PltGetProcessList(nullptr, 0, Collect, &seen), 24u);
    EXPECT_EQ(g_closes, 2);
    EXPECT_TRUE(seen.empty());
}

}  // namespace
