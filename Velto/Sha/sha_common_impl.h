// Member definitions of ShaHasher and helpers for the compression code; included
// only by sha1.cpp and sha256.cpp, each of which instantiates ShaHasher once for
// its algorithm (so the compression is inlined where blocks are hashed). The
// HMAC steps call the bulk write directly, not through the virtual table.
//
// VELTO_SHA_EXTENSIONS is 1 where the build can use the processor's SHA
// instructions (x86 with GCC or clang; <immintrin.h> is then included), else 0.
#pragma once

#include <cstring>

#include "Velto/Sha/sha_common.h"
#include "Velto/Sha/sha_engine.h"

#if (defined(__x86_64__) || defined(__i386__)) && defined(__GNUC__)
#define VELTO_SHA_EXTENSIONS 1
#include <immintrin.h>
#else
#define VELTO_SHA_EXTENSIONS 0
#endif

namespace sha_detail {

// The big-endian 32-bit word at p (4 bytes read).
inline uint32_t loadBE32(const uint8_t* p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

using BlockCompressor = void (*)(uint32_t* state, const uint8_t* block);
using BlocksCompressor = void (*)(uint32_t* state, const uint8_t* data, size_t blocks);

// Compresses `blocks` consecutive BlockLength-byte blocks into state: all of them
// with `extensions` while the processor's SHA instructions are the active engine
// (pass null where this build has none), else one by one with `portable`.
template <size_t BlockLength>
inline void compressWithActiveEngine(uint32_t* state, const uint8_t* data, size_t blocks, BlockCompressor portable,
                                     BlocksCompressor extensions) {
    if (extensions != nullptr && activeShaEngine() == ShaEngine::SHA_EXTENSIONS) {
        extensions(state, data, blocks);
        return;
    }
    for (; blocks > 0; --blocks, data += BlockLength) portable(state, data);
}

}  // namespace sha_detail

template <size_t HashLength, size_t BlockLength>
ShaHasher<HashLength, BlockLength>::ShaHasher() {
    memset(keyBuffer, 0, sizeof(keyBuffer));
    memset(innerHash, 0, sizeof(innerHash));
    init();
}

template <size_t HashLength, size_t BlockLength>
void ShaHasher<HashLength, BlockLength>::init() {
    memcpy(state, INITIAL_STATE, sizeof(state));
    memset(buffer, 0, sizeof(buffer));
    bufferOffset = 0;
    byteCount = 0;
}

template <size_t HashLength, size_t BlockLength>
void ShaHasher<HashLength, BlockLength>::hashBlock(const uint8_t* block) {
    compress(state, block, 1);
}

template <size_t HashLength, size_t BlockLength>
void ShaHasher<HashLength, BlockLength>::addUncounted(uint8_t b) {
    buffer[bufferOffset++] = b;
    if (bufferOffset == BlockLength) {
        hashBlock(buffer);
        bufferOffset = 0;
    }
}

template <size_t HashLength, size_t BlockLength>
size_t ShaHasher<HashLength, BlockLength>::write(uint8_t b) {
    ++byteCount;
    addUncounted(b);
    return 1;
}

template <size_t HashLength, size_t BlockLength>
size_t ShaHasher<HashLength, BlockLength>::write(const uint8_t* data, size_t n) {
    if (data == nullptr || n == 0) return 0;
    byteCount += static_cast<uint32_t>(n);
    size_t rest = n;
    if (bufferOffset != 0) {
        size_t take = BlockLength - bufferOffset;
        if (take > rest) take = rest;
        memcpy(buffer + bufferOffset, data, take);
        bufferOffset = static_cast<uint8_t>(bufferOffset + take);
        data += take;
        rest -= take;
        if (bufferOffset < BlockLength) return n;
        hashBlock(buffer);
        bufferOffset = 0;
    }
    const size_t blocks = rest / BlockLength;
    if (blocks > 0) {
        compress(state, data, blocks);
        data += blocks * BlockLength;
        rest -= blocks * BlockLength;
    }
    memcpy(buffer, data, rest);
    bufferOffset = static_cast<uint8_t>(rest);
    return n;
}

template <size_t HashLength, size_t BlockLength>
void ShaHasher<HashLength, BlockLength>::pad() {
    const uint64_t bits = static_cast<uint64_t>(byteCount) * 8u;
    const size_t lengthAt = BlockLength - 8;
    buffer[bufferOffset++] = 0x80;
    if (bufferOffset > lengthAt) {  // no room for the length: it goes in a block of its own
        memset(buffer + bufferOffset, 0, BlockLength - bufferOffset);
        hashBlock(buffer);
        bufferOffset = 0;
    }
    memset(buffer + bufferOffset, 0, lengthAt - bufferOffset);
    for (size_t i = 0; i < 8; ++i) buffer[lengthAt + i] = static_cast<uint8_t>(bits >> (8 * (7 - i)));
    hashBlock(buffer);
    bufferOffset = 0;
}

template <size_t HashLength, size_t BlockLength>
uint8_t* ShaHasher<HashLength, BlockLength>::result() {
    pad();
    // The digest replaces the state words in place, as big-endian bytes.
    uint32_t words[HashLength / 4];
    memcpy(words, state, sizeof(words));
    uint8_t* out = reinterpret_cast<uint8_t*>(state);
    for (size_t i = 0; i < HashLength / 4; ++i) {
        out[4 * i] = static_cast<uint8_t>(words[i] >> 24);
        out[4 * i + 1] = static_cast<uint8_t>(words[i] >> 16);
        out[4 * i + 2] = static_cast<uint8_t>(words[i] >> 8);
        out[4 * i + 3] = static_cast<uint8_t>(words[i]);
    }
    return out;
}

template <size_t HashLength, size_t BlockLength>
void ShaHasher<HashLength, BlockLength>::startKeyedBlock(uint8_t mask) {
    init();
    uint8_t block[BlockLength];
    for (size_t i = 0; i < BlockLength; ++i) block[i] = keyBuffer[i] ^ mask;
    ShaHasher::write(block, BlockLength);
}

template <size_t HashLength, size_t BlockLength>
void ShaHasher<HashLength, BlockLength>::initHmac(const uint8_t* key, int keyLen) {
    memset(keyBuffer, 0, sizeof(keyBuffer));
    size_t len = (key != nullptr && keyLen > 0) ? static_cast<size_t>(keyLen) : 0;
    if (len > BlockLength) {
        init();
        ShaHasher::write(key, len);
        memcpy(keyBuffer, result(), HashLength);
    } else if (len > 0) {
        memcpy(keyBuffer, key, len);
    }
    startKeyedBlock(0x36);
}

template <size_t HashLength, size_t BlockLength>
uint8_t* ShaHasher<HashLength, BlockLength>::resultHmac() {
    memcpy(innerHash, result(), HashLength);
    startKeyedBlock(0x5c);
    ShaHasher::write(innerHash, HashLength);
    return result();
}
