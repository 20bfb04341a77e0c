// Volume walks for the self-checks: how many volumes there are, the first
// one's name, and the disk extents of one.
#include <string.h>

#include "io/files_internal.h"
#include "platform/status.h"
#include "storage/volume.h"

namespace zendra {

namespace {

constexpr DWORD kWalkUnits = MAX_PATH;
constexpr DWORD kDiskExtents = 0x560000;  // IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS
constexpr size_t kDevicePathUnits = 128;

// VOLUME_DISK_EXTENTS: a count, then {DiskNumber, StartingOffset,
// ExtentLength} entries from byte 8.
struct DiskExtent {
    uint32_t diskNumber;
    uint32_t padding;
    int64_t startingOffset;
    int64_t extentLength;
};
static_assert(sizeof(DiskExtent) == 24, "one disk extent");
constexpr uint32_t kExtentsHeader = 8;
constexpr uint32_t kOneExtentBytes = 32;

PLT_STATUS Extents(HANDLE device, uint32_t* count, PLT_VOLUME_EXTENT* extent,
                   uint64_t* totalBytes) {
    uint64_t want = *count <= 1 ? kOneExtentBytes : uint64_t{*count} * sizeof(DiskExtent) + 32;
    if (want > UINT32_MAX - sizeof(uint64_t)) return kNoMemory;
    void* block = nullptr;
    PLT_STATUS status = PltMalloc(&block, static_cast<uint32_t>(want), PLT_ALLOC_ZERO, 0);
    if (status != kOk) return status;
    DWORD returned = 0;
    if (!DeviceIoControl(device, kDiskExtents, nullptr, 0, block, static_cast<DWORD>(want),
                         &returned, nullptr))
        status = GetLastError();
    auto* bytes = static_cast<const uint8_t*>(block);
    uint32_t listed = 0;
    memcpy(&listed, bytes, sizeof listed);
    if (*count == 0) {
        if (status == kMoreData) status = kOk;  // only the number was asked
        if (status == kOk) *count = listed;
    } else if (status == kOk) {
        // Only the extents the answer holds, whatever its count claims.
        uint32_t held = returned > kExtentsHeader ? (returned - kExtentsHeader) / 24 : 0;
        if (held > *count) held = *count;
        for (uint32_t i = 0; i < listed && i < held; ++i) {
            DiskExtent e;
            memcpy(&e, bytes + kExtentsHeader + i * sizeof e, sizeof e);
            extent->DiskNumber = e.diskNumber;
            extent->StartingOffset = e.startingOffset;
            extent->ExtentLength = e.extentLength;
            *totalBytes += static_cast<uint64_t>(e.extentLength);
        }
    }
    PltFree(&block, 0);
    return status;
}

}  // namespace

PLT_STATUS CountVolumes(uint32_t* count) {
    if (count == nullptr) return kInvalidParameter;
    *count = 0xFFFFFFFFu;
    wchar_t name[kWalkUnits];
    uint32_t seen = 0;
    HANDLE search = FindFirstVolumeW(name, kWalkUnits);
    DWORD error = ERROR_NO_MORE_FILES;
    if (search != INVALID_HANDLE_VALUE) {
        do ++seen;
        while (FindNextVolumeW(search, name, kWalkUnits));
        error = GetLastError();
        FindVolumeClose(search);
    } else {
        error = GetLastError();
    }
    if (error != ERROR_NO_MORE_FILES) return error;
    *count = seen;
    return kOk;
}

PLT_STATUS FirstVolumeName(wchar_t* name, uint32_t* chars) {
    if (chars == nullptr) return kInvalidParameter;
    wchar_t first[kWalkUnits];
    HANDLE search = FindFirstVolumeW(first, kWalkUnits);
    if (search == INVALID_HANDLE_VALUE) return GetLastError();
    FindVolumeClose(search);
    first[kWalkUnits - 1] = L'\0';
    uint32_t needed = static_cast<uint32_t>(wcslen(first)) + 1;
    if (name == nullptr || needed > *chars) {
        *chars = needed;
        return name == nullptr ? kOk : kNoMemory;
    }
    memcpy(name, first, needed * sizeof(wchar_t));
    return kOk;
}

PLT_STATUS VolumeDiskExtents(const wchar_t* volume, uint32_t* count, PLT_VOLUME_EXTENT* extent,
                             uint64_t* totalBytes) {
    if (volume == nullptr || count == nullptr || extent == nullptr || totalBytes == nullptr)
        return kInvalidParameter;
    size_t length = wcslen(volume);
    if (length > 0 && volume[length - 1] == L'\\') --length;
    if (4 + length + 1 > kDevicePathUnits) return kInvalidParameter;
    wchar_t path[kDevicePathUnits] = L"\\\\.\\";
    memcpy(path + 4, volume, length * sizeof(wchar_t));
    path[4 + length] = L'\0';
    HANDLE device = INVALID_HANDLE_VALUE;
    PLT_STATUS status = OpenCounted(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, &device);
    if (status != kOk) return status;
    status = Extents(device, count, extent, totalBytes);
    CloseUncheckedCounted(device);
    return status;
}

}  // namespace zendra
