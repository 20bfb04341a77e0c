// Environment variables of the process.
#include <zendra/os.h>

#include "platform/status.h"

using namespace zendra;

extern "C" PLT_STATUS PltGetEnvironmentVariable(const wchar_t* name, wchar_t* buffer,
                                                uint32_t* size) {
    if (name == nullptr) return kInvalidParameter;
    // An empty value also reads as 0 characters; a cleared last error tells
    // it from a failure.
    SetLastError(ERROR_SUCCESS);
    if (buffer != nullptr) {
        // A buffer too small is not reported: the call answers with the size
        // it needs and fills nothing, and *size is left as it was.
        DWORD n = GetEnvironmentVariableW(name, buffer, size != nullptr ? *size : 0);
        return n == 0 ? GetLastError() : kOk;
    }
    DWORD needed = GetEnvironmentVariableW(name, nullptr, 0);
    if (needed == 0) return GetLastError();
    if (size != nullptr) *size = needed;
    return kOk;
}
