#include "counters.h"

#include <sstream>
#include <string>
#include <vector>

namespace zt {

namespace {

struct Field {
    std::string name;
    size_t offset;
    bool wide;
};

#define ZT_FIELDS(X)                                                                           \
    X(AllocCount) X(AllocBytes) X(LiveAllocCount) X(LiveAllocBytes) X(LookasideListCount)      \
    X(LiveLookasideListCount) X(UntaggedAllocCount) X(TagMismatchCount) X(RwSpinLockCount)     \
    X(LiveRwSpinLockCount) X(RwLockCount) X(LiveRwLockCount) X(FastLockCount)                  \
    X(LiveFastLockCount) X(EventCount) X(LiveEventCount) X(MutexCount) X(LiveMutexCount)       \
    X(CriticalSectionCount) X(LiveCriticalSectionCount) X(FileCount) X(LiveFileCount)          \
    X(ThreadCount) X(LiveThreadCount) X(ProcessCount) X(LiveProcessCount)

const std::vector<Field>& Fields() {
    static const std::vector<Field> fields = [] {
        std::vector<Field> v;
#define ZT_ADD(f) v.push_back({#f, offsetof(PLT_RESOURCE_STATS, f), sizeof(PLT_RESOURCE_STATS::f) == 8});
        ZT_FIELDS(ZT_ADD)
#undef ZT_ADD
        for (size_t i = 0; i < PLT_SIZE_BUCKETS; ++i) {
            v.push_back({"AllocBySize[" + std::to_string(i) + "]",
                         offsetof(PLT_RESOURCE_STATS, AllocBySize) + 4 * i, false});
            v.push_back({"LiveAllocBySize[" + std::to_string(i) + "]",
                         offsetof(PLT_RESOURCE_STATS, LiveAllocBySize) + 4 * i, false});
        }
        return v;
    }();
    return fields;
}

uint64_t Read(const PLT_RESOURCE_STATS& s, const Field& f) {
    const char* at = reinterpret_cast<const char*>(&s) + f.offset;
    return f.wide ? *reinterpret_cast<const uint64_t*>(at) : *reinterpret_cast<const uint32_t*>(at);
}

bool Ignored(const std::string& name, unsigned ignore) {
    return ((ignore & kIgnoreThreads) && name == "LiveThreadCount") ||
           ((ignore & kIgnoreEvents) && name == "LiveEventCount") ||
           ((ignore & kIgnoreAllocations) && name.rfind("LiveAlloc", 0) == 0);
}

// Compares the moves since `before` with `expected`, over every field or over
// the live ones only.
::testing::AssertionResult Compare(const PLT_RESOURCE_STATS& before,
                                   const PLT_RESOURCE_STATS& expected, bool liveOnly,
                                   unsigned ignore) {
    PLT_RESOURCE_STATS after = Snapshot();
    std::ostringstream diff;
    for (const Field& f : Fields()) {
        if (liveOnly && (f.name.rfind("Live", 0) != 0 || Ignored(f.name, ignore))) continue;
        uint64_t moved = Read(after, f) - Read(before, f), want = Read(expected, f);
        if (!f.wide) moved = static_cast<uint32_t>(moved);
        if (moved != want)
            diff << "\n  " << f.name << " moved by " << static_cast<int64_t>(moved)
                 << ", expected " << static_cast<int64_t>(want);
    }
    if (diff.str().empty()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "counters:" << diff.str();
}

}  // namespace

PLT_RESOURCE_STATS Snapshot() {
    PLT_RESOURCE_STATS s;
    PltGetResourceStats(&s);
    return s;
}

PLT_RESOURCE_STATS Delta(const PLT_RESOURCE_STATS& before, const PLT_RESOURCE_STATS& after) {
    PLT_RESOURCE_STATS d{};
    for (const Field& f : Fields()) {
        char* at = reinterpret_cast<char*>(&d) + f.offset;
        uint64_t moved = Read(after, f) - Read(before, f);
        if (f.wide)
            *reinterpret_cast<uint64_t*>(at) = moved;
        else
            *reinterpret_cast<uint32_t*>(at) = static_cast<uint32_t>(moved);
    }
    return d;
}

::testing::AssertionResult DeltaIs(const PLT_RESOURCE_STATS& before,
                                   const PLT_RESOURCE_STATS& expected) {
    return Compare(before, expected, false, kCheckAll);
}

::testing::AssertionResult NoLeaks(const PLT_RESOURCE_STATS& before, unsigned ignore) {
    return Compare(before, PLT_RESOURCE_STATS{}, true, ignore);
}

}  // namespace zt
