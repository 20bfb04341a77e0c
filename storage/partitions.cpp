// The used partitions of a physical disk, by handle or by name.
#include <stdio.h>
#include <string.h>

#include <zendra/storage.h>
#include <winioctl.h>

#include "io/files_internal.h"
#include "platform/status.h"

using namespace zendra;

namespace {

constexpr uint32_t kLayoutTag = PLT_TAG('Q', 'Z', 'D', 'L');
constexpr uint32_t kLayoutBytes = 32768;
constexpr size_t kPathUnits = 128;
constexpr size_t kDevicePathCopy = 64;  // characters taken from a caller's device path
constexpr size_t kLayoutHeader = offsetof(DRIVE_LAYOUT_INFORMATION_EX, PartitionEntry);

bool Used(const PARTITION_INFORMATION_EX& p) {
    return p.PartitionStyle != PARTITION_STYLE_MBR || p.Mbr.PartitionType != 0;
}

void Write(const PARTITION_INFORMATION_EX& p, PLT_PARTITION_ENTRY* entry) {
    entry->Style = p.PartitionStyle == PARTITION_STYLE_MBR   ? PLT_PARTITION_MBR
                   : p.PartitionStyle == PARTITION_STYLE_GPT ? PLT_PARTITION_GPT
                                                             : PLT_PARTITION_NEITHER;
    entry->PartitionLength = p.PartitionLength.QuadPart;
    entry->StartingOffset = p.StartingOffset.QuadPart;
    entry->PartitionNumber = p.PartitionNumber;
    entry->RewritePartition = p.RewritePartition;
    if (p.PartitionStyle == PARTITION_STYLE_MBR) entry->PartitionType.Mbr = p.Mbr.PartitionType;
    if (p.PartitionStyle == PARTITION_STYLE_GPT) entry->PartitionType.Gpt = p.Gpt.PartitionType;
}

PLT_STATUS FromLayout(HANDLE disk, void* buffer, uint32_t* count, PLT_PARTITION_ENTRY* entries) {
    DWORD returned = 0;
    if (!DeviceIoControl(disk, IOCTL_DISK_GET_DRIVE_LAYOUT_EX, nullptr, 0, buffer, kLayoutBytes,
                         &returned, nullptr))
        return GetLastError();
    const auto* layout = static_cast<const DRIVE_LAYOUT_INFORMATION_EX*>(buffer);
    // Only entries that lie inside what the device returned, whatever count
    // it claims.
    if (returned > kLayoutBytes) returned = kLayoutBytes;
    size_t held = returned > kLayoutHeader
                      ? (returned - kLayoutHeader) / sizeof(PARTITION_INFORMATION_EX)
                      : 0;
    size_t listed = layout->PartitionCount < held ? layout->PartitionCount : held;
    uint32_t used = 0;
    for (size_t i = 0; i < listed; ++i) used += Used(layout->PartitionEntry[i]);
    if (entries == nullptr) {
        *count = used;
        return kOk;
    }
    if (*count < used) return kNoMemory;
    for (size_t i = 0, next = 0; i < listed; ++i)
        if (Used(layout->PartitionEntry[i])) Write(layout->PartitionEntry[i], &entries[next++]);
    return kOk;
}

}  // namespace

extern "C" PLT_STATUS PltGetPartitionInfoByHandle(HANDLE disk, uint32_t* count,
                                                  PLT_PARTITION_ENTRY* entries) {
    if (count == nullptr || disk == nullptr || disk == INVALID_HANDLE_VALUE)
        return kInvalidParameter;
    void* buffer = nullptr;
    if (PltMalloc(&buffer, kLayoutBytes, PLT_ALLOC_ZERO, kLayoutTag) != kOk) return kNoMemory;
    PLT_STATUS status = FromLayout(disk, buffer, count, entries);
    PltFree(&buffer, kLayoutTag);
    return status;
}

extern "C" PLT_STATUS PltGetPartitionInfoByName(const wchar_t* disk, uint32_t* count,
                                                PLT_PARTITION_ENTRY* entries) {
    if (disk == nullptr || count == nullptr) return kInvalidParameter;
    wchar_t path[kPathUnits] = {};
    if (wcschr(disk, L'\\') != nullptr) {
        // A device path: read up to its terminator, at most the path's share.
        memcpy(path, disk, wcsnlen(disk, kDevicePathCopy) * sizeof(wchar_t));
    } else {
        _snwprintf(path, kPathUnits, L"\\\\.\\PHYSICALDRIVE%ls", disk);
        path[kPathUnits - 1] = L'\0';
    }
    HANDLE device = INVALID_HANDLE_VALUE;
    PLT_STATUS status = OpenCounted(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, &device);
    if (status != kOk) return status;
    status = PltGetPartitionInfoByHandle(device, count, entries);
    CloseUncheckedCounted(device);
    return status;
}
