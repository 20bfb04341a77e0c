// Copies, formatted lengths and trimming, through the exports.
#include <stdarg.h>
#include <string.h>
#include <windows.h>

#include <string>

#include <gtest/gtest.h>
#include <zendra/text.h>

#include "counters.h"
#include "heap_failure.h"

namespace {

TEST(StrAllocCopy, CopiesIntoAZeroFilledUntaggedBlock) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    wchar_t* copy = nullptr;
    ASSERT_EQ(StrAllocCopy(&copy, L"Velmora"), 0u);
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy, L"Velmora");
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.UntaggedAllocCount, 1u);
    EXPECT_EQ(d.LiveAllocBytes, 16u) << "(7 + 1) x 2 bytes";
    EXPECT_EQ(PltFree(reinterpret_cast<void**>(&copy), 0), 0u);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).TagMismatchCount, 0u);
    EXPECT_NO_LEAKS(before);

    ASSERT_EQ(StrAllocCopy(&copy, L""), 0u);
    EXPECT_STREQ(copy, L"");
    EXPECT_EQ(PltFree(reinterpret_cast<void**>(&copy), 0), 0u);
}

TEST(StrAllocCopy, NullArgumentsAndNoMemory) {
    wchar_t* copy = nullptr;
    EXPECT_EQ(StrAllocCopy(nullptr, L"x"), 87u);
    EXPECT_EQ(StrAllocCopy(&copy, nullptr), 87u);
    PLT_RESOURCE_STATS before = zt::Snapshot();
    copy = reinterpret_cast<wchar_t*>(1);
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(StrAllocCopy(&copy, L"abc"), 8u);
    }
    EXPECT_EQ(copy, nullptr);
    EXPECT_NO_LEAKS(before);
}

int32_t AnsiLengthV(const char* format, ...) {
    va_list args;
    va_start(args, format);
    int32_t n = SprintfLengthV(format, args);
    va_end(args);
    return n;
}

int32_t WideLengthV(const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    int32_t n = WSprintfLengthV(format, args);
    va_end(args);
    return n;
}

TEST(SprintfLength, CountsWithoutTerminator) {
    EXPECT_EQ(SprintfLength("%s=%d", "Value", 100), 9);
    EXPECT_EQ(AnsiLengthV("%s=%d", "Value", 100), 9);
    EXPECT_EQ(WSprintfLength(L"%s=%d", L"Value", 100), 9);
    EXPECT_EQ(WideLengthV(L"%s=%d", L"Value", 100), 9);
    EXPECT_EQ(SprintfLength(""), 0);
    // The C runtime's own rules: %s in a wide format is a wide string, and
    // %I64d is understood.
    EXPECT_EQ(WSprintfLength(L"[%s]", L"wide"), 6);
    EXPECT_EQ(SprintfLength("%I64d", 12345678901234LL), 14);
}

TEST(SprintfLength, NullFormatCountsZero) {
    EXPECT_EQ(SprintfLength(nullptr), 0);
    EXPECT_EQ(AnsiLengthV(nullptr), 0);
    EXPECT_EQ(WSprintfLength(nullptr), 0);
    EXPECT_EQ(WideLengthV(nullptr), 0);
}

TEST(SprintfLength, MatchesWhatTheRuntimeWrites) {
    char buffer[256];
    for (int value : {0, 7, -42, 123456789}) {
        int written = _snprintf(buffer, sizeof buffer, "<%08x|%5d|%-6s>", value, value, "ab");
        EXPECT_EQ(SprintfLength("<%08x|%5d|%-6s>", value, value, "ab"), written) << value;
    }
}

struct TrimCase {
    const wchar_t* input;
    const wchar_t* expected;
    uint32_t expectedLength;
};

TEST(StrTrim, StripsOnlySpacesAtBothEnds) {
    const TrimCase cases[] = {
        {L"  abc  ", L"abc", 3},
        {L"abc", L"abc", 3},
        {L"No Trims", L"No Trims", 8},
        {L"  Left Trim", L"Left Trim", 9},
        {L"Right Trim ", L"Right Trim", 10},
        {L" Both left and right Trim ", L"Both left and right Trim", 24},
        {L"\tabc", L"\tabc", 4},    // a tab is text
        {L" a\r\n ", L"a\r\n", 3},  // so are line ends
        {L" x ", L"x", 1},
        {L"a  b", L"a  b", 4},
    };
    for (const TrimCase& c : cases) {
        wchar_t text[64];
        wcscpy(text, c.input);
        uint32_t length = 999;
        EXPECT_EQ(StrTrim(text, &length), 0u);
        EXPECT_STREQ(text, c.expected);
        EXPECT_EQ(length, c.expectedLength) << "input '" << std::wstring(c.input) << "'";
    }
}

TEST(StrTrim, AllSpacesEmptiesTheTextButLeavesTheLength) {
    wchar_t text[] = L"    ";
    uint32_t length = 77;
    EXPECT_EQ(StrTrim(text, &length), 0u);
    EXPECT_STREQ(text, L"");
    EXPECT_EQ(length, 77u);
}

TEST(StrTrim, EmptyTextLeavesTheLength) {
    wchar_t text[] = L"";
    uint32_t length = 55;
    EXPECT_EQ(StrTrim(text, &length), 0u);
    EXPECT_EQ(length, 55u);
}

TEST(StrTrim, NullLengthAndNullText) {
    wchar_t text[] = L"  a  ";
    EXPECT_EQ(StrTrim(text, nullptr), 0u);
    EXPECT_STREQ(text, L"a");
    EXPECT_EQ(StrTrim(nullptr, nullptr), 87u);
}

}  // namespace
