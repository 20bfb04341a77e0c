// Delivery: synchronous on the sender's thread, asynchronous on the bus's
// pool, and broadcast with one work item per live subscriber. Deliveries hold
// the slot's reader count, never its critical section, while callbacks run.
#include <zendra/msgbus.h>

#include "msgbus/bus_internal.h"
#include "platform/status.h"

using namespace zendra;

namespace {

// Set in MB_MESSAGE::holds once a broadcast's completion has fired; the low
// bits count the runs (and the sender) still using the record.
constexpr uint32_t kCompleted = 0x80000000u;

PLT_STATUS CheckAddress(MB_MSG_BUS* bus, uint32_t type, uint32_t action) {
    if (bus == nullptr) return kInvalidHandle;  // the subscription calls say 87 here
    if (type >= bus->typeCount || action >= bus->actionCount) return kIndexOutOfRange;
    return kOk;
}

MB_MESSAGE* NewMessage(MB_MSG_BUS* bus, uint32_t type, uint32_t action, void* data, uint32_t length,
                       MB_COMPLETION_CALLBACK completion, void* context) {
    auto* m = static_cast<MB_MESSAGE*>(PltAllocateFromLookasideList(&bus->messages));
    if (m == nullptr) return nullptr;
    m->bus = bus;
    m->type = type;
    m->action = action;
    m->data = data;
    m->length = length;
    m->pending = 0;
    m->workItem = nullptr;
    m->completionContext = context;
    m->completion = completion;
    m->status = 0;
    m->holds = 0;
    return m;
}

void ReturnMessage(MB_MESSAGE* m) { PltFreeToLookasideList(&m->bus->messages, m); }

// The record goes back once the completion has fired and no run uses it any
// more, so that a run still inside its callback never sees it reused.
void DropHold(MB_MESSAGE* m, bool completed) {
    if (completed) __atomic_fetch_or(&m->holds, kCompleted, __ATOMIC_ACQ_REL);
    if (__atomic_sub_fetch(&m->holds, 1u, __ATOMIC_ACQ_REL) == kCompleted) ReturnMessage(m);
}

uint32_t AsyncWorker(uint64_t message, uint64_t) {
    auto* m = reinterpret_cast<MB_MESSAGE*>(message);
    PLT_STATUS status = MBSendMsg(m->bus, m->type, m->action, m->data, m->length);
    if (m->completion != nullptr)
        m->completion(m->type, m->action, m->data, m->length, m->completionContext, status);
    ReturnMessage(m);
    return 0;
}

uint32_t BroadcastWorker(uint64_t message, uint64_t) {
    auto* m = reinterpret_cast<MB_MESSAGE*>(message);
    MB_SLOT* slot = SlotOf(m->bus, m->type, m->action);
    uint32_t ticket = 0;
    AcquireReadSpinLock(&slot->lock, &ticket);
    // Runs serve the entries from the highest index down, in the order in
    // which they get here.
    uint32_t index = __atomic_sub_fetch(&m->pending, 1u, __ATOMIC_ACQ_REL);
    const MB_SUBSCRIBER& e = slot->subscribers[index];
    bool completed = false;
    if (__atomic_load_n(&e.refs, __ATOMIC_ACQUIRE) > 0) {
        if (e.callback != nullptr) {
            uint32_t result = e.callback(m->type, m->action, m->data, m->length, e.context);
            __atomic_fetch_or(&m->status, result, __ATOMIC_ACQ_REL);
        }
        if (index == 0) {
            if (m->completion != nullptr)
                m->completion(m->type, m->action, m->data, m->length, m->completionContext,
                              __atomic_load_n(&m->status, __ATOMIC_ACQUIRE));
            completed = true;
        }
    }
    ReleaseReadWriteSpinLock(&slot->lock, &ticket);
    DropHold(m, completed);
    return 0;
}

}  // namespace

extern "C" PLT_STATUS MBSendMsg(MB_MSG_BUS* bus, uint32_t type, uint32_t action, void* data,
                                uint32_t length) {
    PLT_STATUS status = CheckAddress(bus, type, action);
    if (status != kOk) return status;
    MB_SLOT* slot = SlotOf(bus, type, action);
    if (slot == nullptr) return kNotFound;
    uint32_t ticket = 0;
    AcquireReadSpinLock(&slot->lock, &ticket);
    uint32_t calls = 0;
    // count is read again before each entry; a callback's unsubscription of a
    // later entry takes effect in this walk.
    for (uint32_t i = 0; i < __atomic_load_n(&slot->count, __ATOMIC_ACQUIRE); ++i) {
        const MB_SUBSCRIBER& e = slot->subscribers[i];
        if (__atomic_load_n(&e.refs, __ATOMIC_ACQUIRE) <= 0) continue;
        status |= e.callback(type, action, data, length, e.context);
        ++calls;
    }
    ReleaseReadWriteSpinLock(&slot->lock, &ticket);
    return calls == 0 ? kNotFound : status;
}

extern "C" PLT_STATUS MBSendMsgAsync(MB_MSG_BUS* bus, uint32_t type, uint32_t action, void* data,
                                     uint32_t length, MB_COMPLETION_CALLBACK completion,
                                     void* completionContext) {
    PLT_STATUS status = CheckAddress(bus, type, action);
    if (status != kOk) return status;
    MB_MESSAGE* m = NewMessage(bus, type, action, data, length, completion, completionContext);
    if (m == nullptr) return kNoMemory;
    status =
        PltAddWorkItem(bus->pool, &m->workItem, &AsyncWorker, reinterpret_cast<uint64_t>(m), 0, 0);
    if (status != kOk) ReturnMessage(m);
    return status;
}

extern "C" PLT_STATUS MBBroadcastMsg(MB_MSG_BUS* bus, uint32_t type, uint32_t action, void* data,
                                     uint32_t length, MB_COMPLETION_CALLBACK completion,
                                     void* completionContext) {
    PLT_STATUS status = CheckAddress(bus, type, action);
    if (status != kOk) return status;
    MB_SLOT* slot = SlotOf(bus, type, action);
    if (slot == nullptr) return kOk;  // nothing to deliver, as with an empty slot
    uint32_t ticket = 0;
    AcquireReadSpinLock(&slot->lock, &ticket);
    MB_MESSAGE* m = NewMessage(bus, type, action, data, length, completion, completionContext);
    if (m == nullptr) {
        ReleaseReadWriteSpinLock(&slot->lock, &ticket);
        return kNoMemory;
    }
    // pending counts dead entries too, while only live ones get a run: a slot
    // holding a dead entry never reaches index 0, and the completion never
    // fires. Kept on purpose; MBSendMsgAsync is the reliable form.
    const uint32_t count = slot->count;
    m->pending = count;
    m->holds = 1;  // the sender's own, dropped below
    for (uint32_t i = 0; i < count && status == kOk; ++i) {
        if (__atomic_load_n(&slot->subscribers[i].refs, __ATOMIC_ACQUIRE) <= 0) continue;
        __atomic_fetch_add(&m->holds, 1u, __ATOMIC_ACQ_REL);
        status = PltAddWorkItem(bus->pool, nullptr, &BroadcastWorker, reinterpret_cast<uint64_t>(m),
                                0, 0);
        if (status != kOk) __atomic_fetch_sub(&m->holds, 1u, __ATOMIC_ACQ_REL);
    }
    ReleaseReadWriteSpinLock(&slot->lock, &ticket);
    DropHold(m, false);
    return status;
}
