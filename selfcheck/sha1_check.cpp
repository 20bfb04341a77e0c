// TestSHA1: the digest of "Test" with its terminating zero.
#include <stdio.h>
#include <wchar.h>

#include <zendra/text.h>

#include "selfcheck/report.h"

extern "C" uint32_t TestSHA1(PLT_REPORT_BUFFER* report) {
    uint8_t digest[PLT_SHA1_DIGEST_SIZE] = {};
    ShaGetHash("Test", 5, digest);
    wchar_t text[2 * PLT_SHA1_DIGEST_SIZE + 1] = {};
    for (int i = 0; i < PLT_SHA1_DIGEST_SIZE; ++i) _snwprintf(text + 2 * i, 3, L"%02X", digest[i]);
    if (wcscmp(text, L"5B8486158773F33D47B298ADAEA411901463418F") == 0) return 0;
    return zendra::selfcheck::Fail(
        report, L"The test value and the output value for the hash must be same.");
}
