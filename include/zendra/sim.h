// ZendraPlatform simulated machine, for tests of the library and of the
// modules built on it. C++ only; not part of the DLL, which knows nothing of
// it.
//
// The simulation replaces Win32 imports of ZendraPlatform.dll (entries of its
// import address table) with fakes that answer from a description: physical
// disks with their identification, geometry and partitions; volumes with
// their names, mount paths, file systems and space; the Setup API's list of
// disk interfaces (served when the library loads Setupapi.dll at run time);
// files with their extents; and devices with their data and their answers to
// trims. Faults are part of the description. Names and handles the
// description does not know go to the real calls, so everything else keeps
// working while a simulation runs; the volume list and the
// "\\.\PHYSICALDRIVEn" names belong to the description alone.
#pragma once

#include <windows.h>

#include <stdint.h>

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace zendra::sim {

// ---- import patches ----

// The slot of one import (by name, from any DLL) of a loaded module, or null.
void** FindImportSlot(HMODULE module, const char* function);

// Replaces one import of a module for the patch's lifetime.
class ImportPatch {
public:
    ImportPatch(const char* function, void* replacement,
                const wchar_t* module = L"ZendraPlatform.dll");
    ~ImportPatch();
    ImportPatch(const ImportPatch&) = delete;
    ImportPatch& operator=(const ImportPatch&) = delete;
    bool active() const { return slot_ != nullptr; }  // false: the module does not import it
    void* original() const { return original_; }

private:
    void** slot_ = nullptr;
    void* original_ = nullptr;
};

// ---- the description ----

constexpr uint32_t kNoDisk = 0xFFFFFFFFu;

// A volume mounted at "<letter>:\" and at its mount paths, known also by its
// GUID path.
struct Volume {
    wchar_t letter = L'S';  // L'\0': no drive letter
    std::wstring guidPath;  // "\\?\Volume{...}\", trailing backslash included
    uint32_t disk = 0;      // disk under logical offset 1 and of its extent; kNoDisk for none
    int64_t partitionOffset = 0;
    int64_t partitionLength = 0;  // also the volume's size
    uint32_t sectorsPerCluster = 8;
    uint32_t bytesPerSector = 512;
    // Control codes this volume refuses, with the error they fail with.
    std::map<uint32_t, uint32_t> failing;
    std::wstring label;
    std::wstring fileSystem = L"NTFS";
    std::vector<std::wstring> mountPaths;  // "C:\mnt\data\", trailing backslash included
    uint64_t freeBytes = 0;                // free on the volume
    uint64_t callerFreeBytes = 0;          // free to the caller, after quotas
    UINT driveType = DRIVE_FIXED;
    uint32_t infoError = 0;   // non-zero: GetVolumeInformationW fails with it
    uint32_t spaceError = 0;  // non-zero: GetDiskFreeSpaceExW fails with it
};

// ---- physical disks ----

enum class Layout { Mbr, Gpt, Raw };

// One slot of a disk's partition table, in table order.
struct Partition {
    int64_t offset = 0;
    int64_t length = 0;
    uint32_t number = 0;
    uint8_t mbrType = 0x07;  // MBR partition-type byte; 0 is an empty slot
    GUID gptType = {};
    bool rewrite = false;
};

// A disk opened as "\\.\PHYSICALDRIVE<number>".
struct Disk {
    uint32_t number = 0;
    uint32_t busType = 11;  // STORAGE_BUS_TYPE: 3 ATA, 6 Fibre, 8 RAID, 9 iSCSI, 10 SAS, 11 SATA
    // As the device reports them, blanks included; empty ones are not given.
    std::string vendor, product, serial, revision;
    int64_t size = 0;
    uint32_t bytesPerSector = 512;
    int64_t cylinders = 0;  // 0: the size over a cylinder's bytes
    uint32_t tracksPerCylinder = 255, sectorsPerTrack = 63;
    // Non-zero: the geometry carries extended INT 13 detection with these.
    uint64_t exSectors = 0;
    uint32_t exSectorSize = 0;
    Layout layout = Layout::Mbr;
    std::vector<Partition> partitions;
    UINT driveType = DRIVE_FIXED;  // of "\\.\PHYSICALDRIVE<number>\"
    // Faults: the open fails; control codes fail with the given error; the
    // storage descriptor is answered as these bytes (StorageDescriptor gives
    // the honest one to start from); the layout claims more partitions than
    // it holds; the geometry states another size for its partition block.
    uint32_t openError = 0;
    std::map<uint32_t, uint32_t> failing;
    std::vector<uint8_t> descriptor;
    uint32_t claimedPartitions = 0;
    uint32_t partitionInfoSize = 24;
};

// The STORAGE_DEVICE_DESCRIPTOR a disk answers: the header, then its
// non-empty strings, each terminated.
std::vector<uint8_t> StorageDescriptor(const Disk& disk);

// ---- the Setup API ----

// A present disk interface: its device path opens the disk numbered `disk`
// (kNoDisk: the path does not open).
struct DeviceInterface {
    std::wstring path;
    std::wstring instanceId;
    uint32_t disk = 0;
};

struct SetupApi {
    std::vector<DeviceInterface> disks;       // in enumeration order
    uint32_t loadError = 0;                   // non-zero: loading Setupapi.dll fails with it
    std::set<std::string> missing;            // entry points it does not export
    std::map<std::string, uint32_t> failing;  // entry points that fail, with their error
};

// A run of clusters as the file system's retrieval pointers give it.
struct Extent {
    int64_t nextVcn;
    int64_t lcn;
};

// A file of a simulated volume, opened by its full path ("S:\data.bin").
struct File {
    std::wstring path;
    int64_t startingVcn = 0;
    std::vector<Extent> extents;
    // Non-zero: the extent count the answer claims, whatever it holds.
    uint32_t claimedExtents = 0;
};

enum class Trim {
    AtOnce,       // completes every trim before the control call returns
    Pending,      // leaves every trim pending (ERROR_IO_PENDING)
    Unsupported,  // refuses trims with ERROR_INVALID_FUNCTION
};

// A device opened as "\\.\<name>": a medium of bytes with a position.
struct Device {
    std::wstring name;
    Trim trim = Trim::AtOnce;
    std::vector<uint8_t> data;
    // A transfer that reaches this byte moves what lies before it and then
    // fails with `failure`.
    uint64_t failAt = UINT64_MAX;
    uint32_t failure = ERROR_IO_DEVICE;
};

struct Machine {
    std::vector<Volume> volumes;  // also the order of the volume search
    std::vector<File> files;
    std::vector<Device> devices;
    std::vector<Disk> disks;
    SetupApi setupApi;
    uint32_t volumeSearchEnd = ERROR_NO_MORE_FILES;  // how the volume search ends
};

// Ready-made machines, for tests and benchmarks:
// one SATA disk with an MBR table (two used slots, two empty) under C: and D:;
Machine MbrMachine();
// one SAS disk with a GPT table of four partitions (extended INT 13
// detection), two of them volumes, one without a drive letter;
Machine GptMachine();
// disks 0, 2 and 5 (gaps in the numbering) and a removable disk 7, with
// volumes on them, one on no disk, and a removable and a CD-ROM volume.
Machine ThreeDiskMachine();

// ---- the simulation ----

// What the library asked for.
struct OpenCall {
    std::wstring path;
    DWORD access, share, disposition, flags;
};
struct ControlCall {
    std::wstring target;  // path the handle was opened with
    DWORD code;
    std::vector<uint8_t> input;
    bool overlapped;
};

// Installs the fakes for its lifetime; one simulation at a time. Destroy it
// only once no other thread is inside the library: a call that reaches a fake
// after the simulation is gone has nothing to answer from. Every open and
// control call is recorded for opens() and controls(); a long run records
// them all, so give each phase of a long benchmark its own simulation.
class Simulation {
public:
    explicit Simulation(Machine machine);
    ~Simulation();
    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;

    bool active() const;  // every import was patched
    // The description, to change while the simulation runs (a failing
    // control code, a device's data). Adding or removing entries leaves open
    // simulated handles pointing nowhere: do that with none open.
    Machine& machine() { return machine_; }

    // Every CreateFileW call (simulated or not) and every control call to a
    // simulated handle, in order.
    std::vector<OpenCall> opens() const;
    std::vector<ControlCall> controls() const;
    // Simulated handles opened and not yet closed.
    int openHandles() const;
    // Trims left pending and not yet finished; FinishPending ends them with
    // the given error, as the device would.
    int pendingTrims() const;
    void FinishPending(uint32_t error = 0);

    // What is still held: volume searches not closed, references to
    // Setupapi.dll not freed, device information sets not destroyed, and
    // LocalAlloc blocks not freed (of those allocated while it runs).
    int volumeSearches() const;
    int setupLoads() const;
    int deviceSets() const;
    int localBlocks() const;
    // Setup API calls, by entry-point name, in order.
    std::vector<std::string> setupCalls() const;

    // Serves another module's imports too (a test program that calls Win32
    // or the Setup API itself); only the imports it has are replaced.
    void Serve(const wchar_t* module);

private:
    struct Handle;
    friend struct Fakes;
    Machine machine_;
    mutable std::recursive_mutex lock_;
    std::map<HANDLE, Handle*> handles_;
    std::vector<OpenCall> opens_;
    std::vector<ControlCall> controls_;
    std::vector<OVERLAPPED*> pending_;
    std::map<HANDLE, size_t> searches_;  // volume search: the next volume
    std::map<HANDLE, bool> sets_;        // device information set: lists disks
    std::set<HLOCAL> localBlocks_;
    std::vector<std::string> setupCalls_;
    int setupLoads_ = 0;
    uintptr_t nextHandle_;
    std::vector<ImportPatch*> patches_;
    std::vector<ImportPatch*> served_;
};

}  // namespace zendra::sim
