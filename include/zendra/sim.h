// ZendraPlatform simulated machine, for tests of the library and of the
// modules built on it. C++ only; not part of the DLL, which knows nothing of
// it.
//
// The simulation replaces Win32 imports of ZendraPlatform.dll (entries of its
// import address table) with fakes that answer from a description: volumes,
// files with their extents, and devices with their data and their answers to
// trims. Names and handles the description does not know go to the real
// calls, so everything else keeps working while a simulation runs.
#pragma once

#include <windows.h>

#include <stdint.h>

#include <map>
#include <mutex>
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

// A volume mounted at "<letter>:\", known also by its GUID path.
struct Volume {
    wchar_t letter = L'S';
    std::wstring guidPath;  // "\\?\Volume{...}\", trailing backslash included
    uint32_t disk = 0;      // disk under logical offset 1; kNoDisk for none
    int64_t partitionOffset = 0;
    int64_t partitionLength = 0;
    uint32_t sectorsPerCluster = 8;
    uint32_t bytesPerSector = 512;
    // Control codes this volume refuses, with the error they fail with.
    std::map<uint32_t, uint32_t> failing;
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
    std::vector<Volume> volumes;
    std::vector<File> files;
    std::vector<Device> devices;
};

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

// Installs the fakes for its lifetime; one simulation at a time.
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

private:
    struct Handle;
    friend struct Fakes;
    Machine machine_;
    mutable std::recursive_mutex lock_;
    std::map<HANDLE, Handle*> handles_;
    std::vector<OpenCall> opens_;
    std::vector<ControlCall> controls_;
    std::vector<OVERLAPPED*> pending_;
    uintptr_t nextHandle_;
    std::vector<ImportPatch*> patches_;
};

}  // namespace zendra::sim
