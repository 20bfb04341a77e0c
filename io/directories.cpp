// Directories: the current directory, creation of one level or a whole path,
// removal and hiding.
#include <string.h>

#include <zendra/io.h>

#include "platform/status.h"

using namespace zendra;

namespace {

constexpr size_t kStackPathUnits = 1024;
constexpr wchar_t kLongPathPrefix[] = L"\\\\?\\";
constexpr size_t kLongPathPrefixUnits = 4;

PLT_STATUS Result(BOOL ok) { return ok ? kOk : GetLastError(); }

// Removes leading and trailing spaces (0x20 only) in place.
void TrimSpaces(wchar_t* text) {
    size_t length = wcslen(text), start = 0;
    while (start < length && text[start] == L' ') ++start;
    while (length > start && text[length - 1] == L' ') --length;
    memmove(text, text + start, (length - start) * sizeof(wchar_t));
    text[length - start] = L'\0';
}

// Creates each directory that ends at a separator after the first, then the
// whole path. Only the intermediate levels may already exist.
PLT_STATUS CreateEveryLevel(wchar_t* path) {
    size_t from =
        wcsncmp(path, kLongPathPrefix, kLongPathPrefixUnits) == 0 ? kLongPathPrefixUnits : 0;
    wchar_t* separator = wcschr(path + from, L'\\');
    // The part in front of the first separator (normally the drive) is never
    // created.
    if (separator == nullptr) return kNoDirectory;
    while ((separator = wcschr(separator + 1, L'\\')) != nullptr) {
        *separator = L'\0';
        BOOL made = CreateDirectoryW(path, nullptr);
        DWORD error = made ? 0 : GetLastError();
        *separator = L'\\';
        if (!made && error != kAlreadyExists) return error;
    }
    return Result(CreateDirectoryW(path, nullptr));
}

}  // namespace

extern "C" PLT_STATUS PltGetCurrentDirectory(wchar_t* buffer, uint32_t* length) {
    if (buffer == nullptr) {
        DWORD needed = GetCurrentDirectoryW(0, nullptr);
        if (length != nullptr) *length = needed;
        // Whatever the last error holds, possibly an earlier call's code.
        return GetLastError();
    }
    // Windows answers a buffer that is too small with the size it needs and
    // leaves it unfilled; that answer counts as success here.
    return Result(GetCurrentDirectoryW(length != nullptr ? *length : 0, buffer) != 0);
}

extern "C" PLT_STATUS PltCreateDirectory(const wchar_t* path) {
    if (path == nullptr) return kInvalidParameter;
    return Result(CreateDirectoryW(path, nullptr));
}

extern "C" PLT_STATUS PltCreateDirectoryPath(const wchar_t* path) {
    if (path == nullptr) return kInvalidParameter;
    size_t length = wcslen(path);
    wchar_t onStack[kStackPathUnits];
    void* onHeap = nullptr;
    wchar_t* work = onStack;
    if (length >= kStackPathUnits) {
        // The whole path with its terminator.
        if (length + 1 > UINT32_MAX / sizeof(wchar_t)) return kNoMemory;
        PLT_STATUS status =
            PltMalloc(&onHeap, static_cast<uint32_t>((length + 1) * sizeof(wchar_t)), 0, 0);
        if (status != kOk) return status;
        work = static_cast<wchar_t*>(onHeap);
    }
    memcpy(work, path, (length + 1) * sizeof(wchar_t));
    TrimSpaces(work);
    PLT_STATUS status = CreateEveryLevel(work);
    if (onHeap != nullptr) PltFree(&onHeap, 0);
    return status;
}

extern "C" PLT_STATUS PltRemoveDirectory(const wchar_t* path) {
    if (path == nullptr) return kInvalidParameter;
    return Result(RemoveDirectoryW(path));
}

extern "C" PLT_STATUS PltSetAttributeHidden(const wchar_t* path) {
    if (path == nullptr) return kInvalidParameter;
    return Result(SetFileAttributesW(path, FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM));
}
