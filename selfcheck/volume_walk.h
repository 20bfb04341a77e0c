// The disks and volumes the system and volume checks walk, held for the
// length of one check and released with it.
#pragma once

#include <zendra/storage.h>

namespace zendra::selfcheck {

// PltEnumerateStorage's count call, then its filling call into a block of
// that many entries (volumes: 0 disks, 1 fixed volumes).
struct StorageList {
    explicit StorageList(uint8_t volumes) {
        status = PltEnumerateStorage(nullptr, &count, volumes);
        if (status != 0 || count == 0) return;
        void* block = nullptr;
        status = PltMalloc(&block, count * sizeof(PLT_STORAGE_ENTRY), PLT_ALLOC_ZERO, 0);
        entries = static_cast<PLT_STORAGE_ENTRY*>(block);
        if (status == 0) status = PltEnumerateStorage(entries, &count, volumes);
        if (status != 0) count = 0;
    }
    ~StorageList() {
        if (entries != nullptr) PltFree(reinterpret_cast<void**>(&entries), 0);
    }
    StorageList(const StorageList&) = delete;
    StorageList& operator=(const StorageList&) = delete;

    PLT_STATUS status = 0;
    uint32_t count = 0;
    PLT_STORAGE_ENTRY* entries = nullptr;
};

// Every fixed volume, as PltGetVolumes lists them.
class VolumeList {
public:
    VolumeList() : status_(PltGetVolumes(nullptr, &list_)) {}
    ~VolumeList() {
        if (list_ != nullptr) PltFree(reinterpret_cast<void**>(&list_), 0);
    }
    VolumeList(const VolumeList&) = delete;
    VolumeList& operator=(const VolumeList&) = delete;

    PLT_STATUS status() const { return status_; }
    uint32_t count() const { return list_ != nullptr ? list_->Count : 0; }
    const PLT_VOLUME_ENTRY& operator[](uint32_t i) const { return list_->Entries[i]; }

private:
    PLT_VOLUME_LIST* list_ = nullptr;
    PLT_STATUS status_;
};

}  // namespace zendra::selfcheck
