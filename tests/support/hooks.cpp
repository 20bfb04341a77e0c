// Import hooks (over the simulation's import patches), allocation failures, guarded buffers and
// waits.
#include <string.h>

#include "zt.h"

namespace zt {

DWORD g_importError;

namespace {

volatile LONG g_calls, g_failAt, g_failed;

LPVOID WINAPI FailingHeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes) {
    LONG call = InterlockedIncrement(&g_calls);
    if (g_failAt != 0 && call != g_failAt) return HeapAlloc(heap, flags, bytes);
    InterlockedExchange(&g_failed, 1);
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
}

const char* Arm(int nth) {
    g_calls = 0;
    g_failed = 0;
    InterlockedExchange(&g_failAt, nth);
    return "HeapAlloc";
}

}  // namespace

ImportHook::ImportHook(const char* function, void* replacement) : patch_(function, replacement) {
    if (!patch_.active()) ADD_FAILURE() << "ZendraPlatform.dll does not import " << function;
}

HeapFailure::HeapFailure(int nth) : hook_(Arm(nth), reinterpret_cast<void*>(&FailingHeapAlloc)) {}
bool HeapFailure::failed() const { return g_failed != 0; }

int SweepAllocationFailures(const std::function<bool(int)>& attempt, int limit) {
    for (int n = 1; n <= limit; ++n)
        if (attempt(n)) return n - 1;
    ADD_FAILURE() << "operation still failing after " << limit << " injected failures";
    return limit;
}

GuardedBuffer::GuardedBuffer(size_t size) {
    const size_t page = 4096, usable = (size + page - 1) / page * page;
    region_ = VirtualAlloc(nullptr, usable + page, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    DWORD old = 0;
    VirtualProtect(static_cast<char*>(region_) + usable, page, PAGE_NOACCESS, &old);
    memset(region_, 0xCD, usable);
    data_ = static_cast<char*>(region_) + usable - size;
}

bool WaitUntil(const std::function<bool()>& condition, DWORD ms) {
    for (ULONGLONG deadline = GetTickCount64() + ms; !condition(); Sleep(1))
        if (GetTickCount64() > deadline) return false;
    return true;
}

std::string Joined(std::initializer_list<int64_t> values) {
    std::string out;
    for (int64_t v : values) out += (out.empty() ? "" : " ") + std::to_string(v);
    return out;
}

}  // namespace zt
