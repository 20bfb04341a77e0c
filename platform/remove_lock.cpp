// Remove locks: users acquire before touching an object and release after;
// the owner's release-and-wait refuses new users and waits for the others.
#include <zendra/platform.h>

#include "platform/status.h"
#include "platform/sync_internal.h"

using namespace zendra;

extern "C" PLT_STATUS PltInitRemoveLock(PLT_REMOVE_LOCK* lock) {
    if (lock == nullptr) return kOk;
    lock->removing = 0;
    lock->count = 0;
    lock->event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    if (lock->event == nullptr) return GetLastError();
    CountCreated(Pair::Event);
    // Callers judge success by the event field: the status is the handle's
    // low bits, never 0.
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(lock->event));
}

extern "C" PLT_STATUS PltAcquireRemoveLock(PLT_REMOVE_LOCK* lock) {
    if (lock == nullptr) return kInvalidParameter;
    // Count first, then look: an acquisition that sees removing clear is
    // counted before the owner's wait can end. A refused one takes its count
    // back, and signals the owner if it was the last.
    // Sequentially consistent with the owner's exchange and decrement: one of
    // the two always sees the other's step.
    __atomic_fetch_add(&lock->count, 1u, __ATOMIC_SEQ_CST);
    if (__atomic_load_n(&lock->removing, __ATOMIC_SEQ_CST) == 0) return kOk;
    if (__atomic_sub_fetch(&lock->count, 1u, __ATOMIC_ACQ_REL) == 0) SetEvent(lock->event);
    return kDeviceRemoved;
}

extern "C" PLT_STATUS PltReleaseRemoveLock(PLT_REMOVE_LOCK* lock) {
    if (lock == nullptr) return kInvalidParameter;
    if (__atomic_sub_fetch(&lock->count, 1u, __ATOMIC_ACQ_REL) == 0 &&
        __atomic_load_n(&lock->removing, __ATOMIC_ACQUIRE) != 0) {
        if (!SetEvent(lock->event)) return GetLastError();
    }
    return kOk;
}

extern "C" PLT_STATUS PltReleaseRemoveLockAndWait(PLT_REMOVE_LOCK* lock, uint32_t timeoutMs) {
    if (lock == nullptr) return kInvalidParameter;
    uint32_t wasRemoving = __atomic_exchange_n(&lock->removing, 1u, __ATOMIC_SEQ_CST);
    if (wasRemoving != 0) return wasRemoving;
    if (__atomic_sub_fetch(&lock->count, 1u, __ATOMIC_SEQ_CST) == 0) SetEvent(lock->event);
    // Signalled, timed out and abandoned all return 0: a drained lock and an
    // expired wait look the same to the caller.
    uint32_t ignored;
    return WaitForObject(lock->event, timeoutMs, &ignored);
}
