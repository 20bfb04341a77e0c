// TestFileIO: files created, copied, moved, read, written, positioned and
// deleted, directories made and searched, and a mebibyte written and read
// back with completion routines. Everything lives in the current directory
// and is removed again.
#include <initializer_list>
#include <string.h>
#include <stdio.h>
#include <wchar.h>

#include <zendra/io.h>

#include "selfcheck/report.h"

namespace zendra::selfcheck {
namespace {

constexpr uint32_t kAsyncBytes = 0x100000;
constexpr uint32_t kPathChars = 1024;
constexpr uint32_t kWriteFlags = PLT_FILE_OPEN | PLT_FILE_CREATE;

const wchar_t* const kWrittenDiffers =
    L"Bytes requested to write and actual written should be same";
const wchar_t* const kReadDiffers = L"Bytes requested to read and actual read should be same";
const wchar_t* const kContentDiffers =
    L"Buffer comparision for written and read from file SHOULD be same";

uint8_t Pattern(uint32_t i) { return static_cast<uint8_t>(i ^ (i >> 9) ^ 0x5C); }

void FillPattern(uint8_t* buffer, uint32_t size) {
    for (uint32_t i = 0; i < size; ++i) buffer[i] = Pattern(i);
}

// A sub-check that failed on a call's status: its message, then the line.
uint32_t StatusFailed(PLT_REPORT_BUFFER* report, PLT_STATUS status) {
    return FailWithStatus(report, status);
}

PLT_STATUS CreateWritable(const wchar_t* path, HANDLE* file, uint32_t extraFlags = 0) {
    return PltCreateFile(path, kWriteFlags | extraFlags, PLT_FILE_ACCESS_WRITE, 0, file);
}

// Writes `size` bytes of the pattern at the start of a new file.
PLT_STATUS WritePatternFile(const wchar_t* path, uint32_t size) {
    HANDLE file;
    PLT_STATUS s = CreateWritable(path, &file);
    if (s != 0) return s;
    uint8_t data[512];
    FillPattern(data, sizeof data);
    uint32_t done = 0;
    s = PltWriteFile(file, 0, data, size < sizeof data ? size : sizeof data, &done);
    PltCloseFile(file);
    return s;
}

// The current directory joined with a name, as "%ls\%ls".
bool Joined(const wchar_t* name, wchar_t* out) {
    wchar_t current[kPathChars];
    uint32_t length = kPathChars;
    if (PltGetCurrentDirectory(current, &length) != 0 || current[0] == L'\0') return false;
    _snwprintf(out, kPathChars - 1, L"%ls\\%ls", current, name);
    out[kPathChars - 1] = L'\0';
    return true;
}

bool IsDirectory(const wchar_t* path) {
    uint8_t isDirectory = 0;
    return PltIsDirectory(path, &isDirectory) == 0 && isDirectory == 1;
}

uint32_t CreateAndDelete(PLT_REPORT_BUFFER* report) {
    HANDLE file;
    PLT_STATUS s = CreateWritable(L"Test.txt", &file);
    if (s != 0) return StatusFailed(report, s);
    PltCloseFile(file);
    if ((s = PltDeleteFile(L"Test.txt")) != 0) return StatusFailed(report, s);
    return PltDeleteFile(L"Test.txt") == ERROR_FILE_NOT_FOUND ? 0 : Fail(report);
}

// The current directory through its length and a buffer of that size.
uint32_t CurrentDirectory(PLT_REPORT_BUFFER* report) {
    uint32_t length = 0;
    PltGetCurrentDirectory(nullptr, &length);  // its status is the last error as it stands
    if (length == 0) return Fail(report);
    void* block = nullptr;
    PltMalloc(&block, length * sizeof(wchar_t), PLT_ALLOC_ZERO, 0);
    if (block == nullptr) return Fail(report, L"Pointer to memory MUST NOT be NULL");
    auto* current = static_cast<wchar_t*>(block);
    PLT_STATUS s = PltGetCurrentDirectory(current, &length);
    uint32_t result = 0;
    wchar_t joined[kPathChars];
    if (s != 0 || current[0] == L'\0') {
        result = StatusFailed(report, s);
    } else {
        AppendFormat(report, kListingLimit, L"Current Dir: %ls\r\n", current);
        _snwprintf(joined, kPathChars - 1, L"%ls\\%ls", current, L"FileTest.dir");
        joined[kPathChars - 1] = L'\0';
        AppendFormat(report, kListingLimit, L"Appended Dir: %ls\r\n", joined);
        if ((s = PltCreateDirectory(joined)) != 0)
            result = StatusFailed(report, s);
        else if (!IsDirectory(joined))
            result = Fail(report);
        PltRemoveDirectory(joined);
    }
    if (PltFree(&block, 0) != 0 || block != nullptr)
        result = Fail(report, L"Pointer to memory MUST be NULL");
    return result;
}

uint32_t RemoveDirectory(PLT_REPORT_BUFFER* report) {
    wchar_t path[kPathChars];
    if (!Joined(L"FileTest.dir", path)) return Fail(report);
    PLT_STATUS s = PltCreateDirectory(path);
    if (s == 0) s = PltRemoveDirectory(path);
    if (s != 0) return StatusFailed(report, s);
    uint8_t isDirectory = 1;
    return PltIsDirectory(path, &isDirectory) != 0 && isDirectory == 0 ? 0 : Fail(report);
}

uint32_t CopyMoveDelete(PLT_REPORT_BUFFER* report) {
    PLT_STATUS s = PltCreateDirectory(L"FIOCPMV");
    if (s == 0) s = WritePatternFile(L"FIOCPMV/File1", 512);
    if (s == 0) s = PltCopyFile(L"FIOCPMV/File1", L"FIOCPMV/File2", 1);
    if (s == 0) s = PltMoveFile(L"FIOCPMV/File2", L"FIOCPMV/File3");
    uint32_t result = s != 0 ? StatusFailed(report, s) : 0;
    if (result == 0 && PltRemoveDirectory(L"FIOCPMV") == 0)
        result = Fail(report, L"Remove Directory should NOT succeed");
    if (result == 0 && (s = PltDeleteFile(L"FIOCPMV/File1")) != 0) result = StatusFailed(report, s);
    if (result == 0 && PltDeleteFile(L"FIOCPMV/File2") == 0)
        result = Fail(report, L"Delete file should NOT succeed");
    if (result == 0 && (s = PltDeleteFile(L"FIOCPMV/File3")) != 0) result = StatusFailed(report, s);
    if (result == 0 && (s = PltRemoveDirectory(L"FIOCPMV")) != 0) result = StatusFailed(report, s);
    for (const wchar_t* left : {L"FIOCPMV/File1", L"FIOCPMV/File2", L"FIOCPMV/File3"})
        PltDeleteFile(left);
    PltRemoveDirectory(L"FIOCPMV");
    return result;
}

uint32_t ReadWrite(PLT_REPORT_BUFFER* report) {
    HANDLE file;
    PLT_STATUS s = CreateWritable(L"FileRW", &file);
    if (s != 0) return StatusFailed(report, s);
    uint8_t written[4096], read[4096] = {};
    FillPattern(written, sizeof written);
    uint32_t done = 0, result = 0;
    if ((s = PltWriteFile(file, 0, written, sizeof written, &done)) != 0 || done != sizeof written)
        result = FailWithStatus(report, s, kWrittenDiffers);
    else if ((s = PltReadFile(file, 0, read, sizeof read, &done)) != 0 || done != sizeof read)
        result = FailWithStatus(report, s, kReadDiffers);
    else if (memcmp(written, read, sizeof read) != 0)
        result = Fail(report, kContentDiffers);
    PltCloseFile(file);
    PltDeleteFile(L"FileRW");
    return result;
}

uint32_t SeekAndSize(PLT_REPORT_BUFFER* report) {
    HANDLE file;
    PLT_STATUS s = CreateWritable(L"FileSeek", &file);
    if (s != 0) return StatusFailed(report, s);
    uint8_t data[10000];
    FillPattern(data, sizeof data);
    uint32_t done = 0, result = 0;
    uint64_t size = 0, position = 0;
    if ((s = PltWriteFile(file, 0, data, sizeof data, &done)) != 0 || done != sizeof data) {
        result = FailWithStatus(report, s, kWrittenDiffers);
    } else if (PltGetFileSize(file, &size) != 0 || size != sizeof data) {
        result = Fail(report, L"Current file size and expected size should be same");
    } else if (PltGetFilePosition(file, &position) != 0 || position != size) {
        result = Fail(report,
                      L"Current file position after write size and the file size should be same");
    } else {
        // From the start, back from the current position, and to the end.
        const struct {
            int64_t distance;
            uint32_t origin;
            uint64_t expected;
        } moves[] = {{1234, PLT_FILE_BEGIN, 1234},
                     {-234, PLT_FILE_CURRENT, 1000},
                     {0, PLT_FILE_END, sizeof data}};
        for (const auto& m : moves) {
            if (PltSetFilePosition(file, static_cast<uint64_t>(m.distance), m.origin) != 0 ||
                PltGetFilePosition(file, &position) != 0 || position != m.expected) {
                result = Fail(
                    report,
                    L"Current file position and the file repositioned position should be same");
                break;
            }
        }
        if (result == 0 && (s = PltIssueFlushBuffers(file)) != 0) result = StatusFailed(report, s);
    }
    PltCloseFile(file);
    PltDeleteFile(L"FileSeek");
    return result;
}

// ---- completion routines ----

struct Transfer {
    PLT_REPORT_BUFFER* report;
    PLT_EVENT done;
    uint32_t bytes, status;
};

uint32_t WriteCompleted(HANDLE, void*, uint32_t bytes, void* context, uint32_t status) {
    auto* t = static_cast<Transfer*>(context);
    AppendLine(t->report, L"Recieved write callback");
    AppendFormat(t->report, kMessageLimit, L"Completion Status: %d  -  Total bytes written: %d\r\n",
                 status, bytes);
    t->bytes = bytes, t->status = status;
    PltSetEvent(&t->done);
    return 0;
}

uint32_t ReadCompleted(HANDLE, void*, uint32_t bytes, void* context, uint32_t status) {
    auto* t = static_cast<Transfer*>(context);
    AppendLine(t->report, L"Recieved read callback");
    AppendFormat(t->report, kMessageLimit, L"Completion Status: %d  -  Total bytes Read: %d\r\n",
                 status, bytes);
    t->bytes = bytes, t->status = status;
    PltSetEvent(&t->done);
    return 0;
}

// The completion routine runs only while this thread waits alertably, and
// it uses the caller's buffers: wait for it without a time limit.
uint32_t AwaitCompletion(PLT_REPORT_BUFFER* report, Transfer* t) {
    DWORD waited;
    do waited = WaitForSingleObjectEx(t->done.handle, INFINITE, TRUE);
    while (waited == WAIT_IO_COMPLETION);
    AppendLine(report, waited == WAIT_OBJECT_0 ? L"Wait Suceeded" : L"Wait failed");
    if (waited != WAIT_OBJECT_0) return Fail(report);
    uint32_t result = 0;
    if (AcquireEvent(&t->done, 0, &result) != 0 || result != PLT_WAIT_SIGNALED)
        return Fail(report, L"PltAcquireEvent SHOULD succeed");
    PltResetEvent(&t->done);
    return 0;
}

uint32_t Asynchronous(PLT_REPORT_BUFFER* report) {
    void *out = nullptr, *in = nullptr;
    PltMalloc(&out, kAsyncBytes, 0, 0);
    PltMalloc(&in, kAsyncBytes, PLT_ALLOC_ZERO, 0);
    Transfer t{report, {}, 0, 0};
    PltInitializeEvent(&t.done, PLT_EVENT_MANUAL_RESET, 0, nullptr);
    HANDLE file = INVALID_HANDLE_VALUE;
    uint32_t result = 0;
    PLT_STATUS s = 0;
    if (out == nullptr || in == nullptr) {
        result = Fail(report, L"Pointer to memory MUST NOT be NULL");
    } else if (t.done.handle == nullptr) {
        result = Fail(report, L"PltAcquireEvent SHOULD succeed");
    } else if ((s = CreateWritable(L"AsyncFile", &file, PLT_FILE_OVERLAPPED)) != 0) {
        result = StatusFailed(report, s);
    } else {
        FillPattern(static_cast<uint8_t*>(out), kAsyncBytes);
        AppendLine(report, L"Waiting for write to finish");
        if ((s = PltWriteFileAsync(file, -1, out, kAsyncBytes, WriteCompleted, &t)) != 0)
            result = StatusFailed(report, s);
        else if ((result = AwaitCompletion(report, &t)) == 0 &&
                 (t.status != 0 || t.bytes != kAsyncBytes))
            result = Fail(report, kWrittenDiffers);
        if (result == 0) {
            AppendLine(report, L"Waiting for Read to finish");
            if ((s = PltReadFileAsync(file, -1, in, kAsyncBytes, ReadCompleted, &t)) != 0)
                result = StatusFailed(report, s);
            else if ((result = AwaitCompletion(report, &t)) == 0 &&
                     (t.status != 0 || t.bytes != kAsyncBytes))
                result = Fail(report, kReadDiffers);
            else if (result == 0 && memcmp(out, in, kAsyncBytes) != 0)
                result = Fail(report, kContentDiffers);
        }
        PltCloseFile(file);
        PltDeleteFile(L"AsyncFile");
    }
    for (void** block : {&out, &in})
        if (*block != nullptr && (PltFree(block, 0) != 0 || *block != nullptr))
            result = Fail(report, L"Pointer to memory MUST be NULL");
    PltDeleteEvent(&t.done);
    return result;
}

// ---- directories, paths and searches below Test1.dir ----

uint32_t MakeDirectory(PLT_REPORT_BUFFER* report) {
    wchar_t path[kPathChars];
    if (!Joined(L"Test1.dir", path)) return Fail(report);
    PLT_STATUS s = PltCreateDirectory(path);
    uint32_t result = s != 0 ? StatusFailed(report, s) : IsDirectory(path) ? 0 : Fail(report);
    PltRemoveDirectory(path);
    return result;
}

// Both levels of a path made in one call.
uint32_t MakeDirectoryPath(PLT_REPORT_BUFFER* report) {
    wchar_t outer[kPathChars], inner[kPathChars];
    if (!Joined(L"Test1.dir", outer) || !Joined(L"Test1.dir\\Test2.dir", inner))
        return Fail(report);
    PLT_STATUS s = PltCreateDirectoryPath(inner);
    uint32_t result = s != 0                                     ? StatusFailed(report, s)
                      : IsDirectory(outer) && IsDirectory(inner) ? 0
                                                                 : Fail(report);
    PltRemoveDirectory(inner);
    PltRemoveDirectory(outer);
    return result;
}

// Test1.dir holding Test1.txt, for the checks that look at a file in a
// directory.
PLT_STATUS MakeTextFile() {
    PLT_STATUS s = PltCreateDirectory(L"Test1.dir");
    return s != 0 ? s : WritePatternFile(L"Test1.dir\\Test1.txt", 64);
}

void RemoveTextFile() {
    PltDeleteFile(L"Test1.dir\\Test1.txt");
    PltRemoveDirectory(L"Test1.dir");
}

uint32_t DirectoryOfFile(PLT_REPORT_BUFFER* report) {
    wchar_t file[kPathChars], directory[kPathChars], expected[kPathChars];
    PLT_STATUS s = MakeTextFile();
    uint32_t result = 0;
    if (s != 0) {
        result = StatusFailed(report, s);
    } else if (!Joined(L"Test1.dir\\Test1.txt", file) || !Joined(L"Test1.dir\\", expected)) {
        result = Fail(report);
    } else if ((s = PltGetDirectoryName(file, directory, sizeof directory)) != 0) {
        result = StatusFailed(report, s);
    } else if (wcscmp(directory, expected) != 0) {
        result = Fail(report);
    }
    RemoveTextFile();
    return result;
}

uint32_t FindText(PLT_REPORT_BUFFER* report) {
    PLT_STATUS s = MakeTextFile();
    uint32_t result = 0;
    if (s != 0) {
        result = StatusFailed(report, s);
    } else {
        PLT_FIND_DATA data{};
        HANDLE find = INVALID_HANDLE_VALUE;
        if (PltFindFirstFile(L"Test1.dir\\*.txt", &data, &find) != 0 || data.IsDirectory != 0 ||
            wcscmp(data.FileName, L"Test1.txt") != 0)
            result = Fail(report, L"The first file should have been found.");
        else if (PltFindNextFile(find, &data) != ERROR_NO_MORE_FILES)
            result = Fail(report);
        if (find != INVALID_HANDLE_VALUE) PltFindClose(find);
    }
    RemoveTextFile();
    return result;
}

uint32_t HiddenFile(PLT_REPORT_BUFFER* report) {
    PLT_STATUS s = MakeTextFile();
    if (s == 0) s = PltSetAttributeHidden(L"Test1.dir\\Test1.txt");
    uint32_t result = s != 0 ? StatusFailed(report, s) : 0;
    DWORD attributes = GetFileAttributesW(L"Test1.dir\\Test1.txt");
    const DWORD hiddenSystem = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
    if (result == 0 &&
        (attributes == INVALID_FILE_ATTRIBUTES || (attributes & hiddenSystem) != hiddenSystem))
        result = Fail(report);
    if (result == 0 && (s = PltDeleteFile(L"Test1.dir\\Test1.txt")) != 0)
        result = StatusFailed(report, s);
    if (result == 0 && (s = PltRemoveDirectory(L"Test1.dir")) != 0)
        result = StatusFailed(report, s);
    RemoveTextFile();
    return result;
}

}  // namespace
}  // namespace zendra::selfcheck

using namespace zendra::selfcheck;

extern "C" uint32_t TestFileIO(PLT_REPORT_BUFFER* report) {
    uint32_t (*const checks[])(PLT_REPORT_BUFFER*) = {
        CreateAndDelete,   CurrentDirectory, RemoveDirectory, CopyMoveDelete,
        ReadWrite,         SeekAndSize,      Asynchronous,    MakeDirectory,
        MakeDirectoryPath, DirectoryOfFile,  FindText,        HiddenFile};
    uint32_t result = 0;
    for (auto check : checks) result |= check(report);
    return result;
}
