// Cutting lines out of a buffer of UTF-16 text.
#include <zendra/text.h>

#include <string.h>

#include "platform/status.h"

using namespace zendra;

namespace {

constexpr uint8_t kLineFeed = 0x0A;
constexpr uint32_t kLineFeedBytes = 2;  // a UTF-16 line feed

}  // namespace

extern "C" PLT_STATUS ReadLine(const void* buffer, uint32_t bufferLength, uint32_t* position,
                               wchar_t** line, uint32_t* lineLength) {
    if (buffer == nullptr || position == nullptr || line == nullptr || lineLength == nullptr) {
        // A line left over from an earlier call is released even here.
        if (line != nullptr && *line != nullptr) PltFree(reinterpret_cast<void**>(line), 0);
        return kInvalidParameter;
    }
    *line = nullptr;
    *lineLength = 0;
    uint32_t start = *position;
    if (start > bufferLength) return kInvalidParameter;

    // The scan goes byte by byte, so it may stop inside a character.
    const uint8_t* bytes = static_cast<const uint8_t*>(buffer);
    const void* found = memchr(bytes + start, kLineFeed, bufferLength - start);
    uint32_t end = found != nullptr
                       ? static_cast<uint32_t>(static_cast<const uint8_t*>(found) - bytes)
                       : bufferLength;

    // The byte count becomes the length in characters: the line takes twice
    // the bytes scanned, running on past the line feed.
    uint32_t length = end - start;
    if (length > (UINT32_MAX - sizeof(uint64_t) - sizeof(wchar_t)) / sizeof(wchar_t))
        return kNoMemory;
    void* copy = nullptr;
    PLT_STATUS status = PltMalloc(&copy, length * 2 + 2, PLT_ALLOC_ZERO, 0);
    if (status != kOk) return status;

    // What would lie past the buffer's end stays zero.
    uint32_t wanted = length * 2;
    uint32_t available = bufferLength - start;
    memcpy(copy, bytes + start, wanted < available ? wanted : available);
    wchar_t* text = static_cast<wchar_t*>(copy);
    text[length] = L'\0';

    // Trimming sets the length to the text's own length, or leaves the byte
    // count when nothing but spaces was left. It cannot fail on a real text.
    *lineLength = length;
    StrTrim(text, lineLength);
    *line = text;
    *position = end + kLineFeedBytes;
    return kOk;
}
