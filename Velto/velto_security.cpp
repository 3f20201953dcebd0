// Packet signatures (HMAC-SHA1 / HMAC-SHA256 over the packet minus its signature
// area) and the copy / XOR payload transforms.
#include "Velto/velto_security.h"

#include <climits>
#include <cstring>
#include <functional>

#include "Velto/Sha/sha1.h"
#include "Velto/Sha/sha256.h"

namespace {

// Offset of sig inside [packet, packet + n) when sigLen bytes fit there from it.
bool signatureOffset(const uint8_t* packet, size_t n, const uint8_t* sig, size_t sigLen, size_t& off) {
    if (packet == nullptr || sig == nullptr) return false;
    if (std::less<const uint8_t*>()(sig, packet)) return false;
    size_t d = static_cast<size_t>(reinterpret_cast<uintptr_t>(sig) - reinterpret_cast<uintptr_t>(packet));
    if (d > n || n - d < sigLen) return false;
    off = d;
    return true;
}

// HMAC keyed with key over [packet, packet + off) and [packet + off + sigLen,
// packet + n); the result stays inside the hasher (resultHmac()).
template <typename Hasher>
uint8_t* hmacAroundSignature(Hasher& h, const uint8_t* key, size_t keySz, const uint8_t* packet, size_t n,
                             size_t off, size_t sigLen) {
    int keyLen = keySz > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(keySz);
    h.initHmac(key, keyLen);
    h.write(packet, off);
    h.write(packet + off + sigLen, n - off - sigLen);
    return h.resultHmac();
}

// Compares without stopping at the first difference.
bool sameBytes(const uint8_t* a, const uint8_t* b, size_t n) {
    uint8_t diff = 0;
    for (size_t i = 0; i < n; ++i) diff = static_cast<uint8_t>(diff | (a[i] ^ b[i]));
    return diff == 0;
}

// The transform shared by encryptData and decryptData (both are their own inverse).
bool transform(const uint8_t* src, size_t n, uint8_t type, const uint8_t* key, size_t keyLen, uint8_t*& out,
               size_t& outLeft) {
    if (src == nullptr || out == nullptr) return false;
    if (type != NO_ENCRYPTION_TYPE && (key == nullptr || keyLen == 0)) return false;
    if (type != NO_ENCRYPTION_TYPE && type != SIMPLE_XOR_TYPE) return false;
    if (outLeft < n) return false;
    if (type == NO_ENCRYPTION_TYPE) {
        memmove(out, src, n);
    } else {
        for (size_t i = 0; i < n; ++i) out[i] = static_cast<uint8_t>(src[i] ^ key[i % keyLen]);
    }
    out += n;
    outLeft -= n;
    return true;
}

}  // namespace

MsgSignature::MsgSignature()
    : sigType(NO_SIGNATURE_TYPE), keyPtr(nullptr), keySz(0), sigBegin(nullptr), buffLeft(0), verifiedOK(false) {}

size_t MsgSignature::sigSize(uint8_t type) {
    switch (type) {
        case HMAC_SHA1_TYPE:
            return SHA1_HASH_LENGTH;
        case HMAC_SHA256_TYPE:
            return SHA256_HASH_LENGTH;
        default:
            return 0;
    }
}

bool MsgSignature::setKey(uint8_t type, const uint8_t* key, size_t n) {
    sigType = type;
    keyPtr = key;
    keySz = n;
    return key != nullptr && n != 0;
}

bool MsgSignature::initialize() {
    sigBegin = nullptr;
    buffLeft = 0;
    return true;
}

bool MsgSignature::addToBuffer(uint8_t*& cursor, size_t& left) {
    if (cursor == nullptr) return false;
    sigBegin = cursor;
    buffLeft = left;
    size_t s = sigSize(sigType);
    if (left < s) return false;
    memset(cursor, 0, s);
    cursor += s;
    left -= s;
    return true;
}

bool MsgSignature::getFromBuffer(const uint8_t*& cursor, size_t& left, uint8_t type) {
    sigType = type;
    if (cursor == nullptr) return false;
    sigBegin = cursor;
    buffLeft = left;
    size_t s = sigSize(sigType);
    if (left < s) return false;
    cursor += s;
    left -= s;
    return true;
}

void MsgSignature::calculateAndUpdate(uint8_t* packet, size_t n) {
    size_t s = sigSize(sigType);
    size_t off = 0;
    if (s == 0 || s > buffLeft || !signatureOffset(packet, n, sigBegin, s, off)) return;
    if (sigType == HMAC_SHA1_TYPE) {
        Sha1Class h;
        memcpy(packet + off, hmacAroundSignature(h, keyPtr, keySz, packet, n, off, s), s);
    } else {
        Sha256Class h;
        memcpy(packet + off, hmacAroundSignature(h, keyPtr, keySz, packet, n, off, s), s);
    }
}

bool MsgSignature::verify(const uint8_t* packet, size_t n) {
    size_t s = sigSize(sigType);
    size_t off = 0;
    if (sigType == NO_SIGNATURE_TYPE) {
        verifiedOK = true;
    } else if (s == 0 || !signatureOffset(packet, n, sigBegin, s, off)) {
        verifiedOK = false;
    } else if (sigType == HMAC_SHA1_TYPE) {
        Sha1Class h;
        verifiedOK = sameBytes(packet + off, hmacAroundSignature(h, keyPtr, keySz, packet, n, off, s), s);
    } else {
        // kept: type 2 is checked with the SHA-1 hasher and its 32 bytes are
        // compared with the 20-byte SHA-1 result followed by the 12 bytes of
        // hasher state that follow it, so a type-2 packet never verifies.
        Sha1Class h;
        hmacAroundSignature(h, keyPtr, keySz, packet, n, off, s);
        uint8_t area[SHA256_HASH_LENGTH];
        h.copyResultArea(area);
        verifiedOK = sameBytes(packet + off, area, s);
    }
    return verifiedOK;
}

bool encryptData(const uint8_t* src, size_t n, uint8_t type, const uint8_t* key, size_t keyLen, uint8_t*& out,
                 size_t& outLeft) {
    return transform(src, n, type, key, keyLen, out, outLeft);
}

bool decryptData(const uint8_t* src, size_t n, uint8_t type, const uint8_t* key, size_t keyLen, uint8_t*& out,
                 size_t& outLeft) {
    return transform(src, n, type, key, keyLen, out, outLeft);
}
