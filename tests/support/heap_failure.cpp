#include "heap_failure.h"

#include <gtest/gtest.h>

namespace zt {

namespace {

volatile LONG g_calls;
volatile LONG g_failAt;
volatile LONG g_failed;
// Forwarding goes to the process's own HeapAlloc: the same function the
// library imported, available before the hook is in place.
decltype(&HeapAlloc) const g_original = &HeapAlloc;

LPVOID WINAPI FailingHeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes) {
    LONG call = InterlockedIncrement(&g_calls);
    if (g_failAt == 0 || call == g_failAt) {
        InterlockedExchange(&g_failed, 1);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    return g_original(heap, flags, bytes);
}

const char* Arm(int nth) {
    InterlockedExchange(&g_calls, 0);
    InterlockedExchange(&g_failAt, nth);
    InterlockedExchange(&g_failed, 0);
    return "HeapAlloc";
}

}  // namespace

HeapFailure::HeapFailure(int nth) : hook_(Arm(nth), reinterpret_cast<void*>(&FailingHeapAlloc)) {}

HeapFailure::~HeapFailure() = default;

int HeapFailure::calls() const { return g_calls; }
bool HeapFailure::failed() const { return g_failed != 0; }

int SweepAllocationFailures(const std::function<bool(int)>& attempt, int limit) {
    for (int n = 1; n <= limit; ++n) {
        if (attempt(n)) return n - 1;
    }
    ADD_FAILURE() << "operation still failing after " << limit << " injected failures";
    return limit;
}

}  // namespace zt
