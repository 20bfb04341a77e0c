// SHA-1 against the published examples and against the system's own SHA-1
// (BCrypt). CTest runs these cases with the block function the CPU selects and
// with ZENDRA_SHA1_IMPL=portable, so both meet the same reference.
#include <stdio.h>
#include <string.h>
#include <windows.h>
#include <bcrypt.h>

#include <random>
#include <string>
#include <vector>

#include <zendra/text.h>

#include "zt.h"

namespace {

std::string Hex(const uint8_t* digest) {
    char text[41];
    for (int i = 0; i < 20; ++i) snprintf(text + 2 * i, 3, "%02X", digest[i]);
    return text;
}

std::string Sha(const void* data, size_t length) {
    zt::GuardedBuffer digest(20);
    EXPECT_EQ(ShaGetHash(data, static_cast<uint32_t>(length), digest.as<uint8_t>()), 0u);
    return Hex(digest.as<uint8_t>());
}

std::string SystemSha(const void* data, size_t length) {
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    BCRYPT_HASH_HANDLE hash = nullptr;
    uint8_t digest[20] = {};
    BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_SHA1_ALGORITHM, nullptr, 0);
    BCryptCreateHash(algorithm, &hash, nullptr, 0, nullptr, 0, 0);
    for (size_t done = 0, piece; done < length; done += piece) {
        piece = std::min<size_t>(length - done, 1u << 24);
        BCryptHashData(hash, static_cast<PUCHAR>(const_cast<void*>(data)) + done,
                       static_cast<ULONG>(piece), 0);
    }
    BCryptFinishHash(hash, digest, 20, 0);
    BCryptDestroyHash(hash);
    BCryptCloseAlgorithmProvider(algorithm, 0);
    return Hex(digest);
}

TEST(Sha1, PublishedExamples) {
    EXPECT_EQ(Sha("Test", 5), "5B8486158773F33D47B298ADAEA411901463418F") << "with its zero";
    EXPECT_EQ(Sha(nullptr, 0), "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709");
    EXPECT_EQ(Sha("abc", 3), "A9993E364706816ABA3E25717850C26C9CD0D89D");
    std::string million(1000000, 'a');
    EXPECT_EQ(Sha(million.data(), million.size()), "34AA973CD4C4DAA4F61EEB2BDBAD27316534016F");
    ASSERT_EQ(SystemSha("abc", 3), "A9993E364706816ABA3E25717850C26C9CD0D89D") << "reference";
}

TEST(Sha1, EveryLengthUpTo1000UnalignedGuardedAndLarge) {
    std::mt19937 random(20240611);
    std::vector<uint8_t> data((16u << 20) + 77);
    for (uint8_t& b : data) b = static_cast<uint8_t>(random());
    for (size_t length = 0; length <= 1000; ++length) {
        const uint8_t* start = data.data() + length % 16;
        ASSERT_EQ(Sha(start, length), SystemSha(start, length)) << length;
    }
    for (size_t length : {55u, 56u, 64u, 65u}) {
        zt::GuardedBuffer input(length);
        memcpy(input.data(), data.data(), length);
        EXPECT_EQ(Sha(input.data(), length), SystemSha(input.data(), length)) << length;
    }
    for (size_t length : {size_t{65537}, data.size()})
        EXPECT_EQ(Sha(data.data(), length), SystemSha(data.data(), length)) << length;
    // 513 MiB is more than 2^32 bits, so the length's high half counts. The
    // pages are never written and cost no memory.
    const size_t huge = size_t{513} << 20;
    void* zeros = VirtualAlloc(nullptr, huge, MEM_RESERVE | MEM_COMMIT, PAGE_READONLY);
    ASSERT_NE(zeros, nullptr);
    EXPECT_EQ(Sha(zeros, huge), SystemSha(zeros, huge));
    VirtualFree(zeros, 0, MEM_RELEASE);
}

}  // namespace
