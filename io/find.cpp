// File enumeration and the two path queries built on it.
#include <string.h>

#include <zendra/io.h>

#include "platform/status.h"

using namespace zendra;

namespace {

void Fill(PLT_FIND_DATA* data, const WIN32_FIND_DATAW& found) {
    if (data == nullptr) return;
    data->IsDirectory = (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) ? 1 : 0;
    static_assert(sizeof data->FileName == sizeof found.cFileName, "names of MAX_PATH units");
    memcpy(data->FileName, found.cFileName, sizeof data->FileName);
    data->FileName[MAX_PATH - 1] = L'\0';
}

bool IsDotEntry(const wchar_t* name) { return wcscmp(name, L".") == 0 || wcscmp(name, L"..") == 0; }

// Looks the path up; on success *isDirectory says whether it names a
// directory other than "." and "..".
PLT_STATUS LookUp(const wchar_t* path, bool* isDirectory) {
    *isDirectory = false;
    WIN32_FIND_DATAW found;
    HANDLE find = FindFirstFileW(path, &found);
    if (find == INVALID_HANDLE_VALUE) return GetLastError();
    FindClose(find);
    *isDirectory =
        (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 && !IsDotEntry(found.cFileName);
    return kOk;
}

}  // namespace

extern "C" PLT_STATUS PltFindFirstFile(const wchar_t* pattern, PLT_FIND_DATA* data, HANDLE* find) {
    if (find == nullptr) return kInvalidParameter;
    WIN32_FIND_DATAW found;
    *find = FindFirstFileW(pattern, &found);
    if (*find == INVALID_HANDLE_VALUE) return GetLastError();
    Fill(data, found);
    return kOk;
}

extern "C" PLT_STATUS PltFindNextFile(HANDLE find, PLT_FIND_DATA* data) {
    if (find == nullptr) return kInvalidParameter;
    WIN32_FIND_DATAW found;
    if (!FindNextFileW(find, &found)) return GetLastError();
    Fill(data, found);
    return kOk;
}

extern "C" PLT_STATUS PltFindClose(HANDLE find) { return FindClose(find) ? kOk : GetLastError(); }

extern "C" PLT_STATUS PltIsDirectory(const wchar_t* path, uint8_t* isDirectory) {
    if (isDirectory == nullptr) return kInvalidParameter;
    *isDirectory = 0;
    bool directory = false;
    PLT_STATUS status = LookUp(path, &directory);
    *isDirectory = directory ? 1 : 0;
    return status;
}

extern "C" PLT_STATUS PltGetDirectoryName(const wchar_t* path, wchar_t* out, uint32_t outBytes) {
    if (out == nullptr) return kInvalidParameter;
    bool directory = false;
    PLT_STATUS status = LookUp(path, &directory);
    if (status != kOk) return status;
    // Only the path's own text is read, never past its terminator; the
    // result must fit with its terminator.
    size_t length = wcslen(path), keep = length;
    bool appendSeparator = false;
    if (directory) {
        appendSeparator = length == 0 || path[length - 1] != L'\\';
    } else if (const wchar_t* last = wcsrchr(path, L'\\')) {
        keep = static_cast<size_t>(last - path) + 1;
    }
    size_t units = keep + (appendSeparator ? 1 : 0) + 1;
    if (units > outBytes / sizeof(wchar_t)) return kNoMemory;
    memcpy(out, path, keep * sizeof(wchar_t));
    if (appendSeparator) out[keep++] = L'\\';
    out[keep] = L'\0';
    return kOk;
}
