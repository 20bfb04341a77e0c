// TestLookAsideList and TestLookAsideListEx: entries handed out, freed,
// compacted and the lists freed, with limits, capped depths, a caller's
// first chunk and three workers sharing one list.
#include <string.h>

#include "selfcheck/report.h"

namespace zendra::selfcheck {
namespace {

constexpr uint32_t kTag = PLT_TAG('Q', 'Z', 'S', 'C');

bool InChunk(const PLT_LOOKASIDE_LIST* list, const PLT_LOOKASIDE_CHUNK* chunk, const void* entry) {
    auto* start = reinterpret_cast<const uint8_t*>(chunk) + PLT_LOOKASIDE_CHUNK_HEADER;
    auto* at = static_cast<const uint8_t*>(entry);
    return at >= start && at < start + uint64_t{list->entrySize} * list->perChunk &&
           (at - start) % list->entrySize == 0;
}

// A freed list is all zeros.
bool IsZeroed(const PLT_LOOKASIDE_LIST* list) {
    static const PLT_LOOKASIDE_LIST zero{};
    return memcmp(list, &zero, sizeof zero) == 0;
}

// Allocates `count` entries into `entries`, each marked with its index.
bool AllocateMarked(PLT_LOOKASIDE_LIST* list, void** entries, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        entries[i] = PltAllocateFromLookasideList(list);
        if (entries[i] == nullptr) return false;
        memcpy(entries[i], &i, sizeof i);
    }
    return true;
}

bool MarksKept(void** entries, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i)
        if (memcmp(entries[i], &i, sizeof i) != 0) return false;
    return true;
}

// Three chunks' worth, every entry inside the chunk list; all freed, the
// oldest chunk's first entry comes back first; compaction leaves no chunk
// and the list grows again.
uint32_t GrowFreeCompact() {
    PLT_LOOKASIDE_LIST list;
    if (PltInitLookasideList(&list, 48, 16, PLT_NO_LIMIT, 0, nullptr, 0, kTag) != 0) return 1;
    void* entries[40];
    void* firstChunkEntry = reinterpret_cast<uint8_t*>(list.first) + PLT_LOOKASIDE_CHUNK_HEADER;
    bool ok = AllocateMarked(&list, entries, 40) && list.inUse == 40 && list.chunks == 3 &&
              entries[0] == firstChunkEntry && MarksKept(entries, 40);
    for (uint32_t i = 0; ok && i < 40; ++i)
        ok = InChunk(&list,
                     i < 16   ? list.first
                     : i < 32 ? list.first->next
                              : list.last,
                     entries[i]);
    for (uint32_t i = 0; ok && i < 40; ++i) PltFreeToLookasideList(&list, entries[39 - i]);
    ok = ok && list.inUse == 0 && list.first->inUse == 0 && list.last->inUse == 0;
    void* again = ok ? PltAllocateFromLookasideList(&list) : nullptr;
    ok = ok && again == firstChunkEntry;
    if (again != nullptr) PltFreeToLookasideList(&list, again);
    PltCompactLookasideList(&list);
    ok = ok && list.chunks == 0;
    again = PltAllocateFromLookasideList(&list);
    ok = ok && again != nullptr && list.chunks == 1 && InChunk(&list, list.first, again);
    PltFreeLookasideList(&list);
    return ok && IsZeroed(&list) ? 0 : 1;
}

// An unlocked list with a limit of five: the sixth entry is refused, and a
// freed entry is the next one handed out.
uint32_t Limit() {
    PLT_LOOKASIDE_LIST list;
    if (PltInitLookasideList(&list, 16, 8, 5, 1, nullptr, 0, kTag) != 0) return 1;
    void* entries[5];
    bool ok = AllocateMarked(&list, entries, 5) && PltAllocateFromLookasideList(&list) == nullptr;
    if (ok) {
        PltFreeToLookasideList(&list, entries[2]);
        ok = list.inUse == 4 && PltAllocateFromLookasideList(&list) == entries[2] &&
             list.inUse == 5 && list.chunks == 1;
        for (void* e : entries) PltFreeToLookasideList(&list, e);
        ok = ok && list.inUse == 0;
    }
    PltFreeLookasideList(&list);
    return ok && IsZeroed(&list) ? 0 : 1;
}

// Depth 10000 is capped at the bitmap's 8192 entries per chunk; entries
// freed in the middle are handed out again lowest first.
uint32_t ManyEntries() {
    constexpr uint32_t kCount = 20000;
    void* block = nullptr;
    if (PltMalloc(&block, kCount * sizeof(void*), 0, kTag) != 0) return 1;
    auto** entries = static_cast<void**>(block);
    PLT_LOOKASIDE_LIST list;
    bool ok = PltInitLookasideList(&list, 24, 10000, PLT_NO_LIMIT, 0, nullptr, 0, kTag) == 0;
    if (ok) {
        ok = list.perChunk == PLT_LOOKASIDE_MAX_DEPTH && AllocateMarked(&list, entries, kCount) &&
             list.chunks == 3 && MarksKept(entries, kCount);
        for (uint32_t i = 100; ok && i < 200; ++i) PltFreeToLookasideList(&list, entries[i]);
        for (uint32_t i = 100; ok && i < 200; ++i)
            ok = PltAllocateFromLookasideList(&list) == entries[i];
        for (uint32_t i = 0; ok && i < kCount; ++i) PltFreeToLookasideList(&list, entries[i]);
        ok = ok && list.inUse == 0;
        PltCompactLookasideList(&list);
        ok = ok && list.chunks == 0;
        PltFreeLookasideList(&list);
    }
    PltFree(&block, kTag);
    return ok ? 0 : 1;
}

// ---- three workers sharing one list ----

constexpr uint32_t kWorkers = 3;
constexpr uint32_t kPerStep = 100;
constexpr uint32_t kSteps = 5;
constexpr uint32_t kBigChunk = 2400000;

struct Shared {
    PLT_LOOKASIDE_LIST list;
    volatile uint32_t done, bad;
};

// Takes entries, marks them with its own number, pauses, checks that no
// other worker touched them, gives them back and pauses again.
uint32_t UseSharedList(uint64_t context, uint64_t worker) {
    auto* shared = reinterpret_cast<Shared*>(context);
    void* entries[kPerStep];
    for (uint32_t step = 0; step < kSteps; ++step) {
        uint32_t taken = 0;
        for (; taken < kPerStep; ++taken) {
            entries[taken] = PltAllocateFromLookasideList(&shared->list);
            if (entries[taken] == nullptr) break;
            memset(entries[taken], static_cast<int>(worker + 1), shared->list.entrySize);
        }
        Sleep(10);
        for (uint32_t i = 0; i < taken; ++i) {
            auto* bytes = static_cast<uint8_t*>(entries[i]);
            if (bytes[0] != worker + 1 || bytes[shared->list.entrySize - 1] != worker + 1)
                AddOne(&shared->bad);
            PltFreeToLookasideList(&shared->list, entries[i]);
        }
        if (taken != kPerStep) AddOne(&shared->bad);
        Sleep(10);
    }
    AddOne(&shared->done);
    return 0;
}

uint32_t SharedByWorkers() {
    // One large caller-supplied first chunk holds every entry the workers
    // take at once.
    void* chunk = nullptr;
    if (PltMalloc(&chunk, kBigChunk, 0, kTag) != 0) return 1;
    Shared shared{};
    if (PltInitLookasideList(&shared.list, 288, 8192, PLT_NO_LIMIT, 0, chunk, 0, kTag) != 0) {
        PltFreeLookasideList(&shared.list);
        PltFree(&chunk, kTag);
        return 1;
    }
    PLT_WORK_ITEM_POOL* pool = nullptr;
    bool ok = PltInitWorkItemPool(&pool, kWorkers, kWorkers, PRIO_NORMAL) == 0 && pool != nullptr;
    uint32_t queued = 0;
    while (ok && queued < kWorkers &&
           PltAddWorkItem(pool, nullptr, UseSharedList, reinterpret_cast<uint64_t>(&shared), queued,
                          0) == 0)
        ++queued;
    ok = ok && queued == kWorkers && WaitForCount(&shared.done, kWorkers, 30000);
    if (pool != nullptr) PltDeleteWorkItemPool(pool, 1, 10000);
    ok = ok && Load(&shared.bad) == 0 && shared.list.inUse == 0 && shared.list.chunks == 1 &&
         reinterpret_cast<void*>(shared.list.first) == chunk;
    PltFreeLookasideList(&shared.list);  // frees the caller's chunk too
    return ok ? 0 : 1;
}

}  // namespace
}  // namespace zendra::selfcheck

using namespace zendra::selfcheck;

extern "C" uint32_t TestLookAsideList(PLT_REPORT_BUFFER* report) {
    uint32_t result = Reported(report, GrowFreeCompact());
    return result | Reported(report, Limit());
}

extern "C" uint32_t TestLookAsideListEx(PLT_REPORT_BUFFER* report) {
    uint32_t result = Reported(report, ManyEntries());
    return result | Reported(report, SharedByWorkers());
}
