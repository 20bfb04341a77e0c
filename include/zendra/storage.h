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

#define PLT_MACHINE_TEXT 129 /* characters of each text field, terminator included */

/* Filled by PltGetMachineInfo; not cleared first, so fields written before a
 * failing step stay. */
typedef struct PLT_MACHINE_INFO {
    wchar_t ComputerName[PLT_MACHINE_TEXT]; /* NetBIOS name */
    wchar_t OsName[PLT_MACHINE_TEXT];       /* "ProductName CurrentVersion CurrentBuild" */
    uint32_t MajorVersion;
    uint32_t MinorVersion;
    uint32_t BuildNumber;
    uint32_t ServicePackMajor;
    uint32_t ServicePackMinor;
    uint32_t SuiteMask;
    uint32_t ProductType;
    wchar_t Architecture[PLT_MACHINE_TEXT]; /* "x86", "ARM", "Itanium", "x64" or "Unknown" */
    wchar_t Processor[PLT_MACHINE_TEXT];    /* "ProcessorNameString Identifier" */
    uint32_t NumberOfProcessors;
    uint64_t TotalPhysicalMemory; /* bytes */
} PLT_MACHINE_INFO;

ZENDRA_LAYOUT(offsetof(PLT_MACHINE_INFO, OsName) == 258);
ZENDRA_LAYOUT(offsetof(PLT_MACHINE_INFO, MajorVersion) == 516);
ZENDRA_LAYOUT(offsetof(PLT_MACHINE_INFO, MinorVersion) == 520);
ZENDRA_LAYOUT(offsetof(PLT_MACHINE_INFO, BuildNumber) == 524);
ZENDRA_LAYOUT(offsetof(PLT_MACHINE_INFO, ServicePackMajor) == 528);
ZENDRA_LAYOUT(offsetof(PLT_MACHINE_INFO, ServicePackMinor) == 532);
ZENDRA_LAYOUT(offsetof(PLT_MACHINE_INFO, SuiteMask) == 536);
ZENDRA_LAYOUT(offsetof(PLT_MACHINE_INFO, ProductType) == 540);
ZENDRA_LAYOUT(offsetof(PLT_MACHINE_INFO, Architecture) == 544);
ZENDRA_LAYOUT(offsetof(PLT_MACHINE_INFO, Processor) == 802);
ZENDRA_LAYOUT(offsetof(PLT_MACHINE_INFO, NumberOfProcessors) == 1060);
ZENDRA_LAYOUT(offsetof(PLT_MACHINE_INFO, TotalPhysicalMemory) == 1064);
ZENDRA_LAYOUT(sizeof(PLT_MACHINE_INFO) == 1072);

typedef struct PLT_MEMORY_STATUS {
    uint64_t TotalPhysical;
    uint64_t AvailablePhysical;
    uint64_t TotalVirtual;
    uint64_t AvailableVirtual;
    uint64_t AvailableExtendedVirtual;
} PLT_MEMORY_STATUS;

ZENDRA_LAYOUT(sizeof(PLT_MEMORY_STATUS) == 40);

/* Battery flags of PltGetBatteryPowerStatus. */
#define PLT_POWER_ON_MAINS 1u
#define PLT_POWER_NO_BATTERY 2u /* no system battery, or its status unknown */
#define PLT_POWER_BATTERY_HIGH 4u
#define PLT_POWER_BATTERY_LOW 8u
#define PLT_POWER_BATTERY_CRITICAL 16u
#define PLT_POWER_CHARGING 32u

/* Memory, computer name, version, processors, then the registry reads, in that
 * order; the first failure is returned. INVALID_PARAMETER for a null info. */
ZENDRA_API PLT_STATUS PltGetMachineInfo(PLT_MACHINE_INFO* info);
/* GetComputerNameW into name (chars characters); the length is not returned. */
ZENDRA_API PLT_STATUS PltGetComputerName(wchar_t* name, uint32_t chars);
/* The fully qualified DNS name; *chars in and out as GetComputerNameExW defines.
 * INVALID_PARAMETER for a null chars. */
ZENDRA_API PLT_STATUS PltGetMachineFQDN(wchar_t* name, uint32_t* chars);
/* "LDAP://CN=computers,DC=..." from the labels after the first. With a null out,
 * *bytes receives the size asked for (140 + 2 per character of fqdn); NO_MEMORY
 * when *bytes is below it or the path would not fit. The dots after the first
 * are overwritten with zero characters in fqdn. INVALID_PARAMETER for a null
 * fqdn or bytes. */
ZENDRA_API PLT_STATUS PltFQDNtoLDAPQuery(wchar_t* fqdn, wchar_t* out, uint32_t* bytes);
/* INVALID_PARAMETER for a null status. */
ZENDRA_API PLT_STATUS PltGetGlobalMemoryStatus(PLT_MEMORY_STATUS* status);
/* *percent is preset to 14, which stays when the charge is unknown; with
 * PLT_POWER_NO_BATTERY set, *percentValid is 0. INVALID_PARAMETER for any
 * null pointer. */
ZENDRA_API PLT_STATUS PltGetBatteryPowerStatus(uint32_t* flags, uint8_t* percentValid,
                                               uint32_t* percent);
/* Random bytes from the system's cryptographic provider. */
ZENDRA_API PLT_STATUS PltGetRandom(uint8_t* buffer, uint32_t bytes);
/* 0 whenever ExpandEnvironmentStringsW returns non-zero, also when out was
 * too small and holds no complete result. */
ZENDRA_API PLT_STATUS PltExpandEnvironmentStrings(const wchar_t* text, wchar_t* out,
                                                  uint32_t chars);

#ifdef __cplusplus
}
#endif

#endif /* ZENDRA_STORAGE_H */
