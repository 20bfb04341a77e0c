// Starting, waiting for and closing child processes.
#include <string.h>
#include <windows.h>

#include <string>

#include <gtest/gtest.h>
#include <zendra/os.h>

#include "counters.h"
#include "heap_failure.h"
#include "import_hook.h"

namespace {

const wchar_t kCmd[] = L"C:\\windows\\system32\\cmd.exe";

std::wstring ChildPath() {
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring dir = path;
    return dir.substr(0, dir.rfind(L'\\') + 1) + L"os_test_child.exe";
}

// What the library handed to CreateProcessW.
struct Call {
    int count;
    std::wstring application;
    std::wstring commandLine;
    DWORD startupSize;
    BOOL inherit;
    DWORD flags;
    LPVOID environment;
    LPCWSTR directory;
    bool succeed;  // fake a started child instead of calling the system
};
Call g_call;

BOOL WINAPI RecordingCreateProcess(LPCWSTR application, LPWSTR commandLine, LPSECURITY_ATTRIBUTES,
                                   LPSECURITY_ATTRIBUTES, BOOL inherit, DWORD flags,
                                   LPVOID environment, LPCWSTR directory, LPSTARTUPINFOW startup,
                                   LPPROCESS_INFORMATION info) {
    ++g_call.count;
    g_call.application = application != nullptr ? application : L"<null>";
    g_call.commandLine = commandLine != nullptr ? commandLine : L"<null>";
    g_call.startupSize = startup->cb;
    g_call.inherit = inherit;
    g_call.flags = flags;
    g_call.environment = environment;
    g_call.directory = directory;
    if (!g_call.succeed) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return FALSE;
    }
    // Handles of this process and thread stand in for a child's.
    HANDLE self = GetCurrentProcess();
    DuplicateHandle(self, self, self, &info->hProcess, 0, FALSE, DUPLICATE_SAME_ACCESS);
    DuplicateHandle(self, GetCurrentThread(), self, &info->hThread, 0, FALSE,
                    DUPLICATE_SAME_ACCESS);
    info->dwProcessId = GetCurrentProcessId();
    info->dwThreadId = GetCurrentThreadId();
    return TRUE;
}

class FakeCreateProcess {
public:
    explicit FakeCreateProcess(bool succeed)
        : hook_("CreateProcessW", reinterpret_cast<void*>(&RecordingCreateProcess)) {
        g_call = Call();
        g_call.succeed = succeed;
    }

private:
    zt::ImportHook hook_;
};

TEST(PltCreateProcess, CommandLineIsASpaceBeforeEachArgument) {
    FakeCreateProcess fake(true);
    const wchar_t* args[] = {L"/c", L"dir /s", L"C:\\Windows\\System32", nullptr};
    PLT_PROCESS* process = nullptr;
    ASSERT_EQ(PltCreateProcess(L"app.exe", args, 0, nullptr, &process), 0u);
    EXPECT_EQ(g_call.application, L"app.exe");
    EXPECT_EQ(g_call.commandLine, L" /c dir /s C:\\Windows\\System32") << "unquoted, no app name";
    ASSERT_NE(process, nullptr);
    EXPECT_EQ(process->processId, GetCurrentProcessId());
    EXPECT_EQ(process->threadId, GetCurrentThreadId());
    EXPECT_EQ(PltCloseProcess(process), 0u);
}

TEST(PltCreateProcess, EmptyArgumentEndsTheList) {
    FakeCreateProcess fake(true);
    const wchar_t* args[] = {L"a", L"", L"b", nullptr};
    PLT_PROCESS* process = nullptr;
    ASSERT_EQ(PltCreateProcess(L"app.exe", args, 0, nullptr, &process), 0u);
    EXPECT_EQ(g_call.commandLine, L" a");
    EXPECT_EQ(PltCloseProcess(process), 0u);

    const wchar_t* none[] = {nullptr};
    ASSERT_EQ(PltCreateProcess(L"app.exe", none, 0, nullptr, &process), 0u);
    EXPECT_EQ(g_call.commandLine, L"");
    EXPECT_EQ(PltCloseProcess(process), 0u);
}

TEST(PltCreateProcess, PassesAZeroStartupRecordAndNothingInherited) {
    FakeCreateProcess fake(true);
    const wchar_t* args[] = {L"x", nullptr};
    PLT_PROCESS* process = nullptr;
    ASSERT_EQ(PltCreateProcess(L"app.exe", args, 0, nullptr, &process), 0u);
    EXPECT_EQ(g_call.startupSize, 0u) << "the size field is zero too";
    EXPECT_FALSE(g_call.inherit);
    EXPECT_EQ(g_call.flags, 0u);
    EXPECT_EQ(g_call.environment, nullptr);
    EXPECT_EQ(g_call.directory, nullptr);
    EXPECT_EQ(PltCloseProcess(process), 0u);
}

TEST(PltCreateProcess, CommandLineNeverExceeds2048Characters) {
    FakeCreateProcess fake(true);
    PLT_RESOURCE_STATS before = zt::Snapshot();
    // One space and 2046 characters: 2047 and the terminator fill the line.
    std::wstring longest(2046, L'x');
    const wchar_t* fits[] = {longest.c_str(), nullptr};
    PLT_PROCESS* process = nullptr;
    ASSERT_EQ(PltCreateProcess(L"app.exe", fits, 0, nullptr, &process), 0u);
    EXPECT_EQ(g_call.commandLine.size(), 2047u);
    EXPECT_EQ(PltCloseProcess(process), 0u);

    // One character more is refused before anything is allocated or started.
    std::wstring tooLong(2047, L'x');
    const wchar_t* over[] = {tooLong.c_str(), nullptr};
    process = reinterpret_cast<PLT_PROCESS*>(1);
    EXPECT_EQ(PltCreateProcess(L"app.exe", over, 0, nullptr, &process), 87u);
    EXPECT_EQ(process, nullptr);
    std::wstring half(1023, L'y');
    const wchar_t* many[] = {half.c_str(), half.c_str(), L"z", nullptr};
    EXPECT_EQ(PltCreateProcess(L"app.exe", many, 0, nullptr, &process), 87u);
    EXPECT_EQ(g_call.count, 1);
    EXPECT_NO_LEAKS(before);
}

TEST(PltCreateProcess, MissingOutputsAndNoMemory) {
    FakeCreateProcess fake(true);
    const wchar_t* args[] = {L"x", nullptr};
    PLT_PROCESS* process = nullptr;
    EXPECT_EQ(PltCreateProcess(L"app.exe", args, 0, nullptr, nullptr), 87u);
    EXPECT_EQ(PltCreateProcess(L"app.exe", nullptr, 0, nullptr, &process), 87u);
    PLT_RESOURCE_STATS before = zt::Snapshot();
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(PltCreateProcess(L"app.exe", args, 0, nullptr, &process), 8u);
    }
    EXPECT_EQ(g_call.count, 0) << "nothing started without a record";
    EXPECT_EQ(process, nullptr);
    EXPECT_NO_LEAKS(before);
}

TEST(PltCreateProcess, FailureReturnsTheErrorAndKeepsTheRecord) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    const wchar_t* args[] = {L"x", nullptr};
    PLT_PROCESS* process = reinterpret_cast<PLT_PROCESS*>(1);
    EXPECT_EQ(PltCreateProcess(L"C:\\windows\\no_such_program.exe", args, 1, nullptr, &process),
              static_cast<uint32_t>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(process, nullptr);
    // The 24-byte untagged record is not released on this path.
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.LiveAllocCount, 1u);
    EXPECT_EQ(d.LiveAllocBytes, 24u);
    EXPECT_EQ(d.UntaggedAllocCount, 1u);
    EXPECT_EQ(d.ProcessCount, 0u);
    EXPECT_EQ(d.LiveProcessCount, 0u);
}

TEST(PltCreateProcess, CmdExitCodeComesBackWhenWaiting) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    const wchar_t* args[] = {L"/c", L"exit", L"7", nullptr};
    PLT_PROCESS* process = nullptr;
    uint32_t exitCode = 0;
    ASSERT_EQ(PltCreateProcess(kCmd, args, 1, &exitCode, &process), 0u);
    ASSERT_NE(process, nullptr);
    EXPECT_EQ(exitCode, 7u);
    EXPECT_EQ(GetProcessId(process->process), process->processId);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.ProcessCount, 1u);
    EXPECT_EQ(d.LiveProcessCount, 1u);
    EXPECT_EQ(d.UntaggedAllocCount, 1u);
    EXPECT_EQ(d.LiveAllocBytes, 24u);
    EXPECT_EQ(PltCloseProcess(process), 0u);
    EXPECT_NO_LEAKS(before);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).ProcessCount, 1u);
}

TEST(PltCreateProcess, WithoutWaitTheExitCodeIsNotTouched) {
    std::wstring child = ChildPath();
    const wchar_t* args[] = {L"exit", L"3", nullptr};
    PLT_PROCESS* process = nullptr;
    uint32_t exitCode = 1234;
    ASSERT_EQ(PltCreateProcess(child.c_str(), args, 0, &exitCode, &process), 0u);
    EXPECT_EQ(exitCode, 1234u);
    ASSERT_EQ(WaitForSingleObject(process->process, 30000), WAIT_OBJECT_0);
    DWORD code = 0;
    GetExitCodeProcess(process->process, &code);
    EXPECT_EQ(code, 3u);
    EXPECT_EQ(PltCloseProcess(process), 0u);
}

TEST(PltCreateProcess, ChildOutlivingTheWaitGivesAllOnesAndKeepsRunning) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    std::wstring child = ChildPath();
    const wchar_t* args[] = {L"sleep", L"60000", L"exit", L"5", nullptr};
    PLT_PROCESS* process = nullptr;
    uint32_t exitCode = 0;
    DWORD start = GetTickCount();
    ASSERT_EQ(PltCreateProcess(child.c_str(), args, 1, &exitCode, &process), 0u);
    DWORD waited = GetTickCount() - start;
    EXPECT_EQ(exitCode, 0xFFFFFFFFu);
    EXPECT_GE(waited, 4900u);
    EXPECT_EQ(WaitForSingleObject(process->process, 0), static_cast<DWORD>(WAIT_TIMEOUT))
        << "the child is left running";
    EXPECT_TRUE(TerminateProcess(process->process, 9));
    WaitForSingleObject(process->process, 10000);
    EXPECT_EQ(PltCloseProcess(process), 0u);
    EXPECT_NO_LEAKS(before);
}

TEST(PltCreateProcess, WaitWithoutExitCodePointer) {
    const wchar_t* args[] = {L"/c", L"exit", L"0", nullptr};
    PLT_PROCESS* process = nullptr;
    ASSERT_EQ(PltCreateProcess(kCmd, args, 1, nullptr, &process), 0u);
    EXPECT_EQ(PltCloseProcess(process), 0u);
}

TEST(PltCloseProcess, NullAndBadHandles) {
    EXPECT_EQ(PltCloseProcess(nullptr), 87u);
    // A failing close returns its error before the record is freed: this
    // record is not a heap block, so freeing it would not go unnoticed.
    PLT_PROCESS bogus = {nullptr, nullptr, 0, 0};
    EXPECT_EQ(PltCloseProcess(&bogus), static_cast<uint32_t>(ERROR_INVALID_HANDLE));
}

}  // namespace
