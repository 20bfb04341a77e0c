// What the library sees of the machine: its record, fixed volumes, disks and
// their partitions, as an aligned table or as JSON. The first thing to run
// on a machine whose storage behaves unexpectedly.
#pragma once

#include <string>

#include <zendra/io.h>
#include <zendra/storage.h>

namespace zendra::inventory {

// The exports the inventory calls: resolved by name from a loaded DLL, or
// taken from the import library by a program linked against it.
struct Api {
    decltype(&PltGetMachineInfo) getMachineInfo;
    decltype(&PltGetVolumes) getVolumes;
    decltype(&PltFree) free;
    decltype(&PltEnumerateStorage) enumerateStorage;
    decltype(&PltOpenDriver) openDriver;
    decltype(&PltGetDiskInfo) getDiskInfo;
    decltype(&PltGetPartitionInfoByHandle) getPartitions;
    decltype(&PltCloseFile) closeFile;
};

// Every entry of Api from a loaded ZendraPlatform.dll; false when one is
// missing.
bool Resolve(HMODULE dll, Api* api);

// The inventory as text (UTF-8). A query that fails is shown with its
// status where its answer would be.
std::string Describe(const Api& api, bool json);

}  // namespace zendra::inventory
