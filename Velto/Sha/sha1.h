// SHA-1 (FIPS 180) and HMAC-SHA1 (RFC 2104, 64-byte block).
//
// Bytes go in through the Print interface; result() pads, turns the state into
// the 20-byte big-endian digest in place and returns a pointer to it inside the
// object (valid until the next init()). The bit length is counted in 32 bits of
// bytes, so messages stop being hashed correctly past 512 MiB. One object hashes
// one message at a time; build a local one per computation.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Velto/Sha/sha_common.h"

constexpr size_t SHA1_HASH_LENGTH = 20;
constexpr size_t SHA1_BLOCK_LENGTH = 64;

// init, write, result, initHmac and resultHmac come from ShaHasher.
class Sha1Class : public ShaHasher<SHA1_HASH_LENGTH, SHA1_BLOCK_LENGTH> {
public:
    Sha1Class() = default;
    virtual ~Sha1Class() = default;

    // Copies 32 bytes to out: the 20 digest bytes left by result(), followed by
    // the 12 bytes of hasher state laid out after them (the byte counter, then
    // the first 8 bytes of the key block).
    void copyResultArea(uint8_t out[32]) const;
};

// Process-wide instance; the signature code never uses it (it builds local hashers).
extern Sha1Class Sha1;
