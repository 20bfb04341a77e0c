// TestConfig: one value of each type written below SOFTWARE\Velmora, read
// back, compared and deleted; the whole key is removed after each.
#include <initializer_list>
#include <string.h>

#include <zendra/config.h>

#include "selfcheck/report.h"

namespace zendra::selfcheck {
namespace {

constexpr const wchar_t* kProductKey = L"SOFTWARE\\Velmora";
constexpr const wchar_t* kSubkey = L"UnitTest\\Config\\";
constexpr const wchar_t* kIntegerMismatch = L"The written and read UINT64 value must be equal";

enum class Kind { Str, MultiStr, Bin, Uint, Uint64 };

// Writes one value, reads it back and compares; the registry's status of a
// failed call, or 0xFFFFFFFF for a value that came back different.
constexpr uint32_t kDifferent = 0xFFFFFFFFu;

PLT_STATUS RoundTrip(HKEY key, Kind kind) {
    PLT_STATUS s = 0;
    switch (kind) {
        case Kind::Str: {
            static const wchar_t written[] = L"TestedOK";
            wchar_t read[100] = {};
            if ((s = PltSetConfigKeyStr(key, kSubkey, L"CfgStrTest", sizeof written, written)) ||
                (s = PltGetConfigKeyStr(key, kSubkey, L"CfgStrTest", sizeof read, read)))
                return s;
            return wcscmp(written, read) == 0 ? 0 : kDifferent;
        }
        case Kind::MultiStr: {
            static const wchar_t written[] = L"TestStr01\0TestStr02\0TestStr03\0";
            wchar_t read[100] = {};
            if ((s = PltSetConfigKeyMultiStr(key, kSubkey, L"CfgMultiStrTest", sizeof written,
                                             written)) ||
                (s = PltGetConfigKeyMultiStr(key, kSubkey, L"CfgMultiStrTest", sizeof read, read)))
                return s;
            for (const wchar_t *w = written, *r = read; *w != L'\0';
                 w += wcslen(w) + 1, r += wcslen(r) + 1)
                if (wcscmp(w, r) != 0) return kDifferent;
            return 0;
        }
        case Kind::Bin: {
            uint8_t written[32], read[32] = {};
            for (uint32_t i = 0; i < sizeof written; ++i) written[i] = static_cast<uint8_t>(i * 37);
            if ((s = PltSetConfigKeyBin(key, kSubkey, L"CfgBinStrTest", sizeof written, written)) ||
                (s = PltGetConfigKeyBin(key, kSubkey, L"CfgBinStrTest", sizeof read, read)))
                return s;
            for (uint32_t i = 0; i < sizeof written; ++i)
                if (written[i] != read[i]) return kDifferent;
            return 0;
        }
        case Kind::Uint: {
            uint32_t read = 0;
            if ((s = PltSetConfigKeyUINT(key, kSubkey, L"CfgUintTest", 0xC0FFEE42)) ||
                (s = PltGetConfigKeyUINT(key, kSubkey, L"CfgUintTest", &read, 7)))
                return s;
            return read == 0xC0FFEE42 ? 0 : kDifferent;
        }
        case Kind::Uint64: {
            uint64_t read = 0;
            if ((s = PltSetConfigKeyUINT64(key, kSubkey, L"CfgUint64Test",
                                           0x0123456789ABCDEFull)) ||
                (s = PltGetConfigKeyUINT64(key, kSubkey, L"CfgUint64Test", &read)))
                return s;
            return read == 0x0123456789ABCDEFull ? 0 : kDifferent;
        }
    }
    return kDifferent;
}

const wchar_t* ValueName(Kind kind) {
    static const wchar_t* const names[] = {L"CfgStrTest", L"CfgMultiStrTest", L"CfgBinStrTest",
                                           L"CfgUintTest", L"CfgUint64Test"};
    return names[static_cast<int>(kind)];
}

const wchar_t* Mismatch(Kind kind) {
    switch (kind) {
        case Kind::Str:
            return L"The written and read strings must be equal";
        case Kind::MultiStr:
            return L"Each string of multi str reg value written and read must be equal";
        case Kind::Bin:
            return L"Each byte of binary string written and read must be equal";
        default:
            return kIntegerMismatch;
    }
}

// Opens the product key with full access, creating it when it is missing.
PLT_STATUS OpenProductKey(HKEY* key) {
    if (PltOpenConfig(PLT_CONFIG_LOCAL_MACHINE, kProductKey, 0, key) == 0) return 0;
    HKEY root = nullptr;
    PLT_STATUS s = PltOpenConfig(PLT_CONFIG_LOCAL_MACHINE, nullptr, 0, &root);
    if (s == 0) s = PltCreateConfigKey(root, kProductKey);
    if (root != nullptr) PltCloseConfig(&root);
    return s == 0 ? PltOpenConfig(PLT_CONFIG_LOCAL_MACHINE, kProductKey, 0, key) : s;
}

// Removes the product key with everything below it; a key already gone is
// no failure.
PLT_STATUS RemoveProductKey() {
    HKEY root = nullptr;
    PLT_STATUS s = PltOpenConfig(PLT_CONFIG_LOCAL_MACHINE, nullptr, 0, &root);
    if (s != 0) return s;
    s = PltDeleteConfigKey(root, kProductKey);
    PltCloseConfig(&root);
    return s == PLT_STATUS_NOT_FOUND || s == ERROR_FILE_NOT_FOUND ? 0 : s;
}

uint32_t Check(PLT_REPORT_BUFFER* report, Kind kind) {
    HKEY key = nullptr;
    PLT_STATUS s = OpenProductKey(&key);
    uint32_t result = 0;
    if (s != 0) {
        result = FailWithStatus(report, s, L"Open config should succeed");
    } else {
        s = PltCreateConfigKey(key, kSubkey);
        if (s == 0) s = RoundTrip(key, kind);
        if (s == kDifferent)
            result = Fail(report, Mismatch(kind));
        else if (s != 0)
            result = FailWithStatus(report, s, Mismatch(kind));
        PLT_STATUS deleted = PltDeleteConfigVariable(key, kSubkey, ValueName(kind));
        if (result == 0 && deleted != 0) result = FailWithStatus(report, deleted, Mismatch(kind));
        PltCloseConfig(&key);
    }
    s = RemoveProductKey();
    if (s != 0 && result == 0) result = FailWithStatus(report, s);
    return result;
}

}  // namespace
}  // namespace zendra::selfcheck

using namespace zendra::selfcheck;

extern "C" uint32_t TestConfig(PLT_REPORT_BUFFER* report) {
    uint32_t result = 0;
    for (Kind kind : {Kind::Str, Kind::MultiStr, Kind::Bin, Kind::Uint, Kind::Uint64})
        result |= Check(report, kind);
    return result;
}
