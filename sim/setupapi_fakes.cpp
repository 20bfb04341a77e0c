// The simulation's Setup API: a module handle that LoadLibraryW("Setupapi.dll")
// gives, entry points that GetProcAddress finds on it, and device information
// sets served from the description's disk interfaces. Also LocalAlloc and
// LocalFree, counted, for the iface detail blocks.
#include <string.h>

#include "fakes.h"

namespace zendra::sim {

namespace {

// GUID_DEVINTERFACE_DISK, and the disk drives' device class.
constexpr GUID kDiskInterface = {
    0x53F56307, 0xB6BF, 0x11D0, {0x94, 0xF2, 0x00, 0xA0, 0xC9, 0x1E, 0xFB, 0x8B}};
constexpr GUID kDiskClass = {
    0x4D36E967, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};

char g_setupModule;  // its address is the simulated module's handle
HMODULE SetupModule() { return reinterpret_cast<HMODULE>(&g_setupModule); }

bool IsSetupApi(const wchar_t* name) {
    const wchar_t* base = name;
    for (const wchar_t* p = name; *p; ++p)
        if (*p == L'\\' || *p == L'/') base = p + 1;
    return _wcsicmp(base, L"setupapi.dll") == 0 || _wcsicmp(base, L"setupapi") == 0;
}

const std::vector<DeviceInterface> kNothing;

}  // namespace

bool Fakes::Failing(Simulation& s, const char* name) {
    s.setupCalls_.push_back(name);
    const auto& failing = s.machine_.setupApi.failing;
    auto it = failing.find(name);
    if (it == failing.end()) return false;
    SetLastError(it->second);
    return true;
}

const std::vector<DeviceInterface>* Fakes::Listed(Simulation& s, HDEVINFO set) {
    auto it = s.sets_.find(set);
    if (it == s.sets_.end()) return nullptr;
    return it->second ? &s.machine_.setupApi.disks : &kNothing;
}

// Only present disk interfaces are described: another class, or a set not
// of interfaces, lists nothing.
HDEVINFO WINAPI Fakes::GetClassDevs(const GUID* guid, PCWSTR, HWND, DWORD flags) {
    Simulation& s = *g_simulation;
    Lock lock(s.lock_);
    if (Failing(s, "SetupDiGetClassDevsW")) return INVALID_HANDLE_VALUE;
    HDEVINFO set = NewHandle(s);
    s.sets_[set] = guid != nullptr && IsEqualGUID(*guid, kDiskInterface) &&
                   (flags & DIGCF_DEVICEINTERFACE) != 0;
    return set;
}

BOOL WINAPI Fakes::EnumDeviceInfo(HDEVINFO set, DWORD index, PSP_DEVINFO_DATA data) {
    Simulation& s = *g_simulation;
    Lock lock(s.lock_);
    if (Failing(s, "SetupDiEnumDeviceInfo")) return FALSE;
    const std::vector<DeviceInterface>* disks = Listed(s, set);
    if (disks == nullptr) return Fail(ERROR_INVALID_HANDLE);
    if (data == nullptr || data->cbSize != sizeof *data) return Fail(ERROR_INVALID_USER_BUFFER);
    if (index >= disks->size()) return Fail(ERROR_NO_MORE_ITEMS);
    data->ClassGuid = kDiskClass;
    data->DevInst = index + 1;
    data->Reserved = index;
    return TRUE;
}

BOOL WINAPI Fakes::EnumInterfaces(HDEVINFO set, PSP_DEVINFO_DATA, const GUID* guid, DWORD index,
                                  PSP_DEVICE_INTERFACE_DATA data) {
    Simulation& s = *g_simulation;
    Lock lock(s.lock_);
    if (Failing(s, "SetupDiEnumDeviceInterfaces")) return FALSE;
    const std::vector<DeviceInterface>* disks = Listed(s, set);
    if (disks == nullptr) return Fail(ERROR_INVALID_HANDLE);
    if (data == nullptr || data->cbSize != sizeof *data) return Fail(ERROR_INVALID_USER_BUFFER);
    if (guid == nullptr || !IsEqualGUID(*guid, kDiskInterface) || index >= disks->size())
        return Fail(ERROR_NO_MORE_ITEMS);
    data->InterfaceClassGuid = *guid;
    data->Flags = SPINT_ACTIVE;
    data->Reserved = index;
    return TRUE;
}

BOOL WINAPI Fakes::GetDetail(HDEVINFO set, PSP_DEVICE_INTERFACE_DATA iface,
                             PSP_DEVICE_INTERFACE_DETAIL_DATA_W detail, DWORD size, PDWORD required,
                             PSP_DEVINFO_DATA) {
    Simulation& s = *g_simulation;
    Lock lock(s.lock_);
    if (Failing(s, "SetupDiGetDeviceInterfaceDetailW")) return FALSE;
    const std::vector<DeviceInterface>* disks = Listed(s, set);
    if (disks == nullptr) return Fail(ERROR_INVALID_HANDLE);
    if (iface == nullptr || iface->cbSize != sizeof *iface || iface->Reserved >= disks->size())
        return Fail(ERROR_INVALID_PARAMETER);
    const std::wstring& path = (*disks)[iface->Reserved].path;
    DWORD needed = static_cast<DWORD>(offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath) +
                                      (path.size() + 1) * sizeof(wchar_t));
    if (required != nullptr) *required = needed;
    if (detail == nullptr)
        return Fail(size == 0 ? ERROR_INSUFFICIENT_BUFFER : ERROR_INVALID_USER_BUFFER);
    if (detail->cbSize != sizeof *detail) return Fail(ERROR_INVALID_USER_BUFFER);
    if (size < needed) return Fail(ERROR_INSUFFICIENT_BUFFER);
    memcpy(detail->DevicePath, path.c_str(), (path.size() + 1) * sizeof(wchar_t));
    return TRUE;
}

BOOL WINAPI Fakes::GetInstanceId(HDEVINFO set, PSP_DEVINFO_DATA device, PWSTR id, DWORD chars,
                                 PDWORD required) {
    Simulation& s = *g_simulation;
    Lock lock(s.lock_);
    if (Failing(s, "SetupDiGetDeviceInstanceIdW")) return FALSE;
    const std::vector<DeviceInterface>* disks = Listed(s, set);
    if (disks == nullptr) return Fail(ERROR_INVALID_HANDLE);
    if (device == nullptr || device->cbSize != sizeof *device || device->Reserved >= disks->size())
        return Fail(ERROR_INVALID_PARAMETER);
    const std::wstring& instance = (*disks)[device->Reserved].instanceId;
    if (required != nullptr) *required = static_cast<DWORD>(instance.size() + 1);
    if (id == nullptr || chars < instance.size() + 1) return Fail(ERROR_INSUFFICIENT_BUFFER);
    wcscpy(id, instance.c_str());
    return TRUE;
}

BOOL WINAPI Fakes::Destroy(HDEVINFO set) {
    Simulation& s = *g_simulation;
    Lock lock(s.lock_);
    if (Failing(s, "SetupDiDestroyDeviceInfoList")) return FALSE;
    return s.sets_.erase(set) != 0 ? TRUE : Fail(ERROR_INVALID_HANDLE);
}

void* Fakes::SetupEntry(const char* name) {
    const std::pair<const char*, void*> entries[] = {
        {"SetupDiGetClassDevsW", reinterpret_cast<void*>(&GetClassDevs)},
        {"SetupDiEnumDeviceInfo", reinterpret_cast<void*>(&EnumDeviceInfo)},
        {"SetupDiEnumDeviceInterfaces", reinterpret_cast<void*>(&EnumInterfaces)},
        {"SetupDiGetDeviceInterfaceDetailW", reinterpret_cast<void*>(&GetDetail)},
        {"SetupDiGetDeviceInstanceIdW", reinterpret_cast<void*>(&GetInstanceId)},
        {"SetupDiDestroyDeviceInfoList", reinterpret_cast<void*>(&Destroy)},
    };
    for (const auto& [entry, fake] : entries)
        if (strcmp(entry, name) == 0) return fake;
    return nullptr;
}

HMODULE WINAPI Fakes::LoadLibrary(LPCWSTR name) {
    Simulation& s = *g_simulation;
    if (name != nullptr && IsSetupApi(name)) {
        Lock lock(s.lock_);
        if (s.machine_.setupApi.loadError != 0)
            return SetLastError(s.machine_.setupApi.loadError), nullptr;
        ++s.setupLoads_;
        return SetupModule();
    }
    return g_real.LoadLibraryW(name);
}

FARPROC WINAPI Fakes::GetProcAddress(HMODULE module, LPCSTR name) {
    if (module != SetupModule()) return g_real.GetProcAddress(module, name);
    Simulation& s = *g_simulation;
    Lock lock(s.lock_);
    // By ordinal, or not exported.
    void* entry =
        reinterpret_cast<uintptr_t>(name) > 0xFFFF && !s.machine_.setupApi.missing.count(name)
            ? SetupEntry(name)
            : nullptr;
    if (entry == nullptr) SetLastError(ERROR_PROC_NOT_FOUND);
    return reinterpret_cast<FARPROC>(entry);
}

// An unbalanced free shows as a negative count.
BOOL WINAPI Fakes::FreeLibrary(HMODULE module) {
    if (module != SetupModule()) return g_real.FreeLibrary(module);
    Simulation& s = *g_simulation;
    Lock lock(s.lock_);
    --s.setupLoads_;
    return TRUE;
}

HLOCAL WINAPI Fakes::LocalAlloc(UINT flags, SIZE_T bytes) {
    HLOCAL block = g_real.LocalAlloc(flags, bytes);
    Simulation& s = *g_simulation;
    Lock lock(s.lock_);
    if (block != nullptr) s.localBlocks_.insert(block);
    return block;
}

HLOCAL WINAPI Fakes::LocalFree(HLOCAL block) {
    {
        Simulation& s = *g_simulation;
        Lock lock(s.lock_);
        s.localBlocks_.erase(block);
    }
    return g_real.LocalFree(block);
}

}  // namespace zendra::sim
