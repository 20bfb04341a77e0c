// Enumerating running processes with and without a name filter.
#include <string.h>
#include <wctype.h>
#include <windows.h>
#include <tlhelp32.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zendra/os.h>

#include "counters.h"
#include "import_hook.h"

namespace {

struct Seen {
    std::wstring name;
    uint32_t id;
    bool zeroPadded;
};

PLT_STATUS Collect(const PLT_PROCESS_ENTRY* entry, void* context) {
    size_t length = wcsnlen(entry->name, PLT_PROCESS_NAME_CHARS);
    bool padded = true;
    for (size_t i = length; i < PLT_PROCESS_NAME_CHARS; ++i) padded &= entry->name[i] == 0;
    static_cast<std::vector<Seen>*>(context)->push_back(
        {std::wstring(entry->name, length), entry->processId, padded});
    return 1;  // ignored
}

std::wstring OwnName() {
    wchar_t path[MAX_PATH];
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring name = path;
    return name.substr(name.rfind(L'\\') + 1);
}

std::wstring Upper(std::wstring text) {
    for (wchar_t& c : text) c = towupper(c);
    return text;
}

bool Contains(const std::vector<Seen>& seen, uint32_t id) {
    for (const Seen& s : seen)
        if (s.id == id) return true;
    return false;
}

TEST(PltGetProcessList, WithoutFilterReportsEveryProcess) {
    std::vector<Seen> seen;
    ASSERT_EQ(PltGetProcessList(nullptr, 5, Collect, &seen), 0u);
    EXPECT_GT(seen.size(), 1u);
    EXPECT_TRUE(Contains(seen, GetCurrentProcessId()));
    for (const Seen& s : seen) {
        EXPECT_EQ(s.name.find(L'\\'), std::wstring::npos) << "a file name, no path";
        EXPECT_TRUE(s.zeroPadded);
    }
    std::vector<Seen> again;
    ASSERT_EQ(PltGetProcessList(L"ignored", 0, Collect, &again), 0u) << "count 0: no filter";
    EXPECT_TRUE(Contains(again, GetCurrentProcessId()));
}

TEST(PltGetProcessList, FilterMatchesWholeNameInAnyCase) {
    const std::wstring filter = Upper(OwnName());
    ASSERT_NE(filter, OwnName()) << "the filter must differ in case";
    std::vector<Seen> seen;
    ASSERT_EQ(PltGetProcessList(filter.c_str(), 1, Collect, &seen), 0u);
    EXPECT_TRUE(Contains(seen, GetCurrentProcessId()));
    for (const Seen& s : seen) EXPECT_EQ(_wcsicmp(s.name.c_str(), filter.c_str()), 0);

    // A prefix of the name is not the name.
    seen.clear();
    std::wstring prefix = filter.substr(0, filter.size() - 1);
    ASSERT_EQ(PltGetProcessList(prefix.c_str(), 1, Collect, &seen), 0u);
    EXPECT_FALSE(Contains(seen, GetCurrentProcessId()));
}

TEST(PltGetProcessList, FilterIsTriedFromEachOfItsFirstCountPositions) {
    // The name starts at position 2 of the filter: count 3 reaches it,
    // count 2 does not.
    const std::wstring filter = L"xx" + Upper(OwnName());
    std::vector<Seen> seen;
    ASSERT_EQ(PltGetProcessList(filter.c_str(), 2, Collect, &seen), 0u);
    EXPECT_FALSE(Contains(seen, GetCurrentProcessId()));
    ASSERT_EQ(PltGetProcessList(filter.c_str(), 3, Collect, &seen), 0u);
    EXPECT_TRUE(Contains(seen, GetCurrentProcessId()));
    // A count beyond the filter's end reads nothing past its terminator.
    seen.clear();
    ASSERT_EQ(PltGetProcessList(filter.c_str(), 100000, Collect, &seen), 0u);
    EXPECT_TRUE(Contains(seen, GetCurrentProcessId()));
}

TEST(PltGetProcessList, NullCallback) {
    EXPECT_EQ(PltGetProcessList(nullptr, 0, nullptr, nullptr), 87u);
}

HANDLE WINAPI FailingSnapshot(DWORD, DWORD) {
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE_VALUE;
}

DWORD g_firstError;
BOOL WINAPI FailingFirst(HANDLE, LPPROCESSENTRY32W) {
    SetLastError(g_firstError);
    return FALSE;
}

HANDLE g_closed;
BOOL WINAPI RecordingClose(HANDLE handle) {
    g_closed = handle;
    return CloseHandle(handle);
}

TEST(PltGetProcessList, SnapshotFailures) {
    std::vector<Seen> seen;
    {
        zt::ImportHook hook("CreateToolhelp32Snapshot", reinterpret_cast<void*>(&FailingSnapshot));
        EXPECT_EQ(PltGetProcessList(nullptr, 0, Collect, &seen), 5u);
    }
    zt::ImportHook first("Process32FirstW", reinterpret_cast<void*>(&FailingFirst));
    zt::ImportHook close("CloseHandle", reinterpret_cast<void*>(&RecordingClose));
    // An empty snapshot is no failure; other errors come back. The snapshot
    // is closed either way.
    g_firstError = ERROR_NO_MORE_FILES;
    g_closed = nullptr;
    EXPECT_EQ(PltGetProcessList(nullptr, 0, Collect, &seen), 0u);
    EXPECT_NE(g_closed, nullptr);
    g_firstError = ERROR_BAD_LENGTH;
    g_closed = nullptr;
    EXPECT_EQ(PltGetProcessList(nullptr, 0, Collect, &seen), 24u);
    EXPECT_NE(g_closed, nullptr);
    EXPECT_TRUE(seen.empty());
}

}  // namespace
