// Duplicating copy and space trimming of UTF-16 text.
#include <zendra/text.h>

#include <string.h>
#include <wchar.h>

#include "platform/status.h"

using namespace zendra;

extern "C" PLT_STATUS StrAllocCopy(wchar_t** out, const wchar_t* source) {
    if (out == nullptr || source == nullptr) return kInvalidParameter;
    *out = nullptr;
    size_t chars = wcslen(source) + 1;
    // A copy whose size does not fit the allocator's 32-bit request cannot
    // be made.
    if (chars > (UINT32_MAX - sizeof(uint64_t)) / sizeof(wchar_t)) return kNoMemory;
    void* copy = nullptr;
    PLT_STATUS status =
        PltMalloc(&copy, static_cast<uint32_t>(chars * sizeof(wchar_t)), PLT_ALLOC_ZERO, 0);
    if (status != kOk) return kNoMemory;
    memcpy(copy, source, chars * sizeof(wchar_t));
    *out = static_cast<wchar_t*>(copy);
    return kOk;
}

extern "C" PLT_STATUS StrTrim(wchar_t* text, uint32_t* newLength) {
    if (text == nullptr) return kInvalidParameter;
    size_t length = wcslen(text);
    if (length == 0) return kOk;

    // Only the space is blank: tabs and line ends are text.
    size_t first = 0;
    while (first < length && text[first] == L' ') ++first;
    size_t end = length;
    while (end > first && text[end - 1] == L' ') --end;

    if (end == first) {
        // An all-space text leaves *newLength as it was; callers that read
        // it must have set it beforehand.
        text[0] = L'\0';
        return kOk;
    }
    size_t kept = end - first;
    memmove(text, text + first, kept * sizeof(wchar_t));
    text[kept] = L'\0';
    if (newLength != nullptr) *newLength = static_cast<uint32_t>(kept);
    return kOk;
}
