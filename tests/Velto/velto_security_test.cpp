// Packet signatures (what they cover, how they are checked, the kept type-2
// asymmetry) and the copy / XOR payload transforms.
#include "Velto/velto_security.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "Velto/Sha/sha1.h"
#include "Velto/Sha/sha256.h"
#include "Velto/Velto.h"
#include "tests/support/wire_bytes.h"

using testsupport::ExactBytes;
using testsupport::toHex;

namespace {

const uint8_t KEY[20] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20};
const uint8_t OTHER_KEY[20] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 21};

std::vector<uint8_t> signedPing(uint8_t type, const uint8_t* key = KEY, size_t keyLen = sizeof(KEY)) {
    PingPongPack p;
    p.hubId = 17;
    p.devId = 1000;
    p.replyKey = 0x0102030405060708ull;
    p.signature.setKey(type, key, keyLen);
    std::vector<uint8_t> buf(MAX_PACKET_SIZE);
    int n = p.serialize(buf.data(), buf.size());
    buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return buf;
}

// Decodes from an exact copy with the given key and reports verified().
bool verifiesWith(const std::vector<uint8_t>& wire, const uint8_t* key, size_t keyLen) {
    ExactBytes b(wire);
    PingPongPack p;
    p.signature.setKey(NO_SIGNATURE_TYPE, key, keyLen);
    return p.deserialize(b.data(), b.size(), true) == static_cast<int>(wire.size()) && p.signature.verified();
}

// HMAC over the packet with the signature area [10, 10 + area) left out; `len` bytes of it.
template <typename Hasher>
std::string hmacAround(const std::vector<uint8_t>& wire, size_t area, size_t len, const uint8_t* key, size_t keyLen) {
    Hasher h;
    h.initHmac(key, static_cast<int>(keyLen));
    h.write(wire.data(), size_t(10));
    h.write(wire.data() + 10 + area, wire.size() - 10 - area);
    return toHex(h.resultHmac(), len);
}

}  // namespace

TEST(MsgSignature, SignatureCoversEverythingButItsArea) {
    std::vector<uint8_t> wire = signedPing(HMAC_SHA1_TYPE);
    ASSERT_EQ(wire.size(), 30u + 17u);
    EXPECT_EQ(toHex(wire.data() + 10, 20), hmacAround<Sha1Class>(wire, 20, 20, KEY, sizeof(KEY)));
    wire = signedPing(HMAC_SHA256_TYPE);
    ASSERT_EQ(wire.size(), 42u + 17u);
    EXPECT_EQ(toHex(wire.data() + 10, 32), hmacAround<Sha256Class>(wire, 32, 32, KEY, sizeof(KEY)));
}

TEST(MsgSignature, Sha1VerifiesWithTheSameKeyAndUnchangedBytesOnly) {
    const std::vector<uint8_t> wire = signedPing(HMAC_SHA1_TYPE);
    EXPECT_TRUE(verifiesWith(wire, KEY, sizeof(KEY)));
    EXPECT_FALSE(verifiesWith(wire, OTHER_KEY, sizeof(OTHER_KEY)));
    std::vector<uint8_t> bad = wire;
    bad[3] ^= 0x01;  // a header byte is covered too
    EXPECT_FALSE(verifiesWith(bad, KEY, sizeof(KEY)));
    for (size_t i = 10; i < 30; ++i) {  // every byte of the signature is compared
        bad = wire;
        bad[i] ^= 0x01;
        EXPECT_FALSE(verifiesWith(bad, KEY, sizeof(KEY))) << "signature byte " << i;
    }
}

// kept: a type-2 signature never verifies, not even when its area holds the
// HMAC-SHA1 digest the check computes (over the packet minus the 32-byte area).
TEST(MsgSignature, Sha256NeverVerifiesTypeZeroAlwaysUnknownNever) {
    std::vector<uint8_t> wire = signedPing(HMAC_SHA256_TYPE);
    EXPECT_FALSE(verifiesWith(wire, KEY, sizeof(KEY)));
    std::vector<uint8_t> forged = wire;
    const std::vector<uint8_t> digest =
        testsupport::fromHex(hmacAround<Sha1Class>(wire, 32, 20, KEY, sizeof(KEY)));
    memcpy(forged.data() + 10, digest.data(), 20);
    memset(forged.data() + 30, 0, 12);
    EXPECT_FALSE(verifiesWith(forged, KEY, sizeof(KEY)));
    EXPECT_TRUE(verifiesWith(signedPing(NO_SIGNATURE_TYPE), nullptr, 0));
    EXPECT_FALSE(verifiesWith(signedPing(3), KEY, sizeof(KEY)));
}

TEST(PayloadTransform, XorRepeatsTheKeyAndUndoesItself) {
    uint8_t value[20], once[20], twice[20];
    for (int i = 0; i < 20; ++i) value[i] = static_cast<uint8_t>(i * 13 + 1);
    const uint8_t key[7] = {0xFF, 0x00, 0x0F, 0xF0, 0x55, 0xAA, 0x01};
    uint8_t* out = once;
    size_t left = sizeof(once);
    ASSERT_TRUE(encryptData(value, 20, SIMPLE_XOR_TYPE, key, sizeof(key), out, left));
    EXPECT_EQ(left, 0u);
    EXPECT_EQ(once[7], value[7] ^ 0xFF);  // the key wraps after 7 bytes
    EXPECT_EQ(once[11], value[11] ^ 0x55);
    out = twice;
    left = sizeof(twice);
    ASSERT_TRUE(decryptData(once, 20, SIMPLE_XOR_TYPE, key, sizeof(key), out, left));
    EXPECT_EQ(toHex(twice, 20), toHex(value, 20));
}

