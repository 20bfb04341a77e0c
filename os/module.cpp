// Module file names, whole or split into directory and file name.
#include <zendra/os.h>

#include <string.h>
#include <wchar.h>

#include "platform/status.h"

using namespace zendra;

namespace {

constexpr DWORD kNameChars = 4096;

// Copies `length` characters and a terminator. The size test leaves out the
// terminator, so a part exactly `size` long is written one character past
// `size`: callers have always sized buffers with that in mind.
PLT_STATUS CopyPart(const wchar_t* part, size_t length, wchar_t* buffer, uint32_t size) {
    if (size < length) return kBadLength;
    memcpy(buffer, part, length * sizeof(wchar_t));
    buffer[length] = L'\0';
    return kOk;
}

struct SplitName {
    wchar_t full[kNameChars];
    const wchar_t* lastBackslash;
};

PLT_STATUS ReadName(HMODULE module, SplitName* name) {
    if (GetModuleFileNameW(module, name->full, kNameChars) == 0) return GetLastError();
    name->full[kNameChars - 1] = L'\0';  // terminated even when cut short
    name->lastBackslash = wcsrchr(name->full, L'\\');
    return kOk;
}

}  // namespace

extern "C" PLT_STATUS PltGetModuleName(HMODULE module, wchar_t* buffer, uint32_t size) {
    if (buffer == nullptr) return kInvalidParameter;
    // A name cut short to fit still counts as success.
    if (GetModuleFileNameW(module, buffer, size) == 0) return GetLastError();
    return kOk;
}

extern "C" PLT_STATUS PltGetModulePath(HMODULE module, wchar_t* buffer, uint32_t size) {
    if (buffer == nullptr) return kInvalidParameter;
    SplitName name;
    PLT_STATUS status = ReadName(module, &name);
    if (status != kOk) return status;
    if (name.lastBackslash == nullptr) return CopyPart(L"\\", 1, buffer, size);
    return CopyPart(name.full, name.lastBackslash + 1 - name.full, buffer, size);
}

extern "C" PLT_STATUS PltGetModuleFileName(HMODULE module, wchar_t* buffer, uint32_t size) {
    if (buffer == nullptr) return kInvalidParameter;
    SplitName name;
    PLT_STATUS status = ReadName(module, &name);
    if (status != kOk) return status;
    const wchar_t* file = name.lastBackslash != nullptr ? name.lastBackslash + 1 : name.full;
    return CopyPart(file, wcslen(file), buffer, size);
}
