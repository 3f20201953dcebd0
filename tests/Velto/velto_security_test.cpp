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
    p.packetNo = 77;
    p.replyKey = 0x0102030405060708ull;
    p.random = 0x1122334455667788ull;
    p.signature.setKey(type, key, keyLen);
    std::vector<uint8_t> buf(MAX_PACKET_SIZE);
    int n = p.serialize(buf.data(), buf.size());
    EXPECT_GT(n, 0);
    buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return buf;
}

// Decodes from an exact copy with the given key and reports verified().
bool verifiesWith(const std::vector<uint8_t>& wire, const uint8_t* key, size_t keyLen) {
    ExactBytes b(wire);
    PingPongPack p;
    p.signature.setKey(NO_SIGNATURE_TYPE, key, keyLen);
    if (p.deserialize(b.data(), b.size(), true) != static_cast<int>(wire.size())) return false;
    return p.signature.verified();
}

// HMAC over the packet with the signature area [10, 10 + s) left out.
template <typename Hasher>
std::string hmacAroundArea(const std::vector<uint8_t>& wire, size_t s, const uint8_t* key, size_t keyLen) {
    Hasher h;
    h.initHmac(key, static_cast<int>(keyLen));
    h.write(wire.data(), size_t(10));
    h.write(wire.data() + 10 + s, wire.size() - 10 - s);
    return toHex(h.resultHmac(), s);
}

}  // namespace

TEST(MsgSignatureBasics, SizesPerType) {
    EXPECT_EQ(MsgSignature::sigSize(NO_SIGNATURE_TYPE), 0u);
    EXPECT_EQ(MsgSignature::sigSize(HMAC_SHA1_TYPE), 20u);
    EXPECT_EQ(MsgSignature::sigSize(HMAC_SHA256_TYPE), 32u);
    EXPECT_EQ(MsgSignature::sigSize(3), 0u);
    EXPECT_EQ(MsgSignature::sigSize(255), 0u);
}

TEST(MsgSignatureBasics, SetKeyReportsAMissingKey) {
    MsgSignature s;
    EXPECT_EQ(s.signatureType(), NO_SIGNATURE_TYPE);
    EXPECT_FALSE(s.verified());
    EXPECT_TRUE(s.setKey(HMAC_SHA1_TYPE, KEY, sizeof(KEY)));
    EXPECT_EQ(s.signatureType(), HMAC_SHA1_TYPE);
    EXPECT_FALSE(s.setKey(HMAC_SHA1_TYPE, nullptr, 20));
    EXPECT_FALSE(s.setKey(HMAC_SHA256_TYPE, KEY, 0));
    EXPECT_EQ(s.signatureType(), HMAC_SHA256_TYPE);
}

TEST(MsgSignatureBasics, AreaWrittenAsZerosAndRefusedWhenShort) {
    MsgSignature s;
    s.setKey(HMAC_SHA1_TYPE, KEY, sizeof(KEY));
    std::vector<uint8_t> buf(25, 0xEE);
    uint8_t* w = buf.data();
    size_t left = 19;
    EXPECT_FALSE(s.addToBuffer(w, left));
    EXPECT_EQ(w, buf.data());
    EXPECT_EQ(left, 19u);
    left = buf.size();
    EXPECT_TRUE(s.addToBuffer(w, left));
    EXPECT_EQ(left, 5u);
    EXPECT_EQ(toHex(buf.data(), 20), std::string(40, '0'));
    EXPECT_EQ(buf[20], 0xEE);

    ExactBytes in(std::vector<uint8_t>(31, 0));
    const uint8_t* r = in.data();
    size_t rl = 31;
    MsgSignature t;
    EXPECT_FALSE(t.getFromBuffer(r, rl, HMAC_SHA256_TYPE));
    EXPECT_EQ(t.signatureType(), HMAC_SHA256_TYPE);
    EXPECT_EQ(rl, 31u);
    EXPECT_TRUE(t.getFromBuffer(r, rl, HMAC_SHA1_TYPE));
    EXPECT_EQ(rl, 11u);
}

TEST(MsgSignatureSigning, SignatureCoversEverythingButItsArea) {
    std::vector<uint8_t> wire = signedPing(HMAC_SHA1_TYPE);
    ASSERT_EQ(wire.size(), 30u + 17u);
    EXPECT_EQ(toHex(wire.data() + 10, 20), hmacAroundArea<Sha1Class>(wire, 20, KEY, sizeof(KEY)));
    wire = signedPing(HMAC_SHA256_TYPE);
    ASSERT_EQ(wire.size(), 42u + 17u);
    EXPECT_EQ(toHex(wire.data() + 10, 32), hmacAroundArea<Sha256Class>(wire, 32, KEY, sizeof(KEY)));
}

TEST(MsgSignatureVerify, Sha1VerifiesWithTheSameKeyOnly) {
    std::vector<uint8_t> wire = signedPing(HMAC_SHA1_TYPE);
    EXPECT_TRUE(verifiesWith(wire, KEY, sizeof(KEY)));
    EXPECT_FALSE(verifiesWith(wire, OTHER_KEY, sizeof(OTHER_KEY)));
    EXPECT_FALSE(verifiesWith(wire, nullptr, 0));
}

TEST(MsgSignatureVerify, Sha1DetectsAnyFlippedBit) {
    const std::vector<uint8_t> wire = signedPing(HMAC_SHA1_TYPE);
    // One bit of the body, of the signature area, and of the header fields.
    for (size_t pos : {size_t(46), size_t(30), size_t(10), size_t(29), size_t(0), size_t(3), size_t(9)}) {
        std::vector<uint8_t> bad = wire;
        bad[pos] ^= 0x01;
        EXPECT_FALSE(verifiesWith(bad, KEY, sizeof(KEY))) << pos;
    }
}

TEST(MsgSignatureVerify, EmptyKeySignsAndChecksAsEmptyHmacKey) {
    std::vector<uint8_t> wire = signedPing(HMAC_SHA1_TYPE, nullptr, 0);
    EXPECT_EQ(toHex(wire.data() + 10, 20), hmacAroundArea<Sha1Class>(wire, 20, nullptr, 0));
    EXPECT_TRUE(verifiesWith(wire, nullptr, 0));
    EXPECT_FALSE(verifiesWith(wire, KEY, sizeof(KEY)));
}

TEST(MsgSignatureVerify, Sha256NeverVerifies) {
    std::vector<uint8_t> wire = signedPing(HMAC_SHA256_TYPE);
    EXPECT_FALSE(verifiesWith(wire, KEY, sizeof(KEY)));

    // Not even when the area holds the HMAC-SHA1 digest that the check computes
    // (over the packet minus the 32-byte area), followed by zeros.
    std::vector<uint8_t> forged = wire;
    Sha1Class h;
    h.initHmac(KEY, sizeof(KEY));
    h.write(wire.data(), size_t(10));
    h.write(wire.data() + 42, wire.size() - 42);
    memcpy(forged.data() + 10, h.resultHmac(), 20);
    memset(forged.data() + 30, 0, 12);
    EXPECT_FALSE(verifiesWith(forged, KEY, sizeof(KEY)));
}

TEST(MsgSignatureVerify, TypeZeroAlwaysVerifiesAndUnknownTypesNever) {
    // (The header sizes per type are checked with the envelope.)
    EXPECT_TRUE(verifiesWith(signedPing(NO_SIGNATURE_TYPE), nullptr, 0));
    EXPECT_FALSE(verifiesWith(signedPing(3), KEY, sizeof(KEY)));
}

TEST(MsgSignatureVerify, NothingHappensWithoutARecordedPosition) {
    MsgSignature s;
    s.setKey(HMAC_SHA1_TYPE, KEY, sizeof(KEY));
    std::vector<uint8_t> packet(40, 0xAB);
    s.initialize();
    s.calculateAndUpdate(packet.data(), packet.size());
    EXPECT_EQ(toHex(packet), toHex(std::vector<uint8_t>(40, 0xAB)));
    EXPECT_FALSE(s.verify(packet.data(), packet.size()));
}

TEST(MsgSignatureVerify, PositionOutsideThePacketIsRefused) {
    MsgSignature s;
    s.setKey(HMAC_SHA1_TYPE, KEY, sizeof(KEY));
    std::vector<uint8_t> buf(40, 0);
    uint8_t* w = buf.data() + 15;
    size_t left = 25;
    ASSERT_TRUE(s.addToBuffer(w, left));
    // The packet handed over ends before the signature area does.
    s.calculateAndUpdate(buf.data(), 30);
    EXPECT_EQ(toHex(buf.data() + 15, 20), std::string(40, '0'));
    EXPECT_FALSE(s.verify(buf.data(), 30));
}

// ---- payload transforms ----

TEST(PayloadTransform, CopyMovesOutByN) {
    const uint8_t src[5] = {9, 8, 7, 6, 5};
    uint8_t dst[8] = {0};
    uint8_t* out = dst;
    size_t left = sizeof(dst);
    EXPECT_TRUE(encryptData(src, 5, NO_ENCRYPTION_TYPE, nullptr, 0, out, left));
    EXPECT_EQ(out, dst + 5);
    EXPECT_EQ(left, 3u);
    EXPECT_EQ(toHex(dst, 5), "0908070605");
}

TEST(PayloadTransform, XorRepeatsTheKeyAndUndoesItself) {
    uint8_t value[20];
    for (int i = 0; i < 20; ++i) value[i] = static_cast<uint8_t>(i * 13 + 1);
    const uint8_t key[7] = {0xFF, 0x00, 0x0F, 0xF0, 0x55, 0xAA, 0x01};
    uint8_t once[20];
    uint8_t twice[20];
    uint8_t* out = once;
    size_t left = sizeof(once);
    ASSERT_TRUE(encryptData(value, 20, SIMPLE_XOR_TYPE, key, sizeof(key), out, left));
    EXPECT_EQ(left, 0u);
    EXPECT_EQ(once[0], value[0] ^ 0xFF);
    EXPECT_EQ(once[7], value[7] ^ 0xFF);  // the key wraps after 7 bytes
    EXPECT_EQ(once[11], value[11] ^ 0x55);
    out = twice;
    left = sizeof(twice);
    ASSERT_TRUE(decryptData(once, 20, SIMPLE_XOR_TYPE, key, sizeof(key), out, left));
    EXPECT_EQ(toHex(twice, 20), toHex(value, 20));
}

TEST(PayloadTransform, RefusalsLeaveOutUnmoved) {
    const uint8_t src[4] = {1, 2, 3, 4};
    uint8_t dst[4] = {0};
    uint8_t* out = dst;
    size_t left = sizeof(dst);
    EXPECT_FALSE(encryptData(src, 4, AES128_XXX_TYPE, KEY, 16, out, left));
    EXPECT_FALSE(decryptData(src, 4, AES128_XXX_TYPE, KEY, 16, out, left));
    EXPECT_FALSE(encryptData(src, 4, 9, KEY, 16, out, left));
    EXPECT_FALSE(encryptData(src, 4, SIMPLE_XOR_TYPE, nullptr, 16, out, left));
    EXPECT_FALSE(encryptData(src, 4, SIMPLE_XOR_TYPE, KEY, 0, out, left));
    EXPECT_FALSE(encryptData(nullptr, 4, NO_ENCRYPTION_TYPE, nullptr, 0, out, left));
    size_t small = 3;
    EXPECT_FALSE(encryptData(src, 4, SIMPLE_XOR_TYPE, KEY, 16, out, small));
    EXPECT_EQ(small, 3u);
    EXPECT_EQ(out, dst);
    EXPECT_EQ(left, 4u);
    EXPECT_EQ(toHex(dst, 4), "00000000");
    uint8_t* nullOut = nullptr;
    EXPECT_FALSE(encryptData(src, 4, NO_ENCRYPTION_TYPE, nullptr, 0, nullOut, left));
}
