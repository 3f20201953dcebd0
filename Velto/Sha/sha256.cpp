// SHA-256 compression, portable and with the processor's SHA instructions;
// buffering, padding and HMAC come from ShaHasher.
#include "Velto/Sha/sha256.h"

#include "Velto/Sha/sha_common_impl.h"

using sha_detail::loadBE32;

template <>
const uint32_t ShaHasher<SHA256_HASH_LENGTH, SHA256_BLOCK_LENGTH>::INITIAL_STATE[8] = {
    0x6a09e667u, 0xbb67ae85u, 0x3c6ef372u, 0xa54ff53au, 0x510e527fu, 0x9b05688cu, 0x1f83d9abu, 0x5be0cd19u};

namespace {

const uint32_t SHA256_K[64] = {
    0x428a2f98u, 0x71374491u, 0xb5c0fbcfu, 0xe9b5dba5u, 0x3956c25bu, 0x59f111f1u, 0x923f82a4u, 0xab1c5ed5u,
    0xd807aa98u, 0x12835b01u, 0x243185beu, 0x550c7dc3u, 0x72be5d74u, 0x80deb1feu, 0x9bdc06a7u, 0xc19bf174u,
    0xe49b69c1u, 0xefbe4786u, 0x0fc19dc6u, 0x240ca1ccu, 0x2de92c6fu, 0x4a7484aau, 0x5cb0a9dcu, 0x76f988dau,
    0x983e5152u, 0xa831c66du, 0xb00327c8u, 0xbf597fc7u, 0xc6e00bf3u, 0xd5a79147u, 0x06ca6351u, 0x14292967u,
    0x27b70a85u, 0x2e1b2138u, 0x4d2c6dfcu, 0x53380d13u, 0x650a7354u, 0x766a0abbu, 0x81c2c92eu, 0x92722c85u,
    0xa2bfe8a1u, 0xa81a664bu, 0xc24b8b70u, 0xc76c51a3u, 0xd192e819u, 0xd6990624u, 0xf40e3585u, 0x106aa070u,
    0x19a4c116u, 0x1e376c08u, 0x2748774cu, 0x34b0bcb5u, 0x391c0cb3u, 0x4ed8aa4au, 0x5b9cca4fu, 0x682e6ff3u,
    0x748f82eeu, 0x78a5636fu, 0x84c87814u, 0x8cc70208u, 0x90befffau, 0xa4506cebu, 0xbef9a3f7u, 0xc67178f2u};

inline uint32_t ror32(uint32_t x, unsigned n) { return (x >> n) | (x << (32 - n)); }

void compressBlockPortable(uint32_t state[8], const uint8_t* block) {
    uint32_t w[64];
    for (int i = 0; i < 16; ++i) w[i] = loadBE32(block + 4 * i);
    for (int i = 16; i < 64; ++i) {
        uint32_t s0 = ror32(w[i - 15], 7) ^ ror32(w[i - 15], 18) ^ (w[i - 15] >> 3);
        uint32_t s1 = ror32(w[i - 2], 17) ^ ror32(w[i - 2], 19) ^ (w[i - 2] >> 10);
        w[i] = w[i - 16] + s0 + w[i - 7] + s1;
    }
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    uint32_t e = state[4], f = state[5], g = state[6], h = state[7];
    for (int i = 0; i < 64; ++i) {
        uint32_t s1 = ror32(e, 6) ^ ror32(e, 11) ^ ror32(e, 25);
        uint32_t ch = (e & f) ^ (~e & g);
        uint32_t t1 = h + s1 + ch + SHA256_K[i] + w[i];
        uint32_t s0 = ror32(a, 2) ^ ror32(a, 13) ^ ror32(a, 22);
        uint32_t maj = (a & b) ^ (a & c) ^ (b & c);
        uint32_t t2 = s0 + maj;
        h = g;
        g = f;
        f = e;
        e = d + t1;
        d = c;
        c = b;
        b = a;
        a = t1 + t2;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
    state[5] += f;
    state[6] += g;
    state[7] += h;
}

#if VELTO_SHA_EXTENSIONS

// Loads 16 message bytes as four big-endian words, first word in the lowest lane.
__attribute__((target("sha,sse4.1"))) inline __m128i loadMessage(const uint8_t* p) {
    const __m128i swap = _mm_set_epi64x(0x0c0d0e0f08090a0bLL, 0x0405060700010203LL);
    return _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), swap);
}

__attribute__((target("sha,sse4.1"))) inline __m128i roundConstants(int group) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(SHA256_K + 4 * group));
}

// Four rounds on words m plus constants k: two rounds per instruction, the
// second pair from the upper half.
#define SHA256_ROUNDS4(m, group)                            \
    msg = _mm_add_epi32(m, roundConstants(group));          \
    cdgh = _mm_sha256rnds2_epu32(cdgh, abef, msg);          \
    msg = _mm_shuffle_epi32(msg, 0x0e);                     \
    abef = _mm_sha256rnds2_epu32(abef, cdgh, msg)

// Four rounds (group g of 16) with the schedule work that goes with them: `m`
// holds words 4g..4g+3, `prev` those of group g-1; `next` is finished for
// group g+1 and `m3` gets its first part for group g+3.
#define SHA256_GROUP(m, prev, next, m3, group)                      \
    msg = _mm_add_epi32(m, roundConstants(group));                  \
    cdgh = _mm_sha256rnds2_epu32(cdgh, abef, msg);                  \
    next = _mm_add_epi32(next, _mm_alignr_epi8(m, prev, 4));        \
    next = _mm_sha256msg2_epu32(next, m);                           \
    msg = _mm_shuffle_epi32(msg, 0x0e);                             \
    abef = _mm_sha256rnds2_epu32(abef, cdgh, msg);                  \
    m3 = _mm_sha256msg1_epu32(m3, m)

// The same compression with the processor's SHA instructions. They work on
// the state as the word pairs ABEF and CDGH.
__attribute__((target("sha,sse4.1"))) void compressShaExtensions(uint32_t state[8], const uint8_t* data,
                                                                   size_t blocks) {
    const __m128i cdab = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(state)), 0xb1);
    const __m128i efgh = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(state + 4)), 0x1b);
    __m128i abef = _mm_alignr_epi8(cdab, efgh, 8);
    __m128i cdgh = _mm_blend_epi16(efgh, cdab, 0xf0);
    for (; blocks > 0; --blocks, data += SHA256_BLOCK_LENGTH) {
        const __m128i abefSave = abef;
        const __m128i cdghSave = cdgh;
        __m128i msg;
        __m128i m0 = loadMessage(data);
        SHA256_ROUNDS4(m0, 0);
        __m128i m1 = loadMessage(data + 16);
        SHA256_ROUNDS4(m1, 1);
        m0 = _mm_sha256msg1_epu32(m0, m1);
        __m128i m2 = loadMessage(data + 32);
        SHA256_ROUNDS4(m2, 2);
        m1 = _mm_sha256msg1_epu32(m1, m2);
        __m128i m3 = loadMessage(data + 48);
        SHA256_GROUP(m3, m2, m0, m2, 3);
        SHA256_GROUP(m0, m3, m1, m3, 4);
        SHA256_GROUP(m1, m0, m2, m0, 5);
        SHA256_GROUP(m2, m1, m3, m1, 6);
        SHA256_GROUP(m3, m2, m0, m2, 7);
        SHA256_GROUP(m0, m3, m1, m3, 8);
        SHA256_GROUP(m1, m0, m2, m0, 9);
        SHA256_GROUP(m2, m1, m3, m1, 10);
        SHA256_GROUP(m3, m2, m0, m2, 11);
        SHA256_GROUP(m0, m3, m1, m3, 12);
        // Groups 13-15: the schedule runs out.
        msg = _mm_add_epi32(m1, roundConstants(13));
        cdgh = _mm_sha256rnds2_epu32(cdgh, abef, msg);
        m2 = _mm_add_epi32(m2, _mm_alignr_epi8(m1, m0, 4));
        m2 = _mm_sha256msg2_epu32(m2, m1);
        msg = _mm_shuffle_epi32(msg, 0x0e);
        abef = _mm_sha256rnds2_epu32(abef, cdgh, msg);
        msg = _mm_add_epi32(m2, roundConstants(14));
        cdgh = _mm_sha256rnds2_epu32(cdgh, abef, msg);
        m3 = _mm_add_epi32(m3, _mm_alignr_epi8(m2, m1, 4));
        m3 = _mm_sha256msg2_epu32(m3, m2);
        msg = _mm_shuffle_epi32(msg, 0x0e);
        abef = _mm_sha256rnds2_epu32(abef, cdgh, msg);
        SHA256_ROUNDS4(m3, 15);
        abef = _mm_add_epi32(abef, abefSave);
        cdgh = _mm_add_epi32(cdgh, cdghSave);
    }
    const __m128i feba = _mm_shuffle_epi32(abef, 0x1b);
    const __m128i dchg = _mm_shuffle_epi32(cdgh, 0xb1);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(state), _mm_blend_epi16(feba, dchg, 0xf0));  // DCBA
    _mm_storeu_si128(reinterpret_cast<__m128i*>(state + 4), _mm_alignr_epi8(dchg, feba, 8));  // HGFE
}

#undef SHA256_GROUP
#undef SHA256_ROUNDS4

#endif  // VELTO_SHA_EXTENSIONS

#if !VELTO_SHA_EXTENSIONS
constexpr sha_detail::BlocksCompressor compressShaExtensions = nullptr;
#endif

}  // namespace

template <>
void ShaHasher<SHA256_HASH_LENGTH, SHA256_BLOCK_LENGTH>::compress(uint32_t* state, const uint8_t* data,
                                                                 size_t blocks) {
    sha_detail::compressWithActiveEngine<SHA256_BLOCK_LENGTH>(state, data, blocks, compressBlockPortable,
                                                              compressShaExtensions);
}

template class ShaHasher<SHA256_HASH_LENGTH, SHA256_BLOCK_LENGTH>;

Sha256Class Sha256;
