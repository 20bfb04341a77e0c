// Machine and OS information: the machine record, names, the LDAP path of the
// machine's container, memory, power, random bytes and environment expansion.
#include <stdio.h>
#include <wchar.h>
#include <windows.h>
#include <wincrypt.h>

#include <zendra/storage.h>

#include "config/roots.h"
#include "platform/status.h"

using namespace zendra;

namespace {

// Values are read into buffers whose size is given as 128 bytes.
constexpr DWORD kValueBytes = 128;
using Value = wchar_t[kValueBytes / sizeof(wchar_t)];

// Up to three string values of one key below the local-machine root; the
// first failure is the result.
PLT_STATUS ReadValues(const wchar_t* key, const wchar_t* const* names, Value* values) {
    HKEY opened = nullptr;
    LSTATUS status = RegOpenKeyExW(ConfigRoot(0), key, 0, KEY_READ, &opened);
    if (status != ERROR_SUCCESS) return status;
    for (int i = 0; i < 3 && status == ERROR_SUCCESS && names[i] != nullptr; ++i) {
        DWORD size = kValueBytes;
        status = RegGetValueW(opened, nullptr, names[i], RRF_RT_REG_SZ, nullptr, values[i], &size);
    }
    ReleaseConfigKey(opened);
    return status;
}

const wchar_t* ArchitectureName(WORD code) {
    switch (code) {
        case PROCESSOR_ARCHITECTURE_INTEL:
            return L"x86";
        case PROCESSOR_ARCHITECTURE_ARM:
            return L"ARM";
        case PROCESSOR_ARCHITECTURE_IA64:
            return L"Itanium";
        case PROCESSOR_ARCHITECTURE_AMD64:
            return L"x64";
        default:
            return L"Unknown";
    }
}

// A text field of the record: at most 128 characters, always terminated.
void FormatField(wchar_t* field, const wchar_t* format, const Value* values) {
    _snwprintf(field, PLT_MACHINE_TEXT - 1, format, values[0], values[1], values[2]);
    field[PLT_MACHINE_TEXT - 1] = L'\0';
}

}  // namespace

extern "C" PLT_STATUS PltGetMachineInfo(PLT_MACHINE_INFO* info) {
    if (info == nullptr) return kInvalidParameter;
    MEMORYSTATUSEX memory;
    memory.dwLength = sizeof memory;
    if (!GlobalMemoryStatusEx(&memory)) return GetLastError();
    info->TotalPhysicalMemory = memory.ullTotalPhys;
    DWORD size = PLT_MACHINE_TEXT - 1;
    if (!GetComputerNameW(info->ComputerName, &size)) return GetLastError();

    OSVERSIONINFOEXW version = {};
    version.dwOSVersionInfoSize = sizeof version;
    if (!GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&version))) return GetLastError();
    info->MajorVersion = version.dwMajorVersion;
    info->MinorVersion = version.dwMinorVersion;
    info->BuildNumber = version.dwBuildNumber;
    info->ServicePackMajor = version.wServicePackMajor;
    info->ServicePackMinor = version.wServicePackMinor;
    info->SuiteMask = version.wSuiteMask;
    info->ProductType = version.wProductType;
    Value values[3] = {};
    const wchar_t* const os[] = {L"ProductName", L"CurrentVersion", L"CurrentBuild"};
    PLT_STATUS status = ReadValues(L"Software\\Microsoft\\Windows NT\\CurrentVersion", os, values);
    if (status != kOk) return status;
    FormatField(info->OsName, L"%ls %ls %ls", values);

    SYSTEM_INFO system;
    GetNativeSystemInfo(&system);
    info->NumberOfProcessors = system.dwNumberOfProcessors;
    wcscpy(info->Architecture, ArchitectureName(system.wProcessorArchitecture));

    const wchar_t* const processor[] = {L"ProcessorNameString", L"Identifier", nullptr};
    status = ReadValues(L"HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0", processor, values);
    if (status == kOk) FormatField(info->Processor, L"%ls %ls", values);
    return status;
}

extern "C" PLT_STATUS PltGetComputerName(wchar_t* name, uint32_t chars) {
    DWORD size = chars;
    return GetComputerNameW(name, &size) ? kOk : GetLastError();
}

extern "C" PLT_STATUS PltGetMachineFQDN(wchar_t* name, uint32_t* chars) {
    if (chars == nullptr) return kInvalidParameter;
    DWORD size = *chars;
    BOOL ok = GetComputerNameExW(ComputerNamePhysicalDnsFullyQualified, name, &size);
    *chars = size;
    return ok ? kOk : GetLastError();
}

extern "C" PLT_STATUS PltFQDNtoLDAPQuery(wchar_t* fqdn, wchar_t* out, uint32_t* bytes) {
    if (fqdn == nullptr || bytes == nullptr) return kInvalidParameter;
    uint64_t need = 2 * uint64_t{wcslen(fqdn)} + 140;
    if (out == nullptr) {
        *bytes = static_cast<uint32_t>(need);
        return kOk;
    }
    if (*bytes < need) return kNoMemory;
    // The size asked for does not grow with the number of labels, so every
    // append is bounded by the caller's space all the same.
    const size_t room = *bytes / sizeof(wchar_t);
    const wchar_t prefix[] = L"LDAP://CN=computers";
    size_t used = wcslen(prefix);
    wmemcpy(out, prefix, used + 1);
    // A name without a dot leaves the prefix alone: the not-found answer this
    // case was meant to give never fires, kept as it is.
    for (wchar_t* label = wcschr(fqdn, L'.'); label != nullptr;) {
        ++label;
        wchar_t* dot = wcschr(label, L'.');
        if (dot != nullptr) *dot = L'\0';  // the caller's name is cut, on purpose
        size_t length = wcslen(label);
        if (used + 4 + length + 1 > room) return kNoMemory;
        wmemcpy(out + used, L",DC=", 4);
        wmemcpy(out + used + 4, label, length + 1);
        used += 4 + length;
        label = dot;
    }
    return kOk;
}

extern "C" PLT_STATUS PltGetGlobalMemoryStatus(PLT_MEMORY_STATUS* status) {
    if (status == nullptr) return kInvalidParameter;
    MEMORYSTATUSEX memory;
    memory.dwLength = sizeof memory;
    if (!GlobalMemoryStatusEx(&memory)) return GetLastError();
    *status = {memory.ullTotalPhys, memory.ullAvailPhys, memory.ullTotalVirtual,
               memory.ullAvailVirtual, memory.ullAvailExtendedVirtual};
    return kOk;
}

extern "C" PLT_STATUS PltGetBatteryPowerStatus(uint32_t* flags, uint8_t* percentValid,
                                               uint32_t* percent) {
    if (flags == nullptr || percentValid == nullptr || percent == nullptr) return kInvalidParameter;
    *flags = 0;
    *percentValid = 0;
    *percent = 14;  // kept when the charge is not known
    SYSTEM_POWER_STATUS power;
    if (!GetSystemPowerStatus(&power)) return GetLastError();
    if (power.ACLineStatus != 0) *flags |= PLT_POWER_ON_MAINS;  // online, or unknown (255)
    if (power.BatteryLifePercent < 255) {
        *percentValid = 1;
        *percent = power.BatteryLifePercent;
    }
    if (power.BatteryFlag < 255) {
        const BYTE bits[][2] = {{1, PLT_POWER_BATTERY_HIGH},
                                {2, PLT_POWER_BATTERY_LOW},
                                {4, PLT_POWER_BATTERY_CRITICAL},
                                {8, PLT_POWER_CHARGING},
                                {128, PLT_POWER_NO_BATTERY}};
        for (const auto& [bit, flag] : bits)
            if (power.BatteryFlag & bit) *flags |= flag;
    } else {
        *flags |= PLT_POWER_NO_BATTERY;
    }
    if (*flags & PLT_POWER_NO_BATTERY) *percentValid = 0;
    return kOk;
}

extern "C" PLT_STATUS PltGetRandom(uint8_t* buffer, uint32_t bytes) {
    HCRYPTPROV provider = 0;
    if (!CryptAcquireContextW(&provider, nullptr, nullptr, PROV_RSA_FULL, CRYPT_VERIFYCONTEXT) &&
        !CryptAcquireContextW(&provider, nullptr, nullptr, PROV_RSA_FULL,
                              CRYPT_VERIFYCONTEXT | CRYPT_NEWKEYSET))
        return GetLastError();
    PLT_STATUS status = CryptGenRandom(provider, bytes, buffer) ? kOk : GetLastError();
    CryptReleaseContext(provider, 0);
    return status;
}

extern "C" PLT_STATUS PltExpandEnvironmentStrings(const wchar_t* text, wchar_t* out,
                                                  uint32_t chars) {
    return ExpandEnvironmentStringsW(text, out, chars) != 0 ? kOk : GetLastError();
}
