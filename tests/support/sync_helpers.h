// Small helpers for tests that order threads with events rather than sleeps.
#pragma once

#include <windows.h>

#include <functional>

namespace zt {

// A manual-reset Win32 event owned by the test (not counted by the library).
class Signal {
public:
    Signal() : h_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    ~Signal() { CloseHandle(h_); }
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;
    void set() { SetEvent(h_); }
    // True when set within the time-out.
    bool wait(DWORD ms = 10000) const { return WaitForSingleObject(h_, ms) == WAIT_OBJECT_0; }
    bool isSet() const { return wait(0); }
    HANDLE handle() const { return h_; }

private:
    HANDLE h_;
};

// A Win32 thread running a function; joined (with a generous time-out) on
// destruction.
class TestThread {
public:
    explicit TestThread(std::function<void()> body);
    ~TestThread();
    TestThread(const TestThread&) = delete;
    TestThread& operator=(const TestThread&) = delete;
    bool join(DWORD ms = 30000);  // true when the thread ended in time
    HANDLE handle() const { return h_; }

private:
    static DWORD WINAPI Run(void* self);
    std::function<void()> body_;
    HANDLE h_;
};

// Polls `condition` until it holds or `ms` pass; for states that have no
// event to wait on (a thread blocked inside the library, a counter moving).
bool WaitUntil(const std::function<bool()>& condition, DWORD ms = 10000);

}  // namespace zt
