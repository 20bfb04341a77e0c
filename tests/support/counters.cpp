#include "counters.h"

#include <sstream>

namespace zt {

PLT_RESOURCE_STATS Snapshot() {
    PLT_RESOURCE_STATS s;
    PltGetResourceStats(&s);
    return s;
}

PLT_RESOURCE_STATS Delta(const PLT_RESOURCE_STATS& before, const PLT_RESOURCE_STATS& after) {
    PLT_RESOURCE_STATS d;
    auto* b = reinterpret_cast<const uint32_t*>(&before);
    auto* a = reinterpret_cast<const uint32_t*>(&after);
    auto* out = reinterpret_cast<uint32_t*>(&d);
    for (size_t i = 0; i < sizeof(d) / 4; ++i) out[i] = a[i] - b[i];
    d.AllocBytes = after.AllocBytes - before.AllocBytes;
    d.LiveAllocBytes = after.LiveAllocBytes - before.LiveAllocBytes;
    return d;
}

namespace {

// Field names in record order, for messages.
struct Field {
    const char* name;
    size_t offset;
    bool wide;
};
#define ZT_FIELD(f) \
    { #f, offsetof(PLT_RESOURCE_STATS, f), sizeof(PLT_RESOURCE_STATS::f) == 8 }
const Field kFields[] = {ZT_FIELD(AllocCount),
                         ZT_FIELD(AllocBytes),
                         ZT_FIELD(LiveAllocCount),
                         ZT_FIELD(LiveAllocBytes),
                         ZT_FIELD(LookasideListCount),
                         ZT_FIELD(LiveLookasideListCount),
                         ZT_FIELD(UntaggedAllocCount),
                         ZT_FIELD(TagMismatchCount),
                         ZT_FIELD(RwSpinLockCount),
                         ZT_FIELD(LiveRwSpinLockCount),
                         ZT_FIELD(RwLockCount),
                         ZT_FIELD(LiveRwLockCount),
                         ZT_FIELD(FastLockCount),
                         ZT_FIELD(LiveFastLockCount),
                         ZT_FIELD(EventCount),
                         ZT_FIELD(LiveEventCount),
                         ZT_FIELD(MutexCount),
                         ZT_FIELD(LiveMutexCount),
                         ZT_FIELD(CriticalSectionCount),
                         ZT_FIELD(LiveCriticalSectionCount),
                         ZT_FIELD(FileCount),
                         ZT_FIELD(LiveFileCount),
                         ZT_FIELD(ThreadCount),
                         ZT_FIELD(LiveThreadCount),
                         ZT_FIELD(ProcessCount),
                         ZT_FIELD(LiveProcessCount)};
#undef ZT_FIELD

uint64_t Read(const PLT_RESOURCE_STATS& s, size_t offset, bool wide) {
    const char* base = reinterpret_cast<const char*>(&s) + offset;
    return wide ? *reinterpret_cast<const uint64_t*>(base)
                : *reinterpret_cast<const uint32_t*>(base);
}

}  // namespace

::testing::AssertionResult DeltaIs(const PLT_RESOURCE_STATS& before,
                                   const PLT_RESOURCE_STATS& expected) {
    PLT_RESOURCE_STATS d = Delta(before, Snapshot());
    std::ostringstream diff;
    for (const Field& f : kFields) {
        uint64_t got = Read(d, f.offset, f.wide), want = Read(expected, f.offset, f.wide);
        if (got != want)
            diff << "\n  " << f.name << " moved by " << static_cast<int64_t>(got) << ", expected "
                 << static_cast<int64_t>(want);
    }
    for (int i = 0; i < PLT_SIZE_BUCKETS; ++i) {
        if (d.AllocBySize[i] != expected.AllocBySize[i] ||
            d.LiveAllocBySize[i] != expected.LiveAllocBySize[i])
            diff << "\n  bucket " << i << " moved by " << d.AllocBySize[i] << "/"
                 << static_cast<int32_t>(d.LiveAllocBySize[i]) << ", expected "
                 << expected.AllocBySize[i] << "/"
                 << static_cast<int32_t>(expected.LiveAllocBySize[i]);
    }
    std::string text = diff.str();
    if (text.empty()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "counters:" << text;
}

::testing::AssertionResult NoLeaks(const PLT_RESOURCE_STATS& before, unsigned ignore) {
    PLT_RESOURCE_STATS after = Snapshot();
    std::ostringstream diff;
    auto check = [&](const char* name, uint64_t b, uint64_t a) {
        if (a != b) diff << "\n  " << name << ": " << b << " -> " << a;
    };
#define ZT_LIVE(field) check(#field, before.field, after.field)
    if (!(ignore & kIgnoreAllocations)) {
        ZT_LIVE(LiveAllocCount);
        ZT_LIVE(LiveAllocBytes);
        for (int i = 0; i < PLT_SIZE_BUCKETS; ++i) {
            std::string name = "LiveAllocBySize[" + std::to_string(i) + "]";
            check(name.c_str(), before.LiveAllocBySize[i], after.LiveAllocBySize[i]);
        }
    }
    ZT_LIVE(LiveLookasideListCount);
    ZT_LIVE(LiveRwSpinLockCount);
    ZT_LIVE(LiveRwLockCount);
    ZT_LIVE(LiveFastLockCount);
    if (!(ignore & kIgnoreEvents)) ZT_LIVE(LiveEventCount);
    ZT_LIVE(LiveMutexCount);
    ZT_LIVE(LiveCriticalSectionCount);
    ZT_LIVE(LiveFileCount);
    if (!(ignore & kIgnoreThreads)) ZT_LIVE(LiveThreadCount);
    ZT_LIVE(LiveProcessCount);
#undef ZT_LIVE
    std::string text = diff.str();
    if (text.empty()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "live counters moved:" << text;
}

}  // namespace zt
