// Ready-made simulated machines.
#include <zendra/sim.h>

namespace zendra::sim {

namespace {

constexpr int64_t kMiB = 1 << 20, kGiB = int64_t{1} << 30;

// Partition-type GUIDs: EFI system, Microsoft reserved, basic data, recovery.
constexpr GUID kEfi = {
    0xC12A7328, 0xF81F, 0x11D2, {0xBA, 0x4B, 0x00, 0xA0, 0xC9, 0x3E, 0xC9, 0x3B}};
constexpr GUID kReserved = {
    0xE3C9E316, 0x0B5C, 0x4DB8, {0x81, 0x7D, 0xF9, 0x2D, 0xF0, 0x02, 0x15, 0xAE}};
constexpr GUID kBasicData = {
    0xEBD0A0A2, 0xB9E5, 0x4433, {0x87, 0xC0, 0x68, 0xB9, 0x9A, 0xD4, 0xAB, 0xC7}};
constexpr GUID kRecovery = {
    0xDE94BBA4, 0x06D1, 0x4D40, {0xA1, 0x6A, 0xBF, 0xD5, 0x01, 0x79, 0xD6, 0xAC}};

std::wstring Guid(int n) {
    wchar_t text[64];
    swprintf(text, 64, L"\\\\?\\Volume{5a5a%04x-0000-0000-0000-00000000%04x}\\", n, n);
    return text;
}

Volume On(wchar_t letter, int n, uint32_t disk, int64_t offset, int64_t length,
          const wchar_t* label, const wchar_t* fileSystem = L"NTFS") {
    Volume v;
    v.letter = letter, v.guidPath = Guid(n), v.disk = disk;
    v.partitionOffset = offset, v.partitionLength = length;
    v.label = label, v.fileSystem = fileSystem;
    v.freeBytes = static_cast<uint64_t>(length) / 4;
    v.callerFreeBytes = v.freeBytes - static_cast<uint64_t>(kMiB);
    return v;
}

DeviceInterface Interface(uint32_t disk, const wchar_t* model) {
    wchar_t path[160], id[128];
    swprintf(path, 160,
             L"\\\\?\\scsi#disk&ven_zendra&prod_%ls#4&5a5a%04x&0&000000#"
             L"{53f56307-b6bf-11d0-94f2-00a0c91efb8b}",
             model, disk);
    swprintf(id, 128, L"SCSI\\DISK&VEN_ZENDRA&PROD_%ls\\4&5A5A%04X&0&000000", model, disk);
    return {path, id, disk};
}

Disk Drive(uint32_t number, uint32_t bus, const char* product, const char* serial, int64_t size) {
    Disk d;
    d.number = number, d.busType = bus, d.vendor = "ZENDRA", d.product = product;
    d.serial = serial, d.revision = "1.0", d.size = size;
    return d;
}

}  // namespace

Machine MbrMachine() {
    Machine m;
    Disk d = Drive(0, 11, "SimDisk MBR", "  A1B2  ", 256 * kGiB);
    Partition empty;
    empty.mbrType = 0;
    d.partitions = {{kMiB, 100 * kGiB, 1, 0x07},
                    empty,
                    {kMiB + 100 * kGiB, 150 * kGiB, 2, 0x0C, {}, true},
                    empty};
    m.disks = {d};
    m.volumes = {On(L'C', 1, 0, kMiB, 100 * kGiB, L"System"),
                 On(L'D', 2, 0, kMiB + 100 * kGiB, 150 * kGiB, L"", L"FAT32")};
    m.volumes[1].mountPaths = {L"C:\\mnt\\data\\"};
    m.setupApi.disks = {Interface(0, L"SIMDISK_MBR")};
    return m;
}

Machine GptMachine() {
    Machine m;
    Disk d = Drive(0, 10, "SimDisk GPT", "GPT00042", 1024 * kGiB);
    d.revision = "2.10ab9X";  // the disk keeps seven characters of it
    d.exSectors = static_cast<uint64_t>(d.size) / 4096, d.exSectorSize = 4096;
    d.layout = Layout::Gpt;
    int64_t data = 1024 * kGiB - 118 * kMiB - kGiB - kMiB;
    d.partitions = {{kMiB, 100 * kMiB, 1, 0, kEfi},
                    {101 * kMiB, 16 * kMiB, 2, 0, kReserved},
                    {117 * kMiB, data, 3, 0, kBasicData},
                    {117 * kMiB + data, kGiB, 4, 0, kRecovery}};
    m.disks = {d};
    m.volumes = {On(L'C', 1, 0, 117 * kMiB, data, L"Windows"),
                 On(L'\0', 2, 0, 117 * kMiB + data, kGiB, L"Recovery")};
    m.setupApi.disks = {Interface(0, L"SIMDISK_GPT")};
    return m;
}

Machine ThreeDiskMachine() {
    Machine m;
    m.disks = {Drive(0, 11, "SimDisk Zero", "Z0", 128 * kGiB),
               Drive(2, 17, "SimDisk Two", "Z2", 512 * kGiB),   // NVMe: not a listed interface
               Drive(5, 9, "SimDisk Five", "Z5", 2048 * kGiB),  // iSCSI
               Drive(7, 7, "SimStick", "Z7", 16 * kGiB)};       // USB, removable
    m.disks[3].driveType = DRIVE_REMOVABLE;
    for (Disk& d : m.disks) d.partitions = {{kMiB, d.size - 2 * kMiB, 1, 0x07}};
    m.volumes = {On(L'C', 1, 0, kMiB, 128 * kGiB - 2 * kMiB, L"System"),
                 On(L'E', 2, 2, kMiB, 512 * kGiB - 2 * kMiB, L"Data"),
                 On(L'F', 3, 5, kMiB, 2048 * kGiB - 2 * kMiB, L"Archive", L"ReFS"),
                 On(L'V', 4, kNoDisk, 0, 4 * kGiB, L"Scratch"),
                 On(L'U', 5, 7, kMiB, 16 * kGiB - 2 * kMiB, L"Stick", L"exFAT"),
                 On(L'R', 6, kNoDisk, 0, 700 * kMiB, L"Disc", L"CDFS")};
    m.volumes[2].mountPaths = {L"C:\\archive\\"};
    m.volumes[4].driveType = DRIVE_REMOVABLE;
    m.volumes[5].driveType = DRIVE_CDROM;
    m.setupApi.disks = {Interface(5, L"SIMDISK_FIVE"), Interface(0, L"SIMDISK_ZERO"),
                        Interface(2, L"SIMDISK_TWO"), Interface(7, L"SIMSTICK")};
    return m;
}

}  // namespace zendra::sim
