// Module file names, whole and split into directory and file name.
#include <string.h>
#include <windows.h>

#include <string>

#include <gtest/gtest.h>
#include <zendra/os.h>

#include "guarded_buffer.h"
#include "import_hook.h"

namespace {

TEST(PltGetModuleName, MatchesWin32) {
    wchar_t expected[MAX_PATH];
    ASSERT_NE(GetModuleFileNameW(nullptr, expected, MAX_PATH), 0u);
    wchar_t name[MAX_PATH];
    ASSERT_EQ(PltGetModuleName(nullptr, name, MAX_PATH), 0u);
    EXPECT_STREQ(name, expected);

    ASSERT_EQ(PltGetModuleName(zt::LibraryModule(), name, MAX_PATH), 0u);
    std::wstring dll = name;
    ASSERT_GE(dll.size(), 18u);
    EXPECT_EQ(_wcsicmp(dll.c_str() + dll.size() - 18, L"ZendraPlatform.dll"), 0) << dll;
}

TEST(PltGetModuleName, CutNameStillSucceeds) {
    wchar_t name[6];
    wmemset(name, L'#', 6);
    EXPECT_EQ(PltGetModuleName(nullptr, name, 5), 0u);
    EXPECT_EQ(name[5], L'#');
    EXPECT_EQ(PltGetModuleName(nullptr, nullptr, 5), 87u);
}

TEST(PltGetModuleName, UnknownModuleGivesTheWin32Error) {
    HMODULE bogus = reinterpret_cast<HMODULE>(0x10);
    wchar_t name[MAX_PATH];
    SetLastError(0);
    ASSERT_EQ(GetModuleFileNameW(bogus, name, MAX_PATH), 0u);
    DWORD expected = GetLastError();
    ASSERT_NE(expected, 0u);
    EXPECT_EQ(PltGetModuleName(bogus, name, MAX_PATH), expected);
    EXPECT_EQ(PltGetModulePath(bogus, name, MAX_PATH), expected);
    EXPECT_EQ(PltGetModuleFileName(bogus, name, MAX_PATH), expected);
}

TEST(PltGetModulePath, RealModuleSplitsIntoPathAndFileName) {
    wchar_t full[MAX_PATH], path[MAX_PATH], file[MAX_PATH];
    ASSERT_EQ(PltGetModuleName(nullptr, full, MAX_PATH), 0u);
    ASSERT_EQ(PltGetModulePath(nullptr, path, MAX_PATH), 0u);
    ASSERT_EQ(PltGetModuleFileName(nullptr, file, MAX_PATH), 0u);
    EXPECT_EQ(std::wstring(path) + file, full);
    EXPECT_EQ(path[wcslen(path) - 1], L'\\');
    EXPECT_EQ(wcschr(file, L'\\'), nullptr);
}

// GetModuleFileNameW answering with a chosen name.
const wchar_t* g_fakeName;
DWORD WINAPI FakeModuleFileName(HMODULE, LPWSTR buffer, DWORD size) {
    if (g_fakeName == nullptr) {
        SetLastError(ERROR_ACCESS_DENIED);
        return 0;
    }
    DWORD length = static_cast<DWORD>(wcslen(g_fakeName));
    if (size == 0) return 0;
    DWORD copied = length < size ? length : size - 1;
    wmemcpy(buffer, g_fakeName, copied);
    buffer[copied] = L'\0';
    return length < size ? length : size;
}

class FakeName {
public:
    explicit FakeName(const wchar_t* name)
        : hook_("GetModuleFileNameW", reinterpret_cast<void*>(&FakeModuleFileName)) {
        g_fakeName = name;
    }

private:
    zt::ImportHook hook_;
};

TEST(PltGetModulePath, SplitsAtTheLastBackslash) {
    FakeName fake(L"C:\\dir\\m.dll");
    wchar_t path[32], file[32];
    ASSERT_EQ(PltGetModulePath(nullptr, path, 32), 0u);
    EXPECT_STREQ(path, L"C:\\dir\\");
    ASSERT_EQ(PltGetModuleFileName(nullptr, file, 32), 0u);
    EXPECT_STREQ(file, L"m.dll");
}

TEST(PltGetModulePath, SizeEqualToTheLengthGetsOneCharacterMore) {
    FakeName fake(L"C:\\dir\\m.dll");
    // "m.dll" is 5 characters: size 5 is accepted and the terminator lands
    // in a sixth character, which the guarded buffer must provide.
    zt::GuardedBuffer file(6 * sizeof(wchar_t));
    ASSERT_EQ(PltGetModuleFileName(nullptr, file.as<wchar_t>(), 5), 0u);
    EXPECT_STREQ(file.as<wchar_t>(), L"m.dll");
    EXPECT_EQ(PltGetModuleFileName(nullptr, file.as<wchar_t>(), 4), 24u);

    zt::GuardedBuffer path(8 * sizeof(wchar_t));
    ASSERT_EQ(PltGetModulePath(nullptr, path.as<wchar_t>(), 7), 0u);
    EXPECT_STREQ(path.as<wchar_t>(), L"C:\\dir\\");
    EXPECT_EQ(PltGetModulePath(nullptr, path.as<wchar_t>(), 6), 24u);
}

TEST(PltGetModulePath, NameWithoutBackslash) {
    FakeName fake(L"m.dll");
    wchar_t path[8], file[8];
    ASSERT_EQ(PltGetModulePath(nullptr, path, 8), 0u);
    EXPECT_STREQ(path, L"\\");
    ASSERT_EQ(PltGetModuleFileName(nullptr, file, 8), 0u);
    EXPECT_STREQ(file, L"m.dll");
    EXPECT_EQ(PltGetModuleFileName(nullptr, file, 4), 24u);
    // The lone backslash follows the same size rule.
    zt::GuardedBuffer two(2 * sizeof(wchar_t));
    EXPECT_EQ(PltGetModulePath(nullptr, two.as<wchar_t>(), 1), 0u);
    EXPECT_STREQ(two.as<wchar_t>(), L"\\");
    EXPECT_EQ(PltGetModulePath(nullptr, two.as<wchar_t>(), 0), 24u);
}

TEST(PltGetModulePath, TrailingBackslashLeavesAnEmptyFileName) {
    FakeName fake(L"C:\\dir\\");
    wchar_t file[8] = L"#######";
    ASSERT_EQ(PltGetModuleFileName(nullptr, file, 0), 0u);
    EXPECT_STREQ(file, L"");
}

TEST(PltGetModulePath, FailuresAndNullBuffers) {
    FakeName fake(nullptr);
    wchar_t buffer[8];
    EXPECT_EQ(PltGetModulePath(nullptr, buffer, 8), 5u);
    EXPECT_EQ(PltGetModuleFileName(nullptr, buffer, 8), 5u);
    EXPECT_EQ(PltGetModuleName(nullptr, buffer, 8), 5u);
    EXPECT_EQ(PltGetModulePath(nullptr, nullptr, 8), 87u);
    EXPECT_EQ(PltGetModuleFileName(nullptr, nullptr, 8), 87u);
}

}  // namespace
