// The simulation's fakes for handles, files, devices and volume names: each
// answers for the names and handles of the description and passes everything
// else to the real call.
#include <string.h>
#include <wctype.h>

#include <algorithm>

#include "fakes.h"

namespace zendra::sim {

namespace {

constexpr DWORD kPartitionInfoEx = 0x70048;
constexpr DWORD kLogicalToPhysical = 0x560020;
constexpr DWORD kDiskExtents = 0x560000;
constexpr DWORD kRetrievalPointers = 0x90073;
constexpr DWORD kManageDataSetAttributes = 0x2D9404;
constexpr uintptr_t kFirstHandle = 0x5A5A0000;  // far above the handles Wine hands out

template <typename F>
void Resolve(HMODULE kernel, F* entry, const char* name) {
    *entry = reinterpret_cast<F>(reinterpret_cast<void*>(::GetProcAddress(kernel, name)));
}

}  // namespace

RealCalls g_real;
Simulation* g_simulation;

void ResolveRealCalls() {
    HMODULE k = GetModuleHandleW(L"kernel32.dll");
    RealCalls& r = g_real;
    Resolve(k, &r.CreateFileW, "CreateFileW"), Resolve(k, &r.CloseHandle, "CloseHandle");
    Resolve(k, &r.DeviceIoControl, "DeviceIoControl"), Resolve(k, &r.ReadFile, "ReadFile");
    Resolve(k, &r.WriteFile, "WriteFile"), Resolve(k, &r.SetFilePointerEx, "SetFilePointerEx");
    Resolve(k, &r.GetOverlappedResult, "GetOverlappedResult");
    Resolve(k, &r.GetVolumeNameForVolumeMountPointW, "GetVolumeNameForVolumeMountPointW");
    Resolve(k, &r.GetDiskFreeSpaceW, "GetDiskFreeSpaceW");
    Resolve(k, &r.GetDiskFreeSpaceExW, "GetDiskFreeSpaceExW");
    Resolve(k, &r.GetDriveTypeW, "GetDriveTypeW");
    Resolve(k, &r.GetVolumeInformationW, "GetVolumeInformationW");
    Resolve(k, &r.GetVolumePathNamesForVolumeNameW, "GetVolumePathNamesForVolumeNameW");
    Resolve(k, &r.FindNextVolumeW, "FindNextVolumeW");
    Resolve(k, &r.FindVolumeClose, "FindVolumeClose");
    Resolve(k, &r.LoadLibraryW, "LoadLibraryW"), Resolve(k, &r.FreeLibrary, "FreeLibrary");
    Resolve(k, &r.GetProcAddress, "GetProcAddress");
    Resolve(k, &r.LocalAlloc, "LocalAlloc"), Resolve(k, &r.LocalFree, "LocalFree");
}

bool SameText(const std::wstring& a, const wchar_t* b) {
    size_t n = wcslen(b);
    if (a.size() != n) return false;
    for (size_t i = 0; i < n; ++i)
        if (towupper(a[i]) != towupper(b[i])) return false;
    return true;
}

std::wstring Lower(std::wstring text) {
    for (wchar_t& c : text) c = towlower(c);
    return text;
}

BOOL Fail(DWORD error) {
    SetLastError(error);
    return FALSE;
}

Simulation::Handle* Fakes::Find(Simulation& s, HANDLE h) {
    auto it = s.handles_.find(h);
    return it == s.handles_.end() ? nullptr : it->second;
}

HANDLE Fakes::NewHandle(Simulation& s) {
    HANDLE handle = reinterpret_cast<HANDLE>(s.nextHandle_);
    s.nextHandle_ += 4;
    return handle;
}

Volume* Fakes::VolumeOf(Simulation& s, const wchar_t* name, bool root) {
    std::wstring n = Lower(name);
    for (Volume& v : s.machine_.volumes) {
        std::wstring letter(1, static_cast<wchar_t>(towlower(v.letter)));
        std::wstring guid = Lower(v.guidPath);
        bool lettered = v.letter != L'\0';
        if (root) {
            if ((lettered && (n == letter + L":\\" || n == L"\\\\?\\" + letter + L":\\")) ||
                n == guid)
                return &v;
            for (const std::wstring& path : v.mountPaths)
                if (n == Lower(path)) return &v;
        } else if ((lettered &&
                    (n == L"\\\\?\\" + letter + L":" || n == L"\\\\.\\" + letter + L":")) ||
                   (!guid.empty() && (n == guid.substr(0, guid.size() - 1) ||
                                      n == L"\\\\.\\" + guid.substr(4, guid.size() - 5)))) {
            return &v;
        }
    }
    return nullptr;
}

HANDLE WINAPI Fakes::CreateFile(LPCWSTR path, DWORD access, DWORD share,
                                LPSECURITY_ATTRIBUTES security, DWORD disposition, DWORD flags,
                                HANDLE templ) {
    Simulation& s = *g_simulation;
    {
        Lock lock(s.lock_);
        s.opens_.push_back({path != nullptr ? path : L"", access, share, disposition, flags});
        Simulation::Handle h;
        DWORD error = 0;
        if (path != nullptr) {
            if (OpenDisk(s, path, &h.disk, &error) && h.disk == nullptr) {
                SetLastError(error);
                return INVALID_HANDLE_VALUE;
            }
            h.volume = VolumeOf(s, path, false);
            for (File& f : s.machine_.files)
                if (SameText(f.path, path)) h.file = &f;
            for (Device& d : s.machine_.devices)
                if (SameText(L"\\\\.\\" + d.name, path)) h.device = &d;
        }
        if (h.volume != nullptr || h.file != nullptr || h.device != nullptr || h.disk != nullptr) {
            h.path = path;
            HANDLE handle = NewHandle(s);
            s.handles_[handle] = new Simulation::Handle(h);
            return handle;
        }
    }
    return g_real.CreateFileW(path, access, share, security, disposition, flags, templ);
}

BOOL WINAPI Fakes::CloseHandle(HANDLE handle) {
    Simulation& s = *g_simulation;
    {
        Lock lock(s.lock_);
        if (Simulation::Handle* h = Find(s, handle)) {
            delete h;
            s.handles_.erase(handle);
            return TRUE;
        }
    }
    return g_real.CloseHandle(handle);
}

BOOL WINAPI Fakes::GetVolumeNameForVolumeMountPoint(LPCWSTR mountPoint, LPWSTR name, DWORD chars) {
    Simulation& s = *g_simulation;
    {
        Lock lock(s.lock_);
        if (Volume* v = mountPoint != nullptr ? VolumeOf(s, mountPoint, true) : nullptr) {
            if (v->guidPath.size() + 1 > chars) return Fail(ERROR_FILENAME_EXCED_RANGE);
            wcscpy(name, v->guidPath.c_str());
            return TRUE;
        }
    }
    return g_real.GetVolumeNameForVolumeMountPointW(mountPoint, name, chars);
}

BOOL WINAPI Fakes::GetDiskFreeSpace(LPCWSTR root, LPDWORD sectorsPerCluster, LPDWORD bytesPerSector,
                                    LPDWORD freeClusters, LPDWORD clusters) {
    Simulation& s = *g_simulation;
    {
        Lock lock(s.lock_);
        Volume* v = root != nullptr ? VolumeOf(s, root, true) : nullptr;
        for (Volume& each : s.machine_.volumes)
            if (v == nullptr && root != nullptr && each.letter != L'\0' &&
                towupper(root[0]) == towupper(each.letter) && root[1] == L':')
                v = &each;
        if (v != nullptr) {
            uint64_t clusterBytes = uint64_t{v->sectorsPerCluster} * v->bytesPerSector;
            DWORD count = clusterBytes ? static_cast<DWORD>(v->partitionLength / clusterBytes) : 0;
            if (sectorsPerCluster) *sectorsPerCluster = v->sectorsPerCluster;
            if (bytesPerSector) *bytesPerSector = v->bytesPerSector;
            if (clusters) *clusters = count;
            if (freeClusters) *freeClusters = count / 2;
            return TRUE;
        }
    }
    return g_real.GetDiskFreeSpaceW(root, sectorsPerCluster, bytesPerSector, freeClusters,
                                    clusters);
}

BOOL Fakes::VolumeControl(Volume& v, DWORD code, const void* in, DWORD inBytes, void* out,
                          DWORD outBytes, DWORD* returned) {
    auto failing = v.failing.find(code);
    if (failing != v.failing.end()) return Fail(failing->second);
    if (code == kPartitionInfoEx) {
        if (outBytes < 144) return Fail(ERROR_INSUFFICIENT_BUFFER);
        memset(out, 0, 144);
        auto* words = static_cast<int64_t*>(out);
        words[1] = v.partitionOffset;
        words[2] = v.partitionLength;
        *returned = 144;
        return TRUE;
    }
    if (code == kLogicalToPhysical) {
        if (inBytes < 8 || outBytes < 24) return Fail(ERROR_INSUFFICIENT_BUFFER);
        int64_t logical;
        memcpy(&logical, in, 8);
        memset(out, 0, 24);
        auto* words = static_cast<uint32_t*>(out);
        words[0] = v.disk == kNoDisk ? 0 : 1;
        words[2] = v.disk;
        int64_t physical = v.partitionOffset + logical;
        memcpy(static_cast<char*>(out) + 16, &physical, 8);
        *returned = 24;
        return TRUE;
    }
    if (code == kDiskExtents) {
        // VOLUME_DISK_EXTENTS: one extent, or none for a volume on no disk.
        uint32_t count = v.disk == kNoDisk ? 0 : 1;
        if (outBytes < 8) return Fail(ERROR_INSUFFICIENT_BUFFER);
        memset(out, 0, outBytes < 32 ? outBytes : 32);
        memcpy(out, &count, 4);
        if (count == 0) return *returned = 8, TRUE;
        if (outBytes < 32) return *returned = 8, Fail(ERROR_MORE_DATA);
        auto* bytes = static_cast<char*>(out);
        memcpy(bytes + 8, &v.disk, 4);
        memcpy(bytes + 16, &v.partitionOffset, 8);
        memcpy(bytes + 24, &v.partitionLength, 8);
        return *returned = 32, TRUE;
    }
    return Fail(ERROR_INVALID_FUNCTION);
}

// Retrieval pointers: as many extents as fit; the rest makes it
// ERROR_MORE_DATA, as the file system answers.
BOOL Fakes::FileControl(File& f, DWORD code, void* out, DWORD outBytes, DWORD* returned) {
    if (code != kRetrievalPointers) return Fail(ERROR_INVALID_FUNCTION);
    if (outBytes < 16) return Fail(ERROR_INSUFFICIENT_BUFFER);
    size_t room = (outBytes - 16) / sizeof(Extent);
    size_t written = std::min(room, f.extents.size());
    auto* bytes = static_cast<char*>(out);
    uint32_t count = f.claimedExtents ? f.claimedExtents : static_cast<uint32_t>(written);
    memcpy(bytes, &count, 4);
    memcpy(bytes + 8, &f.startingVcn, 8);
    if (written > 0) memcpy(bytes + 16, f.extents.data(), written * sizeof(Extent));
    *returned = static_cast<DWORD>(16 + written * sizeof(Extent));
    return written < f.extents.size() ? Fail(ERROR_MORE_DATA) : TRUE;
}

BOOL Fakes::DeviceControl(Simulation& s, Device& d, DWORD code, LPOVERLAPPED overlapped,
                          DWORD* returned) {
    if (code != kManageDataSetAttributes || d.trim == Trim::Unsupported)
        return Fail(ERROR_INVALID_FUNCTION);
    *returned = 0;
    if (d.trim == Trim::Pending && overlapped != nullptr) {
        overlapped->Internal = STATUS_PENDING;
        s.pending_.push_back(overlapped);
        return Fail(ERROR_IO_PENDING);
    }
    if (overlapped != nullptr) overlapped->Internal = overlapped->InternalHigh = 0;
    return TRUE;
}

BOOL WINAPI Fakes::DeviceIoControl(HANDLE handle, DWORD code, LPVOID in, DWORD inBytes, LPVOID out,
                                   DWORD outBytes, LPDWORD returned, LPOVERLAPPED overlapped) {
    Simulation& s = *g_simulation;
    {
        Lock lock(s.lock_);
        if (Simulation::Handle* h = Find(s, handle)) {
            auto* input = static_cast<const uint8_t*>(in);
            s.controls_.push_back({h->path, code,
                                   std::vector<uint8_t>(input, input + (in ? inBytes : 0)),
                                   overlapped != nullptr});
            DWORD ignored = 0;
            if (returned == nullptr) returned = &ignored;
            if (h->disk) return DiskControl(*h->disk, code, in, inBytes, out, outBytes, returned);
            if (h->volume)
                return VolumeControl(*h->volume, code, in, inBytes, out, outBytes, returned);
            if (h->file) return FileControl(*h->file, code, out, outBytes, returned);
            return DeviceControl(s, *h->device, code, overlapped, returned);
        }
    }
    return g_real.DeviceIoControl(handle, code, in, inBytes, out, outBytes, returned, overlapped);
}

// A device's medium: moves bytes up to the failing position, then fails.
BOOL Fakes::Transfer(Simulation::Handle& h, void* buffer, DWORD bytes, DWORD* moved, bool write) {
    Device& d = *h.device;
    uint64_t end = h.position + bytes;
    bool fails = end > d.failAt;
    if (fails) end = std::max(h.position, d.failAt);
    if (write && end > d.data.size()) d.data.resize(end);
    if (!write) end = std::min<uint64_t>(end, std::max<uint64_t>(h.position, d.data.size()));
    DWORD n = static_cast<DWORD>(end - h.position);
    if (n > 0) {
        if (write)
            memcpy(d.data.data() + h.position, buffer, n);
        else
            memcpy(buffer, d.data.data() + h.position, n);
    }
    h.position += n;
    if (moved != nullptr) *moved = n;
    return fails ? Fail(d.failure) : TRUE;
}

BOOL WINAPI Fakes::ReadFile(HANDLE handle, LPVOID buffer, DWORD bytes, LPDWORD moved,
                            LPOVERLAPPED overlapped) {
    Simulation& s = *g_simulation;
    {
        Lock lock(s.lock_);
        Simulation::Handle* h = Find(s, handle);
        if (h != nullptr && h->device != nullptr) return Transfer(*h, buffer, bytes, moved, false);
        if (h != nullptr) return Fail(ERROR_INVALID_FUNCTION);
    }
    return g_real.ReadFile(handle, buffer, bytes, moved, overlapped);
}

BOOL WINAPI Fakes::WriteFile(HANDLE handle, LPCVOID buffer, DWORD bytes, LPDWORD moved,
                             LPOVERLAPPED overlapped) {
    Simulation& s = *g_simulation;
    {
        Lock lock(s.lock_);
        Simulation::Handle* h = Find(s, handle);
        if (h != nullptr && h->device != nullptr)
            return Transfer(*h, const_cast<void*>(buffer), bytes, moved, true);
        if (h != nullptr) return Fail(ERROR_ACCESS_DENIED);
    }
    return g_real.WriteFile(handle, buffer, bytes, moved, overlapped);
}

BOOL WINAPI Fakes::SetFilePointer(HANDLE handle, LARGE_INTEGER distance, PLARGE_INTEGER now,
                                  DWORD method) {
    Simulation& s = *g_simulation;
    {
        Lock lock(s.lock_);
        if (Simulation::Handle* h = Find(s, handle)) {
            int64_t base = method == FILE_CURRENT ? static_cast<int64_t>(h->position)
                           : method == FILE_END && h->device
                               ? static_cast<int64_t>(h->device->data.size())
                               : 0;
            int64_t to = base + distance.QuadPart;
            if (to < 0) return Fail(ERROR_NEGATIVE_SEEK);
            h->position = static_cast<uint64_t>(to);
            if (now != nullptr) now->QuadPart = to;
            return TRUE;
        }
    }
    return g_real.SetFilePointerEx(handle, distance, now, method);
}

BOOL WINAPI Fakes::GetOverlappedResult(HANDLE handle, LPOVERLAPPED overlapped, LPDWORD bytes,
                                       BOOL wait) {
    Simulation& s = *g_simulation;
    {
        Lock lock(s.lock_);
        if (Find(s, handle) != nullptr) {
            auto it = std::find(s.pending_.begin(), s.pending_.end(), overlapped);
            if (it != s.pending_.end()) {
                if (!wait) return Fail(ERROR_IO_INCOMPLETE);
                s.FinishPending(0);  // waiting lets the device finish
            }
            *bytes = static_cast<DWORD>(overlapped->InternalHigh);
            return overlapped->Internal == 0 ? TRUE
                                             : Fail(static_cast<DWORD>(overlapped->Internal));
        }
    }
    return g_real.GetOverlappedResult(handle, overlapped, bytes, wait);
}

namespace {

// Every fake by the import it replaces. The library imports all of these;
// a served module only some.
const std::pair<const char*, void*> kFakes[] = {
    {"CreateFileW", reinterpret_cast<void*>(&Fakes::CreateFile)},
    {"CloseHandle", reinterpret_cast<void*>(&Fakes::CloseHandle)},
    {"DeviceIoControl", reinterpret_cast<void*>(&Fakes::DeviceIoControl)},
    {"ReadFile", reinterpret_cast<void*>(&Fakes::ReadFile)},
    {"WriteFile", reinterpret_cast<void*>(&Fakes::WriteFile)},
    {"SetFilePointerEx", reinterpret_cast<void*>(&Fakes::SetFilePointer)},
    {"GetOverlappedResult", reinterpret_cast<void*>(&Fakes::GetOverlappedResult)},
    {"GetVolumeNameForVolumeMountPointW",
     reinterpret_cast<void*>(&Fakes::GetVolumeNameForVolumeMountPoint)},
    {"GetDiskFreeSpaceW", reinterpret_cast<void*>(&Fakes::GetDiskFreeSpace)},
    {"GetDiskFreeSpaceExW", reinterpret_cast<void*>(&Fakes::GetDiskFreeSpaceEx)},
    {"GetDriveTypeW", reinterpret_cast<void*>(&Fakes::GetDriveType)},
    {"GetVolumeInformationW", reinterpret_cast<void*>(&Fakes::GetVolumeInformation)},
    {"GetVolumePathNamesForVolumeNameW",
     reinterpret_cast<void*>(&Fakes::GetVolumePathNamesForVolumeName)},
    {"FindFirstVolumeW", reinterpret_cast<void*>(&Fakes::FindFirstVolume)},
    {"FindNextVolumeW", reinterpret_cast<void*>(&Fakes::FindNextVolume)},
    {"FindVolumeClose", reinterpret_cast<void*>(&Fakes::FindVolumeClose)},
    {"LoadLibraryW", reinterpret_cast<void*>(&Fakes::LoadLibrary)},
    {"GetProcAddress", reinterpret_cast<void*>(&Fakes::GetProcAddress)},
    {"FreeLibrary", reinterpret_cast<void*>(&Fakes::FreeLibrary)},
    {"LocalAlloc", reinterpret_cast<void*>(&Fakes::LocalAlloc)},
    {"LocalFree", reinterpret_cast<void*>(&Fakes::LocalFree)},
};

// The Setup API, which the library loads by name at run time; a served
// module may import it.
const char* const kSetupEntries[] = {
    "SetupDiGetClassDevsW",        "SetupDiEnumDeviceInfo",
    "SetupDiEnumDeviceInterfaces", "SetupDiGetDeviceInterfaceDetailW",
    "SetupDiGetDeviceInstanceIdW", "SetupDiDestroyDeviceInfoList"};

}  // namespace

Simulation::Simulation(Machine machine) : machine_(std::move(machine)), nextHandle_(kFirstHandle) {
    ResolveRealCalls();
    g_simulation = this;
    for (const auto& [name, fake] : kFakes) patches_.push_back(new ImportPatch(name, fake));
}

Simulation::~Simulation() {
    for (ImportPatch* patch : served_) delete patch;
    for (ImportPatch* patch : patches_) delete patch;
    for (auto& [handle, h] : handles_) delete h;
    g_simulation = nullptr;
}

void Simulation::Serve(const wchar_t* module) {
    auto keep = [&](const char* name, void* fake) {
        auto* patch = new ImportPatch(name, fake, module);
        if (patch->active())
            served_.push_back(patch);
        else
            delete patch;
    };
    for (const auto& [name, fake] : kFakes) keep(name, fake);
    for (const char* name : kSetupEntries) keep(name, Fakes::SetupEntry(name));
}

bool Simulation::active() const {
    return std::all_of(patches_.begin(), patches_.end(),
                       [](const ImportPatch* p) { return p->active(); });
}

std::vector<OpenCall> Simulation::opens() const {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    return opens_;
}

std::vector<ControlCall> Simulation::controls() const {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    return controls_;
}

int Simulation::openHandles() const {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    return static_cast<int>(handles_.size());
}

int Simulation::pendingTrims() const {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    return static_cast<int>(pending_.size());
}

void Simulation::FinishPending(uint32_t error) {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    for (OVERLAPPED* overlapped : pending_) {
        overlapped->InternalHigh = 0;
        overlapped->Internal = error;
        if (overlapped->hEvent != nullptr) SetEvent(overlapped->hEvent);
    }
    pending_.clear();
}

int Simulation::volumeSearches() const {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    return static_cast<int>(searches_.size());
}

int Simulation::setupLoads() const {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    return setupLoads_;
}

int Simulation::deviceSets() const {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    return static_cast<int>(sets_.size());
}

int Simulation::localBlocks() const {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    return static_cast<int>(localBlocks_.size());
}

std::vector<std::string> Simulation::setupCalls() const {
    std::lock_guard<std::recursive_mutex> lock(lock_);
    return setupCalls_;
}

}  // namespace zendra::sim
