// The self-check routines through the exports: results and reports on this
// machine, the report buffer's bounds, faults planted under the routines,
// and two bus checks started at once.
#include <atomic>
#include <mutex>
#include <vector>

#include "selfcheck_support.h"

namespace {

using Routine = uint32_t (*)(PLT_REPORT_BUFFER*);

// Every routine that finishes in seconds gives its result here, with no
// failure line when it passes and nothing left behind (the counters are
// checked after every test).
TEST(SelfChecks, PassOnThisMachineAndLeaveNothingBehind) {
    const struct {
        const char* name;
        Routine routine;
        uint32_t expected;
        std::vector<std::wstring> lines;  // among the report's lines
    } cases[] = {
        {"TestList", TestList, 0, {}},
        {"TestLocks", TestLocks, 0, {}},
        {"TestLookAsideList", TestLookAsideList, 0, {}},
        {"TestLookAsideListEx", TestLookAsideListEx, 0, {}},
        {"TestMemory", TestMemory, 0, {}},
        {"TestWorkItems", TestWorkItems, 0, {}},
        {"TestMessageBusEx", TestMessageBusEx, 0, {}},
        {"TestConfig", TestConfig, 0, {}},
        {"TestSHA1", TestSHA1, 0, {}},
        {"TestFileIO",
         TestFileIO,
         0,
         {L"Recieved write callback\r\nCompletion Status: 0  -  Total bytes written: 1048576\r\n"
          L"Wait Suceeded\r\nWaiting for Read to finish\r\nRecieved read callback\r\n"
          L"Completion Status: 0  -  Total bytes Read: 1048576\r\nWait Suceeded\r\n"}},
        {"TestStrings",
         TestStrings,
         0,
         {L"SprintfLength test\r\nStrTrim test-also uses StrAllocCopy()\r\n",
          L"Str before Trim: ' Both left and right Trim '\r\n"
          L"Str after Trim: 'Both left and right Trim'\r\n",
          L"Before: \\xB1\\x00\\x0d\\xed\r\nAfter: 0xB1000DED\r\nBefore: 0xB10DED\r\n"
          L"After: '\\xB1\\x00\\x0D\\xED'\r\nBefore: \\xDE\\xAD",
          L"ReadLine test\r\nAnsiToWide test\r\nAnsiToTChar test\r\nTCharToAnsi test\r\n"
          L"WideToAnsi test\r\nAnsiToWideEx test\r\nAnsiToTCharEx test\r\nSprintfLengthV test\r\n"
          L"WSprintfLengthV test\r\nWideToAnsiV test\r\n"}},
    };
    for (const auto& c : cases) {
        Report report;
        EXPECT_EQ(c.routine(report.get()), c.expected) << c.name << "\n" << report.text();
        EXPECT_EQ(report.failures(), L"") << c.name;
        for (const std::wstring& line : c.lines)
            EXPECT_NE(report.text().find(line), std::wstring::npos) << c.name << ": " << line;
    }
    EXPECT_TRUE(NothingLeftBehind());
}

// TestSystemLog's report: six messages for 120, each followed by a failure
// line without description, and the log-level line.
std::wstring LogReport() {
    std::wstring all;
    for (int i = 0; i < 6; ++i) all += SystemMessage(120) + L"\r\n : Failed - \r\n";
    return all + L" : Failed - The logging level should be greater than 0.\r\n";
}

// Each piece is cut to capacity - length - 4 characters; a capacity below
// length + 4 takes nothing. The text never reaches the guard page.
TEST(ReportBuffer, AppendsWithinCapacityLessFourAndNeverPastIt) {
    const std::wstring full = LogReport(), earlier = L"earlier text";
    const uint32_t n = static_cast<uint32_t>(full.size());
    const struct {
        uint32_t capacity;
        std::wstring initial, expected;
    } cases[] = {
        {n + 4, L"", full},
        {n + 3, L"", full.substr(0, n - 1)},  // one character short: the last is cut
        {4, L"", L""},
        {14, earlier, earlier},  // below the text + 4: the limit would wrap
        {n + 16, earlier, earlier + full},
        {2 * n + 4, full, full + full},  // a second run appends
    };
    for (const auto& c : cases) {
        Report report(c.capacity, c.initial);
        EXPECT_EQ(TestSystemLog(report.get()), 1u);
        EXPECT_EQ(report.text(), c.expected) << "capacity " << c.capacity;
    }
    EXPECT_EQ(TestSystemLog(nullptr), 1u) << "a null report runs the checks";
}

// Fakes of the services the routines stand on.
BOOL WINAPI RemoveAndClaimSuccess(LPCWSTR path) {
    RemoveDirectoryW(path);
    return TRUE;
}
BOOL WINAPI ReadOneByteShort(HANDLE file, LPVOID buffer, DWORD bytes, LPDWORD read,
                             LPOVERLAPPED overlapped) {
    BOOL ok = ReadFile(file, buffer, bytes, read, overlapped);
    if (ok && read != nullptr && *read > 0) --*read;
    return ok;
}
HANDLE WINAPI CannotOpen(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE) {
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE_VALUE;
}
LSTATUS WINAPI CannotRead(HKEY, LPCWSTR, LPCWSTR, DWORD, LPDWORD, PVOID, LPDWORD) {
    return ERROR_ACCESS_DENIED;
}
void* AsFake(auto function) { return reinterpret_cast<void*>(function); }

// One service replaced under a routine: the routine reports the sub-checks
// that depend on it with their descriptions, and still cleans up.
TEST(SelfChecks, ReportPlantedFaultsWithTheirDescriptions) {
    zt::g_importError = ERROR_NOT_ENOUGH_MEMORY;
    void* const noThread = zt::FailingVersionOf(&CreateThread);
    const std::wstring sendFailed = L"Return Value for SendMessage 87;";
    const struct {
        const char* name;
        Routine routine;
        const char* import;
        void* fake;
        uint32_t expected;
        std::wstring failures;
    } cases[] = {
        {"TestList", TestList, "CreateThread", noThread, 1, L"Successfully Created Thread1;"},
        {"TestLocks", TestLocks, "CreateThread", noThread, 1,
         L"Successfully Created Thread1;Successfully Created Thread1;;;;"},
        {"TestLookAsideListEx", TestLookAsideListEx, "CreateThread", noThread, 1, L";"},
        {"TestWorkItems", TestWorkItems, "CreateThread", noThread, 1, L";;;;"},
        {"TestWorkItemsEx", TestWorkItemsEx, "CreateThread", noThread, 1, L";"},
        {"TestMessageBus", TestMessageBus, "CreateThread", noThread, 0xFFFFFFFF,
         sendFailed + sendFailed},
        {"TestProcess", TestProcess, "CreateThread", noThread, 0xFFFFFFFF,
         L"CreateThread MUST return a threadHandle;CreateThread MUST return a threadHandle;"
         L"CreateThread MUST return a thread ID;"},
        {"TestMessageBusEx", TestMessageBusEx, "CreateFileW", AsFake(&CannotOpen), 0xFFFFFFFF,
         L"PLTCreateFile failed;"},
        {"TestMemory", TestMemory, "CreateFileMappingW", zt::FailingVersionOf(&CreateFileMappingW),
         1,
         L"Allocating some buffer as Memory Mapped file;"
         L"Allocating some buffer as Memory Mapped file;"},
        {"TestConfig", TestConfig, "RegGetValueW", AsFake(&CannotRead), 1,
         L"The written and read strings must be equal;"
         L"Each string of multi str reg value written and read must be equal;"
         L"Each byte of binary string written and read must be equal;"
         L"The written and read UINT64 value must be equal;"
         L"The written and read UINT64 value must be equal;"},
        {"TestStrings", TestStrings, "WriteFile", zt::FailingVersionOf(&WriteFile), 1,
         L"The lines should be read, so the line size must be greater than 0;"},
        {"TestFileIO", TestFileIO, "RemoveDirectoryW", AsFake(&RemoveAndClaimSuccess), 1,
         L"Remove Directory should NOT succeed;"},
        {"TestFileIO", TestFileIO, "ReadFile", AsFake(&ReadOneByteShort), 1,
         L"Bytes requested to read and actual read should be same;"},
    };
    for (const auto& c : cases) {
        Report report;
        {
            zt::ImportHook hook(c.import, c.fake);
            QuietChildren quiet;
            EXPECT_EQ(c.routine(report.get()), c.expected) << c.name << " without " << c.import;
        }
        EXPECT_EQ(report.failures(), c.failures) << c.name << " without " << c.import << "\n"
                                                 << report.text();
        EXPECT_TRUE(NothingLeftBehind()) << c.name;
    }
}

// ---- two bus checks at once ----

struct Interleaving {
    std::atomic<DWORD> first{0};
    zt::Signal inside, release;
    std::mutex lock;
    std::vector<DWORD> callers;
} g_interleaving;

// Thread creation fails (so the bus checks run without pools and finish in
// moments); the first check's first call waits until the test lets it go.
HANDLE WINAPI RecordCreateThread(LPSECURITY_ATTRIBUTES, SIZE_T, LPTHREAD_START_ROUTINE, LPVOID,
                                 DWORD, LPDWORD) {
    Interleaving& g = g_interleaving;
    DWORD me = GetCurrentThreadId();
    size_t calls;
    {
        std::lock_guard<std::mutex> hold(g.lock);
        g.callers.push_back(me);
        calls = g.callers.size();
    }
    if (calls == 1 && me == g.first) {
        g.inside.set();
        g.release.wait();
    }
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
}

TEST(SelfChecks, TwoBusChecksAtOnceRunOneAfterTheOther) {
    Interleaving& g = g_interleaving;
    zt::ImportHook hook("CreateThread", reinterpret_cast<void*>(&RecordCreateThread));
    Report reports[2];
    uint32_t results[2] = {0, 0};
    DWORD ids[2] = {0, 0};
    {
        zt::TestThread a([&] {
            ids[0] = g.first = GetCurrentThreadId();
            results[0] = TestMessageBus(reports[0].get());
        });
        ASSERT_TRUE(g.inside.wait());
        zt::TestThread b([&] {
            ids[1] = GetCurrentThreadId();
            results[1] = TestMessageBus(reports[1].get());
        });
        Sleep(300);
        {
            std::lock_guard<std::mutex> hold(g.lock);
            EXPECT_EQ(g.callers.size(), 1u) << "the second check must wait for the first";
        }
        g.release.set();
        // Generous: under heap checking each check takes tens of seconds.
        EXPECT_TRUE(a.join(300000) && b.join(300000));
    }
    size_t firstOfB = 0;
    while (firstOfB < g.callers.size() && g.callers[firstOfB] == ids[0]) ++firstOfB;
    EXPECT_GT(firstOfB, 1u);
    for (size_t i = firstOfB; i < g.callers.size(); ++i) EXPECT_EQ(g.callers[i], ids[1]) << i;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(results[i], 0xFFFFFFFFu);
        EXPECT_EQ(reports[i].failures(),
                  L"Return Value for SendMessage 87;Return Value for SendMessage 87;");
    }
}

}  // namespace
