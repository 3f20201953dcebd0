// Packet signatures and payload transforms.
//
// MsgSignature sits in every packet's envelope: the type byte of the header says
// how many signature bytes follow (0, 20 or 32), and those bytes hold an HMAC over
// every other byte of the packet. The key is only referred to, never copied: it
// belongs to the caller (for a client, its stored session key) and must outlive
// every sign or verify that uses it. The hashers are local to each call, so
// signing and verifying are reentrant.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint8_t NO_SIGNATURE_TYPE = 0;
constexpr uint8_t HMAC_SHA1_TYPE = 1;
constexpr uint8_t HMAC_SHA256_TYPE = 2;

constexpr uint8_t NO_ENCRYPTION_TYPE = 0;
constexpr uint8_t SIMPLE_XOR_TYPE = 1;
constexpr uint8_t AES128_XXX_TYPE = 2;  // reserved: no cipher is built, always fails

constexpr size_t MAXIMUM_SESSION_KEY_SIZE = 32;

class MsgSignature {
public:
    MsgSignature();

    // 20 for HMAC-SHA1, 32 for HMAC-SHA256, 0 for any other type.
    static size_t sigSize(uint8_t type);

    // Stores type and key reference; true when key is non-null and n is not 0.
    bool setKey(uint8_t type, const uint8_t* key, size_t n);
    uint8_t signatureType() const { return sigType; }
    bool verified() const { return verifiedOK; }

    // Forgets the recorded signature position; true.
    bool initialize();

    // Records where the signature bytes go and writes sigSize() zero bytes.
    // True on success; false (cursor untouched) when cursor is null or fewer than
    // sigSize() bytes are left.
    virtual bool addToBuffer(uint8_t*& cursor, size_t& left);
    // Takes the type read from the header (stored even on failure), records the
    // position and skips the signature bytes. True on success; false (cursor
    // untouched) when cursor is null or fewer than sigSize(type) bytes are left.
    virtual bool getFromBuffer(const uint8_t*& cursor, size_t& left, uint8_t type);

    // Types 1 and 2: HMAC over [packet, sigBegin) and [sigBegin + S, packet + n),
    // written into the signature bytes. Other types, or a recorded position whose
    // S bytes do not lie within [packet, packet + n): nothing. A null key hashes
    // as an empty key.
    void calculateAndUpdate(uint8_t* packet, size_t n);

    // Sets and returns the verified flag. Type 0 verifies; type 1 checks the
    // HMAC-SHA1; type 2 is computed with the SHA-1 hasher and compared over 32
    // bytes, so it never verifies (kept on purpose); other types, and a signature
    // area not within [packet, packet + n), give false.
    bool verify(const uint8_t* packet, size_t n);

private:
    uint8_t sigType;
    const uint8_t* keyPtr;
    size_t keySz;
    const uint8_t* sigBegin;
    size_t buffLeft;
    bool verifiedOK;
};

// Type 0 copies, type 1 XORs with the key repeated; any other type fails and
// writes nothing. On success out advances by n and outLeft drops by n. Fails when
// src or out is null, when a non-zero type has no key, or when outLeft < n.
bool encryptData(const uint8_t* src, size_t n, uint8_t type, const uint8_t* key, size_t keyLen,
                 uint8_t*& out, size_t& outLeft);
// Identical to encryptData (both transforms are their own inverse).
bool decryptData(const uint8_t* src, size_t n, uint8_t type, const uint8_t* key, size_t keyLen,
                 uint8_t*& out, size_t& outLeft);
