// Tagged allocation and the resource counters, through the exports.
#include <string.h>
#include <windows.h>

#include <thread>

#include <gtest/gtest.h>
#include <zendra/platform.h>

#include "counters.h"
#include "guarded_buffer.h"
#include "heap_failure.h"
#include "import_failure.h"

namespace {

const uint32_t kTag = PLT_TAG('T', 'E', 'S', 'T');

struct Header {
    uint32_t tag;
    uint32_t size;
};
const Header& HeaderOf(const void* block) { return static_cast<const Header*>(block)[-1]; }

TEST(PltMalloc, CountsEachSizeInItsBucketAndFreeTakesItBack) {
    const struct {
        uint32_t size;
        int bucket;
    } cases[] = {{0, 0},      {32, 0},     {33, 1},      {128, 1},     {129, 2},
                 {512, 2},    {513, 3},    {1024, 3},    {1025, 4},    {4096, 4},
                 {4097, 5},   {32768, 5},  {32769, 6},   {131072, 6},  {131073, 7},
                 {262144, 7}, {262145, 8}, {1048576, 8}, {1048577, 9}, {3000000, 9}};
    for (const auto& c : cases) {
        PLT_RESOURCE_STATS before = zt::Snapshot();
        void* p = nullptr;
        ASSERT_EQ(PltMalloc(&p, c.size, 0, kTag), 0u);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(HeaderOf(p).tag, kTag);
        EXPECT_EQ(HeaderOf(p).size, c.size);
        PLT_RESOURCE_STATS expected{
            .AllocCount = 1, .AllocBytes = c.size, .LiveAllocCount = 1, .LiveAllocBytes = c.size};
        expected.AllocBySize[c.bucket] = expected.LiveAllocBySize[c.bucket] = 1;
        EXPECT_TRUE(zt::DeltaIs(before, expected)) << "size " << c.size;
        EXPECT_EQ(PltFree(&p, kTag), 0u);
        EXPECT_EQ(p, nullptr);
        EXPECT_NO_LEAKS(before);
    }
}

TEST(PltMalloc, TagIsFourCharactersFirstInTheLowestByteAndZeroIsCountedApart) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    void *tagged = nullptr, *untagged = nullptr;
    ASSERT_EQ(PltMalloc(&tagged, 8, 0, kTag), 0u);
    ASSERT_EQ(PltMalloc(&untagged, 8, 0, 0), 0u);
    EXPECT_EQ(memcmp(&HeaderOf(tagged).tag, "TEST", 4), 0);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(tagged) % 8, 0u);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).UntaggedAllocCount, 1u);
    EXPECT_EQ(PltFree(&tagged, kTag), 0u);
    EXPECT_EQ(PltFree(&untagged, 0), 0u);
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
    void *zeroed = nullptr, *plain = nullptr;
    ASSERT_EQ(PltMalloc(&zeroed, 300, 1 | 16, kTag), 0u);
    ASSERT_EQ(PltMalloc(&plain, 300, 16, kTag), 0u);
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(static_cast<uint8_t*>(zeroed)[i], 0) << i;
        ASSERT_EQ(static_cast<uint8_t*>(plain)[i], 0xAB) << i;
    }
    EXPECT_EQ(PltFree(&zeroed, kTag), 0u);
    EXPECT_EQ(PltFree(&plain, kTag), 0u);
}

TEST(PltMalloc, FailuresCountOnlyTheUntaggedRequest) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(PltMalloc(nullptr, 16, 0, 0), 87u);
    void* p = reinterpret_cast<void*>(0x1234);
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(PltMalloc(&p, 64, 1, 0), 8u);
        EXPECT_EQ(p, nullptr);
        EXPECT_EQ(PltMalloc(&p, 64, 0, kTag), 8u);
    }
    EXPECT_DELTA(before, {.UntaggedAllocCount = 1});
}

TEST(PltFree, WrongTagIsCountedButFreedAndNullPointersGive87) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    void* p = nullptr;
    ASSERT_EQ(PltMalloc(&p, 100, 0, kTag), 0u);
    EXPECT_EQ(PltFree(&p, PLT_TAG('O', 'T', 'H', 'R')), 0u);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(PltFree(&p, kTag), 87u) << "a second free through the nulled pointer";
    EXPECT_EQ(PltFree(nullptr, kTag), 87u);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).TagMismatchCount, 1u);
    EXPECT_NO_LEAKS(before);
}

TEST(PltFree, HeapFreeFailureKeepsThePointerWhileTheCountersGoDown) {
    void* p = nullptr;
    ASSERT_EQ(PltMalloc(&p, 40, 0, kTag), 0u);
    PLT_RESOURCE_STATS before = zt::Snapshot();
    void* kept = p;
    {
        ZT_FAIL_IMPORT(HeapFree, ERROR_INVALID_BLOCK);
        EXPECT_EQ(PltFree(&p, kTag), static_cast<uint32_t>(ERROR_INVALID_BLOCK));
    }
    EXPECT_EQ(p, kept);
    PLT_RESOURCE_STATS expected{.LiveAllocCount = 0xFFFFFFFF,
                                .LiveAllocBytes = static_cast<uint64_t>(-40)};
    expected.LiveAllocBySize[1] = 0xFFFFFFFF;
    EXPECT_TRUE(zt::DeltaIs(before, expected));
    HeapFree(GetProcessHeap(), 0, static_cast<char*>(p) - 8);
}

TEST(PltMalloc, ConcurrentPairsKeepCountersExact) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    const int kRounds = 20000;
    auto work = [] {
        for (int i = 0; i < kRounds; ++i) {
            void* p = nullptr;
            if (PltMalloc(&p, static_cast<uint32_t>(i % 300), 0, kTag) == 0) PltFree(&p, kTag);
        }
    };
    std::thread a(work), b(work);
    a.join();
    b.join();
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).AllocCount, 2u * kRounds);
    EXPECT_NO_LEAKS(before);
}

// Sizes above 0xFFFFFFF7 wrap the request: a fake heap hands out guarded
// blocks of exactly the requested size, so any write beyond them faults.
zt::GuardedBuffer* g_block;
SIZE_T g_requested;
LPVOID WINAPI GuardedAlloc(HANDLE, DWORD, SIZE_T bytes) {
    g_requested = bytes;
    g_block = new zt::GuardedBuffer(bytes);
    return g_block->data();
}
BOOL WINAPI GuardedFree(HANDLE, DWORD, LPVOID p) {
    if (g_block == nullptr || p != g_block->data()) return FALSE;
    delete g_block;
    g_block = nullptr;
    return TRUE;
}
LPVOID WINAPI RecordOnlyAlloc(HANDLE, DWORD, SIZE_T bytes) {
    g_requested = bytes;
    return nullptr;
}

TEST(PltMalloc, WrappingSizesKeepHeaderAndCountersWithoutOverrun) {
    for (uint32_t size : {0xFFFFFFF8u, 0xFFFFFFFCu, 0xFFFFFFFFu}) {
        PLT_RESOURCE_STATS before = zt::Snapshot();
        zt::ImportHook alloc("HeapAlloc", reinterpret_cast<void*>(&GuardedAlloc));
        zt::ImportHook release("HeapFree", reinterpret_cast<void*>(&GuardedFree));
        void* p = nullptr;
        ASSERT_EQ(PltMalloc(&p, size, 1, kTag), 0u) << size;
        EXPECT_GE(g_requested, 8u) << "the block still holds its header";
        EXPECT_LT(g_requested, 16u);
        EXPECT_EQ(HeaderOf(p).size, size);
        EXPECT_EQ(zt::Delta(before, zt::Snapshot()).AllocBytes, size);
        EXPECT_EQ(zt::Delta(before, zt::Snapshot()).LiveAllocBySize[9], 1u);
        EXPECT_EQ(PltFree(&p, kTag), 0u);
        EXPECT_NO_LEAKS(before);
    }
    zt::ImportHook alloc("HeapAlloc", reinterpret_cast<void*>(&RecordOnlyAlloc));
    void* p = nullptr;
    EXPECT_EQ(PltMalloc(&p, 4294967287u, 1, kTag), 8u);
    EXPECT_EQ(g_requested, 0xFFFFFFFFu) << "the largest size before the wrap asks for all of it";
}

TEST(UpdateMemoryUsage, MovesOnlyTheBuckets) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(UpdateMemoryUsage(5000, 1), 0u);
    PLT_RESOURCE_STATS expected{};
    expected.AllocBySize[5] = expected.LiveAllocBySize[5] = 1;
    EXPECT_TRUE(zt::DeltaIs(before, expected));
    EXPECT_EQ(UpdateMemoryUsage(5000, 0), 0u);
    expected.LiveAllocBySize[5] = 0;
    EXPECT_TRUE(zt::DeltaIs(before, expected)) << "a decrement leaves AllocBySize alone";
}

TEST(PltGetResourceStats, ReturnsZeroAndLeavesReservedWordsZero) {
    PLT_RESOURCE_STATS s;
    memset(&s, 0xEE, sizeof s);
    EXPECT_EQ(PltGetResourceStats(&s), 0u);
    EXPECT_EQ(s.Reserved1 | s.Reserved2, 0u);
    EXPECT_GE(s.AllocCount, s.LiveAllocCount);
}

}  // namespace
