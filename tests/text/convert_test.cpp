// ANSI <-> UTF-16 in the C runtime's current locale. The test program and
// the library share msvcrt.dll, so setlocale here sets the library's locale.
#include <locale.h>
#include <stdarg.h>
#include <string.h>
#include <windows.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zendra/text.h>

#include "counters.h"
#include "heap_failure.h"
#include "import_hook.h"

namespace {

const uint32_t kTag = PLT_TAG('Q', 'Z', 'S', 'T');
const char kNihon[] = "\x93\xFA\x96\x7B";  // two characters in code page 932

class Locale {
public:
    explicit Locale(const char* name) { ok_ = setlocale(LC_ALL, name) != nullptr; }
    ~Locale() { setlocale(LC_ALL, "C"); }
    bool ok_;
};
#define USE_LOCALE(name) \
    Locale locale(name); \
    if (!locale.ok_) GTEST_SKIP() << "the C runtime has no locale " << name

// Converts with `fn`, checks the status and the out pointer, frees with the
// tag and gives the text back.
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

TEST(AnsiToWide, BothNamesConvertUnderTheCallersTag) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(Convert(AnsiToWide, "Count"), L"Count");
    EXPECT_EQ(Convert(AnsiToTChar, "Count"), L"Count");
    EXPECT_EQ(Convert(WideToAnsi, L"Count"), "Count");
    EXPECT_EQ(Convert(TCharToAnsi, L"Count"), "Count");
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.AllocBytes, 2 * 12u + 2 * 6u) << "n + 1 units of the target";
    EXPECT_EQ(d.TagMismatchCount + d.UntaggedAllocCount, 0u);
    EXPECT_NO_LEAKS(before);
}

TEST(AnsiToWide, FailuresGiveNullAndLeakNothing) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    // No character above 255 has a byte in the "C" locale.
    Convert(WideToAnsi, L"price \u20AC", 9);
    Convert(AnsiToWide, static_cast<const char*>(nullptr), 87);
    EXPECT_EQ(WideToAnsi(L"x", nullptr, kTag), 87u);
    {
        zt::HeapFailure fail(1);
        Convert(AnsiToWide, "Count", 8);
    }
    EXPECT_NO_LEAKS(before);
}

TEST(AnsiToWide, NonAsciiInCodePages1252And932) {
    {
        USE_LOCALE(".1252");
        EXPECT_EQ(Convert(AnsiToWide, "caf\xE9 \x80"), L"caf\u00E9 \u20AC");
        EXPECT_EQ(Convert(WideToAnsi, L"caf\u00E9 \u20AC"), "caf\xE9 \x80");
    }
    USE_LOCALE(".932");
    EXPECT_EQ(Convert(AnsiToWide, kNihon), L"\u65E5\u672C");
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(Convert(WideToAnsi, L"\u65E5\u672C"), kNihon);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).AllocBytes, 5u) << "measured in bytes";
    Convert(AnsiToWide, "ab\x82", 9);  // a lead byte without its trail byte
}

TEST(AnsiToWideEx, TheTerminatorMustFit) {
    wchar_t wide[8];
    char ansi[8];
    EXPECT_EQ(AnsiToWideEx("Count", wide, 6), 0u);
    EXPECT_STREQ(wide, L"Count");
    EXPECT_EQ(WideToAnsiEx(L"Count", ansi, 6), 0u);
    EXPECT_STREQ(ansi, "Count");
    wmemset(wide, L'#', 8);
    memset(ansi, '#', 8);
    EXPECT_EQ(AnsiToWideEx("Count", wide, 5), 111u);
    EXPECT_EQ(AnsiToTCharEx("Count", wide, 5), 111u);
    EXPECT_EQ(WideToAnsiEx(L"Count", ansi, 5), 111u);
    EXPECT_EQ(TCharToAnsiEx(L"Count", ansi, 5), 111u);
    EXPECT_EQ(wide[5], L'#');
    EXPECT_EQ(ansi[5], '#');
    EXPECT_EQ(WideToAnsiEx(L"\u20AC", ansi, 8), 9u);
    EXPECT_EQ(AnsiToWideEx(nullptr, wide, 8) + WideToAnsiEx(L"x", nullptr, 8), 2 * 87u);
    // In code page 932 the runtime stops before a character that does not
    // fit, short of the buffer's end and without a terminator.
    USE_LOCALE(".932");
    EXPECT_EQ(WideToAnsiEx(L"\u65E5\u672C", ansi, 5), 0u);
    EXPECT_STREQ(ansi, kNihon);
    EXPECT_EQ(WideToAnsiEx(L"\u65E5\u672C", ansi, 4), 111u);
    EXPECT_EQ(WideToAnsiEx(L"\u65E5\u672C", ansi, 3), 111u);
}

PLT_STATUS Format(char** out, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    PLT_STATUS status = WideToAnsiV(out, format, args, kTag);
    va_end(args);
    return status;
}

// The {tag, size} headers of the blocks the library frees.
std::vector<std::pair<uint32_t, uint32_t>> g_freed;
BOOL WINAPI RecordingHeapFree(HANDLE heap, DWORD flags, LPVOID block) {
    auto* header = static_cast<const uint32_t*>(block);
    g_freed.emplace_back(header[0], header[1]);
    return HeapFree(heap, flags, block);
}

TEST(WideToAnsiV, FormatsThroughAWorkBlockUnderTheSameTag) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    char* out = nullptr;
    g_freed.clear();
    {
        zt::ImportHook hook("HeapFree", reinterpret_cast<void*>(&RecordingHeapFree));
        ASSERT_EQ(Format(&out, L"Value length is %d", 100), 0u);
    }
    EXPECT_STREQ(out, "Value length is 100");
    ASSERT_EQ(g_freed.size(), 1u);
    EXPECT_EQ(g_freed[0], std::make_pair(kTag, 40u)) << "(19 + 1) UTF-16 units";
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).LiveAllocBytes, 20u);
    EXPECT_EQ(PltFree(reinterpret_cast<void**>(&out), kTag), 0u);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).TagMismatchCount, 0u);

    ASSERT_EQ(WideToAnsiV(&out, nullptr, nullptr, kTag), 0u);
    EXPECT_STREQ(out, "") << "a null format formats nothing";
    EXPECT_EQ(PltFree(reinterpret_cast<void**>(&out), kTag), 0u);
    EXPECT_NO_LEAKS(before);
}

TEST(WideToAnsiV, FailuresFreeBothBlocks) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    char* out = reinterpret_cast<char*>(1);
    EXPECT_EQ(Format(&out, L"%s", L"\u20AC"), 9u);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(Format(nullptr, L"%s", L"\u20AC"), 9u);
    int failing = zt::SweepAllocationFailures([&](int nth) {
        zt::HeapFailure fail(nth);
        PLT_STATUS status = Format(&out, L"%d-%d", 1, 2);
        if (status == 0) return PltFree(reinterpret_cast<void**>(&out), kTag) == 0;
        EXPECT_EQ(status, 8u);
        EXPECT_EQ(out, nullptr);
        return false;
    });
    EXPECT_EQ(failing, 2);
    {
        USE_LOCALE(".932");
        // Two characters need four bytes; the result has room for three.
        EXPECT_EQ(Format(&out, L"%s", L"\u65E5\u672C"), 111u);
    }
    EXPECT_NO_LEAKS(before);
}

TEST(WideToAnsiV, WithoutOutASuccessfulResultIsNotFreed) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(Format(nullptr, L"abc"), 0u);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).LiveAllocBytes, 4u);
}

}  // namespace
