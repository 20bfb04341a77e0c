// TestMessageBusEx: ten subscribers on three message types, each checking
// type, length and count of what it receives and writing it to its own
// file, over numbered rounds of synchronous sends.
#include <stdio.h>

#include <zendra/io.h>
#include <zendra/msgbus.h>

#include "selfcheck/report.h"

namespace zendra::selfcheck {
namespace {

constexpr uint32_t kFailed = 0xFFFFFFFFu;
constexpr uint32_t kSubscribers = 10;
constexpr uint64_t kIterations = 100;
constexpr const wchar_t* kDirectory = L"MessageBusTestExDir";
constexpr const wchar_t* kLog = L"MessageBusTestExDir\\TestSynchronousSubscribers.txt";

// One TestMessageBusEx at a time: its subscribers report through this.
SRWLOCK g_lock = SRWLOCK_INIT;
PLT_REPORT_BUFFER* g_report;

struct MESSAGE1 {
    uint64_t MsgCount;
};
struct MESSAGE2 {
    uint64_t MsgCount;
    uint32_t Data1;
    uint64_t Data2;
    uint32_t Data3;
};
struct MESSAGE3 {
    uint64_t MsgCount;
    wchar_t Message[32];
};
const uint32_t kSizes[4] = {0, sizeof(MESSAGE1), sizeof(MESSAGE2), sizeof(MESSAGE3)};

struct Subscriber {
    uint32_t type;
    uint64_t received;
    HANDLE file;
};

void Report(const wchar_t* format, uint32_t a, uint32_t b) {
    wchar_t line[kMessageLimit + 1];
    _snwprintf(line, kMessageLimit, format, a, b);
    line[kMessageLimit] = L'\0';
    Fail(g_report, line);
}

bool WriteText(HANDLE file, const char* text) {
    uint32_t length = static_cast<uint32_t>(strlen(text)), done = 0;
    return PltWriteFile(file, PLT_CURRENT_POSITION, text, length, &done) == 0 && done == length;
}

uint32_t Receive(uint32_t type, uint32_t, void* data, uint32_t length, void* context) {
    auto* s = static_cast<Subscriber*>(context);
    if (type < 1 || type > 3) return Report(L"Invalid message type %d", type, 0), 1;
    if (type != s->type)
        return Report(L"Message type %d does not match subscriber type %d", type, s->type), 1;
    if (length != kSizes[type])
        return Report(L"Message length %d does not match sizeof(MESSAGE%d)", length, type), 1;
    uint64_t count = static_cast<MESSAGE1*>(data)->MsgCount;
    if (count != ++s->received)
        return Report(L"Message count %d does not match expected message count %d",
                      static_cast<uint32_t>(count), static_cast<uint32_t>(s->received)),
               1;
    char line[64];
    _snprintf(line, sizeof line - 1, "Message type %d, %d received,\r\n", type,
              static_cast<int>(s->received));
    line[sizeof line - 1] = '\0';
    return WriteText(s->file, line) ? 0 : 1;
}

// Opens (creating or emptying) one of the check's files.
bool Create(const wchar_t* path, HANDLE* file) {
    return PltCreateFile(path, PLT_FILE_CREATE, PLT_FILE_ACCESS_WRITE, PLT_FILE_SHARE_READ, file) ==
           0;
}

void SubscriberPath(uint32_t index, wchar_t* path, size_t chars) {
    _snwprintf(path, chars - 1, L"%ls\\Subscriber1_%u.txt", kDirectory, index + 1);
    path[chars - 1] = L'\0';
}

// One round: a message of each layout, every one logged first.
bool SendRound(MB_MSG_BUS* bus, HANDLE log, uint64_t round, PLT_REPORT_BUFFER* report) {
    char line[160];
    _snprintf(line, sizeof line - 1, "Message send iteration %llu\r\n",
              static_cast<unsigned long long>(round));
    line[sizeof line - 1] = '\0';
    WriteText(log, line);
    MESSAGE1 m1{round};
    MESSAGE2 m2{round, static_cast<uint32_t>(round * 2), round * 3,
                static_cast<uint32_t>(round * 4)};
    MESSAGE3 m3{round, {}};
    _snwprintf(m3.Message, 31, L"Hello %llu", static_cast<unsigned long long>(round));
    _snprintf(line, sizeof line - 1,
              "MsgCount == %llu\r\nMsgCount == %llu, Data1 == %u, Data2 == %llu, Data3 == "
              "%u\r\nMsgCount == %llu, Message == %ls\r\n",
              static_cast<unsigned long long>(m1.MsgCount),
              static_cast<unsigned long long>(m2.MsgCount), m2.Data1,
              static_cast<unsigned long long>(m2.Data2), m2.Data3,
              static_cast<unsigned long long>(m3.MsgCount), m3.Message);
    line[sizeof line - 1] = '\0';
    WriteText(log, line);
    void* messages[3] = {&m1, &m2, &m3};
    const wchar_t* failures[3] = {L"MBSendMsg failed for message1",
                                  L"MBSendMsg failed for message2",
                                  L"MBSendMsg failed for message3"};
    bool ok = true;
    for (uint32_t type = 1; type <= 3; ++type)
        if (MBSendMsg(bus, type, 1, messages[type - 1], kSizes[type]) != 0)
            ok = false, Fail(report, failures[type - 1]);
    return ok;
}

uint32_t Run(PLT_REPORT_BUFFER* report) {
    Subscriber subscribers[kSubscribers] = {};
    HANDLE log = INVALID_HANDLE_VALUE;
    wchar_t path[MAX_PATH];
    uint32_t directory = PltCreateDirectory(kDirectory);
    bool ok = directory == 0 || directory == ERROR_ALREADY_EXISTS;
    ok = ok && Create(kLog, &log);
    for (uint32_t i = 0; i < kSubscribers; ++i) {
        subscribers[i] = {i % 3 + 1, 0, INVALID_HANDLE_VALUE};
        SubscriberPath(i, path, MAX_PATH);
        ok = ok && Create(path, &subscribers[i].file);
    }
    if (!ok) Fail(report, L"PLTCreateFile failed");
    MB_MSG_BUS* bus = nullptr;
    if (ok && (MBCreateMsgBus(&bus, 4, 2, 16) != 0 || bus == nullptr))
        ok = false, Fail(report, L"MBCreateMsgBus failed");
    for (uint32_t i = 0; ok && i < kSubscribers; ++i)
        if (MBSubscribe(bus, Receive, subscribers[i].type, 1, &subscribers[i]) != 0)
            ok = false, Fail(report, L"MBSubscribe failed");
    for (uint64_t round = 1; ok && round <= kIterations; ++round)
        ok = SendRound(bus, log, round, report);
    for (uint32_t i = 0; ok && i < kSubscribers; ++i)
        if (subscribers[i].received != kIterations)
            ok = false, Report(L"Message count %d does not match expected message count %d",
                               static_cast<uint32_t>(subscribers[i].received), kIterations);
    if (bus != nullptr) {
        bool unsubscribed = true;
        for (Subscriber& s : subscribers)
            unsubscribed = MBUnsubscribe(bus, Receive, s.type, 1, &s) == 0 && unsubscribed;
        if (ok && !unsubscribed) ok = false, Fail(report, L"MBUnsubscribe failed");
        if (MBDeleteMsgBus(bus) != 0) ok = false, Fail(report, L"MBDeleteMsgBus failed");
    }
    // Leave nothing behind.
    for (uint32_t i = 0; i < kSubscribers; ++i) {
        if (subscribers[i].file != INVALID_HANDLE_VALUE) PltCloseFile(subscribers[i].file);
        SubscriberPath(i, path, MAX_PATH);
        PltDeleteFile(path);
    }
    if (log != INVALID_HANDLE_VALUE) PltCloseFile(log);
    PltDeleteFile(kLog);
    PltRemoveDirectory(kDirectory);
    return ok ? 0 : kFailed;
}

}  // namespace
}  // namespace zendra::selfcheck

using namespace zendra::selfcheck;

extern "C" uint32_t TestMessageBusEx(PLT_REPORT_BUFFER* report) {
    AcquireSRWLockExclusive(&g_lock);
    g_report = report;
    uint32_t result = Run(report);
    g_report = nullptr;
    ReleaseSRWLockExclusive(&g_lock);
    return result;
}
