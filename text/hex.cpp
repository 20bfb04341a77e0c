// Bytes to and from escaped hexadecimal text: "\xDE\xAD".
#include <zendra/text.h>

#include <wctype.h>

#include "platform/status.h"

using namespace zendra;

namespace {

const wchar_t kDigits[] = L"0123456789ABCDEF";
constexpr uint32_t kCharsPerByte = 4;  // '\', 'x', high digit, low digit

// Value of one digit, or a value above 15 when it is none. Everything below
// 'A' counts from '0', so the characters between '9' and 'A' pass as 10 to
// 15, and characters below '0' wrap to large values.
uint16_t DigitValue(wchar_t c) {
    wchar_t upper = towupper(c);
    return static_cast<uint16_t>(upper < L'A' ? upper - 48 : upper - 55);
}

// Whether text[index], at or past `length`, can be read: the group being
// read runs on past the given length, but never past the text's terminator.
bool ReadableBeyond(const wchar_t* text, uint32_t length, uint32_t index) {
    for (uint32_t i = length; i < index; ++i)
        if (text[i] == L'\0') return false;
    return true;
}

}  // namespace

extern "C" PLT_STATUS StrHexToString(const uint8_t* bytes, uint32_t byteCount, wchar_t* buffer,
                                     uint32_t bufferChars) {
    if (bytes == nullptr || buffer == nullptr) return kInvalidParameter;
    // Asks for twice the room used; callers size their buffers by this rule.
    if (uint64_t{byteCount} * 8 > bufferChars) return kInvalidParameter;
    // No room even for the terminator.
    if (bufferChars == 0) return kInvalidParameter;
    wchar_t* to = buffer;
    for (uint32_t i = 0; i < byteCount; ++i) {
        *to++ = L'\\';
        *to++ = L'x';
        *to++ = kDigits[bytes[i] >> 4];
        *to++ = kDigits[bytes[i] & 0xF];
    }
    *to = L'\0';
    return kOk;
}

extern "C" PLT_STATUS StrStringToHex(const wchar_t* text, uint32_t length, uint8_t* out,
                                     uint32_t outSize) {
    if (text == nullptr || out == nullptr || length / 8 > outSize) return kInvalidParameter;
    if (length == 0) return kOk;
    // One byte per group, a trailing partial group included: refuse what
    // would not fit rather than write past the output.
    uint32_t groups = length / kCharsPerByte + (length % kCharsPerByte != 0);
    if (groups > outSize) return kInvalidParameter;

    for (uint32_t start = 0, n = 0; start < length; start += kCharsPerByte, ++n) {
        // The first two characters of a group are not looked at.
        uint32_t high = start + 2, low = start + 3;
        if (low >= length && !ReadableBeyond(text, length, low)) return kInvalidData;
        uint16_t hi = DigitValue(text[high]);
        if (hi > 15) return kInvalidData;
        uint16_t lo = DigitValue(text[low]);
        if (lo > 15) return kInvalidData;
        out[n] = static_cast<uint8_t>(hi << 4 | lo);
    }
    return kOk;
}
