// Cutting lines out of a UTF-16 buffer addressed in bytes.
#include <string.h>
#include <windows.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zendra/text.h>

#include "counters.h"
#include "guarded_buffer.h"
#include "heap_failure.h"

namespace {

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
        EXPECT_NE(line, nullptr);
        if (line != nullptr) result.text = line;
        EXPECT_EQ(PltFree(reinterpret_cast<void**>(&line), 0), 0u);
    }
    return result;
}

uint32_t Bytes(const wchar_t* text) { return static_cast<uint32_t>(wcslen(text) * 2); }

TEST(ReadLine, LengthIsTheByteCountTakenAsCharacters) {
    // "ab\ncd": the line feed is found at byte 4, so the line is 4
    // characters long and runs on into the next line.
    const wchar_t text[] = L"ab\ncd";
    uint32_t position = 0;
    Line first = Read(text, Bytes(text), &position);
    ASSERT_EQ(first.status, 0u);
    EXPECT_EQ(first.text, L"ab\nc");
    EXPECT_EQ(first.length, 4u);
    EXPECT_EQ(position, 6u) << "two bytes past the line feed";

    // The last line has no line feed: its 4 bytes become 4 characters, of
    // which the two past the buffer's end read as zero; trimming then
    // sets the real length.
    Line second = Read(text, Bytes(text), &position);
    ASSERT_EQ(second.status, 0u);
    EXPECT_EQ(second.text, L"cd");
    EXPECT_EQ(second.length, 2u);
    EXPECT_EQ(position, Bytes(text) + 2);
}

TEST(ReadLine, LinesAreTrimmedOfSpaces) {
    const wchar_t text[] = L"  x  ";
    uint32_t position = 0;
    Line line = Read(text, Bytes(text), &position);
    ASSERT_EQ(line.status, 0u);
    EXPECT_EQ(line.text, L"x");
    EXPECT_EQ(line.length, 1u);
}

TEST(ReadLine, AllSpaceLineKeepsTheByteCount) {
    const wchar_t text[] = L"   ";
    uint32_t position = 0;
    Line line = Read(text, Bytes(text), &position);
    ASSERT_EQ(line.status, 0u);
    EXPECT_EQ(line.text, L"");
    EXPECT_EQ(line.length, 6u) << "trimming leaves the length alone";
}

TEST(ReadLine, PositionAtTheEndGivesAnEmptyLine) {
    const wchar_t text[] = L"abc";
    uint32_t position = Bytes(text);
    Line line = Read(text, Bytes(text), &position);
    ASSERT_EQ(line.status, 0u);
    EXPECT_EQ(line.text, L"");
    EXPECT_EQ(line.length, 0u);
    EXPECT_EQ(position, Bytes(text) + 2);
    // Past the end is refused.
    Line beyond = Read(text, Bytes(text), &position);
    EXPECT_EQ(beyond.status, 87u);
    EXPECT_EQ(position, Bytes(text) + 2);
}

TEST(ReadLine, ScanStopsAtAnyByteOfValue0A) {
    // U+0A41 has 0x0A as its high byte: the byte scan stops inside it.
    const wchar_t text[] = L"a\u0A41b";
    uint32_t position = 0;
    Line line = Read(text, Bytes(text), &position);
    ASSERT_EQ(line.status, 0u);
    EXPECT_EQ(line.length, 3u);
    EXPECT_EQ(position, 5u);
}

TEST(ReadLine, NeverReadsPastTheBuffer) {
    // The last line of a buffer that ends at a no-access page: copying
    // twice the scanned bytes would run 6 bytes into the guard.
    const wchar_t text[] = L"one\nxyz";
    const uint32_t bytes = Bytes(text);
    zt::GuardedBuffer guarded(bytes);
    memcpy(guarded.data(), text, bytes);
    uint32_t position = 0;
    std::vector<std::wstring> lines;
    while (position < bytes) {
        Line line = Read(guarded.data(), bytes, &position);
        ASSERT_EQ(line.status, 0u);
        lines.push_back(line.text);
    }
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], std::wstring(L"one\nxyz").substr(0, 6));
    EXPECT_EQ(lines[1], L"xyz");
}

TEST(ReadLine, NullArgumentsFreeTheLineHeld) {
    const wchar_t text[] = L"abc";
    uint32_t position = 0;
    uint32_t length = 0;
    PLT_RESOURCE_STATS before = zt::Snapshot();
    wchar_t* held = nullptr;
    ASSERT_EQ(StrAllocCopy(&held, L"old line"), 0u);
    EXPECT_EQ(ReadLine(nullptr, 6, &position, &held, &length), 87u);
    EXPECT_EQ(held, nullptr);
    EXPECT_NO_LEAKS(before);

    wchar_t* none = nullptr;
    EXPECT_EQ(ReadLine(text, 6, &position, nullptr, &length), 87u);
    EXPECT_EQ(ReadLine(text, 6, &position, &none, nullptr), 87u);
    EXPECT_EQ(ReadLine(text, 6, nullptr, &none, &length), 87u);
    EXPECT_EQ(none, nullptr);
}

TEST(ReadLine, AllocationFailureReturns8AndLeavesThePosition) {
    const wchar_t text[] = L"abc";
    uint32_t position = 0;
    wchar_t* line = reinterpret_cast<wchar_t*>(1);
    uint32_t length = 9;
    PLT_RESOURCE_STATS before = zt::Snapshot();
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(ReadLine(text, 6, &position, &line, &length), 8u);
    }
    EXPECT_EQ(line, nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(position, 0u);
    EXPECT_NO_LEAKS(before);
}

TEST(ReadLine, ReadsEveryLineOfALargeBuffer) {
    // Three 4096-byte blocks of lines, as the self-check writes them.
    std::wstring text;
    while (text.size() * 2 < 3 * 4096)
        text += L"line of text " + std::to_wstring(text.size()) + L"\n";
    text.resize(3 * 4096 / 2);
    const uint32_t bytes = static_cast<uint32_t>(text.size() * 2);
    uint32_t position = 0;
    int count = 0;
    while (position < bytes) {
        Line line = Read(text.data(), bytes, &position);
        ASSERT_EQ(line.status, 0u);
        EXPECT_GT(line.length, 0u) << "line " << count;
        ++count;
    }
    EXPECT_GT(count, 100);
}

}  // namespace
