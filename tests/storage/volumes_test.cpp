// Volumes and the storage list, on three simulated machines and the live one.
#include <string.h>

#include "storage_support.h"

namespace {

using namespace zendra::sim;
using st::Text;

// Status, Count, then per entry: disk number, label, display name, GUID
// number, file system, size and free space in MiB.
std::string Volumes(const wchar_t* filter) {
    PLT_VOLUME_LIST* list = nullptr;
    std::string out = std::to_string(PltGetVolumes(filter, &list));
    for (uint32_t i = 0; list != nullptr && i <= list->Count; ++i) {
        if (i == list->Count) {
            out += " " + std::to_string(list->Count);
            PltFree(reinterpret_cast<void**>(&list), 0);
            break;
        }
        const PLT_VOLUME_ENTRY& e = list->Entries[i];
        out += "|" + Text(e.PhysicalDisk + 17) + "," + Text(e.Label) + "," + Text(e.DisplayName) +
               "," + Text(e.VolumeName).substr(15, 4) + "," + Text(e.FileSystem) + "," +
               std::to_string(e.TotalBytes >> 20) + "," + std::to_string(e.FreeBytes >> 20);
    }
    return out;
}

// Status, then the count and, per entry: its name (a disk's from the 12th
// character; a volume's GUID number and length), disk number, kind, and
// display name with its paths ended by ';'.
std::string Storage(uint8_t volumes, uint32_t count, bool fill = true) {
    PLT_STORAGE_ENTRY entries[8];
    memset(entries, 0xCD, sizeof entries);
    PLT_STATUS status = PltEnumerateStorage(fill ? entries : nullptr, &count, volumes);
    std::string out = std::to_string(status) + " " + std::to_string(count);
    for (uint32_t i = 0; fill && i < count && entries[i].Kind != 0xCD; ++i) {
        const PLT_STORAGE_ENTRY& e = entries[i];
        std::string name = Text(e.Name);
        out += "|" +
               (e.Kind ? name.substr(15, 4) + "/" + std::to_string(name.size()) : name.substr(4)) +
               "," + std::to_string(e.DiskNumber) + "," + std::to_string(e.Kind) + ",";
        for (const wchar_t* p = e.DisplayName; *p; p += wcslen(p) + 1) out += Text(p) + ";";
    }
    return out;
}

TEST(Volumes, ListsOnEachMachineFilteredAndSized) {
    struct {
        Machine (*machine)();
        const wchar_t* filter;
        uint32_t blockEntries;
        const char* expected;
    } cases[] = {
        {MbrMachine, nullptr, 2,
         "0|0,System,System (NTFS) ,0001,NTFS,102400,25600|0,,,0002,FAT32,153600,38400 2"},
        {GptMachine, L"0", 2,
         "0|0,Windows,Windows (NTFS) ,0001,NTFS,1047433,261858|0,Recovery,Recovery (NTFS) ,"
         "0002,NTFS,1024,256 2"},
        {ThreeDiskMachine, nullptr, 4,
         "0|0,System,System (NTFS) ,0001,NTFS,131070,32767|2,Data,Data (NTFS) ,0002,NTFS,524286,"
         "131071|5,Archive,Archive (ReFS) ,0003,ReFS,2097150,524287|-1,Scratch,Scratch (NTFS) ,"
         "0004,NTFS,4096,1024 4"},
        {ThreeDiskMachine, L"5", 4, "0|5,Archive,Archive (ReFS) ,0003,ReFS,2097150,524287 1"},
        {ThreeDiskMachine, L"-1", 4, "0|-1,Scratch,Scratch (NTFS) ,0004,NTFS,4096,1024 1"},
        {ThreeDiskMachine, L"7", 4, "0 0"},  // a removable disk's volume is not fixed
        {[] { return Machine(); }, nullptr, 0, "0 0"},
    };
    for (const auto& c : cases) {
        Simulation sim(c.machine());
        PLT_RESOURCE_STATS before = zt::Snapshot();
        EXPECT_EQ(Volumes(c.filter), c.expected);
        EXPECT_MOVED(before, {.AllocCount = 1, .AllocBytes = c.blockEntries * 1336 + 1344});
        EXPECT_CALLS("0 0", sim.openHandles(), sim.volumeSearches());
    }
    // Faults: a volume without information is counted but not listed; one
    // without space is listed with sizes 0; one whose disk query fails is
    // left out; a search that fails, or an allocation, gives no list.
    Simulation sim(ThreeDiskMachine());
    auto& v = sim.machine().volumes;
    v[0].infoError = 21, v[1].spaceError = 21, v[2].failing = {{0x560020, 1117}};
    EXPECT_EQ(Volumes(nullptr),
              "0|2,Data,Data (NTFS) ,0002,NTFS,0,0|-1,Scratch,Scratch (NTFS) ,"
              "0004,NTFS,4096,1024 2");
    sim.machine().volumeSearchEnd = ERROR_ACCESS_DENIED;
    PLT_VOLUME_LIST* list = nullptr;
    EXPECT_CALLS("5 1 87 0", PltGetVolumes(nullptr, &list), list == nullptr,
                 PltGetVolumes(nullptr, nullptr), sim.volumeSearches());
    sim.machine().volumeSearchEnd = ERROR_NO_MORE_FILES;
    zt::HeapFailure fail(1);
    EXPECT_EQ(Volumes(nullptr), "8");
}

TEST(Volumes, NamesSpaceAndDisksOfOneVolume) {
    Machine m = ThreeDiskMachine();
    m.volumes[1].sectorsPerCluster = 64, m.volumes[2].infoError = 31, m.volumes[3].spaceError = 21;
    Simulation sim(m);
    std::wstring c = m.volumes[0].guidPath, e = m.volumes[1].guidPath;
    const std::pair<const wchar_t*, int> names[] = {
        {L"C", 0},      {L"c:", 0},   {L"C:\\", 0},       {L"C:x", 0},
        {c.c_str(), 0}, {L"F:\\", 2}, {L"C:\\archive", 2}};
    wchar_t out[64];
    for (auto [name, volume] : names) {
        memset(out, 0xCD, sizeof out);
        EXPECT_EQ(PltNormalizeVolumeName(name, out, 50), 0u) << Text(name);
        EXPECT_EQ(Text(out) + "\\", Text(m.volumes[volume].guidPath.c_str())) << Text(name);
    }
    EXPECT_CALLS("87 87 87 8 206", PltNormalizeVolumeName(nullptr, out, 64),
                 PltNormalizeVolumeName(L"C", nullptr, 64), PltNormalizeVolumeName(L"", out, 64),
                 PltNormalizeVolumeName(L"C", out, 47), PltNormalizeVolumeName(L"C", out, 48))
        << "47 characters are refused before any look-up";
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(PltNormalizeVolumeName(L"C:\\archive", out, 64), 0u);
    EXPECT_MOVED(before, {.AllocCount = 1, .UntaggedAllocCount = 1});  // the working copy
    {
        zt::HeapFailure fail(1);
        EXPECT_EQ(PltNormalizeVolumeName(L"C:\\archive", out, 64), 8u);
    }
    // Space: the caller's share, the total, and the file system; a failing
    // file-system query comes after the sizes were filled.
    uint64_t free = 7;
    PLT_VOLUME_SPACE space;
    memset(&space, 0xCD, sizeof space);
    EXPECT_CALLS(
        "0 32766 0 131070 32766 98303 87 87 21 0", PltGetVolumeFreeSpace(L"C:\\", &free),
        int64_t(int64_t(free >> 20)), PltGetVolumeInfo(L"C:", &space),
        int64_t(int64_t(space.TotalBytes >> 20)), int64_t(int64_t(space.FreeBytesAvailable >> 20)),
        int64_t(int64_t(space.UsedBytes >> 20)), PltGetVolumeFreeSpace(nullptr, &free),
        PltGetVolumeInfo(L"C:", nullptr), PltGetVolumeFreeSpace(L"V:\\", &free), int64_t(free));
    EXPECT_EQ(Text(space.FileSystem), "NTFS");
    std::wstring deep(258, L'x');
    EXPECT_CALLS("31 2097150 87 1", PltGetVolumeInfo(L"F:", &space),
                 int64_t(int64_t(space.TotalBytes >> 20)),
                 PltGetVolumeInfo((deep + L"y").c_str(), &space),
                 PltGetVolumeInfo(deep.c_str(), &space) != 87)
        << "259 characters without their backslash do not fit, 258 do";
    // Allocation units: a drive-qualified path is asked at its root.
    uint32_t cluster = 0, sector = 0;
    EXPECT_CALLS("0 4096 512 0 32768 0 87",
                 PltGetDiskAllocationUnitInfo(L"C:\\dir\\x", &cluster, &sector), cluster, sector,
                 PltGetDiskAllocationUnitInfo(e.c_str(), &cluster, nullptr), cluster,
                 PltGetDiskAllocationUnitInfo(L"E", nullptr, nullptr),
                 PltGetDiskAllocationUnitInfo(nullptr, &cluster, &sector));
    // The disk under an offset: by number and by name.
    uint32_t disk = 0;
    zt::GuardedBuffer name(10 * sizeof(wchar_t));
    EXPECT_CALLS("0 5 0 4294967295 0 87 87", PltGetPhysicalDiskNumber(L"F", 4096, &disk), disk,
                 PltGetPhysicalDiskNumber(L"V:\\", 0, &disk), disk,
                 PltGetPhysicalDisk(L"E", 1, name.as<wchar_t>(), 10),
                 PltGetPhysicalDisk(L"E", 1, nullptr, 10),
                 PltGetPhysicalDiskNumber(L"E", 1, nullptr));
    EXPECT_EQ(Text(name.as<wchar_t>()), "\\\\.\\PHYSI");
    sim.machine().volumes[1].failing = {{0x560020, 1117}};
    wcscpy(name.as<wchar_t>(), L"kept");
    EXPECT_CALLS("1117 4294967295 1117 0", PltGetPhysicalDiskNumber(L"E", 1, &disk), disk,
                 PltGetPhysicalDisk(L"E", 1, name.as<wchar_t>(), 10), sim.openHandles());
    EXPECT_EQ(Text(name.as<wchar_t>()), "kept");
}

TEST(Storage, DisksAndVolumesCountedAndFilled) {
    Simulation sim(ThreeDiskMachine());
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(Storage(0, 0, false), "0 3") << "disks 0, 2 and 5; disk 7 is removable";
    EXPECT_MOVED(before, {.FileCount = 4});
    EXPECT_EQ(Storage(0, 1), "0 1|PHYSICALDRIVE0,0,0,");
    EXPECT_EQ(Storage(0, 5), "0 5|PHYSICALDRIVE0,0,0,|PHYSICALDRIVE2,2,0,|PHYSICALDRIVE5,5,0,")
        << "a filling call keeps its count";
    EXPECT_EQ(Storage(1, 0, false), "0 4") << "fixed volumes: not the removable or CD-ROM ones";
    EXPECT_EQ(Storage(1, 4),
              "0 4|0001/48,0,1,C:\\;|0002/48,0,1,E:\\;|0003/48,0,1,F:\\;C:\\archive\\;|"
              "0004/48,0,1,V:\\;");
    EXPECT_EQ(Storage(1, 2).substr(0, 4), "8 2|") << "unlike the disk scan, running out is 8";
    sim.machine().volumes[2].mountPaths.assign(20, L"C:\\a\\long\\mount\\path\\");
    sim.machine().disks[1].openError = ERROR_ACCESS_DENIED;
    EXPECT_EQ(Storage(1, 4),
              "0 4|0001/48,0,1,C:\\;|0002/48,0,1,E:\\;|0003/48,0,1,|0004/48,0,1,V:\\;")
        << "mount paths that do not fit are left out whole";
    EXPECT_EQ(Storage(0, 0, false), "0 2") << "a disk that does not open is skipped";
    PLT_STORAGE_ENTRY one;
    uint32_t count = 0, two = 2;
    EXPECT_CALLS("87 87 87 0 0", PltEnumerateStorage(&one, &count, 0),
                 PltEnumerateStorage(nullptr, &two, 1), PltEnumerateStorage(&one, nullptr, 1),
                 sim.volumeSearches(), sim.openHandles());
    sim.machine().volumeSearchEnd = ERROR_ACCESS_DENIED;
    EXPECT_EQ(Storage(1, 0, false), "0 4") << "the walk ends quietly whatever ends it";
    sim.machine().volumes.clear();
    EXPECT_CALLS("5 0", PltEnumerateStorage(nullptr, &count, 1), sim.volumeSearches());
}

TEST(Live, VolumesAsTheMachineGivesThem) {
    wchar_t guid[64], normalized[64];
    ULARGE_INTEGER available, total;
    DWORD spc = 0, bps = 0, fc, tc;
    ASSERT_TRUE(GetVolumeNameForVolumeMountPointW(L"C:\\", guid, 64) &&
                GetDiskFreeSpaceExW(L"C:\\", &available, &total, nullptr) &&
                GetDiskFreeSpaceW(L"C:\\", &spc, &bps, &fc, &tc));
    PLT_VOLUME_SPACE space;
    uint32_t cluster = 0, sector = 0;
    EXPECT_CALLS("0 0 1 1 0 1", PltNormalizeVolumeName(L"C:", normalized, 64),
                 PltGetVolumeInfo(L"C:\\", &space), space.TotalBytes == total.QuadPart,
                 space.FileSystem[0] != 0,
                 PltGetDiskAllocationUnitInfo(L"C:\\windows", &cluster, &sector),
                 cluster == spc * bps && sector == bps);
    EXPECT_EQ(Text(normalized) + "\\", Text(guid));
    // Windows lists C: among fixed volumes that map to a disk. Known Wine
    // deviation: Wine answers GetDriveTypeW on a GUID path with
    // DRIVE_UNKNOWN and has no logical-to-physical query (50).
    PLT_VOLUME_LIST* list = nullptr;
    PLT_VOLINFO where;
    uint32_t volumes = 0;
    ASSERT_EQ(PltGetVolumes(nullptr, &list), 0u);
    EXPECT_TRUE(list->Count > 0 || st::OnWine());
    PltFree(reinterpret_cast<void**>(&list), 0);
    EXPECT_EQ(PltEnumerateStorage(nullptr, &volumes, 1), 0u);
    EXPECT_TRUE(volumes > 0 || st::OnWine());
    PLT_STATUS status = PltGetVolInfo(L"C", &where);
    EXPECT_TRUE(status == 0 ? where.PartitionLength > 0 : st::OnWine() && status == 50) << status;
}

}  // namespace
