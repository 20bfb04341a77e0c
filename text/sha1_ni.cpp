// SHA-1 block function on the CPU's SHA extensions. Only this file is built
// for them; the rest of the library stays baseline x86-64, and ShaGetHash
// calls in here only after CPUID reported SHA, SSSE3 and SSE4.1.
#include <immintrin.h>

#include "text/sha1.h"

namespace zendra {

// Four rounds per group g (0 to 19); m[] is the ring of four message
// vectors. A group folds the next E into its message vector (nexte), runs
// four rounds with the function of rounds 20 x (g / 5), and advances the
// schedule: msg2 completes the vector three groups ahead of its use, msg1
// starts the one for g + 3, the XOR feeds the one for g + 2.
#define SHA1_GROUP(g, enext, eother)                                                               \
    do {                                                                                           \
        enext = _mm_sha1nexte_epu32(enext, m[(g) % 4]);                                            \
        eother = abcd;                                                                             \
        if ((g) >= 3 && (g) <= 18)                                                                 \
            m[((g) + 1) % 4] = _mm_sha1msg2_epu32(m[((g) + 1) % 4], m[(g) % 4]);                   \
        abcd = _mm_sha1rnds4_epu32(abcd, enext, (g) / 5);                                          \
        if ((g) <= 16) m[((g) + 3) % 4] = _mm_sha1msg1_epu32(m[((g) + 3) % 4], m[(g) % 4]);        \
        if ((g) >= 2 && (g) <= 17) m[((g) + 2) % 4] = _mm_xor_si128(m[((g) + 2) % 4], m[(g) % 4]); \
    } while (0)

__attribute__((target("sha,ssse3,sse4.1"))) void Sha1BlocksShaNi(uint32_t state[5],
                                                                 const uint8_t* data,
                                                                 size_t blocks) {
    // Big-endian words, and ABCD with A in the highest lane.
    const __m128i byteSwap = _mm_set_epi64x(0x0001020304050607LL, 0x08090A0B0C0D0E0FLL);
    __m128i abcd =
        _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(state)), 0x1B);
    __m128i e0 = _mm_set_epi32(static_cast<int>(state[4]), 0, 0, 0);
    __m128i e1;
    __m128i m[4];

    for (; blocks != 0; --blocks, data += 64) {
        const __m128i abcdSaved = abcd;
        const __m128i eSaved = e0;
        for (int i = 0; i < 4; ++i)
            m[i] = _mm_shuffle_epi8(
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + 16 * i)), byteSwap);

        // The first group adds E directly: there is no previous E to rotate.
        e0 = _mm_add_epi32(e0, m[0]);
        e1 = abcd;
        abcd = _mm_sha1rnds4_epu32(abcd, e0, 0);

        SHA1_GROUP(1, e1, e0);
        SHA1_GROUP(2, e0, e1);
        SHA1_GROUP(3, e1, e0);
        SHA1_GROUP(4, e0, e1);
        SHA1_GROUP(5, e1, e0);
        SHA1_GROUP(6, e0, e1);
        SHA1_GROUP(7, e1, e0);
        SHA1_GROUP(8, e0, e1);
        SHA1_GROUP(9, e1, e0);
        SHA1_GROUP(10, e0, e1);
        SHA1_GROUP(11, e1, e0);
        SHA1_GROUP(12, e0, e1);
        SHA1_GROUP(13, e1, e0);
        SHA1_GROUP(14, e0, e1);
        SHA1_GROUP(15, e1, e0);
        SHA1_GROUP(16, e0, e1);
        SHA1_GROUP(17, e1, e0);
        SHA1_GROUP(18, e0, e1);
        SHA1_GROUP(19, e1, e0);

        e0 = _mm_sha1nexte_epu32(e0, eSaved);
        abcd = _mm_add_epi32(abcd, abcdSaved);
    }

    _mm_storeu_si128(reinterpret_cast<__m128i*>(state), _mm_shuffle_epi32(abcd, 0x1B));
    state[4] = static_cast<uint32_t>(_mm_extract_epi32(e0, 3));
}

}  // namespace zendra
