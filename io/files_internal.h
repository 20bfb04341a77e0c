// Counted file handles, shared by the file calls, the device layer and the
// extent map.
#pragma once

#include <zendra/platform.h>

namespace zendra {

// CreateFileW; a handle it returns counts in the file pair. *file is all ones
// on failure, and the error is returned.
PLT_STATUS OpenCounted(const wchar_t* path, DWORD access, DWORD share, DWORD disposition,
                       DWORD flags, HANDLE* file);
// Closes a handle of OpenCounted on a way out whose result nobody reads.
void CloseUncheckedCounted(HANDLE file);

}  // namespace zendra
