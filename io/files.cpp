// Files: opening with the library's own bits, positioned synchronous
// transfers, size and position, copy, move and delete. Each call returns the
// failing Win32 call's error unchanged.
#include <zendra/io.h>

#include "io/files_internal.h"
#include "platform/counters.h"
#include "platform/status.h"

using namespace zendra;

namespace {

// The high open bits, walked in this order; a row applies when all of its
// library bits are set.
struct FlagRow {
    uint32_t libraryBits;
    DWORD windowsFlag;
};
constexpr FlagRow kFlagRows[] = {
    {PLT_FILE_OVERLAPPED, FILE_FLAG_OVERLAPPED},
    {PLT_FILE_NO_BUFFERING, FILE_FLAG_NO_BUFFERING},
    {PLT_FILE_WRITE_THROUGH, FILE_FLAG_WRITE_THROUGH},
    {PLT_FILE_BACKUP_SEMANTICS, FILE_FLAG_BACKUP_SEMANTICS},
};

DWORD Disposition(uint32_t open) {
    bool existing = (open & PLT_FILE_OPEN) != 0, create = (open & PLT_FILE_CREATE) != 0;
    if (existing && create) return OPEN_ALWAYS;
    if (existing) return (open & PLT_FILE_TRUNCATE) ? TRUNCATE_EXISTING : OPEN_EXISTING;
    return create ? CREATE_ALWAYS : 0;  // 0: Windows refuses it
}

DWORD FileFlags(uint32_t open) {
    DWORD flags = FILE_ATTRIBUTE_NORMAL;
    for (const FlagRow& row : kFlagRows)
        if ((open & row.libraryBits) == row.libraryBits) flags |= row.windowsFlag;
    return flags;
}

DWORD ShareMode(uint8_t share) {
    return ((share & PLT_FILE_SHARE_READ) ? FILE_SHARE_READ : 0) |
           ((share & PLT_FILE_SHARE_WRITE) ? FILE_SHARE_WRITE : 0);
}

// Positions for a transfer unless the offset means "where the file is".
bool SeekForTransfer(HANDLE file, uint64_t offset) {
    if (offset == PLT_CURRENT_POSITION) return true;
    LARGE_INTEGER to;
    to.QuadPart = static_cast<LONGLONG>(offset);
    return SetFilePointerEx(file, to, nullptr, FILE_BEGIN) != FALSE;
}

PLT_STATUS Result(BOOL ok) { return ok ? kOk : GetLastError(); }

}  // namespace

namespace zendra {

PLT_STATUS OpenCounted(const wchar_t* path, DWORD access, DWORD share, DWORD disposition,
                       DWORD flags, HANDLE* file) {
    *file = CreateFileW(path, access, share, nullptr, disposition, flags, nullptr);
    if (*file == INVALID_HANDLE_VALUE) return GetLastError();
    CountCreated(Pair::File);
    return kOk;
}

void CloseUncheckedCounted(HANDLE file) {
    if (CloseHandle(file)) CountDestroyed(Pair::File);
}

}  // namespace zendra

extern "C" PLT_STATUS PltCreateFile(const wchar_t* path, uint32_t openFlags, uint32_t access,
                                    uint8_t share, HANDLE* file) {
    if (file == nullptr) return kInvalidParameter;
    DWORD rights = (access & PLT_FILE_ACCESS_WRITE) ? GENERIC_READ | GENERIC_WRITE : GENERIC_READ;
    return OpenCounted(path, rights, ShareMode(share), Disposition(openFlags), FileFlags(openFlags),
                       file);
}

extern "C" PLT_STATUS PltCloseFile(HANDLE file) {
    if (!CloseHandle(file)) return GetLastError();
    CountDestroyed(Pair::File);
    return kOk;
}

extern "C" PLT_STATUS PltReadFile(HANDLE file, uint64_t offset, void* buffer, uint32_t bytes,
                                  uint32_t* done) {
    // The seek's own code is not passed on: callers have always seen 1 here.
    if (!SeekForTransfer(file, offset)) return kInvalidFunction;
    DWORD moved = 0;
    if (!ReadFile(file, buffer, bytes, &moved, nullptr)) return GetLastError();
    if (done != nullptr) *done = moved;
    return kOk;
}

extern "C" PLT_STATUS PltWriteFile(HANDLE file, uint64_t offset, const void* buffer, uint32_t bytes,
                                   uint32_t* done) {
    if (!SeekForTransfer(file, offset)) return kInvalidFunction;
    DWORD moved = 0;
    if (!WriteFile(file, buffer, bytes, &moved, nullptr)) return GetLastError();
    if (done != nullptr) *done = moved;
    return kOk;
}

extern "C" PLT_STATUS PltGetFileSize(HANDLE file, uint64_t* size) {
    if (size != nullptr) *size = 0;
    LARGE_INTEGER value;
    if (!GetFileSizeEx(file, &value)) return GetLastError();
    if (size != nullptr) *size = static_cast<uint64_t>(value.QuadPart);
    return kOk;
}

extern "C" PLT_STATUS PltGetFilePosition(HANDLE file, uint64_t* position) {
    if (position != nullptr) *position = 0;
    LARGE_INTEGER zero, now;
    zero.QuadPart = 0;
    if (!SetFilePointerEx(file, zero, &now, FILE_CURRENT)) return GetLastError();
    if (position != nullptr) *position = static_cast<uint64_t>(now.QuadPart);
    return kOk;
}

extern "C" PLT_STATUS PltSetFilePosition(HANDLE file, uint64_t distance, uint32_t origin) {
    DWORD method = origin == PLT_FILE_CURRENT ? FILE_CURRENT
                   : origin == PLT_FILE_END   ? FILE_END
                                              : FILE_BEGIN;
    LARGE_INTEGER to;
    to.QuadPart = static_cast<LONGLONG>(distance);
    return Result(SetFilePointerEx(file, to, nullptr, method));
}

extern "C" PLT_STATUS PltIssueFlushBuffers(HANDLE file) { return Result(FlushFileBuffers(file)); }

extern "C" PLT_STATUS PltCopyFile(const wchar_t* source, const wchar_t* destination,
                                  uint8_t failIfExists) {
    return Result(CopyFileW(source, destination, failIfExists != 0));
}

extern "C" PLT_STATUS PltMoveFile(const wchar_t* source, const wchar_t* destination) {
    return Result(
        MoveFileExW(source, destination,
                    MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED | MOVEFILE_WRITE_THROUGH));
}

extern "C" PLT_STATUS PltDeleteFile(const wchar_t* path) { return Result(DeleteFileW(path)); }

extern "C" PLT_STATUS PltDeleteOnReboot(const wchar_t* path) {
    return Result(MoveFileExW(path, nullptr, MOVEFILE_DELAY_UNTIL_REBOOT));
}
