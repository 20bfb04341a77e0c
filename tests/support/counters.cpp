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
