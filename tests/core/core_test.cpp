// Tagged allocation and the resource counters, the page size, system error
// texts and the fixed-result exports.
#include <string.h>

#include <string>

#include "zt.h"

namespace {

const uint32_t kTag = PLT_TAG('T', 'E', 'S', 'T');
const uint32_t* HeaderOf(const void* block) { return static_cast<const uint32_t*>(block) - 2; }

TEST(PltMalloc, CountsEachSizeInItsBucketAndFreeTakesItBack) {
    const uint32_t bounds[][2] = {{0, 0},      {32, 0},     {33, 1},      {128, 1},    {129, 2},
                                  {512, 2},    {513, 3},    {1024, 3},    {1025, 4},   {4096, 4},
                                  {4097, 5},   {32768, 5},  {32769, 6},   {131072, 6}, {131073, 7},
                                  {262144, 7}, {262145, 8}, {1048576, 8}, {1048577, 9}};
    for (const auto& [size, bucket] : bounds) {
        PLT_RESOURCE_STATS before = zt::Snapshot(), expected{.AllocCount = 1,
                                                             .AllocBytes = size,
                                                             .LiveAllocCount = 1,
                                                             .LiveAllocBytes = size};
        expected.AllocBySize[bucket] = expected.LiveAllocBySize[bucket] = 1;
        void* p = nullptr;
        ASSERT_EQ(PltMalloc(&p, size, 0, kTag), 0u);
        EXPECT_TRUE(HeaderOf(p)[0] == kTag && HeaderOf(p)[1] == size);
        EXPECT_TRUE(zt::DeltaIs(before, expected)) << "size " << size;
        EXPECT_EQ(PltFree(&p, kTag), 0u);
        EXPECT_EQ(p, nullptr);
    }
}

// Hands out heap blocks pre-filled with 0xAB, so that the zero fill shows.
LPVOID WINAPI DirtyHeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes) {
    void* p = HeapAlloc(heap, flags, bytes);
    return p != nullptr ? memset(p, 0xAB, bytes) : nullptr;
}

TEST(PltMalloc, TagBytesZeroFillFailuresAndWrongTags) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    void *zeroed = nullptr, *plain = reinterpret_cast<void*>(1), *p = nullptr;
    {
        zt::ImportHook hook("HeapAlloc", reinterpret_cast<void*>(&DirtyHeapAlloc));
        ASSERT_EQ(PltMalloc(&zeroed, 300, PLT_ALLOC_ZERO | 16, kTag), 0u);
        ASSERT_EQ(PltMalloc(&plain, 300, 16, 0), 0u);
    }
    EXPECT_EQ(memcmp(HeaderOf(zeroed), "TEST", 4), 0) << "first character in the lowest byte";
    for (int i = 0; i < 300; ++i)
        ASSERT_EQ(static_cast<uint8_t*>(zeroed)[i] * 256 + static_cast<uint8_t*>(plain)[i], 0xAB);
    EXPECT_EQ(PltFree(&zeroed, PLT_TAG('O', 'T', 'H', 'R')) + PltFree(&plain, 0), 0u);
    EXPECT_EQ(PltFree(&plain, 0) + PltFree(nullptr, 0) + PltMalloc(nullptr, 1, 0, 0), 3 * 87u);
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(PltMalloc(&p, 64, 1, 0) + PltMalloc(&p, 64, 0, kTag), 2 * 8u);
        EXPECT_EQ(p, nullptr);
    }
    PLT_RESOURCE_STATS expected{
        .AllocCount = 2, .AllocBytes = 600, .UntaggedAllocCount = 2, .TagMismatchCount = 1};
    expected.AllocBySize[2] = 2;
    EXPECT_TRUE(zt::DeltaIs(before, expected)) << "a wrong tag is counted, never refused";
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
    g_block = new zt::GuardedBuffer(g_requested = bytes);
    return g_block->data();
}
BOOL WINAPI GuardedFree(HANDLE, DWORD, LPVOID p) {
    bool ours = g_block != nullptr && p == g_block->data();
    delete g_block;
    return g_block = nullptr, ours;
}

TEST(PltMalloc, WrappingSizesKeepHeaderAndCountersWithoutOverrun) {
    for (uint32_t size : {0xFFFFFFF8u, 0xFFFFFFFFu}) {
        PLT_RESOURCE_STATS before = zt::Snapshot();
        zt::ImportHook alloc("HeapAlloc", reinterpret_cast<void*>(&GuardedAlloc));
        zt::ImportHook release("HeapFree", reinterpret_cast<void*>(&GuardedFree));
        void* p = nullptr;
        ASSERT_EQ(PltMalloc(&p, size, 1, kTag), 0u) << size;
        EXPECT_TRUE(g_requested >= 8 && g_requested < 16 && HeaderOf(p)[1] == size);
        EXPECT_MOVED(before, {.AllocBytes = size,
                              .LiveAllocCount = 1,
                              .LiveAllocBySize = {0, 0, 0, 0, 0, 0, 0, 0, 0, 1}});
        EXPECT_EQ(PltFree(&p, kTag), 0u);
    }
}

TEST(ResourceStats, UpdateMemoryUsageMovesOnlyTheBucketsAndReservedStayZero) {
    PLT_RESOURCE_STATS before = zt::Snapshot(), s;
    EXPECT_CALLS("0 0", UpdateMemoryUsage(5000, 1), UpdateMemoryUsage(5000, 0));
    EXPECT_DELTA(before, {.AllocBySize = {0, 0, 0, 0, 0, 1}})
        << "a decrement leaves AllocBySize alone";
    memset(&s, 0xEE, sizeof s);
    EXPECT_CALLS("0 0 87", PltGetResourceStats(&s), s.Reserved1 | s.Reserved2,
                 PltGetResourceStats(nullptr));
}

BOOL WINAPI ClaimWow64(HANDLE, PBOOL wow64) { return *wow64 = TRUE; }
void WINAPI NativeInfoWith64K(LPSYSTEM_INFO info) { info->dwPageSize = 65536; }

TEST(SystemInfo, PageSizeErrorTextsAndFixedResults) {
    uint32_t size = 0, len = 0xDEAD, room = 4;
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    EXPECT_CALLS("0 1 87", PltGetMemoryPageSize(&size), size == info.dwPageSize,
                 PltGetMemoryPageSize(nullptr));
    {
        zt::ImportHook wow("IsWow64Process", reinterpret_cast<void*>(&ClaimWow64));
        zt::ImportHook native("GetNativeSystemInfo", reinterpret_cast<void*>(&NativeInfoWith64K));
        EXPECT_CALLS("0 65536", PltGetMemoryPageSize(&size), size)
            << "the native page size under WOW64";
    }
    {
        ZT_FAIL_IMPORT(IsWow64Process, ERROR_ACCESS_DENIED);
        EXPECT_CALLS("5 4096", PltGetMemoryPageSize(&size), size);
    }
    wchar_t expected[512], text[512];
    DWORD n = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                             87, 1024, expected, 512, nullptr);
    EXPECT_CALLS("122 0 0 1", PltGetSystemErrorMsg(5, text, &room),
                 PltGetSystemErrorMsg(5, nullptr, nullptr), PltGetSystemErrorMsg(87, nullptr, &len),
                 len == n);
    room = len + 1;
    EXPECT_CALLS("0 1 1", PltGetSystemErrorMsg(87, text, &room), wcscmp(text, expected) == 0,
                 room == len + 1)
        << "the buffer path leaves the length alone";
    EXPECT_CALLS("317 0 317 1", PltGetSystemErrorMsg(0x2000BEEF, nullptr, &len), len,
                 PltGetSystemErrorMsg(0x2000BEEF, text, &room),
                 PltGetSystemErrorMsg(5, text, nullptr) != 0)
        << "the length is cleared before the lookup; no length, no capacity";
    // One name per body: the names of one body share its address.
    EXPECT_CALLS("0 0 120 50 705032704", PltInitEventLog(), PltBugCheck(), PltLogDbg(L"%d", 1),
                 PltGetSMARTAttribsWrites(), Dummy(50000000u))
        << "Dummy multiplies by 100 in 32 bits";
}

}  // namespace
