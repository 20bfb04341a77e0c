/* ZendraPlatform files, directories, asynchronous I/O, mapped views and the file extent map.
 * C-compatible. */
#ifndef ZENDRA_IO_H
#define ZENDRA_IO_H

#include <zendra/platform.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- files and directories ----
 * Thin calls over the Win32 file system. Unless a comment says otherwise they
 * return 0 or the error of the Win32 call that failed. Paths are UTF-16 and
 * passed on as given, so the "\\?\" prefix works wherever Windows takes it.
 * File and find handles are the system's; INVALID_HANDLE_VALUE means none. */

/* Open flags of PltCreateFile. The three low bits choose the disposition:
 * OPEN|CREATE opens or creates, OPEN|TRUNCATE empties an existing file, OPEN
 * opens an existing file, CREATE creates or empties; neither gives
 * disposition 0, which Windows refuses with INVALID_PARAMETER. */
#define PLT_FILE_CREATE 0x01u
#define PLT_FILE_OPEN 0x02u
#define PLT_FILE_TRUNCATE 0x08u
#define PLT_FILE_OVERLAPPED 0x10u       /* FILE_FLAG_OVERLAPPED */
#define PLT_FILE_NO_BUFFERING 0x20u     /* FILE_FLAG_NO_BUFFERING */
#define PLT_FILE_WRITE_THROUGH 0x40u    /* FILE_FLAG_WRITE_THROUGH */
#define PLT_FILE_BACKUP_SEMANTICS 0x80u /* FILE_FLAG_BACKUP_SEMANTICS: opens directories */

/* Access mode: read is always requested; this bit adds write. */
#define PLT_FILE_ACCESS_WRITE 0x02u
/* Share mode bits; delete sharing is never granted. */
#define PLT_FILE_SHARE_READ 0x01u
#define PLT_FILE_SHARE_WRITE 0x02u

/* Origins of PltSetFilePosition; any other value counts from the beginning. */
#define PLT_FILE_BEGIN 0u
#define PLT_FILE_CURRENT 1u
#define PLT_FILE_END 2u

/* An offset of all ones: the current file position. */
#define PLT_CURRENT_POSITION 0xFFFFFFFFFFFFFFFFull

/* One entry of a file enumeration: its name without the directory. */
typedef struct PLT_FIND_DATA {
    uint32_t IsDirectory;
    wchar_t FileName[260];
} PLT_FIND_DATA;

ZENDRA_LAYOUT(offsetof(PLT_FIND_DATA, IsDirectory) == 0);
ZENDRA_LAYOUT(offsetof(PLT_FIND_DATA, FileName) == 4);
ZENDRA_LAYOUT(sizeof(PLT_FIND_DATA) == 524);

/* *file is all ones unless the open succeeds; an open file counts in
 * FileCount and LiveFileCount. INVALID_PARAMETER for a null file. */
ZENDRA_API PLT_STATUS PltCreateFile(const wchar_t* path, uint32_t openFlags, uint32_t access,
                                    uint8_t share, HANDLE* file);
/* Lowers LiveFileCount when the handle closes (whatever opened it). */
ZENDRA_API PLT_STATUS PltCloseFile(HANDLE file);
/* One synchronous transfer, first seeking to offset from the beginning unless
 * it is PLT_CURRENT_POSITION; a failed seek returns 1 (ERROR_INVALID_FUNCTION)
 * instead of its own code. A short read at end of file is success. *done
 * (optional) receives the bytes moved. */
ZENDRA_API PLT_STATUS PltReadFile(HANDLE file, uint64_t offset, void* buffer, uint32_t bytes,
                                  uint32_t* done);
ZENDRA_API PLT_STATUS PltWriteFile(HANDLE file, uint64_t offset, const void* buffer, uint32_t bytes,
                                   uint32_t* done);
/* Both clear their optional out value first. */
ZENDRA_API PLT_STATUS PltGetFileSize(HANDLE file, uint64_t* size);
ZENDRA_API PLT_STATUS PltGetFilePosition(HANDLE file, uint64_t* position);
/* distance is read as a signed 64-bit number. */
ZENDRA_API PLT_STATUS PltSetFilePosition(HANDLE file, uint64_t distance, uint32_t origin);
ZENDRA_API PLT_STATUS PltIssueFlushBuffers(HANDLE file);
/* ERROR_FILE_EXISTS (80) when the destination exists and failIfExists is set. */
ZENDRA_API PLT_STATUS PltCopyFile(const wchar_t* source, const wchar_t* destination,
                                  uint8_t failIfExists);
/* Replaces an existing destination, copies across volumes, returns once the
 * data are on disk. */
ZENDRA_API PLT_STATUS PltMoveFile(const wchar_t* source, const wchar_t* destination);
ZENDRA_API PLT_STATUS PltDeleteFile(const wchar_t* path);
/* Deletes the file at the next restart; needs administrative rights
 * (ERROR_ACCESS_DENIED, 5, otherwise). */
ZENDRA_API PLT_STATUS PltDeleteOnReboot(const wchar_t* path);

/* With a null buffer: stores the length needed (terminator included) through
 * the optional length and returns GetLastError() as it stands, which may be
 * an earlier call's code. With a buffer of *length characters: 0 whenever
 * Windows answers, so a buffer that is too small returns 0 unfilled and with
 * *length unchanged: ask for the length first. */
ZENDRA_API PLT_STATUS PltGetCurrentDirectory(wchar_t* buffer, uint32_t* length);
/* INVALID_PARAMETER for a null path; ERROR_ALREADY_EXISTS (183) for an
 * existing directory. */
ZENDRA_API PLT_STATUS PltCreateDirectory(const wchar_t* path);
/* Creates every missing directory of the path after trimming its leading and
 * trailing spaces. The part before the first "\" is never created; a
 * "\\?\" prefix is kept. INVALID_PARAMETER for a null path; NO_MEMORY for the
 * working copy of a path of 1024 characters or more; NO_DIRECTORY when the
 * path holds no "\"; the first failing CreateDirectoryW's error, where an
 * existing directory counts as failure only for the last one (183). */
ZENDRA_API PLT_STATUS PltCreateDirectoryPath(const wchar_t* path);
/* INVALID_PARAMETER for a null path; the directory must be empty. */
ZENDRA_API PLT_STATUS PltRemoveDirectory(const wchar_t* path);
/* Sets the attributes to exactly hidden and system. INVALID_PARAMETER for a
 * null path. */
ZENDRA_API PLT_STATUS PltSetAttributeHidden(const wchar_t* path);

/* *find is all ones unless the search starts; data (optional) receives the
 * first entry. INVALID_PARAMETER for a null find; ERROR_FILE_NOT_FOUND (2)
 * when nothing matches. */
ZENDRA_API PLT_STATUS PltFindFirstFile(const wchar_t* pattern, PLT_FIND_DATA* data, HANDLE* find);
/* INVALID_PARAMETER for a null find; NO_MORE_FILES (18) at the end. "." and
 * ".." come like any other entry. */
ZENDRA_API PLT_STATUS PltFindNextFile(HANDLE find, PLT_FIND_DATA* data);
ZENDRA_API PLT_STATUS PltFindClose(HANDLE find);
/* *isDirectory becomes 1 only for an existing directory other than "." and
 * "..". INVALID_PARAMETER for a null isDirectory; the look-up's error (2 or 3
 * for a missing path). */
ZENDRA_API PLT_STATUS PltIsDirectory(const wchar_t* path, uint8_t* isDirectory);
/* The directory part of an existing path, written to out (outBytes bytes):
 * a directory gets a trailing "\"; a file is cut after its last "\"
 * (C:\dir\file.txt gives C:\dir\); a path without "\" is kept whole. Only the
 * path's text and terminator are read. INVALID_PARAMETER for a null out;
 * NO_MEMORY when the result and its terminator do not fit; the look-up's
 * error with out untouched. */
ZENDRA_API PLT_STATUS PltGetDirectoryName(const wchar_t* path, wchar_t* out, uint32_t outBytes);

/* ---- asynchronous file I/O ---- */

/* Called once per started request with the handle, buffer and context given
 * to the starting call, the bytes moved and the transfer's Windows error
 * (0 for success). Its return value is ignored. */
typedef uint32_t (*PLT_IO_COMPLETION)(HANDLE file, void* buffer, uint32_t bytesTransferred,
                                      void* context, uint32_t status);

/* Completion-routine transfers: the callback runs on the issuing thread during
 * one of its alertable waits (SleepEx, an alertable wait function), never
 * elsewhere. The read's offset -1 reads from offset 0; the write's offset -1
 * appends at the end of the file. 0 when the transfer started;
 * INVALID_PARAMETER for a null file, buffer or callback; NO_MEMORY; otherwise
 * ReadFileEx's or WriteFileEx's error, with no callback to follow. The
 * request is the library's: it is freed after the callback returns, or by a
 * start that fails. */
ZENDRA_API PLT_STATUS PltReadFileAsync(HANDLE file, int64_t offset, void* buffer, uint32_t bytes,
                                       PLT_IO_COMPLETION callback, void* context);
ZENDRA_API PLT_STATUS PltWriteFileAsync(HANDLE file, int64_t offset, const void* buffer,
                                        uint32_t bytes, PLT_IO_COMPLETION callback, void* context);

/* Transfers done at once whose callback runs on a worker of the default pool
 * (PltInit), possibly before the call returns; offset PLT_CURRENT_POSITION
 * means the current position. Without a callback: a plain PltReadFile or
 * PltWriteFile whose result is not reported (always 0). With one: 0 means the
 * callback will come; NO_MEMORY; the seek's or transfer's error (nothing
 * moved or no callback); INVALID_PARAMETER without a default pool and
 * POOL_STOPPING while it shuts down, both after the transfer was done and
 * with no callback. */
ZENDRA_API PLT_STATUS PltReadAsync(HANDLE file, uint64_t offset, void* buffer, uint32_t bytes,
                                   PLT_IO_COMPLETION callback, void* context);
ZENDRA_API PLT_STATUS PltWriteAsync(HANDLE file, uint64_t offset, const void* buffer,
                                    uint32_t bytes, PLT_IO_COMPLETION callback, void* context);
/* Trims a byte range of a device (data-set management). Without a callback:
 * the device's answer. With one: as PltReadAsync, the callback's buffer being
 * the 48-byte trim record. A trim the device leaves pending returns
 * ERROR_IO_PENDING (997) with no callback, once the device has finished with
 * the records. NO_MEMORY; DeviceIoControl's error. */
ZENDRA_API PLT_STATUS PltTrimAsync(HANDLE device, uint64_t offset, uint64_t length,
                                   PLT_IO_COMPLETION callback, void* context);

/* The trim input: DEVICE_MANAGE_DATA_SET_ATTRIBUTES and one range. */
typedef struct PLT_TRIM_RECORD {
    uint32_t Size;   /* 28 */
    uint32_t Action; /* 1: trim */
    uint32_t Flags;  /* 0x80000000: not allocated by a file system */
    uint32_t ParameterBlockOffset;
    uint32_t ParameterBlockLength;
    uint32_t DataSetRangesOffset; /* 32 */
    uint32_t DataSetRangesLength; /* 16 */
    uint32_t Reserved;
    int64_t StartingOffset;
    uint64_t LengthInBytes;
} PLT_TRIM_RECORD;

ZENDRA_LAYOUT(offsetof(PLT_TRIM_RECORD, Action) == 4);
ZENDRA_LAYOUT(offsetof(PLT_TRIM_RECORD, Flags) == 8);
ZENDRA_LAYOUT(offsetof(PLT_TRIM_RECORD, ParameterBlockOffset) == 12);
ZENDRA_LAYOUT(offsetof(PLT_TRIM_RECORD, ParameterBlockLength) == 16);
ZENDRA_LAYOUT(offsetof(PLT_TRIM_RECORD, DataSetRangesOffset) == 20);
ZENDRA_LAYOUT(offsetof(PLT_TRIM_RECORD, DataSetRangesLength) == 24);
ZENDRA_LAYOUT(offsetof(PLT_TRIM_RECORD, StartingOffset) == 32);
ZENDRA_LAYOUT(offsetof(PLT_TRIM_RECORD, LengthInBytes) == 40);
ZENDRA_LAYOUT(sizeof(PLT_TRIM_RECORD) == 48);

/* ---- mapped views ---- */

typedef struct PLT_MAPPED_VIEW PLT_MAPPED_VIEW; /* opaque */

#define PLT_MAP_WRITE 0x02u /* map for reading and writing; otherwise read-only */

/* Maps size bytes (0: to the end of the file) from offset (-1: 0). The
 * mapping is always created read-write, so the file must be open for writing
 * even for a read-only view. *base is cleared first. INVALID_PARAMETER for a
 * null view, base or file; NO_MEMORY; the mapping's error. When the failing
 * call leaves no error code, 0 is returned with *view not written and its
 * 16-byte record left allocated. */
ZENDRA_API PLT_STATUS PltMapViewOfFile(PLT_MAPPED_VIEW** view, void** base, uint32_t size,
                                       HANDLE file, int64_t offset, uint8_t flags);
/* INVALID_PARAMETER for a null view; UnmapViewOfFile's error (the view is
 * kept); otherwise 0 and the view is released. */
ZENDRA_API PLT_STATUS PltUnmapViewOfFile(PLT_MAPPED_VIEW* view);

/* ---- file extent map ---- */

/* Where one run of a file's clusters lies on its physical disk. */
typedef struct PLT_FILE_EXTENT {
    wchar_t PhysicalDisk[132]; /* "\\.\PHYSICALDRIVEn" */
    uint64_t DiskOffset;       /* bytes from the start of the disk, 48 bits */
    uint64_t Length;           /* bytes */
} PLT_FILE_EXTENT;

ZENDRA_LAYOUT(offsetof(PLT_FILE_EXTENT, DiskOffset) == 264);
ZENDRA_LAYOUT(offsetof(PLT_FILE_EXTENT, Length) == 272);
ZENDRA_LAYOUT(sizeof(PLT_FILE_EXTENT) == 280);

/* Every extent of the file at path, which begins with its drive letter and a
 * colon. On success *extents is a block of *count records that the caller
 * frees with PltFree(..., 0); on failure neither is written.
 * INVALID_PARAMETER for a null argument; NO_MEMORY; ERROR_MORE_DATA (234)
 * for a file of more than 4097 extents; otherwise the failing call's error
 * (the file, its volume, the volume's partition or cluster size). */
ZENDRA_API PLT_STATUS PltGetFileDiskOffsetInfo(const wchar_t* path, PLT_FILE_EXTENT** extents,
                                               uint32_t* count);

#ifdef __cplusplus
}
#endif

#endif /* ZENDRA_IO_H */
