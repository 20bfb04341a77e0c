// Volume and disk listings on the simulated three-disk machine, beside the
// Win32 calls they are made of. The simulation serves this program's imports
// as well as the library's, so both sides pay the same for every call.
#include <stdio.h>
#include <string.h>

#include <vector>

#include <zendra/sim.h>
#include <zendra/storage.h>

#include "bench.h"

namespace {

namespace sim = zendra::sim;

constexpr DWORD kLogicalToPhysical = 0x560020;  // IOCTL_VOLUME_LOGICAL_TO_PHYSICAL
constexpr uint32_t kDiskNumbers = 128;

// The simulation for one row: every call it records stays until it ends, so
// each row starts afresh.
struct Machine {
    sim::Simulation simulation{sim::ThreeDiskMachine()};
    Machine() { simulation.Serve(L"zendra_bench.exe"); }
};

// VOLUME_PHYSICAL_OFFSETS with room for one entry.
struct PhysicalOffsets {
    uint32_t count, padding, diskNumber, entryPadding;
    int64_t offset;
};

// PltGetVolumes' work in one walk: each fixed volume that opens and maps to
// a disk, with its label, file system and space.
uint32_t Win32Volumes(std::vector<PLT_VOLUME_ENTRY>& out) {
    out.clear();
    wchar_t path[512];
    HANDLE search = FindFirstVolumeW(path, 512);
    if (search == INVALID_HANDLE_VALUE) return 0;
    do {
        if (GetDriveTypeW(path) != DRIVE_FIXED) continue;
        wchar_t device[512];
        wcscpy(device, path);
        device[wcslen(device) - 1] = L'\0';  // opened without its trailing backslash
        HANDLE volume =
            CreateFileW(device, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                        nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (volume == INVALID_HANDLE_VALUE) continue;
        int64_t logical = 1;
        PhysicalOffsets where = {};
        DWORD returned = 0;
        BOOL mapped = DeviceIoControl(volume, kLogicalToPhysical, &logical, sizeof logical, &where,
                                      sizeof where, &returned, nullptr);
        CloseHandle(volume);
        if (!mapped) continue;
        PLT_VOLUME_ENTRY e = {};
        _snwprintf(e.PhysicalDisk, 128, L"\\\\.\\PHYSICALDRIVE%d",
                   where.count > 0 ? static_cast<int>(where.diskNumber) : -1);
        wchar_t fileSystem[128];
        if (!GetVolumeInformationW(path, e.Label, 128, nullptr, nullptr, nullptr, fileSystem, 128))
            continue;
        wcsncpy(e.FileSystem, fileSystem, 15);
        wcsncpy(e.VolumeName, path, 255);
        if (e.Label[0] != L'\0') _snwprintf(e.DisplayName, 127, L"%ls (%ls) ", e.Label, fileSystem);
        ULARGE_INTEGER available, total, free;
        if (GetDiskFreeSpaceExW(path, &available, &total, &free))
            e.TotalBytes = total.QuadPart, e.FreeBytes = free.QuadPart;
        out.push_back(e);
    } while (FindNextVolumeW(search, path, 512));
    FindVolumeClose(search);
    return static_cast<uint32_t>(out.size());
}

// The disk scan: each of the 128 disk names opened, and kept when its root
// is a fixed drive.
uint32_t Win32Disks(PLT_STORAGE_ENTRY* entries) {
    uint32_t found = 0;
    for (uint32_t number = 0; number < kDiskNumbers; ++number) {
        wchar_t name[40];
        int length = _snwprintf(name, 38, L"\\\\.\\PHYSICALDRIVE%u", number);
        HANDLE disk = CreateFileW(name, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (disk == INVALID_HANDLE_VALUE) continue;
        name[length] = L'\\', name[length + 1] = L'\0';
        bool fixed = GetDriveTypeW(name) == DRIVE_FIXED;
        CloseHandle(disk);
        if (!fixed) continue;
        name[length] = L'\0';
        PLT_STORAGE_ENTRY& e = entries[found++];
        memset(&e, 0, sizeof e);
        wcscpy(e.Name, name);
        e.DiskNumber = number;
    }
    return found;
}

// The fixed volumes with their mount paths.
uint32_t Win32VolumeNames(PLT_STORAGE_ENTRY* entries) {
    wchar_t path[64];
    HANDLE search = FindFirstVolumeW(path, 64);
    if (search == INVALID_HANDLE_VALUE) return 0;
    uint32_t found = 0;
    do {
        if (GetDriveTypeW(path) != DRIVE_FIXED) continue;
        PLT_STORAGE_ENTRY& e = entries[found++];
        memset(&e, 0, sizeof e);
        wcsncpy(e.Name, path, wcslen(path) - 1);
        e.Kind = PLT_STORAGE_VOLUME;
        DWORD listed = 0;
        if (!GetVolumePathNamesForVolumeNameW(path, e.DisplayName, 128, &listed))
            memset(e.DisplayName, 0, sizeof e.DisplayName);
    } while (FindNextVolumeW(search, path, 64));
    FindVolumeClose(search);
    return found;
}

// The library's listing as a caller makes it: ask for the count, then fill.
uint32_t PltList(PLT_STORAGE_ENTRY* entries, uint8_t volumes) {
    uint32_t count = 0;
    if (PltEnumerateStorage(nullptr, &count, volumes) != 0 || count == 0) return 0;
    return PltEnumerateStorage(entries, &count, volumes) == 0 ? count : 0;
}

// PltGetVolumes and PltFree; the entries are copied out when asked for.
uint32_t PltVolumes(std::vector<PLT_VOLUME_ENTRY>* copy = nullptr) {
    PLT_VOLUME_LIST* list = nullptr;
    if (PltGetVolumes(nullptr, &list) != 0) return 0;
    uint32_t count = list->Count;
    if (copy != nullptr) copy->assign(list->Entries, list->Entries + count);
    void* block = list;
    PltFree(&block, 0);
    return count;
}

// Both sides must produce the same records from the simulated machine, or
// the row would compare different work (or the real machine's).
template <typename T>
bool Agree(const char* row, const T* library, uint32_t libraryCount, const T* win32,
           uint32_t win32Count) {
    if (libraryCount > 0 && libraryCount == win32Count &&
        memcmp(library, win32, libraryCount * sizeof(T)) == 0)
        return true;
    printf("%s: the library and the Win32 walk disagree (%u and %u records); row skipped\n", row,
           libraryCount, win32Count);
    return false;
}

}  // namespace

ZB_SUITE(storage) {
    std::vector<PLT_STORAGE_ENTRY> entries(kDiskNumbers), expected(kDiskNumbers);
    zb::Options o;
    o.iterations = zb::Count(300, 2000);
    {
        Machine m;
        std::vector<PLT_VOLUME_ENTRY> listed, walked;
        uint32_t count = PltVolumes(&listed);
        if (Agree("PltGetVolumes", listed.data(), count, walked.data(), Win32Volumes(walked)))
            zb::Compare(
                "PltGetVolumes+PltFree",
                [](long n) {
                    for (long i = 0; i < n; ++i) PltVolumes();
                },
                "FindVolume+open+IOCTL+info+space",
                [&](long n) {
                    for (long i = 0; i < n; ++i) Win32Volumes(walked);
                },
                o);
    }
    {
        Machine m;
        uint32_t count = PltList(expected.data(), 1);
        if (Agree("PltEnumerateStorage volumes", expected.data(), count, entries.data(),
                  Win32VolumeNames(entries.data())))
            zb::Compare(
                "PltEnumerateStorage volumes, count+fill",
                [&](long n) {
                    for (long i = 0; i < n; ++i) PltList(entries.data(), 1);
                },
                "FindVolume+GetDriveType+mount paths",
                [&](long n) {
                    for (long i = 0; i < n; ++i) Win32VolumeNames(entries.data());
                },
                o);
    }
    o.iterations = zb::Count(40, 300);  // 128 opens per scan
    {
        Machine m;
        uint32_t count = PltList(expected.data(), 0);
        if (Agree("PltEnumerateStorage disks", expected.data(), count, entries.data(),
                  Win32Disks(entries.data())))
            zb::Compare(
                "PltEnumerateStorage disks, count+fill",
                [&](long n) {
                    for (long i = 0; i < n; ++i) PltList(entries.data(), 0);
                },
                "CreateFileW x128+GetDriveTypeW",
                [&](long n) {
                    for (long i = 0; i < n; ++i) Win32Disks(entries.data());
                },
                o);
    }
}
