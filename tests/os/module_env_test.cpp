// Module file names and environment variables.
#include <string.h>
#include <windows.h>

#include <string>

#include <gtest/gtest.h>
#include <zendra/os.h>

#include "guarded_buffer.h"
#include "import_hook.h"

namespace {

TEST(PltGetModuleName, MatchesWin32AndSplits) {
    wchar_t expected[MAX_PATH], name[MAX_PATH], path[MAX_PATH], file[MAX_PATH];
    ASSERT_NE(GetModuleFileNameW(nullptr, expected, MAX_PATH), 0u);
    ASSERT_EQ(PltGetModuleName(nullptr, name, MAX_PATH), 0u);
    EXPECT_STREQ(name, expected);
    ASSERT_EQ(
        PltGetModulePath(nullptr, path, MAX_PATH) + PltGetModuleFileName(nullptr, file, MAX_PATH),
        0u);
    EXPECT_EQ(std::wstring(path) + file, expected);
    ASSERT_EQ(PltGetModuleFileName(zt::LibraryModule(), file, MAX_PATH), 0u);
    EXPECT_EQ(_wcsicmp(file, L"ZendraPlatform.dll"), 0);
    // A name cut to fit still succeeds.
    wmemset(name, L'#', 6);
    EXPECT_EQ(PltGetModuleName(nullptr, name, 5), 0u);
    EXPECT_EQ(name[5], L'#');
    // An unknown module fails with Win32's error.
    HMODULE bogus = reinterpret_cast<HMODULE>(0x10);
    ASSERT_EQ(GetModuleFileNameW(bogus, name, MAX_PATH), 0u);
    DWORD error = GetLastError();
    EXPECT_EQ(PltGetModuleName(bogus, name, MAX_PATH), error);
    EXPECT_EQ(PltGetModulePath(bogus, name, MAX_PATH), error);
    EXPECT_EQ(PltGetModuleFileName(bogus, name, MAX_PATH), error);
    EXPECT_EQ(PltGetModuleName(nullptr, nullptr, 5) + PltGetModulePath(nullptr, nullptr, 5) +
                  PltGetModuleFileName(nullptr, nullptr, 5),
              3 * 87u);
}

// GetModuleFileNameW answering with a chosen name, or failing for null.
const wchar_t* g_name;
DWORD WINAPI FakeModuleFileName(HMODULE, LPWSTR buffer, DWORD size) {
    if (g_name == nullptr) {
        SetLastError(ERROR_ACCESS_DENIED);
        return 0;
    }
    DWORD length = static_cast<DWORD>(wcslen(g_name));
    DWORD copied = length < size ? length : size - 1;
    wmemcpy(buffer, g_name, copied);
    buffer[copied] = L'\0';
    return length < size ? length : size;
}

struct Split {
    PLT_STATUS pathStatus, fileStatus;
    std::wstring path, file;
};

// Path and file name of a faked module name, each written into a buffer of
// `size` + 1 characters that ends at a no-access page.
Split SplitName(const wchar_t* name, uint32_t size) {
    zt::ImportHook hook("GetModuleFileNameW", reinterpret_cast<void*>(&FakeModuleFileName));
    g_name = name;
    zt::GuardedBuffer path((size + 1) * sizeof(wchar_t)), file((size + 1) * sizeof(wchar_t));
    Split s{PltGetModulePath(nullptr, path.as<wchar_t>(), size),
            PltGetModuleFileName(nullptr, file.as<wchar_t>(), size), L"-", L"-"};
    if (s.pathStatus == 0) s.path = path.as<wchar_t>();
    if (s.fileStatus == 0) s.file = file.as<wchar_t>();
    return s;
}

TEST(PltGetModulePath, SplitsAtTheLastBackslashWithOneCharacterMoreThanTheSize) {
    Split s = SplitName(L"C:\\dir\\m.dll", 32);
    EXPECT_EQ(s.path, L"C:\\dir\\");
    EXPECT_EQ(s.file, L"m.dll");
    // A part exactly `size` long is written with its terminator after it.
    s = SplitName(L"C:\\dir\\m.dll", 5);
    EXPECT_EQ(s.pathStatus, 24u);
    EXPECT_EQ(s.file, L"m.dll");
    s = SplitName(L"C:\\dir\\m.dll", 4);
    EXPECT_EQ(s.fileStatus, 24u);
    EXPECT_EQ(SplitName(L"C:\\dir\\m.dll", 7).path, L"C:\\dir\\");
    EXPECT_EQ(SplitName(L"C:\\dir\\m.dll", 6).pathStatus, 24u);
    // Without a backslash the path is a lone backslash, under the same rule.
    s = SplitName(L"m.dll", 5);
    EXPECT_EQ(s.path, L"\\");
    EXPECT_EQ(s.file, L"m.dll");
    EXPECT_EQ(SplitName(L"m.dll", 1).path, L"\\");
    s = SplitName(L"m.dll", 0);
    EXPECT_EQ(s.pathStatus + s.fileStatus, 2 * 24u);
    EXPECT_EQ(SplitName(L"C:\\dir\\", 0).file, L"");
    s = SplitName(nullptr, 8);
    EXPECT_EQ(s.pathStatus + s.fileStatus, 2 * 5u) << "the read's error";
}

class Variable {
public:
    Variable(const wchar_t* name, const wchar_t* value) : name_(name) {
        SetEnvironmentVariableW(name, value);
    }
    ~Variable() { SetEnvironmentVariableW(name_, nullptr); }
    const wchar_t* name_;
};

TEST(PltGetEnvironmentVariable, SizeQueryBufferAndMissingVariables) {
    Variable v(L"ZT_ENV_TEST", L"hello");
    uint32_t size = 0;
    ASSERT_EQ(PltGetEnvironmentVariable(v.name_, nullptr, &size), 0u);
    EXPECT_EQ(size, 6u) << "terminator included";
    wchar_t value[8] = L"#######";
    ASSERT_EQ(PltGetEnvironmentVariable(v.name_, value, &size), 0u);
    EXPECT_STREQ(value, L"hello");
    EXPECT_EQ(size, 6u);
    // Too small: success, nothing filled, size left alone.
    wcscpy(value, L"#######");
    size = 5;
    EXPECT_EQ(PltGetEnvironmentVariable(v.name_, value, &size), 0u);
    EXPECT_EQ(PltGetEnvironmentVariable(v.name_, value, nullptr), 0u);
    EXPECT_STREQ(value, L"#######");
    EXPECT_EQ(size, 5u);

    EXPECT_EQ(PltGetEnvironmentVariable(L"ZT_ENV_MISSING", value, &size), 203u);
    EXPECT_EQ(PltGetEnvironmentVariable(L"ZT_ENV_MISSING", nullptr, &size), 203u);
    EXPECT_EQ(PltGetEnvironmentVariable(nullptr, nullptr, &size), 87u);
    // An empty value is no failure, whatever error was left behind.
    Variable empty(L"ZT_ENV_EMPTY", L"");
    SetLastError(ERROR_ACCESS_DENIED);
    EXPECT_EQ(PltGetEnvironmentVariable(empty.name_, value, &size), 0u);
    EXPECT_STREQ(value, L"");
}

}  // namespace
