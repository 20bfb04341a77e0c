// Resource-counter snapshots and their comparison, field by field.
#include <sstream>
#include <string>
#include <vector>

#include "zt.h"

namespace zt {

namespace {

const size_t kWords = sizeof(PLT_RESOURCE_STATS) / 4;

// The field held by each 32-bit word of the record; "-" for the reserved words
// and the high halves of the two byte counts.
const std::string& FieldAt(size_t word) {
    static const std::vector<std::string> names = [] {
        std::istringstream text(
            "AllocCount - AllocBytes - LiveAllocCount - LiveAllocBytes - AllocBySize[*] "
            "LiveAllocBySize[*] LookasideListCount LiveLookasideListCount UntaggedAllocCount "
            "TagMismatchCount RwSpinLockCount LiveRwSpinLockCount RwLockCount LiveRwLockCount "
            "FastLockCount LiveFastLockCount EventCount LiveEventCount MutexCount LiveMutexCount "
            "CriticalSectionCount LiveCriticalSectionCount FileCount LiveFileCount ThreadCount "
            "LiveThreadCount ProcessCount LiveProcessCount");
        std::vector<std::string> v;
        for (std::string name; text >> name;) {
            size_t star = name.find('*');
            for (int i = 0; i < (star == std::string::npos ? 1 : PLT_SIZE_BUCKETS); ++i)
                v.push_back(star == std::string::npos
                                ? name
                                : name.substr(0, star) + std::to_string(i) + "]");
        }
        return v;
    }();
    return names[word];
}

uint64_t Read(const PLT_RESOURCE_STATS& s, size_t word) {
    auto* w = reinterpret_cast<const uint32_t*>(&s);
    return word == 2 || word == 6 ? w[word] | uint64_t{w[word + 1]} << 32 : w[word];
}

enum Scope { kEvery, kLive, kGiven };

// Compares the moves since `before` with `expected`: over every field, the live
// ones, or the ones `expected` gives (non-zero).
::testing::AssertionResult Compare(const PLT_RESOURCE_STATS& before,
                                   const PLT_RESOURCE_STATS& expected, Scope scope) {
    PLT_RESOURCE_STATS d = Delta(before, Snapshot());
    std::ostringstream diff;
    for (size_t w = 0; w < kWords; ++w) {
        const std::string& name = FieldAt(w);
        if (name == "-" || (scope == kLive && name.rfind("Live", 0) != 0) ||
            (scope == kGiven && Read(expected, w) == 0))
            continue;
        if (Read(d, w) != Read(expected, w))
            diff << "\n  " << name << " moved by " << static_cast<int64_t>(Read(d, w))
                 << ", expected " << static_cast<int64_t>(Read(expected, w));
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
    PLT_RESOURCE_STATS d;
    auto* out = reinterpret_cast<uint32_t*>(&d);
    for (size_t w = 0; w < kWords; ++w)
        out[w] = static_cast<uint32_t>(Read(after, w) - Read(before, w));
    d.AllocBytes = after.AllocBytes - before.AllocBytes;
    d.LiveAllocBytes = after.LiveAllocBytes - before.LiveAllocBytes;
    return d;
}

::testing::AssertionResult DeltaIs(const PLT_RESOURCE_STATS& before,
                                   const PLT_RESOURCE_STATS& expected) {
    return Compare(before, expected, kEvery);
}

::testing::AssertionResult LiveMovedBy(const PLT_RESOURCE_STATS& before,
                                       const PLT_RESOURCE_STATS& live) {
    return Compare(before, live, kLive);
}

::testing::AssertionResult MovedBy(const PLT_RESOURCE_STATS& before,
                                   const PLT_RESOURCE_STATS& expected) {
    return Compare(before, expected, kGiven);
}

}  // namespace zt
