// TestSystem and TestVolume on simulated machines (where they must pass in
// full), with faults planted in the machine, and on the live one.
#include <zendra/sim.h>
#include <zendra/storage.h>

#include "inventory.h"
#include "selfcheck_support.h"

namespace {

using namespace zendra::sim;

struct Outcome {
    uint32_t system, volume;
    std::wstring systemText, systemFailures, volumeFailures;
};

// Both routines on one machine; the simulation must end with every handle,
// search, set, library reference and block it served given back.
Outcome RunOn(Machine machine) {
    Outcome r{};
    Simulation sim(std::move(machine));
    EXPECT_TRUE(sim.active());
    Report system, volume;
    r.system = TestSystem(system.get());
    r.volume = TestVolume(volume.get());
    r.systemText = system.text();
    r.systemFailures = system.failures();
    r.volumeFailures = volume.failures();
    EXPECT_EQ(sim.openHandles(), 0);
    EXPECT_EQ(sim.volumeSearches(), 0);
    EXPECT_EQ(sim.setupLoads(), 0);
    EXPECT_EQ(sim.deviceSets(), 0);
    EXPECT_EQ(sim.localBlocks(), 0);
    return r;
}

bool Has(const std::wstring& text, const std::wstring& part) {
    return text.find(part) != std::wstring::npos;
}

TEST(MachineChecks, PassInFullAndListWhatTheMachineHolds) {
    const struct {
        const char* name;
        Machine (*machine)();
        std::vector<std::wstring> lines;
    } cases[] = {
        {"MBR",
         MbrMachine,
         {L"\tDisk device name:\\\\.\\PHYSICALDRIVE0\n\r\n\tdevice number: 0 \n\r\n",
          L"\t\tPartition Number: 2\n\r\n\t\tPartition type MBR\n\r\n"
          L"\t\tTotal size: 161061273600 bytes\n\r\n\t\tPartition offset: 1048576\n\r\n"
          L"\t\tRewritePartition flag: TRUE(1)\n\r\n",
          L"\tDevice interface is SATA\n\r\n\tVendor ID : ZENDRA \n\r\n"
          L"\tProduct ID : SimDisk MBR \n\r\n\tSerial No : A1B2 \n\r\n\tRevision : 1.0 \n\r\n",
          L"\tFilesystem : FAT32 \n\r\n", L"\tdisplay name: C:\\ \n\r\n"}},
        {"GPT",
         GptMachine,
         {L"\tDevice interface is SAS\n\r\n", L"\t\tPartition type GPT\n\r\n",
          L"\tTotal sectors: 268435456 \n\r\n\tBytes per sector: 4096 \n\r\n",
          L"\tRevision : 2.10ab9 \n\r\n"}},
    };
    for (const auto& c : cases) {
        Outcome r = RunOn(c.machine());
        EXPECT_EQ(r.system, 0u) << c.name << "\n" << r.systemText;
        EXPECT_EQ(r.systemFailures, L"") << c.name;
        EXPECT_EQ(r.volume, 0u) << c.name;
        EXPECT_EQ(r.volumeFailures, L"") << c.name;
        for (const std::wstring& line : c.lines) EXPECT_TRUE(Has(r.systemText, line)) << c.name;
    }
}

// A fault in the machine: which routine reports it, and how.
TEST(MachineChecks, ReportFaultsOfTheMachine) {
    const auto noDescriptor = [](Machine& m) {
        m.disks[0].failing[IOCTL_STORAGE_QUERY_PROPERTY] = ERROR_IO_DEVICE;
    };
    const auto noInstanceId = [](Machine& m) {
        m.setupApi.failing["SetupDiGetDeviceInstanceIdW"] = ERROR_ACCESS_DENIED;
    };
    const auto noSpace = [](Machine& m) { m.volumes[0].spaceError = ERROR_NOT_READY; };
    const auto onNoDisk = [](Machine& m) { m.volumes[1].disk = kNoDisk; };
    const auto nothing = [](Machine& m) { m = Machine{}; };
    const auto threeDisks = [](Machine& m) { m = ThreeDiskMachine(); };
    const auto laterWithoutId = [](Machine& m) {
        m = ThreeDiskMachine();
        m.setupApi.disks[0].instanceId.clear();  // disk 5, listed last
    };
    const struct {
        const char* name;
        void (*plant)(Machine&);
        uint32_t system;
        std::wstring systemFailures, message;
        uint32_t volume;
        std::wstring volumeFailures;
    } cases[] = {
        {"descriptor fails", noDescriptor, 1, L";", SystemMessage(ERROR_IO_DEVICE), 0, L""},
        {"instance id fails", noInstanceId, 1,
         L"PNP ID should be returned , so the string length should be greater than 0.;",
         SystemMessage(ERROR_ACCESS_DENIED), 0, L""},
        {"free space fails", noSpace, 1, L";;", SystemMessage(ERROR_NOT_READY), 0, L""},
        // Nothing to list on no disk: no extents, so no size.
        {"volume on no disk", onNoDisk, 1, L"Volume Size should be greater than 0.;", L"", 1,
         L"The physical disk number must be a valid number;"},
        {"three disks, a volume on none", threeDisks, 1, L"Volume Size should be greater than 0.;",
         L"", 1, L"The physical disk number must be a valid number;"},
        // Every disk's ID is asked for, not only the first one's.
        {"a later disk without an id", laterWithoutId, 1,
         L"Volume Size should be greater than 0.;PNP ID should be returned , so the string length "
         L"should be greater than 0.;",
         L"", 1, L"The physical disk number must be a valid number;"},
        // No disks: the disk listing fails as 87, and the others still run;
        // the volume search fails with its own error.
        {"no disks, no volumes", nothing, 1,
         L";;Volume count will be more than 0.;Volume name should be returned , so the name "
         L"length should be greater than 0.;",
         SystemMessage(ERROR_INVALID_PARAMETER), 0, L""},
    };
    for (const auto& c : cases) {
        Machine m = MbrMachine();
        c.plant(m);
        Outcome r = RunOn(std::move(m));
        EXPECT_EQ(r.system, c.system) << c.name << "\n" << r.systemText;
        EXPECT_EQ(r.systemFailures, c.systemFailures) << c.name << "\n" << r.systemText;
        EXPECT_TRUE(Has(r.systemText, c.message + L"\r\n : Failed - ")) << c.name;
        EXPECT_EQ(r.volume, c.volume) << c.name;
        EXPECT_EQ(r.volumeFailures, c.volumeFailures) << c.name;
    }
}

// The listing is cut at capacity - 4 characters, never past the buffer.
TEST(MachineChecks, ListingIsCutToTheCapacity) {
    Simulation sim(MbrMachine());
    for (uint32_t capacity : {5u, 300u, 2000u}) {
        Report report(capacity);
        EXPECT_EQ(TestSystem(report.get()), 0u) << capacity;
        EXPECT_EQ(report.text().size(), capacity - 4) << capacity;
        EXPECT_EQ(report.text().substr(0, 1), L"T") << capacity;
    }
}

// Wine lists no disks and no fixed volumes (no partitions, no volume to disk
// mapping): its disk listing fails as on a machine without disks.
TEST(MachineChecks, OnThisMachine) {
    Report system, volume;
    uint32_t result = TestSystem(system.get());
    EXPECT_EQ(TestVolume(volume.get()), 0u) << volume.text();
    if (GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr) {
        EXPECT_EQ(result, 1u) << "todo_wine: no disks\n" << system.text();
        EXPECT_EQ(system.failures(), L";");
        EXPECT_TRUE(Has(system.text(), SystemMessage(ERROR_INVALID_PARAMETER)));
    } else {
        EXPECT_EQ(result, 0u) << system.text();
    }
    EXPECT_TRUE(Has(system.text(), L"\nMachine Info\n"));
}

// ---- the runner's inventory ----

zendra::inventory::Api LinkedApi() {
    return {PltGetMachineInfo, PltGetVolumes,  PltFree,
            PltEnumerateStorage, PltOpenDriver, PltGetDiskInfo,
            PltGetPartitionInfoByHandle, PltCloseFile};
}

TEST(Inventory, DescribesVolumesDisksAndPartitionsAsTableAndJson) {
    Simulation sim(GptMachine());
    const std::string table = zendra::inventory::Describe(LinkedApi(), false);
    const std::string json = zendra::inventory::Describe(LinkedApi(), true);
    for (const char* part :
         {"Fixed volumes: 2\n", "Physical disks: 1\n  \\\\.\\PHYSICALDRIVE0\n",
          "    interface SAS         vendor ZENDRA     product SimDisk GPT",
          "size 1099511627776 bytes, 268435456 sectors of 4096 bytes",
          "      4 GPT        1098435788800       1073741824 DE94BBA4-06D1-4D40-A16A-BFD50179D6AC no"})
        EXPECT_NE(table.find(part), std::string::npos) << part << "\n" << table;
    for (const char* part :
         {"\"disk\": \"\\\\\\\\.\\\\PHYSICALDRIVE0\", \"label\": \"Recovery\", \"fileSystem\": \"NTFS\"",
          "{\"number\": 1, \"style\": \"GPT\", \"offset\": 1048576, \"length\": 104857600, "
          "\"type\": \"C12A7328-F81F-11D2-BA4B-00A0C93EC93B\", \"rewrite\": false},",
          "\"serial\": \"GPT00042\", \"revision\": \"2.10ab9\""})
        EXPECT_NE(json.find(part), std::string::npos) << part << "\n" << json;
    EXPECT_EQ(sim.openHandles(), 0);
}

}  // namespace
