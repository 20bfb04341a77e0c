// Tagged allocation and the resource counters, the page size, system error
// texts, the fixed-result exports and the export table itself.
#include <string.h>

#include <map>
#include <set>
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
        EXPECT_NO_LEAKS(before) << "size " << size;
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
        EXPECT_NO_LEAKS(before);
    }
}

TEST(ResourceStats, UpdateMemoryUsageMovesOnlyTheBucketsAndReservedStayZero) {
    PLT_RESOURCE_STATS before = zt::Snapshot(), expected{}, s;
    expected.AllocBySize[5] = expected.LiveAllocBySize[5] = 1;
    EXPECT_EQ(UpdateMemoryUsage(5000, 1), 0u);
    EXPECT_TRUE(zt::DeltaIs(before, expected));
    EXPECT_EQ(UpdateMemoryUsage(5000, 0), 0u);
    expected.LiveAllocBySize[5] = 0;
    EXPECT_TRUE(zt::DeltaIs(before, expected)) << "a decrement leaves AllocBySize alone";
    memset(&s, 0xEE, sizeof s);
    EXPECT_EQ(PltGetResourceStats(&s), 0u);
    EXPECT_EQ(s.Reserved1 | s.Reserved2, 0u);
}

BOOL WINAPI ClaimWow64(HANDLE, PBOOL wow64) { return *wow64 = TRUE; }
void WINAPI NativeInfoWith64K(LPSYSTEM_INFO info) { info->dwPageSize = 65536; }

TEST(SystemInfo, PageSizeErrorTextsAndFixedResults) {
    uint32_t size = 0, len = 0xDEAD, capacity = 4;
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    EXPECT_EQ(PltGetMemoryPageSize(&size) + PltGetMemoryPageSize(nullptr), 87u);
    EXPECT_EQ(size, info.dwPageSize);
    {
        zt::ImportHook wow("IsWow64Process", reinterpret_cast<void*>(&ClaimWow64));
        zt::ImportHook native("GetNativeSystemInfo", reinterpret_cast<void*>(&NativeInfoWith64K));
        EXPECT_EQ(PltGetMemoryPageSize(&size), 0u);
        EXPECT_EQ(size, 65536u) << "the native page size under WOW64";
    }
    {
        ZT_FAIL_IMPORT(IsWow64Process, ERROR_ACCESS_DENIED);
        EXPECT_EQ(PltGetMemoryPageSize(&size), static_cast<uint32_t>(ERROR_ACCESS_DENIED));
        EXPECT_EQ(size, 4096u);
    }
    wchar_t expected[512], text[512];
    DWORD n = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                             87, 1024, expected, 512, nullptr);
    ASSERT_EQ(PltGetSystemErrorMsg(87, nullptr, &len) + PltGetSystemErrorMsg(5, nullptr, nullptr),
              0u);
    ASSERT_EQ(len, n);
    uint32_t room = len + 1;
    ASSERT_EQ(PltGetSystemErrorMsg(87, text, &room), 0u);
    EXPECT_TRUE(wcscmp(text, expected) == 0 && room == len + 1) << "the length is left alone";
    EXPECT_EQ(PltGetSystemErrorMsg(0x2000BEEF, nullptr, &len) +
                  PltGetSystemErrorMsg(0x2000BEEF, text, &room),
              2u * ERROR_MR_MID_NOT_FOUND);
    EXPECT_EQ(len, 0u) << "cleared before the lookup";
    EXPECT_EQ(PltGetSystemErrorMsg(5, text, &capacity), (uint32_t)ERROR_INSUFFICIENT_BUFFER);
    EXPECT_NE(PltGetSystemErrorMsg(5, text, nullptr), 0u) << "no length: no capacity";
    uint32_t (*const zero[])() = {PltBugCheck,
                                  PltCrashMe,
                                  GetPagePriority,
                                  PltRaiseToSpinLockLevel,
                                  PltLowerFromSpinLockLevel,
                                  PltInitConfig,
                                  PltCleanupConfig,
                                  PltInitMemory,
                                  PltGetLogLevel,
                                  PltInitEventLog};
    for (auto fn : zero) EXPECT_EQ(fn(), 0u);
    for (auto fn : {PltLogDbg, PltLogInfo, PltLogWarning, PltLogError, PltLogFatal})
        EXPECT_EQ(fn(L"%d", 1), 120u);
    EXPECT_EQ(
        PltSetLogLevel(3) + PltIssueATAIdentifyCmdEx() + PltIssueATAWriteUncorrectableExtCmd(),
        3 * 120u);
    EXPECT_EQ(PltGetSMARTAttribsWrites() * 100000000ull + Dummy(50000000u),
              50 * 100000000ull + 705032704u)
        << "Dummy multiplies by 100 in 32 bits";
}

struct ExportEntry {
    const char* name;
    const char* target;  // empty: exported under its own name
};
const ExportEntry kExportList[] = {
#include "export_list.inc"
};

TEST(Exports, ListedNamesOnlyOneAddressPerBodyAndSystemImports) {
    auto* base = reinterpret_cast<const BYTE*>(zt::LibraryModule());
    auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(
        base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
    auto* dirs = nt->OptionalHeader.DataDirectory;
    auto* exp = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(
        base + dirs[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress);
    std::set<std::string> exported, listed;
    for (DWORD i = 0; i < exp->NumberOfNames; ++i)
        exported.insert(reinterpret_cast<const char*>(
            base + reinterpret_cast<const DWORD*>(base + exp->AddressOfNames)[i]));
    std::map<std::string, FARPROC> byBody;
    std::set<FARPROC> addresses;
    for (const ExportEntry& e : kExportList) {
        listed.insert(e.name);
        FARPROC address = GetProcAddress(zt::LibraryModule(), e.name);
        auto [it, first] = byBody.emplace(*e.target ? e.target : e.name, address);
        if (first) EXPECT_TRUE(addresses.insert(address).second) << e.name << " shares a body";
        EXPECT_TRUE(address != nullptr && it->second == address) << e.name << " and " << it->first;
    }
    EXPECT_EQ(exported, listed);
    const std::set<std::string> allowed = {"kernel32.dll", "advapi32.dll", "ws2_32.dll",
                                           "msvcrt.dll",   "user32.dll",   "shell32.dll",
                                           "ole32.dll",    "bcrypt.dll"};
    for (auto* d = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(
             base + dirs[IMAGE_DIRECTORY_ENTRY_IMPORT].VirtualAddress);
         d->Name != 0; ++d) {
        std::string name = reinterpret_cast<const char*>(base + d->Name);
        for (char& c : name) c = static_cast<char>(tolower(c));
        EXPECT_TRUE(allowed.count(name)) << "unexpected import of " << name;
    }
}

}  // namespace
