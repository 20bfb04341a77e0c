// SHA-1 (FIPS 180): the streaming state behind ShaGetHash and its two block
// functions, chosen once per process.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace zendra {

// Compresses `blocks` 64-byte blocks into the five chaining words.
using Sha1Blocks = void (*)(uint32_t state[5], const uint8_t* data, size_t blocks);

void Sha1BlocksPortable(uint32_t state[5], const uint8_t* data, size_t blocks);
// Needs the SHA extensions, SSSE3 and SSE4.1.
void Sha1BlocksShaNi(uint32_t state[5], const uint8_t* data, size_t blocks);

struct Sha1Context {
    uint32_t state[5];
    uint32_t lengthLow;   // message length in bits, low half
    uint32_t lengthHigh;  // and high half
    uint8_t block[64];    // a partial block waiting for more bytes
    Sha1Blocks compress;
};

void Sha1Init(Sha1Context* context);
void Sha1Update(Sha1Context* context, const uint8_t* data, size_t length);
// Pads, writes the digest and wipes the context.
void Sha1Final(Sha1Context* context, uint8_t digest[20]);

}  // namespace zendra
