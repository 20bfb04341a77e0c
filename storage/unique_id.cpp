// PltGetUniqueID: the Plug and Play instance identifier of a physical disk,
// found through the Setup API, which is loaded at run time.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <zendra/storage.h>
#include <setupapi.h>
#include <winioctl.h>

#include "platform/status.h"

using namespace zendra;

namespace {

constexpr uint32_t kPathTag = PLT_TAG('Q', 'Z', 'S', 'D');
constexpr uint32_t kPathBytes = 8192;
constexpr DWORD kLongestPathBytes = 4096;
constexpr size_t kTargetUnits = 260;
constexpr DWORD kInstanceUnits = 4000;
// GUID_DEVINTERFACE_DISK
constexpr GUID kDiskInterface = {
    0x53F56307, 0xB6BF, 0x11D0, {0x94, 0xF2, 0x00, 0xA0, 0xC9, 0x1E, 0xFB, 0x8B}};

// A failed call's error; a call that failed without saying why still ends
// the search with a failure.
PLT_STATUS Failure() {
    DWORD error = GetLastError();
    return error != 0 ? error : kNotFound;
}

// The Setup API entry points, resolved by name. Every Load is paired with a
// Free: the library's reference is dropped on every way out.
struct SetupApi {
    HMODULE module = nullptr;
    decltype(&SetupDiGetClassDevsW) getClassDevs;
    decltype(&SetupDiEnumDeviceInfo) enumDeviceInfo;
    decltype(&SetupDiEnumDeviceInterfaces) enumInterfaces;
    decltype(&SetupDiGetDeviceInterfaceDetailW) getDetail;
    decltype(&SetupDiGetDeviceInstanceIdW) getInstanceId;
    decltype(&SetupDiDestroyDeviceInfoList) destroy;

    template <typename F>
    bool Resolve(F* entry, const char* name) {
        *entry = reinterpret_cast<F>(reinterpret_cast<void*>(GetProcAddress(module, name)));
        return *entry != nullptr;
    }

    PLT_STATUS Load() {
        module = LoadLibraryW(L"Setupapi.dll");
        if (module == nullptr) return Failure();
        if (Resolve(&getClassDevs, "SetupDiGetClassDevsW") &&
            Resolve(&enumDeviceInfo, "SetupDiEnumDeviceInfo") &&
            Resolve(&enumInterfaces, "SetupDiEnumDeviceInterfaces") &&
            Resolve(&getDetail, "SetupDiGetDeviceInterfaceDetailW") &&
            Resolve(&getInstanceId, "SetupDiGetDeviceInstanceIdW") &&
            Resolve(&destroy, "SetupDiDestroyDeviceInfoList"))
            return kOk;
        PLT_STATUS status = Failure();
        Free();
        return status;
    }

    void Free() {
        if (module != nullptr) FreeLibrary(module);
        module = nullptr;
    }

    HDEVINFO OpenDisks() const {
        return getClassDevs(&kDiskInterface, nullptr, nullptr,
                            DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    }
};

// The detail of one interface, in a block of the size the first call asks
// for. Its path is copied only when it fits the caller's 4096 bytes.
PLT_STATUS DetailPath(const SetupApi& api, HDEVINFO set, SP_DEVICE_INTERFACE_DATA* iface,
                      wchar_t* path) {
    DWORD required = 0;
    if (api.getDetail(set, iface, nullptr, 0, &required, nullptr) ||
        GetLastError() != ERROR_INSUFFICIENT_BUFFER || required > UINT32_MAX - 4)
        return ERROR_INSUFFICIENT_BUFFER;
    auto* detail = static_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(LocalAlloc(LPTR, required + 4));
    if (detail == nullptr) return kNoMemory;
    detail->cbSize = sizeof *detail;
    PLT_STATUS status = kOk;
    if (!api.getDetail(set, iface, detail, required + 4, nullptr, nullptr)) {
        status = Failure();
    } else if (required < 4 || required - 4 > kLongestPathBytes) {
        status = ERROR_INSUFFICIENT_BUFFER;
    } else {
        memcpy(path, detail->DevicePath, required - 4);
        path[(required - 4) / sizeof(wchar_t)] = L'\0';
    }
    LocalFree(detail);
    return status;
}

// The device path of the index-th disk iface, from a set of its own.
PLT_STATUS InterfacePath(DWORD index, wchar_t* path) {
    SetupApi api;
    PLT_STATUS status = api.Load();
    if (status != kOk) return status;
    HDEVINFO set = api.OpenDisks();
    if (set == INVALID_HANDLE_VALUE) {
        status = Failure();
    } else {
        SP_DEVICE_INTERFACE_DATA iface = {};
        iface.cbSize = sizeof iface;
        status = api.enumInterfaces(set, nullptr, &kDiskInterface, index, &iface)
                     ? DetailPath(api, set, &iface, path)
                     : Failure();
        api.destroy(set);
    }
    api.Free();
    return status;
}

// "\\.\PHYSICALDRIVEn" of the disk behind a device path.
PLT_STATUS DiskNameOf(const wchar_t* path, wchar_t* name) {
    HANDLE device =
        CreateFileW(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                    OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (device == INVALID_HANDLE_VALUE) return Failure();
    STORAGE_DEVICE_NUMBER number = {};
    DWORD returned = 0;
    BOOL asked = DeviceIoControl(device, IOCTL_STORAGE_GET_DEVICE_NUMBER, nullptr, 0, &number,
                                 sizeof number, &returned, nullptr);
    PLT_STATUS status = asked ? kOk : Failure();
    CloseHandle(device);
    if (status != kOk) return status;
    wchar_t text[16];
    _snwprintf(text, 16, L"%d", static_cast<int>(number.DeviceNumber));
    text[15] = L'\0';
    int n = _wtoi(text);
    if (n == -1) return kInvalidParameter;
    _snwprintf(name, kTargetUnits, L"\\\\.\\PHYSICALDRIVE%d", n);
    name[kTargetUnits] = L'\0';
    return kOk;
}

PLT_STATUS CopyInstanceId(const SetupApi& api, HDEVINFO set, SP_DEVINFO_DATA* device,
                          wchar_t** id) {
    wchar_t instance[kInstanceUnits];
    DWORD required = 0;
    if (!api.getInstanceId(set, device, instance, kInstanceUnits, &required)) return Failure();
    // The length copied ends at the terminator, whatever size was reported.
    instance[kInstanceUnits - 1] = L'\0';
    size_t bytes = (wcslen(instance) + 1) * sizeof(wchar_t);
    if (*id == nullptr) {
        void* block = nullptr;
        PLT_STATUS status =
            PltMalloc(&block, static_cast<uint32_t>(bytes), PLT_ALLOC_ZERO | 16, PLT_UNIQUE_ID_TAG);
        if (status != kOk) return status;
        *id = static_cast<wchar_t*>(block);
    }
    memcpy(*id, instance, bytes);
    return kOk;
}

// Walks the present disks in order until one is the target; the first error
// ends the walk.
PLT_STATUS Search(const SetupApi& api, HDEVINFO set, const wchar_t* target, wchar_t* path,
                  wchar_t** id) {
    for (DWORD index = 0;; ++index) {
        SP_DEVINFO_DATA device = {};
        device.cbSize = sizeof device;
        if (!api.enumDeviceInfo(set, index, &device)) return Failure();
        PLT_STATUS status = InterfacePath(index, path);
        wchar_t name[kTargetUnits + 1];
        if (status == kOk) status = DiskNameOf(path, name);
        if (status != kOk) return status;
        if (_wcsicmp(name, target) == 0) return CopyInstanceId(api, set, &device, id);
        memset(path, 0, kPathBytes);
    }
}

}  // namespace

extern "C" PLT_STATUS PltGetUniqueID(const wchar_t* disk, wchar_t** id) {
    if (disk == nullptr || id == nullptr) return kInvalidParameter;
    wchar_t target[kTargetUnits + 1] = {};
    if (disk[0] >= L'0' && disk[0] <= L'9') {
        int n = _wtoi(disk);
        if (n == -1) return kInvalidParameter;
        _snwprintf(target, kTargetUnits, L"\\\\.\\PHYSICALDRIVE%d", n);
    } else {
        memcpy(target, disk, wcsnlen(disk, kTargetUnits) * sizeof(wchar_t));
    }
    SetupApi api;
    PLT_STATUS status = api.Load();
    if (status != kOk) return status;
    void* path = nullptr;
    if (PltMalloc(&path, kPathBytes, PLT_ALLOC_ZERO, kPathTag) != kOk) {
        api.Free();
        return kNoMemory;
    }
    HDEVINFO set = api.OpenDisks();
    if (set == INVALID_HANDLE_VALUE) {
        status = Failure();
    } else {
        status = Search(api, set, target, static_cast<wchar_t*>(path), id);
        api.destroy(set);
    }
    PltFree(&path, kPathTag);
    api.Free();
    return status;
}
