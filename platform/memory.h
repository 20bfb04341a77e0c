// Internal view of the tagged allocator.
#pragma once

#include <zendra/platform.h>

namespace zendra {

// The {tag, size} header in front of every block PltMalloc hands out.
struct AllocHeader {
    uint32_t tag;
    uint32_t size;
};
static_assert(sizeof(AllocHeader) == 8, "allocation header is 8 bytes");

// The library heap: null until the first allocation, never released after.
HANDLE LibraryHeap();
HANDLE ObtainLibraryHeap();

}  // namespace zendra
