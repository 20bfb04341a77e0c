// Page size, system error texts and the event-log state word.
#include <zendra/platform.h>

#include "platform/status.h"

using namespace zendra;

namespace zendra {
// Written by PltInitEventLog and PltInit; nothing reads it, logging is not
// implemented in this build.
uint32_t g_eventLogState;
}  // namespace zendra

extern "C" PLT_STATUS PltGetMemoryPageSize(uint32_t* pageSize) {
    if (pageSize == nullptr) return kInvalidParameter;
    *pageSize = 4096;
    BOOL wow64 = FALSE;
    if (!IsWow64Process(GetCurrentProcess(), &wow64)) return GetLastError();
    SYSTEM_INFO info;
    if (wow64)
        GetNativeSystemInfo(&info);
    else
        GetSystemInfo(&info);
    *pageSize = info.dwPageSize;
    return kOk;
}

extern "C" PLT_STATUS PltGetSystemErrorMsg(uint32_t code, wchar_t* buffer, uint32_t* length) {
    const DWORD kFlags = FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;
    const DWORD kLanguage = 1024;  // neutral / default
    if (buffer != nullptr) {
        DWORD capacity = length != nullptr ? *length : 0;
        if (FormatMessageW(kFlags, nullptr, code, kLanguage, buffer, capacity, nullptr) == 0)
            return GetLastError();
        return kOk;
    }
    if (length != nullptr) *length = 0;
    wchar_t* text = nullptr;
    if (FormatMessageW(kFlags | FORMAT_MESSAGE_ALLOCATE_BUFFER, nullptr, code, kLanguage,
                       reinterpret_cast<wchar_t*>(&text), 0, nullptr) == 0)
        return GetLastError();
    if (length != nullptr) *length = static_cast<uint32_t>(lstrlenW(text));
    LocalFree(text);
    return kOk;
}

extern "C" PLT_STATUS PltInitEventLog(void) {
    __atomic_store_n(&g_eventLogState, 2u, __ATOMIC_SEQ_CST);
    return kOk;
}
