// Fast locks and spin locks: the same critical section, counted in different
// pairs. A user-mode process has no spin-lock level to raise.
#include <zendra/platform.h>

#include "platform/status.h"
#include "platform/sync_internal.h"

using namespace zendra;

extern "C" PLT_STATUS PltInitializeFastLock(PLT_FAST_LOCK* lock) {
    if (lock == nullptr) return kOk;
    InitializeCriticalSectionAndSpinCount(lock, kSpinCount);  // cannot fail since Vista
    CountCreated(Pair::FastLock);
    return kOk;
}

// Also exported as PltAcquireSpinLock.
extern "C" PLT_STATUS PltAcquireFastLock(PLT_FAST_LOCK* lock) {
    if (lock != nullptr) EnterCriticalSection(lock);
    return kOk;
}

// Also exported as PltReleaseSpinLock.
extern "C" PLT_STATUS PltReleaseFastLock(PLT_FAST_LOCK* lock) {
    if (lock != nullptr) LeaveCriticalSection(lock);
    return kOk;
}

extern "C" PLT_STATUS PltDeleteFastLock(PLT_FAST_LOCK* lock) {
    if (lock == nullptr) return kOk;
    DeleteCriticalSection(lock);
    CountDestroyed(Pair::FastLock);
    return kOk;
}

extern "C" PLT_STATUS PltInitializeSpinLock(PLT_SPIN_LOCK* lock) {
    if (lock == nullptr) return kOk;
    InitCountedCriticalSection(lock);
    return kOk;
}

extern "C" PLT_STATUS PltDeleteSpinLock(PLT_SPIN_LOCK* lock) {
    if (lock == nullptr) return kOk;
    DeleteCountedCriticalSection(lock);
    return kOk;
}
