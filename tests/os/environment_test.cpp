// Reading environment variables.
#include <windows.h>

#include <gtest/gtest.h>
#include <zendra/os.h>

namespace {

class Variable {
public:
    Variable(const wchar_t* name, const wchar_t* value) : name_(name) {
        SetEnvironmentVariableW(name, value);
    }
    ~Variable() { SetEnvironmentVariableW(name_, nullptr); }

private:
    const wchar_t* name_;
};

TEST(PltGetEnvironmentVariable, SizeQueryCountsTheTerminator) {
    Variable v(L"ZT_ENV_TEST", L"hello");
    uint32_t size = 0;
    ASSERT_EQ(PltGetEnvironmentVariable(L"ZT_ENV_TEST", nullptr, &size), 0u);
    EXPECT_EQ(size, 6u);
    EXPECT_EQ(PltGetEnvironmentVariable(L"ZT_ENV_TEST", nullptr, nullptr), 0u);
}

TEST(PltGetEnvironmentVariable, ReadsIntoTheBuffer) {
    Variable v(L"ZT_ENV_TEST", L"hello");
    wchar_t value[16];
    uint32_t size = 16;
    ASSERT_EQ(PltGetEnvironmentVariable(L"ZT_ENV_TEST", value, &size), 0u);
    EXPECT_STREQ(value, L"hello");
    EXPECT_EQ(size, 16u) << "not updated";
    // Exactly the needed size.
    size = 6;
    ASSERT_EQ(PltGetEnvironmentVariable(L"ZT_ENV_TEST", value, &size), 0u);
    EXPECT_STREQ(value, L"hello");
}

TEST(PltGetEnvironmentVariable, TooSmallBufferSucceedsUnfilled) {
    Variable v(L"ZT_ENV_TEST", L"hello");
    wchar_t value[8] = L"#######";
    uint32_t size = 5;
    EXPECT_EQ(PltGetEnvironmentVariable(L"ZT_ENV_TEST", value, &size), 0u);
    EXPECT_STREQ(value, L"#######");
    EXPECT_EQ(size, 5u);
    // No size pointer means a buffer of 0 characters.
    EXPECT_EQ(PltGetEnvironmentVariable(L"ZT_ENV_TEST", value, nullptr), 0u);
    EXPECT_STREQ(value, L"#######");
}

TEST(PltGetEnvironmentVariable, MissingVariableGives203) {
    SetEnvironmentVariableW(L"ZT_ENV_MISSING", nullptr);
    wchar_t value[8];
    uint32_t size = 8;
    EXPECT_EQ(PltGetEnvironmentVariable(L"ZT_ENV_MISSING", value, &size), 203u);
    EXPECT_EQ(PltGetEnvironmentVariable(L"ZT_ENV_MISSING", nullptr, &size), 203u);
    EXPECT_EQ(size, 8u);
}

TEST(PltGetEnvironmentVariable, EmptyValueIsNoFailure) {
    Variable v(L"ZT_ENV_EMPTY", L"");
    SetLastError(ERROR_ACCESS_DENIED);  // a stale error must not leak through
    wchar_t value[8] = L"#######";
    uint32_t size = 8;
    EXPECT_EQ(PltGetEnvironmentVariable(L"ZT_ENV_EMPTY", value, &size), 0u);
    EXPECT_STREQ(value, L"");
    ASSERT_EQ(PltGetEnvironmentVariable(L"ZT_ENV_EMPTY", nullptr, &size), 0u);
    EXPECT_EQ(size, 1u);
}

TEST(PltGetEnvironmentVariable, PathIsReadable) {
    uint32_t size = 0;
    ASSERT_EQ(PltGetEnvironmentVariable(L"PATH", nullptr, &size), 0u);
    ASSERT_GT(size, 1u);
    std::wstring value(size, L'\0');
    ASSERT_EQ(PltGetEnvironmentVariable(L"PATH", &value[0], &size), 0u);
    EXPECT_EQ(wcslen(value.c_str()), size - 1);
    EXPECT_EQ(PltGetEnvironmentVariable(nullptr, nullptr, &size), 87u);
}

}  // namespace
