// Wine detection, for tests that must mark a known Wine deviation. A test
// asserts Windows behaviour; where Wine differs it says so and skips.
#pragma once

#include <gtest/gtest.h>

namespace zt {

bool IsWine();
const char* WineVersion();  // null on Windows

}  // namespace zt

#define ZT_SKIP_ON_WINE(reason)                                                 \
    do {                                                                        \
        if (::zt::IsWine()) GTEST_SKIP() << "known Wine deviation: " << reason; \
    } while (0)
