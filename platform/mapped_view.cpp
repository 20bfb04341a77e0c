// Mapped views: a file mapping and its view kept together in a 16-byte
// untagged record that the caller holds as an opaque handle.
#include <zendra/io.h>

#include "platform/status.h"

using namespace zendra;

struct PLT_MAPPED_VIEW {
    HANDLE mapping;  // not counted as a file
    void* base;
};
static_assert(sizeof(PLT_MAPPED_VIEW) == 16, "view record is 16 bytes");

extern "C" PLT_STATUS PltMapViewOfFile(PLT_MAPPED_VIEW** view, void** base, uint32_t size,
                                       HANDLE file, int64_t offset, uint8_t flags) {
    if (view == nullptr || base == nullptr || file == nullptr) return kInvalidParameter;
    *base = nullptr;
    void* memory = nullptr;
    if (PltMalloc(&memory, sizeof(PLT_MAPPED_VIEW), 0, 0) != kOk) return kNoMemory;
    auto* record = static_cast<PLT_MAPPED_VIEW*>(memory);
    record->base = nullptr;
    uint64_t from = offset == -1 ? 0 : static_cast<uint64_t>(offset);
    // Always read-write, whatever the view asks: the file must allow writing.
    record->mapping = CreateFileMappingW(file, nullptr, PAGE_READWRITE, 0, size, nullptr);
    if (record->mapping != nullptr) {
        DWORD access = (flags & PLT_MAP_WRITE) ? FILE_MAP_READ | FILE_MAP_WRITE : FILE_MAP_READ;
        record->base = MapViewOfFile(record->mapping, access, static_cast<DWORD>(from >> 32),
                                     static_cast<DWORD>(from), size);
    }
    if (record->base != nullptr) {
        *base = record->base;
        *view = record;
        return kOk;
    }
    DWORD error = GetLastError();
    if (record->mapping != nullptr) CloseHandle(record->mapping);
    // A failure without an error code reports success with no view; the
    // record stays allocated, as it always has.
    if (error == 0) return kOk;
    PltFree(&memory, 0);
    return error;
}

extern "C" PLT_STATUS PltUnmapViewOfFile(PLT_MAPPED_VIEW* view) {
    if (view == nullptr) return kInvalidParameter;
    if (!UnmapViewOfFile(view->base)) return GetLastError();
    CloseHandle(view->mapping);
    void* memory = view;
    PltFree(&memory, 0);  // its result is not the caller's concern
    return kOk;
}
