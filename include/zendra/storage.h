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

/* One fixed volume, as PltGetVolumes lists it. */
typedef struct PLT_VOLUME_ENTRY {
    wchar_t PhysicalDisk[129]; /* "\\.\PHYSICALDRIVEn" under logical offset 1; n is -1 for none */
    wchar_t Label[128];        /* at most 127 characters */
    wchar_t DisplayName[128];  /* "label (file system) ", trailing blank included; empty
                                  without a label */
    wchar_t VolumeName[256];   /* the GUID path as enumerated, trailing backslash included */
    wchar_t FileSystem[16];    /* at most 15 characters */
    uint8_t Reserved[6];       /* 0 */
    uint64_t TotalBytes;       /* 0, like FreeBytes, when the size query failed */
    uint64_t FreeBytes;        /* free on the volume, not only what the caller may use */
} PLT_VOLUME_ENTRY;

ZENDRA_LAYOUT(offsetof(PLT_VOLUME_ENTRY, PhysicalDisk) == 0);
ZENDRA_LAYOUT(offsetof(PLT_VOLUME_ENTRY, Label) == 258);
ZENDRA_LAYOUT(offsetof(PLT_VOLUME_ENTRY, DisplayName) == 514);
ZENDRA_LAYOUT(offsetof(PLT_VOLUME_ENTRY, VolumeName) == 770);
ZENDRA_LAYOUT(offsetof(PLT_VOLUME_ENTRY, FileSystem) == 1282);
ZENDRA_LAYOUT(offsetof(PLT_VOLUME_ENTRY, Reserved) == 1314);
ZENDRA_LAYOUT(offsetof(PLT_VOLUME_ENTRY, TotalBytes) == 1320);
ZENDRA_LAYOUT(offsetof(PLT_VOLUME_ENTRY, FreeBytes) == 1328);
ZENDRA_LAYOUT(sizeof(PLT_VOLUME_ENTRY) == 1336);

/* The block PltGetVolumes allocates (PltMalloc, tag 0): Count entries are
 * filled; it has room for at least one more. Release it with PltFree and
 * tag 0. */
typedef struct PLT_VOLUME_LIST {
    uint32_t Count;
    uint32_t Reserved;
    PLT_VOLUME_ENTRY Entries[1];
} PLT_VOLUME_LIST;

ZENDRA_LAYOUT(offsetof(PLT_VOLUME_LIST, Entries) == 8);
ZENDRA_LAYOUT(sizeof(PLT_VOLUME_LIST) == 1344);

/* Filled by PltGetVolumeInfo; zeroed first. */
typedef struct PLT_VOLUME_SPACE {
    uint64_t TotalBytes;
    uint64_t FreeBytesAvailable; /* to the calling user */
    uint64_t UsedBytes;          /* TotalBytes - FreeBytesAvailable */
    wchar_t FileSystem[132];     /* at most 128 characters */
} PLT_VOLUME_SPACE;

ZENDRA_LAYOUT(offsetof(PLT_VOLUME_SPACE, FreeBytesAvailable) == 8);
ZENDRA_LAYOUT(offsetof(PLT_VOLUME_SPACE, UsedBytes) == 16);
ZENDRA_LAYOUT(offsetof(PLT_VOLUME_SPACE, FileSystem) == 24);
ZENDRA_LAYOUT(sizeof(PLT_VOLUME_SPACE) == 288);

/* Lists the fixed volumes that map to a disk into a block it allocates.
 * With diskNumberText, only those on "\\.\PHYSICALDRIVE<diskNumberText>"
 * (exact, case-sensitive) are kept; the block is sized for all of them.
 * A machine without enumerable volumes gives Count 0. INVALID_PARAMETER for
 * a null list; NO_MEMORY; the volume search's error (*list stays null). */
ZENDRA_API PLT_STATUS PltGetVolumes(const wchar_t* diskNumberText, PLT_VOLUME_LIST** list);
/* The volume GUID path of a drive letter, mount path or GUID path, without
 * its trailing backslash. INVALID_PARAMETER for a null or empty name or a
 * null out; NO_MEMORY when outChars is below 48 (or for the working copy);
 * the look-up's error. */
ZENDRA_API PLT_STATUS PltNormalizeVolumeName(const wchar_t* name, wchar_t* out, uint32_t outChars);
/* Free bytes available to the caller on the volume of root; *freeBytes is 0
 * first. INVALID_PARAMETER for a null argument; GetDiskFreeSpaceExW's error. */
ZENDRA_API PLT_STATUS PltGetVolumeFreeSpace(const wchar_t* root, uint64_t* freeBytes);
/* Size, space available to the caller and file system of the volume of root
 * (a backslash is appended when missing). INVALID_PARAMETER for a null
 * argument or a root that does not fit 259 characters with its backslash;
 * the error of GetDiskFreeSpaceExW or GetVolumeInformationW. */
ZENDRA_API PLT_STATUS PltGetVolumeInfo(const wchar_t* root, PLT_VOLUME_SPACE* info);
/* Bytes per cluster and per sector of the volume of path; a path whose second
 * character is ':' (or of one character) is queried as its drive root.
 * Either output may be null. INVALID_PARAMETER for a null path;
 * GetDiskFreeSpaceW's error. */
ZENDRA_API PLT_STATUS PltGetDiskAllocationUnitInfo(const wchar_t* path, uint32_t* clusterBytes,
                                                   uint32_t* sectorBytes);
/* The disk under a byte offset of a volume: 0xFFFFFFFF when it maps to none
 * (set before the query). INVALID_PARAMETER for a null or empty volume or a
 * null diskNumber; NO_MEMORY; the error of the look-up, open or control call. */
ZENDRA_API PLT_STATUS PltGetPhysicalDiskNumber(const wchar_t* volume, int64_t logicalOffset,
                                               uint32_t* diskNumber);
/* The same as "\\.\PHYSICALDRIVEn" in out (outChars, terminated), written
 * only on success. INVALID_PARAMETER for a null or empty volume, a null out
 * or outChars 0; NO_MEMORY; the error of the look-up, open or control call. */
ZENDRA_API PLT_STATUS PltGetPhysicalDisk(const wchar_t* volume, int64_t logicalOffset, wchar_t* out,
                                         uint32_t outChars);

/* ---- disks and partitions ---- */

/* Kind of a PLT_STORAGE_ENTRY. */
#define PLT_STORAGE_DISK 0
#define PLT_STORAGE_VOLUME 1

/* One physical disk or fixed volume, as PltEnumerateStorage lists it. */
typedef struct PLT_STORAGE_ENTRY {
    wchar_t Name[129];        /* "\\.\PHYSICALDRIVEn", or the GUID path without its
                                 trailing backslash */
    wchar_t DisplayName[129]; /* volumes: the mount paths, each terminated, ended by an
                                 empty one; disks: empty */
    uint32_t DiskNumber;      /* disks: n; volumes: 0 */
    uint8_t Kind;             /* PLT_STORAGE_DISK or PLT_STORAGE_VOLUME */
    uint8_t Reserved[3];
} PLT_STORAGE_ENTRY;

ZENDRA_LAYOUT(offsetof(PLT_STORAGE_ENTRY, DisplayName) == 258);
ZENDRA_LAYOUT(offsetof(PLT_STORAGE_ENTRY, DiskNumber) == 516);
ZENDRA_LAYOUT(offsetof(PLT_STORAGE_ENTRY, Kind) == 520);
ZENDRA_LAYOUT(offsetof(PLT_STORAGE_ENTRY, Reserved) == 521);
ZENDRA_LAYOUT(sizeof(PLT_STORAGE_ENTRY) == 524);

/* PLT_DISK_INTERFACE: the disk's bus, from its storage descriptor. */
typedef uint32_t PLT_DISK_INTERFACE;
#define PLT_DISK_UNSUPPORTED 0u
#define PLT_DISK_ATA 1u
#define PLT_DISK_SAS 2u
#define PLT_DISK_SATA 3u
#define PLT_DISK_ISCSI 4u
#define PLT_DISK_RAID 5u
#define PLT_DISK_FIBRE 6u

typedef struct PLT_DISK_INFO {
    PLT_DISK_INTERFACE Interface;
    wchar_t VendorId[41];        /* at most 39 characters */
    wchar_t ProductId[41];       /* at most 39 characters */
    wchar_t SerialNumber[21];    /* at most 19 characters, blanks around it removed */
    wchar_t ProductRevision[55]; /* at most 7 characters */
    uint64_t DiskSize;           /* bytes */
    uint64_t TotalSectors;
    uint32_t BytesPerSector;
    uint32_t Reserved; /* 0 */
} PLT_DISK_INFO;

ZENDRA_LAYOUT(offsetof(PLT_DISK_INFO, VendorId) == 4);
ZENDRA_LAYOUT(offsetof(PLT_DISK_INFO, ProductId) == 86);
ZENDRA_LAYOUT(offsetof(PLT_DISK_INFO, SerialNumber) == 168);
ZENDRA_LAYOUT(offsetof(PLT_DISK_INFO, ProductRevision) == 210);
ZENDRA_LAYOUT(offsetof(PLT_DISK_INFO, DiskSize) == 320);
ZENDRA_LAYOUT(offsetof(PLT_DISK_INFO, TotalSectors) == 328);
ZENDRA_LAYOUT(offsetof(PLT_DISK_INFO, BytesPerSector) == 336);
ZENDRA_LAYOUT(offsetof(PLT_DISK_INFO, Reserved) == 340);
ZENDRA_LAYOUT(sizeof(PLT_DISK_INFO) == 344);

/* Style of a PLT_PARTITION_ENTRY. */
#define PLT_PARTITION_NEITHER 0u
#define PLT_PARTITION_MBR 1u
#define PLT_PARTITION_GPT 2u

/* One used partition. Written field by field: the reserved parts are not
 * touched, so callers zero the array first. */
typedef struct PLT_PARTITION_ENTRY {
    uint32_t Style; /* PLT_PARTITION_MBR, PLT_PARTITION_GPT or PLT_PARTITION_NEITHER */
    uint32_t Reserved1;
    int64_t PartitionLength; /* bytes; the length comes before the offset */
    int64_t StartingOffset;  /* bytes from the start of the disk */
    uint32_t PartitionNumber;
    uint8_t RewritePartition;
    uint8_t Reserved2[3];
    union {
        uint32_t Mbr; /* the partition-type byte */
        GUID Gpt;     /* the partition-type GUID */
    } PartitionType;
    uint8_t Reserved3[264];
} PLT_PARTITION_ENTRY;

ZENDRA_LAYOUT(offsetof(PLT_PARTITION_ENTRY, Reserved1) == 4);
ZENDRA_LAYOUT(offsetof(PLT_PARTITION_ENTRY, PartitionLength) == 8);
ZENDRA_LAYOUT(offsetof(PLT_PARTITION_ENTRY, StartingOffset) == 16);
ZENDRA_LAYOUT(offsetof(PLT_PARTITION_ENTRY, PartitionNumber) == 24);
ZENDRA_LAYOUT(offsetof(PLT_PARTITION_ENTRY, RewritePartition) == 28);
ZENDRA_LAYOUT(offsetof(PLT_PARTITION_ENTRY, Reserved2) == 29);
ZENDRA_LAYOUT(offsetof(PLT_PARTITION_ENTRY, PartitionType) == 32);
ZENDRA_LAYOUT(offsetof(PLT_PARTITION_ENTRY, Reserved3) == 48);
ZENDRA_LAYOUT(sizeof(PLT_PARTITION_ENTRY) == 312);

/* Lists physical disks (volumes 0: "\\.\PHYSICALDRIVE0" to 127, those that
 * open and are fixed) or fixed volumes (volumes non-zero). *count 0 with null
 * entries asks for the number; *count n with n entries fills and leaves *count
 * as given. When the entries run out, disk mode stops quietly with 0, volume
 * mode returns NO_MEMORY. INVALID_PARAMETER for a null count, or entries that
 * do not go with *count; the volume search's error. */
ZENDRA_API PLT_STATUS PltEnumerateStorage(PLT_STORAGE_ENTRY* entries, uint32_t* count,
                                          uint8_t volumes);
/* Bus, identification strings, size and geometry of an open physical disk;
 * the record is zeroed first, and strings already filled stay when the
 * geometry query fails. INVALID_PARAMETER for a null handle or info; the
 * error of either control call. */
ZENDRA_API PLT_STATUS PltGetDiskInfo(HANDLE disk, PLT_DISK_INFO* info);
/* Used partitions in layout order: MBR slots of type 0 are left out. With
 * null entries, *count receives the number; otherwise *count must hold it and
 * stays as given. INVALID_PARAMETER for a null count or a null or invalid
 * handle; NO_MEMORY when *count is too small or the layout buffer cannot be
 * had; the layout query's error. */
ZENDRA_API PLT_STATUS PltGetPartitionInfoByHandle(HANDLE disk, uint32_t* count,
                                                  PLT_PARTITION_ENTRY* entries);
/* The same for a disk named by device path (any text with a backslash; at
 * most 64 characters are used) or by number ("1" is "\\.\PHYSICALDRIVE1").
 * INVALID_PARAMETER for a null disk or count; the open's error; as above. */
ZENDRA_API PLT_STATUS PltGetPartitionInfoByName(const wchar_t* disk, uint32_t* count,
                                                PLT_PARTITION_ENTRY* entries);
/* "\\.\PHYSICALDRIVE<diskNumberText>" into out (outChars, terminated; a null
 * out writes nothing, a null text counts as empty). Always 0. */
ZENDRA_API PLT_STATUS PltGetDiskName(const wchar_t* diskNumberText, wchar_t* out,
                                     uint32_t outChars);

/* ---- machine identity ---- */

#define PLT_UNIQUE_ID_TAG PLT_TAG('Q', 'Z', 'P', 'I')

/* The Plug and Play device instance identifier of a disk, given by number
 * ("0") or device path ("\\.\PHYSICALDRIVE0", any case), found through the
 * Setup API. With *id null the result is allocated (free it with PltFree and
 * PLT_UNIQUE_ID_TAG); otherwise it is copied into *id, which must hold up to
 * 4000 characters. The search stops at the first error: INVALID_PARAMETER
 * (null disk or id, a number of -1); NO_MEMORY; NOT_FOUND; the error of the
 * Setup API (ERROR_NO_MORE_ITEMS when no disk matched), of opening a disk or
 * of its control call. */
ZENDRA_API PLT_STATUS PltGetUniqueID(const wchar_t* disk, wchar_t** id);
/* 20 bytes as 40 upper-case hexadecimal characters, no terminator written.
 * INVALID_PARAMETER for a null pointer; the conversion's error. */
ZENDRA_API PLT_STATUS PltGetEnCodedUniqueId(const uint8_t* value, wchar_t* out);
/* A fixed placeholder text of at most 16 bytes for selectors 0 to 4 ("DUMMY_MODEL",
 * "DUMMY_VENDOR", "DUMMY_FWRev", "DUMMY_SERIALNUM", "DUMMY_PRODUCT"); other
 * selectors and a null out write nothing. Always 0. */
ZENDRA_API PLT_STATUS PltGetDevInfoStr(uint64_t device, char* out, int32_t selector);

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
