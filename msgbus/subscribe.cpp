// Subscriptions. Subscribing takes the slot lock as writer and is the only
// place entries move (compaction of dead entries); unsubscribing takes it as
// reader and only lowers refs, so callbacks may unsubscribe during delivery.
#include <string.h>

#include <zendra/msgbus.h>

#include "msgbus/bus_internal.h"
#include "platform/status.h"

using namespace zendra;

namespace {

bool SamePair(const MB_SUBSCRIBER& e, MB_SUBSCRIBER_CALLBACK callback, void* context) {
    return e.callback == callback && e.context == context;
}

int32_t Refs(const MB_SUBSCRIBER& e) { return __atomic_load_n(&e.refs, __ATOMIC_ACQUIRE); }

// Removes dead entries other than the pair's own. The index moves on after a
// removal too, so the entry just moved into place waits for the next
// subscription: two adjacent dead entries go one per call. Kept on purpose.
void Compact(MB_SLOT* slot, MB_SUBSCRIBER_CALLBACK callback, void* context) {
    MB_SUBSCRIBER* e = slot->subscribers;
    for (uint32_t i = 0; i < slot->count; ++i) {
        if (SamePair(e[i], callback, context) || Refs(e[i]) >= 1) continue;
        // Entries i + 1 up to and including index count move down: one past
        // the last in use, which the spare entries make room for.
        memmove(&e[i], &e[i + 1], (slot->count - i) * sizeof(MB_SUBSCRIBER));
        --slot->count;
        memset(&e[slot->count], 0, sizeof(MB_SUBSCRIBER));
    }
}

PLT_STATUS SubscribeSlot(MB_MSG_BUS* bus, MB_SLOT* slot, MB_SUBSCRIBER_CALLBACK callback,
                         void* context) {
    if (slot == nullptr) return kIndexOutOfRange;  // never set up: no room
    uint32_t ticket = 0;
    AcquireWriteSpinLock(&slot->lock, &ticket);
    Compact(slot, callback, context);
    PLT_STATUS status = kOk;
    MB_SUBSCRIBER* e = slot->subscribers;
    uint32_t i = 0;
    while (i < slot->count && !SamePair(e[i], callback, context)) ++i;
    if (i < slot->count) {
        __atomic_fetch_add(&e[i].refs, 1, __ATOMIC_ACQ_REL);  // also revives a dead entry
    } else if (slot->count < bus->maxSubscribers) {
        e[i].callback = callback;
        e[i].context = context;
        __atomic_store_n(&e[i].refs, 1, __ATOMIC_RELEASE);
        ++slot->count;
    } else {
        status = kIndexOutOfRange;
    }
    ReleaseReadWriteSpinLock(&slot->lock, &ticket);
    return status;
}

PLT_STATUS UnsubscribeSlot(MB_MSG_BUS*, MB_SLOT* slot, MB_SUBSCRIBER_CALLBACK callback,
                           void* context) {
    if (slot == nullptr) return kNotFound;
    uint32_t ticket = 0;
    AcquireReadSpinLock(&slot->lock, &ticket);
    PLT_STATUS status = kNotFound;
    MB_SUBSCRIBER* e = slot->subscribers;
    for (uint32_t i = 0; i < slot->count; ++i) {
        if (SamePair(e[i], callback, context) && Refs(e[i]) > 0) {
            __atomic_fetch_sub(&e[i].refs, 1, __ATOMIC_ACQ_REL);
            status = kOk;
            break;
        }
    }
    ReleaseReadWriteSpinLock(&slot->lock, &ticket);
    return status;
}

// The checks common to both calls, in their order: bus, type, callback.
PLT_STATUS CheckArguments(MB_MSG_BUS* bus, MB_SUBSCRIBER_CALLBACK callback, uint32_t type) {
    if (bus == nullptr) return kInvalidParameter;
    if (type >= bus->typeCount) return kIndexOutOfRange;
    if (callback == nullptr) return kInvalidParameter;
    return kOk;
}

}  // namespace

extern "C" PLT_STATUS MBSubscribe(MB_MSG_BUS* bus, MB_SUBSCRIBER_CALLBACK callback, uint32_t type,
                                  uint32_t action, void* context) {
    PLT_STATUS status = CheckArguments(bus, callback, type);
    if (status != kOk) return status;
    if (action != MB_ALL_ACTIONS) {
        if (action >= bus->actionCount) return kIndexOutOfRange;
        return SubscribeSlot(bus, SlotOf(bus, type, action), callback, context);
    }
    // Every action in order; the slots done before a full one keep theirs.
    for (uint32_t a = 0; a < bus->actionCount; ++a) {
        status |= SubscribeSlot(bus, SlotOf(bus, type, a), callback, context);
        if (status == kIndexOutOfRange) return kIndexOutOfRange;
    }
    return status;
}

extern "C" PLT_STATUS MBUnsubscribe(MB_MSG_BUS* bus, MB_SUBSCRIBER_CALLBACK callback, uint32_t type,
                                    uint32_t action, void* context) {
    PLT_STATUS status = CheckArguments(bus, callback, type);
    if (status != kOk) return status;
    if (action != MB_ALL_ACTIONS) {
        if (action >= bus->actionCount) return kIndexOutOfRange;
        return UnsubscribeSlot(bus, SlotOf(bus, type, action), callback, context);
    }
    for (uint32_t a = 0; a < bus->actionCount; ++a)
        status |= UnsubscribeSlot(bus, SlotOf(bus, type, a), callback, context);
    return status;
}
