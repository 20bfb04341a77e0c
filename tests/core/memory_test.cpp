// Tagged allocation and the resource counters, through the exports.
#include <string.h>

#include "zt.h"

namespace {

const uint32_t kTag = PLT_TAG('T', 'E', 'S', 'T');

const uint32_t* HeaderOf(const void* block) { return static_cast<const uint32_t*>(block) - 2; }

TEST(PltMalloc, CountsEachSizeInItsBucketAndFreeTakesItBack) {
    const uint32_t bounds[][2] = {{0, 0},       {32, 0},     {33, 1},      {128, 1},   {129, 2},
                                  {512, 2},     {513, 3},    {1024, 3},    {1025, 4},  {4096, 4},
                                  {4097, 5},    {32768, 5},  {32769, 6},   {131072, 6},
                                  {131073, 7},  {262144, 7}, {262145, 8},  {1048576, 8},
                                  {1048577, 9}};
    for (const auto& [size, bucket] : bounds) {
        PLT_RESOURCE_STATS before = zt::Snapshot();
        void* p = nullptr;
        ASSERT_EQ(PltMalloc(&p, size, 0, kTag), 0u);
        EXPECT_EQ(HeaderOf(p)[0], kTag);
        EXPECT_EQ(HeaderOf(p)[1], size);
        PLT_RESOURCE_STATS expected{
            .AllocCount = 1, .AllocBytes = size, .LiveAllocCount = 1, .LiveAllocBytes = size};
        expected.AllocBySize[bucket] = expected.LiveAllocBySize[bucket] = 1;
        EXPECT_TRUE(zt::DeltaIs(before, expected)) << "size " << size;
        EXPECT_EQ(PltFree(&p, kTag), 0u);
        EXPECT_EQ(p, nullptr);
        EXPECT_NO_LEAKS(before) << "size " << size;
    }
}

// Hands out heap blocks pre-filled with 0xAB, so that the zero fill shows.
LPVOID WINAPI DirtyHeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes) {
    void* p = HeapAlloc(heap, flags, bytes);
    if (p != nullptr) memset(p, 0xAB, bytes);
    return p;
}

TEST(PltMalloc, TagBytesUntaggedCountAndZeroFill) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    zt::ImportHook hook("HeapAlloc", reinterpret_cast<void*>(&DirtyHeapAlloc));
    void *zeroed = nullptr, *plain = nullptr;
    ASSERT_EQ(PltMalloc(&zeroed, 300, PLT_ALLOC_ZERO | 16, kTag), 0u);
    ASSERT_EQ(PltMalloc(&plain, 300, 16, 0), 0u);
    EXPECT_EQ(memcmp(HeaderOf(zeroed), "TEST", 4), 0) << "first character in the lowest byte";
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(static_cast<uint8_t*>(zeroed)[i], 0) << i;
        ASSERT_EQ(static_cast<uint8_t*>(plain)[i], 0xAB) << i;
    }
    EXPECT_EQ(PltFree(&zeroed, kTag) | PltFree(&plain, 0), 0u);
    PLT_RESOURCE_STATS expected{.AllocCount = 2, .AllocBytes = 600, .UntaggedAllocCount = 1};
    expected.AllocBySize[2] = 2;
    EXPECT_TRUE(zt::DeltaIs(before, expected));
}

TEST(PltMalloc, FailuresAndWrongTags) {
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
    // A wrong tag is counted, never refused; a nulled pointer is refused.
    ASSERT_EQ(PltMalloc(&p, 100, 0, kTag), 0u);
    EXPECT_EQ(PltFree(&p, PLT_TAG('O', 'T', 'H', 'R')), 0u);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(PltFree(&p, kTag), 87u);
    EXPECT_EQ(PltFree(nullptr, kTag), 87u);
    PLT_RESOURCE_STATS expected{.AllocCount = 1, .AllocBytes = 100, .UntaggedAllocCount = 1,
                                .TagMismatchCount = 1};
    expected.AllocBySize[1] = 1;
    EXPECT_TRUE(zt::DeltaIs(before, expected));
    // A failing HeapFree keeps the pointer while the counters go down.
    ASSERT_EQ(PltMalloc(&p, 40, 0, kTag), 0u);
    PLT_RESOURCE_STATS allocated = zt::Snapshot();
    void* kept = p;
    {
        ZT_FAIL_IMPORT(HeapFree, ERROR_INVALID_BLOCK);
        EXPECT_EQ(PltFree(&p, kTag), static_cast<uint32_t>(ERROR_INVALID_BLOCK));
    }
    EXPECT_EQ(p, kept);
    expected = {.LiveAllocCount = 0xFFFFFFFF, .LiveAllocBytes = static_cast<uint64_t>(-40)};
    expected.LiveAllocBySize[1] = 0xFFFFFFFF;
    EXPECT_TRUE(zt::DeltaIs(allocated, expected));
    HeapFree(GetProcessHeap(), 0, static_cast<char*>(p) - 8);
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
    bool ours = g_block != nullptr && p == g_block->data();
    delete g_block;
    g_block = nullptr;
    return ours;
}

TEST(PltMalloc, WrappingSizesKeepHeaderAndCountersWithoutOverrun) {
    for (uint32_t size : {0xFFFFFFF8u, 0xFFFFFFFFu}) {
        PLT_RESOURCE_STATS before = zt::Snapshot();
        zt::ImportHook alloc("HeapAlloc", reinterpret_cast<void*>(&GuardedAlloc));
        zt::ImportHook release("HeapFree", reinterpret_cast<void*>(&GuardedFree));
        void* p = nullptr;
        ASSERT_EQ(PltMalloc(&p, size, 1, kTag), 0u) << size;
        EXPECT_TRUE(g_requested >= 8 && g_requested < 16) << "room for the header, no more";
        EXPECT_EQ(HeaderOf(p)[1], size);
        PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
        EXPECT_TRUE(d.AllocBytes == size && d.LiveAllocBySize[9] == 1);
        EXPECT_EQ(PltFree(&p, kTag), 0u);
        EXPECT_NO_LEAKS(before);
    }
}

TEST(PltGetResourceStats, UpdateMemoryUsageMovesOnlyTheBucketsAndReservedStayZero) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(UpdateMemoryUsage(5000, 1), 0u);
    PLT_RESOURCE_STATS expected{};
    expected.AllocBySize[5] = expected.LiveAllocBySize[5] = 1;
    EXPECT_TRUE(zt::DeltaIs(before, expected));
    EXPECT_EQ(UpdateMemoryUsage(5000, 0), 0u);
    expected.LiveAllocBySize[5] = 0;
    EXPECT_TRUE(zt::DeltaIs(before, expected)) << "a decrement leaves AllocBySize alone";
    PLT_RESOURCE_STATS s;
    memset(&s, 0xEE, sizeof s);
    EXPECT_EQ(PltGetResourceStats(&s), 0u);
    EXPECT_EQ(s.Reserved1 | s.Reserved2, 0u);
}

}  // namespace
