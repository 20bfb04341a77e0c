// Copies, formatted lengths, trimming, escaped hexadecimal text, lines and the
// ANSI <-> UTF-16 conversions in the C runtime's current locale (the test
// program and the library share msvcrt.dll, so setlocale here sets both).
#include <locale.h>
#include <stdarg.h>
#include <string.h>

#include <string>

#include <zendra/text.h>

#include "zt.h"

namespace {

const uint32_t kTag = PLT_TAG('Q', 'Z', 'S', 'T');

TEST(StrAllocCopy, CopiesUntaggedAndRefusesNullOrNoMemory) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    wchar_t* copy = nullptr;
    ASSERT_EQ(StrAllocCopy(&copy, L"Velmora"), 0u);
    EXPECT_STREQ(copy, L"Velmora");
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).LiveAllocBytes, 16u) << "(7 + 1) x 2 bytes";
    EXPECT_EQ(PltFree(reinterpret_cast<void**>(&copy), 0), 0u);
    EXPECT_EQ(StrAllocCopy(nullptr, L"x") + StrAllocCopy(&copy, nullptr), 2 * 87u);
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(StrAllocCopy(&copy, L"abc"), 8u);
    }
    EXPECT_EQ(copy, nullptr);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.UntaggedAllocCount * 10 + d.TagMismatchCount, 20u);
    EXPECT_NO_LEAKS(before);
}

template <typename C>
int32_t LengthV(int32_t (*fn)(const C*, va_list), const C* format, ...) {
    va_list args;
    va_start(args, format);
    int32_t n = fn(format, args);
    va_end(args);
    return n;
}

TEST(SprintfLength, CountsWhatTheRuntimeWouldWrite) {
    EXPECT_EQ(SprintfLength("%s=%d", "Value", 100), 9);
    EXPECT_EQ(LengthV(SprintfLengthV, "%s=%d", "Value", 100), 9);
    EXPECT_EQ(WSprintfLength(L"%s=%d", L"Value", 100), 9) << "%s in a wide format is wide";
    EXPECT_EQ(LengthV(WSprintfLengthV, L"%s=%d", L"Value", 100), 9);
    EXPECT_EQ(SprintfLength("%I64d", 12345678901234LL), 14);
    EXPECT_EQ(SprintfLength(nullptr) + LengthV<char>(SprintfLengthV, nullptr) +
                  WSprintfLength(nullptr) + LengthV<wchar_t>(WSprintfLengthV, nullptr),
              0);
}

TEST(StrTrim, StripsOnlySpaces) {
    const struct {
        const wchar_t *in, *out;
        uint32_t length;  // 99: left as it was
    } cases[] = {{L"  abc  ", L"abc", 3}, {L"abc", L"abc", 3},       {L"Right ", L"Right", 5},
                 {L"\tabc", L"\tabc", 4}, {L" a\r\n ", L"a\r\n", 3}, {L"    ", L"", 99},
                 {L"", L"", 99}};
    for (const auto& c : cases) {
        wchar_t text[32];
        wcscpy(text, c.in);
        uint32_t length = 99;
        EXPECT_EQ(StrTrim(text, &length), 0u);
        EXPECT_EQ(std::wstring(text) + L"|" + std::to_wstring(length),
                  std::wstring(c.out) + L"|" + std::to_wstring(c.length));
    }
    wchar_t text[] = L" a ";
    EXPECT_EQ(StrTrim(text, nullptr) + StrTrim(nullptr, nullptr), 87u);
    EXPECT_STREQ(text, L"a");
}

TEST(HexText, FourCharactersPerByteOneByteEachWayAndTheBounds) {
    const uint8_t bytes[] = {0xDE, 0xAD, 0x0F, 0xF0};
    zt::GuardedBuffer text(17 * sizeof(wchar_t));  // 17 written, the size must say 32
    ASSERT_EQ(StrHexToString(bytes, 4, text.as<wchar_t>(), 32), 0u);
    EXPECT_STREQ(text.as<wchar_t>(), L"\\xDE\\xAD\\x0F\\xF0");
    EXPECT_EQ(StrHexToString(bytes, 0, text.as<wchar_t>(), 1), 0u);
    EXPECT_STREQ(text.as<wchar_t>(), L"");
    EXPECT_EQ(StrHexToString(bytes, 4, text.as<wchar_t>(), 31) +
                  StrHexToString(bytes, 0, text.as<wchar_t>() + 17, 0) +
                  StrHexToString(bytes, 0x20000000u, text.as<wchar_t>(), 16) +
                  StrHexToString(nullptr, 1, text.as<wchar_t>(), 16) +
                  StrHexToString(bytes, 1, nullptr, 16),
              5 * 87u)
        << "too small, no room for the terminator, a wrapping count, nulls";
    zt::GuardedBuffer out(4);
    auto* b = out.as<uint8_t>();
    // The first two characters of a group are not looked at; everything below
    // 'A' counts from '0', so ':' to '?' pass as 10 to 15; a trailing partial
    // group is read as a whole one.
    ASSERT_EQ(StrStringToHex(L"\\xFE\\xed\\xBE\\xEF", 16, b, 4), 0u);
    EXPECT_EQ(memcmp(b, "\xFE\xED\xBE\xEF", 4), 0);
    ASSERT_EQ(StrStringToHex(L"ab12..:?\\xCD", 11, b, 3), 0u);
    EXPECT_EQ(memcmp(b, "\x12\xAF\xCD", 3), 0);
    EXPECT_EQ(StrStringToHex(L"\\xAB", 0, b, 1), 0u);
    EXPECT_EQ(b[0], 0x12) << "a length of 0 writes nothing";
    for (const wchar_t* bad : {L"\\x34\\xZZ", L"\\x34\\x1G", L"\\x34\\x/0", L"\\x34\\x@0"}) {
        b[1] = 0x55;
        EXPECT_EQ(StrStringToHex(bad, 8, b, 2), 13u) << std::wstring(bad);
        EXPECT_EQ(b[0] * 256 + b[1], 0x3455) << "earlier bytes stay";
    }
    EXPECT_EQ(StrStringToHex(nullptr, 4, b, 1) + StrStringToHex(L"\\xAB", 4, nullptr, 1) +
                  StrStringToHex(L"\\x01\\x02\\x03\\x04", 16, b, 1) +
                  StrStringToHex(L"\\x01\\x02\\x03\\x04", 16, b + 1, 3) +
                  StrStringToHex(L"\\x01\\x02\\x03\\x04\\x", 17, b, 4),
              5 * 87u)
        << "nulls, 16 / 8 > 1, and groups that would not fit";
    // "\xAB\" ends at a no-access page: the partial group's digits would lie
    // past the terminator.
    zt::GuardedBuffer guarded(6 * sizeof(wchar_t));
    memcpy(guarded.data(), L"\\xAB\\", 6 * sizeof(wchar_t));
    EXPECT_EQ(StrStringToHex(guarded.as<wchar_t>(), 5, b, 4), 13u);
}

struct Line {
    PLT_STATUS status;
    std::wstring text;
    uint32_t length, position;
};

Line Read(const void* buffer, uint32_t bytes, uint32_t position) {
    wchar_t* line = nullptr;
    uint32_t length = 12345;
    Line r{ReadLine(buffer, bytes, &position, &line, &length), L"-", length, position};
    if (r.status == 0) r.text = line;
    PltFree(reinterpret_cast<void**>(&line), 0);
    return r;
}

TEST(ReadLine, ByteCountBecomesTheLineLengthInCharacters) {
    // The line feed of "one\nxyz" is byte 6, so the first line is 6 characters
    // and runs on into the next. The buffer ends at a no-access page: the last
    // line's copy must stop there.
    zt::GuardedBuffer guarded(14);
    memcpy(guarded.data(), L"one\nxyz", 14);
    const struct {
        const void* buffer;
        uint32_t bytes, position;
        Line expected;
    } cases[] = {{guarded.data(), 14, 0, {0, L"one\nxy", 6, 8}},
                 {guarded.data(), 14, 8, {0, L"xyz", 3, 16}},
                 {guarded.data(), 14, 16, {87, L"-", 0, 16}},
                 {L"  x  ", 10, 0, {0, L"x", 1, 12}},
                 {L"   ", 6, 0, {0, L"", 6, 8}},  // all spaces: the byte count stays
                 {L"abc", 6, 6, {0, L"", 0, 8}},
                 {L"a\u0A41b", 6, 0, {0, L"a\u0A41b", 3, 5}}};  // 0x0A inside U+0A41
    for (const auto& c : cases) {
        Line got = Read(c.buffer, c.bytes, c.position);
        EXPECT_EQ(got.status, c.expected.status) << c.position;
        EXPECT_EQ(got.text, c.expected.text) << c.position;
        EXPECT_EQ(got.length * 1000 + got.position, c.expected.length * 1000 + c.expected.position);
    }
    PLT_RESOURCE_STATS before = zt::Snapshot();
    uint32_t position = 0, length = 9;
    wchar_t* held = nullptr;
    ASSERT_EQ(StrAllocCopy(&held, L"old line"), 0u);
    EXPECT_EQ(ReadLine(nullptr, 6, &position, &held, &length), 87u);
    EXPECT_EQ(held, nullptr) << "a refused call frees the held line";
    EXPECT_EQ(ReadLine(L"abc", 6, nullptr, &held, &length) +
                  ReadLine(L"abc", 6, &position, nullptr, &length) +
                  ReadLine(L"abc", 6, &position, &held, nullptr),
              3 * 87u);
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(ReadLine(L"abc", 6, &position, &held, &length), 8u);
    }
    EXPECT_EQ(held == nullptr && position == 0, true);
    EXPECT_NO_LEAKS(before);
}

class Locale {
public:
    explicit Locale(const char* name) : ok(setlocale(LC_ALL, name) != nullptr) {}
    ~Locale() { setlocale(LC_ALL, "C"); }
    const bool ok;
};

template <typename To, typename From>
std::basic_string<To> Convert(PLT_STATUS (*fn)(const From*, To**, uint32_t), const From* text,
                              PLT_STATUS expected = 0) {
    To* out = reinterpret_cast<To*>(1);
    EXPECT_EQ(fn(text, &out, kTag), expected);
    if (out == nullptr) return {};
    std::basic_string<To> result = out;
    EXPECT_EQ(PltFree(reinterpret_cast<void**>(&out), kTag), 0u);
    return result;
}

PLT_STATUS Format(char** out, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    PLT_STATUS status = WideToAnsiV(out, format, args, kTag);
    va_end(args);
    return status;
}

TEST(Conversions, AllocatingUnderTheCallersTagFailuresAndCodePages) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(Convert(AnsiToWide, "Count") + Convert(AnsiToTChar, "x"), L"Countx");
    EXPECT_EQ(Convert(WideToAnsi, L"Count") + Convert(TCharToAnsi, L"x"), "Countx");
    char* out = reinterpret_cast<char*>(1);
    ASSERT_EQ(Format(&out, L"%s is %d", L"Value", 100), 0u);
    EXPECT_STREQ(out, "Value is 100");
    EXPECT_EQ(PltFree(reinterpret_cast<void**>(&out), kTag), 0u);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.AllocBytes, 12u + 4u + 6u + 2u + (13u * 2 + 13u)) << "n + 1 target units";
    EXPECT_EQ(d.TagMismatchCount + d.UntaggedAllocCount, 0u);
    ASSERT_EQ(WideToAnsiV(&out, nullptr, nullptr, kTag), 0u);
    EXPECT_STREQ(out, "") << "a null format formats nothing";
    PltFree(reinterpret_cast<void**>(&out), kTag);
    // No character above 255 has a byte in the "C" locale.
    Convert(WideToAnsi, L"price \u20AC", 9);
    Convert(AnsiToWide, static_cast<const char*>(nullptr), 87);
    EXPECT_EQ(WideToAnsi(L"x", nullptr, kTag) + Format(&out, L"%s", L"\u20AC"), 87u + 9u);
    EXPECT_EQ(out, nullptr);
    int failing = zt::SweepAllocationFailures([&](int nth) {
        zt::HeapFailure fail(nth);
        PLT_STATUS status = Format(&out, L"%d-%d", 1, 2);
        if (status == 0) return PltFree(reinterpret_cast<void**>(&out), kTag) == 0;
        EXPECT_TRUE(status == 8 && out == nullptr);
        return false;
    });
    EXPECT_EQ(failing, 2) << "the work block and the result";
    {
        zt::HeapFailure fail(0);
        EXPECT_EQ(Convert(AnsiToWide, "Count", 8).size() + Convert(WideToAnsi, L"x", 8).size(), 0u);
    }
    EXPECT_NO_LEAKS(before);
    EXPECT_EQ(Format(nullptr, L"abc"), 0u);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).LiveAllocBytes, 4u) << "without out: not freed";
    Locale cp1252(".1252");
    if (!cp1252.ok) GTEST_SKIP() << "the C runtime has no code page 1252";
    EXPECT_EQ(Convert(AnsiToWide, "caf\xE9 \x80"), L"caf\u00E9 \u20AC");
    EXPECT_EQ(Convert(WideToAnsi, L"caf\u00E9 \u20AC"), "caf\xE9 \x80");
    Locale cp932(".932");
    if (!cp932.ok) GTEST_SKIP() << "the C runtime has no code page 932";
    EXPECT_EQ(Convert(AnsiToWide, "\x93\xFA\x96\x7B"), L"\u65E5\u672C");
    EXPECT_EQ(Convert(WideToAnsi, L"\u65E5\u672C"), "\x93\xFA\x96\x7B");
    Convert(AnsiToWide, "ab\x82", 9);  // a lead byte without its trail byte
    EXPECT_EQ(Format(&out, L"%s", L"\u65E5\u672C"), 111u) << "four bytes, room for three";
}

TEST(Conversions, IntoTheCallersBufferTheTerminatorMustFit) {
    wchar_t wide[8];
    char ansi[8];
    EXPECT_EQ(AnsiToWideEx("Count", wide, 6) + WideToAnsiEx(L"Count", ansi, 6), 0u);
    EXPECT_TRUE(wcscmp(wide, L"Count") == 0 && strcmp(ansi, "Count") == 0);
    wmemset(wide, L'#', 8);
    memset(ansi, '#', 8);
    EXPECT_EQ(AnsiToWideEx("Count", wide, 5) + AnsiToTCharEx("Count", wide, 5) +
                  WideToAnsiEx(L"Count", ansi, 5) + TCharToAnsiEx(L"Count", ansi, 5),
              4 * 111u);
    EXPECT_TRUE(wide[5] == L'#' && ansi[5] == '#');
    EXPECT_EQ(WideToAnsiEx(L"\u20AC", ansi, 8), 9u);
    EXPECT_EQ(AnsiToWideEx(nullptr, wide, 8) + WideToAnsiEx(L"x", nullptr, 8), 2 * 87u);
    // In code page 932 the runtime stops before a character that does not fit,
    // short of the buffer's end and without a terminator.
    Locale cp932(".932");
    if (!cp932.ok) GTEST_SKIP() << "the C runtime has no code page 932";
    EXPECT_EQ(WideToAnsiEx(L"\u65E5\u672C", ansi, 5), 0u);
    EXPECT_STREQ(ansi, "\x93\xFA\x96\x7B");
    EXPECT_EQ(WideToAnsiEx(L"\u65E5\u672C", ansi, 4) + WideToAnsiEx(L"\u65E5\u672C", ansi, 3),
              2 * 111u);
}

}  // namespace
