// Describes a small machine as data, runs the storage exports against it
// through the simulated machine, and checks that they answer what the
// description says. Exits 1 on any difference, so that it can serve as a
// test of its own.
#include <stdio.h>
#include <string.h>

#include <string>

#include <zendra/sim.h>
#include <zendra/storage.h>

namespace {

namespace sim = zendra::sim;

constexpr int64_t kMiB = int64_t{1} << 20, kGiB = int64_t{1} << 30;

int g_failures = 0;

void Check(bool ok, const char* what) {
    if (!ok) {
        ++g_failures;
        printf("  MISMATCH: %s\n", what);
    }
}

std::string Narrow(const wchar_t* text) {
    std::string out;
    for (; *text != L'\0'; ++text) out += *text < 128 ? static_cast<char>(*text) : '?';
    return out;
}

bool Same(const wchar_t* answered, const std::wstring& described) { return described == answered; }

// One SATA disk numbered 0 with an MBR table: an NTFS partition, an empty
// slot and a FAT32 partition. Each partition carries a volume; the second
// one is also mounted below the first. A USB stick volume is described too:
// it is removable, so neither volume list may show it.
sim::Machine DescribeMachine() {
    sim::Disk disk;
    disk.number = 0;
    disk.busType = 11;  // SATA
    disk.vendor = "ACME", disk.product = "Example Disk", disk.serial = "EX-0001";
    disk.revision = "1.0";
    disk.size = 128 * kGiB;
    sim::Partition empty;
    empty.mbrType = 0;
    disk.partitions = {{kMiB, 60 * kGiB, 1, 0x07}, empty, {kMiB + 60 * kGiB, 40 * kGiB, 2, 0x0C}};

    sim::Volume data;
    data.letter = L'S';
    data.guidPath = L"\\\\?\\Volume{0e0e0001-0000-0000-0000-000000000001}\\";
    data.disk = 0;
    data.partitionOffset = kMiB, data.partitionLength = 60 * kGiB;
    data.label = L"Data", data.fileSystem = L"NTFS";
    data.freeBytes = 20 * kGiB, data.callerFreeBytes = 19 * kGiB;

    sim::Volume logs = data;
    logs.letter = L'T';
    logs.guidPath = L"\\\\?\\Volume{0e0e0002-0000-0000-0000-000000000002}\\";
    logs.partitionOffset = kMiB + 60 * kGiB, logs.partitionLength = 40 * kGiB;
    logs.label = L"", logs.fileSystem = L"FAT32";
    logs.freeBytes = 30 * kGiB, logs.callerFreeBytes = 30 * kGiB;
    logs.mountPaths = {L"S:\\logs\\"};

    sim::Volume stick = data;
    stick.letter = L'U';
    stick.guidPath = L"\\\\?\\Volume{0e0e0003-0000-0000-0000-000000000003}\\";
    stick.disk = sim::kNoDisk;
    stick.label = L"Stick", stick.fileSystem = L"exFAT";
    stick.driveType = DRIVE_REMOVABLE;

    sim::Machine machine;
    machine.disks = {disk};
    machine.volumes = {data, logs, stick};
    return machine;
}

void ListDisks(const sim::Machine& m) {
    uint32_t count = 0;
    Check(PltEnumerateStorage(nullptr, &count, 0) == 0, "disk count call");
    printf("disks: %u\n", count);
    Check(count == m.disks.size(), "disk count");
    if (count != m.disks.size()) return;
    PLT_STORAGE_ENTRY entries[1];
    Check(PltEnumerateStorage(entries, &count, 0) == 0, "disk fill call");
    printf("  %s number %u\n", Narrow(entries[0].Name).c_str(), entries[0].DiskNumber);
    Check(Same(entries[0].Name, L"\\\\.\\PHYSICALDRIVE0"), "disk name");
    Check(entries[0].DiskNumber == 0 && entries[0].Kind == PLT_STORAGE_DISK, "disk number, kind");
}

void ListVolumeNames(const sim::Machine& m) {
    uint32_t count = 0;
    Check(PltEnumerateStorage(nullptr, &count, 1) == 0, "volume count call");
    printf("fixed volumes: %u\n", count);
    Check(count == 2, "fixed volume count");
    if (count != 2) return;
    PLT_STORAGE_ENTRY entries[2];
    Check(PltEnumerateStorage(entries, &count, 1) == 0, "volume fill call");
    for (uint32_t i = 0; i < count; ++i) {
        const sim::Volume& v = m.volumes[i];
        // The GUID path without its trailing backslash; the mount paths as a
        // list of terminated strings, the drive root first.
        std::wstring name = v.guidPath.substr(0, v.guidPath.size() - 1);
        std::wstring paths = std::wstring(1, v.letter) + L":\\";
        for (const std::wstring& p : v.mountPaths) paths += L'\0' + p;
        printf("  %s at %s", Narrow(entries[i].Name).c_str(),
               Narrow(entries[i].DisplayName).c_str());
        const wchar_t* second = entries[i].DisplayName + wcslen(entries[i].DisplayName) + 1;
        printf(*second ? " and %s\n" : "\n", Narrow(second).c_str());
        Check(Same(entries[i].Name, name), "volume name");
        Check(memcmp(entries[i].DisplayName, paths.c_str(), (paths.size() + 1) * sizeof(wchar_t)) ==
                  0,
              "mount paths");
        Check(entries[i].Kind == PLT_STORAGE_VOLUME, "volume kind");
    }
}

void DescribeVolumes(const sim::Machine& m) {
    PLT_VOLUME_LIST* list = nullptr;
    Check(PltGetVolumes(nullptr, &list) == 0 && list != nullptr, "PltGetVolumes");
    if (list == nullptr) return;
    printf("volumes on disks: %u\n", list->Count);
    Check(list->Count == 2, "volumes on disks");
    for (uint32_t i = 0; i < list->Count && i < 2; ++i) {
        const PLT_VOLUME_ENTRY& e = list->Entries[i];
        const sim::Volume& v = m.volumes[i];
        printf("  %s on %s: %s, label '%s', %llu bytes, %llu free\n", Narrow(e.VolumeName).c_str(),
               Narrow(e.PhysicalDisk).c_str(), Narrow(e.FileSystem).c_str(),
               Narrow(e.Label).c_str(), static_cast<unsigned long long>(e.TotalBytes),
               static_cast<unsigned long long>(e.FreeBytes));
        Check(Same(e.VolumeName, v.guidPath), "volume GUID path");
        Check(Same(e.PhysicalDisk, L"\\\\.\\PHYSICALDRIVE0"), "volume's disk");
        Check(Same(e.Label, v.label) && Same(e.FileSystem, v.fileSystem), "label, file system");
        std::wstring display = v.label.empty() ? L"" : v.label + L" (" + v.fileSystem + L") ";
        Check(Same(e.DisplayName, display), "display name");
        Check(e.TotalBytes == static_cast<uint64_t>(v.partitionLength), "volume size");
        Check(e.FreeBytes == v.freeBytes, "free bytes (on the volume, not the caller's)");
    }
    void* block = list;
    Check(PltFree(&block, 0) == 0, "PltFree of the list");
}

void ListPartitions(const sim::Machine& m) {
    uint32_t count = 0;
    Check(PltGetPartitionInfoByName(L"0", &count, nullptr) == 0, "partition count call");
    printf("partitions of disk 0: %u\n", count);
    Check(count == 2, "used partitions (the empty slot left out)");
    if (count != 2) return;
    PLT_PARTITION_ENTRY entries[2];
    memset(entries, 0, sizeof entries);
    Check(PltGetPartitionInfoByName(L"0", &count, entries) == 0, "partition fill call");
    const sim::Partition* used[2] = {&m.disks[0].partitions[0], &m.disks[0].partitions[2]};
    for (uint32_t i = 0; i < 2; ++i) {
        const PLT_PARTITION_ENTRY& e = entries[i];
        printf("  #%u: type 0x%02X, %lld bytes at %lld\n", e.PartitionNumber, e.PartitionType.Mbr,
               static_cast<long long>(e.PartitionLength), static_cast<long long>(e.StartingOffset));
        Check(e.Style == PLT_PARTITION_MBR, "partition style");
        Check(e.PartitionNumber == used[i]->number && e.PartitionType.Mbr == used[i]->mbrType,
              "partition number, type");
        Check(e.StartingOffset == used[i]->offset && e.PartitionLength == used[i]->length,
              "partition place");
    }
}

}  // namespace

int main() {
    const sim::Machine described = DescribeMachine();
    {
        // The simulation answers for the DLL's imports while it lives; only
        // one may exist at a time.
        sim::Simulation simulation(described);
        if (!simulation.active()) {
            printf("the simulation could not patch ZendraPlatform.dll\n");
            return 1;
        }
        ListDisks(described);
        ListVolumeNames(described);
        DescribeVolumes(described);
        ListPartitions(described);
        // What the library asked for, and that it gave everything back.
        printf("opens: %zu, control calls: %zu\n", simulation.opens().size(),
               simulation.controls().size());
        Check(simulation.openHandles() == 0, "simulated handles left open");
        Check(simulation.volumeSearches() == 0, "volume searches left open");
    }
    PLT_RESOURCE_STATS stats;
    PltGetResourceStats(&stats);
    Check(stats.LiveAllocCount == 0, "allocations left live");
    printf(g_failures == 0 ? "simulated machine: all answers match\n"
                           : "simulated machine: %d mismatches\n",
           g_failures);
    return g_failures == 0 ? 0 : 1;
}
