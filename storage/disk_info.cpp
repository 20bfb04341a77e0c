// PltGetDiskInfo and PltGetDiskName: what a physical disk says about itself.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <zendra/storage.h>
#include <winioctl.h>

#include "platform/status.h"

using namespace zendra;

namespace {

constexpr DWORD kAnswerBytes = 4096;

// Aligned for the records read in place.
union Answer {
    uint8_t bytes[kAnswerBytes];
    STORAGE_DEVICE_DESCRIPTOR descriptor;
    DISK_GEOMETRY_EX geometry;
};

// The narrow text at a descriptor offset, converted into at most `limit`
// characters. The device's offsets are not trusted: only bytes it returned
// are read, and text running past them ends there.
void TextAt(const Answer& answer, DWORD returned, DWORD offset, wchar_t* field, size_t limit) {
    if (offset == 0 || offset >= returned) return;
    char text[kAnswerBytes + 1];
    size_t length =
        strnlen(reinterpret_cast<const char*>(answer.bytes + offset), returned - offset);
    memcpy(text, answer.bytes + offset, length);
    text[length] = '\0';
    if (mbstowcs(field, text, limit) == static_cast<size_t>(-1)) field[0] = L'\0';
}

// Blanks before and after the serial number are padding, not part of it.
void TrimBlanks(wchar_t* text) {
    size_t lead = 0, end = wcslen(text);
    while (text[lead] == L' ') ++lead;
    while (end > lead && text[end - 1] == L' ') --end;
    memmove(text, text + lead, (end - lead) * sizeof(wchar_t));
    text[end - lead] = L'\0';
}

PLT_DISK_INTERFACE InterfaceOf(STORAGE_BUS_TYPE bus) {
    switch (bus) {
        case BusTypeAta:
            return PLT_DISK_ATA;
        case BusTypeSas:
            return PLT_DISK_SAS;
        case BusTypeSata:
            return PLT_DISK_SATA;
        case BusTypeiScsi:
            return PLT_DISK_ISCSI;
        case BusTypeRAID:
            return PLT_DISK_RAID;
        case BusTypeFibre:
            return PLT_DISK_FIBRE;
        default:
            return PLT_DISK_UNSUPPORTED;
    }
}

PLT_STATUS Describe(HANDLE disk, Answer& answer, PLT_DISK_INFO* info) {
    STORAGE_PROPERTY_QUERY query = {};
    query.PropertyId = StorageDeviceProperty;
    query.QueryType = PropertyStandardQuery;
    DWORD returned = 0;
    if (!DeviceIoControl(disk, IOCTL_STORAGE_QUERY_PROPERTY, &query, 12, answer.bytes, kAnswerBytes,
                         &returned, nullptr))
        return GetLastError();
    if (returned > kAnswerBytes) returned = kAnswerBytes;
    const STORAGE_DEVICE_DESCRIPTOR& d = answer.descriptor;
    TextAt(answer, returned, d.VendorIdOffset, info->VendorId, 39);
    TextAt(answer, returned, d.ProductIdOffset, info->ProductId, 39);
    TextAt(answer, returned, d.SerialNumberOffset, info->SerialNumber, 19);
    TextAt(answer, returned, d.ProductRevisionOffset, info->ProductRevision, 7);
    TrimBlanks(info->SerialNumber);
    info->Interface = InterfaceOf(d.BusType);
    return kOk;
}

PLT_STATUS Measure(HANDLE disk, Answer& answer, PLT_DISK_INFO* info) {
    memset(&answer, 0, sizeof answer);
    DWORD returned = 0;
    if (!DeviceIoControl(disk, IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, nullptr, 0, answer.bytes,
                         kAnswerBytes, &returned, nullptr))
        return GetLastError();
    if (returned > kAnswerBytes) returned = kAnswerBytes;
    const DISK_GEOMETRY_EX& g = answer.geometry;
    info->DiskSize = static_cast<uint64_t>(g.DiskSize.QuadPart);
    // The detection block follows the partition block, whose size the device
    // states; a block that does not lie wholly inside the answer is not read.
    const DWORD partitionAt = offsetof(DISK_GEOMETRY_EX, Data);
    DWORD partitionSize = 0;
    if (returned >= partitionAt + sizeof partitionSize)
        memcpy(&partitionSize, answer.bytes + partitionAt, sizeof partitionSize);
    DISK_DETECTION_INFO detection = {};
    if (returned >= partitionAt && partitionSize <= returned - partitionAt &&
        sizeof detection <= returned - partitionAt - partitionSize)
        memcpy(&detection, answer.bytes + partitionAt + partitionSize, sizeof detection);
    if (detection.DetectionType == DetectExInt13) {
        info->TotalSectors = detection.ExInt13.ExSectorsPerDrive;
        info->BytesPerSector = detection.ExInt13.ExSectorSize;
    } else {
        info->TotalSectors = static_cast<uint64_t>(g.Geometry.Cylinders.QuadPart) *
                             g.Geometry.TracksPerCylinder * g.Geometry.SectorsPerTrack;
        info->BytesPerSector = g.Geometry.BytesPerSector;
    }
    return kOk;
}

}  // namespace

extern "C" PLT_STATUS PltGetDiskInfo(HANDLE disk, PLT_DISK_INFO* info) {
    if (disk == nullptr || info == nullptr) return kInvalidParameter;
    memset(info, 0, sizeof *info);
    static_assert(sizeof(Answer) == kAnswerBytes, "one answer buffer");
    Answer answer = {};
    PLT_STATUS status = Describe(disk, answer, info);
    return status != kOk ? status : Measure(disk, answer, info);
}

extern "C" PLT_STATUS PltGetDiskName(const wchar_t* diskNumberText, wchar_t* out,
                                     uint32_t outChars) {
    if (out == nullptr || outChars == 0) return kOk;
    _snwprintf(out, outChars, L"\\\\.\\PHYSICALDRIVE%ls",
               diskNumberText != nullptr ? diskNumberText : L"");
    out[outChars - 1] = L'\0';
    return kOk;
}
