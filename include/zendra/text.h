/* ZendraPlatform text helpers, ANSI/UTF-16 conversions and SHA-1.
 * C-compatible.
 *
 * "ANSI" text is the C runtime's multibyte text in its current locale
 * (setlocale): the conversions use mbstowcs and wcstombs. Text that the
 * locale cannot convert gives UNCONVERTIBLE_TEXT; a conversion that does not
 * fit gives BUFFER_OVERFLOW (status names in platform.h).
 * Allocating calls hand out blocks made by PltMalloc; the caller frees them
 * with PltFree under the tag named at each call. */
#ifndef ZENDRA_TEXT_H
#define ZENDRA_TEXT_H

#include <stdarg.h>

#include <zendra/platform.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- copies, lengths and trimming ---- */

/* *out receives a zero-filled copy of source (tag 0). INVALID_PARAMETER for a
 * null out or source; NO_MEMORY (*out null). */
ZENDRA_API PLT_STATUS StrAllocCopy(wchar_t** out, const wchar_t* source);

/* Characters the formatted text needs, terminator not counted: a count, not
 * a status. 0 for a null format, -1 for a bad one. */
ZENDRA_API int32_t SprintfLength(const char* format, ...);
ZENDRA_API int32_t SprintfLengthV(const char* format, va_list args);
ZENDRA_API int32_t WSprintfLength(const wchar_t* format, ...);
ZENDRA_API int32_t WSprintfLengthV(const wchar_t* format, va_list args);

/* Strips leading and trailing spaces (0x20 only) in place. *newLength (may be
 * null) receives the new length, except when nothing but spaces was left:
 * then the text becomes empty and *newLength is not written. INVALID_PARAMETER
 * for a null text. */
ZENDRA_API PLT_STATUS StrTrim(wchar_t* text, uint32_t* newLength);

/* ---- escaped hexadecimal text ("\xDE\xAD") ---- */

/* Writes four characters per byte and a terminator. INVALID_PARAMETER for a
 * null argument or a buffer smaller than byteCount x 8 characters. */
ZENDRA_API PLT_STATUS StrHexToString(const uint8_t* bytes, uint32_t byteCount, wchar_t* buffer,
                                     uint32_t bufferChars);

/* Reads one byte per group of four characters (the first two of each group
 * are skipped, the last two are hexadecimal digits); a trailing partial group
 * counts as a whole one. INVALID_DATA for a bad digit, leaving the bytes
 * already written; INVALID_PARAMETER for a null argument or when the output
 * cannot hold one byte per group. */
ZENDRA_API PLT_STATUS StrStringToHex(const wchar_t* text, uint32_t length, uint8_t* out,
                                     uint32_t outSize);

/* ---- conversions ---- */

/* Allocating conversions: *out receives a new text under the caller's tag,
 * or null on failure. INVALID_PARAMETER for a null text or out;
 * UNCONVERTIBLE_TEXT; NO_MEMORY; BUFFER_OVERFLOW. AnsiToTChar and TCharToAnsi
 * are the same calls as AnsiToWide and WideToAnsi. */
ZENDRA_API PLT_STATUS AnsiToWide(const char* text, wchar_t** out, uint32_t tag);
ZENDRA_API PLT_STATUS WideToAnsi(const wchar_t* text, char** out, uint32_t tag);
ZENDRA_API PLT_STATUS AnsiToTChar(const char* text, wchar_t** out, uint32_t tag);
ZENDRA_API PLT_STATUS TCharToAnsi(const wchar_t* text, char** out, uint32_t tag);

/* Conversions into the caller's buffer: 0 when a terminator was written,
 * BUFFER_OVERFLOW when the text filled the buffer (possibly unterminated).
 * INVALID_PARAMETER for a null text or buffer; UNCONVERTIBLE_TEXT. */
ZENDRA_API PLT_STATUS AnsiToWideEx(const char* text, wchar_t* buffer, uint32_t bufferChars);
ZENDRA_API PLT_STATUS WideToAnsiEx(const wchar_t* text, char* buffer, uint32_t bufferBytes);
ZENDRA_API PLT_STATUS AnsiToTCharEx(const char* text, wchar_t* buffer, uint32_t bufferChars);
ZENDRA_API PLT_STATUS TCharToAnsiEx(const wchar_t* text, char* buffer, uint32_t bufferBytes);

/* Formats a UTF-16 format and converts the result to a new ANSI text under
 * the caller's tag. Always pass `out`: without it a successful result is
 * not freed. A format the C runtime refuses gives INVALID_PARAMETER; also
 * NO_MEMORY, UNCONVERTIBLE_TEXT and BUFFER_OVERFLOW, with *out null. */
ZENDRA_API PLT_STATUS WideToAnsiV(char** out, const wchar_t* format, va_list args, uint32_t tag);

/* ---- lines ---- */

/* Cuts the next line out of a buffer of UTF-16 text whose lines end in a
 * line feed; the buffer length and *position are in bytes. The scan for the
 * line feed goes byte by byte, and the byte count found is taken as the
 * line's length in characters; the copy never reads past the buffer's end
 * (what lies beyond it reads as zeros). The line is trimmed with StrTrim and
 * *position moves 2 bytes past the line feed. The caller frees *line with
 * PltFree and tag 0, and stops when *position reaches bufferLength.
 * INVALID_PARAMETER for a null argument (a line still in *line is freed) or a
 * position beyond bufferLength; NO_MEMORY. */
ZENDRA_API PLT_STATUS ReadLine(const void* buffer, uint32_t bufferLength, uint32_t* position,
                               wchar_t** line, uint32_t* lineLength);

/* ---- SHA-1 ---- */

#define PLT_SHA1_DIGEST_SIZE 20

/* The 20-byte SHA-1 digest of `length` bytes, in the standard byte order.
 * Always 0; no argument is checked (a null input of length 0 is the empty
 * string).
 *
 * The library uses the CPU's SHA extensions when CPUID reports them (with
 * SSSE3 and SSE4.1), a portable implementation otherwise. Setting the
 * environment variable ZENDRA_SHA1_IMPL=portable before the process's first
 * ShaGetHash call forces the portable one for the rest of the process; the
 * choice is made once, at that first call. */
ZENDRA_API PLT_STATUS ShaGetHash(const void* input, uint32_t length, uint8_t* digest);

#ifdef __cplusplus
}
#endif

#endif /* ZENDRA_TEXT_H */
