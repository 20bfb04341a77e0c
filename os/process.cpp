// Starting and closing child processes.
#include <zendra/os.h>

#include <string.h>
#include <wchar.h>

#include "platform/counters.h"
#include "platform/status.h"

using namespace zendra;

namespace {

constexpr DWORD kChildWaitMs = 5000;
constexpr uint32_t kStillRunning = 0xFFFFFFFFu;

// One space before each argument, unquoted, up to the first null or empty
// one. False when the line would not fit with its terminator.
bool BuildCommandLine(const wchar_t** arguments, wchar_t (&line)[PLT_COMMAND_LINE_CHARS]) {
    size_t used = 0;
    line[0] = L'\0';
    for (const wchar_t** arg = arguments; *arg != nullptr && **arg != L'\0'; ++arg) {
        size_t length = wcslen(*arg);
        if (length + 1 >= PLT_COMMAND_LINE_CHARS - used) return false;
        line[used++] = L' ';
        memcpy(line + used, *arg, length * sizeof(wchar_t));
        used += length;
        line[used] = L'\0';
    }
    return true;
}

}  // namespace

extern "C" PLT_STATUS PltCreateProcess(const wchar_t* application, const wchar_t** arguments,
                                       uint8_t wait, uint32_t* exitCode, PLT_PROCESS** process) {
    if (process == nullptr || arguments == nullptr) return kInvalidParameter;
    *process = nullptr;
    wchar_t commandLine[PLT_COMMAND_LINE_CHARS];
    if (!BuildCommandLine(arguments, commandLine)) return kInvalidParameter;

    void* block = nullptr;
    if (PltMalloc(&block, sizeof(PLT_PROCESS), PLT_ALLOC_ZERO, 0) != kOk) return kNoMemory;
    auto* record = static_cast<PLT_PROCESS*>(block);

    // An all-zero start-up record, its size field included.
    STARTUPINFOW startup;
    memset(&startup, 0, sizeof startup);
    PROCESS_INFORMATION info;
    if (!CreateProcessW(application, commandLine, nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                        &startup, &info)) {
        // The record is not released on this path; callers have long lived
        // with that one small block.
        return GetLastError();
    }
    record->process = info.hProcess;
    record->thread = info.hThread;
    record->processId = info.dwProcessId;
    record->threadId = info.dwThreadId;
    *process = record;

    if (wait) {
        // A child still running is left running.
        DWORD code = kStillRunning;
        if (WaitForSingleObject(info.hProcess, kChildWaitMs) != WAIT_OBJECT_0 ||
            !GetExitCodeProcess(info.hProcess, &code))
            code = kStillRunning;
        if (exitCode != nullptr) *exitCode = code;
    }
    CountCreated(Pair::Process);
    return kOk;
}

extern "C" PLT_STATUS PltCloseProcess(PLT_PROCESS* process) {
    if (process == nullptr) return kInvalidParameter;
    if (!CloseHandle(process->process)) return GetLastError();
    if (!CloseHandle(process->thread)) return GetLastError();
    void* block = process;
    PLT_STATUS status = PltFree(&block, 0);
    if (status == kOk) CountDestroyed(Pair::Process);
    return status;
}
