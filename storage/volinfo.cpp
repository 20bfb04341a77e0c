// PltGetVolInfo: the partition and the disk under a volume.
#include <string.h>

#include <zendra/storage.h>

#include "platform/status.h"
#include "storage/volume.h"

using namespace zendra;

namespace {

constexpr DWORD kPartitionInfoEx = 0x70048;  // IOCTL_DISK_GET_PARTITION_INFO_EX
constexpr size_t kPartitionInfoBytes = 144;  // PARTITION_INFORMATION_EX
constexpr size_t kDiskNameLimit = 129;

PLT_STATUS Query(HANDLE volume, PLT_VOLINFO* info) {
    // StartingOffset at byte 8 and PartitionLength at byte 16 of the answer.
    int64_t partition[kPartitionInfoBytes / sizeof(int64_t)] = {};
    DWORD returned = 0;
    if (!DeviceIoControl(volume, kPartitionInfoEx, nullptr, 0, partition, sizeof partition,
                         &returned, nullptr))
        return GetLastError();
    info->StartingOffset = partition[1];
    info->PartitionLength = partition[2];
    info->Reserved = 0;
    uint32_t disk = 0;
    PLT_STATUS status = DiskOfOffset(volume, 1, &disk);
    if (status != kOk) return status;
    FormatDiskName(info->PhysicalDisk, kDiskNameLimit, disk);
    return kOk;
}

}  // namespace

extern "C" PLT_STATUS PltGetVolInfo(const wchar_t* volume, PLT_VOLINFO* info) {
    if (info == nullptr) return kInvalidParameter;
    HANDLE handle = INVALID_HANDLE_VALUE;
    PLT_STATUS status = OpenVolume(volume, &handle);
    if (status != kOk) return status;
    status = Query(handle, info);
    CloseHandle(handle);
    return status;
}
