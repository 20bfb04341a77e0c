// TestSystem: clocks, disks, partitions, volumes and machine queries. Its
// listings double as a diagnostic inventory of the machine.
#include <wchar.h>

#include <zendra/os.h>
#include <zendra/storage.h>

#include "selfcheck/report.h"
#include "selfcheck/volume_walk.h"
#include "storage/volume.h"

using namespace zendra::selfcheck;

namespace {

constexpr uint32_t kNameChars = 260;

// One listing line: at most kListingLimit characters, then "\r\n".
#define List(report, ...) AppendLineFormat(report, kListingLimit, __VA_ARGS__)

// A check whose only failure is a status: its system message and a bare
// failure line.
uint32_t Status(PLT_REPORT_BUFFER* report, PLT_STATUS status) {
    return status != 0 ? FailWithStatus(report, status) : 0;
}

// A check that needs a non-empty answer: the status's message when the call
// failed, then the failure line with its description.
uint32_t NonEmpty(PLT_REPORT_BUFFER* report, PLT_STATUS status, size_t length,
                  const wchar_t* description) {
    if (status != 0) return FailWithStatus(report, status, description);
    return length > 0 ? 0 : Fail(report, description);
}

void ListDateTime(PLT_REPORT_BUFFER* report, const wchar_t* what, const PLT_DATE_TIME& t,
                  bool withBias) {
    wchar_t format[160];
    _snwprintf(format, 159, L"The %ls date time is: (Day of week %%d) %%02d/%%02d/%%02d "
                            L"%%02d:%%02d:%%02d:%%04d%ls", what,
               withBias ? L" - UTC difference %02d minutes" : L"");
    format[159] = L'\0';
    List(report, format, t.dayOfWeek, t.month, t.day, t.year, t.hour, t.minute, t.second,
         t.milliseconds, t.timeZoneBias);
}

uint32_t CheckTime(PLT_REPORT_BUFFER* report) {
    uint64_t now = PltGetSystemTime();
    List(report, L"The system time is: %lld", static_cast<long long>(now));
    PLT_DATE_TIME utc{}, local{}, converted{};
    PLT_STATUS s = PltGetSystemDateTime(&utc);
    if (s != 0) return Status(report, s);
    ListDateTime(report, L"system", utc, true);
    if ((s = PltGetLocalDateTime(&local)) != 0) return Status(report, s);
    ListDateTime(report, L"local", local, true);
    int32_t difference = 0;
    if ((s = PltGetTimeZoneDifference(&difference)) != 0) return Status(report, s);
    List(report, L"The timezone differrence is %d minutes\n", difference);
    if ((s = PltTimeToDateTime(now, &converted)) != 0) return Status(report, s);
    ListDateTime(report, L"converted system", converted, false);
    uint64_t back = 0;
    if ((s = PltDateTimeToTime(&converted, &back)) != 0) return Status(report, s);
    List(report, L"The converted system time is: %llu", static_cast<unsigned long long>(back));
    return 0;
}

const wchar_t* InterfaceLine(PLT_DISK_INTERFACE kind) {
    static const wchar_t* const lines[] = {
        L"\tDevice interface is unsupported\n", L"\tDevice interface is ATA\n",
        L"\tDevice interface is SAS\n",         L"\tDevice interface is SATA\n",
        L"\tDevice interface is iSCSI\n",       L"\tDevice interface is RAID\n",
        L"\tDevice interface is Fiber channel\n"};
    return kind < sizeof lines / sizeof lines[0] ? lines[kind] : lines[0];
}

void ListPartitions(PLT_REPORT_BUFFER* report, const PLT_PARTITION_ENTRY* entries, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) {
        const PLT_PARTITION_ENTRY& p = entries[i];
        List(report, L"\t\tPartition Number: %d\n", p.PartitionNumber);
        List(report, p.Style == PLT_PARTITION_MBR   ? L"\t\tPartition type MBR\n"
                     : p.Style == PLT_PARTITION_GPT ? L"\t\tPartition type GPT\n"
                                                    : L"\t\tPartition type unknown\n");
        List(report, L"\t\tTotal size: %lld bytes\n", static_cast<long long>(p.PartitionLength));
        List(report, L"\t\tPartition offset: %d\n", static_cast<int>(p.StartingOffset));
        List(report, L"\t\tRewritePartition flag: %ls(%d)\n",
             p.RewritePartition ? L"TRUE" : L"FALSE", p.RewritePartition);
    }
}

// Partitions of a disk by name or by handle: the count, then a zeroed array
// of that many entries.
PLT_STATUS Partitions(const wchar_t* name, HANDLE disk, PLT_PARTITION_ENTRY** entries,
                      uint32_t* n) {
    *entries = nullptr;
    *n = 0;
    PLT_STATUS s = name != nullptr ? PltGetPartitionInfoByName(name, n, nullptr)
                                   : PltGetPartitionInfoByHandle(disk, n, nullptr);
    if (s != 0 || *n == 0) return s;
    void* block = nullptr;
    if ((s = PltMalloc(&block, *n * sizeof(PLT_PARTITION_ENTRY), PLT_ALLOC_ZERO, 0)) != 0)
        return s;
    *entries = static_cast<PLT_PARTITION_ENTRY*>(block);
    return name != nullptr ? PltGetPartitionInfoByName(name, n, *entries)
                           : PltGetPartitionInfoByHandle(disk, n, *entries);
}

PLT_STATUS ListPartitionsOf(PLT_REPORT_BUFFER* report, const wchar_t* name, HANDLE disk) {
    PLT_PARTITION_ENTRY* entries = nullptr;
    uint32_t n = 0;
    PLT_STATUS s = Partitions(name, disk, &entries, &n);
    if (s == 0) ListPartitions(report, entries, n);
    if (entries != nullptr) PltFree(reinterpret_cast<void**>(&entries), 0);
    return s;
}

PLT_STATUS ListDisk(PLT_REPORT_BUFFER* report, const PLT_STORAGE_ENTRY& e) {
    List(report, L"\tDisk device name:%s\n", e.Name);
    List(report, L"\tdevice number: %d \n", e.DiskNumber);
    List(report, L"\tdisplay name: %ls \n", e.DisplayName);
    List(report, L"\n\n\tList of partitions on this device as retrieved by device name\n");
    PLT_STATUS s = ListPartitionsOf(report, e.Name, nullptr);
    if (s != 0) return s;
    // The entry's name without its "\\.\" prefix, as the driver open wants it.
    HANDLE disk = INVALID_HANDLE_VALUE;
    if ((s = PltOpenDriver(&disk, e.Name + 4)) != 0) return s;
    PLT_DISK_INFO info{};
    s = PltGetDiskInfo(disk, &info);
    if (s == 0) {
        List(report, InterfaceLine(info.Interface));
        List(report, L"\tVendor ID : %s \n", info.VendorId);
        List(report, L"\tProduct ID : %s \n", info.ProductId);
        List(report, L"\tSerial No : %s \n", info.SerialNumber);
        List(report, L"\tRevision : %s \n", info.ProductRevision);
        List(report, L"\tTotal size: %lld bytes\n", static_cast<long long>(info.DiskSize));
        List(report, L"\tTotal sectors: %lld \n", static_cast<long long>(info.TotalSectors));
        List(report, L"\tBytes per sector: %d \n", info.BytesPerSector);
        List(report, L"\n\n\tList of partitions on this device\n");
        s = ListPartitionsOf(report, nullptr, disk);
    }
    PltCloseFile(disk);
    return s;
}

uint32_t CheckDisks(PLT_REPORT_BUFFER* report, const StorageList& disks) {
    List(report, L"\nList of physical storage devices\n");
    PLT_STATUS s = disks.status;
    if (s == 0 && disks.count == 0) s = PLT_STATUS_INVALID_PARAMETER;
    for (uint32_t i = 0; s == 0 && i < disks.count; ++i) s = ListDisk(report, disks.entries[i]);
    return Status(report, s);
}

uint32_t CheckVolumeSpace(PLT_REPORT_BUFFER* report) {
    StorageList volumes(1);
    PLT_STATUS s = volumes.status;
    List(report, L"\nList of volume storage devices\n");
    for (uint32_t i = 0; s == 0 && i < volumes.count; ++i) {
        const PLT_STORAGE_ENTRY& e = volumes.entries[i];
        List(report, L"\tStorage name:%s\n", e.Name);
        List(report, L"\tdevice number: %d \n", e.DiskNumber);
        List(report, L"\tdisplay name: %ls \n", e.DisplayName);
        PLT_VOLUME_SPACE space{};
        if ((s = PltGetVolumeInfo(e.Name, &space)) != 0) break;
        List(report, L"\tFilesystem : %ls \n", space.FileSystem);
        List(report, L"\t(logged-in User quota)Total size: %lld bytes\n",
             static_cast<long long>(space.TotalBytes));
        List(report, L"\t(logged-in User quota)Free size: %lld bytes\n",
             static_cast<long long>(space.FreeBytesAvailable));
        List(report, L"\t(logged-in User quota)Used size: %lld bytes\n",
             static_cast<long long>(space.UsedBytes));
    }
    return Status(report, s);
}

uint32_t CheckMachine(PLT_REPORT_BUFFER* report) {
    PLT_MACHINE_INFO m{};
    PLT_STATUS s = PltGetMachineInfo(&m);
    if (s != 0) return Status(report, s);
    List(report, L"\nMachine Info\n");
    List(report, L"\tMachine name: %ls \n", m.ComputerName);
    List(report, L"\nOS Info\n");
    List(report, L"\tOS Version: %ls \n", m.OsName);
    List(report, L"\tMajor.Minor.Build: %d.%d.%d \n", m.MajorVersion, m.MinorVersion,
         m.BuildNumber);
    List(report, L"\tService Pack(if any)Major.Minor: %d.%d \n", m.ServicePackMajor,
         m.ServicePackMinor);
    List(report, L"\tSuite mask: %d,  Product Type: %d \n", m.SuiteMask, m.ProductType);
    List(report, L"\nProcessor Info\n");
    List(report, L"\tProcessor Architecture: %ls \n", m.Architecture);
    List(report, L"\tProcessor String: %ls \n", m.Processor);
    List(report, L"\tNumber of Processors: %d \n", m.NumberOfProcessors);
    List(report, L"\tTotal Physical Memory: %lld bytes\n",
         static_cast<long long>(m.TotalPhysicalMemory));
    return 0;
}

// The fixed volumes of each disk, through the filtered volume list.
uint32_t CheckVolumesByDisk(PLT_REPORT_BUFFER* report, const StorageList& disks) {
    PLT_STATUS s = disks.status;
    for (uint32_t i = 0; s == 0 && i < disks.count; ++i) {
        wchar_t number[16];
        _snwprintf(number, 15, L"%u", disks.entries[i].DiskNumber);
        number[15] = L'\0';
        PLT_VOLUME_LIST* list = nullptr;
        if ((s = PltGetVolumes(number, &list)) != 0) break;
        for (uint32_t v = 0; v < list->Count; ++v) List(report, L"%s", list->Entries[v].VolumeName);
        PltFree(reinterpret_cast<void**>(&list), 0);
    }
    return Status(report, s);
}

uint32_t CheckComputerName(PLT_REPORT_BUFFER* report) {
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD chars = MAX_COMPUTERNAME_LENGTH + 1;
    if (!GetComputerNameW(name, &chars)) return Status(report, GetLastError());
    List(report, L"Computer Name: %s", name);
    return 0;
}

uint32_t CheckVolumeWalks(PLT_REPORT_BUFFER* report) {
    uint32_t count = 0;
    PLT_STATUS s = zendra::CountVolumes(&count);
    uint32_t result = NonEmpty(report, s, s == 0 ? count : 0, L"Volume count will be more than 0.");
    wchar_t name[kNameChars] = {};
    uint32_t chars = kNameChars;
    s = zendra::FirstVolumeName(name, &chars);
    result |= NonEmpty(report, s, wcslen(name),
                       L"Volume name should be returned , so the name length should be greater than 0.");
    return result;
}

// The name a volume's device is opened by: its drive letter ("C:"), else
// its GUID path without the "\\?\" prefix.
const wchar_t* DeviceName(const wchar_t* volume, const wchar_t* mounts, wchar_t* letter) {
    if (mounts[0] != L'\0' && mounts[1] == L':' && mounts[2] == L'\\' && mounts[3] == L'\0') {
        letter[0] = mounts[0], letter[1] = L':', letter[2] = L'\0';
        return letter;
    }
    return wcsncmp(volume, L"\\\\?\\", 4) == 0 ? volume + 4 : volume;
}

// Sub-checks 10 to 14 over each listed fixed volume; each reports its first
// failing volume. A volume mounted nowhere has no path to ask: the path
// check fails only when no listed volume has one.
uint32_t CheckListedVolumes(PLT_REPORT_BUFFER* report) {
    VolumeList volumes;
    uint32_t normalized = 0, paths = 0, info = 0, extents = 0, space = 0;
    bool anyPath = false;
    for (uint32_t i = 0; i < volumes.count(); ++i) {
        const wchar_t* volume = volumes[i].VolumeName;
        wchar_t text[kNameChars] = {};
        PLT_STATUS s = PltNormalizeVolumeName(volume, text, kNameChars);
        if (normalized == 0)
            normalized = NonEmpty(
                report, s, wcslen(text),
                L"Normalized volume name should be returned , so the name length should be greater than 0.");
        wchar_t mounts[kNameChars] = {};
        DWORD chars = 0;
        if (!GetVolumePathNamesForVolumeNameW(volume, mounts, kNameChars, &chars) && paths == 0)
            paths = FailWithStatus(
                report, GetLastError(),
                L"Volume path name should be returned , so the path length should be greater than 0.");
        anyPath |= mounts[0] != L'\0';
        DWORD serial = 0;
        bool read = GetVolumeInformationW(volume, nullptr, 0, &serial, nullptr, nullptr, nullptr, 0);
        if (info == 0)
            info = NonEmpty(
                report, read ? 0 : GetLastError(), serial,
                L"Volume serial number should be returned , so the number length should be greater than 0.");
        uint32_t n = 1;
        uint64_t total = 0;
        zendra::PLT_VOLUME_EXTENT extent{};
        wchar_t letter[3];
        s = zendra::VolumeDiskExtents(DeviceName(volume, mounts, letter), &n, &extent, &total);
        if (extents == 0)
            extents = NonEmpty(report, s, static_cast<size_t>(total != 0),
                               L"Volume Size should be greater than 0.");
        uint64_t freeBytes = 0;
        if (space == 0 && mounts[0] != L'\0')
            space = Status(report, PltGetVolumeFreeSpace(mounts, &freeBytes));
    }
    if (paths == 0 && volumes.count() > 0 && !anyPath)
        paths = Fail(report,
                     L"Volume path name should be returned , so the path length should be greater than 0.");
    return Status(report, volumes.status()) | normalized | paths | info | extents | space;
}

// A failed call's text through the library's own message export.
uint32_t FailWithLibraryMessage(PLT_REPORT_BUFFER* report, PLT_STATUS status) {
    wchar_t text[kListingLimit + 1] = {};
    uint32_t length = kListingLimit;
    if (PltGetSystemErrorMsg(status, text, &length) == 0) AppendLine(report, text);
    return Fail(report);
}

uint32_t CheckMachineQueries(PLT_REPORT_BUFFER* report) {
    uint32_t result = 0;
    PLT_MEMORY_STATUS memory{};
    if (PltGetGlobalMemoryStatus(&memory) != 0 || memory.TotalPhysical == 0)
        result |= Fail(report, L"Get system memory info must be a success. Total physical memory "
                               L"will not be zero. ");
    uint8_t random[16];
    PLT_STATUS s = PltGetRandom(random, sizeof random);
    if (s != 0) result |= FailWithLibraryMessage(report, s);
    uint32_t flags = 0, percent = 0;
    uint8_t valid = 0;
    if ((s = PltGetBatteryPowerStatus(&flags, &valid, &percent)) != 0)
        result |= FailWithLibraryMessage(report, s);
    wchar_t fqdn[kNameChars] = {};
    uint32_t chars = kNameChars;
    s = PltGetMachineFQDN(fqdn, &chars);
    result |= NonEmpty(report, s, wcslen(fqdn),
                       L"Fully qualified machine name should be returned , so the name length "
                       L"should be greater than 0.");
    wchar_t ldap[2 * kNameChars + 80] = {};
    uint32_t bytes = sizeof ldap;
    s = PltFQDNtoLDAPQuery(fqdn, ldap, &bytes);
    result |= NonEmpty(report, s, wcslen(ldap),
                       L"LDAP name should be returned , so the name length should be greater than 0.");
    static const wchar_t* const kTexts[] = {L"%PATH%", L"%SystemRoot%\\System32"};
    for (const wchar_t* text : kTexts) {
        wchar_t expanded[kListingLimit] = {};
        s = PltExpandEnvironmentStrings(text, expanded, kListingLimit);
        result |= NonEmpty(report, s, wcslen(expanded),
                           L"Variable string  should be returned , so the string length should be "
                           L"greater than 0.");
    }
    return result;
}

uint32_t CheckUniqueIds(PLT_REPORT_BUFFER* report, const StorageList& disks) {
    for (uint32_t i = 0; i < disks.count; ++i) {
        wchar_t* id = nullptr;
        PLT_STATUS s = PltGetUniqueID(disks.entries[i].Name, &id);
        size_t length = s == 0 && id != nullptr ? wcslen(id) : 0;
        if (id != nullptr) PltFree(reinterpret_cast<void**>(&id), PLT_UNIQUE_ID_TAG);
        if (s != 0 || length == 0)
            return NonEmpty(report, s, length,
                            L"PNP ID should be returned , so the string length should be greater than 0.");
    }
    return 0;
}

}  // namespace

extern "C" uint32_t TestSystem(PLT_REPORT_BUFFER* report) {
    List(report, L"Tick counts: %lld", static_cast<long long>(GetTickCount64()));
    uint32_t result = CheckTime(report);
    StorageList disks(0);
    result |= CheckDisks(report, disks);
    result |= CheckVolumeSpace(report);
    result |= CheckMachine(report);
    result |= CheckVolumesByDisk(report, disks);
    result |= CheckComputerName(report);
    result |= CheckVolumeWalks(report);
    result |= CheckListedVolumes(report);
    result |= CheckMachineQueries(report);
    result |= CheckUniqueIds(report, disks);
    return result;
}
