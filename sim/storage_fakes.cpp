// The simulation's volume list and volume queries, and its physical disks:
// their names, and their answers to the storage control codes.
#include <string.h>
#include <wctype.h>

#include "fakes.h"

#include <winioctl.h>

namespace zendra::sim {

namespace {

constexpr wchar_t kDiskPrefix[] = L"\\\\.\\PHYSICALDRIVE";
constexpr size_t kDiskPrefixUnits = 17;

template <typename T>
void Put(std::vector<uint8_t>& bytes, size_t at, const T& value) {
    if (bytes.size() < at + sizeof value) bytes.resize(at + sizeof value);
    memcpy(bytes.data() + at, &value, sizeof value);
}

// A copy of an answer into the caller's buffer: as much as fits.
BOOL Answer(const std::vector<uint8_t>& answer, void* out, DWORD outBytes, DWORD* returned) {
    DWORD n = outBytes < answer.size() ? outBytes : static_cast<DWORD>(answer.size());
    memcpy(out, answer.data(), n);
    *returned = n;
    return TRUE;
}

BOOL CopyName(const std::wstring& name, LPWSTR out, DWORD chars) {
    if (name.size() + 1 > chars) return Fail(ERROR_FILENAME_EXCED_RANGE);
    wcscpy(out, name.c_str());
    return TRUE;
}

std::vector<uint8_t> Geometry(const Disk& d) {
    std::vector<uint8_t> g(sizeof(DISK_GEOMETRY_EX) - 1 + sizeof(DISK_PARTITION_INFO) +
                           sizeof(DISK_DETECTION_INFO));
    DISK_GEOMETRY geometry = {};
    int64_t cylinderBytes = int64_t{d.tracksPerCylinder} * d.sectorsPerTrack * d.bytesPerSector;
    geometry.Cylinders.QuadPart =
        d.cylinders ? d.cylinders : (cylinderBytes ? d.size / cylinderBytes : 0);
    geometry.MediaType = FixedMedia;
    geometry.TracksPerCylinder = d.tracksPerCylinder;
    geometry.SectorsPerTrack = d.sectorsPerTrack;
    geometry.BytesPerSector = d.bytesPerSector;
    Put(g, 0, geometry);
    Put(g, offsetof(DISK_GEOMETRY_EX, DiskSize), d.size);
    const size_t partitionAt = offsetof(DISK_GEOMETRY_EX, Data);
    DISK_PARTITION_INFO partition = {};
    partition.PartitionStyle = static_cast<PARTITION_STYLE>(d.layout);
    Put(g, partitionAt, partition);
    Put(g, partitionAt, d.partitionInfoSize);  // what the device states
    DISK_DETECTION_INFO detection = {};
    detection.SizeOfDetectInfo = sizeof detection;
    if (d.exSectors != 0) {
        detection.DetectionType = DetectExInt13;
        detection.ExInt13.ExBufferSize = sizeof detection.ExInt13;
        detection.ExInt13.ExSectorsPerDrive = d.exSectors;
        detection.ExInt13.ExSectorSize = static_cast<WORD>(d.exSectorSize);
    }
    Put(g, partitionAt + sizeof partition, detection);
    return g;
}

std::vector<uint8_t> PartitionTable(const Disk& d) {
    const size_t header = offsetof(DRIVE_LAYOUT_INFORMATION_EX, PartitionEntry);
    std::vector<uint8_t> l(header + d.partitions.size() * sizeof(PARTITION_INFORMATION_EX));
    auto style = static_cast<DWORD>(d.layout);
    Put(l, 0, style);
    Put(l, 4, d.claimedPartitions ? d.claimedPartitions : static_cast<DWORD>(d.partitions.size()));
    Put(l, 8, DWORD{0x5A5A0000} + d.number);  // MBR signature, or the start of the disk id
    for (size_t i = 0; i < d.partitions.size(); ++i) {
        const Partition& p = d.partitions[i];
        PARTITION_INFORMATION_EX e = {};
        e.PartitionStyle = static_cast<PARTITION_STYLE>(d.layout);
        e.StartingOffset.QuadPart = p.offset;
        e.PartitionLength.QuadPart = p.length;
        e.PartitionNumber = p.number;
        e.RewritePartition = p.rewrite;
        if (d.layout == Layout::Mbr) {
            e.Mbr.PartitionType = p.mbrType;
            e.Mbr.RecognizedPartition = p.mbrType != 0;
        } else if (d.layout == Layout::Gpt) {
            e.Gpt.PartitionType = p.gptType;
            e.Gpt.PartitionId.Data1 = 0x5A5A0000u + p.number;
        }
        Put(l, header + i * sizeof e, e);
    }
    return l;
}

}  // namespace

std::vector<uint8_t> StorageDescriptor(const Disk& d) {
    std::vector<uint8_t> bytes(sizeof(STORAGE_DEVICE_DESCRIPTOR));
    auto text = [&](size_t field, const std::string& value) {
        if (value.empty()) return;  // absent: offset 0
        Put(bytes, field, static_cast<DWORD>(bytes.size()));
        bytes.insert(bytes.end(), value.begin(), value.end());
        bytes.push_back(0);
    };
    text(offsetof(STORAGE_DEVICE_DESCRIPTOR, VendorIdOffset), d.vendor);
    text(offsetof(STORAGE_DEVICE_DESCRIPTOR, ProductIdOffset), d.product);
    text(offsetof(STORAGE_DEVICE_DESCRIPTOR, ProductRevisionOffset), d.revision);
    text(offsetof(STORAGE_DEVICE_DESCRIPTOR, SerialNumberOffset), d.serial);
    Put(bytes, 0, DWORD{sizeof(STORAGE_DEVICE_DESCRIPTOR)});
    Put(bytes, 4, static_cast<DWORD>(bytes.size()));
    Put(bytes, offsetof(STORAGE_DEVICE_DESCRIPTOR, BusType), d.busType);
    return bytes;
}

Disk* Fakes::DiskNumbered(Simulation& s, uint32_t number) {
    for (Disk& d : s.machine_.disks)
        if (d.number == number) return &d;
    return nullptr;
}

bool Fakes::DiskName(Simulation& s, const wchar_t* name, bool slashed, Disk** disk) {
    *disk = nullptr;
    if (_wcsnicmp(name, kDiskPrefix, kDiskPrefixUnits) != 0) return false;
    const wchar_t* digits = name + kDiskPrefixUnits;
    size_t n = 0;
    uint64_t number = 0;
    for (; iswdigit(digits[n]) && n < 10; ++n) number = number * 10 + (digits[n] - L'0');
    if (n == 0 || wcscmp(digits + n, slashed ? L"\\" : L"") != 0) return false;
    *disk = number <= UINT32_MAX ? DiskNumbered(s, static_cast<uint32_t>(number)) : nullptr;
    return true;
}

bool Fakes::OpenDisk(Simulation& s, const wchar_t* path, Disk** disk, DWORD* error) {
    bool owned = DiskName(s, path, false, disk);
    for (const DeviceInterface& i : s.machine_.setupApi.disks)
        if (!owned && SameText(i.path, path)) {
            owned = true;
            *disk = i.disk == kNoDisk ? nullptr : DiskNumbered(s, i.disk);
        }
    if (!owned) return false;
    *error = *disk == nullptr ? ERROR_FILE_NOT_FOUND : (*disk)->openError;
    if (*error != 0) *disk = nullptr;
    return true;
}

BOOL Fakes::DiskControl(Disk& d, DWORD code, const void* in, DWORD inBytes, void* out,
                        DWORD outBytes, DWORD* returned) {
    auto failing = d.failing.find(code);
    if (failing != d.failing.end()) return Fail(failing->second);
    switch (code) {
        case IOCTL_STORAGE_GET_DEVICE_NUMBER: {
            if (outBytes < sizeof(STORAGE_DEVICE_NUMBER)) return Fail(ERROR_INSUFFICIENT_BUFFER);
            STORAGE_DEVICE_NUMBER number = {FILE_DEVICE_DISK, d.number, 0};
            memcpy(out, &number, sizeof number);
            return *returned = sizeof number, TRUE;
        }
        case IOCTL_STORAGE_QUERY_PROPERTY: {
            STORAGE_PROPERTY_QUERY query = {};
            if (in == nullptr || inBytes < 8) return Fail(ERROR_INVALID_PARAMETER);
            memcpy(&query, in, 8);
            if (query.PropertyId != StorageDeviceProperty ||
                query.QueryType != PropertyStandardQuery)
                return Fail(ERROR_NOT_SUPPORTED);
            if (outBytes < sizeof(STORAGE_DESCRIPTOR_HEADER))
                return Fail(ERROR_INSUFFICIENT_BUFFER);
            return Answer(d.descriptor.empty() ? StorageDescriptor(d) : d.descriptor, out, outBytes,
                          returned);
        }
        case IOCTL_DISK_GET_DRIVE_GEOMETRY_EX:
            if (outBytes < sizeof(DISK_GEOMETRY)) return Fail(ERROR_INSUFFICIENT_BUFFER);
            return Answer(Geometry(d), out, outBytes, returned);
        case IOCTL_DISK_GET_DRIVE_LAYOUT_EX: {
            std::vector<uint8_t> layout = PartitionTable(d);
            if (outBytes < layout.size()) return Fail(ERROR_INSUFFICIENT_BUFFER);
            return Answer(layout, out, outBytes, returned);
        }
        default:
            return Fail(ERROR_INVALID_FUNCTION);
    }
}

HANDLE WINAPI Fakes::FindFirstVolume(LPWSTR name, DWORD chars) {
    Simulation& s = *g_simulation;
    Lock lock(s.lock_);
    if (s.machine_.volumes.empty())
        return SetLastError(s.machine_.volumeSearchEnd), INVALID_HANDLE_VALUE;
    if (!CopyName(s.machine_.volumes[0].guidPath, name, chars)) return INVALID_HANDLE_VALUE;
    HANDLE search = NewHandle(s);
    s.searches_[search] = 1;
    return search;
}

BOOL WINAPI Fakes::FindNextVolume(HANDLE search, LPWSTR name, DWORD chars) {
    Simulation& s = *g_simulation;
    {
        Lock lock(s.lock_);
        auto it = s.searches_.find(search);
        if (it != s.searches_.end()) {
            if (it->second >= s.machine_.volumes.size()) return Fail(s.machine_.volumeSearchEnd);
            return CopyName(s.machine_.volumes[it->second++].guidPath, name, chars);
        }
    }
    return g_real.FindNextVolumeW(search, name, chars);
}

BOOL WINAPI Fakes::FindVolumeClose(HANDLE search) {
    Simulation& s = *g_simulation;
    {
        Lock lock(s.lock_);
        if (s.searches_.erase(search) != 0) return TRUE;
    }
    return g_real.FindVolumeClose(search);
}

UINT WINAPI Fakes::GetDriveType(LPCWSTR root) {
    Simulation& s = *g_simulation;
    {
        Lock lock(s.lock_);
        Disk* disk = nullptr;
        if (root != nullptr && DiskName(s, root, true, &disk))
            return disk != nullptr ? disk->driveType : DRIVE_NO_ROOT_DIR;
        if (Volume* v = root != nullptr ? VolumeOf(s, root, true) : nullptr) return v->driveType;
    }
    return g_real.GetDriveTypeW(root);
}

BOOL WINAPI Fakes::GetVolumeInformation(LPCWSTR root, LPWSTR label, DWORD labelChars,
                                        LPDWORD serial, LPDWORD longestName, LPDWORD flags,
                                        LPWSTR fileSystem, DWORD fileSystemChars) {
    Simulation& s = *g_simulation;
    {
        Lock lock(s.lock_);
        if (Volume* v = root != nullptr ? VolumeOf(s, root, true) : nullptr) {
            if (v->infoError != 0) return Fail(v->infoError);
            if ((label && v->label.size() + 1 > labelChars) ||
                (fileSystem && v->fileSystem.size() + 1 > fileSystemChars))
                return Fail(ERROR_BAD_LENGTH);
            if (label) wcscpy(label, v->label.c_str());
            if (fileSystem) wcscpy(fileSystem, v->fileSystem.c_str());
            if (serial) *serial = 0x5A5A0000u + static_cast<DWORD>(v - s.machine_.volumes.data());
            if (longestName) *longestName = 255;
            if (flags) *flags = FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK;
            return TRUE;
        }
    }
    return g_real.GetVolumeInformationW(root, label, labelChars, serial, longestName, flags,
                                        fileSystem, fileSystemChars);
}

BOOL WINAPI Fakes::GetDiskFreeSpaceEx(LPCWSTR root, PULARGE_INTEGER callerFree,
                                      PULARGE_INTEGER total, PULARGE_INTEGER totalFree) {
    Simulation& s = *g_simulation;
    {
        Lock lock(s.lock_);
        if (Volume* v = root != nullptr ? VolumeOf(s, root, true) : nullptr) {
            if (v->spaceError != 0) return Fail(v->spaceError);
            if (callerFree) callerFree->QuadPart = v->callerFreeBytes;
            if (total) total->QuadPart = static_cast<uint64_t>(v->partitionLength);
            if (totalFree) totalFree->QuadPart = v->freeBytes;
            return TRUE;
        }
    }
    return g_real.GetDiskFreeSpaceExW(root, callerFree, total, totalFree);
}

// The drive letter's root first, then the mount paths; each terminated, and
// the list ended by an empty one. Nothing is written when it does not fit.
BOOL WINAPI Fakes::GetVolumePathNamesForVolumeName(LPCWSTR name, LPWCH paths, DWORD chars,
                                                   PDWORD needed) {
    Simulation& s = *g_simulation;
    {
        Lock lock(s.lock_);
        for (Volume& v : s.machine_.volumes) {
            if (name == nullptr || !SameText(v.guidPath, name)) continue;
            std::wstring list;
            if (v.letter != L'\0') list += std::wstring(1, v.letter) + L":\\" + L'\0';
            for (const std::wstring& path : v.mountPaths) list += path + L'\0';
            list += L'\0';
            if (needed) *needed = static_cast<DWORD>(list.size());
            if (paths == nullptr || list.size() > chars) return Fail(ERROR_MORE_DATA);
            memcpy(paths, list.data(), list.size() * sizeof(wchar_t));
            return TRUE;
        }
    }
    return g_real.GetVolumePathNamesForVolumeNameW(name, paths, chars, needed);
}

}  // namespace zendra::sim
