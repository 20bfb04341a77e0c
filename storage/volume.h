// Opening a volume by drive letter, mount path or volume GUID path, the disk
// that holds one of its byte offsets, and the volume walks the self-checks
// use.
#pragma once

#include <zendra/storage.h>

namespace zendra {

// The volume's GUID path (with its trailing backslash) for a drive letter,
// mount path or GUID path, written into guidPath (chars characters). A name
// of fewer than 4 characters is a drive letter; a longer one gets a
// backslash appended in a working copy (PltMalloc, tag 0, with copyFlags).
// INVALID_PARAMETER for a null or empty name; the copy's allocation status;
// the look-up's error.
PLT_STATUS VolumeGuidPath(const wchar_t* name, wchar_t* guidPath, DWORD chars, uint32_t copyFlags);

// The volume's GUID path (without its trailing backslash) opened for reading
// and writing. The handle is not counted; the caller closes it with
// CloseHandle. The statuses of VolumeGuidPath, or the open's error.
PLT_STATUS OpenVolume(const wchar_t* name, HANDLE* volume);

// The disk number of a logical offset of an open volume, 0xFFFFFFFF when the
// offset maps to no disk; the control call's error.
PLT_STATUS DiskOfOffset(HANDLE volume, int64_t logicalOffset, uint32_t* disk);

// "\\.\PHYSICALDRIVEn" of a disk number (n is -1 for 0xFFFFFFFF) into
// `chars` characters, always terminated.
void FormatDiskName(wchar_t* out, size_t chars, uint32_t disk);

// Fixed volumes whose disk can be asked (a volume on no disk is listed with
// "\\.\PHYSICALDRIVE-1"), into up to `capacity` records (records
// may be null). With a filter, only volumes whose disk name equals it
// exactly. *found receives every matching volume, also those beyond the
// capacity. 0 (and *found 0) when the machine lists no volume; otherwise the
// search's error unless it ended with ERROR_NO_MORE_FILES.
PLT_STATUS ListFixedVolumes(const wchar_t* filter, PLT_VOLUME_ENTRY* records, uint32_t capacity,
                            uint32_t* found);

// ---- walks for the self-checks ----

// One extent of a volume on a disk.
struct PLT_VOLUME_EXTENT {
    uint32_t DiskNumber;
    int64_t StartingOffset;
    int64_t ExtentLength;
};

// Every volume the system lists, of any type: *count is 0xFFFFFFFF until the
// walk ends with ERROR_NO_MORE_FILES; another error is returned.
PLT_STATUS CountVolumes(uint32_t* count);

// The first listed GUID path into name when it is shorter than *chars;
// otherwise (or with a null name) *chars receives the length it needs with
// its terminator, and NO_MEMORY unless name was null. The search's error.
PLT_STATUS FirstVolumeName(wchar_t* name, uint32_t* chars);

// The disk extents of a volume ("S:" or a GUID path; a trailing backslash is
// dropped), opened as "\\.\<volume>" (counted). With *count 0 only the
// number of extents is asked into *count; otherwise up to *count extents are
// read, each stored into *extent in turn (the last one stays) and their
// lengths added to *totalBytes. INVALID_PARAMETER for a null argument or a
// name that does not fit; NO_MEMORY; the open's or control call's error.
PLT_STATUS VolumeDiskExtents(const wchar_t* volume, uint32_t* count, PLT_VOLUME_EXTENT* extent,
                             uint64_t* totalBytes);

}  // namespace zendra
