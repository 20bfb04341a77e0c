// Tagged allocation with process-wide resource counters.
#include "platform/memory.h"

#include <string.h>

#include "platform/counters.h"
#include "platform/status.h"

namespace zendra {

PLT_RESOURCE_STATS g_stats;

namespace {

HANDLE g_heap;  // two first callers may race here; both store the same handle

void CountAllocation(uint32_t size) {
    Increment(&g_stats.AllocCount);
    Increment(&g_stats.LiveAllocCount);
    __atomic_fetch_add(&g_stats.AllocBytes, uint64_t{size}, __ATOMIC_RELAXED);
    __atomic_fetch_add(&g_stats.LiveAllocBytes, uint64_t{size}, __ATOMIC_RELAXED);
    uint32_t bucket = SizeBucket(size);
    Increment(&g_stats.LiveAllocBySize[bucket]);
    Increment(&g_stats.AllocBySize[bucket]);
}

void CountRelease(uint32_t size) {
    Decrement(&g_stats.LiveAllocCount);
    __atomic_fetch_sub(&g_stats.LiveAllocBytes, uint64_t{size}, __ATOMIC_RELAXED);
    Decrement(&g_stats.LiveAllocBySize[SizeBucket(size)]);
}

}  // namespace

HANDLE LibraryHeap() { return __atomic_load_n(&g_heap, __ATOMIC_ACQUIRE); }

HANDLE ObtainLibraryHeap() {
    HANDLE heap = LibraryHeap();
    if (heap == nullptr) {
        heap = GetProcessHeap();
        __atomic_store_n(&g_heap, heap, __ATOMIC_RELEASE);
    }
    return heap;
}

}  // namespace zendra

using namespace zendra;

extern "C" PLT_STATUS PltMalloc(void** out, uint32_t size, uint32_t flags, uint32_t tag) {
    if (out == nullptr) return kInvalidParameter;
    *out = nullptr;
    if (tag == 0) Increment(&g_stats.UntaggedAllocCount);

    // The request wraps in 32 bits for sizes above 0xFFFFFFF7. Such a block
    // still gets room for its header, and the zero fill stops at the block's
    // end, so the wrap never writes outside what the heap gave.
    uint32_t request = size + sizeof(AllocHeader);
    if (request < sizeof(AllocHeader)) request = sizeof(AllocHeader);
    void* raw = HeapAlloc(ObtainLibraryHeap(), 0, request);
    if (raw == nullptr) return kNoMemory;

    auto* header = static_cast<AllocHeader*>(raw);
    header->tag = tag;
    header->size = size;
    void* block = header + 1;
    if (flags & PLT_ALLOC_ZERO) {
        uint32_t usable = request - sizeof(AllocHeader);
        memset(block, 0, size < usable ? size : usable);
    }
    *out = block;
    CountAllocation(size);
    return kOk;
}

extern "C" PLT_STATUS PltFree(void** block, uint32_t tag) {
    HANDLE heap = LibraryHeap();
    if (heap == nullptr) return kInvalidHandle;
    if (block == nullptr || *block == nullptr) return kInvalidParameter;

    AllocHeader* header = static_cast<AllocHeader*>(*block) - 1;
    CountRelease(header->size);
    // A wrong tag is counted, never refused.
    if (header->tag != tag) Increment(&g_stats.TagMismatchCount);
    if (!HeapFree(heap, 0, header)) return GetLastError();
    *block = nullptr;
    return kOk;
}

extern "C" PLT_STATUS PltGetResourceStats(PLT_RESOURCE_STATS* out) {
    if (out == nullptr) return kInvalidParameter;
    // Eight aligned bytes at a time: every field is whole, the snapshot as a
    // whole is not.
    const uint64_t* from = reinterpret_cast<const uint64_t*>(&g_stats);
    uint64_t* to = reinterpret_cast<uint64_t*>(out);
    for (size_t i = 0; i < sizeof(PLT_RESOURCE_STATS) / sizeof(uint64_t); ++i)
        to[i] = __atomic_load_n(from + i, __ATOMIC_RELAXED);
    return kOk;
}

extern "C" PLT_STATUS UpdateMemoryUsage(uint32_t size, uint8_t increment) {
    uint32_t bucket = SizeBucket(size);
    if (increment) {
        Increment(&g_stats.AllocBySize[bucket]);
        Increment(&g_stats.LiveAllocBySize[bucket]);
    } else {
        Decrement(&g_stats.LiveAllocBySize[bucket]);
    }
    return kOk;
}
