// Shared pieces of the message bus tests.
#pragma once

#include <windows.h>

#include <atomic>
#include <mutex>
#include <string>

#include <gtest/gtest.h>
#include <zendra/msgbus.h>

#include "sync_helpers.h"

namespace mbt {

// A subscriber's context: what it saw and what it answers.
struct Probe {
    char name = '?';
    uint32_t answer = 0;
    std::atomic<int> calls{0};
    std::atomic<DWORD> thread{0};
    void* lastData = nullptr;
    std::string* journal = nullptr;  // call order across probes
};

inline std::mutex g_journalLock;

inline uint32_t ProbeCallback(uint32_t, uint32_t, void* data, uint32_t, void* context) {
    auto* p = static_cast<Probe*>(context);
    p->lastData = data;
    p->thread = GetCurrentThreadId();
    if (p->journal != nullptr) {
        std::lock_guard<std::mutex> g(g_journalLock);
        *p->journal += p->name;
    }
    ++p->calls;
    return p->answer;
}

// "a2 b0": the entries of a slot, by probe name and refs.
inline std::string Entries(MB_MSG_BUS* bus, uint32_t type, uint32_t action) {
    MB_SLOT& s = bus->types[type].slots[action];
    std::string out;
    for (uint32_t i = 0; i < s.count; ++i)
        out += (i ? " " : "") + std::string(1, static_cast<Probe*>(s.subscribers[i].context)->name) +
               std::to_string(s.subscribers[i].refs);
    return out;
}

// A completion callback's context.
struct Completion {
    std::atomic<int> calls{0};
    std::atomic<uint32_t> status{0xDEADu};
    std::atomic<DWORD> thread{0};
    void* data = nullptr;
    zt::Signal done;
};

inline uint32_t OnComplete(uint32_t, uint32_t, void* data, uint32_t, void* context,
                           uint32_t status) {
    auto* c = static_cast<Completion*>(context);
    c->data = data;
    c->status = status;
    c->thread = GetCurrentThreadId();
    ++c->calls;
    c->done.set();
    return 12345;  // ignored
}

// Owns a bus for one test and checks that deleting it returns 0.
class Bus {
public:
    Bus(uint32_t types = 4, uint32_t actions = 4, uint32_t maxSubscribers = 8) {
        status_ = MBCreateMsgBus(&bus_, types, actions, maxSubscribers);
    }
    ~Bus() {
        if (bus_ != nullptr) EXPECT_EQ(MBDeleteMsgBus(bus_), 0u);
    }
    MB_MSG_BUS* get() const { return bus_; }
    MB_MSG_BUS* operator->() const { return bus_; }
    PLT_STATUS status() const { return status_; }
    PLT_STATUS sub(Probe& p, uint32_t type, uint32_t action) {
        return MBSubscribe(bus_, &ProbeCallback, type, action, &p);
    }
    PLT_STATUS unsub(Probe& p, uint32_t type, uint32_t action) {
        return MBUnsubscribe(bus_, &ProbeCallback, type, action, &p);
    }

private:
    MB_MSG_BUS* bus_ = nullptr;
    PLT_STATUS status_ = 0;
};

}  // namespace mbt
