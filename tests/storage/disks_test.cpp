// Physical disks, partitions and machine identity, on simulated machines and
// the live one.
#include <string.h>

#include "storage_support.h"

namespace {

using namespace zendra::sim;
using st::Text;

// Status, then interface, vendor, product, serial, revision, size in MiB,
// sectors, sector size and the reserved word.
std::string Info(const wchar_t* disk) {
    HANDLE h = nullptr;
    PLT_DISK_INFO info;
    memset(&info, 0xCD, sizeof info);
    PLT_STATUS status = PltOpenDriver(&h, disk);
    if (status != 0) return std::to_string(status);
    status = PltGetDiskInfo(h, &info);
    PltCloseFile(h);
    return std::to_string(status) + "|" + std::to_string(info.Interface) + "," +
           Text(info.VendorId) + "," + Text(info.ProductId) + "," + Text(info.SerialNumber) + "," +
           Text(info.ProductRevision) + "," + std::to_string(info.DiskSize >> 20) + "," +
           std::to_string(info.TotalSectors) + "," + std::to_string(info.BytesPerSector) + "," +
           std::to_string(info.Reserved);
}

// Status, count, then per entry: style, length and offset in MiB, number,
// rewrite flag, type (MBR byte or the GPT GUID's first word), and whether
// the reserved words were left alone.
std::string Partitions(const wchar_t* disk, uint32_t count, bool fill = true) {
    PLT_PARTITION_ENTRY entries[6];
    memset(entries, 0xCD, sizeof entries);
    std::string out =
        std::to_string(PltGetPartitionInfoByName(disk, &count, fill ? entries : nullptr));
    out += " " + std::to_string(count);
    for (const PLT_PARTITION_ENTRY& e : entries) {
        if (!fill || e.Style == 0xCDCDCDCD) break;
        char type[16];
        snprintf(type, sizeof type, "%x",
                 e.Style == 2 ? unsigned(e.PartitionType.Gpt.Data1) : e.PartitionType.Mbr);
        out += "|" + std::to_string(e.Style) + "," + std::to_string(e.PartitionLength >> 20) + "," +
               std::to_string(e.StartingOffset >> 20) + "," + std::to_string(e.PartitionNumber) +
               "," + std::to_string(e.RewritePartition) + "," + type +
               (e.Reserved1 == 0xCDCDCDCD && e.Reserved3[263] == 0xCD ? "" : ",touched");
    }
    return out;
}

// Status and the identifier, freed with its tag.
std::string Id(const wchar_t* disk) {
    wchar_t* id = nullptr;
    std::string out = std::to_string(PltGetUniqueID(disk, &id));
    if (id != nullptr) out += " " + Text(id);
    if (id != nullptr) PltFree(reinterpret_cast<void**>(&id), PLT_UNIQUE_ID_TAG);
    return out;
}

TEST(Disks, IdentificationAndGeometryAsTheDeviceGivesThem) {
    {
        Simulation sim(MbrMachine());
        EXPECT_EQ(Info(L"PHYSICALDRIVE0"), "0|3,ZENDRA,SimDisk MBR,A1B2,1.0,262144,536860170,512,0")
            << "blanks around the serial dropped; sectors from the cylinders";
        std::string seen;
        for (uint32_t bus : {3, 10, 11, 9, 8, 6, 17, 0}) {
            sim.machine().disks[0].busType = bus;
            seen += Info(L"PHYSICALDRIVE0").substr(2, 1);
        }
        EXPECT_EQ(seen, "12345600");
        Disk& d = sim.machine().disks[0];
        d.failing = {{0x700A0, 1117}};
        EXPECT_EQ(Info(L"PHYSICALDRIVE0"), "1117|0,ZENDRA,SimDisk MBR,A1B2,1.0,0,0,0,0")
            << "the strings stay when the geometry fails";
        d.failing = {{0x2D1400, 1117}};
        EXPECT_EQ(Info(L"PHYSICALDRIVE0"), "1117|0,,,,,0,0,0,0");
        // A descriptor whose offsets lie past the 4096 bytes taken, or whose
        // text runs past them: only what lies inside is read.
        d.failing = {};
        d.descriptor = StorageDescriptor(d);
        uint32_t past = 5000, end = 4096;
        memcpy(&d.descriptor[12], &past, 4), memcpy(&d.descriptor[16], &end, 4);
        d.descriptor.resize(4100, 'Z');
        memcpy(&d.descriptor[4090], "ABCDEFGHIJ", 10);
        uint32_t nearEnd = 4090;
        memcpy(&d.descriptor[24], &nearEnd, 4);
        EXPECT_EQ(Info(L"PHYSICALDRIVE0"), "0|0,,,ABCDEF,1.0,262144,536860170,512,0");
        HANDLE h = nullptr;
        PLT_DISK_INFO info;
        EXPECT_CALLS("87 0 87 0", PltGetDiskInfo(nullptr, &info),
                     PltOpenDriver(&h, L"PHYSICALDRIVE0"), PltGetDiskInfo(h, nullptr),
                     PltCloseFile(h));
    }
    Simulation sim(GptMachine());
    EXPECT_EQ(Info(L"PHYSICALDRIVE0"),
              "0|2,ZENDRA,SimDisk GPT,GPT00042,2.10ab9,1048576,268435456,4096,0")
        << "extended INT 13 detection gives the sectors and their size";
    sim.machine().disks[0].partitionInfoSize = 0xFFFFFF00u;
    EXPECT_EQ(Info(L"PHYSICALDRIVE0"),
              "0|2,ZENDRA,SimDisk GPT,GPT00042,2.10ab9,1048576,2147472810,512,0")
        << "a detection block placed past the answer is not read";
    EXPECT_EQ(Info(L"PHYSICALDRIVE1"), "2");
}

TEST(Disks, UsedPartitionsByNameAndHandle) {
    {
        Simulation sim(MbrMachine());
        PLT_RESOURCE_STATS before = zt::Snapshot();
        EXPECT_EQ(Partitions(L"0", 4), "0 4|1,102400,1,1,0,7|1,153600,102401,2,1,c")
            << "two used slots of four, in table order; the count stays as given";
        EXPECT_MOVED(before, {.FileCount = 1});
        EXPECT_CALLS("1 1", Partitions(L"0", 0, false) == "0 2", Partitions(L"0", 1) == "8 1")
            << "a count-only call; a count too small writes nothing";
        zt::GuardedBuffer path(19 * sizeof(wchar_t));
        wcscpy(path.as<wchar_t>(), L"\\\\.\\physicaldrive0");
        EXPECT_EQ(Partitions(path.as<wchar_t>(), 2), "0 2|1,102400,1,1,0,7|1,153600,102401,2,1,c")
            << "a device path is read up to its terminator";
        sim.machine().disks[0].failing = {{0x70050, 1117}};
        EXPECT_CALLS("1 1 1", Partitions(L"0", 4) == "1117 4", Partitions(L"9", 4) == "2 4",
                     Partitions(nullptr, 4) == "87 4");
        zt::HeapFailure fail(1);
        EXPECT_EQ(Partitions(L"0", 4), "8 4");
    }
    Simulation sim(GptMachine());
    sim.machine().disks[0].claimedPartitions = 300;
    EXPECT_EQ(Partitions(L"\\\\.\\PHYSICALDRIVE0", 5),
              "0 5|2,100,1,1,0,c12a7328|2,16,101,2,0,e3c9e316|2,1047433,117,3,0,ebd0a0a2|2,1024,"
              "1047550,4,0,de94bba4")
        << "a layout claiming 300 partitions gives the four it holds";
    uint32_t count = 0;
    EXPECT_CALLS("87 87 87", PltGetPartitionInfoByHandle(nullptr, &count, nullptr),
                 PltGetPartitionInfoByHandle(INVALID_HANDLE_VALUE, &count, nullptr),
                 PltGetPartitionInfoByHandle(reinterpret_cast<HANDLE>(4), nullptr, nullptr));
}

TEST(Identity, InstanceIdsThroughTheSetupApi) {
    Simulation sim(ThreeDiskMachine());
    std::string prefix = "0 SCSI\\DISK&VEN_ZENDRA&PROD_";
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(Id(L"0"), prefix + "SIMDISK_ZERO\\4&5A5A0000&0&000000");
    EXPECT_MOVED(before, {.AllocCount = 2, .AllocBytes = 8192 + 2 * 59});
    EXPECT_EQ(
        Id(L"\\\\.\\physicaldrive5") + Id(L"2"),
        prefix + "SIMDISK_FIVE\\4&5A5A0005&0&000000" + prefix + "SIMDISK_TWO\\4&5A5A0002&0&000000");
    wchar_t buffer[64], *given = buffer;
    EXPECT_CALLS("0 1 259 259 87 87", PltGetUniqueID(L"7", &given),
                 Text(buffer) == prefix.substr(2) + "SIMSTICK\\4&5A5A0007&0&000000",
                 PltGetUniqueID(L"9", &given), PltGetUniqueID(L"PHYSICALDRIVE0", &given),
                 PltGetUniqueID(nullptr, &given), PltGetUniqueID(L"0", nullptr));
    // Each fault ends the search at once, with everything released.
    SetupApi& api = sim.machine().setupApi;
    auto faulted = [&](auto change) {
        SetupApi kept = api;
        change();
        std::string result = Id(L"0");
        api = kept;
        return result + "/" + zt::Joined({sim.deviceSets(), sim.setupLoads(), sim.localBlocks()});
    };
    EXPECT_EQ(faulted([&] { api.loadError = ERROR_MOD_NOT_FOUND; }), "126/0 0 0");
    EXPECT_EQ(faulted([&] { api.missing = {"SetupDiGetDeviceInstanceIdW"}; }), "127/0 0 0");
    EXPECT_EQ(faulted([&] { api.failing = {{"SetupDiGetClassDevsW", 5}}; }), "5/0 0 0");
    EXPECT_EQ(faulted([&] { api.failing = {{"SetupDiEnumDeviceInfo", 0}}; }), "1168/0 0 0");
    EXPECT_EQ(faulted([&] {
                  api.failing = {{"SetupDiGetDeviceInterfaceDetailW", 5}};
              }),
              "122/0 0 0");
    EXPECT_EQ(faulted([&] { api.disks[0].disk = kNoDisk; }), "2/0 0 0")
        << "an interface that does not open ends the search before disk 0 is reached";
    EXPECT_EQ(faulted([&] { api.disks[0].path.resize(2100, L'x'); }), "122/0 0 0")
        << "a device path longer than 4096 bytes";
    EXPECT_EQ(faulted([&] { api.disks[1].instanceId.resize(4000, L'x'); }), "122/0 0 0");
    sim.machine().disks[2].failing = {{0x2D1080, 1117}};
    EXPECT_CALLS("1117 0", PltGetUniqueID(L"0", &given), sim.openHandles());
    sim.machine().disks[2].failing = {};
    {
        ZT_FAIL_IMPORT(LocalAlloc, ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_EQ(faulted([] {}), "8/0 0 0");
    }
    EXPECT_EQ(zt::SweepAllocationFailures([&](int nth) {
                  zt::HeapFailure fail(nth);
                  std::string result = faulted([] {});
                  EXPECT_EQ(result[0], fail.failed() ? '8' : '0') << nth;
                  return !fail.failed();
              }),
              2);
}

TEST(Identity, EncodedIdsPlaceholdersAndDiskNames) {
    uint8_t ab[20], counting[20];
    memset(ab, 0xAB, sizeof ab);
    for (int i = 0; i < 20; ++i) counting[i] = static_cast<uint8_t>(i * 13);
    wchar_t out[41];
    wmemset(out, L'#', 41);
    EXPECT_CALLS("0 1 87 87", PltGetEnCodedUniqueId(ab, out), out[40] == L'#',
                 PltGetEnCodedUniqueId(nullptr, out), PltGetEnCodedUniqueId(ab, nullptr));
    out[40] = 0;
    EXPECT_EQ(Text(out), "ABABABABABABABABABABABABABABABABABABABAB");
    EXPECT_EQ(PltGetEnCodedUniqueId(counting, out), 0u);
    EXPECT_EQ(Text(out), "000D1A2734414E5B6875828F9CA9B6C3D0DDEAF7");
    {
        zt::HeapFailure fail(1);
        EXPECT_EQ(PltGetEnCodedUniqueId(ab, out), 8u) << "the conversion's working copy";
    }
    std::string texts;
    for (int selector : {0, 1, 2, 3, 4, 5, -1}) {
        char field[16] = "untouched";
        EXPECT_EQ(PltGetDevInfoStr(0, field, selector), 0u);
        texts += std::string(field) + ",";
    }
    EXPECT_EQ(texts,
              "DUMMY_MODEL,DUMMY_VENDOR,DUMMY_FWRev,DUMMY_SERIALNUM,DUMMY_PRODUCT,untouched,"
              "untouched,");
    zt::GuardedBuffer name(6 * sizeof(wchar_t));
    wchar_t full[32];
    EXPECT_CALLS("0 0 0 0", PltGetDiskName(L"12", full, 32),
                 PltGetDiskName(L"3", name.as<wchar_t>(), 6), PltGetDiskName(nullptr, nullptr, 4),
                 PltGetDevInfoStr(0, nullptr, 1));
    EXPECT_EQ(Text(full) + "|" + Text(name.as<wchar_t>()), "\\\\.\\PHYSICALDRIVE12|\\\\.\\P");
}

TEST(Live, DisksAsTheMachineGivesThem) {
    // Windows lists its fixed disks with their partitions and instance
    // identifiers. Known Wine deviations: GetDriveTypeW on
    // "\\.\PHYSICALDRIVE0\" gives DRIVE_UNKNOWN, the layout query is not
    // supported (50), and the Setup API lists no disk (259).
    uint32_t disks = 0;
    ASSERT_EQ(PltEnumerateStorage(nullptr, &disks, 0), 0u);
    EXPECT_TRUE(disks > 0 || st::OnWine());
    uint32_t count = 0;
    PLT_STATUS layout = PltGetPartitionInfoByName(L"0", &count, nullptr);
    EXPECT_TRUE(layout == 0 || (st::OnWine() && layout == 50)) << layout;
    wchar_t* id = nullptr;
    PLT_STATUS found = PltGetUniqueID(L"0", &id);
    EXPECT_TRUE(found == 0 ? id[0] != 0 : st::OnWine() && found == 259) << found;
    if (id != nullptr) PltFree(reinterpret_cast<void**>(&id), PLT_UNIQUE_ID_TAG);
    HANDLE disk = nullptr;
    PLT_DISK_INFO info;
    if (PltOpenDriver(&disk, L"PHYSICALDRIVE0") != 0) return;  // no disk to describe
    EXPECT_EQ(PltGetDiskInfo(disk, &info), 0u);
    EXPECT_EQ(info.Reserved, 0u);
    PltCloseFile(disk);
}

}  // namespace
