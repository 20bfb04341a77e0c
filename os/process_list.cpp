// Enumerating running processes from a snapshot.
#include <zendra/os.h>

#include <string.h>
#include <tlhelp32.h>
#include <wchar.h>

#include "platform/status.h"

using namespace zendra;

namespace {

// The filter is tried from each of its first `filterCount` character
// positions, never from past its terminator.
bool Matches(const wchar_t* name, const wchar_t* filter, uint32_t filterCount) {
    if (filter == nullptr || filterCount == 0) return true;
    size_t positions = wcslen(filter) + 1;
    if (filterCount < positions) positions = filterCount;
    for (size_t i = 0; i < positions; ++i)
        if (_wcsicmp(name, filter + i) == 0) return true;
    return false;
}

}  // namespace

extern "C" PLT_STATUS PltGetProcessList(const wchar_t* filter, uint32_t filterCount,
                                        PLT_PROCESS_CALLBACK callback, void* context) {
    if (callback == nullptr) return kInvalidParameter;
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (snapshot == INVALID_HANDLE_VALUE) return GetLastError();

    PROCESSENTRY32W process;
    process.dwSize = sizeof process;
    PLT_STATUS status = kOk;
    if (!Process32FirstW(snapshot, &process)) {
        status = GetLastError();
        if (status == kNoMoreFiles) status = kOk;
    } else {
        do {
            PLT_PROCESS_ENTRY entry;
            memset(&entry, 0, sizeof entry);
            wcsncpy(entry.name, process.szExeFile, PLT_PROCESS_NAME_CHARS);
            entry.processId = process.th32ProcessID;
            if (Matches(entry.name, filter, filterCount)) callback(&entry, context);
        } while (Process32NextW(snapshot, &process));
    }
    CloseHandle(snapshot);
    return status;
}
