/* ZendraPlatform storage and machine: volumes, disks and partitions, device
 * access, machine identity and machine information.
 * C-compatible. */
#ifndef ZENDRA_STORAGE_H
#define ZENDRA_STORAGE_H

#include <zendra/platform.h>
#include <zendra/io.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- device access ---- */

/* The request record of the deferred device operations. The caller allocates
 * it with PltMalloc under PLT_DEVICE_REQUEST_TAG, zero-filled, and hands over
 * its address (which is that of Overlapped); once an operation returns 0 the
 * request belongs to the completion, which calls
 * Completion(Arg0, Buffer, Result, Context, Extra) on a worker of the default
 * pool and then frees the request (and, for a trim, Buffer) with the tag. */
typedef struct PLT_DEVICE_COMPLETION {
    OVERLAPPED Overlapped; /* hEvent, when set, is waited on before completion */
    uint64_t Arg0;         /* first argument: the file layer's handle */
    void* Buffer;          /* second argument; a trim's input record */
    uint32_t Result;       /* bytes transferred, stored before the call */
    uint32_t Reserved1;
    uint64_t Context; /* fourth argument */
    uint32_t Extra;   /* fifth argument: the status */
    uint32_t Reserved2;
    PLT_IO_COMPLETION Completion;
} PLT_DEVICE_COMPLETION;

#define PLT_DEVICE_REQUEST_TAG PLT_TAG('Q', 'Z', 'F', 'L')

ZENDRA_LAYOUT(sizeof(OVERLAPPED) == 32);
ZENDRA_LAYOUT(offsetof(PLT_DEVICE_COMPLETION, Overlapped) == 0);
ZENDRA_LAYOUT(offsetof(PLT_DEVICE_COMPLETION, Arg0) == 32);
ZENDRA_LAYOUT(offsetof(PLT_DEVICE_COMPLETION, Buffer) == 40);
ZENDRA_LAYOUT(offsetof(PLT_DEVICE_COMPLETION, Result) == 48);
ZENDRA_LAYOUT(offsetof(PLT_DEVICE_COMPLETION, Reserved1) == 52);
ZENDRA_LAYOUT(offsetof(PLT_DEVICE_COMPLETION, Context) == 56);
ZENDRA_LAYOUT(offsetof(PLT_DEVICE_COMPLETION, Extra) == 64);
ZENDRA_LAYOUT(offsetof(PLT_DEVICE_COMPLETION, Reserved2) == 68);
ZENDRA_LAYOUT(offsetof(PLT_DEVICE_COMPLETION, Completion) == 72);
ZENDRA_LAYOUT(sizeof(PLT_DEVICE_COMPLETION) == 80);

/* Opens "\\.\" followed by name for reading (shared read and write); the
 * handle counts as a file and is closed with PltCloseFile.
 * INVALID_PARAMETER for a null argument or a name of more than 123
 * characters; CreateFileW's error. */
ZENDRA_API PLT_STATUS PltOpenDriver(HANDLE* device, const wchar_t* name);
/* One synchronous DeviceIoControl; returned is optional. Its error. */
ZENDRA_API PLT_STATUS PltIssueDeviceIOCTL(HANDLE device, uint32_t code, void* in, uint32_t inBytes,
                                          void* out, uint32_t outBytes, uint32_t* returned);
/* Sends a trim (IOCTL_STORAGE_MANAGE_DATA_SET_ATTRIBUTES) with the request's
 * overlapped block. A device that completes it at once gets its completion
 * queued; any failure, ERROR_IO_PENDING (997) included, is returned and the
 * request stays the caller's. INVALID_PARAMETER for a null request or
 * without a default pool; POOL_STOPPING; NO_MEMORY for the work item. */
ZENDRA_API PLT_STATUS PltIssueAsyncTrim(HANDLE device, uint32_t inBytes, void* dsmInput,
                                        PLT_DEVICE_COMPLETION* request);
/* Seeks (unless offset is PLT_CURRENT_POSITION) and transfers synchronously
 * on the calling thread, then queues the completion; Buffer stays the
 * caller's. The seek's or transfer's error queues nothing.
 * INVALID_PARAMETER (a null request, or no default pool) and POOL_STOPPING
 * and NO_MEMORY come after the transfer was done; the request then stays the
 * caller's. */
ZENDRA_API PLT_STATUS PltIssueAsyncRead(HANDLE device, uint32_t bytes, void* buffer,
                                        uint64_t offset, PLT_DEVICE_COMPLETION* request);
ZENDRA_API PLT_STATUS PltIssueAsyncWrite(HANDLE device, uint32_t bytes, void* buffer,
                                         uint64_t offset, PLT_DEVICE_COMPLETION* request);

/* ---- volumes ---- */

/* Where a volume lies: its disk and its partition. */
typedef struct PLT_VOLINFO {
    wchar_t PhysicalDisk[132]; /* "\\.\PHYSICALDRIVEn"; n is -1 for no disk */
    int64_t StartingOffset;    /* of the partition on the disk, in bytes */
    int64_t PartitionLength;   /* bytes */
    uint64_t Reserved;         /* 0 */
} PLT_VOLINFO;

ZENDRA_LAYOUT(offsetof(PLT_VOLINFO, StartingOffset) == 264);
ZENDRA_LAYOUT(offsetof(PLT_VOLINFO, PartitionLength) == 272);
ZENDRA_LAYOUT(offsetof(PLT_VOLINFO, Reserved) == 280);
ZENDRA_LAYOUT(sizeof(PLT_VOLINFO) == 288);

/* The partition and disk of a volume named by drive letter (C, C: or C:\),
 * mount path or volume GUID path. The record is not cleared first.
 * INVALID_PARAMETER for a null or empty volume or a null info; NO_MEMORY;
 * otherwise the failing call's error (name look-up, open, partition query,
 * disk query). */
ZENDRA_API PLT_STATUS PltGetVolInfo(const wchar_t* volume, PLT_VOLINFO* info);

/* ---- disks and partitions ---- */

/* ---- machine identity ---- */

/* ---- machine and OS information ---- */

#ifdef __cplusplus
}
#endif

#endif /* ZENDRA_STORAGE_H */
