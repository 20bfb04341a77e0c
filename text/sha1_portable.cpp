// SHA-1 block function in plain C++, for CPUs without the SHA extensions.
// Fully unrolled: the five working variables rotate through the round macro
// instead of being moved, and the message schedule is a 16-word ring.
#include "text/sha1.h"

namespace zendra {

namespace {

inline uint32_t Rol(uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

inline uint32_t LoadBigEndian(const uint8_t* p) {
    uint32_t v;
    __builtin_memcpy(&v, p, 4);
    return __builtin_bswap32(v);
}

// The four round functions; Maj is written with an add-friendly form.
inline uint32_t Ch(uint32_t b, uint32_t c, uint32_t d) { return d ^ (b & (c ^ d)); }
inline uint32_t Parity(uint32_t b, uint32_t c, uint32_t d) { return b ^ c ^ d; }
inline uint32_t Maj(uint32_t b, uint32_t c, uint32_t d) { return (b & c) + (d & (b ^ c)); }

}  // namespace

// Rounds 0-15 take the block's words; later rounds extend the ring in place.
#define SHA1_W(i) \
    (w[(i)&15] = Rol(w[((i) + 13) & 15] ^ w[((i) + 8) & 15] ^ w[((i) + 2) & 15] ^ w[(i)&15], 1))
#define SHA1_ROUND(a, b, c, d, e, f, k, wi)       \
    do {                                          \
        e += Rol(a, 5) + f(b, c, d) + (k) + (wi); \
        b = Rol(b, 30);                           \
    } while (0)
#define SHA1_FIVE(i, f, k, W)                    \
    SHA1_ROUND(a, b, c, d, e, f, k, W(i));       \
    SHA1_ROUND(e, a, b, c, d, f, k, W((i) + 1)); \
    SHA1_ROUND(d, e, a, b, c, f, k, W((i) + 2)); \
    SHA1_ROUND(c, d, e, a, b, f, k, W((i) + 3)); \
    SHA1_ROUND(b, c, d, e, a, f, k, W((i) + 4))
#define SHA1_LOAD(i) (w[i] = LoadBigEndian(data + 4 * (i)))

void Sha1BlocksPortable(uint32_t state[5], const uint8_t* data, size_t blocks) {
    uint32_t w[16];
    for (; blocks != 0; --blocks, data += 64) {
        uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];

        SHA1_FIVE(0, Ch, 0x5A827999, SHA1_LOAD);
        SHA1_FIVE(5, Ch, 0x5A827999, SHA1_LOAD);
        SHA1_FIVE(10, Ch, 0x5A827999, SHA1_LOAD);
        SHA1_ROUND(a, b, c, d, e, Ch, 0x5A827999, SHA1_LOAD(15));
        SHA1_ROUND(e, a, b, c, d, Ch, 0x5A827999, SHA1_W(16));
        SHA1_ROUND(d, e, a, b, c, Ch, 0x5A827999, SHA1_W(17));
        SHA1_ROUND(c, d, e, a, b, Ch, 0x5A827999, SHA1_W(18));
        SHA1_ROUND(b, c, d, e, a, Ch, 0x5A827999, SHA1_W(19));

        SHA1_FIVE(20, Parity, 0x6ED9EBA1, SHA1_W);
        SHA1_FIVE(25, Parity, 0x6ED9EBA1, SHA1_W);
        SHA1_FIVE(30, Parity, 0x6ED9EBA1, SHA1_W);
        SHA1_FIVE(35, Parity, 0x6ED9EBA1, SHA1_W);

        SHA1_FIVE(40, Maj, 0x8F1BBCDC, SHA1_W);
        SHA1_FIVE(45, Maj, 0x8F1BBCDC, SHA1_W);
        SHA1_FIVE(50, Maj, 0x8F1BBCDC, SHA1_W);
        SHA1_FIVE(55, Maj, 0x8F1BBCDC, SHA1_W);

        SHA1_FIVE(60, Parity, 0xCA62C1D6, SHA1_W);
        SHA1_FIVE(65, Parity, 0xCA62C1D6, SHA1_W);
        SHA1_FIVE(70, Parity, 0xCA62C1D6, SHA1_W);
        SHA1_FIVE(75, Parity, 0xCA62C1D6, SHA1_W);

        state[0] += a;
        state[1] += b;
        state[2] += c;
        state[3] += d;
        state[4] += e;
    }
}

}  // namespace zendra
