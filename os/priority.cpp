// The four-level priority scale applied to threads and to the current
// process. Setting maps each level to one Win32 value; reading maps every
// Win32 value back, so the round trip is lossy on purpose.
#include <zendra/os.h>

#include "os/priority.h"
#include "platform/status.h"

using namespace zendra;

namespace zendra {

int ThreadPriorityOf(uint32_t level) {
    switch (level) {
        case PRIO_IDLE:
            return THREAD_PRIORITY_IDLE;
        case PRIO_LOW:
            return THREAD_PRIORITY_BELOW_NORMAL;
        case PRIO_HIGH:
            return THREAD_PRIORITY_HIGHEST;
        default:
            return THREAD_PRIORITY_NORMAL;
    }
}

}  // namespace zendra

namespace {

uint32_t LevelOfThreadPriority(int priority) {
    switch (priority) {
        case THREAD_PRIORITY_IDLE:
            return PRIO_IDLE;
        case THREAD_PRIORITY_LOWEST:
        case THREAD_PRIORITY_BELOW_NORMAL:
            return PRIO_LOW;
        case THREAD_PRIORITY_ABOVE_NORMAL:
        case THREAD_PRIORITY_HIGHEST:
        case THREAD_PRIORITY_TIME_CRITICAL:
            return PRIO_HIGH;
        default:
            return PRIO_NORMAL;
    }
}

// Unknown levels give class 0, which SetPriorityClass refuses.
DWORD PriorityClassOf(uint32_t level) {
    switch (level) {
        case PRIO_IDLE:
            return IDLE_PRIORITY_CLASS;
        case PRIO_LOW:
            return BELOW_NORMAL_PRIORITY_CLASS;
        case PRIO_NORMAL:
            return NORMAL_PRIORITY_CLASS;
        case PRIO_HIGH:
            return HIGH_PRIORITY_CLASS;
        default:
            return 0;
    }
}

uint32_t LevelOfPriorityClass(DWORD priorityClass) {
    switch (priorityClass) {
        case IDLE_PRIORITY_CLASS:
            return PRIO_IDLE;
        case BELOW_NORMAL_PRIORITY_CLASS:
            return PRIO_LOW;
        case HIGH_PRIORITY_CLASS:
        case REALTIME_PRIORITY_CLASS:
        case ABOVE_NORMAL_PRIORITY_CLASS:
            return PRIO_HIGH;
        default:
            return PRIO_NORMAL;
    }
}

HANDLE ThreadOrCurrent(HANDLE thread) { return thread != nullptr ? thread : GetCurrentThread(); }

}  // namespace

extern "C" PLT_STATUS PltGetThreadPriority(HANDLE thread, uint32_t* priority) {
    if (priority == nullptr) return kInvalidParameter;
    *priority = PRIO_NORMAL;
    int value = GetThreadPriority(ThreadOrCurrent(thread));
    if (value == THREAD_PRIORITY_ERROR_RETURN) return GetLastError();
    *priority = LevelOfThreadPriority(value);
    return kOk;
}

extern "C" PLT_STATUS PltSetThreadPriority(HANDLE thread, uint32_t priority) {
    if (!SetThreadPriority(ThreadOrCurrent(thread), ThreadPriorityOf(priority)))
        return GetLastError();
    return kOk;
}

extern "C" PLT_STATUS PltGetCurrentProcessPriority(uint32_t* priority) {
    if (priority == nullptr) return kInvalidParameter;
    *priority = PRIO_NORMAL;
    DWORD priorityClass = GetPriorityClass(GetCurrentProcess());
    if (priorityClass == 0) return GetLastError();
    *priority = LevelOfPriorityClass(priorityClass);
    return kOk;
}

extern "C" PLT_STATUS PltSetCurrentProcessPriority(uint32_t priority) {
    if (!SetPriorityClass(GetCurrentProcess(), PriorityClassOf(priority))) return GetLastError();
    return kOk;
}
