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

#include "Velto/Sha/os_adaptor.h"

constexpr size_t SHA256_HASH_LENGTH = 32;
constexpr size_t SHA256_BLOCK_LENGTH = 64;

class Sha256Class : public Print {
public:
    Sha256Class();
    virtual ~Sha256Class() = default;

    // Standard initial state, counters 0.
    void init();
    // Adds one byte; returns 1.
    size_t write(uint8_t b) override;
    // Adds n bytes (whole blocks compressed straight from data); returns n, or 0
    // for null data or n = 0.
    size_t write(const uint8_t* data, size_t n) override;
    using Print::write;

    // Pads and returns the 32-byte digest held inside the object.
    uint8_t* result();

    // Starts an HMAC: a key of 65 bytes or more is replaced by its digest, a
    // shorter one is copied (zero-filled to 64); then hashes the key block XOR 0x36.
    // A null key or keyLen <= 0 counts as an empty key.
    void initHmac(const uint8_t* key, int keyLen);
    // Finishes the HMAC and returns the 32-byte result held inside the object.
    uint8_t* resultHmac();

private:
    uint8_t buffer[SHA256_BLOCK_LENGTH];
    uint8_t bufferOffset;
    uint32_t state[SHA256_HASH_LENGTH / 4];
    uint32_t byteCount;
    uint8_t keyBuffer[SHA256_BLOCK_LENGTH];
    uint8_t innerHash[SHA256_HASH_LENGTH];

    // Adds one byte without counting it (padding); compresses a full block.
    void addUncounted(uint8_t b);
    void hashBlock(const uint8_t* block);
    void pad();
};

// Process-wide instance; the signature code never uses it (it builds local hashers).
extern Sha256Class Sha256;
