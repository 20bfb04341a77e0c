// Opening a volume and finding the disk under one of its offsets.
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "platform/status.h"
#include "storage/volume.h"

namespace zendra {

namespace {

constexpr DWORD kGuidPathUnits = 128;
constexpr DWORD kLogicalToPhysical = 0x560020;  // IOCTL_VOLUME_LOGICAL_TO_PHYSICAL

// VOLUME_PHYSICAL_OFFSETS with room for one entry, which is 8-aligned.
struct PhysicalOffsets {
    uint32_t count;
    uint32_t padding;
    uint32_t diskNumber;  // of the first entry
    uint32_t entryPadding;
    int64_t offset;
};
static_assert(sizeof(PhysicalOffsets) == 24, "one physical offset");
static_assert(offsetof(PhysicalOffsets, diskNumber) == 8, "the entry follows the count");

}  // namespace

PLT_STATUS VolumeGuidPath(const wchar_t* name, wchar_t* guidPath, DWORD chars, uint32_t copyFlags) {
    if (name == nullptr || name[0] == L'\0') return kInvalidParameter;
    size_t length = wcslen(name);
    wchar_t root[4] = {name[0], L':', L'\\', L'\0'};
    const wchar_t* mountPoint = name;
    void* copy = nullptr;
    if (length < 4) {
        mountPoint = root;  // a drive letter: the rest is ignored
    } else if (name[length - 1] != L'\\') {
        if (length + 2 > UINT32_MAX / sizeof(wchar_t)) return kNoMemory;
        PLT_STATUS status =
            PltMalloc(&copy, static_cast<uint32_t>((length + 2) * sizeof(wchar_t)), copyFlags, 0);
        if (status != kOk) return status;
        auto* text = static_cast<wchar_t*>(copy);
        memcpy(text, name, length * sizeof(wchar_t));
        text[length] = L'\\';
        text[length + 1] = L'\0';
        mountPoint = text;
    }
    BOOL found = GetVolumeNameForVolumeMountPointW(mountPoint, guidPath, chars);
    DWORD error = found ? 0 : GetLastError();
    if (copy != nullptr) PltFree(&copy, 0);
    if (!found) return error;
    guidPath[chars - 1] = L'\0';
    return kOk;
}

PLT_STATUS OpenVolume(const wchar_t* name, HANDLE* volume) {
    *volume = INVALID_HANDLE_VALUE;
    wchar_t guidPath[kGuidPathUnits];
    PLT_STATUS status = VolumeGuidPath(name, guidPath, kGuidPathUnits, 0);
    if (status != kOk) return status;
    size_t guidLength = wcslen(guidPath);
    if (guidLength > 0) guidPath[guidLength - 1] = L'\0';  // its trailing backslash
    *volume =
        CreateFileW(guidPath, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    return *volume == INVALID_HANDLE_VALUE ? GetLastError() : kOk;
}

PLT_STATUS DiskOfOffset(HANDLE volume, int64_t logicalOffset, uint32_t* disk) {
    PhysicalOffsets answer;
    memset(&answer, 0, sizeof answer);
    DWORD returned = 0;
    if (!DeviceIoControl(volume, kLogicalToPhysical, &logicalOffset, sizeof logicalOffset, &answer,
                         sizeof answer, &returned, nullptr))
        return GetLastError();
    *disk = answer.count > 0 ? answer.diskNumber : 0xFFFFFFFFu;
    return kOk;
}

void FormatDiskName(wchar_t* out, size_t chars, uint32_t disk) {
    _snwprintf(out, chars, L"\\\\.\\PHYSICALDRIVE%d", static_cast<int>(disk));
    out[chars - 1] = L'\0';
}

}  // namespace zendra
