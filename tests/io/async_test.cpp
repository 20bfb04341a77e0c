// Asynchronous file I/O: completion routines on the issuing thread, and
// device-layer transfers completed on the default pool; every request is
// freed once, whichever way it ends.
#include <string.h>

#include <functional>
#include <string>

#include "io_support.h"

namespace {

const HANDLE kBogus = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7FFF1230));

TEST(CompletionRoutines, RunOnlyInTheIssuersAlertableWaitWithTheirOffsets) {
    std::wstring path = io::Tmp(L"apc.bin");
    HANDLE file = io::Open(path, PLT_FILE_CREATE | PLT_FILE_OVERLAPPED);
    std::string big(0x100000, 'b');
    io::Seen w, r;
    PLT_RESOURCE_STATS before = zt::Snapshot();
    ASSERT_EQ(PltWriteFileAsync(file, 0, big.data(), 0x100000, io::Record, &w), 0u);
    EXPECT_MOVED(before, {.LiveAllocCount = 1, .UntaggedAllocCount = 1});
    EXPECT_CALLS("0 192 1 1048576 0 1 1 1",
                 (WaitForSingleObject(GetCurrentProcess(), 50), int(w.calls)), SleepEx(10000, TRUE),
                 int(w.calls), w.bytes, w.status, w.thread == GetCurrentThreadId(),
                 w.buffer == big.data(), w.file == file)
        << "nothing before the alertable wait, then one callback on this thread";
    EXPECT_NO_LEAKS(before);
    char head[5] = {}, tail[5] = {};
    ASSERT_EQ(PltWriteFileAsync(file, -1, "tail", 4, io::Record, &w), 0u);
    SleepEx(10000, TRUE);
    ASSERT_EQ(PltReadFileAsync(file, -1, head, 4, io::Record, &r), 0u);
    ASSERT_EQ(PltReadFileAsync(file, 0x100000, tail, 4, io::Record, &r), 0u);
    while (r.calls < 2 && SleepEx(10000, TRUE) == WAIT_IO_COMPLETION) {
    }
    EXPECT_EQ(std::string(head) + tail, "bbbbtail")
        << "a write of -1 appends, a read of -1 starts at 0";
    EXPECT_CALLS("87 87 87 6 0 0", PltReadFileAsync(nullptr, 0, head, 1, io::Record, &r),
                 PltReadFileAsync(file, 0, nullptr, 1, io::Record, &r),
                 PltWriteFileAsync(file, 0, head, 1, nullptr, &r),
                 PltReadFileAsync(kBogus, 0, head, 1, io::Record, &r), SleepEx(0, TRUE),
                 PltCloseFile(file));
    {
        ZT_FAIL_IMPORT(ReadFileEx, 0);
        EXPECT_EQ(PltReadFileAsync(file, 0, head, 1, io::Record, &r), 0u)
            << "a failure without an error code starts nothing and still frees its request";
    }
    EXPECT_EQ(int(r.calls), 2);
}

TEST(DeviceTransfers, CompleteOnThePoolOnlyAfterTheTransfer) {
    std::wstring path = io::Tmp(L"dev.bin");
    HANDLE file = io::Open(path);
    io::Seen early, w, r, none;
    char text[8] = {};
    EXPECT_CALLS("87 0 4", PltWriteAsync(file, 0, "data", 4, io::Record, &early), int(early.calls),
                 int(io::Slurp(path).size()))
        << "no default pool: the transfer happened, no callback follows";
    {
        io::DefaultPool pool;
        ASSERT_EQ(PltWriteAsync(file, 4, "more", 4, io::Record, &w), 0u);
        ASSERT_TRUE(w.done.wait());
        PltSetFilePosition(file, 2, PLT_FILE_BEGIN);
        ASSERT_EQ(PltReadAsync(file, PLT_CURRENT_POSITION, text, 4, io::Record, &r), 0u);
        ASSERT_TRUE(r.done.wait());
        EXPECT_CALLS("1 4 0 1 1", int(w.calls), w.bytes, w.status, w.file == file,
                     w.thread != GetCurrentThreadId());
        EXPECT_STREQ(text, "tamo");
        EXPECT_CALLS("0 0 6 6", PltReadAsync(kBogus, 0, text, 4, nullptr, nullptr),
                     PltWriteAsync(kBogus, 0, text, 4, nullptr, nullptr),
                     PltWriteAsync(kBogus, 0, text, 4, io::Record, &none),
                     PltReadAsync(kBogus, PLT_CURRENT_POSITION, text, 4, io::Record, &none))
            << "the fallback reports nothing; a failed seek keeps its own code";
    }
    EXPECT_CALLS("0 0", int(none.calls), PltCloseFile(file));
}

// Every request record, allocation by allocation: each failing run returns 8,
// starts nothing and leaks nothing.
TEST(Requests, EveryAllocationFailureIsReportedAndFreesWhatWasTaken) {
    std::wstring path = io::Tmp(L"sweep.bin");
    io::Put(path, std::string(4096, 's'));
    HANDLE file = io::Open(path, PLT_FILE_OPEN | PLT_FILE_OVERLAPPED), plain = io::Open(path);
    zendra::sim::Simulation sim({.devices = {{L"SweepDevice"}}});
    HANDLE device = nullptr;
    ASSERT_EQ(PltOpenDriver(&device, L"SweepDevice"), 0u);
    io::DefaultPool pool;
    char buffer[16];
    std::wstring root = L"\\\\?\\" + io::Tmp(L"deep"), deep = root;
    while (deep.size() < 1100) deep += L"\\" + std::wstring(200, L'n');
    auto mapped = [&](io::Seen* s) {
        PLT_MAPPED_VIEW* view = nullptr;
        void* base = nullptr;
        PLT_STATUS status = PltMapViewOfFile(&view, &base, 0, plain, -1, 0);
        return s->done.set(), status ? status : PltUnmapViewOfFile(view);
    };
    // {allocations that can fail, start}; a start without callback sets done.
    const std::pair<int, std::function<PLT_STATUS(io::Seen*)>> entries[] = {
        {1, [&](io::Seen* s) { return PltReadFileAsync(file, 0, buffer, 8, io::Record, s); }},
        {1, [&](io::Seen* s) { return PltWriteFileAsync(file, 0, buffer, 8, io::Record, s); }},
        {1, [&](io::Seen* s) { return PltReadAsync(plain, 0, buffer, 8, io::Record, s); }},
        {1, [&](io::Seen* s) { return PltWriteAsync(plain, 0, buffer, 8, io::Record, s); }},
        {2, [&](io::Seen* s) { return PltTrimAsync(device, 0, 4096, io::Record, s); }},
        {1, [&](io::Seen* s) { return s->done.set(), PltTrimAsync(device, 0, 1, nullptr, s); }},
        {1, mapped},
        {1, [&](io::Seen* s) { return s->done.set(), PltCreateDirectoryPath(deep.c_str()); }}};
    for (const auto& [failures, start] : entries)
        EXPECT_EQ(zt::SweepAllocationFailures([&](int nth) {
                      PLT_RESOURCE_STATS before = zt::Snapshot();
                      io::Seen seen;
                      auto* fail = new zt::HeapFailure(nth);
                      PLT_STATUS status = start(&seen);
                      bool failed = fail->failed();
                      delete fail;
                      EXPECT_EQ(status, failed ? 8u : 0u) << nth;
                      EXPECT_TRUE(failed || (SleepEx(0, TRUE), seen.done.wait()));
                      EXPECT_TRUE(zt::WaitUntil([&] { return bool(zt::LiveMovedBy(before)); }))
                          << zt::LiveMovedBy(before).message();
                      return !failed;
                  }),
                  failures);
    for (std::wstring p = deep; p != root; p.resize(p.rfind(L'\\'))) RemoveDirectoryW(p.c_str());
    EXPECT_CALLS("0 0 0", PltCloseFile(file), PltCloseFile(plain), PltCloseFile(device));
}

}  // namespace
