// Shared pieces of the message bus tests.
#pragma once

#include <windows.h>

#include <atomic>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>
#include <zendra/msgbus.h>

namespace mbt {

// A subscriber's context: what it saw and what it answers.
struct Probe {
    std::atomic<int> calls{0};
    uint32_t answer = 0;
    std::atomic<DWORD> thread{0};
    void* lastData = nullptr;
    uint32_t lastLength = 0;
    int id = 0;
    std::vector<int>* journal = nullptr;  // records call order across probes
    std::mutex* journalLock = nullptr;
};

inline uint32_t ProbeCallback(uint32_t, uint32_t, void* data, uint32_t length, void* context) {
    auto* p = static_cast<Probe*>(context);
    p->lastData = data;
    p->lastLength = length;
    p->thread = GetCurrentThreadId();
    if (p->journal != nullptr) {
        std::lock_guard<std::mutex> g(*p->journalLock);
        p->journal->push_back(p->id);
    }
    ++p->calls;
    return p->answer;
}

// Owns a bus for one test and checks that deleting it returns 0.
class Bus {
public:
    Bus(uint32_t types = 4, uint32_t actions = 4, uint32_t maxSubscribers = 8) {
        status_ = MBCreateMsgBus(&bus_, types, actions, maxSubscribers);
    }
    ~Bus() {
        if (bus_ != nullptr) {
            EXPECT_EQ(MBDeleteMsgBus(bus_), 0u);
        }
    }
    MB_MSG_BUS* get() const { return bus_; }
    MB_MSG_BUS* operator->() const { return bus_; }
    PLT_STATUS status() const { return status_; }
    MB_SLOT& slot(uint32_t type, uint32_t action) const { return bus_->types[type].slots[action]; }
    // Deletes now (for tests that look at what deletion does).
    PLT_STATUS release() {
        PLT_STATUS s = MBDeleteMsgBus(bus_);
        bus_ = nullptr;
        return s;
    }

private:
    MB_MSG_BUS* bus_ = nullptr;
    PLT_STATUS status_ = 0;
};

}  // namespace mbt
