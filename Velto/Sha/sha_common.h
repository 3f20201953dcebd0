// Block buffering, padding and HMAC (RFC 2104) shared by the SHA-1 and SHA-256
// classes.
//
// ShaHasher<HashLength, BlockLength> (both in bytes) is the byte sink both hash
// classes are built on; each algorithm's .cpp defines its INITIAL_STATE
// (HashLength / 4 words) and compress(state, data, blocks), which folds `blocks`
// consecutive blocks into the state words. Messages are padded with
// their big-endian 64-bit bit length, counted from 32 bits of bytes (so hashing
// goes wrong past 512 MiB); the digest is the state words as big-endian bytes,
// written over the state in place. The other member definitions are in
// sha_common_impl.h and are instantiated once, in the algorithm's own .cpp.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Velto/Sha/os_adaptor.h"

template <size_t HashLength, size_t BlockLength>
class ShaHasher : public Print {
public:
    // Standard initial state, counters 0.
    void init();
    // Adds one byte; returns 1.
    size_t write(uint8_t b) override;
    // Adds n bytes (whole blocks compressed straight from data); returns n, or 0
    // for null data or n = 0.
    size_t write(const uint8_t* data, size_t n) override;
    using Print::write;

    // Pads and returns the HashLength-byte digest held inside the object.
    uint8_t* result();

    // Starts an HMAC: a key longer than a block is replaced by its digest, a
    // shorter one is copied (zero-filled to the block); then hashes the key block
    // XOR 0x36. A null key or keyLen <= 0 counts as an empty key.
    void initHmac(const uint8_t* key, int keyLen);
    // Finishes the HMAC and returns the HashLength-byte result held inside the object.
    uint8_t* resultHmac();

protected:
    // Zeroed key block and inner hash, standard initial state.
    ShaHasher();
    virtual ~ShaHasher() = default;

    uint8_t buffer[BlockLength];
    uint8_t bufferOffset;
    uint32_t state[HashLength / 4];
    uint32_t byteCount;
    uint8_t keyBuffer[BlockLength];
    uint8_t innerHash[HashLength];

private:
    // The algorithm's own parts, defined in its .cpp.
    static const uint32_t INITIAL_STATE[HashLength / 4];
    // Folds `blocks` consecutive blocks into state with the active engine.
    static void compress(uint32_t* state, const uint8_t* data, size_t blocks);

    // Adds one byte without counting it (padding); compresses a full block.
    void addUncounted(uint8_t b);
    void hashBlock(const uint8_t* block);
    void pad();
    // Hashes the key block XOR `mask` as one block of a fresh message.
    void startKeyedBlock(uint8_t mask);
};
