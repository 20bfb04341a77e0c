// Lookaside lists: which entry is handed out, chunk growth and compaction,
// limits, caller-supplied chunks, counters and failures.
#include <string.h>
#include <windows.h>

#include <random>
#include <set>
#include <vector>

#include <gtest/gtest.h>
#include <zendra/platform.h>

#include "counters.h"
#include "heap_failure.h"
#include "import_hook.h"
#include "sync_helpers.h"

namespace {

const uint32_t kTag = PLT_TAG('L', 'A', 'L', 'T');

uint8_t* EntryAddress(void* chunk, uint32_t entrySize, uint32_t index) {
    return static_cast<uint8_t*>(chunk) + 1048 + uint64_t{index} * entrySize;
}

TEST(Lookaside, InitCountsTheListItsLockAndItsFirstChunk) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_LOOKASIDE_LIST list;
    ASSERT_EQ(PltInitLookasideList(&list, 64, 100, PLT_NO_LIMIT, 0, nullptr, 16, kTag), 0u);
    EXPECT_EQ(list.entrySize, 64u);
    EXPECT_EQ(list.perChunk, 100u);
    EXPECT_EQ(list.chunks, 1u);
    EXPECT_EQ(list.inUse, 0u);
    EXPECT_EQ(list.tag, kTag);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.LookasideListCount, 1u);
    EXPECT_EQ(d.LiveLookasideListCount, 1u);
    EXPECT_EQ(d.CriticalSectionCount, 1u);
    EXPECT_EQ(d.AllocCount, 1u);
    EXPECT_EQ(d.AllocBytes, 1048u + 64u * 100u);
    EXPECT_EQ(static_cast<uint32_t*>(static_cast<void*>(list.first))[-2], kTag) << "chunk tag";
    PLT_LOOKASIDE_CHUNK* chunk = list.first;
    EXPECT_EQ(chunk->inUse, 0u);
    EXPECT_EQ(chunk->reserved, 0u);
    EXPECT_EQ(chunk->next, reinterpret_cast<PLT_LOOKASIDE_CHUNK*>(&list.first));
    PltFreeLookasideList(&list);
    PLT_LOOKASIDE_LIST zero{};
    EXPECT_EQ(memcmp(&list, &zero, sizeof list), 0) << "the record is zeroed";
    EXPECT_NO_LEAKS(before);
}

TEST(Lookaside, UnlockedListHasNoCriticalSection) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_LOOKASIDE_LIST list;
    ASSERT_EQ(PltInitLookasideList(&list, 8, 10, PLT_NO_LIMIT, 1, nullptr, 0, kTag), 0u);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).CriticalSectionCount, 0u);
    void* e = PltAllocateFromLookasideList(&list);
    EXPECT_NE(e, nullptr);
    PltFreeToLookasideList(&list, e);
    PltFreeLookasideList(&list);
    EXPECT_NO_LEAKS(before);
}

TEST(Lookaside, DepthAboveTheBitmapIsCappedAt8192) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_LOOKASIDE_LIST list;
    ASSERT_EQ(PltInitLookasideList(&list, 8, 10000, PLT_NO_LIMIT, 1, nullptr, 0, kTag), 0u);
    EXPECT_EQ(list.perChunk, 8192u);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).AllocBytes, 1048u + 8u * 8192u);
    void* first = list.first;
    for (uint32_t i = 0; i < 8192; ++i) {
        ASSERT_EQ(PltAllocateFromLookasideList(&list), EntryAddress(first, 8, i)) << i;
    }
    EXPECT_EQ(list.chunks, 1u);
    EXPECT_NE(PltAllocateFromLookasideList(&list), nullptr);
    EXPECT_EQ(list.chunks, 2u);
    PltFreeLookasideList(&list);
    EXPECT_NO_LEAKS(before);
}

TEST(Lookaside, MaxInUseRefusesUntilAnEntryComesBack) {
    PLT_LOOKASIDE_LIST list;
    ASSERT_EQ(PltInitLookasideList(&list, 16, 10, 3, 0, nullptr, 0, kTag), 0u);
    void* a = PltAllocateFromLookasideList(&list);
    void* b = PltAllocateFromLookasideList(&list);
    void* c = PltAllocateFromLookasideList(&list);
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(PltAllocateFromLookasideList(&list), nullptr);
    EXPECT_EQ(list.inUse, 3u);
    PltFreeToLookasideList(&list, b);
    EXPECT_EQ(PltAllocateFromLookasideList(&list), b);
    PltFreeToLookasideList(&list, a);
    PltFreeLookasideList(&list);
}

TEST(Lookaside, GrowsByAChunkAndCompactionFreesEmptyOnes) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_LOOKASIDE_LIST list;
    ASSERT_EQ(PltInitLookasideList(&list, 32, 4, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 0u);
    std::vector<void*> entries;
    for (int i = 0; i < 5; ++i) entries.push_back(PltAllocateFromLookasideList(&list));
    EXPECT_EQ(list.chunks, 2u);
    EXPECT_EQ(list.last->inUse, 1u);
    PLT_RESOURCE_STATS grown = zt::Snapshot();
    PltFreeToLookasideList(&list, entries[4]);
    PltCompactLookasideList(&list);
    EXPECT_EQ(list.chunks, 1u);
    PLT_RESOURCE_STATS d = zt::Delta(grown, zt::Snapshot());
    EXPECT_EQ(d.LiveAllocCount, 0xFFFFFFFFu) << "one chunk freed";
    EXPECT_EQ(d.LiveAllocBytes, static_cast<uint64_t>(-(1048 + 32 * 4)));
    EXPECT_EQ(d.TagMismatchCount, 0u) << "chunks are freed under the list's tag";
    for (int i = 0; i < 4; ++i) PltFreeToLookasideList(&list, entries[i]);
    PltCompactLookasideList(&list);
    EXPECT_EQ(list.chunks, 0u) << "the first chunk is no exception";
    void* again = PltAllocateFromLookasideList(&list);
    EXPECT_NE(again, nullptr);
    EXPECT_EQ(list.chunks, 1u);
    PltFreeLookasideList(&list);
    EXPECT_NO_LEAKS(before);
}

TEST(Lookaside, FreedEntryIsHandedOutAgainAndKeepsItsContents) {
    PLT_LOOKASIDE_LIST list;
    ASSERT_EQ(PltInitLookasideList(&list, 24, 8, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 0u);
    auto* a = static_cast<char*>(PltAllocateFromLookasideList(&list));
    auto* b = static_cast<char*>(PltAllocateFromLookasideList(&list));
    EXPECT_EQ(b, a + 24);
    strcpy(a, "still here");
    PltFreeToLookasideList(&list, a);
    EXPECT_EQ(PltAllocateFromLookasideList(&list), a);
    EXPECT_STREQ(a, "still here") << "entries are never cleared on reuse";
    PltFreeLookasideList(&list);
}

TEST(Lookaside, AnAddressInsideAnEntryFreesThatEntry) {
    PLT_LOOKASIDE_LIST list;
    ASSERT_EQ(PltInitLookasideList(&list, 24, 8, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 0u);
    auto* a = static_cast<char*>(PltAllocateFromLookasideList(&list));
    auto* b = static_cast<char*>(PltAllocateFromLookasideList(&list));
    PltFreeToLookasideList(&list, a + 23);
    EXPECT_EQ(list.inUse, 1u);
    EXPECT_EQ(PltAllocateFromLookasideList(&list), a);
    PltFreeToLookasideList(&list, b);
    PltFreeLookasideList(&list);
}

TEST(Lookaside, AddressesOutsideEveryChunkAndDoubleFreesChangeNothing) {
    PLT_LOOKASIDE_LIST list;
    ASSERT_EQ(PltInitLookasideList(&list, 16, 4, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 0u);
    void* a = PltAllocateFromLookasideList(&list);
    auto* chunk = reinterpret_cast<uint8_t*>(list.first);
    int local = 0;
    PLT_LOOKASIDE_CHUNK header;
    memcpy(&header, list.first, sizeof header);
    for (void* foreign :
         {static_cast<void*>(&local), static_cast<void*>(chunk + 100),
          static_cast<void*>(chunk + 1048 + 16 * 4), static_cast<void*>(chunk - 1)}) {
        PltFreeToLookasideList(&list, foreign);
        EXPECT_EQ(list.inUse, 1u);
        EXPECT_EQ(memcmp(&header, list.first, sizeof header), 0);
    }
    PltFreeToLookasideList(&list, a);
    PltFreeToLookasideList(&list, a);
    EXPECT_EQ(list.inUse, 0u) << "a double free is ignored";
    EXPECT_EQ(list.first->inUse, 0u);
    PltFreeLookasideList(&list);
}

TEST(Lookaside, CallersFirstChunkIsUsedAndFreedLikeAnyOther) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    void* chunk = nullptr;
    ASSERT_EQ(PltMalloc(&chunk, 1048 + 40 * 5, 0, kTag), 0u);
    memset(chunk, 0xEE, 1048 + 40 * 5);
    PLT_RESOURCE_STATS afterChunk = zt::Snapshot();
    PLT_LOOKASIDE_LIST list;
    ASSERT_EQ(PltInitLookasideList(&list, 40, 5, PLT_NO_LIMIT, 0, chunk, 0, kTag), 0u);
    EXPECT_EQ(zt::Delta(afterChunk, zt::Snapshot()).AllocCount, 0u) << "no chunk allocated";
    EXPECT_EQ(static_cast<void*>(list.first), chunk);
    EXPECT_EQ(list.first->bitmap[0], 0u) << "the header is zeroed";
    EXPECT_EQ(list.first->reserved, 0u);
    EXPECT_EQ(PltAllocateFromLookasideList(&list), EntryAddress(chunk, 40, 0));
    PltFreeLookasideList(&list);
    EXPECT_NO_LEAKS(before);
}

TEST(Lookaside, ChunksComeFromPltMallocWithTheListsFlags) {
    // A heap that hands out dirty blocks shows which chunks were zero-filled.
    struct Dirty {
        static LPVOID WINAPI Alloc(HANDLE heap, DWORD flags, SIZE_T bytes) {
            void* p = HeapAlloc(heap, flags, bytes);
            if (p != nullptr) memset(p, 0xAB, bytes);
            return p;
        }
    };
    zt::ImportHook hook("HeapAlloc", reinterpret_cast<void*>(&Dirty::Alloc));
    PLT_LOOKASIDE_LIST zeroed, plain;
    ASSERT_EQ(PltInitLookasideList(&zeroed, 16, 4, PLT_NO_LIMIT, 0, nullptr, 1, kTag), 0u);
    ASSERT_EQ(PltInitLookasideList(&plain, 16, 4, PLT_NO_LIMIT, 0, nullptr, 16, kTag), 0u);
    auto* z = static_cast<uint8_t*>(PltAllocateFromLookasideList(&zeroed));
    auto* p = static_cast<uint8_t*>(PltAllocateFromLookasideList(&plain));
    EXPECT_EQ(z[0], 0);
    EXPECT_EQ(p[0], 0xAB);
    EXPECT_EQ(plain.first->bitmap[1], 0u) << "the chunk header is zeroed whatever the flags";
    PltFreeLookasideList(&zeroed);
    PltFreeLookasideList(&plain);
}

// A model of the list: chunks in creation order with their free entries. The
// list must hand out exactly the lowest free entry of the oldest chunk with
// room, whatever the pattern of frees and compactions.
TEST(Lookaside, HandsOutTheLowestFreeEntryOfTheOldestChunkWithRoom) {
    const uint32_t kEntry = 16, kDepth = 70;  // two bitmap words per chunk
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_LOOKASIDE_LIST list;
    ASSERT_EQ(PltInitLookasideList(&list, kEntry, kDepth, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 0u);
    struct ModelChunk {
        uint8_t* base;
        std::vector<bool> used;
    };
    std::vector<ModelChunk> model{
        {reinterpret_cast<uint8_t*>(list.first), std::vector<bool>(kDepth, false)}};
    std::vector<uint8_t*> live;
    std::mt19937 rng(1234);
    for (int step = 0; step < 20000; ++step) {
        int action = static_cast<int>(rng() % 100);
        if (action < 55 || live.empty()) {
            uint8_t* got = static_cast<uint8_t*>(PltAllocateFromLookasideList(&list));
            ASSERT_NE(got, nullptr);
            uint8_t* expected = nullptr;
            for (ModelChunk& c : model) {
                for (uint32_t i = 0; i < kDepth && expected == nullptr; ++i) {
                    if (!c.used[i]) {
                        c.used[i] = true;
                        expected = c.base + 1048 + i * kEntry;
                    }
                }
                if (expected != nullptr) break;
            }
            if (expected == nullptr) {  // a new chunk: learn where it lives
                model.push_back({got - 1048, std::vector<bool>(kDepth, false)});
                model.back().used[0] = true;
                expected = got;
            }
            ASSERT_EQ(got, expected) << "step " << step;
            live.push_back(got);
        } else if (action < 99) {
            size_t pick = rng() % live.size();
            uint8_t* entry = live[pick];
            live.erase(live.begin() + static_cast<long>(pick));
            PltFreeToLookasideList(&list, entry);
            for (ModelChunk& c : model) {
                if (entry >= c.base + 1048 && entry < c.base + 1048 + kDepth * kEntry)
                    c.used[(entry - c.base - 1048) / kEntry] = false;
            }
        } else {
            PltCompactLookasideList(&list);
            std::vector<ModelChunk> kept;
            for (ModelChunk& c : model) {
                bool any = false;
                for (bool u : c.used) any |= u;
                if (any) kept.push_back(c);
            }
            model.swap(kept);
            ASSERT_EQ(list.chunks, model.size());
        }
        ASSERT_EQ(list.inUse, live.size());
    }
    PltFreeLookasideList(&list);
    EXPECT_NO_LEAKS(before);
}

TEST(Lookaside, LockedListHandsEachEntryToOneThreadAtATime) {
    PLT_LOOKASIDE_LIST list;
    ASSERT_EQ(PltInitLookasideList(&list, 8, 64, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 0u);
    volatile LONG clashes = 0;
    auto body = [&](uint64_t id) {
        for (int i = 0; i < 20000; ++i) {
            auto* e = static_cast<volatile uint64_t*>(PltAllocateFromLookasideList(&list));
            if (e == nullptr) {
                InterlockedIncrement(&clashes);
                return;
            }
            *e = id;
            YieldProcessor();
            if (*e != id) InterlockedIncrement(&clashes);
            PltFreeToLookasideList(&list, const_cast<uint64_t*>(e));
        }
    };
    {
        zt::TestThread a([&] { body(1); }), b([&] { body(2); }), c([&] { body(3); });
    }
    EXPECT_EQ(clashes, 0);
    EXPECT_EQ(list.inUse, 0u);
    PltFreeLookasideList(&list);
}

TEST(Lookaside, BadArgumentsAreRefused) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_LOOKASIDE_LIST list;
    EXPECT_EQ(PltInitLookasideList(nullptr, 8, 8, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 87u);
    EXPECT_EQ(PltInitLookasideList(&list, 0, 8, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 87u);
    EXPECT_EQ(PltInitLookasideList(&list, 8, 0, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 87u);
    EXPECT_EQ(PltAllocateFromLookasideList(nullptr), nullptr);
    PltFreeToLookasideList(nullptr, &list);
    PltCompactLookasideList(nullptr);
    PltFreeLookasideList(nullptr);
    EXPECT_NO_LEAKS(before);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).LookasideListCount, 0u);
}

TEST(Lookaside, AFreedListIsInert) {
    PLT_LOOKASIDE_LIST list;
    ASSERT_EQ(PltInitLookasideList(&list, 8, 8, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 0u);
    PltFreeLookasideList(&list);
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(PltAllocateFromLookasideList(&list), nullptr);
    PltCompactLookasideList(&list);
    PltFreeLookasideList(&list);
    EXPECT_NO_LEAKS(before);
}

TEST(Lookaside, FirstChunkFailureReturns8AndKeepsOnlyTheLockUntilFreed) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_LOOKASIDE_LIST list;
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(PltInitLookasideList(&list, 8, 8, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 8u);
    }
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.LiveCriticalSectionCount, 1u) << "the lock stays initialised and counted";
    EXPECT_EQ(d.LookasideListCount, 0u);
    EXPECT_EQ(PltAllocateFromLookasideList(&list), nullptr);
    PltFreeLookasideList(&list);
    EXPECT_NO_LEAKS(before);
}

TEST(Lookaside, ChunkSizeBeyond32BitsIsRefusedRatherThanWrapped) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_LOOKASIDE_LIST list;
    EXPECT_EQ(PltInitLookasideList(&list, 0x100000, 8192, PLT_NO_LIMIT, 1, nullptr, 0, kTag), 8u);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).AllocCount, 0u);
    PltFreeLookasideList(&list);
    EXPECT_NO_LEAKS(before);
}

TEST(Lookaside, NewChunkFailureReturnsNullAndTheListCarriesOn) {
    PLT_LOOKASIDE_LIST list;
    ASSERT_EQ(PltInitLookasideList(&list, 8, 2, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 0u);
    void* a = PltAllocateFromLookasideList(&list);
    void* b = PltAllocateFromLookasideList(&list);
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(PltAllocateFromLookasideList(&list), nullptr);
    }
    EXPECT_EQ(list.chunks, 1u);
    EXPECT_EQ(list.inUse, 2u);
    PltFreeToLookasideList(&list, a);
    EXPECT_EQ(PltAllocateFromLookasideList(&list), a);
    PltFreeToLookasideList(&list, b);
    PltFreeLookasideList(&list);
}

}  // namespace
