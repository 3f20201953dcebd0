// SHA-1 compression, padding and HMAC.
#include "Velto/Sha/sha1.h"

#include <cstring>

Sha1Class Sha1;

namespace {

const uint32_t SHA1_INIT[5] = {0x67452301u, 0xefcdab89u, 0x98badcfeu, 0x10325476u, 0xc3d2e1f0u};

inline uint32_t rol32(uint32_t x, unsigned n) { return (x << n) | (x >> (32 - n)); }

inline uint32_t loadBE32(const uint8_t* p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

}  // namespace

Sha1Class::Sha1Class() {
    memset(keyBuffer, 0, sizeof(keyBuffer));
    memset(innerHash, 0, sizeof(innerHash));
    init();
}

void Sha1Class::init() {
    memcpy(state, SHA1_INIT, sizeof(state));
    memset(buffer, 0, sizeof(buffer));
    bufferOffset = 0;
    byteCount = 0;
}

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

void Sha1Class::hashBlock(const uint8_t* block) {
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

void Sha1Class::addUncounted(uint8_t b) {
    buffer[bufferOffset++] = b;
    if (bufferOffset == SHA1_BLOCK_LENGTH) {
        hashBlock(buffer);
        bufferOffset = 0;
    }
}

size_t Sha1Class::write(uint8_t b) {
    ++byteCount;
    addUncounted(b);
    return 1;
}

size_t Sha1Class::write(const uint8_t* data, size_t n) {
    if (data == nullptr || n == 0) return 0;
    byteCount += static_cast<uint32_t>(n);
    size_t rest = n;
    if (bufferOffset != 0) {
        size_t take = SHA1_BLOCK_LENGTH - bufferOffset;
        if (take > rest) take = rest;
        memcpy(buffer + bufferOffset, data, take);
        bufferOffset = static_cast<uint8_t>(bufferOffset + take);
        data += take;
        rest -= take;
        if (bufferOffset < SHA1_BLOCK_LENGTH) return n;
        hashBlock(buffer);
        bufferOffset = 0;
    }
    while (rest >= SHA1_BLOCK_LENGTH) {
        hashBlock(data);
        data += SHA1_BLOCK_LENGTH;
        rest -= SHA1_BLOCK_LENGTH;
    }
    memcpy(buffer, data, rest);
    bufferOffset = static_cast<uint8_t>(rest);
    return n;
}

void Sha1Class::pad() {
    uint64_t bits = static_cast<uint64_t>(byteCount) * 8u;
    addUncounted(0x80);
    while (bufferOffset != SHA1_BLOCK_LENGTH - 8) addUncounted(0x00);
    for (int i = 7; i >= 0; --i) addUncounted(static_cast<uint8_t>(bits >> (8 * i)));
}

uint8_t* Sha1Class::result() {
    pad();
    // The digest replaces the state words in place, as big-endian bytes.
    uint32_t words[5];
    memcpy(words, state, sizeof(words));
    uint8_t* out = reinterpret_cast<uint8_t*>(state);
    for (int i = 0; i < 5; ++i) {
        out[4 * i] = static_cast<uint8_t>(words[i] >> 24);
        out[4 * i + 1] = static_cast<uint8_t>(words[i] >> 16);
        out[4 * i + 2] = static_cast<uint8_t>(words[i] >> 8);
        out[4 * i + 3] = static_cast<uint8_t>(words[i]);
    }
    return out;
}

void Sha1Class::initHmac(const uint8_t* key, int keyLen) {
    memset(keyBuffer, 0, sizeof(keyBuffer));
    size_t len = (key != nullptr && keyLen > 0) ? static_cast<size_t>(keyLen) : 0;
    if (len > SHA1_BLOCK_LENGTH) {
        init();
        write(key, len);
        memcpy(keyBuffer, result(), SHA1_HASH_LENGTH);
    } else if (len > 0) {
        memcpy(keyBuffer, key, len);
    }
    init();
    uint8_t block[SHA1_BLOCK_LENGTH];
    for (size_t i = 0; i < SHA1_BLOCK_LENGTH; ++i) block[i] = keyBuffer[i] ^ 0x36;
    write(block, SHA1_BLOCK_LENGTH);
}

uint8_t* Sha1Class::resultHmac() {
    memcpy(innerHash, result(), SHA1_HASH_LENGTH);
    init();
    uint8_t block[SHA1_BLOCK_LENGTH];
    for (size_t i = 0; i < SHA1_BLOCK_LENGTH; ++i) block[i] = keyBuffer[i] ^ 0x5c;
    write(block, SHA1_BLOCK_LENGTH);
    write(innerHash, SHA1_HASH_LENGTH);
    return result();
}

void Sha1Class::copyResultArea(uint8_t out[32]) const {
    memcpy(out, state, SHA1_HASH_LENGTH);
    memcpy(out + SHA1_HASH_LENGTH, &byteCount, sizeof(byteCount));
    memcpy(out + SHA1_HASH_LENGTH + sizeof(byteCount), keyBuffer, 32 - SHA1_HASH_LENGTH - sizeof(byteCount));
}
