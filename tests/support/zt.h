// Test support: resource-counter checks, import hooks for fault injection and
// simulated answers, guarded buffers and thread helpers.
#pragma once

#include <windows.h>

#include <atomic>
#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <zendra/platform.h>
#include <zendra/sim.h>

namespace zt {

// Results of several calls in the order written (a braced list is evaluated
// left to right), space-separated: EXPECT_CALLS("0 87", f(), g()).
std::string Joined(std::initializer_list<int64_t> values);

// ---- resource counters ----
PLT_RESOURCE_STATS Snapshot();
// after - before, field by field (wrapping in 32/64 bits like the counters).
PLT_RESOURCE_STATS Delta(const PLT_RESOURCE_STATS& before, const PLT_RESOURCE_STATS& after);
// The counters moved by exactly `expected` since `before`: every field, so the
// ones left out of `expected` must not have moved.
::testing::AssertionResult DeltaIs(const PLT_RESOURCE_STATS& before,
                                   const PLT_RESOURCE_STATS& expected);
// The counters `expected` gives (non-zero) moved by exactly that much.
::testing::AssertionResult MovedBy(const PLT_RESOURCE_STATS& before,
                                   const PLT_RESOURCE_STATS& expected);
// Every live counter and live byte count is back where it was in `before`,
// or moved by exactly what `live` gives.
::testing::AssertionResult LiveMovedBy(const PLT_RESOURCE_STATS& before,
                                       const PLT_RESOURCE_STATS& live = {});
// Every test is checked for leaks when it ends; a test that leaves objects
// behind on purpose says which (live counters).
void LeavesBehind(const PLT_RESOURCE_STATS& live);

// ---- import hooks ----
// Replaces one import of ZendraPlatform.dll (by name, from any DLL) with a
// test function for the hook's lifetime. Fails the test when the library does
// not import it.
class ImportHook {
public:
    ImportHook(const char* function, void* replacement);

private:
    zendra::sim::ImportPatch patch_;
};

// Makes an import fail: the replacement sets the chosen last error and
// returns zero (null handle, FALSE, 0).   ZT_FAIL_IMPORT(CreateEventW, 8);
extern DWORD g_importError;
template <typename R, typename... A>
R FailWithImportError(A...) {
    SetLastError(g_importError);
    return R();
}
template <typename R, typename... A>
void* FailingVersionOf(R (*)(A...)) {
    return reinterpret_cast<void*>(&FailWithImportError<R, A...>);
}

// The library's Nth HeapAlloc call from now on fails (nth 0: every call).
class HeapFailure {
public:
    explicit HeapFailure(int nth);
    bool failed() const;  // whether the chosen call was reached

private:
    ImportHook hook_;
};
// Runs `attempt` with the Nth allocation failing for N = 1, 2, ... until an
// attempt returns true (it succeeded without reaching the failing call).
// Returns the number of failing runs.
int SweepAllocationFailures(const std::function<bool(int nth)>& attempt, int limit = 64);

// ---- buffers and threads ----
// A buffer that ends exactly at a no-access page: a one-byte overrun faults.
class GuardedBuffer {
public:
    explicit GuardedBuffer(size_t size);
    ~GuardedBuffer() { VirtualFree(region_, 0, MEM_RELEASE); }
    void* data() const { return data_; }
    template <typename T>
    T* as() const {
        return static_cast<T*>(data_);
    }

private:
    void* region_ = nullptr;
    void* data_ = nullptr;
};

// A manual-reset Win32 event owned by the test (not counted by the library).
class Signal {
public:
    Signal() : h_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    ~Signal() { CloseHandle(h_); }
    void set() { SetEvent(h_); }
    void reset() { ResetEvent(h_); }
    bool wait(DWORD ms = 10000) const { return WaitForSingleObject(h_, ms) == WAIT_OBJECT_0; }
    bool isSet() const { return wait(0); }

private:
    HANDLE h_;
};

// A Win32 thread running a function, joined with a time-out on destruction.
class TestThread {
public:
    explicit TestThread(std::function<void()> body)
        : body_(std::move(body)), h_(CreateThread(nullptr, 0, &Run, &body_, 0, nullptr)) {}
    ~TestThread() { join(), CloseHandle(h_); }
    bool join(DWORD ms = 30000) { return WaitForSingleObject(h_, ms) == WAIT_OBJECT_0; }

private:
    static DWORD WINAPI Run(void* body) {
        return (*static_cast<std::function<void()>*>(body))(), 0;
    }
    std::function<void()> body_;
    HANDLE h_;
};

// True once, on the thread `marker` names, which it then clears: a hook acts on
// that thread's next call however many other threads make the same call.
inline bool Claim(std::atomic<DWORD>& marker) {
    DWORD self = GetCurrentThreadId();
    return marker.compare_exchange_strong(self, 0);
}

// Polls until `condition` holds or `ms` pass, for states no event shows.
bool WaitUntil(const std::function<bool()>& condition, DWORD ms = 10000);

}  // namespace zt

#define EXPECT_NO_LEAKS(before) EXPECT_TRUE(::zt::LiveMovedBy(before))
#define EXPECT_DELTA(before, ...) EXPECT_TRUE(::zt::DeltaIs(before, PLT_RESOURCE_STATS __VA_ARGS__))
#define EXPECT_CALLS(expected, ...) EXPECT_EQ(::zt::Joined({__VA_ARGS__}), expected)
#define EXPECT_MOVED(before, ...) EXPECT_TRUE(::zt::MovedBy(before, PLT_RESOURCE_STATS __VA_ARGS__))
#define ZT_CONCAT2(a, b) a##b
#define ZT_CONCAT(a, b) ZT_CONCAT2(a, b)
#define ZT_FAIL_IMPORT(function, error)                                                           \
    ::zt::ImportHook ZT_CONCAT(zt_failure_, __LINE__)((::zt::g_importError = (error), #function), \
                                                      ::zt::FailingVersionOf(&::function))
