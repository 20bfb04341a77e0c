#include "sync_helpers.h"

namespace zt {

TestThread::TestThread(std::function<void()> body) : body_(std::move(body)) {
    h_ = CreateThread(nullptr, 0, &Run, this, 0, nullptr);
}

TestThread::~TestThread() {
    join();
    CloseHandle(h_);
}

DWORD WINAPI TestThread::Run(void* self) {
    static_cast<TestThread*>(self)->body_();
    return 0;
}

bool TestThread::join(DWORD ms) { return WaitForSingleObject(h_, ms) == WAIT_OBJECT_0; }

bool WaitUntil(const std::function<bool()>& condition, DWORD ms) {
    ULONGLONG deadline = GetTickCount64() + ms;
    while (!condition()) {
        if (GetTickCount64() > deadline) return false;
        Sleep(1);
    }
    return true;
}

}  // namespace zt
