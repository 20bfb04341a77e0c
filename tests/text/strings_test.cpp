// Copies, formatted lengths, trimming, escaped hexadecimal text and lines.
#include <stdarg.h>
#include <string.h>
#include <windows.h>

#include <string>

#include <gtest/gtest.h>
#include <zendra/text.h>

#include "counters.h"
#include "guarded_buffer.h"
#include "heap_failure.h"

namespace {

TEST(StrAllocCopy, CopiesUntaggedAndRefusesNullOrNoMemory) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    wchar_t* copy = nullptr;
    ASSERT_EQ(StrAllocCopy(&copy, L"Velmora"), 0u);
    EXPECT_STREQ(copy, L"Velmora");
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.UntaggedAllocCount, 1u);
    EXPECT_EQ(d.LiveAllocBytes, 16u) << "(7 + 1) x 2 bytes";
    EXPECT_EQ(PltFree(reinterpret_cast<void**>(&copy), 0), 0u);
    EXPECT_EQ(StrAllocCopy(nullptr, L"x"), 87u);
    EXPECT_EQ(StrAllocCopy(&copy, nullptr), 87u);
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(StrAllocCopy(&copy, L"abc"), 8u);
    }
    EXPECT_EQ(copy, nullptr);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).TagMismatchCount, 0u);
    EXPECT_NO_LEAKS(before);
}

int32_t LengthV(const char* format, ...) {
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

TEST(SprintfLength, CountsWhatTheRuntimeWouldWrite) {
    EXPECT_EQ(SprintfLength("%s=%d", "Value", 100), 9);
    EXPECT_EQ(LengthV("%s=%d", "Value", 100), 9);
    EXPECT_EQ(WSprintfLength(L"%s=%d", L"Value", 100), 9) << "%s in a wide format is wide";
    EXPECT_EQ(WideLengthV(L"%s=%d", L"Value", 100), 9);
    EXPECT_EQ(SprintfLength("%I64d", 12345678901234LL), 14);
    EXPECT_EQ(
        SprintfLength(nullptr) + LengthV(nullptr) + WSprintfLength(nullptr) + WideLengthV(nullptr),
        0);
}

TEST(StrTrim, StripsOnlySpaces) {
    const struct {
        const wchar_t* in;
        const wchar_t* out;
        uint32_t length;  // 99: left as it was
    } cases[] = {{L"  abc  ", L"abc", 3},
                 {L"abc", L"abc", 3},
                 {L"  Left Trim", L"Left Trim", 9},
                 {L"Right Trim ", L"Right Trim", 10},
                 {L"\tabc", L"\tabc", 4},
                 {L" a\r\n ", L"a\r\n", 3},
                 {L"    ", L"", 99},
                 {L"", L"", 99}};
    for (const auto& c : cases) {
        wchar_t text[32];
        wcscpy(text, c.in);
        uint32_t length = 99;
        EXPECT_EQ(StrTrim(text, &length), 0u);
        EXPECT_STREQ(text, c.out);
        EXPECT_EQ(length, c.length) << "'" << std::wstring(c.in) << "'";
    }
    wchar_t text[] = L" a ";
    EXPECT_EQ(StrTrim(text, nullptr), 0u);
    EXPECT_STREQ(text, L"a");
    EXPECT_EQ(StrTrim(nullptr, nullptr), 87u);
}

TEST(StrHexToString, FourCharactersPerByteButAsksForEight) {
    const uint8_t bytes[] = {0xDE, 0xAD, 0x0F, 0xF0};
    // 17 characters are written; the size must say 32.
    zt::GuardedBuffer text(17 * sizeof(wchar_t));
    ASSERT_EQ(StrHexToString(bytes, 4, text.as<wchar_t>(), 32), 0u);
    EXPECT_STREQ(text.as<wchar_t>(), L"\\xDE\\xAD\\x0F\\xF0");
    EXPECT_EQ(StrHexToString(bytes, 4, text.as<wchar_t>(), 31), 87u);
    ASSERT_EQ(StrHexToString(bytes, 0, text.as<wchar_t>(), 1), 0u);
    EXPECT_STREQ(text.as<wchar_t>(), L"");
    // No room for the terminator; a count whose x 8 wraps in 32 bits.
    EXPECT_EQ(StrHexToString(bytes, 0, text.as<wchar_t>() + 17, 0), 87u);
    EXPECT_EQ(StrHexToString(bytes, 0x20000000u, text.as<wchar_t>(), 16), 87u);
    EXPECT_EQ(StrHexToString(nullptr, 1, text.as<wchar_t>(), 16), 87u);
    EXPECT_EQ(StrHexToString(bytes, 1, nullptr, 16), 87u);
}

TEST(StrStringToHex, ParsesGroupsOfFour) {
    uint8_t b[4] = {};
    ASSERT_EQ(StrStringToHex(L"\\xFE\\xED\\xbe\\xef", 16, b, 4), 0u);
    EXPECT_EQ(memcmp(b, "\xFE\xED\xBE\xEF", 4), 0);
    // The first two characters of a group are not looked at, and everything
    // below 'A' counts from '0', so ':' to '?' pass as 10 to 15.
    ASSERT_EQ(StrStringToHex(L"ab12..:?", 8, b, 2), 0u);
    EXPECT_EQ(memcmp(b, "\x12\xAF", 2), 0);
    // A trailing partial group is read as a whole one.
    ASSERT_EQ(StrStringToHex(L"\\xAB\\xCD", 6, b, 2), 0u);
    EXPECT_EQ(memcmp(b, "\xAB\xCD", 2), 0);
    b[0] = 0x55;
    EXPECT_EQ(StrStringToHex(L"\\xAB", 0, b, 1), 0u);
    EXPECT_EQ(b[0], 0x55);
}

TEST(StrStringToHex, BadDigitsGive13AndKeepEarlierBytes) {
    for (const wchar_t* bad : {L"\\x12\\xZZ", L"\\x12\\x1G", L"\\x12\\x/0", L"\\x12\\x@0"}) {
        uint8_t b[2] = {0, 0x55};
        EXPECT_EQ(StrStringToHex(bad, 8, b, 2), 13u) << std::wstring(bad);
        EXPECT_EQ(b[0], 0x12);
        EXPECT_EQ(b[1], 0x55);
    }
}

TEST(StrStringToHex, NeverWritesPastTheOutputNorReadsPastTheText) {
    uint8_t small[1];
    EXPECT_EQ(StrStringToHex(nullptr, 4, small, 1), 87u);
    EXPECT_EQ(StrStringToHex(L"\\xAB", 4, nullptr, 1), 87u);
    EXPECT_EQ(StrStringToHex(L"\\x01\\x02\\x03\\x04", 16, small, 1), 87u) << "16 / 8 > 1";
    // Four groups need four bytes though length / 8 asks for two; a partial
    // fifth group needs a fifth.
    zt::GuardedBuffer out(4);
    EXPECT_EQ(StrStringToHex(L"\\x01\\x02\\x03\\x04", 16, out.as<uint8_t>() + 1, 3), 87u);
    ASSERT_EQ(StrStringToHex(L"\\x01\\x02\\x03\\x04", 16, out.as<uint8_t>(), 4), 0u);
    EXPECT_EQ(out.as<uint8_t>()[3], 4);
    EXPECT_EQ(StrStringToHex(L"\\x01\\x02\\x03\\x04\\x", 17, out.as<uint8_t>(), 4), 87u);
    // "\xAB\" ends at a no-access page: the partial group's digits would lie
    // past the terminator.
    const wchar_t text[] = L"\\xAB\\";
    zt::GuardedBuffer guarded(sizeof text);
    memcpy(guarded.data(), text, sizeof text);
    EXPECT_EQ(StrStringToHex(guarded.as<wchar_t>(), 5, out.as<uint8_t>(), 4), 13u);
    EXPECT_EQ(out.as<uint8_t>()[0], 0xAB);
}

struct Line {
    PLT_STATUS status;
    std::wstring text;
    uint32_t length;
};

Line Read(const void* buffer, uint32_t bytes, uint32_t* position) {
    wchar_t* line = nullptr;
    uint32_t length = 12345;
    Line result{ReadLine(buffer, bytes, position, &line, &length), L"", length};
    if (result.status == 0) {
        result.text = line;
        EXPECT_EQ(PltFree(reinterpret_cast<void**>(&line), 0), 0u);
    }
    return result;
}

TEST(ReadLine, ByteCountBecomesTheLineLengthInCharacters) {
    // The line feed of "one\nxyz" is byte 6, so the first line is 6
    // characters and runs on into the next. The buffer ends at a no-access
    // page: the last line's copy must stop there, not read 6 bytes on.
    const wchar_t text[] = L"one\nxyz";
    const uint32_t bytes = 14;
    zt::GuardedBuffer guarded(bytes);
    memcpy(guarded.data(), text, bytes);
    uint32_t position = 0;
    Line first = Read(guarded.data(), bytes, &position);
    EXPECT_EQ(first.status, 0u);
    EXPECT_EQ(first.text, L"one\nxy");
    EXPECT_EQ(first.length, 6u);
    EXPECT_EQ(position, 8u) << "two bytes past the line feed";
    Line last = Read(guarded.data(), bytes, &position);
    EXPECT_EQ(last.text, L"xyz");
    EXPECT_EQ(last.length, 3u) << "trimming sets the text's own length";
    EXPECT_EQ(position, 16u);
    EXPECT_EQ(Read(guarded.data(), bytes, &position).status, 87u) << "past the end";
}

TEST(ReadLine, SpacesEndsAndTheByteScan) {
    const wchar_t spaces[] = L"  x  ";
    uint32_t position = 0;
    Line trimmed = Read(spaces, 10, &position);
    EXPECT_EQ(trimmed.text, L"x");
    EXPECT_EQ(trimmed.length, 1u);
    position = 0;
    Line blank = Read(L"   ", 6, &position);
    EXPECT_EQ(blank.text, L"");
    EXPECT_EQ(blank.length, 6u) << "an all-space line keeps the byte count";
    position = 6;
    Line atEnd = Read(L"abc", 6, &position);
    EXPECT_EQ(atEnd.status, 0u);
    EXPECT_EQ(atEnd.text, L"");
    EXPECT_EQ(atEnd.length, 0u);
    EXPECT_EQ(position, 8u);
    // U+0A41 has 0x0A as its high byte: the scan stops inside it.
    position = 0;
    EXPECT_EQ(Read(L"a\u0A41b", 6, &position).length, 3u);
    EXPECT_EQ(position, 5u);
}

TEST(ReadLine, FailuresReleaseTheHeldLineAndLeakNothing) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    uint32_t position = 0, length = 9;
    wchar_t* held = nullptr;
    ASSERT_EQ(StrAllocCopy(&held, L"old line"), 0u);
    EXPECT_EQ(ReadLine(nullptr, 6, &position, &held, &length), 87u);
    EXPECT_EQ(held, nullptr);
    EXPECT_EQ(ReadLine(L"abc", 6, nullptr, &held, &length), 87u);
    EXPECT_EQ(ReadLine(L"abc", 6, &position, nullptr, &length), 87u);
    EXPECT_EQ(ReadLine(L"abc", 6, &position, &held, nullptr), 87u);
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(ReadLine(L"abc", 6, &position, &held, &length), 8u);
    }
    EXPECT_EQ(held, nullptr);
    EXPECT_EQ(position, 0u);
    EXPECT_NO_LEAKS(before);
}

}  // namespace
