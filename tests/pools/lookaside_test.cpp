// Lookaside lists: which entry is handed out, chunk growth and compaction,
// limits, caller-supplied chunks, counters and failures.
#include <string.h>

#include <random>
#include <vector>

#include "zt.h"

namespace {

const uint32_t kTag = PLT_TAG('L', 'A', 'L', 'T');

uint8_t* Entry(void* chunk, uint32_t entrySize, uint32_t index) {
    return static_cast<uint8_t*>(chunk) + 1048 + uint64_t{index} * entrySize;
}

TEST(Lookaside, InitCountsListLockAndChunkAndFreeingUndoesIt) {
    for (uint8_t unlocked : {0, 1}) {
        PLT_RESOURCE_STATS before = zt::Snapshot();
        PLT_LOOKASIDE_LIST list, zero{};
        ASSERT_EQ(PltInitLookasideList(&list, 64, 100, PLT_NO_LIMIT, unlocked, nullptr, 16, kTag),
                  0u);
        EXPECT_EQ(list.entrySize * list.perChunk * list.chunks, 64u * 100u);
        EXPECT_EQ(list.tag, kTag);
        EXPECT_EQ(reinterpret_cast<uint32_t*>(list.first)[-2], kTag) << "chunk tag";
        EXPECT_EQ(list.first->next, reinterpret_cast<PLT_LOOKASIDE_CHUNK*>(&list.first));
        PLT_RESOURCE_STATS expected{.AllocCount = 1, .AllocBytes = 1048 + 6400,
                                    .LiveAllocCount = 1, .LiveAllocBytes = 1048 + 6400,
                                    .LookasideListCount = 1, .LiveLookasideListCount = 1,
                                    .CriticalSectionCount = !unlocked,
                                    .LiveCriticalSectionCount = !unlocked};
        expected.AllocBySize[5] = expected.LiveAllocBySize[5] = 1;
        EXPECT_TRUE(zt::DeltaIs(before, expected));
        void* e = PltAllocateFromLookasideList(&list);
        EXPECT_EQ(e, Entry(list.first, 64, 0));
        PltFreeToLookasideList(&list, e);
        PltFreeLookasideList(&list);
        EXPECT_EQ(memcmp(&list, &zero, sizeof list), 0) << "the record is zeroed";
        EXPECT_NO_LEAKS(before);
    }
}

TEST(Lookaside, DepthCapMaxInUseGrowthAndCompaction) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_LOOKASIDE_LIST list;
    ASSERT_EQ(PltInitLookasideList(&list, 8, 10000, PLT_NO_LIMIT, 1, nullptr, 0, kTag), 0u);
    EXPECT_EQ(list.perChunk, 8192u);
    for (uint32_t i = 0; i < 8193; ++i) ASSERT_NE(PltAllocateFromLookasideList(&list), nullptr);
    EXPECT_EQ(list.chunks, 2u);
    PltFreeLookasideList(&list);
    ASSERT_EQ(PltInitLookasideList(&list, 32, 4, 6, 0, nullptr, 0, kTag), 0u);
    std::vector<void*> e;
    for (int i = 0; i < 6; ++i) e.push_back(PltAllocateFromLookasideList(&list));
    EXPECT_EQ(PltAllocateFromLookasideList(&list), nullptr) << "six in use: the limit";
    EXPECT_EQ(list.chunks * 10 + list.last->inUse, 22u);
    PLT_RESOURCE_STATS grown = zt::Snapshot();
    PltFreeToLookasideList(&list, e[5]);
    PltFreeToLookasideList(&list, e[4]);
    EXPECT_EQ(PltAllocateFromLookasideList(&list), e[4]) << "lowest free entry";
    PltFreeToLookasideList(&list, e[4]);
    PltCompactLookasideList(&list);
    EXPECT_EQ(list.chunks, 1u);
    PLT_RESOURCE_STATS freed{.LiveAllocCount = 0xFFFFFFFF,
                             .LiveAllocBytes = static_cast<uint64_t>(-(1048 + 32 * 4))};
    freed.LiveAllocBySize[4] = 0xFFFFFFFF;
    EXPECT_TRUE(zt::DeltaIs(grown, freed));
    for (int i = 0; i < 4; ++i) PltFreeToLookasideList(&list, e[i]);
    PltCompactLookasideList(&list);
    EXPECT_EQ(list.chunks, 0u) << "the first chunk is no exception";
    EXPECT_NE(PltAllocateFromLookasideList(&list), nullptr);
    EXPECT_EQ(list.chunks, 1u);
    PltFreeLookasideList(&list);
    EXPECT_NO_LEAKS(before);
}

TEST(Lookaside, ForeignAddressesInnerAddressesAndDoubleFrees) {
    PLT_LOOKASIDE_LIST list;
    ASSERT_EQ(PltInitLookasideList(&list, 16, 4, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 0u);
    auto* a = static_cast<char*>(PltAllocateFromLookasideList(&list));
    strcpy(a, "kept");
    auto* chunk = reinterpret_cast<uint8_t*>(list.first);
    for (void* foreign : {static_cast<void*>(&list), static_cast<void*>(chunk + 100),
                          static_cast<void*>(chunk + 1048 + 16 * 4), static_cast<void*>(chunk - 1)})
        PltFreeToLookasideList(&list, foreign);
    EXPECT_EQ(list.inUse * 10 + list.first->inUse, 11u) << "addresses outside every entry";
    PltFreeToLookasideList(&list, a + 15);
    PltFreeToLookasideList(&list, a);
    EXPECT_EQ(list.inUse + list.first->inUse, 0u) << "an inner address frees; a double free is ignored";
    EXPECT_EQ(PltAllocateFromLookasideList(&list), a);
    EXPECT_STREQ(a, "kept") << "entries are never cleared on reuse";
    PltFreeLookasideList(&list);
}

TEST(Lookaside, CallersFirstChunkAndTheListsAllocationFlags) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    void* chunk = nullptr;
    ASSERT_EQ(PltMalloc(&chunk, 1048 + 40 * 5, 0, kTag), 0u);
    memset(chunk, 0xEE, 1048 + 40 * 5);
    PLT_RESOURCE_STATS afterChunk = zt::Snapshot();
    PLT_LOOKASIDE_LIST list, zeroed;
    ASSERT_EQ(PltInitLookasideList(&list, 40, 5, PLT_NO_LIMIT, 0, chunk, 16, kTag), 0u);
    EXPECT_EQ(zt::Delta(afterChunk, zt::Snapshot()).AllocCount, 0u);
    EXPECT_EQ(list.first->bitmap[0] | list.first->reserved | list.first->inUse, 0u);
    auto* plain = static_cast<uint8_t*>(PltAllocateFromLookasideList(&list));
    EXPECT_EQ(plain, Entry(chunk, 40, 0));
    EXPECT_EQ(plain[0], 0xEE) << "flags without bit 0 leave the entries as they were";
    ASSERT_EQ(PltInitLookasideList(&zeroed, 16, 4, PLT_NO_LIMIT, 0, nullptr, 1, kTag), 0u);
    memset(Entry(zeroed.first, 16, 1), 0xEE, 16);
    PltCompactLookasideList(&zeroed);
    EXPECT_EQ(*static_cast<uint8_t*>(PltAllocateFromLookasideList(&zeroed)), 0) << "zero-filled";
    PltFreeLookasideList(&zeroed);
    PltFreeLookasideList(&list);
    EXPECT_NO_LEAKS(before);
}

// A model of the list: chunks in creation order with their free entries. The
// list must hand out exactly the lowest free entry of the oldest chunk with
// room, whatever the pattern of frees and compactions.
TEST(Lookaside, HandsOutTheLowestFreeEntryOfTheOldestChunkWithRoom) {
    const uint32_t kEntry = 16, kDepth = 70;  // two bitmap words per chunk
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_LOOKASIDE_LIST list;
    ASSERT_EQ(PltInitLookasideList(&list, kEntry, kDepth, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 0u);
    std::vector<std::pair<uint8_t*, std::vector<bool>>> model{
        {reinterpret_cast<uint8_t*>(list.first), std::vector<bool>(kDepth)}};
    std::vector<uint8_t*> live;
    std::mt19937 rng(1234);
    for (int step = 0; step < 20000; ++step) {
        uint32_t action = rng() % 100;
        if (action < 55 || live.empty()) {
            auto* got = static_cast<uint8_t*>(PltAllocateFromLookasideList(&list));
            uint8_t* expected = nullptr;
            for (auto& [base, used] : model) {
                for (uint32_t i = 0; i < kDepth && expected == nullptr; ++i)
                    if (!used[i]) used[i] = true, expected = Entry(base, kEntry, i);
                if (expected != nullptr) break;
            }
            if (expected == nullptr) {  // a new chunk: learn where it lives
                model.push_back({got - 1048, std::vector<bool>(kDepth)});
                model.back().second[0] = true;
                expected = got;
            }
            ASSERT_EQ(got, expected) << "step " << step;
            live.push_back(got);
        } else if (action < 99) {
            size_t pick = rng() % live.size();
            uint8_t* entry = live[pick];
            live.erase(live.begin() + static_cast<long>(pick));
            PltFreeToLookasideList(&list, entry);
            for (auto& [base, used] : model)
                if (entry >= base + 1048 && entry < Entry(base, kEntry, kDepth))
                    used[(entry - base - 1048) / kEntry] = false;
        } else {
            PltCompactLookasideList(&list);
            std::erase_if(model, [](auto& c) { return std::count(c.second.begin(), c.second.end(), true) == 0; });
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
            *e = id;
            YieldProcessor();
            if (*e != id) InterlockedIncrement(&clashes);
            PltFreeToLookasideList(&list, const_cast<uint64_t*>(e));
        }
    };
    { zt::TestThread a([&] { body(1); }), b([&] { body(2); }), c([&] { body(3); }); }
    EXPECT_EQ(clashes + list.inUse, 0u);
    PltFreeLookasideList(&list);
}

TEST(Lookaside, BadArgumentsAndAllocationFailures) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    PLT_LOOKASIDE_LIST list;
    EXPECT_EQ(PltInitLookasideList(nullptr, 8, 8, PLT_NO_LIMIT, 0, nullptr, 0, kTag) +
                  PltInitLookasideList(&list, 0, 8, PLT_NO_LIMIT, 0, nullptr, 0, kTag) +
                  PltInitLookasideList(&list, 8, 0, PLT_NO_LIMIT, 0, nullptr, 0, kTag),
              3 * 87u);
    EXPECT_EQ(PltAllocateFromLookasideList(nullptr), nullptr);
    PltFreeToLookasideList(nullptr, &list);
    PltCompactLookasideList(nullptr);
    PltFreeLookasideList(nullptr);
    EXPECT_DELTA(before, {});
    EXPECT_EQ(PltInitLookasideList(&list, 0x100000, 8192, PLT_NO_LIMIT, 1, nullptr, 0, kTag), 8u)
        << "a chunk beyond 32 bits is refused, not wrapped";
    PltFreeLookasideList(&list);
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(PltInitLookasideList(&list, 8, 2, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 8u);
    }
    EXPECT_DELTA(before, {.CriticalSectionCount = 1, .LiveCriticalSectionCount = 1});
    EXPECT_EQ(PltAllocateFromLookasideList(&list), nullptr) << "only the lock exists";
    PltFreeLookasideList(&list);
    ASSERT_EQ(PltInitLookasideList(&list, 8, 2, PLT_NO_LIMIT, 0, nullptr, 0, kTag), 0u);
    void* a = PltAllocateFromLookasideList(&list);
    void* b = PltAllocateFromLookasideList(&list);
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(PltAllocateFromLookasideList(&list), nullptr);
    }
    EXPECT_EQ(list.chunks * 10 + list.inUse, 12u);
    PltFreeToLookasideList(&list, a);
    EXPECT_EQ(PltAllocateFromLookasideList(&list), a);
    PltFreeToLookasideList(&list, b);
    PltFreeLookasideList(&list);
    EXPECT_EQ(PltAllocateFromLookasideList(&list), nullptr) << "a freed list is inert";
    PltCompactLookasideList(&list);
    PltFreeLookasideList(&list);
    EXPECT_NO_LEAKS(before);
}

}  // namespace
