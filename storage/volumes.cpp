// PltGetVolumes and the fixed-volume list behind it.
#include <stdio.h>
#include <string.h>

#include "platform/status.h"
#include "storage/volume.h"

using namespace zendra;

namespace {

constexpr DWORD kSearchUnits = 512;
constexpr DWORD kTextUnits = 128;
constexpr size_t kDiskNameLimit = 129;
constexpr size_t kFileSystemLimit = 16;
constexpr size_t kVolumeNameUnits = 256;

template <size_t N>
void CopyText(wchar_t (&field)[N], const wchar_t* text, size_t limit) {
    wcsncpy(field, text, limit - 1);
    field[limit - 1] = L'\0';
}

// Label, file system and space of one volume; false when the volume has no
// readable information and is left out.
bool Describe(const wchar_t* path, const wchar_t* diskName, PLT_VOLUME_ENTRY* entry) {
    memset(entry, 0, sizeof *entry);
    CopyText(entry->PhysicalDisk, diskName, kDiskNameLimit);
    wchar_t label[kTextUnits] = {}, fileSystem[kTextUnits] = {};
    if (!GetVolumeInformationW(path, label, kTextUnits, nullptr, nullptr, nullptr, fileSystem,
                               kTextUnits))
        return false;
    label[kTextUnits - 1] = fileSystem[kTextUnits - 1] = L'\0';
    CopyText(entry->FileSystem, fileSystem, kFileSystemLimit);
    CopyText(entry->Label, label, kTextUnits);
    CopyText(entry->VolumeName, path, kVolumeNameUnits);
    if (label[0] != L'\0') {
        _snwprintf(entry->DisplayName, kTextUnits, L"%ls (%ls) ", label, fileSystem);
        entry->DisplayName[kTextUnits - 1] = L'\0';
    }
    ULARGE_INTEGER available, total, free;
    if (GetDiskFreeSpaceExW(path, &available, &total, &free)) {
        entry->TotalBytes = total.QuadPart;
        entry->FreeBytes = free.QuadPart;
    }
    return true;
}

// The disk name of a fixed volume that opens and maps; false otherwise.
bool DiskNameOf(const wchar_t* path, wchar_t* diskName) {
    if (GetDriveTypeW(path) != DRIVE_FIXED) return false;
    HANDLE volume = INVALID_HANDLE_VALUE;
    if (OpenVolume(path, &volume) != kOk) return false;
    uint32_t disk = 0;
    PLT_STATUS status = DiskOfOffset(volume, 1, &disk);
    CloseHandle(volume);
    if (status != kOk) return false;
    FormatDiskName(diskName, kDiskNameLimit, disk);
    return true;
}

}  // namespace

namespace zendra {

PLT_STATUS ListFixedVolumes(const wchar_t* filter, PLT_VOLUME_ENTRY* records, uint32_t capacity,
                            uint32_t* found) {
    *found = 0;
    wchar_t path[kSearchUnits];
    HANDLE search = FindFirstVolumeW(path, kSearchUnits);
    if (search == INVALID_HANDLE_VALUE) return kOk;  // nothing to list is not an error
    uint32_t counted = 0;
    do {
        path[kSearchUnits - 2] = L'\0';  // room for the backslash below
        size_t length = wcslen(path);
        if (length == 0 || path[length - 1] != L'\\') path[length] = L'\\', path[length + 1] = 0;
        wchar_t diskName[kDiskNameLimit];
        if (!DiskNameOf(path, diskName)) continue;
        PLT_VOLUME_ENTRY entry;
        if (records != nullptr && !Describe(path, diskName, &entry)) continue;
        if (filter != nullptr && wcscmp(diskName, filter) != 0) continue;
        if (records != nullptr && counted < capacity) records[counted] = entry;
        ++counted;
    } while (FindNextVolumeW(search, path, kSearchUnits));
    DWORD error = GetLastError();
    FindVolumeClose(search);
    *found = counted;
    return error == ERROR_NO_MORE_FILES ? kOk : error;
}

}  // namespace zendra

extern "C" PLT_STATUS PltGetVolumes(const wchar_t* diskNumberText, PLT_VOLUME_LIST** list) {
    if (list == nullptr) return kInvalidParameter;
    *list = nullptr;
    // Measured without the filter: the block may be larger than needed.
    uint32_t count = 0;
    PLT_STATUS status = ListFixedVolumes(nullptr, nullptr, 0, &count);
    if (status != kOk) return status;
    uint64_t bytes = uint64_t{count} * sizeof(PLT_VOLUME_ENTRY) + sizeof(PLT_VOLUME_LIST);
    if (bytes > UINT32_MAX - sizeof(uint64_t)) return kNoMemory;
    void* block = nullptr;
    status = PltMalloc(&block, static_cast<uint32_t>(bytes), PLT_ALLOC_ZERO, 0);
    if (status != kOk) return status;
    auto* volumes = static_cast<PLT_VOLUME_LIST*>(block);
    wchar_t filter[kDiskNameLimit];
    if (diskNumberText != nullptr) {
        _snwprintf(filter, kDiskNameLimit - 1, L"\\\\.\\PHYSICALDRIVE%ls", diskNumberText);
        filter[kDiskNameLimit - 1] = L'\0';
    }
    uint32_t found = 0;
    status = ListFixedVolumes(diskNumberText != nullptr ? filter : nullptr, volumes->Entries, count,
                              &found);
    if (status != kOk) {
        PltFree(&block, 0);
        return status;
    }
    // Volumes that appeared since the count are not in the block: Count says
    // only what was written.
    volumes->Count = found < count ? found : count;
    *list = volumes;
    return kOk;
}
