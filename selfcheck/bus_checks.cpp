// TestMessageBus: the bus's return codes and delivery rules, row by row on
// fresh buses, then a hundred threads subscribing, sending and
// unsubscribing at once, synchronously and asynchronously.
#include <stdio.h>

#include <zendra/msgbus.h>

#include "selfcheck/report.h"

namespace zendra::selfcheck {
namespace {

constexpr uint32_t kFailed = 0xFFFFFFFFu;
constexpr uint32_t kMarker = 0x4D534731;  // "MSG1"
constexpr uint32_t kDone = 0xD0D0D0D0;
constexpr uint32_t kStressThreads = 100;
constexpr uint32_t kStressRounds = 10000;
constexpr uint32_t kWaitMs = 10000;

// One TestMessageBus at a time: its subscribers report through this when
// they run on the checking thread (pool threads only count their findings).
SRWLOCK g_lock = SRWLOCK_INIT;
PLT_REPORT_BUFFER* g_report;
DWORD g_checkingThread;

// The 12-byte message of every row.
struct Message {
    volatile uint32_t marker;  // the completions overwrite it with kDone
    uint32_t value;
    uint32_t sequence;
};
static_assert(sizeof(Message) == 12, "messages are 12 bytes");

// What the two test subscribers saw.
struct Probe {
    volatile uint32_t seen[2], calls[2], bad;
};

uint32_t Subscriber(uint32_t which, uint32_t length, void* data, void* context) {
    auto* probe = static_cast<Probe*>(context);
    auto* message = static_cast<Message*>(data);
    if (length != sizeof(Message) || message == nullptr || message->marker != kMarker) {
        AddOne(&probe->bad);
        if (GetCurrentThreadId() == g_checkingThread) Fail(g_report);
        return 0;
    }
    Store(&probe->seen[which], message->value);
    AddOne(&probe->calls[which]);
    return 0;
}

uint32_t Subscriber1(uint32_t, uint32_t, void* data, uint32_t length, void* context) {
    return Subscriber(0, length, data, context);
}
uint32_t Subscriber2(uint32_t, uint32_t, void* data, uint32_t length, void* context) {
    return Subscriber(1, length, data, context);
}

// Writes the marker into the message and keeps the delivery's status.
uint32_t MarkDone(uint32_t, uint32_t, void* data, uint32_t, void* context, uint32_t status) {
    *static_cast<volatile uint32_t*>(context) = status;
    Store(&static_cast<Message*>(data)->marker, kDone);
    return 0;
}

// One row: a fresh bus, the first failed expectation printed with its
// status, the bus deleted.
struct Row {
    PLT_REPORT_BUFFER* report;
    MB_MSG_BUS* bus = nullptr;
    Probe probe{};
    Message message{kMarker, 1, 0};
    bool failed = false;

    Row(PLT_REPORT_BUFFER* r, uint32_t types = 50, uint32_t maxSubscribers = 128) : report(r) {
        if (MBCreateMsgBus(&bus, types, 50, maxSubscribers) != 0 || bus == nullptr)
            failed = true, Fail(report);
    }
    ~Row() {
        if (bus != nullptr) MBDeleteMsgBus(bus);
    }
    // Expects `status` (ok) and prints `message` with it otherwise.
    bool Expect(bool ok, const wchar_t* text, uint32_t status) {
        if (!failed && !ok) {
            failed = true;
            wchar_t line[kMessageLimit + 1];
            _snwprintf(line, kMessageLimit, text, status);
            line[kMessageLimit] = L'\0';
            Fail(report, line);
        }
        return !failed;
    }
    bool Is(uint32_t status, uint32_t expected, const wchar_t* text) {
        return Expect(status == expected, text, status);
    }
    PLT_STATUS Send(uint32_t type, uint32_t action, uint32_t value) {
        message.value = value;
        return MBSendMsg(bus, type, action, &message, sizeof message);
    }
    uint32_t Result() {
        if (!failed && Load(&probe.bad) != 0) failed = true;
        return failed ? kFailed : 0;
    }
};

const wchar_t* const kSubscribe1 = L"Return Value for  subscribing Subscriber1 %u";
const wchar_t* const kSubscribe2 = L"Return Value for subscribing Subscriber2 %u";
const wchar_t* const kSendMessage = L"Return Value for SendMessage %u";
const wchar_t* const kUnsubscribe1 = L"Return Value for unSubscribe for subscriber1 %u";

uint32_t NoSubscribers(PLT_REPORT_BUFFER* report) {
    Row row(report);
    if (!row.failed) {
        PLT_STATUS s = row.Send(1, 1, 1);
        row.Expect(s != 0, L"Return Value for Send message when there are no subscribers %u", s);
    }
    return row.Result();
}

uint32_t TwoSubscribers(PLT_REPORT_BUFFER* report) {
    Row row(report);
    Probe& p = row.probe;
    row.Is(MBSubscribe(row.bus, Subscriber1, 1, 1, &p), 0, kSubscribe1) &&
        row.Is(MBSubscribe(row.bus, Subscriber2, 1, 1, &p), 0, kSubscribe2);
    if (!row.failed) {
        PLT_STATUS s = row.Send(1, 1, 7);
        row.Expect(s == 0 && p.calls[0] == 1 && p.calls[1] == 1 && p.seen[0] == 7 &&
                       p.seen[1] == 7 && p.bad == 0,
                   kSendMessage, s);
    }
    return row.Result();
}

// Three subscriptions of one pair make one entry counted three times: it is
// called once per send until the third unsubscription.
uint32_t RepeatedSubscriber(PLT_REPORT_BUFFER* report) {
    Row row(report);
    Probe& p = row.probe;
    for (int i = 0; i < 3 && !row.failed; ++i)
        row.Is(MBSubscribe(row.bus, Subscriber1, 1, 1, &p), 0, kSubscribe1);
    MB_SLOT* slot = row.failed ? nullptr : &row.bus->types[1].slots[1];
    row.Expect(slot == nullptr || (slot->count == 1 && slot->subscribers[0].refs == 3), kSubscribe1,
               0);
    for (uint32_t round = 0; round < 3 && !row.failed; ++round) {
        PLT_STATUS s = row.Send(1, 1, 10 + round);
        row.Expect(s == 0 && p.calls[0] == round + 1 && p.seen[0] == 10 + round, kSendMessage, s);
        row.Is(MBUnsubscribe(row.bus, Subscriber1, 1, 1, &p), 0, kUnsubscribe1);
    }
    if (!row.failed) {
        PLT_STATUS s = row.Send(1, 1, 20);
        row.Expect(s == PLT_STATUS_NOT_FOUND && p.calls[0] == 3, kSendMessage, s);
        row.Is(MBUnsubscribe(row.bus, Subscriber1, 1, 1, &p), PLT_STATUS_NOT_FOUND, kUnsubscribe1);
    }
    return row.Result();
}

uint32_t UnsubscribeEmpty(PLT_REPORT_BUFFER* report) {
    Row row(report);
    if (!row.failed) {
        PLT_STATUS s = MBUnsubscribe(row.bus, Subscriber1, 1, 1, &row.probe);
        row.Expect(s != 0, L"Return Value for Unsubscribe when there are no subscribers %u", s);
    }
    return row.Result();
}

uint32_t UnsubscribedIsNotCalled(PLT_REPORT_BUFFER* report) {
    Row row(report);
    Probe& p = row.probe;
    row.Is(MBSubscribe(row.bus, Subscriber1, 1, 1, &p), 0,
           L"Return Value for subscribe for subscriber1 %u") &&
        row.Is(MBSubscribe(row.bus, Subscriber2, 1, 1, &p), 0,
               L"Return Value for subscribe for subscriber2 %u") &&
        row.Is(row.Send(1, 1, 3), 0, kSendMessage) &&
        row.Is(MBUnsubscribe(row.bus, Subscriber1, 1, 1, &p), 0, kUnsubscribe1) &&
        row.Is(row.Send(1, 1, 4), 0,
               L"Return Value for send message after unsubscribing subscriber1 %u");
    row.Expect(row.failed || (p.seen[0] != p.seen[1] && p.calls[0] == 1),
               L" Test should pass as Subscriber1 will not update the value, so values will not "
               L"be equal",
               0);
    return row.Result();
}

// A send reaches its own slot only.
uint32_t SeparateSlots(PLT_REPORT_BUFFER* report) {
    Row row(report);
    Probe& p = row.probe;
    row.Is(MBSubscribe(row.bus, Subscriber1, 1, 1, &p), 0,
           L"Return Value for Subscription of subscriber1 for type = 1 & action = 1 %u");
    if (!row.failed) {
        PLT_STATUS s = row.Send(1, 0, 5);
        row.Expect(s == PLT_STATUS_NOT_FOUND && p.calls[0] == 0,
                   L"Return Value for SendMsg for subscriber1 %u", s);
    }
    row.Is(MBSubscribe(row.bus, Subscriber1, 2, 1, &p), 0,
           L"Return Value for Subscription of subscriber1 for type = 2 & action = 1 %u");
    if (!row.failed) {
        PLT_STATUS s = row.Send(2, 1, 6);
        row.Expect(s == 0 && p.calls[0] == 1 && p.seen[0] == 6,
                   L"Return Value for SendMsg for subscriber1 for type = 2 & action = 1 %u", s);
    }
    row.Is(MBUnsubscribe(row.bus, Subscriber1, 2, 1, &p), 0,
           L"Return Value for UpdateSubscription for subscriber1 for type = 2 & action = 1 %u");
    if (!row.failed) {
        PLT_STATUS s = row.Send(2, 1, 7);
        row.Expect(
            s == PLT_STATUS_NOT_FOUND && p.calls[0] == 1,
            L"Return Value for SendMsg after UpdateSubscription for subscriber1 for type = 2 "
            L"& action = 1 %u",
            s);
    }
    return row.Result();
}

// Sleeps a millisecond at a time until the completion marked the message.
bool WaitForMarker(const Message& message) {
    for (uint32_t waited = 0; waited < kWaitMs; ++waited) {
        if (Load(&message.marker) == kDone) return true;
        Sleep(1);
    }
    return Load(&message.marker) == kDone;
}

uint32_t AsyncSend(PLT_REPORT_BUFFER* report) {
    Row row(report);
    volatile uint32_t delivered = kFailed;
    row.Is(MBSubscribe(row.bus, Subscriber1, 1, 1, &row.probe), 0, kSubscribe1);
    if (!row.failed) {
        row.message.value = 9;
        PLT_STATUS s = MBSendMsgAsync(row.bus, 1, 1, &row.message, sizeof row.message, MarkDone,
                                      const_cast<uint32_t*>(&delivered));
        row.Expect(
            s == 0 && WaitForMarker(row.message) && Load(&delivered) == 0 && row.probe.seen[0] == 9,
            kSendMessage, s != 0 ? s : Load(&delivered));
    }
    return row.Result();
}

uint32_t Broadcasts(PLT_REPORT_BUFFER* report) {
    Row row(report);
    Message second{kMarker, 2, 0};
    volatile uint32_t status[2] = {kFailed, kFailed};
    Probe& p = row.probe;
    row.Is(MBSubscribe(row.bus, Subscriber1, 1, 1, &p), 0, kSubscribe1) &&
        row.Is(MBSubscribe(row.bus, Subscriber2, 1, 1, &p), 0, kSubscribe2) &&
        row.Is(MBSubscribe(row.bus, Subscriber1, 2, 2, &p), 0, kSubscribe1);
    if (!row.failed) {
        Message* messages[2] = {&row.message, &second};
        for (uint32_t i = 0; i < 2; ++i) {
            PLT_STATUS s = MBBroadcastMsg(row.bus, 1 + i, 1 + i, messages[i], sizeof(Message),
                                          MarkDone, const_cast<uint32_t*>(&status[i]));
            row.Is(s, 0, kSendMessage);
            Sleep(1);
        }
    }
    // The deletion delivers what is still queued; the messages outlive it.
    MBDeleteMsgBus(row.bus);
    row.bus = nullptr;
    return row.Result();
}

uint32_t OneType(PLT_REPORT_BUFFER* report) {
    Row row(report, 1);
    if (!row.failed)
        row.Is(MBSubscribe(row.bus, Subscriber1, 1, 1, &row.probe), PLT_STATUS_INDEX_OUT_OF_RANGE,
               kSubscribe1);
    return row.Result();
}

uint32_t OneSubscriberPerSlot(PLT_REPORT_BUFFER* report) {
    Row row(report, 50, 1);
    if (!row.failed)
        row.Is(MBSubscribe(row.bus, Subscriber1, 1, 1, &row.probe), 0, kSubscribe1) &&
            row.Is(MBSubscribe(row.bus, Subscriber2, 1, 1, &row.probe),
                   PLT_STATUS_INDEX_OUT_OF_RANGE, kSubscribe2);
    return row.Result();
}

// ---- a hundred threads at once ----

struct Stress {
    MB_MSG_BUS* bus;
    bool async;
    volatile uint32_t sent, completed;
};

struct StressThread {
    Stress* stress;
    uint32_t index;
};

uint32_t Quiet(uint32_t, uint32_t, void*, uint32_t, void*) { return 0; }

uint32_t Completed(uint32_t, uint32_t, void*, uint32_t, void* context, uint32_t) {
    AddOne(&static_cast<Stress*>(context)->completed);
    return 0;
}

// Results do not matter here, only that nothing deadlocks: a slot crowded
// with dead entries may refuse a subscription for a round.
uint32_t StressRounds(void* context) {
    auto* t = static_cast<StressThread*>(context);
    Stress* s = t->stress;
    void* self = reinterpret_cast<void*>(uintptr_t{t->index} + 1);
    for (uint32_t round = 0; round < kStressRounds; ++round) {
        MBSubscribe(s->bus, Quiet, 1, 1, self);
        if (!s->async)
            MBSendMsg(s->bus, 1, 1, nullptr, 0);
        else if (MBSendMsgAsync(s->bus, 1, 1, nullptr, 0, Completed, s) == 0)
            AddOne(&s->sent);
        Sleep(1);
        MBUnsubscribe(s->bus, Quiet, 1, 1, self);
        Sleep(1);
    }
    return 0;
}

uint32_t ManyThreads(PLT_REPORT_BUFFER* report, bool async) {
    Stress stress{nullptr, async, 0, 0};
    if (MBCreateMsgBus(&stress.bus, 50, 50, 128) != 0 || stress.bus == nullptr) {
        if (stress.bus != nullptr) MBDeleteMsgBus(stress.bus);
        return Fail(report), kFailed;
    }
    StressThread contexts[kStressThreads];
    CheckThread threads[kStressThreads];
    for (uint32_t i = 0; i < kStressThreads; ++i) {
        contexts[i] = {&stress, i};
        StartThread(&threads[i], StressRounds, &contexts[i]);
        Sleep(1);
    }
    bool deadlocked = false;
    for (CheckThread& thread : threads)
        if (thread.handle != nullptr && !JoinThread(&thread, 30 * 60 * 1000)) deadlocked = true;
    // Every asynchronous delivery is let finish before the bus goes, so that
    // no worker is cut short inside one.
    if (async && !deadlocked) WaitForCount(&stress.completed, Load(&stress.sent), 10 * 60 * 1000);
    MBDeleteMsgBus(stress.bus);
    return deadlocked ? (Fail(report), kFailed) : 0;
}

}  // namespace
}  // namespace zendra::selfcheck

using namespace zendra::selfcheck;

extern "C" uint32_t TestMessageBus(PLT_REPORT_BUFFER* report) {
    AcquireSRWLockExclusive(&g_lock);
    g_report = report;
    g_checkingThread = GetCurrentThreadId();
    uint32_t (*const rows[])(PLT_REPORT_BUFFER*) = {NoSubscribers,
                                                    TwoSubscribers,
                                                    RepeatedSubscriber,
                                                    UnsubscribeEmpty,
                                                    UnsubscribedIsNotCalled,
                                                    SeparateSlots,
                                                    AsyncSend,
                                                    Broadcasts,
                                                    OneType,
                                                    OneSubscriberPerSlot};
    uint32_t result = 0;
    for (auto row : rows) result |= row(report);
    result |= ManyThreads(report, false);
    result |= ManyThreads(report, true);
    g_report = nullptr;
    ReleaseSRWLockExclusive(&g_lock);
    return result;
}
