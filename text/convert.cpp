// ANSI (the C runtime's multibyte text in its current locale) to and from
// UTF-16. The four TChar names are the same entries, given in the export list.
#include <zendra/text.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include "platform/status.h"

using namespace zendra;

namespace {

constexpr size_t kConversionError = static_cast<size_t>(-1);

// The runtime's two converters under one shape, so that the allocating
// conversion is written once for both directions.
size_t Convert(wchar_t* to, const char* from, size_t room) { return mbstowcs(to, from, room); }
size_t Convert(char* to, const wchar_t* from, size_t room) { return wcstombs(to, from, room); }

// Measure, allocate n + 1 zero-filled units under the caller's tag, convert.
template <typename To, typename From>
PLT_STATUS AllocatingConversion(const From* text, To** out, uint32_t tag) {
    if (out == nullptr) return kInvalidParameter;
    *out = nullptr;
    if (text == nullptr) return kInvalidParameter;
    size_t n = Convert(static_cast<To*>(nullptr), text, 0);
    if (n == kConversionError) return kInvalidCharacters;
    if (n + 1 > (UINT32_MAX - sizeof(uint64_t)) / sizeof(To)) return kNoMemory;

    void* block = nullptr;
    PLT_STATUS status =
        PltMalloc(&block, static_cast<uint32_t>((n + 1) * sizeof(To)), PLT_ALLOC_ZERO, tag);
    if (status != kOk) return status;
    size_t converted = Convert(static_cast<To*>(block), text, n + 1);
    if (converted == kConversionError || converted >= n + 1) {
        PltFree(&block, tag);
        return converted == kConversionError ? kInvalidCharacters : kBufferOverflow;
    }
    *out = static_cast<To*>(block);
    return kOk;
}

// Whether the whole text converts into `room` units with its terminator. In
// a double-byte locale the runtime stops short of a character that does not
// fit and writes no terminator, so a short count alone does not prove it.
template <typename To, typename From>
PLT_STATUS CheckRoom(const From* text, size_t room) {
    size_t needed = Convert(static_cast<To*>(nullptr), text, 0);
    if (needed == kConversionError) return kInvalidCharacters;
    return needed < room ? kOk : kBufferOverflow;
}

// Into the caller's buffer: 0 only when the terminator was written.
template <typename To, typename From>
PLT_STATUS BufferConversion(const From* text, To* buffer, uint32_t room) {
    if (text == nullptr || buffer == nullptr) return kInvalidParameter;
    PLT_STATUS fits = CheckRoom<To>(text, room);
    if (fits == kInvalidCharacters) return fits;
    size_t converted = Convert(buffer, text, room);
    if (converted == kConversionError) return kInvalidCharacters;
    return converted < room ? fits : kBufferOverflow;
}

}  // namespace

extern "C" PLT_STATUS AnsiToWide(const char* text, wchar_t** out, uint32_t tag) {
    return AllocatingConversion(text, out, tag);
}

extern "C" PLT_STATUS WideToAnsi(const wchar_t* text, char** out, uint32_t tag) {
    return AllocatingConversion(text, out, tag);
}

extern "C" PLT_STATUS AnsiToWideEx(const char* text, wchar_t* buffer, uint32_t bufferChars) {
    return BufferConversion(text, buffer, bufferChars);
}

extern "C" PLT_STATUS WideToAnsiEx(const wchar_t* text, char* buffer, uint32_t bufferBytes) {
    return BufferConversion(text, buffer, bufferBytes);
}

extern "C" PLT_STATUS WideToAnsiV(char** out, const wchar_t* format, va_list args, uint32_t tag) {
    if (out != nullptr) *out = nullptr;
    int measured = format != nullptr ? _vscwprintf(format, args) : 0;
    if (measured < 0) return kInvalidParameter;
    size_t n = static_cast<size_t>(measured);
    if (n + 1 > (UINT32_MAX - sizeof(uint64_t)) / sizeof(wchar_t)) return kNoMemory;

    // Both blocks go under the caller's tag.
    void* work = nullptr;
    void* result = nullptr;
    PLT_STATUS status =
        PltMalloc(&work, static_cast<uint32_t>((n + 1) * sizeof(wchar_t)), PLT_ALLOC_ZERO, tag);
    if (status != kOk) return status;
    status = PltMalloc(&result, static_cast<uint32_t>(n + 1), PLT_ALLOC_ZERO, tag);
    if (status != kOk) {
        PltFree(&work, tag);
        return status;
    }

    wchar_t* text = static_cast<wchar_t*>(work);
    if (format != nullptr) {
        va_list copy;
        va_copy(copy, args);
        _vsnwprintf(text, n + 1, format, copy);
        va_end(copy);
    }
    text[n] = L'\0';

    // A multibyte locale may need more than the n + 1 bytes there are.
    status = CheckRoom<char>(text, n + 1);
    if (status == kOk) {
        size_t converted = wcstombs(static_cast<char*>(result), text, n + 1);
        if (converted == kConversionError)
            status = kInvalidCharacters;
        else if (converted >= n + 1)
            status = kBufferOverflow;
    }
    PltFree(&work, tag);
    if (status != kOk) PltFree(&result, tag);
    // Without `out` a successful result has no owner; callers always pass it.
    if (out != nullptr) *out = static_cast<char*>(result);
    return status;
}
