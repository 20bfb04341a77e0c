// TestMemory: tagged allocation, a view of a whole file, and two views of
// one file that overlap.
#include <initializer_list>
#include <string.h>

#include <zendra/io.h>

#include "selfcheck/report.h"

namespace zendra::selfcheck {
namespace {

constexpr uint32_t kTag = PLT_TAG('Q', 'Z', 'S', 'C');
constexpr uint32_t kBlock = 4096;
constexpr const wchar_t* kMappedFile = L"TestMMF.dat";
constexpr uint8_t kMapReadWrite = 3;

uint32_t Malloc(PLT_REPORT_BUFFER* report) {
    void* block = reinterpret_cast<void*>(1);
    if (PltMalloc(&block, kBlock, 0, kTag) != 0) return Fail(report, L"Allocating some buffer");
    if (block == nullptr) return Fail(report, L"Pointer to memory MUST NOT be NULL");
    memset(block, 0xA5, kBlock);
    bool kept = true;
    for (uint32_t i = 0; i < kBlock; ++i) kept = kept && static_cast<uint8_t*>(block)[i] == 0xA5;
    uint32_t result = kept ? 0 : Fail(report, L"Setting the allocated buffer with some value");
    if (PltFree(&block, kTag) != 0 || block != nullptr)
        result = Fail(report, L"Freeing the allocation");
    return result;
}

uint8_t Pattern(uint32_t i) { return static_cast<uint8_t>(i * 7 + (i >> 8)); }

// A file of `size` bytes of the pattern, open for reading and writing.
HANDLE PatternFile(uint32_t size) {
    HANDLE file = INVALID_HANDLE_VALUE;
    if (PltCreateFile(kMappedFile, PLT_FILE_CREATE, PLT_FILE_ACCESS_WRITE, 0, &file) != 0)
        return INVALID_HANDLE_VALUE;
    uint8_t chunk[4096];
    bool ok = true;
    for (uint32_t at = 0; ok && at < size; at += sizeof chunk) {
        for (uint32_t i = 0; i < sizeof chunk; ++i) chunk[i] = Pattern(at + i);
        uint32_t done = 0;
        ok = PltWriteFile(file, at, chunk, sizeof chunk, &done) == 0 && done == sizeof chunk;
    }
    if (ok) return file;
    PltCloseFile(file);
    PltDeleteFile(kMappedFile);
    return INVALID_HANDLE_VALUE;
}

void RemoveFile(HANDLE file) {
    PltCloseFile(file);
    PltDeleteFile(kMappedFile);
}

uint32_t Granularity() {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    return info.dwAllocationGranularity;
}

bool PatternAt(const uint8_t* view, uint32_t from, uint32_t size) {
    for (uint32_t i = 0; i < size; ++i)
        if (view[i] != Pattern(from + i)) return false;
    return true;
}

// The whole file, mapped from offset -1 (the start).
uint32_t WholeFileView(PLT_REPORT_BUFFER* report) {
    uint32_t size = 2 * Granularity();
    HANDLE file = PatternFile(size);
    if (file == INVALID_HANDLE_VALUE) return Fail(report, L"PltAllocMMF test");
    PLT_MAPPED_VIEW* view = nullptr;
    void* base = nullptr;
    uint32_t result = 0;
    if (PltMapViewOfFile(&view, &base, 0, file, -1, kMapReadWrite) != 0 || view == nullptr ||
        base == nullptr) {
        result = Fail(report, L"Allocating some buffer as Memory Mapped file");
    } else {
        if (!PatternAt(static_cast<uint8_t*>(base), 0, size)) result = Fail(report, L"TestMMF1");
        if (PltUnmapViewOfFile(view) != 0)
            result = Fail(report, L"Freeing the memory mapped allocation");
    }
    RemoveFile(file);
    return result;
}

// A view from offset 0 and one from the next allocation granule on: the
// second must show, byte for byte, the second half of the first, in both
// directions of writing. The mapping is only as large as the size asked
// for, so the later view asks for size 0 (to the end of the file).
uint32_t OverlappingViews(PLT_REPORT_BUFFER* report) {
    uint32_t step = Granularity();
    HANDLE file = PatternFile(2 * step);
    if (file == INVALID_HANDLE_VALUE) return Fail(report, L"TestMMF2");
    PLT_MAPPED_VIEW *whole = nullptr, *part = nullptr;
    void *wholeBase = nullptr, *partBase = nullptr;
    uint32_t result = 0;
    if (PltMapViewOfFile(&whole, &wholeBase, 2 * step, file, 0, kMapReadWrite) != 0 ||
        PltMapViewOfFile(&part, &partBase, 0, file, step, kMapReadWrite) != 0 || whole == nullptr ||
        part == nullptr) {
        result = Fail(report, L"Allocating some buffer as Memory Mapped file");
    } else {
        auto* a = static_cast<uint8_t*>(wholeBase);
        auto* b = static_cast<uint8_t*>(partBase);
        if (!PatternAt(b, step, step) || memcmp(a + step, b, step) != 0) {
            result = Fail(report, L"Comparing the values");
        } else {
            memset(a + step, 0x3C, step / 2);
            memset(b + step / 2, 0xC3, step / 2);
            if (memcmp(a + step, b, step) != 0)
                result = Fail(report,
                              L"Comparing the values of one view with part of other view MUST be "
                              L"same");
        }
    }
    for (PLT_MAPPED_VIEW* view : {whole, part})
        if (view != nullptr && PltUnmapViewOfFile(view) != 0)
            result = Fail(report, L"Freeing the memory mapped allocation");
    RemoveFile(file);
    return result;
}

}  // namespace
}  // namespace zendra::selfcheck

using namespace zendra::selfcheck;

extern "C" uint32_t TestMemory(PLT_REPORT_BUFFER* report) {
    uint32_t result = Malloc(report);
    result |= WholeFileView(report);
    result |= OverlappingViews(report);
    return result;
}
