// PltEnumerateStorage: physical disks by number, or fixed volumes.
#include <stdio.h>
#include <string.h>

#include <zendra/storage.h>

#include "io/files_internal.h"
#include "platform/status.h"

using namespace zendra;

namespace {

constexpr uint32_t kDiskNumbers = 128;
constexpr size_t kDiskNameUnits = 32;
constexpr DWORD kVolumeUnits = 64;
constexpr DWORD kMountPathUnits = 128;

// Disks that open and are fixed, in number order; gaps do not end the scan.
// A filling call stops once its entries are used up.
PLT_STATUS ListDisks(PLT_STORAGE_ENTRY* entries, uint32_t* count) {
    uint32_t found = 0;
    for (uint32_t number = 0; number < kDiskNumbers; ++number) {
        if (*count != 0 && found == *count) break;
        wchar_t name[kDiskNameUnits + 1] = {};
        _snwprintf(name, kDiskNameUnits, L"\\\\.\\PHYSICALDRIVE%d", static_cast<int>(number));
        HANDLE disk = INVALID_HANDLE_VALUE;
        if (OpenCounted(name, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING,
                        FILE_ATTRIBUTE_NORMAL, &disk) != kOk)
            continue;
        size_t length = wcslen(name);
        name[length] = L'\\';
        bool fixed = GetDriveTypeW(name) == DRIVE_FIXED;
        name[length] = L'\0';
        if (fixed && entries != nullptr) {
            PLT_STORAGE_ENTRY* entry = &entries[found];
            memset(entry, 0, sizeof *entry);
            memcpy(entry->Name, name, length * sizeof(wchar_t));
            entry->DiskNumber = number;
            entry->Kind = PLT_STORAGE_DISK;
        }
        if (fixed) ++found;
        CloseUncheckedCounted(disk);
    }
    if (*count == 0) *count = found;
    return kOk;
}

// Fixed volumes with their mount paths. Running out of entries is an error
// here, unlike the disk scan.
PLT_STATUS ListVolumes(PLT_STORAGE_ENTRY* entries, uint32_t* count) {
    wchar_t path[kVolumeUnits];
    HANDLE search = FindFirstVolumeW(path, kVolumeUnits);
    if (search == INVALID_HANDLE_VALUE) return GetLastError();
    PLT_STATUS status = kOk;
    uint32_t found = 0;
    do {
        path[kVolumeUnits - 1] = L'\0';
        if (GetDriveTypeW(path) != DRIVE_FIXED) continue;
        if (entries != nullptr) {
            if (found == *count) {
                status = kNoMemory;
                break;
            }
            PLT_STORAGE_ENTRY* entry = &entries[found];
            memset(entry, 0, sizeof *entry);
            size_t length = wcslen(path);
            memcpy(entry->Name, path, (length > 0 ? length - 1 : 0) * sizeof(wchar_t));
            entry->Kind = PLT_STORAGE_VOLUME;
            DWORD listed = 0;
            // A list that does not fit is left out whole, never cut short.
            if (!GetVolumePathNamesForVolumeNameW(path, entry->DisplayName, kMountPathUnits,
                                                  &listed))
                memset(entry->DisplayName, 0, sizeof entry->DisplayName);
        }
        ++found;
    } while (FindNextVolumeW(search, path, kVolumeUnits));
    FindVolumeClose(search);
    if (status == kOk && *count == 0) *count = found;
    return status;
}

}  // namespace

extern "C" PLT_STATUS PltEnumerateStorage(PLT_STORAGE_ENTRY* entries, uint32_t* count,
                                          uint8_t volumes) {
    if (count == nullptr || (*count == 0) != (entries == nullptr)) return kInvalidParameter;
    return volumes != 0 ? ListVolumes(entries, count) : ListDisks(entries, count);
}
