// SHA-1 compression, portable and with the processor's SHA instructions;
// buffering, padding and HMAC come from ShaHasher.
#include "Velto/Sha/sha1.h"

#include "Velto/Sha/sha_common_impl.h"

using sha_detail::loadBE32;

template <>
const uint32_t ShaHasher<SHA1_HASH_LENGTH, SHA1_BLOCK_LENGTH>::INITIAL_STATE[5] = {
    0x67452301u, 0xefcdab89u, 0x98badcfeu, 0x10325476u, 0xc3d2e1f0u};

namespace {

inline uint32_t rol32(uint32_t x, unsigned n) { return (x << n) | (x >> (32 - n)); }

// One round: t = rol(a, 5) + f + e + k + w; then the registers shift down.
#define SHA1_ROUND(f, k, w)                                  \
    do {                                                     \
        uint32_t t = rol32(a, 5) + (f) + e + (k) + (w);      \
        e = d;                                               \
        d = c;                                               \
        c = rol32(b, 30);                                    \
        b = a;                                               \
        a = t;                                               \
    } while (0)

void compressBlockPortable(uint32_t state[5], const uint8_t* block) {
    // The message schedule is kept as a rolling window of 16 words.
    uint32_t w[16];
    for (int i = 0; i < 16; ++i) w[i] = loadBE32(block + 4 * i);
    auto next = [&w](int i) {
        uint32_t v = rol32(w[(i + 13) & 15] ^ w[(i + 8) & 15] ^ w[(i + 2) & 15] ^ w[i & 15], 1);
        w[i & 15] = v;
        return v;
    };
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
    for (int i = 0; i < 16; ++i) SHA1_ROUND(d ^ (b & (c ^ d)), 0x5a827999u, w[i]);
    for (int i = 16; i < 20; ++i) SHA1_ROUND(d ^ (b & (c ^ d)), 0x5a827999u, next(i));
    for (int i = 20; i < 40; ++i) SHA1_ROUND(b ^ c ^ d, 0x6ed9eba1u, next(i));
    for (int i = 40; i < 60; ++i) SHA1_ROUND((b & c) | (d & (b | c)), 0x8f1bbcdcu, next(i));
    for (int i = 60; i < 80; ++i) SHA1_ROUND(b ^ c ^ d, 0xca62c1d6u, next(i));
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
}

#undef SHA1_ROUND

#if VELTO_SHA_EXTENSIONS

// Loads 16 message bytes as four big-endian words, first word in the top lane.
__attribute__((target("sha,sse4.1"))) inline __m128i loadMessage(const uint8_t* p) {
    const __m128i reverse = _mm_set_epi64x(0x0001020304050607LL, 0x08090a0b0c0d0e0fLL);
    return _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), reverse);
}

// Four rounds (group g of 20) with the schedule work that goes with them:
// `m` holds words 4g..4g+3; `next` is finished for group g+1, `x` and
// `later` take their parts of groups g+2 and g+3.
#define SHA1_GROUP(ecur, eoth, m, next, x, later, f) \
    ecur = _mm_sha1nexte_epu32(ecur, m);             \
    eoth = abcd;                                     \
    next = _mm_sha1msg2_epu32(next, m);              \
    abcd = _mm_sha1rnds4_epu32(abcd, ecur, f);       \
    later = _mm_sha1msg1_epu32(later, m);            \
    x = _mm_xor_si128(x, m)

// The same compression with the processor's SHA instructions.
__attribute__((target("sha,sse4.1"))) void compressShaExtensions(uint32_t state[5], const uint8_t* data,
                                                                   size_t blocks) {
    __m128i abcd = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(state)), 0x1b);
    __m128i e0 = _mm_set_epi32(static_cast<int>(state[4]), 0, 0, 0);
    for (; blocks > 0; --blocks, data += SHA1_BLOCK_LENGTH) {
        const __m128i abcdSave = abcd;
        const __m128i eSave = e0;
        __m128i e1;
        // Rounds 0-15: the message words come straight from the block.
        __m128i m0 = loadMessage(data);
        e0 = _mm_add_epi32(e0, m0);
        e1 = abcd;
        abcd = _mm_sha1rnds4_epu32(abcd, e0, 0);
        __m128i m1 = loadMessage(data + 16);
        e1 = _mm_sha1nexte_epu32(e1, m1);
        e0 = abcd;
        abcd = _mm_sha1rnds4_epu32(abcd, e1, 0);
        m0 = _mm_sha1msg1_epu32(m0, m1);
        __m128i m2 = loadMessage(data + 32);
        e0 = _mm_sha1nexte_epu32(e0, m2);
        e1 = abcd;
        abcd = _mm_sha1rnds4_epu32(abcd, e0, 0);
        m1 = _mm_sha1msg1_epu32(m1, m2);
        m0 = _mm_xor_si128(m0, m2);
        __m128i m3 = loadMessage(data + 48);
        SHA1_GROUP(e1, e0, m3, m0, m1, m2, 0);
        // Rounds 16-67.
        SHA1_GROUP(e0, e1, m0, m1, m2, m3, 0);
        SHA1_GROUP(e1, e0, m1, m2, m3, m0, 1);
        SHA1_GROUP(e0, e1, m2, m3, m0, m1, 1);
        SHA1_GROUP(e1, e0, m3, m0, m1, m2, 1);
        SHA1_GROUP(e0, e1, m0, m1, m2, m3, 1);
        SHA1_GROUP(e1, e0, m1, m2, m3, m0, 1);
        SHA1_GROUP(e0, e1, m2, m3, m0, m1, 2);
        SHA1_GROUP(e1, e0, m3, m0, m1, m2, 2);
        SHA1_GROUP(e0, e1, m0, m1, m2, m3, 2);
        SHA1_GROUP(e1, e0, m1, m2, m3, m0, 2);
        SHA1_GROUP(e0, e1, m2, m3, m0, m1, 2);
        SHA1_GROUP(e1, e0, m3, m0, m1, m2, 3);
        SHA1_GROUP(e0, e1, m0, m1, m2, m3, 3);
        // Rounds 68-79: the schedule runs out.
        e1 = _mm_sha1nexte_epu32(e1, m1);
        e0 = abcd;
        m2 = _mm_sha1msg2_epu32(m2, m1);
        abcd = _mm_sha1rnds4_epu32(abcd, e1, 3);
        m3 = _mm_xor_si128(m3, m1);
        e0 = _mm_sha1nexte_epu32(e0, m2);
        e1 = abcd;
        m3 = _mm_sha1msg2_epu32(m3, m2);
        abcd = _mm_sha1rnds4_epu32(abcd, e0, 3);
        e1 = _mm_sha1nexte_epu32(e1, m3);
        e0 = abcd;
        abcd = _mm_sha1rnds4_epu32(abcd, e1, 3);
        e0 = _mm_sha1nexte_epu32(e0, eSave);
        abcd = _mm_add_epi32(abcd, abcdSave);
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(state), _mm_shuffle_epi32(abcd, 0x1b));
    state[4] = static_cast<uint32_t>(_mm_extract_epi32(e0, 3));
}

#undef SHA1_GROUP

#endif  // VELTO_SHA_EXTENSIONS

#if !VELTO_SHA_EXTENSIONS
constexpr sha_detail::BlocksCompressor compressShaExtensions = nullptr;
#endif

}  // namespace

template <>
void ShaHasher<SHA1_HASH_LENGTH, SHA1_BLOCK_LENGTH>::compress(uint32_t* state, const uint8_t* data,
                                                             size_t blocks) {
    sha_detail::compressWithActiveEngine<SHA1_BLOCK_LENGTH>(state, data, blocks, compressBlockPortable,
                                                            compressShaExtensions);
}

template class ShaHasher<SHA1_HASH_LENGTH, SHA1_BLOCK_LENGTH>;

Sha1Class Sha1;

void Sha1Class::copyResultArea(uint8_t out[32]) const {
    memcpy(out, state, SHA1_HASH_LENGTH);
    memcpy(out + SHA1_HASH_LENGTH, &byteCount, sizeof(byteCount));
    memcpy(out + SHA1_HASH_LENGTH + sizeof(byteCount), keyBuffer, 32 - SHA1_HASH_LENGTH - sizeof(byteCount));
}
