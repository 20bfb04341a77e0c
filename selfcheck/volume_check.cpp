// TestVolume: each fixed volume's partition, allocation unit and disk.
#include <wchar.h>

#include <zendra/storage.h>

#include "selfcheck/report.h"
#include "selfcheck/volume_walk.h"
#include "storage/volume.h"

using namespace zendra::selfcheck;

namespace {

// A check that stops at its first failing volume.
template <typename Check>
uint32_t ForEachVolume(const VolumeList& volumes, Check check) {
    for (uint32_t i = 0; i < volumes.count(); ++i)
        if (check(volumes[i]) != 0) return 1;
    return 0;
}

// "%c:\" of the volume's drive letter; a volume without one is asked by its
// GUID path.
void AllocationPath(const wchar_t* volume, wchar_t* path, DWORD chars) {
    wchar_t mounts[MAX_PATH] = {};
    DWORD needed = 0;
    GetVolumePathNamesForVolumeNameW(volume, mounts, MAX_PATH, &needed);
    for (const wchar_t* m = mounts; *m != L'\0'; m += wcslen(m) + 1) {
        if (m[1] == L':') {
            _snwprintf(path, chars, L"%c:\\", m[0]);
            return;
        }
    }
    wcsncpy(path, volume, chars - 1);
    path[chars - 1] = L'\0';
}

}  // namespace

extern "C" uint32_t TestVolume(PLT_REPORT_BUFFER* report) {
    VolumeList volumes;
    if (volumes.status() != 0) return FailWithStatus(report, volumes.status());
    uint32_t result = ForEachVolume(volumes, [&](const PLT_VOLUME_ENTRY& v) {
        PLT_VOLINFO info{};
        PLT_STATUS s = PltGetVolInfo(v.VolumeName, &info);
        if (s != 0) return FailWithStatus(report, s, L"The partition length must be greater than 0");
        return info.PartitionLength > 0 ? 0 : Fail(report, L"The partition length must be greater than 0");
    });
    result |= ForEachVolume(volumes, [&](const PLT_VOLUME_ENTRY& v) {
        wchar_t path[MAX_PATH] = {};
        AllocationPath(v.VolumeName, path, MAX_PATH);
        uint32_t cluster = 0, sector = 0;
        PLT_STATUS s = PltGetDiskAllocationUnitInfo(path, &cluster, &sector);
        if (s != 0) return FailWithStatus(report, s, L"Bytes per sector must be greater than 0");
        if (sector == 0) return Fail(report, L"Bytes per sector must be greater than 0");
        return cluster > 0 ? 0 : Fail(report, L"Bytes per cluster must be greater than 0");
    });
    result |= ForEachVolume(volumes, [&](const PLT_VOLUME_ENTRY& v) {
        HANDLE volume = INVALID_HANDLE_VALUE;
        PLT_STATUS s = zendra::OpenVolume(v.VolumeName, &volume);
        uint32_t disk = 0xFFFFFFFFu;
        if (s == 0) {
            s = zendra::DiskOfOffset(volume, 1, &disk);
            CloseHandle(volume);
        }
        if (s != 0) return FailWithStatus(report, s, L"The physical disk number must be a valid number");
        if (disk == 0xFFFFFFFFu) return Fail(report, L"The physical disk number must be a valid number");
        PLT_VOLINFO info{};
        wchar_t expected[132] = {};
        zendra::FormatDiskName(expected, 129, disk);
        s = PltGetVolInfo(v.VolumeName, &info);
        if (s != 0) return FailWithStatus(report, s, L"The physical device name must be valid");
        return wcscmp(info.PhysicalDisk, expected) == 0
                   ? 0
                   : Fail(report, L"The physical device name must be valid");
    });
    return result;
}
