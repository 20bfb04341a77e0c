// Questions about one volume: its canonical name, free space, size and file
// system, allocation unit, and the disk under one of its offsets.
#include <stdio.h>
#include <string.h>

#include "platform/status.h"
#include "storage/volume.h"

using namespace zendra;

namespace {

constexpr uint32_t kNormalizedFloor = 48;  // a GUID path without its backslash
constexpr size_t kRootUnits = MAX_PATH;
constexpr size_t kFileSystemCopy = 128;

PLT_STATUS DiskUnder(const wchar_t* volume, int64_t logicalOffset, uint32_t* disk) {
    HANDLE handle = INVALID_HANDLE_VALUE;
    PLT_STATUS status = OpenVolume(volume, &handle);
    if (status != kOk) return status;
    status = DiskOfOffset(handle, logicalOffset, disk);
    CloseHandle(handle);
    return status;
}

}  // namespace

extern "C" PLT_STATUS PltNormalizeVolumeName(const wchar_t* name, wchar_t* out, uint32_t outChars) {
    if (name == nullptr || out == nullptr) return kInvalidParameter;
    if (outChars < kNormalizedFloor) return kNoMemory;
    PLT_STATUS status = VolumeGuidPath(name, out, outChars, PLT_ALLOC_ZERO);
    if (status != kOk) return status;
    size_t length = wcslen(out);
    if (length > 0 && out[length - 1] == L'\\') out[length - 1] = L'\0';
    return kOk;
}

extern "C" PLT_STATUS PltGetVolumeFreeSpace(const wchar_t* root, uint64_t* freeBytes) {
    if (root == nullptr || freeBytes == nullptr) return kInvalidParameter;
    *freeBytes = 0;
    ULARGE_INTEGER available;
    if (!GetDiskFreeSpaceExW(root, &available, nullptr, nullptr)) return GetLastError();
    *freeBytes = available.QuadPart;
    return kOk;
}

extern "C" PLT_STATUS PltGetVolumeInfo(const wchar_t* root, PLT_VOLUME_SPACE* info) {
    if (root == nullptr || info == nullptr) return kInvalidParameter;
    // The working copy holds MAX_PATH characters with the backslash and the
    // terminator; a longer root is refused rather than cut.
    size_t length = wcsnlen(root, kRootUnits);
    bool slashed = length > 0 && root[length - 1] == L'\\';
    if (length + (slashed ? 0 : 1) >= kRootUnits) return kInvalidParameter;
    wchar_t path[kRootUnits];
    memcpy(path, root, length * sizeof(wchar_t));
    if (!slashed) path[length++] = L'\\';
    path[length] = L'\0';
    memset(info, 0, sizeof *info);
    ULARGE_INTEGER available, total;
    if (!GetDiskFreeSpaceExW(path, &available, &total, nullptr)) return GetLastError();
    info->TotalBytes = total.QuadPart;
    info->FreeBytesAvailable = available.QuadPart;
    info->UsedBytes = total.QuadPart - available.QuadPart;
    wchar_t fileSystem[kRootUnits] = {};
    if (!GetVolumeInformationW(path, nullptr, 0, nullptr, nullptr, nullptr, fileSystem, kRootUnits))
        return GetLastError();
    wcsncpy(info->FileSystem, fileSystem, kFileSystemCopy);
    info->FileSystem[kFileSystemCopy] = L'\0';
    return kOk;
}

extern "C" PLT_STATUS PltGetDiskAllocationUnitInfo(const wchar_t* path, uint32_t* clusterBytes,
                                                   uint32_t* sectorBytes) {
    if (path == nullptr) return kInvalidParameter;
    wchar_t root[4] = {path[0], L':', L'\\', L'\0'};
    // A drive-qualified path is asked as its root: C:\dir is queried as C:\.
    bool drive = path[0] != L'\0' && (path[1] == L':' || path[1] == L'\0');
    DWORD sectorsPerCluster = 0, bytesPerSector = 0, freeClusters = 0, clusters = 0;
    if (!GetDiskFreeSpaceW(drive ? root : path, &sectorsPerCluster, &bytesPerSector, &freeClusters,
                           &clusters))
        return GetLastError();
    if (clusterBytes != nullptr) *clusterBytes = sectorsPerCluster * bytesPerSector;
    if (sectorBytes != nullptr) *sectorBytes = bytesPerSector;
    return kOk;
}

extern "C" PLT_STATUS PltGetPhysicalDiskNumber(const wchar_t* volume, int64_t logicalOffset,
                                               uint32_t* diskNumber) {
    if (diskNumber == nullptr) return kInvalidParameter;
    *diskNumber = 0xFFFFFFFFu;
    return DiskUnder(volume, logicalOffset, diskNumber);
}

extern "C" PLT_STATUS PltGetPhysicalDisk(const wchar_t* volume, int64_t logicalOffset, wchar_t* out,
                                         uint32_t outChars) {
    if (out == nullptr || outChars == 0) return kInvalidParameter;
    uint32_t disk = 0;
    PLT_STATUS status = DiskUnder(volume, logicalOffset, &disk);
    if (status == kOk) FormatDiskName(out, outChars, disk);
    return status;
}
