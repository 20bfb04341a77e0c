// Copies, formatted lengths, trimming, escaped hexadecimal text, lines, the
// ANSI <-> UTF-16 conversions in the C runtime's current locale (the test and
// the library share msvcrt.dll, so setlocale here sets both), and SHA-1
// against the published examples and the system's own (BCrypt). CTest runs the
// SHA-1 cases again with ZENDRA_SHA1_IMPL=portable, so both block functions
// meet the same reference.
#include <locale.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <windows.h>
#include <bcrypt.h>

#include <random>
#include <string>
#include <vector>

#include <zendra/text.h>

#include "zt.h"

namespace {

const uint32_t kTag = PLT_TAG('Q', 'Z', 'S', 'T');

template <typename C>
int32_t LengthV(int32_t (*fn)(const C*, va_list), const C* format, ...) {
    va_list args;
    va_start(args, format);
    int32_t n = fn(format, args);
    va_end(args);
    return n;
}

TEST(Strings, CopiesFormattedLengthsAndTrimming) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    wchar_t* copy = nullptr;
    ASSERT_EQ(StrAllocCopy(&copy, L"Velmora"), 0u);
    EXPECT_STREQ(copy, L"Velmora");
    EXPECT_MOVED(before, {.LiveAllocBytes = 16, .UntaggedAllocCount = 1})
        << "(7 + 1) x 2 bytes, tag 0";
    EXPECT_CALLS("0 87 87", PltFree(reinterpret_cast<void**>(&copy), 0),
                 StrAllocCopy(nullptr, L"x"), StrAllocCopy(&copy, nullptr));
    {
        zt::HeapFailure fail(0);
        EXPECT_CALLS("8 1", StrAllocCopy(&copy, L"abc"), copy == nullptr);
    }
    EXPECT_CALLS(
        "9 9 9 9 14 0 0", SprintfLength("%s=%d", "Value", 100),
        LengthV(SprintfLengthV, "%s=%d", "Value", 100), WSprintfLength(L"%s=%d", L"Value", 100),
        LengthV(WSprintfLengthV, L"%s=%d", L"Value", 100), SprintfLength("%I64d", 12345678901234LL),
        SprintfLength(nullptr), WSprintfLength(nullptr))
        << "%s in a wide format is wide";
    const struct {
        const wchar_t *in, *out;
        uint32_t length;  // 99: left as it was
    } cases[] = {{L"  abc  ", L"abc", 3}, {L"abc", L"abc", 3},       {L"Right ", L"Right", 5},
                 {L"\tabc", L"\tabc", 4}, {L" a\r\n ", L"a\r\n", 3}, {L"    ", L"", 99},
                 {L"", L"", 99}};
    for (const auto& c : cases) {
        wchar_t text[32];
        uint32_t length = 99;
        EXPECT_EQ(StrTrim(wcscpy(text, c.in), &length), 0u);
        EXPECT_EQ(std::wstring(text) + L"|" + std::to_wstring(length),
                  std::wstring(c.out) + L"|" + std::to_wstring(c.length));
    }
    wchar_t text[] = L" a ";
    EXPECT_CALLS("0 87 1", StrTrim(text, nullptr), StrTrim(nullptr, nullptr),
                 wcscmp(text, L"a") == 0);
}

TEST(Strings, HexTextFourCharactersPerByteBothWaysAndTheBounds) {
    const uint8_t bytes[] = {0xDE, 0xAD, 0x0F, 0xF0};
    zt::GuardedBuffer text(17 * sizeof(wchar_t));  // 17 written, the size must say 32
    ASSERT_EQ(StrHexToString(bytes, 4, text.as<wchar_t>(), 32), 0u);
    EXPECT_STREQ(text.as<wchar_t>(), L"\\xDE\\xAD\\x0F\\xF0");
    EXPECT_CALLS("0 0 87 87 87 87 87", StrHexToString(bytes, 0, text.as<wchar_t>(), 1),
                 text.as<wchar_t>()[0], StrHexToString(bytes, 4, text.as<wchar_t>(), 31),
                 StrHexToString(bytes, 0, text.as<wchar_t>() + 17, 0),
                 StrHexToString(bytes, 0x20000000u, text.as<wchar_t>(), 16),
                 StrHexToString(nullptr, 1, text.as<wchar_t>(), 16),
                 StrHexToString(bytes, 1, nullptr, 16))
        << "empty text; too small, no room for the terminator, a wrapping count, nulls";
    zt::GuardedBuffer out(4);
    auto* b = out.as<uint8_t>();
    // The first two characters of a group are not looked at; everything below
    // 'A' counts from '0', so ':' to '?' pass as 10 to 15; a trailing partial
    // group is read as a whole one; a length of 0 writes nothing.
    ASSERT_EQ(StrStringToHex(L"\\xFE\\xed\\xBE\\xEF", 16, b, 4), 0u);
    EXPECT_EQ(memcmp(b, "\xFE\xED\xBE\xEF", 4), 0);
    EXPECT_CALLS("0 0 18 175 205", StrStringToHex(L"ab12..:?\\xCD", 11, b, 3),
                 StrStringToHex(L"\\xAB", 0, b, 1), b[0], b[1], b[2]);
    for (const wchar_t* bad : {L"\\x34\\xZZ", L"\\x34\\x1G", L"\\x34\\x/0", L"\\x34\\x@0"}) {
        b[1] = 0x55;
        EXPECT_CALLS("13 52 85", StrStringToHex(bad, 8, b, 2), b[0], b[1]) << "earlier bytes stay";
    }
    EXPECT_CALLS("87 87 87 87 87", StrStringToHex(nullptr, 4, b, 1),
                 StrStringToHex(L"\\xAB", 4, nullptr, 1),
                 StrStringToHex(L"\\x01\\x02\\x03\\x04", 16, b, 1),
                 StrStringToHex(L"\\x01\\x02\\x03\\x04", 16, b + 1, 3),
                 StrStringToHex(L"\\x01\\x02\\x03\\x04\\x", 17, b, 4))
        << "nulls, 16 / 8 > 1, and groups that would not fit";
    // "\xAB\" ends at a no-access page: the partial group's digits would lie
    // past the terminator.
    zt::GuardedBuffer guarded(6 * sizeof(wchar_t));
    memcpy(guarded.data(), L"\\xAB\\", 6 * sizeof(wchar_t));
    EXPECT_EQ(StrStringToHex(guarded.as<wchar_t>(), 5, b, 4), 13u);
}

// "status 'text' length position" after reading the line at `position`.
std::wstring Read(const void* buffer, uint32_t bytes, uint32_t position) {
    wchar_t* line = nullptr;
    uint32_t length = 12345;
    PLT_STATUS status = ReadLine(buffer, bytes, &position, &line, &length);
    std::wstring text = line != nullptr ? line : L"-";
    PltFree(reinterpret_cast<void**>(&line), 0);
    return std::to_wstring(status) + L" '" + text + L"' " + std::to_wstring(length) + L" " +
           std::to_wstring(position);
}

TEST(Strings, ReadLineByteCountBecomesTheLineLengthInCharacters) {
    // The line feed of "one\nxyz" is byte 6, so the first line is 6 characters
    // and runs on into the next. The buffer ends at a no-access page: the last
    // line's copy must stop there.
    zt::GuardedBuffer guarded(14);
    memcpy(guarded.data(), L"one\nxyz", 14);
    EXPECT_EQ(Read(guarded.data(), 14, 0), L"0 'one\nxy' 6 8");
    EXPECT_EQ(Read(guarded.data(), 14, 8), L"0 'xyz' 3 16");
    EXPECT_EQ(Read(guarded.data(), 14, 16), L"87 '-' 0 16");
    EXPECT_EQ(Read(L"  x  ", 10, 0), L"0 'x' 1 12");
    EXPECT_EQ(Read(L"   ", 6, 0), L"0 '' 6 8") << "all spaces: the byte count stays";
    EXPECT_EQ(Read(L"abc", 6, 6), L"0 '' 0 8");
    EXPECT_EQ(Read(L"a\u0A41b", 6, 0), L"0 'a\u0A41b' 3 5") << "0x0A inside U+0A41 ends the line";
    uint32_t position = 0, length = 9;
    wchar_t* held = nullptr;
    ASSERT_EQ(StrAllocCopy(&held, L"old line"), 0u);
    EXPECT_CALLS("87 1 87 87 87", ReadLine(nullptr, 6, &position, &held, &length), held == nullptr,
                 ReadLine(L"abc", 6, nullptr, &held, &length),
                 ReadLine(L"abc", 6, &position, nullptr, &length),
                 ReadLine(L"abc", 6, &position, &held, nullptr))
        << "a refused call frees the held line";
    zt::HeapFailure fail(0);
    EXPECT_CALLS("8 1 0", ReadLine(L"abc", 6, &position, &held, &length), held == nullptr,
                 position);
}

template <typename To, typename From>
std::basic_string<To> Convert(PLT_STATUS (*fn)(const From*, To**, uint32_t), const From* text,
                              PLT_STATUS expected = 0) {
    To* out = reinterpret_cast<To*>(1);
    EXPECT_EQ(fn(text, &out, kTag), expected);
    std::basic_string<To> result = out != nullptr ? out : std::basic_string<To>();
    EXPECT_EQ(out == nullptr ? 0 : PltFree(reinterpret_cast<void**>(&out), kTag), 0u);
    return result;
}

PLT_STATUS Format(char** out, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    PLT_STATUS status = WideToAnsiV(out, format, args, kTag);
    va_end(args);
    return status;
}

TEST(Conversions, AllocatingUnderTheCallersTagIntoBuffersAndFailures) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    // The TChar names share these bodies (the export table test checks it).
    EXPECT_EQ(Convert(AnsiToWide, "Count"), L"Count");
    EXPECT_EQ(Convert(WideToAnsi, L"Count"), "Count");
    char* out = reinterpret_cast<char*>(1);
    ASSERT_EQ(Format(&out, L"%s is %d", L"Value", 100), 0u);
    EXPECT_CALLS("1 0", strcmp(out, "Value is 100") == 0,
                 PltFree(reinterpret_cast<void**>(&out), kTag));
    EXPECT_DELTA(before, {.AllocCount = 4, .AllocBytes = 57, .AllocBySize = {4}});
    ASSERT_EQ(Format(&out, nullptr), 0u);
    EXPECT_CALLS("0 0", out[0], PltFree(reinterpret_cast<void**>(&out), kTag))
        << "a null format formats nothing";
    // No character above 255 has a byte in the "C" locale.
    Convert(WideToAnsi, L"price \u20AC", 9);
    Convert(AnsiToWide, static_cast<const char*>(nullptr), 87);
    EXPECT_CALLS("87 9 1", WideToAnsi(L"x", nullptr, kTag), Format(&out, L"%s", L"\u20AC"),
                 out == nullptr);
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
    // Without an out pointer the result of a successful call is not freed.
    zt::LeavesBehind({.LiveAllocCount = 1, .LiveAllocBytes = 4, .LiveAllocBySize = {1}});
    wchar_t wide[8];
    char ansi[8] = "#######";
    EXPECT_CALLS("111 111 35 0 0 9 87 87", AnsiToWideEx("Count", wide, 5),
                 WideToAnsiEx(L"Count", ansi, 5), ansi[5], AnsiToWideEx("Count", wide, 6),
                 WideToAnsiEx(L"Count", ansi, 6), WideToAnsiEx(L"\u20AC", ansi, 8),
                 AnsiToWideEx(nullptr, wide, 8), WideToAnsiEx(L"x", nullptr, 8))
        << "the terminator must fit";
    // In code page 932 the runtime stops before a character that does not fit,
    // short of the buffer's end and without a terminator.
    if (setlocale(LC_ALL, ".932") == nullptr) GTEST_SKIP() << "the C runtime has no code page 932";
    EXPECT_EQ(Convert(AnsiToWide, "\x93\xFA\x96\x7B") + Convert(AnsiToWide, "ab\x82", 9),
              L"\u65E5\u672C");
    EXPECT_CALLS("0 111 111 111", WideToAnsiEx(L"\u65E5\u672C", ansi, 5),
                 WideToAnsiEx(L"\u65E5\u672C", ansi, 4), WideToAnsiEx(L"\u65E5\u672C", ansi, 3),
                 Format(&out, L"%s", L"\u65E5\u672C"))
        << "four bytes, room for three";
    setlocale(LC_ALL, "C");
}

std::string Hex(const uint8_t* digest) {
    char text[41];
    for (int i = 0; i < 20; ++i) snprintf(text + 2 * i, 3, "%02X", digest[i]);
    return text;
}

std::string Sha(const void* data, size_t length) {
    zt::GuardedBuffer digest(20);
    EXPECT_EQ(ShaGetHash(data, static_cast<uint32_t>(length), digest.as<uint8_t>()), 0u);
    return Hex(digest.as<uint8_t>());
}

std::string SystemSha(const void* data, size_t length) {
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    BCRYPT_HASH_HANDLE hash = nullptr;
    uint8_t digest[20] = {};
    BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_SHA1_ALGORITHM, nullptr, 0);
    BCryptCreateHash(algorithm, &hash, nullptr, 0, nullptr, 0, 0);
    for (size_t done = 0, piece; done < length; done += piece)
        BCryptHashData(hash, static_cast<PUCHAR>(const_cast<void*>(data)) + done,
                       static_cast<ULONG>(piece = std::min<size_t>(length - done, 1u << 24)), 0);
    BCryptFinishHash(hash, digest, 20, 0);
    BCryptDestroyHash(hash);
    BCryptCloseAlgorithmProvider(algorithm, 0);
    return Hex(digest);
}

TEST(Sha1, EveryLengthUnalignedGuardedAndHugeAgainstTheSystem) {
    // The reference itself against the published example; then every length
    // up to a thousand, at every alignment, ending at a no-access page.
    ASSERT_EQ(SystemSha("abc", 3), "A9993E364706816ABA3E25717850C26C9CD0D89D") << "reference";
    EXPECT_EQ(Sha(nullptr, 0), "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709");
    std::mt19937 random(20240611);
    std::vector<uint8_t> data(1016);
    for (uint8_t& b : data) b = static_cast<uint8_t>(random());
    for (size_t length = 0; length <= 1000; ++length) {
        zt::GuardedBuffer input(length);
        memcpy(input.data(), data.data() + length % 16, length);
        ASSERT_EQ(Sha(input.data(), length), SystemSha(input.data(), length)) << length;
    }
    // 513 MiB is more than 2^32 bits, so the length's high half counts. The
    // pages are never written and cost no memory.
    const size_t huge = size_t{513} << 20;
    void* zeros = VirtualAlloc(nullptr, huge, MEM_RESERVE | MEM_COMMIT, PAGE_READONLY);
    ASSERT_NE(zeros, nullptr);
    EXPECT_EQ(Sha(zeros, huge), SystemSha(zeros, huge));
    VirtualFree(zeros, 0, MEM_RELEASE);
}

}  // namespace
