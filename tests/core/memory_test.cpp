// Tagged allocation and the resource counters, through the exports.
#include <string.h>
#include <windows.h>

#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <zendra/platform.h>

#include "counters.h"
#include "guarded_buffer.h"
#include "heap_failure.h"
#include "import_hook.h"

namespace {

const uint32_t kTag = PLT_TAG('T', 'E', 'S', 'T');
const uint32_t kOtherTag = PLT_TAG('O', 'T', 'H', 'R');

struct Header {
    uint32_t tag;
    uint32_t size;
};
const Header& HeaderOf(const void* block) { return static_cast<const Header*>(block)[-1]; }

TEST(PltMalloc, ZeroSizeSucceedsAndCountsInBucketZero) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    void* p = nullptr;
    ASSERT_EQ(PltMalloc(&p, 0, 0, kTag), 0u);
    ASSERT_NE(p, nullptr);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.AllocCount, 1u);
    EXPECT_EQ(d.LiveAllocCount, 1u);
    EXPECT_EQ(d.AllocBytes, 0u);
    EXPECT_EQ(d.AllocBySize[0], 1u);
    EXPECT_EQ(d.LiveAllocBySize[0], 1u);
    EXPECT_EQ(d.UntaggedAllocCount, 0u);
    EXPECT_EQ(PltFree(&p, kTag), 0u);
    EXPECT_EQ(p, nullptr);
    EXPECT_NO_LEAKS(before);
}

TEST(PltMalloc, HeaderHoldsTagAndRequestedSize) {
    void* p = nullptr;
    ASSERT_EQ(PltMalloc(&p, 77, 0, kTag), 0u);
    EXPECT_EQ(HeaderOf(p).tag, kTag);
    EXPECT_EQ(HeaderOf(p).size, 77u);
    // The tag's first character is the lowest byte in memory.
    EXPECT_EQ(memcmp(&HeaderOf(p).tag, "TEST", 4), 0);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 0u);
    EXPECT_EQ(PltFree(&p, kTag), 0u);
}

TEST(PltMalloc, SizesFallIntoTheirBuckets) {
    struct Case {
        uint32_t size;
        int bucket;
    };
    const Case cases[] = {{1, 0},        {32, 0},        {33, 1},        {128, 1},
                          {129, 2},      {512, 2},       {513, 3},       {1024, 3},
                          {1025, 4},     {4096, 4},      {4097, 5},      {32768, 5},
                          {32769, 6},    {131072, 6},    {131073, 7},    {262144, 7},
                          {262145, 8},   {1048576, 8},   {1048577, 9},   {3000000, 9}};
    for (const Case& c : cases) {
        PLT_RESOURCE_STATS before = zt::Snapshot();
        void* p = nullptr;
        ASSERT_EQ(PltMalloc(&p, c.size, 0, kTag), 0u) << c.size;
        PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
        for (int b = 0; b < PLT_SIZE_BUCKETS; ++b) {
            EXPECT_EQ(d.AllocBySize[b], b == c.bucket ? 1u : 0u) << "size " << c.size << " bucket " << b;
            EXPECT_EQ(d.LiveAllocBySize[b], b == c.bucket ? 1u : 0u) << "size " << c.size << " bucket " << b;
        }
        EXPECT_EQ(d.AllocBytes, c.size);
        EXPECT_EQ(d.LiveAllocBytes, c.size);
        ASSERT_EQ(PltFree(&p, kTag), 0u);
        EXPECT_NO_LEAKS(before);
    }
}

TEST(PltMalloc, NullOutputIsRefusedWithoutCounting) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(PltMalloc(nullptr, 16, 0, 0), 87u);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.AllocCount, 0u);
    EXPECT_EQ(d.UntaggedAllocCount, 0u);
}

TEST(PltMalloc, UntaggedAllocationsAreCountedSeparately) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    void* a = nullptr;
    void* b = nullptr;
    ASSERT_EQ(PltMalloc(&a, 8, 0, 0), 0u);
    ASSERT_EQ(PltMalloc(&b, 8, 0, kTag), 0u);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).UntaggedAllocCount, 1u);
    EXPECT_EQ(PltFree(&a, 0), 0u);
    EXPECT_EQ(PltFree(&b, kTag), 0u);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).TagMismatchCount, 0u);
}

// Hands out heap blocks pre-filled with 0xAB, so that the zero fill shows.
LPVOID WINAPI DirtyHeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes) {
    void* p = HeapAlloc(heap, flags, bytes);
    if (p != nullptr) memset(p, 0xAB, bytes);
    return p;
}

TEST(PltMalloc, FlagBitZeroFillsOtherBitsAreIgnored) {
    zt::ImportHook hook("HeapAlloc", reinterpret_cast<void*>(&DirtyHeapAlloc));
    void* zeroed = nullptr;
    void* plain = nullptr;
    ASSERT_EQ(PltMalloc(&zeroed, 300, 1 | 16, kTag), 0u);
    ASSERT_EQ(PltMalloc(&plain, 300, 16, kTag), 0u);
    const auto* z = static_cast<const unsigned char*>(zeroed);
    const auto* n = static_cast<const unsigned char*>(plain);
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(z[i], 0) << i;
        ASSERT_EQ(n[i], 0xAB) << i;
    }
    EXPECT_EQ(HeaderOf(zeroed).size, 300u);
    EXPECT_EQ(PltFree(&zeroed, kTag), 0u);
    EXPECT_EQ(PltFree(&plain, kTag), 0u);
}

TEST(PltMalloc, HeapFailureReturns8AndCountsOnlyTheUntaggedRequest) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    void* p = reinterpret_cast<void*>(0x1234);
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(PltMalloc(&p, 64, 1, 0), 8u);
        EXPECT_TRUE(fail.failed());
    }
    EXPECT_EQ(p, nullptr);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    PLT_RESOURCE_STATS expected = {};
    expected.UntaggedAllocCount = 1;
    EXPECT_EQ(memcmp(&d, &expected, sizeof d), 0) << "only UntaggedAllocCount may move";

    before = zt::Snapshot();
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(PltMalloc(&p, 64, 0, kTag), 8u);
    }
    d = zt::Delta(before, zt::Snapshot());
    expected = {};
    EXPECT_EQ(memcmp(&d, &expected, sizeof d), 0) << "a tagged failure moves nothing";
}

TEST(PltFree, WrongTagIsCountedButFreed) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    void* p = nullptr;
    ASSERT_EQ(PltMalloc(&p, 100, 0, kTag), 0u);
    EXPECT_EQ(PltFree(&p, kOtherTag), 0u);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).TagMismatchCount, 1u);
    EXPECT_NO_LEAKS(before);
}

TEST(PltFree, NullPointersGive87) {
    void* keep = nullptr;
    ASSERT_EQ(PltMalloc(&keep, 1, 0, kTag), 0u);  // the library heap exists now
    PLT_RESOURCE_STATS before = zt::Snapshot();
    void* p = nullptr;
    EXPECT_EQ(PltFree(&p, kTag), 87u);
    EXPECT_EQ(PltFree(nullptr, kTag), 87u);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    PLT_RESOURCE_STATS zero = {};
    EXPECT_EQ(memcmp(&d, &zero, sizeof d), 0);
    EXPECT_EQ(PltFree(&keep, kTag), 0u);
    // A second free through the nulled pointer is caught.
    EXPECT_EQ(PltFree(&keep, kTag), 87u);
}

BOOL WINAPI FailingHeapFree(HANDLE, DWORD, LPVOID) {
    SetLastError(ERROR_INVALID_BLOCK);
    return FALSE;
}

TEST(PltFree, HeapFreeFailureKeepsPointerAndCountersStayDown) {
    void* p = nullptr;
    ASSERT_EQ(PltMalloc(&p, 40, 0, kTag), 0u);
    PLT_RESOURCE_STATS before = zt::Snapshot();
    void* kept = p;
    {
        zt::ImportHook hook("HeapFree", reinterpret_cast<void*>(&FailingHeapFree));
        EXPECT_EQ(PltFree(&p, kTag), static_cast<uint32_t>(ERROR_INVALID_BLOCK));
    }
    EXPECT_EQ(p, kept);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.LiveAllocCount, 0xFFFFFFFFu);
    EXPECT_EQ(d.LiveAllocBytes, static_cast<uint64_t>(-40));
    EXPECT_EQ(d.LiveAllocBySize[1], 0xFFFFFFFFu);
    HeapFree(GetProcessHeap(), 0, static_cast<char*>(p) - 8);  // counters already down
}

TEST(PltMalloc, ManyPairsBringLiveCountersBackAndGrowTotals) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    const uint32_t sizes[] = {0, 10, 100, 1000, 10000, 100000, 200000, 500000, 2000000};
    std::vector<void*> blocks;
    uint64_t bytes = 0;
    for (uint32_t s : sizes) {
        void* p = nullptr;
        ASSERT_EQ(PltMalloc(&p, s, 1, kTag), 0u);
        blocks.push_back(p);
        bytes += s;
    }
    for (void*& p : blocks) ASSERT_EQ(PltFree(&p, kTag), 0u);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.AllocCount, 9u);
    EXPECT_EQ(d.AllocBytes, bytes);
    uint32_t total = 0;
    for (int b = 0; b < PLT_SIZE_BUCKETS; ++b) total += d.AllocBySize[b];
    EXPECT_EQ(total, 9u);
    EXPECT_NO_LEAKS(before);
}

TEST(PltMalloc, ConcurrentPairsKeepCountersExact) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    const int kRounds = 20000;
    auto work = [] {
        for (int i = 0; i < kRounds; ++i) {
            void* p = nullptr;
            if (PltMalloc(&p, static_cast<uint32_t>(i % 300), 0, kTag) != 0) return;
            PltFree(&p, kTag);
        }
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.AllocCount, 2u * kRounds);
    EXPECT_NO_LEAKS(before);
}

// The wrap above 0xFFFFFFF7: a fake heap hands out guarded blocks of exactly
// the requested size, so any write beyond the block faults.
struct WrapHeap {
    static zt::GuardedBuffer* block;
    static SIZE_T requested;
    static LPVOID WINAPI Alloc(HANDLE, DWORD, SIZE_T bytes) {
        requested = bytes;
        block = new zt::GuardedBuffer(bytes);
        return block->data();
    }
    static BOOL WINAPI Free(HANDLE, DWORD, LPVOID p) {
        if (block == nullptr || p != block->data()) return FALSE;
        delete block;
        block = nullptr;
        return TRUE;
    }
};
zt::GuardedBuffer* WrapHeap::block;
SIZE_T WrapHeap::requested;

TEST(PltMalloc, SizeThatWrapsKeepsHeaderAndCountersConsistentWithoutOverrun) {
    for (uint32_t size : {0xFFFFFFF8u, 0xFFFFFFFCu, 0xFFFFFFFFu}) {
        PLT_RESOURCE_STATS before = zt::Snapshot();
        zt::ImportHook alloc("HeapAlloc", reinterpret_cast<void*>(&WrapHeap::Alloc));
        zt::ImportHook release("HeapFree", reinterpret_cast<void*>(&WrapHeap::Free));
        void* p = nullptr;
        ASSERT_EQ(PltMalloc(&p, size, 1, kTag), 0u) << size;
        // The block still holds its header, however small the wrapped request.
        EXPECT_GE(WrapHeap::requested, 8u);
        EXPECT_LT(WrapHeap::requested, 16u);
        EXPECT_EQ(HeaderOf(p).tag, kTag);
        EXPECT_EQ(HeaderOf(p).size, size);
        PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
        EXPECT_EQ(d.AllocBytes, size);
        EXPECT_EQ(d.LiveAllocBySize[9], 1u);
        EXPECT_EQ(PltFree(&p, kTag), 0u);
        EXPECT_NO_LEAKS(before);
    }
}

LPVOID WINAPI RecordOnlyHeapAlloc(HANDLE, DWORD, SIZE_T bytes) {
    WrapHeap::requested = bytes;
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
}

TEST(PltMalloc, LargestSizeBeforeTheWrapAsksTheHeapForAllOfIt) {
    zt::ImportHook alloc("HeapAlloc", reinterpret_cast<void*>(&RecordOnlyHeapAlloc));
    void* p = nullptr;
    EXPECT_EQ(PltMalloc(&p, 4294967287u, 1, kTag), 8u);
    EXPECT_EQ(WrapHeap::requested, 0xFFFFFFFFu);
    EXPECT_EQ(p, nullptr);
}

TEST(UpdateMemoryUsage, MovesOnlyTheBuckets) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(UpdateMemoryUsage(5000, 1), 0u);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    PLT_RESOURCE_STATS expected = {};
    expected.AllocBySize[5] = 1;
    expected.LiveAllocBySize[5] = 1;
    EXPECT_EQ(memcmp(&d, &expected, sizeof d), 0);

    EXPECT_EQ(UpdateMemoryUsage(5000, 0), 0u);
    d = zt::Delta(before, zt::Snapshot());
    expected.LiveAllocBySize[5] = 0;
    EXPECT_EQ(memcmp(&d, &expected, sizeof d), 0) << "a decrement leaves AllocBySize alone";
}

TEST(PltGetResourceStats, ReturnsZeroAndLeavesReservedWordsZero) {
    PLT_RESOURCE_STATS s;
    memset(&s, 0xEE, sizeof s);
    EXPECT_EQ(PltGetResourceStats(&s), 0u);
    EXPECT_EQ(s.Reserved1, 0u);
    EXPECT_EQ(s.Reserved2, 0u);
    EXPECT_GE(s.AllocCount, s.LiveAllocCount);
}

}  // namespace
