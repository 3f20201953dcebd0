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

#include "Velto/Sha/os_adaptor.h"

constexpr size_t SHA1_HASH_LENGTH = 20;
constexpr size_t SHA1_BLOCK_LENGTH = 64;

class Sha1Class : public Print {
public:
    Sha1Class();
    virtual ~Sha1Class() = default;

    // Standard initial state, counters 0.
    void init();
    // Adds one byte; returns 1.
    size_t write(uint8_t b) override;
    // Adds n bytes (whole blocks compressed straight from data); returns n, or 0
    // for null data or n = 0.
    size_t write(const uint8_t* data, size_t n) override;
    using Print::write;

    // Pads and returns the 20-byte digest held inside the object.
    uint8_t* result();

    // Starts an HMAC: a key of 65 bytes or more is replaced by its digest, a
    // shorter one is copied (zero-filled to 64); then hashes the key block XOR 0x36.
    // A null key or keyLen <= 0 counts as an empty key.
    void initHmac(const uint8_t* key, int keyLen);
    // Finishes the HMAC and returns the 20-byte result held inside the object.
    uint8_t* resultHmac();

    // Copies 32 bytes to out: the 20 digest bytes left by result(), followed by
    // the 12 bytes of hasher state laid out after them (the byte counter, then
    // the first 8 bytes of the key block).
    void copyResultArea(uint8_t out[32]) const;

private:
    uint8_t buffer[SHA1_BLOCK_LENGTH];
    uint8_t bufferOffset;
    uint32_t state[SHA1_HASH_LENGTH / 4];
    uint32_t byteCount;
    uint8_t keyBuffer[SHA1_BLOCK_LENGTH];
    uint8_t innerHash[SHA1_HASH_LENGTH];

    // Adds one byte without counting it (padding); compresses a full block.
    void addUncounted(uint8_t b);
    void hashBlock(const uint8_t* block);
    void pad();
};

// Process-wide instance; the signature code never uses it (it builds local hashers).
extern Sha1Class Sha1;
