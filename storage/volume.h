// Opening a volume by drive letter, mount path or volume GUID path, and the
// disk that holds one of its byte offsets.
#pragma once

#include <zendra/platform.h>

namespace zendra {

// The volume's GUID path (without its trailing backslash) opened for reading
// and writing. The handle is not counted; the caller closes it with
// CloseHandle. INVALID_PARAMETER for a null or empty name; the status of the
// working copy's allocation; the name look-up's or the open's error.
PLT_STATUS OpenVolume(const wchar_t* name, HANDLE* volume);

// The disk number of a logical offset of an open volume, 0xFFFFFFFF when the
// offset maps to no disk; the control call's error.
PLT_STATUS DiskOfOffset(HANDLE volume, int64_t logicalOffset, uint32_t* disk);

}  // namespace zendra
