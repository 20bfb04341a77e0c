// The file extent map: where each run of a file's clusters lies on its
// physical disk, from the file's retrieval pointers, its volume's cluster
// size and the offset of the volume's partition.
#include <stdio.h>
#include <string.h>

#include <zendra/io.h>
#include <zendra/storage.h>

#include "io/files_internal.h"
#include "platform/status.h"

using namespace zendra;

namespace {

constexpr DWORD kRetrievalPointers = 0x90073;  // FSCTL_GET_RETRIEVAL_POINTERS
constexpr DWORD kOpenFlags =
    FILE_FLAG_WRITE_THROUGH | FILE_FLAG_NO_BUFFERING | FILE_ATTRIBUTE_NORMAL;
constexpr uint64_t kOffsetMask = (uint64_t{1} << 48) - 1;
constexpr size_t kDiskNameLimit = 129;

// RETRIEVAL_POINTERS_BUFFER with room for 4097 extents.
struct RetrievalExtent {
    int64_t nextVcn;
    int64_t lcn;
};
struct Retrieval {
    uint32_t extentCount;
    uint32_t reserved;
    int64_t startingVcn;
    RetrievalExtent extents[4097];
};
static_assert(sizeof(Retrieval) == 0x10020, "retrieval buffer of 65568 bytes");
constexpr uint32_t kExtentRoom = sizeof(Retrieval::extents) / sizeof(RetrievalExtent);

// What the queries found, and what every way out releases.
struct Query {
    Retrieval* retrieval = nullptr;
    HANDLE file = INVALID_HANDLE_VALUE;
    HANDLE volume = INVALID_HANDLE_VALUE;
    uint32_t extents = 0;  // those that lie inside the answer
    PLT_VOLINFO info;
    uint32_t clusterBytes = 0;

    ~Query() {
        if (volume != INVALID_HANDLE_VALUE) CloseUncheckedCounted(volume);
        if (file != INVALID_HANDLE_VALUE) CloseUncheckedCounted(file);
        if (retrieval != nullptr) {
            void* memory = retrieval;
            PltFree(&memory, 0);
        }
    }
};

PLT_STATUS ReadPointers(const wchar_t* path, Query* q) {
    void* memory = nullptr;
    PLT_STATUS status = PltMalloc(&memory, sizeof(Retrieval), PLT_ALLOC_ZERO, 0);
    if (status != kOk) return status;
    q->retrieval = static_cast<Retrieval*>(memory);
    status = OpenCounted(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING,
                         kOpenFlags, &q->file);
    if (status != kOk) return status;
    // One request: a file of more extents than the buffer holds fails with
    // ERROR_MORE_DATA.
    int64_t startingVcn = 0;
    DWORD returned = 0;
    if (!DeviceIoControl(q->file, kRetrievalPointers, &startingVcn, sizeof startingVcn,
                         q->retrieval, sizeof(Retrieval), &returned, nullptr))
        return GetLastError();
    // The count is the device's word: only extents inside the buffer and
    // inside what it wrote are used.
    uint32_t written = returned > offsetof(Retrieval, extents)
                           ? (returned - offsetof(Retrieval, extents)) / sizeof(RetrievalExtent)
                           : 0;
    q->extents = q->retrieval->extentCount;
    if (q->extents > kExtentRoom) q->extents = kExtentRoom;
    if (q->extents > written) q->extents = written;
    return kOk;
}

PLT_STATUS ReadVolume(const wchar_t* path, Query* q) {
    wchar_t volumePath[8];
    _snwprintf(volumePath, 8, L"\\\\?\\%c:", path[0]);
    volumePath[7] = L'\0';
    // Only proves that the volume can be opened; nothing is read through it.
    PLT_STATUS status = OpenCounted(volumePath, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    OPEN_EXISTING, kOpenFlags, &q->volume);
    if (status != kOk) return status;
    status = PltGetVolInfo(volumePath, &q->info);
    if (status != kOk) return status;
    wchar_t root[4] = {path[0], L':', L'\\', L'\0'};
    const wchar_t* asked = path[0] == L'\0' || path[1] == L':' || path[1] == L'\0' ? root : path;
    DWORD sectorsPerCluster = 0, bytesPerSector = 0, freeClusters = 0, clusters = 0;
    if (!GetDiskFreeSpaceW(asked, &sectorsPerCluster, &bytesPerSector, &freeClusters, &clusters))
        return GetLastError();
    q->clusterBytes = sectorsPerCluster * bytesPerSector;
    return kOk;
}

void Fill(const Query& q, PLT_FILE_EXTENT* out) {
    uint64_t previousVcn = static_cast<uint64_t>(q.retrieval->startingVcn);
    uint64_t partition = static_cast<uint64_t>(q.info.StartingOffset) + q.info.Reserved;
    for (uint32_t i = 0; i < q.extents; ++i) {
        const RetrievalExtent& e = q.retrieval->extents[i];
        uint64_t next = static_cast<uint64_t>(e.nextVcn);
        // Unsigned arithmetic: wraps like the device's 64-bit words, never
        // undefined. Extents without clusters (Lcn -1) are not special.
        out[i].DiskOffset =
            (static_cast<uint64_t>(e.lcn) * q.clusterBytes + partition) & kOffsetMask;
        out[i].Length = (next - previousVcn) * q.clusterBytes;
        wcsncpy(out[i].PhysicalDisk, q.info.PhysicalDisk, kDiskNameLimit);
        out[i].PhysicalDisk[kDiskNameLimit] = L'\0';
        previousVcn = next;
    }
}

}  // namespace

extern "C" PLT_STATUS PltGetFileDiskOffsetInfo(const wchar_t* path, PLT_FILE_EXTENT** extents,
                                               uint32_t* count) {
    if (path == nullptr || extents == nullptr || count == nullptr) return kInvalidParameter;
    Query q;
    PLT_STATUS status = ReadPointers(path, &q);
    if (status == kOk) status = ReadVolume(path, &q);
    if (status != kOk) return status;
    void* memory = nullptr;
    status = PltMalloc(&memory, q.extents * static_cast<uint32_t>(sizeof(PLT_FILE_EXTENT)),
                       PLT_ALLOC_ZERO, 0);
    if (status != kOk) return status;
    Fill(q, static_cast<PLT_FILE_EXTENT*>(memory));
    *extents = static_cast<PLT_FILE_EXTENT*>(memory);
    *count = q.extents;
    return kOk;
}
