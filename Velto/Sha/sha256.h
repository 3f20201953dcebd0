// SHA-256 (FIPS 180) and HMAC-SHA256 (RFC 2104, 64-byte block).
//
// Bytes go in through the Print interface; result() pads, turns the state into
// the 32-byte big-endian digest in place and returns a pointer to it inside the
// object (valid until the next init()). The bit length is counted in 32 bits of
// bytes, so messages stop being hashed correctly past 512 MiB. One object hashes
// one message at a time; build a local one per computation.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Velto/Sha/sha_common.h"

constexpr size_t SHA256_HASH_LENGTH = 32;
constexpr size_t SHA256_BLOCK_LENGTH = 64;

// init, write, result, initHmac and resultHmac come from ShaHasher.
class Sha256Class : public ShaHasher<SHA256_HASH_LENGTH, SHA256_BLOCK_LENGTH> {
public:
    Sha256Class() = default;
    virtual ~Sha256Class() = default;
};

// Process-wide instance; the signature code never uses it (it builds local hashers).
extern Sha256Class Sha256;
