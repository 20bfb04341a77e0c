// The inventory: collected once through the exports, then written as a
// table or as JSON.
#include "inventory.h"

#include <stdarg.h>
#include <stdio.h>

#include <vector>

namespace zendra::inventory {

namespace {

struct Disk {
    PLT_STORAGE_ENTRY entry;
    PLT_STATUS infoStatus = 0, partitionStatus = 0;
    PLT_DISK_INFO info{};
    std::vector<PLT_PARTITION_ENTRY> partitions;
};

struct Machine {
    PLT_STATUS machineStatus = 0, volumeStatus = 0, diskStatus = 0;
    PLT_MACHINE_INFO machine{};
    std::vector<PLT_VOLUME_ENTRY> volumes;
    std::vector<Disk> disks;
};

void DescribeDisk(const Api& api, Disk* d) {
    HANDLE handle = INVALID_HANDLE_VALUE;
    // The entry's name without its "\\.\" prefix, as the driver open wants it.
    d->infoStatus = api.openDriver(&handle, d->entry.Name + 4);
    if (d->infoStatus != 0) {
        d->partitionStatus = d->infoStatus;
        return;
    }
    d->infoStatus = api.getDiskInfo(handle, &d->info);
    uint32_t n = 0;
    d->partitionStatus = api.getPartitions(handle, &n, nullptr);
    if (d->partitionStatus == 0 && n > 0) {
        d->partitions.assign(n, PLT_PARTITION_ENTRY{});  // entries are written field by field
        d->partitionStatus = api.getPartitions(handle, &n, d->partitions.data());
        if (d->partitionStatus != 0) d->partitions.clear();
    }
    api.closeFile(handle);
}

Machine Collect(const Api& api) {
    Machine m;
    m.machineStatus = api.getMachineInfo(&m.machine);
    PLT_VOLUME_LIST* list = nullptr;
    m.volumeStatus = api.getVolumes(nullptr, &list);
    if (m.volumeStatus == 0) {
        m.volumes.assign(list->Entries, list->Entries + list->Count);
        api.free(reinterpret_cast<void**>(&list), 0);
    }
    uint32_t count = 0;
    m.diskStatus = api.enumerateStorage(nullptr, &count, 0);
    if (m.diskStatus == 0 && count > 0) {
        std::vector<PLT_STORAGE_ENTRY> entries(count);
        m.diskStatus = api.enumerateStorage(entries.data(), &count, 0);
        for (uint32_t i = 0; m.diskStatus == 0 && i < count; ++i) {
            Disk d;
            d.entry = entries[i];
            DescribeDisk(api, &d);
            m.disks.push_back(d);
        }
    }
    return m;
}

std::string Utf8(const wchar_t* text) {
    int bytes = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (bytes <= 1) return "";
    std::string out(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, out.data(), bytes, nullptr, nullptr);
    out.pop_back();
    return out;
}

std::string Format(const char* format, ...) {
    va_list args, again;
    va_start(args, format);
    va_copy(again, args);
    int length = vsnprintf(nullptr, 0, format, args);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0) vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    va_end(args);
    return text;
}

const char* InterfaceName(PLT_DISK_INTERFACE kind) {
    static const char* const names[] = {"unsupported", "ATA",  "SAS",  "SATA",
                                        "iSCSI",       "RAID", "Fibre"};
    return kind < sizeof names / sizeof names[0] ? names[kind] : names[0];
}

std::string PartitionType(const PLT_PARTITION_ENTRY& p) {
    if (p.Style == PLT_PARTITION_MBR) return Format("0x%02X", p.PartitionType.Mbr);
    if (p.Style != PLT_PARTITION_GPT) return "-";
    const GUID& g = p.PartitionType.Gpt;
    return Format("%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", g.Data1, g.Data2, g.Data3,
                  g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5],
                  g.Data4[6], g.Data4[7]);
}

const char* StyleName(uint32_t style) {
    return style == PLT_PARTITION_MBR ? "MBR" : style == PLT_PARTITION_GPT ? "GPT" : "neither";
}

// ---- table ----

std::string Table(const Machine& m) {
    std::string out = "Machine\n";
    const PLT_MACHINE_INFO& i = m.machine;
    if (m.machineStatus != 0) out += Format("  (PltGetMachineInfo failed: %u)\n", m.machineStatus);
    out += "  name        " + Utf8(i.ComputerName) + "\n";
    out += "  OS          " + Utf8(i.OsName) +
           Format(" (%u.%u.%u, service pack %u.%u, suite 0x%X, product type %u)\n", i.MajorVersion,
                  i.MinorVersion, i.BuildNumber, i.ServicePackMajor, i.ServicePackMinor,
                  i.SuiteMask, i.ProductType);
    out += "  processors  " + Format("%u x ", i.NumberOfProcessors) + Utf8(i.Architecture) + ", " +
           Utf8(i.Processor) + "\n";
    out += Format("  memory      %llu bytes\n", static_cast<unsigned long long>(i.TotalPhysicalMemory));

    out += Format("\nFixed volumes: %zu", m.volumes.size());
    out += m.volumeStatus != 0 ? Format(" (PltGetVolumes failed: %u)\n", m.volumeStatus) : "\n";
    if (!m.volumes.empty())
        out += Format("  %-50s %-20s %-16s %-8s %16s %16s\n", "volume", "disk", "label",
                      "fs", "total bytes", "free bytes");
    for (const PLT_VOLUME_ENTRY& v : m.volumes)
        out += Format("  %-50s %-20s %-16s %-8s %16llu %16llu\n", Utf8(v.VolumeName).c_str(),
                      Utf8(v.PhysicalDisk).c_str(), Utf8(v.Label).c_str(),
                      Utf8(v.FileSystem).c_str(), static_cast<unsigned long long>(v.TotalBytes),
                      static_cast<unsigned long long>(v.FreeBytes));

    out += Format("\nPhysical disks: %zu", m.disks.size());
    out += m.diskStatus != 0 ? Format(" (PltEnumerateStorage failed: %u)\n", m.diskStatus) : "\n";
    for (const Disk& d : m.disks) {
        out += "  " + Utf8(d.entry.Name) + "\n";
        if (d.infoStatus != 0) {
            out += Format("    (disk information failed: %u)\n", d.infoStatus);
        } else {
            const PLT_DISK_INFO& k = d.info;
            out += Format("    interface %-11s vendor %-10s product %-20s serial %-20s revision %s\n",
                          InterfaceName(k.Interface), Utf8(k.VendorId).c_str(),
                          Utf8(k.ProductId).c_str(), Utf8(k.SerialNumber).c_str(),
                          Utf8(k.ProductRevision).c_str());
            out += Format("    size %llu bytes, %llu sectors of %u bytes\n",
                          static_cast<unsigned long long>(k.DiskSize),
                          static_cast<unsigned long long>(k.TotalSectors), k.BytesPerSector);
        }
        if (d.partitionStatus != 0) {
            out += Format("    (partitions failed: %u)\n", d.partitionStatus);
            continue;
        }
        out += Format("    %3s %-7s %16s %16s %-36s %s\n", "#", "style", "offset", "length",
                      "type", "rewrite");
        for (const PLT_PARTITION_ENTRY& p : d.partitions)
            out += Format("    %3u %-7s %16lld %16lld %-36s %s\n", p.PartitionNumber,
                          StyleName(p.Style), static_cast<long long>(p.StartingOffset),
                          static_cast<long long>(p.PartitionLength), PartitionType(p).c_str(),
                          p.RewritePartition ? "yes" : "no");
    }
    return out;
}

// ---- JSON ----

std::string Quote(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') out += '\\', out += static_cast<char>(c);
        else if (c < 0x20) out += Format("\\u%04x", c);
        else out += static_cast<char>(c);
    }
    return out + "\"";
}
std::string Quote(const wchar_t* text) { return Quote(Utf8(text)); }

std::string Json(const Machine& m) {
    const PLT_MACHINE_INFO& i = m.machine;
    std::string out = "{\n  \"machine\": {";
    out += Format("\"status\": %u, \"name\": ", m.machineStatus) + Quote(i.ComputerName) +
           ", \"os\": " + Quote(i.OsName) +
           Format(", \"version\": \"%u.%u.%u\", \"servicePack\": \"%u.%u\", \"suiteMask\": %u, "
                  "\"productType\": %u, ",
                  i.MajorVersion, i.MinorVersion, i.BuildNumber, i.ServicePackMajor,
                  i.ServicePackMinor, i.SuiteMask, i.ProductType) +
           "\"architecture\": " + Quote(i.Architecture) + ", \"processor\": " +
           Quote(i.Processor) +
           Format(", \"processors\": %u, \"memoryBytes\": %llu},\n", i.NumberOfProcessors,
                  static_cast<unsigned long long>(i.TotalPhysicalMemory));

    out += Format("  \"volumesStatus\": %u,\n  \"volumes\": [", m.volumeStatus);
    for (size_t n = 0; n < m.volumes.size(); ++n) {
        const PLT_VOLUME_ENTRY& v = m.volumes[n];
        out += std::string(n ? "," : "") + "\n    {\"volume\": " + Quote(v.VolumeName) +
               ", \"disk\": " + Quote(v.PhysicalDisk) + ", \"label\": " + Quote(v.Label) +
               ", \"fileSystem\": " + Quote(v.FileSystem) +
               Format(", \"totalBytes\": %llu, \"freeBytes\": %llu}",
                      static_cast<unsigned long long>(v.TotalBytes),
                      static_cast<unsigned long long>(v.FreeBytes));
    }
    out += Format("%s],\n  \"disksStatus\": %u,\n  \"disks\": [", m.volumes.empty() ? "" : "\n  ",
                  m.diskStatus);
    for (size_t n = 0; n < m.disks.size(); ++n) {
        const Disk& d = m.disks[n];
        const PLT_DISK_INFO& k = d.info;
        out += std::string(n ? "," : "") + "\n    {\"name\": " + Quote(d.entry.Name) +
               Format(", \"number\": %u, \"infoStatus\": %u, \"interface\": \"%s\", ",
                      d.entry.DiskNumber, d.infoStatus, InterfaceName(k.Interface)) +
               "\"vendor\": " + Quote(k.VendorId) + ", \"product\": " + Quote(k.ProductId) +
               ", \"serial\": " + Quote(k.SerialNumber) + ", \"revision\": " +
               Quote(k.ProductRevision) +
               Format(", \"sizeBytes\": %llu, \"sectors\": %llu, \"bytesPerSector\": %u, "
                      "\"partitionsStatus\": %u, \"partitions\": [",
                      static_cast<unsigned long long>(k.DiskSize),
                      static_cast<unsigned long long>(k.TotalSectors), k.BytesPerSector,
                      d.partitionStatus);
        for (size_t p = 0; p < d.partitions.size(); ++p) {
            const PLT_PARTITION_ENTRY& e = d.partitions[p];
            out += Format("%s\n      {\"number\": %u, \"style\": \"%s\", \"offset\": %lld, "
                          "\"length\": %lld, \"type\": \"%s\", \"rewrite\": %s}",
                          p ? "," : "", e.PartitionNumber, StyleName(e.Style),
                          static_cast<long long>(e.StartingOffset),
                          static_cast<long long>(e.PartitionLength), PartitionType(e).c_str(),
                          e.RewritePartition ? "true" : "false");
        }
        out += d.partitions.empty() ? "]}" : "\n    ]}";
    }
    return out + (m.disks.empty() ? "]\n}\n" : "\n  ]\n}\n");
}

template <typename F>
bool Bind(HMODULE dll, const char* name, F* out) {
    *out = reinterpret_cast<F>(reinterpret_cast<void*>(GetProcAddress(dll, name)));
    return *out != nullptr;
}

}  // namespace

bool Resolve(HMODULE dll, Api* api) {
    return Bind(dll, "PltGetMachineInfo", &api->getMachineInfo) &&
           Bind(dll, "PltGetVolumes", &api->getVolumes) && Bind(dll, "PltFree", &api->free) &&
           Bind(dll, "PltEnumerateStorage", &api->enumerateStorage) &&
           Bind(dll, "PltOpenDriver", &api->openDriver) &&
           Bind(dll, "PltGetDiskInfo", &api->getDiskInfo) &&
           Bind(dll, "PltGetPartitionInfoByHandle", &api->getPartitions) &&
           Bind(dll, "PltCloseFile", &api->closeFile);
}

std::string Describe(const Api& api, bool json) {
    Machine m = Collect(api);
    return json ? Json(m) : Table(m);
}

}  // namespace zendra::inventory
