// ShaGetHash: one-shot SHA-1 over the streaming state, with the block
// function picked once from CPUID (and ZENDRA_SHA1_IMPL=portable).
#include "text/sha1.h"

#include <cpuid.h>
#include <string.h>
#include <windows.h>

#include <zendra/text.h>

#include "platform/status.h"

namespace zendra {

namespace {

bool CpuHasShaExtensions() {
    unsigned eax, ebx, ecx, edx;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx)) return false;
    const bool ssse3 = ecx & bit_SSSE3, sse41 = ecx & bit_SSE4_1;
    if (!__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx)) return false;
    return ssse3 && sse41 && (ebx & bit_SHA);
}

bool PortableRequested() {
    wchar_t value[16];
    DWORD n = GetEnvironmentVariableW(L"ZENDRA_SHA1_IMPL", value, 16);
    return n > 0 && n < 16 && lstrcmpiW(value, L"portable") == 0;
}

Sha1Blocks ChooseBlocks() {
    if (!PortableRequested() && CpuHasShaExtensions()) return Sha1BlocksShaNi;
    return Sha1BlocksPortable;
}

// Two first callers may both choose; they choose the same.
Sha1Blocks g_blocks;

Sha1Blocks Blocks() {
    Sha1Blocks blocks = __atomic_load_n(&g_blocks, __ATOMIC_ACQUIRE);
    if (blocks == nullptr) {
        blocks = ChooseBlocks();
        __atomic_store_n(&g_blocks, blocks, __ATOMIC_RELEASE);
    }
    return blocks;
}

void StoreBigEndian(uint8_t* to, uint32_t value) {
    to[0] = static_cast<uint8_t>(value >> 24);
    to[1] = static_cast<uint8_t>(value >> 16);
    to[2] = static_cast<uint8_t>(value >> 8);
    to[3] = static_cast<uint8_t>(value);
}

}  // namespace

void Sha1Init(Sha1Context* c) {
    c->state[0] = 0x67452301;
    c->state[1] = 0xEFCDAB89;
    c->state[2] = 0x98BADCFE;
    c->state[3] = 0x10325476;
    c->state[4] = 0xC3D2E1F0;
    c->lengthLow = 0;
    c->lengthHigh = 0;
    c->compress = Blocks();
}

void Sha1Update(Sha1Context* c, const uint8_t* data, size_t length) {
    if (length == 0) return;
    size_t used = (c->lengthLow >> 3) & 63;
    uint64_t bits = (uint64_t{c->lengthHigh} << 32 | c->lengthLow) + uint64_t{length} * 8;
    c->lengthLow = static_cast<uint32_t>(bits);
    c->lengthHigh = static_cast<uint32_t>(bits >> 32);

    if (used != 0) {
        size_t take = 64 - used < length ? 64 - used : length;
        memcpy(c->block + used, data, take);
        data += take;
        length -= take;
        if (used + take < 64) return;
        c->compress(c->state, c->block, 1);
    }
    // Whole blocks straight from the caller's buffer.
    if (length >= 64) {
        c->compress(c->state, data, length / 64);
        data += length & ~size_t{63};
        length &= 63;
    }
    memcpy(c->block, data, length);
}

void Sha1Final(Sha1Context* c, uint8_t digest[20]) {
    size_t used = (c->lengthLow >> 3) & 63;
    c->block[used++] = 0x80;
    // The bit length needs the last 8 bytes of a block.
    if (used > 56) {
        memset(c->block + used, 0, 64 - used);
        c->compress(c->state, c->block, 1);
        used = 0;
    }
    memset(c->block + used, 0, 56 - used);
    StoreBigEndian(c->block + 56, c->lengthHigh);
    StoreBigEndian(c->block + 60, c->lengthLow);
    c->compress(c->state, c->block, 1);
    for (int i = 0; i < 5; ++i) StoreBigEndian(digest + 4 * i, c->state[i]);
    // The state must not outlive the call; a plain memset could be dropped.
    SecureZeroMemory(c, sizeof *c);
}

}  // namespace zendra

using namespace zendra;

extern "C" PLT_STATUS ShaGetHash(const void* input, uint32_t length, uint8_t* digest) {
    Sha1Context context;
    Sha1Init(&context);
    Sha1Update(&context, static_cast<const uint8_t*>(input), length);
    Sha1Final(&context, digest);
    return kOk;
}
