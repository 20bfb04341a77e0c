// Counted threads: every handle this file opens or closes moves the thread
// counters.
#include <string.h>

#include <zendra/os.h>

#include "platform/counters.h"
#include "platform/status.h"
#include "platform/sync_internal.h"

using namespace zendra;

namespace {

// Owned by the new thread, which frees it when its routine returns.
struct StartBlock {
    HANDLE thread;
    void* context;
    PLT_THREAD_ROUTINE routine;
};
static_assert(sizeof(StartBlock) == 24, "start block is 24 bytes");

DWORD WINAPI Trampoline(void* parameter) {
    if (parameter == nullptr) return 0;
    auto* block = static_cast<StartBlock*>(parameter);
    uint32_t result = block->routine(block->context);
    void* memory = block;
    PltFree(&memory, 0);
    return result;
}

}  // namespace

extern "C" PLT_STATUS PltCreateThread(PLT_THREAD_ROUTINE routine, void* context, HANDLE* thread,
                                      uint32_t* threadId) {
    void* memory = nullptr;
    if (PltMalloc(&memory, sizeof(StartBlock), 0, 0) != kOk) return kNoMemory;
    auto* block = static_cast<StartBlock*>(memory);
    memset(block, 0, sizeof *block);
    block->context = context;
    block->routine = routine;
    DWORD id = 0;
    HANDLE handle = CreateThread(nullptr, 0, &Trampoline, block, 0, &id);
    // The handle is not written back into the block: once CreateThread
    // returns, the block belongs to the new thread, which may already have
    // freed it.
    if (handle == nullptr) {
        DWORD error = GetLastError();
        // With no error code there is nothing to report; the block stays, as
        // it always has.
        if (error != 0) PltFree(&memory, 0);
        return error;
    }
    if (threadId != nullptr) *threadId = id;
    if (thread != nullptr) *thread = handle;
    CountCreated(Pair::Thread);
    return kOk;
}

extern "C" PLT_STATUS PltWaitForThread(HANDLE thread, uint32_t timeoutMs, uint32_t* result) {
    if (thread == nullptr) return kInvalidParameter;
    return WaitForObject(thread, timeoutMs, result);
}

extern "C" PLT_STATUS PltTerminateThread(HANDLE thread) {
    if (thread == nullptr) return kInvalidParameter;
    switch (WaitForSingleObject(thread, 1)) {
        case WAIT_OBJECT_0:
        case WAIT_ABANDONED:
            return kOk;  // already ended: its exit code stays
        case WAIT_TIMEOUT:
            return TerminateThread(thread, 0xFFFFFFFFu) ? kOk : GetLastError();
        default:
            return GetLastError();
    }
}

extern "C" PLT_STATUS PltCloseThread(HANDLE thread) {
    if (thread == nullptr) return kOk;
    return CloseCounted(thread, Pair::Thread);
}

extern "C" uint32_t PltGetCurrentProcessID(void) { return GetCurrentProcessId(); }

extern "C" HANDLE PltGetCurrentThread(void) { return GetCurrentThread(); }

extern "C" uint32_t PltGetCurrentThreadID(void) { return GetCurrentThreadId(); }

extern "C" uintptr_t PltGetCurrentThreadContext(void) { return GetCurrentThreadId(); }
