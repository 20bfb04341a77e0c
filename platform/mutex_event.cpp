// Mutexes and events: Win32 objects whose handle lives in caller storage.
#include <zendra/platform.h>

#include "platform/status.h"
#include "platform/sync_internal.h"

namespace zendra {

PLT_STATUS WaitForObject(HANDLE handle, uint32_t timeoutMs, uint32_t* result) {
    uint32_t outcome;
    switch (WaitForSingleObject(handle, timeoutMs)) {
        case WAIT_OBJECT_0:
            outcome = PLT_WAIT_SIGNALED;
            break;
        case WAIT_TIMEOUT:
            outcome = PLT_WAIT_TIMEOUT;
            break;
        case WAIT_ABANDONED:
            outcome = PLT_WAIT_ABANDONED;
            break;
        default:
            return GetLastError();
    }
    if (result != nullptr) *result = outcome;
    return kOk;
}

}  // namespace zendra

using namespace zendra;

extern "C" PLT_STATUS PltInitializeMutex(PLT_MUTEX* mutex, const wchar_t* name) {
    if (mutex == nullptr) return kOk;
    mutex->handle = CreateMutexW(nullptr, FALSE, name);
    if (mutex->handle == nullptr) return GetLastError();
    CountCreated(Pair::Mutex);
    return kOk;
}

// Shared by mutexes and events. The object pointer is not checked: a null
// object waits on a null handle and reports the wait's error.
extern "C" PLT_STATUS PltAcquireMutex(PLT_MUTEX* object, uint32_t timeoutMs, uint32_t* result) {
    return WaitForObject(object != nullptr ? object->handle : nullptr, timeoutMs, result);
}

extern "C" PLT_STATUS PltReleaseMutex(PLT_MUTEX* mutex) {
    if (!ReleaseMutex(mutex != nullptr ? mutex->handle : nullptr)) return GetLastError();
    return kOk;
}

extern "C" PLT_STATUS PltDeleteMutex(PLT_MUTEX* mutex) {
    if (mutex == nullptr) return kOk;
    return CloseCounted(mutex->handle, Pair::Mutex);
}

extern "C" PLT_STATUS PltInitializeEvent(PLT_EVENT* event, int32_t kind, int32_t signaled,
                                         const wchar_t* name) {
    if (event == nullptr) return kOk;
    event->handle = CreateEventW(nullptr, kind == PLT_EVENT_MANUAL_RESET, signaled != 0, name);
    if (event->handle == nullptr) return GetLastError();
    CountCreated(Pair::Event);
    return kOk;
}

// Also exported as PltReleaseEvent.
extern "C" PLT_STATUS PltSetEvent(PLT_EVENT* event) {
    if (event == nullptr) return kOk;
    return SetEvent(event->handle) ? kOk : GetLastError();
}

extern "C" PLT_STATUS PltPulseEvent(PLT_EVENT* event) {
    if (event == nullptr) return kOk;
    return PulseEvent(event->handle) ? kOk : GetLastError();
}

extern "C" PLT_STATUS PltResetEvent(PLT_EVENT* event) {
    if (event == nullptr) return kOk;
    return ResetEvent(event->handle) ? kOk : GetLastError();
}

extern "C" PLT_STATUS PltDeleteEvent(PLT_EVENT* event) {
    if (event == nullptr) return kOk;
    return CloseCounted(event->handle, Pair::Event);
}
