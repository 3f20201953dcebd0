// Session-key recovery and handshake signature checks of the device.
#include "Device/JoinSecurity.h"

#include <cstring>

#include "Velto/Sha/sha1.h"
#include "Velto/velto_security.h"

namespace device {

namespace {

// The hub keeps the randoms in its own memory order; on the little-endian
// machines it runs on that is least significant byte first.
void writeLittleEndian(Sha1Class& h, uint64_t v) {
    for (int i = 0; i < 8; ++i) h.write(static_cast<uint8_t>(v >> (8 * i)));
}

bool transformSessionKey(const ByteArray<32>& in, uint8_t alg, const uint8_t key[TRANSPORT_KEY_SIZE],
                         ByteArray<32>& out) {
    ByteArray<32> tmp;
    uint8_t* cursor = tmp.data();
    size_t left = tmp.capacity();
    if (!decryptData(in.data(), in.size(), alg, key, TRANSPORT_KEY_SIZE, cursor, left)) return false;
    tmp.setSize(tmp.capacity() - left);
    out = tmp;
    return true;
}

}  // namespace

ByteArray<32> effectiveMainKey(const std::vector<uint8_t>& mainKey) {
    if (mainKey.size() >= 4) return ByteArray<32>(mainKey.data(), mainKey.size());
    ByteArray<32> zero;
    zero.setSize(20);
    return zero;
}

void transportKey(uint64_t clientRand, const ByteArray<32>& mainKey, uint64_t svrRand,
                  uint8_t out[TRANSPORT_KEY_SIZE]) {
    Sha1Class h;
    h.init();
    writeLittleEndian(h, clientRand);
    h.write(mainKey.data(), mainKey.size());
    writeLittleEndian(h, svrRand);
    memcpy(out, h.result(), TRANSPORT_KEY_SIZE);
}

bool recoverSessionKey(const JoinAcceptedPack& pack, uint64_t clientRand, const ByteArray<32>& mainKey,
                       ByteArray<32>& out) {
    if (pack.sessionKey.size() == 0) return false;
    uint8_t key[TRANSPORT_KEY_SIZE];
    transportKey(clientRand, mainKey, pack.svrRand, key);
    return transformSessionKey(pack.sessionKey, pack.encAlg, key, out);
}

bool encryptSessionKey(JoinAcceptedPack& pack, uint64_t clientRand, const ByteArray<32>& mainKey,
                       const ByteArray<32>& sessionKey) {
    uint8_t key[TRANSPORT_KEY_SIZE];
    transportKey(clientRand, mainKey, pack.svrRand, key);
    return transformSessionKey(sessionKey, pack.encAlg, key, pack.sessionKey);
}

bool decodeAndCheck(VeltoPacket& pack, const uint8_t* data, size_t size, const ByteArray<32>& key,
                    SignatureCheck& result) {
    // The type given here is replaced by the one the header carries.
    pack.signature.setKey(HMAC_SHA1_TYPE, key.data(), key.size());
    if (pack.deserialize(data, size, true) < 1) return false;
    switch (pack.signature.signatureType()) {
        case NO_SIGNATURE_TYPE:
            result = SignatureCheck::UNSIGNED;
            break;
        case HMAC_SHA1_TYPE:
            result = pack.signature.verified() ? SignatureCheck::VERIFIED : SignatureCheck::BAD;
            break;
        case HMAC_SHA256_TYPE:
            result = SignatureCheck::NOT_CHECKABLE;
            break;
        default:
            result = SignatureCheck::BAD;
            break;
    }
    return true;
}

const char* signatureCheckName(SignatureCheck c) {
    switch (c) {
        case SignatureCheck::UNSIGNED:
            return "unsigned";
        case SignatureCheck::VERIFIED:
            return "verified";
        case SignatureCheck::NOT_CHECKABLE:
            return "not checkable (type 2)";
        case SignatureCheck::BAD:
            return "bad";
    }
    return "bad";
}

}  // namespace device
