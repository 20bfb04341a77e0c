// ANSI <-> UTF-16 conversions in the C runtime's current locale. The test
// program and the library share msvcrt.dll, so setlocale here is the locale
// the library converts in.
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

// Sets a locale for one test and puts "C" back afterwards.
class Locale {
public:
    explicit Locale(const char* name) : ok_(setlocale(LC_ALL, name) != nullptr) {}
    ~Locale() { setlocale(LC_ALL, "C"); }
    bool ok() const { return ok_; }

private:
    bool ok_;
};

#define REQUIRE_LOCALE(locale, name) \
    Locale locale(name);             \
    if (!locale.ok()) GTEST_SKIP() << "the C runtime has no locale " << name

using AnsiToWideFn = PLT_STATUS (*)(const char*, wchar_t**, uint32_t);
using WideToAnsiFn = PLT_STATUS (*)(const wchar_t*, char**, uint32_t);

std::wstring ToWide(AnsiToWideFn fn, const char* text, PLT_STATUS expected = 0) {
    wchar_t* out = reinterpret_cast<wchar_t*>(1);
    PLT_STATUS status = fn(text, &out, kTag);
    EXPECT_EQ(status, expected);
    if (status != 0) {
        EXPECT_EQ(out, nullptr);
        return L"<failed>";
    }
    std::wstring result = out;
    EXPECT_EQ(PltFree(reinterpret_cast<void**>(&out), kTag), 0u);
    return result;
}

std::string ToAnsi(WideToAnsiFn fn, const wchar_t* text, PLT_STATUS expected = 0) {
    char* out = reinterpret_cast<char*>(1);
    PLT_STATUS status = fn(text, &out, kTag);
    EXPECT_EQ(status, expected);
    if (status != 0) {
        EXPECT_EQ(out, nullptr);
        return "<failed>";
    }
    std::string result = out;
    EXPECT_EQ(PltFree(reinterpret_cast<void**>(&out), kTag), 0u);
    return result;
}

TEST(AnsiToWide, ConvertsUnderTheCallersTag) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(ToWide(AnsiToWide, "Count"), L"Count");
    EXPECT_EQ(ToWide(AnsiToTChar, "Count"), L"Count");
    EXPECT_EQ(ToWide(AnsiToWide, ""), L"");
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.AllocCount, 3u);
    EXPECT_EQ(d.AllocBytes, 12u + 12u + 2u) << "(n + 1) UTF-16 units each";
    EXPECT_EQ(d.TagMismatchCount, 0u);
    EXPECT_EQ(d.UntaggedAllocCount, 0u);
    EXPECT_NO_LEAKS(before);
}

TEST(WideToAnsi, ConvertsUnderTheCallersTag) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(ToAnsi(WideToAnsi, L"Count"), "Count");
    EXPECT_EQ(ToAnsi(TCharToAnsi, L"Count"), "Count");
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.AllocBytes, 6u + 6u) << "n + 1 bytes each";
    EXPECT_EQ(d.TagMismatchCount, 0u);
    EXPECT_NO_LEAKS(before);
}

TEST(AnsiToWide, NullArguments) {
    wchar_t* wide = reinterpret_cast<wchar_t*>(1);
    EXPECT_EQ(AnsiToWide(nullptr, &wide, kTag), 87u);
    EXPECT_EQ(wide, nullptr);
    EXPECT_EQ(AnsiToWide("x", nullptr, kTag), 87u);
    char* ansi = reinterpret_cast<char*>(1);
    EXPECT_EQ(WideToAnsi(nullptr, &ansi, kTag), 87u);
    EXPECT_EQ(ansi, nullptr);
    EXPECT_EQ(WideToAnsi(L"x", nullptr, kTag), 87u);
}

TEST(AnsiToWide, AllocationFailureReturnsItsStatus) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    wchar_t* wide = reinterpret_cast<wchar_t*>(1);
    char* ansi = reinterpret_cast<char*>(1);
    {
        zt::HeapFailure fail(1);
        EXPECT_EQ(AnsiToWide("Count", &wide, kTag), 8u);
    }
    {
        zt::HeapFailure fail(1);
        EXPECT_EQ(WideToAnsi(L"Count", &ansi, kTag), 8u);
    }
    EXPECT_EQ(wide, nullptr);
    EXPECT_EQ(ansi, nullptr);
    EXPECT_NO_LEAKS(before);
}

TEST(AnsiToWide, NonAsciiTextInCodePage1252) {
    REQUIRE_LOCALE(locale, ".1252");
    EXPECT_EQ(ToWide(AnsiToWide, "caf\xE9 \x80"), L"caf\u00E9 \u20AC");
    EXPECT_EQ(ToAnsi(WideToAnsi, L"caf\u00E9 \u20AC"), "caf\xE9 \x80");
}

TEST(AnsiToWide, DoubleByteTextInCodePage932) {
    REQUIRE_LOCALE(locale, ".932");
    // Two characters of two bytes each.
    const char nihon[] = "\x93\xFA\x96\x7B";
    EXPECT_EQ(ToWide(AnsiToWide, nihon), L"\u65E5\u672C");
    EXPECT_EQ(ToAnsi(WideToAnsi, L"\u65E5\u672C"), nihon);
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(ToAnsi(WideToAnsi, L"\u65E5"), "\x93\xFA");
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).AllocBytes, 3u) << "measured in target bytes";
}

TEST(AnsiToWide, UnconvertibleTextGives9AndLeaksNothing) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    // In the "C" locale no character above 255 has a byte.
    ToAnsi(WideToAnsi, L"price \u20AC", 9);
    {
        REQUIRE_LOCALE(locale, ".932");
        // A lead byte with no trail byte.
        ToWide(AnsiToWide, "ab\x82", 9);
    }
    EXPECT_NO_LEAKS(before);
}

TEST(AnsiToWideEx, TerminatorMustFit) {
    wchar_t wide[8];
    EXPECT_EQ(AnsiToWideEx("Count", wide, 6), 0u);
    EXPECT_STREQ(wide, L"Count");
    EXPECT_EQ(AnsiToTCharEx("Count", wide, 6), 0u);
    EXPECT_STREQ(wide, L"Count");
    // Exactly as long as the text: no room for the terminator.
    wmemset(wide, L'#', 8);
    EXPECT_EQ(AnsiToWideEx("Count", wide, 5), 111u);
    EXPECT_EQ(wide[4], L't');
    EXPECT_EQ(wide[5], L'#') << "nothing past the given size";
    EXPECT_EQ(AnsiToTCharEx("Count", wide, 5), 111u);
    EXPECT_EQ(AnsiToWideEx("Count", wide, 0), 111u);
    EXPECT_EQ(AnsiToWideEx(nullptr, wide, 8), 87u);
    EXPECT_EQ(AnsiToWideEx("x", nullptr, 8), 87u);
}

TEST(WideToAnsiEx, TerminatorMustFit) {
    char ansi[8];
    EXPECT_EQ(WideToAnsiEx(L"Count", ansi, 6), 0u);
    EXPECT_STREQ(ansi, "Count");
    EXPECT_EQ(TCharToAnsiEx(L"Count", ansi, 6), 0u);
    memset(ansi, '#', 8);
    EXPECT_EQ(WideToAnsiEx(L"Count", ansi, 5), 111u);
    EXPECT_EQ(ansi[5], '#');
    EXPECT_EQ(TCharToAnsiEx(L"Count", ansi, 5), 111u);
    EXPECT_EQ(WideToAnsiEx(L"\u20AC", ansi, 8), 9u);
    EXPECT_EQ(WideToAnsiEx(nullptr, ansi, 8), 87u);
    EXPECT_EQ(WideToAnsiEx(L"x", nullptr, 8), 87u);
}

TEST(WideToAnsiEx, DoubleByteTextThatDoesNotFitIsNotReportedAsDone) {
    REQUIRE_LOCALE(locale, ".932");
    char ansi[8];
    EXPECT_EQ(WideToAnsiEx(L"\u65E5\u672C", ansi, 5), 0u);
    EXPECT_STREQ(ansi, "\x93\xFA\x96\x7B");
    // Four bytes and a terminator do not fit in 4, nor in 3 (where the
    // runtime stops after one character, before the buffer is full).
    EXPECT_EQ(WideToAnsiEx(L"\u65E5\u672C", ansi, 4), 111u);
    EXPECT_EQ(WideToAnsiEx(L"\u65E5\u672C", ansi, 3), 111u);
}

PLT_STATUS FormatToAnsi(char** out, uint32_t tag, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    PLT_STATUS status = WideToAnsiV(out, format, args, tag);
    va_end(args);
    return status;
}

// Records the {tag, size} header of each block the library frees.
struct FreedBlock {
    uint32_t tag;
    uint32_t size;
};
std::vector<FreedBlock> g_freed;
BOOL WINAPI RecordingHeapFree(HANDLE heap, DWORD flags, LPVOID block) {
    if (block != nullptr) g_freed.push_back(*static_cast<const FreedBlock*>(block));
    return HeapFree(heap, flags, block);
}

TEST(WideToAnsiV, FormatsAndConvertsWithBothBlocksUnderTheTag) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    char* out = nullptr;
    g_freed.clear();
    {
        zt::ImportHook hook("HeapFree", reinterpret_cast<void*>(&RecordingHeapFree));
        ASSERT_EQ(FormatToAnsi(&out, kTag, L"Value length is %d", 100), 0u);
    }
    ASSERT_NE(out, nullptr);
    EXPECT_STREQ(out, "Value length is 100");
    // The UTF-16 work block: (19 + 1) x 2 bytes under the caller's tag.
    ASSERT_EQ(g_freed.size(), 1u);
    EXPECT_EQ(g_freed[0].tag, kTag);
    EXPECT_EQ(g_freed[0].size, 40u);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.AllocCount, 2u);
    EXPECT_EQ(d.LiveAllocBytes, 20u) << "the ANSI result, n + 1 bytes";
    EXPECT_EQ(PltFree(reinterpret_cast<void**>(&out), kTag), 0u);
    EXPECT_EQ(zt::Delta(before, zt::Snapshot()).TagMismatchCount, 0u);
    EXPECT_NO_LEAKS(before);
}

TEST(WideToAnsiV, NullFormatGivesAnEmptyText) {
    char* out = nullptr;
    ASSERT_EQ(WideToAnsiV(&out, nullptr, nullptr, kTag), 0u);
    ASSERT_NE(out, nullptr);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(PltFree(reinterpret_cast<void**>(&out), kTag), 0u);
}

TEST(WideToAnsiV, FailuresFreeBothBlocksAndStoreNull) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    char* out = reinterpret_cast<char*>(1);
    EXPECT_EQ(FormatToAnsi(&out, kTag, L"%s", L"\u20AC"), 9u);
    EXPECT_EQ(out, nullptr);
    {
        REQUIRE_LOCALE(locale, ".932");
        // Two characters need four bytes; the result has room for three.
        out = reinterpret_cast<char*>(1);
        EXPECT_EQ(FormatToAnsi(&out, kTag, L"%s", L"\u65E5\u672C"), 111u);
        EXPECT_EQ(out, nullptr);
    }
    // Without an out pointer a failure still frees everything.
    EXPECT_EQ(FormatToAnsi(nullptr, kTag, L"%s", L"\u20AC"), 9u);
    EXPECT_NO_LEAKS(before);
}

TEST(WideToAnsiV, AllocationFailuresLeakNothing) {
    PLT_RESOURCE_STATS before = zt::Snapshot();
    int failing = zt::SweepAllocationFailures([&](int nth) {
        char* out = reinterpret_cast<char*>(1);
        PLT_STATUS status;
        {
            zt::HeapFailure fail(nth);
            status = FormatToAnsi(&out, kTag, L"%d-%d", 1, 2);
        }
        if (status == 0) {
            EXPECT_STREQ(out, "1-2");
            PltFree(reinterpret_cast<void**>(&out), kTag);
            return true;
        }
        EXPECT_EQ(status, 8u) << "failing allocation " << nth;
        EXPECT_EQ(out, nullptr);
        return false;
    });
    EXPECT_EQ(failing, 2) << "the work block and the result";
    EXPECT_NO_LEAKS(before);
}

TEST(WideToAnsiV, WithoutOutASuccessfulResultIsNotFreed) {
    // Callers always pass `out`; without it the result has no owner.
    PLT_RESOURCE_STATS before = zt::Snapshot();
    EXPECT_EQ(FormatToAnsi(nullptr, kTag, L"abc"), 0u);
    PLT_RESOURCE_STATS d = zt::Delta(before, zt::Snapshot());
    EXPECT_EQ(d.LiveAllocCount, 1u);
    EXPECT_EQ(d.LiveAllocBytes, 4u);
}

}  // namespace
