// The device's side of the join handshake's key material and of the hub's
// signatures on the handshake packs.
//
// The hub hands the session key over encrypted (plain copy or XOR) under a
// 20-byte transport key: SHA-1 over the 8 bytes of clientRand (least
// significant byte first, as the hub holds it in memory), the main key, and the
// 8 bytes of svrRand in the same order. A device whose main key is shorter than
// 4 bytes is answered as if its key were 20 zero bytes. The offer and the join
// answer may be signed with the main key; type-1 signatures are checked here,
// type-2 signatures can never be checked (the protocol's verify of type 2 never
// succeeds) and are reported as such rather than as a failure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Velto/Velto.h"
#include "Velto/data_packing.h"

namespace device {

constexpr size_t TRANSPORT_KEY_SIZE = 20;

// The key the hub actually uses for this device: `mainKey` itself when it holds
// at least 4 bytes (at most 32 are kept), otherwise 20 zero bytes.
ByteArray<32> effectiveMainKey(const std::vector<uint8_t>& mainKey);

// SHA-1(clientRand LE, mainKey, svrRand LE) into out (20 bytes). Always succeeds.
void transportKey(uint64_t clientRand, const ByteArray<32>& mainKey, uint64_t svrRand,
                  uint8_t out[TRANSPORT_KEY_SIZE]);

// Decrypts the session key carried by `pack` with the transport key built from
// clientRand, mainKey and the pack's svrRand. Returns true and fills out;
// false (out untouched) when the pack's encAlg is neither plain nor XOR or the
// key is empty.
bool recoverSessionKey(const JoinAcceptedPack& pack, uint64_t clientRand, const ByteArray<32>& mainKey,
                       ByteArray<32>& out);

// The reverse of recoverSessionKey, as the hub does it: fills pack.sessionKey
// with sessionKey encrypted under the transport key with pack.encAlg, using
// pack.svrRand. Returns false when the algorithm is refused.
bool encryptSessionKey(JoinAcceptedPack& pack, uint64_t clientRand, const ByteArray<32>& mainKey,
                       const ByteArray<32>& sessionKey);

enum class SignatureCheck {
    UNSIGNED,       // type 0: nothing to check
    VERIFIED,       // type 1 and the HMAC matches
    NOT_CHECKABLE,  // type 2: the protocol cannot verify it, by design
    BAD             // type 1 that does not match, or an unknown type
};

// Reads `pack` from the datagram and checks its signature with `key`. Returns
// false when the datagram does not decode as that pack (result untouched);
// otherwise true with the outcome in result.
bool decodeAndCheck(VeltoPacket& pack, const uint8_t* data, size_t size, const ByteArray<32>& key,
                    SignatureCheck& result);

// A short lower-case word for the outcome ("unsigned", "verified", ...).
const char* signatureCheckName(SignatureCheck c);

}  // namespace device
