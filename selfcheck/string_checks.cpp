// TestStrings: formatting lengths, trimming, escaped hexadecimal text, line
// reading and the narrow/wide conversions, each sub-check under its title.
#include <stdio.h>
#include <string.h>
#include <wchar.h>

#include <zendra/io.h>
#include <zendra/text.h>

#include "selfcheck/report.h"

namespace zendra::selfcheck {
namespace {

constexpr uint32_t kTextTag = PLT_TAG('Q', 'Z', 'S', 'T');
const wchar_t* const kWrongValue = L"The value returned must be equal to the right value.";
const wchar_t* const kWideDiffers =
    L"The converted value and the provided Wide value should be same.";
const wchar_t* const kTCharDiffers =
    L"The converted value and the provided TCHAR value should be same.";
const wchar_t* const kAnsiDiffers =
    L"The converted value and the provided ansi value should be same.";

uint32_t FormatLength(PLT_REPORT_BUFFER* report) {
    const char* format = "String Testing %d. Hello! Hello! String testing allocated %d";
    int32_t length = SprintfLength(format, 15, 2400000);
    void* block = nullptr;
    if (length <= 0 ||
        PltMalloc(&block, static_cast<uint32_t>(length) + 1, PLT_ALLOC_ZERO, kTextTag) != 0)
        return Fail(report, L"Allocating some buffer");
    auto* text = static_cast<char*>(block);
    _snprintf(text, static_cast<size_t>(length) + 1, format, 15, 2400000);
    uint32_t result = strlen(text) == static_cast<size_t>(length) ? 0 : Fail(report, kWrongValue);
    if (PltFree(&block, kTextTag) != 0) result = Fail(report, L"Freeing the allocation");
    return result;
}

uint32_t Trim(PLT_REPORT_BUFFER* report) {
    const wchar_t* cases[][2] = {{L"No Trims", L"No Trims"},
                                 {L"  Left Trim", L"Left Trim"},
                                 {L"Right Trim ", L"Right Trim"},
                                 {L" Both left and right Trim ", L"Both left and right Trim"}};
    for (const auto& c : cases) {
        wchar_t* copy = nullptr;
        if (StrAllocCopy(&copy, c[0]) != 0 || copy == nullptr) return Fail(report, kWrongValue);
        AppendFormat(report, kMessageLimit, L"Str before Trim: '%s'\r\n", copy);
        uint32_t length = 0;
        PLT_STATUS s = StrTrim(copy, &length);
        AppendFormat(report, kMessageLimit, L"Str after Trim: '%s'\r\n", copy);
        bool ok = s == 0 && wcscmp(copy, c[1]) == 0 && length == wcslen(c[1]);
        void* block = copy;
        PltFree(&block, 0);
        if (!ok) return Fail(report, kWrongValue);
    }
    return 0;
}

uint32_t HexRoundTrip(PLT_REPORT_BUFFER* report) {
    const wchar_t* values[] = {L"\\xFE\\xED\\xf0\\x0d", L"\\xFE\\xED\\xbe\\xef",
                               L"\\xB1\\x00\\x0d\\xed", L"\\xDE\\xAD\\xbe\\xef",
                               L"\\xC0\\xFF\\xee\\xee", L"\\xDE\\xEE\\xec\\xaf",
                               L"\\xC0\\xD1\\xf1\\xed"};
    for (const wchar_t* value : values) {
        uint8_t bytes[4] = {};
        wchar_t text[33] = {};
        AppendFormat(report, kMessageLimit, L"Before: %s\r\n", value);
        if (StrStringToHex(value, static_cast<uint32_t>(wcslen(value)), bytes, sizeof bytes) != 0)
            return Fail(report, kWrongValue);
        AppendFormat(report, kMessageLimit, L"After: 0x%02X%02X%02X%02X\r\n", bytes[0], bytes[1],
                     bytes[2], bytes[3]);
        AppendFormat(report, kMessageLimit, L"Before: 0x%X%X%X%X\r\n", bytes[0], bytes[1], bytes[2],
                     bytes[3]);
        if (StrHexToString(bytes, sizeof bytes, text, 32) != 0) return Fail(report, kWrongValue);
        AppendFormat(report, kMessageLimit, L"After: '%s'\r\n", text);
        // The text comes back with upper-case digits.
        if (_wcsicmp(text, value) != 0) return Fail(report, kWrongValue);
    }
    return 0;
}

// Three 4096-byte blocks of UTF-16 lines written to Test.txt and read back
// line by line.
uint32_t Lines(PLT_REPORT_BUFFER* report) {
    constexpr uint32_t kBlock = 4096, kBlocks = 3, kLineChars = 32;
    void* block = nullptr;
    if (PltMalloc(&block, kBlock * kBlocks, 0, 0) != 0) return Fail(report, kWrongValue);
    auto* text = static_cast<wchar_t*>(block);
    for (uint32_t line = 0; line < kBlock * kBlocks / 2 / kLineChars; ++line) {
        wchar_t* at = text + line * kLineChars;
        _snwprintf(at, kLineChars, L"ReadLine test line %04u ........", line);
        at[kLineChars - 1] = L'\n';
    }
    HANDLE file = INVALID_HANDLE_VALUE;
    uint32_t done = 0, result = 0;
    PLT_STATUS s = PltCreateFile(L"Test.txt", PLT_FILE_CREATE, PLT_FILE_ACCESS_WRITE, 0, &file);
    for (uint32_t b = 0; s == 0 && b < kBlocks; ++b)
        s = PltWriteFile(file, PLT_CURRENT_POSITION, text + b * kBlock / 2, kBlock, &done);
    if (s == 0) {
        memset(block, 0, kBlock * kBlocks);
        s = PltReadFile(file, 0, block, kBlock * kBlocks, &done);
    }
    if (file != INVALID_HANDLE_VALUE) PltCloseFile(file);
    PltDeleteFile(L"Test.txt");
    if (s != 0 || done != kBlock * kBlocks) {
        result = FailWithStatus(
            report, s, L"The lines should be read, so the line size must be greater than 0");
    } else {
        for (uint32_t position = 0; result == 0 && position < done;) {
            wchar_t* line = nullptr;
            uint32_t length = 0;
            if (ReadLine(block, done, &position, &line, &length) != 0 || length == 0)
                result = Fail(report,
                              L"The lines should be read, so the line size must be greater than 0");
            void* owned = line;
            if (owned != nullptr) PltFree(&owned, 0);
        }
    }
    PltFree(&block, 0);
    return result;
}

// The allocating conversions of "Count", each way, under the strings tag.
uint32_t ToWide(PLT_REPORT_BUFFER* report, PLT_STATUS (*convert)(const char*, wchar_t**, uint32_t),
                const wchar_t* differs) {
    wchar_t* wide = nullptr;
    bool ok = convert != nullptr && convert("Count", &wide, kTextTag) == 0 && wide != nullptr &&
              wcscmp(wide, L"Count") == 0;
    void* block = wide;
    if (block != nullptr) PltFree(&block, kTextTag);
    return ok ? 0 : Fail(report, differs);
}

uint32_t ToAnsi(PLT_REPORT_BUFFER* report,
                PLT_STATUS (*convert)(const wchar_t*, char**, uint32_t)) {
    char* ansi = nullptr;
    bool ok = convert != nullptr && convert(L"Count", &ansi, kTextTag) == 0 && ansi != nullptr &&
              strcmp(ansi, "Count") == 0;
    void* block = ansi;
    if (block != nullptr) PltFree(&block, kTextTag);
    return ok ? 0 : Fail(report, kAnsiDiffers);
}

uint32_t ToWideBuffer(PLT_REPORT_BUFFER* report,
                      PLT_STATUS (*convert)(const char*, wchar_t*, uint32_t),
                      const wchar_t* differs) {
    wchar_t wide[16];
    wmemset(wide, L'#', 16);
    return convert != nullptr && convert("Count", wide, 16) == 0 && wcscmp(wide, L"Count") == 0
               ? 0
               : Fail(report, differs);
}

int32_t NarrowLength(const char* format, ...) {
    va_list args;
    va_start(args, format);
    int32_t length = SprintfLengthV(format, args);
    va_end(args);
    return length;
}

int32_t WideLength(const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    int32_t length = WSprintfLengthV(format, args);
    va_end(args);
    return length;
}

PLT_STATUS FormatToAnsi(char** out, const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    PLT_STATUS s = WideToAnsiV(out, format, args, kTextTag);
    va_end(args);
    return s;
}

// The TCHAR names are aliases in the export list; a missing one fails its
// sub-check like a wrong conversion.
template <typename F>
F Alias(const char* name) {
    return OwnExportAs<F>(name);
}

uint32_t Check(PLT_REPORT_BUFFER* report, int which) {
    switch (which) {
        case 0:
            return FormatLength(report);
        case 1:
            return Trim(report);
        case 2:
            return HexRoundTrip(report);
        case 3:
            return Lines(report);
        case 4:
            return ToWide(report, AnsiToWide, kWideDiffers);
        case 5:
            return ToWide(report, Alias<decltype(&AnsiToWide)>("AnsiToTChar"), kTCharDiffers);
        case 6:
            return ToAnsi(report, Alias<decltype(&WideToAnsi)>("TCharToAnsi"));
        case 7:
            return ToAnsi(report, WideToAnsi);
        case 8:
            return ToWideBuffer(report, AnsiToWideEx, kWideDiffers);
        case 9:
            return ToWideBuffer(report, Alias<decltype(&AnsiToWideEx)>("AnsiToTCharEx"),
                                kTCharDiffers);
        case 10:
            return NarrowLength("%s=%d", "Value", 100) == 9 ? 0 : Fail(report, kWrongValue);
        case 11:
            return WideLength(L"%s=%d", L"Value", 100) == 9 ? 0 : Fail(report, kWrongValue);
        default: {
            char* text = nullptr;
            bool ok = FormatToAnsi(&text, L"Value length is %d", 100) == 0 && text != nullptr &&
                      strcmp(text, "Value length is 100") == 0;
            void* block = text;
            if (block != nullptr) PltFree(&block, kTextTag);
            return ok ? 0
                      : Fail(
                            report,
                            L"The returned formatted ANSI value must be equal to the right value.");
        }
    }
}

}  // namespace
}  // namespace zendra::selfcheck

using namespace zendra::selfcheck;

extern "C" uint32_t TestStrings(PLT_REPORT_BUFFER* report) {
    static const wchar_t* const titles[] = {L"SprintfLength test",
                                            L"StrTrim test-also uses StrAllocCopy()",
                                            L"Hex bytes to string and string hex to bytes",
                                            L"ReadLine test",
                                            L"AnsiToWide test",
                                            L"AnsiToTChar test",
                                            L"TCharToAnsi test",
                                            L"WideToAnsi test",
                                            L"AnsiToWideEx test",
                                            L"AnsiToTCharEx test",
                                            L"SprintfLengthV test",
                                            L"WSprintfLengthV test",
                                            L"WideToAnsiV test"};
    uint32_t result = 0;
    for (int i = 0; i < 13; ++i) {
        AppendLine(report, titles[i]);
        result |= Check(report, i);
    }
    return result;
}
