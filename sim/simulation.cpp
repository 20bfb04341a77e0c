// The simulation's fakes: each answers for the names and handles of the
// description and passes everything else to the real call.
#include <string.h>
#include <wctype.h>

#include <algorithm>

#include <zendra/sim.h>

namespace zendra::sim {

namespace {

constexpr DWORD kPartitionInfoEx = 0x70048;
constexpr DWORD kLogicalToPhysical = 0x560020;
constexpr DWORD kRetrievalPointers = 0x90073;
constexpr DWORD kManageDataSetAttributes = 0x2D9404;
constexpr uintptr_t kFirstHandle = 0x5A5A0000;  // far above the handles Wine hands out

Simulation* g_simulation;

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

}  // namespace

struct Simulation::Handle {
    std::wstring path;
    Volume* volume = nullptr;
    File* file = nullptr;
    Device* device = nullptr;
    uint64_t position = 0;
};

struct Fakes {
    using Lock = std::lock_guard<std::recursive_mutex>;

    static Simulation::Handle* Find(Simulation& s, HANDLE h) {
        auto it = s.handles_.find(h);
        return it == s.handles_.end() ? nullptr : it->second;
    }

    // The volume a mount point or volume name names, if simulated.
    static Volume* VolumeOf(Simulation& s, const wchar_t* name, bool mountPoint) {
        std::wstring n = Lower(name);
        for (Volume& v : s.machine_.volumes) {
            std::wstring letter(1, static_cast<wchar_t>(towlower(v.letter)));
            std::wstring guid = Lower(v.guidPath);
            if (mountPoint
                    ? (n == letter + L":\\" || n == L"\\\\?\\" + letter + L":\\" || n == guid)
                    : (n == L"\\\\?\\" + letter + L":" || n == L"\\\\.\\" + letter + L":" ||
                       (!guid.empty() && n == guid.substr(0, guid.size() - 1))))
                return &v;
        }
        return nullptr;
    }

    static HANDLE WINAPI CreateFile(LPCWSTR path, DWORD access, DWORD share,
                                    LPSECURITY_ATTRIBUTES security, DWORD disposition, DWORD flags,
                                    HANDLE templ) {
        Simulation& s = *g_simulation;
        Simulation::Handle h;
        {
            Lock lock(s.lock_);
            s.opens_.push_back({path != nullptr ? path : L"", access, share, disposition, flags});
            if (path != nullptr) {
                h.volume = VolumeOf(s, path, false);
                for (File& f : s.machine_.files)
                    if (SameText(f.path, path)) h.file = &f;
                for (Device& d : s.machine_.devices)
                    if (SameText(L"\\\\.\\" + d.name, path)) h.device = &d;
            }
            if (h.volume != nullptr || h.file != nullptr || h.device != nullptr) {
                h.path = path;
                HANDLE handle = reinterpret_cast<HANDLE>(s.nextHandle_);
                s.nextHandle_ += 4;
                s.handles_[handle] = new Simulation::Handle(h);
                return handle;
            }
        }
        return ::CreateFileW(path, access, share, security, disposition, flags, templ);
    }

    static BOOL WINAPI CloseHandle(HANDLE handle) {
        Simulation& s = *g_simulation;
        {
            Lock lock(s.lock_);
            if (Simulation::Handle* h = Find(s, handle)) {
                delete h;
                s.handles_.erase(handle);
                return TRUE;
            }
        }
        return ::CloseHandle(handle);
    }

    static BOOL WINAPI GetVolumeNameForVolumeMountPoint(LPCWSTR mountPoint, LPWSTR name,
                                                        DWORD chars) {
        Simulation& s = *g_simulation;
        {
            Lock lock(s.lock_);
            if (Volume* v = mountPoint != nullptr ? VolumeOf(s, mountPoint, true) : nullptr) {
                if (v->guidPath.size() + 1 > chars) return Fail(ERROR_FILENAME_EXCED_RANGE);
                wcscpy(name, v->guidPath.c_str());
                return TRUE;
            }
        }
        return ::GetVolumeNameForVolumeMountPointW(mountPoint, name, chars);
    }

    static BOOL WINAPI GetDiskFreeSpace(LPCWSTR root, LPDWORD sectorsPerCluster,
                                        LPDWORD bytesPerSector, LPDWORD freeClusters,
                                        LPDWORD clusters) {
        Simulation& s = *g_simulation;
        {
            Lock lock(s.lock_);
            for (Volume& v : s.machine_.volumes)
                if (root != nullptr && towupper(root[0]) == towupper(v.letter) && root[1] == L':') {
                    *sectorsPerCluster = v.sectorsPerCluster;
                    *bytesPerSector = v.bytesPerSector;
                    uint64_t clusterBytes = uint64_t{v.sectorsPerCluster} * v.bytesPerSector;
                    *clusters =
                        clusterBytes ? static_cast<DWORD>(v.partitionLength / clusterBytes) : 0;
                    *freeClusters = *clusters / 2;
                    return TRUE;
                }
        }
        return ::GetDiskFreeSpaceW(root, sectorsPerCluster, bytesPerSector, freeClusters, clusters);
    }

    static BOOL VolumeControl(Volume& v, DWORD code, const void* in, DWORD inBytes, void* out,
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
        return Fail(ERROR_INVALID_FUNCTION);
    }

    // Retrieval pointers: as many extents as fit; the rest makes it
    // ERROR_MORE_DATA, as the file system answers.
    static BOOL FileControl(File& f, DWORD code, void* out, DWORD outBytes, DWORD* returned) {
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

    static BOOL DeviceControl(Simulation& s, Device& d, DWORD code, LPOVERLAPPED overlapped,
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

    static BOOL WINAPI DeviceIoControl(HANDLE handle, DWORD code, LPVOID in, DWORD inBytes,
                                       LPVOID out, DWORD outBytes, LPDWORD returned,
                                       LPOVERLAPPED overlapped) {
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
                if (h->volume)
                    return VolumeControl(*h->volume, code, in, inBytes, out, outBytes, returned);
                if (h->file) return FileControl(*h->file, code, out, outBytes, returned);
                return DeviceControl(s, *h->device, code, overlapped, returned);
            }
        }
        return ::DeviceIoControl(handle, code, in, inBytes, out, outBytes, returned, overlapped);
    }

    // A device's medium: moves bytes up to the failing position, then fails.
    static BOOL Transfer(Simulation::Handle& h, void* buffer, DWORD bytes, DWORD* moved,
                         bool write) {
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

    static BOOL WINAPI ReadFile(HANDLE handle, LPVOID buffer, DWORD bytes, LPDWORD moved,
                                LPOVERLAPPED overlapped) {
        Simulation& s = *g_simulation;
        {
            Lock lock(s.lock_);
            Simulation::Handle* h = Find(s, handle);
            if (h != nullptr && h->device != nullptr)
                return Transfer(*h, buffer, bytes, moved, false);
            if (h != nullptr) return Fail(ERROR_INVALID_FUNCTION);
        }
        return ::ReadFile(handle, buffer, bytes, moved, overlapped);
    }

    static BOOL WINAPI WriteFile(HANDLE handle, LPCVOID buffer, DWORD bytes, LPDWORD moved,
                                 LPOVERLAPPED overlapped) {
        Simulation& s = *g_simulation;
        {
            Lock lock(s.lock_);
            Simulation::Handle* h = Find(s, handle);
            if (h != nullptr && h->device != nullptr)
                return Transfer(*h, const_cast<void*>(buffer), bytes, moved, true);
            if (h != nullptr) return Fail(ERROR_ACCESS_DENIED);
        }
        return ::WriteFile(handle, buffer, bytes, moved, overlapped);
    }

    static BOOL WINAPI SetFilePointer(HANDLE handle, LARGE_INTEGER distance, PLARGE_INTEGER now,
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
        return ::SetFilePointerEx(handle, distance, now, method);
    }

    static BOOL WINAPI GetOverlappedResult(HANDLE handle, LPOVERLAPPED overlapped, LPDWORD bytes,
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
        return ::GetOverlappedResult(handle, overlapped, bytes, wait);
    }
};

Simulation::Simulation(Machine machine) : machine_(std::move(machine)), nextHandle_(kFirstHandle) {
    g_simulation = this;
    const std::pair<const char*, void*> fakes[] = {
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
    };
    for (const auto& [name, fake] : fakes) patches_.push_back(new ImportPatch(name, fake));
}

Simulation::~Simulation() {
    for (ImportPatch* patch : patches_) delete patch;
    for (auto& [handle, h] : handles_) delete h;
    g_simulation = nullptr;
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

}  // namespace zendra::sim
