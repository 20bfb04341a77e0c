// SHA-1 through ShaGetHash, against the published examples and against the
// system's own SHA-1 (BCrypt) as an independent reference.
//
// These cases run twice under CTest: once with the block function the CPU
// selects (the SHA extensions where present) and once with
// ZENDRA_SHA1_IMPL=portable, so both implementations meet the same
// reference on the same inputs.
#include <stdio.h>
#include <string.h>
#include <windows.h>
#include <bcrypt.h>

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <zendra/text.h>

#include "guarded_buffer.h"

namespace {

std::string Hex(const uint8_t* digest) {
    char text[41];
    for (int i = 0; i < 20; ++i) snprintf(text + 2 * i, 3, "%02X", digest[i]);
    return text;
}

std::string Sha(const void* data, uint32_t length) {
    uint8_t digest[20];
    memset(digest, 0xCC, sizeof digest);
    EXPECT_EQ(ShaGetHash(data, length, digest), 0u);
    return Hex(digest);
}

std::string Sha(const std::string& text) {
    return Sha(text.data(), static_cast<uint32_t>(text.size()));
}

// The system's SHA-1, written without reference to the library's code.
class SystemSha1 {
public:
    SystemSha1() {
        if (BCryptOpenAlgorithmProvider(&algorithm_, BCRYPT_SHA1_ALGORITHM, nullptr, 0) != 0)
            algorithm_ = nullptr;
    }
    ~SystemSha1() {
        if (algorithm_ != nullptr) BCryptCloseAlgorithmProvider(algorithm_, 0);
    }
    bool ok() const { return algorithm_ != nullptr; }

    std::string operator()(const void* data, size_t length) const {
        BCRYPT_HASH_HANDLE hash = nullptr;
        uint8_t digest[20];
        if (BCryptCreateHash(algorithm_, &hash, nullptr, 0, nullptr, 0, 0) != 0) return "error";
        const auto* bytes = static_cast<const uint8_t*>(data);
        // In pieces, so that the reference never sees one huge buffer.
        while (length > 0) {
            ULONG piece = length > (1u << 24) ? (1u << 24) : static_cast<ULONG>(length);
            BCryptHashData(hash, const_cast<PUCHAR>(bytes), piece, 0);
            bytes += piece;
            length -= piece;
        }
        BCryptFinishHash(hash, digest, sizeof digest, 0);
        BCryptDestroyHash(hash);
        return Hex(digest);
    }

private:
    BCRYPT_ALG_HANDLE algorithm_ = nullptr;
};

TEST(Sha1, PublishedExamples) {
    EXPECT_EQ(Sha(""), "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709");
    EXPECT_EQ(Sha("abc"), "A9993E364706816ABA3E25717850C26C9CD0D89D");
    EXPECT_EQ(Sha("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "84983E441C3BD26EBAAE4AA1F95129E5E54670F1");
    EXPECT_EQ(Sha("abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmno"
                  "ijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqrstu"),
              "A49B2446A02C645BF419F995B67091253A04A259");
    EXPECT_EQ(Sha("The quick brown fox jumps over the lazy dog"),
              "2FD4E1C67A2D28FCED849EE1BB76E7391B93EB12");
    EXPECT_EQ(Sha(std::string(1000000, 'a')), "34AA973CD4C4DAA4F61EEB2BDBAD27316534016F");
}

TEST(Sha1, TestWithItsTerminatorIsHashed) {
    EXPECT_EQ(Sha("Test", 5), "5B8486158773F33D47B298ADAEA411901463418F");
    EXPECT_EQ(Sha("Test", 4), "640AB2BAE07BEDC4C163F679A746F7AB7FB5D1FA");
}

TEST(Sha1, NullInputOfLengthZeroIsTheEmptyString) {
    EXPECT_EQ(Sha(nullptr, 0), "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709");
}

TEST(Sha1, PaddingBoundaries) {
    // From 56 bytes on, the length no longer fits in the last block.
    SystemSha1 reference;
    ASSERT_TRUE(reference.ok());
    for (uint32_t length : {55u, 56u, 57u, 63u, 64u, 65u, 119u, 120u, 127u, 128u}) {
        std::string data(length, 'q');
        EXPECT_EQ(Sha(data), reference(data.data(), length)) << length;
    }
}

TEST(Sha1, EveryLengthUpTo1000MatchesTheSystem) {
    SystemSha1 reference;
    ASSERT_TRUE(reference.ok());
    std::vector<uint8_t> data(1000);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7 + (i >> 8));
    for (uint32_t length = 0; length <= 1000; ++length)
        ASSERT_EQ(Sha(data.data(), length), reference(data.data(), length)) << length;
}

TEST(Sha1, RandomInputsOfEveryLengthUpToFiveBlocks) {
    SystemSha1 reference;
    ASSERT_TRUE(reference.ok());
    std::mt19937 random(20240611);
    std::vector<uint8_t> data(5 * 64 + 16);
    for (int round = 0; round < 4; ++round) {
        for (uint8_t& b : data) b = static_cast<uint8_t>(random());
        for (uint32_t length = 0; length <= 5 * 64; ++length) {
            // Unaligned starts as well.
            const uint8_t* start = data.data() + (length + round) % 16;
            ASSERT_EQ(Sha(start, length), reference(start, length))
                << "length " << length << " round " << round;
        }
    }
}

TEST(Sha1, LargeInputsMatchTheSystem) {
    SystemSha1 reference;
    ASSERT_TRUE(reference.ok());
    std::mt19937 random(7);
    std::vector<uint8_t> data((16u << 20) + 77);
    for (uint8_t& b : data) b = static_cast<uint8_t>(random());
    for (size_t length :
         {size_t{4096}, size_t{65537}, size_t{1} << 20, (size_t{1} << 20) + 13, data.size()}) {
        EXPECT_EQ(Sha(data.data(), static_cast<uint32_t>(length)), reference(data.data(), length))
            << length;
    }
}

TEST(Sha1, BitLengthBeyond32Bits) {
    // 513 MiB is more than 2^32 bits: the length's high half is used. The
    // pages are never written, so they cost no memory.
    const size_t length = size_t{513} << 20;
    void* zeros = VirtualAlloc(nullptr, length, MEM_RESERVE | MEM_COMMIT, PAGE_READONLY);
    ASSERT_NE(zeros, nullptr);
    SystemSha1 reference;
    ASSERT_TRUE(reference.ok());
    EXPECT_EQ(Sha(zeros, static_cast<uint32_t>(length)), reference(zeros, length));
    VirtualFree(zeros, 0, MEM_RELEASE);
}

TEST(Sha1, ReadsNothingPastTheInput) {
    SystemSha1 reference;
    ASSERT_TRUE(reference.ok());
    for (uint32_t length : {1u, 63u, 64u, 65u, 1000u}) {
        zt::GuardedBuffer guarded(length);
        memset(guarded.data(), 0x5A, length);
        EXPECT_EQ(Sha(guarded.data(), length), reference(guarded.data(), length)) << length;
    }
}

TEST(Sha1, WritesExactlyTwentyBytes) {
    zt::GuardedBuffer digest(20);
    EXPECT_EQ(ShaGetHash("abc", 3, digest.as<uint8_t>()), 0u);
    EXPECT_EQ(Hex(digest.as<uint8_t>()), "A9993E364706816ABA3E25717850C26C9CD0D89D");
}

TEST(Sha1, ThreadsHashAtOnce) {
    std::string data(100000, 'z');
    const std::string expected = Sha(data);
    std::vector<HANDLE> threads;
    static volatile LONG mismatches;
    mismatches = 0;
    struct Job {
        const std::string* data;
        const std::string* expected;
    } job{&data, &expected};
    for (int t = 0; t < 4; ++t) {
        threads.push_back(CreateThread(
            nullptr, 0,
            [](void* p) -> DWORD {
                auto* j = static_cast<Job*>(p);
                for (int i = 0; i < 50; ++i) {
                    uint8_t digest[20];
                    ShaGetHash(j->data->data(), static_cast<uint32_t>(j->data->size()), digest);
                    if (Hex(digest) != *j->expected) InterlockedIncrement(&mismatches);
                }
                return 0;
            },
            &job, 0, nullptr));
    }
    WaitForMultipleObjects(static_cast<DWORD>(threads.size()), threads.data(), TRUE, INFINITE);
    for (HANDLE h : threads) CloseHandle(h);
    EXPECT_EQ(mismatches, 0);
}

}  // namespace
