// Machine identity as text: an identifier's bytes in hexadecimal, and the
// placeholder device identification fields.
#include <string.h>

#include <zendra/storage.h>
#include <zendra/text.h>

#include "platform/status.h"

using namespace zendra;

namespace {

constexpr size_t kIdentifierBytes = 20;  // a SHA-1 digest
constexpr uint32_t kConversionTag = PLT_TAG('Q', 'Z', 'S', 'T');

}  // namespace

extern "C" PLT_STATUS PltGetEnCodedUniqueId(const uint8_t* value, wchar_t* out) {
    if (value == nullptr || out == nullptr) return kInvalidParameter;
    char narrow[2 * kIdentifierBytes + 1];
    static const char kDigits[] = "0123456789ABCDEF";
    for (size_t i = 0; i < kIdentifierBytes; ++i) {
        narrow[2 * i] = kDigits[value[i] >> 4];
        narrow[2 * i + 1] = kDigits[value[i] & 15];
    }
    narrow[2 * kIdentifierBytes] = '\0';
    wchar_t* wide = nullptr;
    PLT_STATUS status = AnsiToWide(narrow, &wide, kConversionTag);
    if (status != kOk) return status;
    memcpy(out, wide, 2 * kIdentifierBytes * sizeof(wchar_t));  // no terminator, on purpose
    void* block = wide;
    PltFree(&block, kConversionTag);
    return kOk;
}

extern "C" PLT_STATUS PltGetDevInfoStr(uint64_t, char* out, int32_t selector) {
    static const char* const kFields[] = {"DUMMY_MODEL", "DUMMY_VENDOR", "DUMMY_FWRev",
                                          "DUMMY_SERIALNUM", "DUMMY_PRODUCT"};
    if (out != nullptr && selector >= 0 && selector < 5) strcpy(out, kFields[selector]);
    return kOk;
}
