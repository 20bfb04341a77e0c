// Lookaside lists: fixed-size entries from chunks with an allocation bitmap.
//
// The entry handed out is always the lowest free entry of the oldest chunk
// with room. To find it without walking every full chunk, the list keeps a
// private hint: the oldest chunk with room, its position, and the bitmap word
// below which that chunk has no free entry. Frees keep the hint exact by
// position; only compaction forgets it.
#include <string.h>

#include <zendra/platform.h>

#include "platform/counters.h"
#include "platform/list.h"
#include "platform/status.h"
#include "platform/sync_internal.h"

using namespace zendra;

namespace {

using Chunk = PLT_LOOKASIDE_CHUNK;

// The room hint when every chunk is known to be full.
Chunk* AllFull(PLT_LOOKASIDE_LIST* list) { return reinterpret_cast<Chunk*>(&list->first); }

ListLink* Head(PLT_LOOKASIDE_LIST* list) { return reinterpret_cast<ListLink*>(&list->first); }
ListLink* Link(Chunk* chunk) { return reinterpret_cast<ListLink*>(chunk); }
Chunk* ChunkOf(ListLink* link) { return reinterpret_cast<Chunk*>(link); }
uint8_t* Entries(Chunk* chunk) {
    return reinterpret_cast<uint8_t*>(chunk) + PLT_LOOKASIDE_CHUNK_HEADER;
}

class ListGuard {
public:
    explicit ListGuard(PLT_LOOKASIDE_LIST* list) : list_(list->unlocked ? nullptr : list) {
        if (list_ != nullptr) EnterCriticalSection(&list_->lock);
    }
    ~ListGuard() {
        if (list_ != nullptr) LeaveCriticalSection(&list_->lock);
    }

private:
    PLT_LOOKASIDE_LIST* list_;
};

// Chunk size in bytes; false when it does not fit in 32 bits, since a
// wrapped size would hand out entries beyond the block.
bool ChunkBytes(const PLT_LOOKASIDE_LIST* list, uint32_t* bytes) {
    uint64_t total = PLT_LOOKASIDE_CHUNK_HEADER + uint64_t{list->entrySize} * list->perChunk;
    if (total > 0xFFFFFFFFu) return false;
    *bytes = static_cast<uint32_t>(total);
    return true;
}

void AppendChunk(PLT_LOOKASIDE_LIST* list, Chunk* chunk) {
    memset(chunk, 0, PLT_LOOKASIDE_CHUNK_HEADER);
    ListPushBack(Head(list), Link(chunk));
    ++list->chunks;
}

Chunk* NewChunk(PLT_LOOKASIDE_LIST* list) {
    uint32_t bytes;
    void* memory = nullptr;
    if (!ChunkBytes(list, &bytes) || PltMalloc(&memory, bytes, list->allocFlags, list->tag) != kOk)
        return nullptr;
    Chunk* chunk = static_cast<Chunk*>(memory);
    AppendChunk(list, chunk);
    return chunk;
}

bool HasRoom(const PLT_LOOKASIDE_LIST* list, const Chunk* chunk) {
    return chunk->inUse < list->perChunk;
}

void SetRoom(PLT_LOOKASIDE_LIST* list, Chunk* chunk, uint32_t index, uint32_t word) {
    list->roomChunk = chunk;
    list->roomIndex = index;
    list->scanWord = static_cast<uint16_t>(word);
}

// The first chunk with room at or after `from` (position `index`), or the
// all-full marker.
void FindRoomFrom(PLT_LOOKASIDE_LIST* list, ListLink* from, uint32_t index) {
    for (ListLink* link = from; link != Head(list); link = link->next, ++index) {
        if (HasRoom(list, ChunkOf(link))) {
            SetRoom(list, ChunkOf(link), index, 0);
            return;
        }
    }
    SetRoom(list, AllFull(list), 0, 0);
}

void CountInUse(PLT_LOOKASIDE_LIST* list) {
    if (list->unlocked)
        ++list->inUse;
    else
        __atomic_fetch_add(&list->inUse, 1u, __ATOMIC_RELAXED);
}

// The chunk whose entry area holds `address`, with its position; null if none.
Chunk* FindChunk(PLT_LOOKASIDE_LIST* list, const uint8_t* address, uint32_t* index) {
    const uint64_t area = uint64_t{list->entrySize} * list->perChunk;
    auto holds = [&](Chunk* chunk) {
        return chunk != nullptr && chunk != AllFull(list) && address >= Entries(chunk) &&
               static_cast<uint64_t>(address - Entries(chunk)) < area;
    };
    if (holds(list->roomChunk)) {
        *index = list->roomIndex;
        return list->roomChunk;
    }
    if (holds(list->recentChunk)) {
        *index = list->recentIndex;
        return list->recentChunk;
    }
    uint32_t position = 0;
    for (ListLink* link = Head(list)->next; link != Head(list); link = link->next, ++position) {
        if (holds(ChunkOf(link))) {
            list->recentChunk = ChunkOf(link);
            list->recentIndex = position;
            *index = position;
            return ChunkOf(link);
        }
    }
    return nullptr;
}

bool Initialised(const PLT_LOOKASIDE_LIST* list) {
    return list != nullptr && list->first != nullptr;
}

// Marks a list whose first chunk could not be had: only its lock exists.
constexpr uint8_t kOnlyTheLock = 1;

}  // namespace

extern "C" PLT_STATUS PltInitLookasideList(PLT_LOOKASIDE_LIST* list, uint32_t entrySize,
                                           uint32_t depth, uint32_t maxInUse, uint8_t unlocked,
                                           void* firstChunk, uint32_t allocFlags, uint32_t tag) {
    if (list == nullptr || entrySize == 0 || depth == 0) return kInvalidParameter;
    memset(list, 0, sizeof *list);
    list->entrySize = entrySize;
    list->perChunk = depth < PLT_LOOKASIDE_MAX_DEPTH ? depth : PLT_LOOKASIDE_MAX_DEPTH;
    list->maxInUse = maxInUse;
    list->unlocked = unlocked;
    list->tag = tag;
    list->allocFlags = allocFlags;
    if (!unlocked) InitCountedCriticalSection(&list->lock);
    ListInit(Head(list));
    {
        ListGuard guard(list);
        if (firstChunk != nullptr) {
            AppendChunk(list, static_cast<Chunk*>(firstChunk));
        } else if (NewChunk(list) == nullptr) {
            // The critical section stays initialised and counted until the
            // list is freed; the list itself was never counted.
            list->first = list->last = nullptr;
            list->state = kOnlyTheLock;
            return kNoMemory;
        }
        SetRoom(list, ChunkOf(Head(list)->next), 0, 0);
    }
    CountCreated(Pair::Lookaside);
    return kOk;
}

extern "C" void* PltAllocateFromLookasideList(PLT_LOOKASIDE_LIST* list) {
    if (!Initialised(list)) return nullptr;
    ListGuard guard(list);
    if (list->inUse >= list->maxInUse) return nullptr;
    if (list->roomChunk == nullptr) FindRoomFrom(list, Head(list)->next, 0);
    if (list->roomChunk == AllFull(list)) {
        Chunk* fresh = NewChunk(list);
        if (fresh == nullptr) return nullptr;
        SetRoom(list, fresh, list->chunks - 1, 0);
    }
    Chunk* chunk = list->roomChunk;
    uint32_t word = list->scanWord;
    while (chunk->bitmap[word] == ~uint64_t{0}) ++word;
    uint32_t bit = static_cast<uint32_t>(__builtin_ctzll(~chunk->bitmap[word]));
    chunk->bitmap[word] |= uint64_t{1} << bit;
    ++chunk->inUse;
    CountInUse(list);
    list->scanWord = static_cast<uint16_t>(word);
    if (!HasRoom(list, chunk)) FindRoomFrom(list, Link(chunk)->next, list->roomIndex + 1);
    return Entries(chunk) + (uint64_t{word} * 64 + bit) * list->entrySize;
}

extern "C" void PltFreeToLookasideList(PLT_LOOKASIDE_LIST* list, void* entry) {
    if (!Initialised(list) || entry == nullptr) return;
    ListGuard guard(list);
    uint32_t position = 0;
    auto* address = static_cast<const uint8_t*>(entry);
    Chunk* chunk = FindChunk(list, address, &position);
    if (chunk == nullptr) return;  // not ours: ignored
    uint32_t index = static_cast<uint32_t>((address - Entries(chunk)) / list->entrySize);
    uint32_t word = index / 64;
    uint64_t mask = uint64_t{1} << (index % 64);
    if ((chunk->bitmap[word] & mask) == 0) return;  // already free: a double free is ignored
    chunk->bitmap[word] &= ~mask;
    --chunk->inUse;
    --list->inUse;  // under the list's lock, or the caller's serialisation

    // Every chunk ahead of the room chunk is full, so a chunk ahead of it
    // that gets an entry back has exactly this one free.
    if (list->roomChunk == AllFull(list) ||
        (list->roomChunk != nullptr && position < list->roomIndex)) {
        SetRoom(list, chunk, position, word);
    } else if (chunk == list->roomChunk && word < list->scanWord) {
        list->scanWord = static_cast<uint16_t>(word);
    }
}

extern "C" void PltCompactLookasideList(PLT_LOOKASIDE_LIST* list) {
    if (!Initialised(list)) return;
    ListGuard guard(list);
    ListLink* link = Head(list)->next;
    while (link != Head(list)) {
        ListLink* next = link->next;
        if (ChunkOf(link)->inUse == 0) {
            ListUnlink(link);
            --list->chunks;
            void* memory = link;
            PltFree(&memory, list->tag);
        }
        link = next;
    }
    // Positions have moved: forget the hints.
    list->roomChunk = nullptr;
    list->recentChunk = nullptr;
}

extern "C" void PltFreeLookasideList(PLT_LOOKASIDE_LIST* list) {
    if (!Initialised(list)) {
        if (list != nullptr && list->state == kOnlyTheLock) {
            if (!list->unlocked) DeleteCountedCriticalSection(&list->lock);
            memset(list, 0, sizeof *list);
        }
        return;
    }
    if (!list->unlocked) EnterCriticalSection(&list->lock);
    while (ListLink* link = ListPopBack(Head(list))) {
        void* memory = link;
        PltFree(&memory, list->tag);
    }
    if (!list->unlocked) {
        LeaveCriticalSection(&list->lock);
        DeleteCountedCriticalSection(&list->lock);
    }
    memset(list, 0, sizeof *list);
    CountDestroyed(Pair::Lookaside);
}
