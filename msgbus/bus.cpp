// Message bus objects: creation with its grid of slots, and deletion.
#include <string.h>

#include <zendra/msgbus.h>

#include "msgbus/bus_internal.h"
#include "platform/memory.h"
#include "platform/pool.h"
#include "platform/status.h"

using namespace zendra;

namespace {

constexpr uint32_t kMessagesPerBlock = 100;
constexpr uint32_t kPoolInitialThreads = 2;
constexpr uint32_t kPoolMaximumThreads = 8;
constexpr uint32_t kPoolPriority = 2;
constexpr uint32_t kDrainBudgetMs = 10000;
constexpr uint32_t kSpareSubscribers = 3;  // compaction copies one entry past the last

// Allocates `bytes` (computed wide) when it fits the allocator's 32 bits.
void* AllocateZeroed(uint64_t bytes, uint32_t tag) {
    void* memory = nullptr;
    if (bytes > 0xFFFFFFFFu || PltMalloc(&memory, static_cast<uint32_t>(bytes), 16, tag) != kOk)
        return nullptr;
    memset(memory, 0, static_cast<size_t>(bytes));
    return memory;
}

// Sets up as many slots of one type as memory allows; returns how many.
uint32_t BuildSlots(MB_SLOT* slots, uint32_t actionCount, uint32_t maxSubscribers) {
    uint64_t subscriberBytes =
        (uint64_t{maxSubscribers} + kSpareSubscribers) * sizeof(MB_SUBSCRIBER);
    for (uint32_t action = 0; action < actionCount; ++action) {
        void* subscribers = AllocateZeroed(subscriberBytes, kBusTag);
        if (subscribers == nullptr) return action;
        MB_SLOT* slot = &slots[action];
        memset(slot, 0, sizeof *slot);
        slot->subscribers = static_cast<MB_SUBSCRIBER*>(subscribers);
        InitializeReadWriteSpinLock(&slot->lock);
    }
    return actionCount;
}

// Type entries the record has room for, read from its allocation header: a
// bus whose message list failed has its counts at 0 but its grid allocated.
uint32_t AllocatedTypes(const MB_MSG_BUS* bus) {
    const AllocHeader* header = reinterpret_cast<const AllocHeader*>(bus) - 1;
    return (header->size - offsetof(MB_MSG_BUS, types)) / sizeof(MB_TYPE_ENTRY);
}

void FreeUntagged(void* memory) { PltFree(&memory, 0); }

}  // namespace

namespace zendra {

MB_SLOT* SlotOf(MB_MSG_BUS* bus, uint32_t type, uint32_t action) {
    const MB_TYPE_ENTRY& entry = bus->types[type];
    if (entry.slots == nullptr || action >= entry.reserved) return nullptr;
    return &entry.slots[action];
}

}  // namespace zendra

extern "C" PLT_STATUS MBCreateMsgBus(MB_MSG_BUS** out, uint32_t typeCount, uint32_t actionCount,
                                     uint32_t maxSubscribers) {
    if (out == nullptr) return kInvalidParameter;
    uint64_t busBytes = offsetof(MB_MSG_BUS, types) + uint64_t{sizeof(MB_TYPE_ENTRY)} * typeCount;
    void* memory = nullptr;
    PLT_STATUS status = busBytes > 0xFFFFFFFFu
                            ? kNoMemory
                            : PltMalloc(&memory, static_cast<uint32_t>(busBytes), 17, kBusTag);
    if (status != kOk) {
        *out = nullptr;
        return kNoMemory;
    }
    auto* bus = static_cast<MB_MSG_BUS*>(memory);

    // A slot array that cannot be had ends the loop over types, a subscriber
    // array the loop over that type's actions; silently, and the slots not
    // reached stay unset. The type entry's reserved word remembers how many
    // slots were set up.
    uint64_t slotBytes = uint64_t{actionCount} * sizeof(MB_SLOT) + 16;
    for (uint32_t type = 0; type < typeCount; ++type) {
        auto* slots = static_cast<MB_SLOT*>(AllocateZeroed(slotBytes, 0));
        if (slots == nullptr) break;
        bus->types[type].slots = slots;
        bus->types[type].reserved = BuildSlots(slots, actionCount, maxSubscribers);
    }

    if (PltInitLookasideList(&bus->messages, sizeof(MB_MESSAGE), kMessagesPerBlock, PLT_NO_LIMIT, 0,
                             nullptr, 16, kBusTag) != kOk) {
        *out = bus;  // counts stay 0: every later call fails its range check
        return kNoMemory;
    }
    bus->typeCount = typeCount;
    bus->actionCount = actionCount;
    bus->maxSubscribers = maxSubscribers;
    status =
        PltInitWorkItemPool(&bus->pool, kPoolInitialThreads, kPoolMaximumThreads, kPoolPriority);
    *out = bus;
    return status;
}

extern "C" PLT_STATUS MBDeleteMsgBus(MB_MSG_BUS* bus) {
    if (bus == nullptr) return kInvalidParameter;
    // Queued messages are still delivered while the workers drain.
    if (bus->pool != nullptr) DestroyPool(bus->pool, kDrainBudgetMs);

    // Everything goes back with tag 0, also the blocks made under the bus's
    // tag: each of those frees counts one tag mismatch.
    const uint32_t types = AllocatedTypes(bus);
    for (uint32_t type = 0; type < types; ++type) {
        MB_TYPE_ENTRY& entry = bus->types[type];
        if (entry.slots == nullptr) continue;
        for (uint32_t action = 0; action < entry.reserved; ++action) {
            DestroyReadWriteSpinLock(&entry.slots[action].lock);
            FreeUntagged(entry.slots[action].subscribers);
        }
        FreeUntagged(entry.slots);
    }
    PltFreeLookasideList(&bus->messages);
    void* record = bus;
    return PltFree(&record, 0);
}
