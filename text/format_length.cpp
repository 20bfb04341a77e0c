// Lengths of formatted text, measured by the C runtime's own formatter so
// that they match what its printf family writes.
#include <zendra/text.h>

#include <stdio.h>
#include <wchar.h>

extern "C" int32_t SprintfLengthV(const char* format, va_list args) {
    if (format == nullptr) return 0;
    return _vscprintf(format, args);
}

extern "C" int32_t SprintfLength(const char* format, ...) {
    va_list args;
    va_start(args, format);
    int32_t length = SprintfLengthV(format, args);
    va_end(args);
    return length;
}

extern "C" int32_t WSprintfLengthV(const wchar_t* format, va_list args) {
    if (format == nullptr) return 0;
    return _vscwprintf(format, args);
}

extern "C" int32_t WSprintfLength(const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    int32_t length = WSprintfLengthV(format, args);
    va_end(args);
    return length;
}
