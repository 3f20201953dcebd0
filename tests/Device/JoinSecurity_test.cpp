#include "Device/JoinSecurity.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "tests/support/device_sim.h"

using namespace device;

namespace {

ByteArray<32> bytes(std::initializer_list<uint8_t> v) { return ByteArray<32>(std::vector<uint8_t>(v).data(), v.size()); }

ByteArray<32> pattern(size_t n, uint8_t seed) { return testsupport::keyBytes(n, seed, 7); }

// Serialises p (signed with key under type when type is not 0).
std::vector<uint8_t> wire(VeltoPacket& p, uint8_t type, const ByteArray<32>& key) {
    if (type != 0) p.signature.setKey(type, key.data(), key.size());
    std::vector<uint8_t> buf(MAX_PACKET_SIZE);
    int n = p.serialize(buf.data(), buf.size());
    buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return buf;
}

}  // namespace

TEST(JoinSecurity, TransportKeyHashesRandomsLittleEndianAroundTheMainKey) {
    const uint64_t clientRand = 0x0102030405060708ULL, svrRand = 0xA1A2A3A4A5A6A7A8ULL;
    ByteArray<32> key = pattern(16, 3);
    uint8_t expected[20], got[TRANSPORT_KEY_SIZE];
    testsupport::joinTransportKey(clientRand, key.data(), key.size(), svrRand, expected);
    transportKey(clientRand, key, svrRand, got);
    EXPECT_EQ(0, memcmp(got, expected, TRANSPORT_KEY_SIZE));
}

TEST(JoinSecurity, SessionKeyRoundTripsUnderXorAndPlain) {
    const ByteArray<32> mainKey = pattern(20, 40), session = pattern(32, 9);
    for (uint8_t alg : {SIMPLE_XOR_TYPE, NO_ENCRYPTION_TYPE}) {
        JoinAcceptedPack acc;
        acc.encAlg = alg;
        acc.svrRand = 987654321;
        ASSERT_TRUE(encryptSessionKey(acc, 42, mainKey, session));
        ByteArray<32> back;
        ASSERT_TRUE(recoverSessionKey(acc, 42, mainKey, back));
        EXPECT_TRUE(back == session) << "alg " << int(alg);
        if (alg == SIMPLE_XOR_TYPE) {
            EXPECT_FALSE(acc.sessionKey == session);
        }
    }
}

TEST(JoinSecurity, WrongRandomOrKeyGivesAnotherSessionKey) {
    const ByteArray<32> mainKey = pattern(20, 1), session = pattern(32, 2);
    JoinAcceptedPack acc;
    acc.encAlg = SIMPLE_XOR_TYPE;
    acc.svrRand = 5;
    ASSERT_TRUE(encryptSessionKey(acc, 1000, mainKey, session));
    ByteArray<32> a, b;
    ASSERT_TRUE(recoverSessionKey(acc, 1001, mainKey, a));
    ASSERT_TRUE(recoverSessionKey(acc, 1000, pattern(20, 3), b));
    EXPECT_FALSE(a == session);
    EXPECT_FALSE(b == session);
}

TEST(JoinSecurity, UnsupportedAlgorithmAndEmptyKeyAreRefused) {
    JoinAcceptedPack acc;
    acc.encAlg = AES128_XXX_TYPE;
    acc.sessionKey = pattern(16, 1);
    ByteArray<32> out = pattern(3, 99);
    EXPECT_FALSE(recoverSessionKey(acc, 1, pattern(20, 1), out));
    EXPECT_EQ(3u, out.size());
    acc.encAlg = SIMPLE_XOR_TYPE;
    acc.sessionKey.setSize(0);
    EXPECT_FALSE(recoverSessionKey(acc, 1, pattern(20, 1), out));
}

TEST(JoinSecurity, ShortMainKeysAreReplacedByTwentyZeroBytes) {
    for (size_t n : {0u, 1u, 3u}) {
        ByteArray<32> k = effectiveMainKey(std::vector<uint8_t>(n, 0x55));
        ASSERT_EQ(20u, k.size());
        for (size_t i = 0; i < 20; ++i) EXPECT_EQ(0, k[i]);
    }
    std::vector<uint8_t> four = {1, 2, 3, 4};
    EXPECT_TRUE(effectiveMainKey(four) == bytes({1, 2, 3, 4}));
    EXPECT_EQ(32u, effectiveMainKey(std::vector<uint8_t>(40, 1)).size());
}

TEST(JoinSecurity, SignatureChecksByType) {
    const ByteArray<32> key = pattern(20, 11), other = pattern(20, 12);
    struct Case {
        uint8_t type;
        const ByteArray<32>& signKey;
        SignatureCheck expected;
    } cases[] = {{NO_SIGNATURE_TYPE, key, SignatureCheck::UNSIGNED},
                 {HMAC_SHA1_TYPE, key, SignatureCheck::VERIFIED},
                 {HMAC_SHA1_TYPE, other, SignatureCheck::BAD},
                 {HMAC_SHA256_TYPE, key, SignatureCheck::NOT_CHECKABLE}};
    for (const Case& c : cases) {
        AdoptionOfferPack offer;
        offer.duid = "lamp-01";
        offer.domain = "D";
        std::vector<uint8_t> data = wire(offer, c.type, c.signKey);
        ASSERT_FALSE(data.empty());
        AdoptionOfferPack got;
        SignatureCheck check = SignatureCheck::BAD;
        ASSERT_TRUE(decodeAndCheck(got, data.data(), data.size(), key, check));
        EXPECT_EQ(c.expected, check) << "type " << int(c.type);
        EXPECT_TRUE(got.duid == std::string("lamp-01"));
    }
}

TEST(JoinSecurity, TamperedBodyFailsAndTruncatedPackDoesNotDecode) {
    const ByteArray<32> key = pattern(20, 11);
    JoinAcceptedPack acc;
    acc.duid = "lamp-01";
    acc.nodeId = 1000;
    acc.sessionKey = pattern(32, 4);
    std::vector<uint8_t> data = wire(acc, HMAC_SHA1_TYPE, key);
    data[data.size() - 1] ^= 1;
    JoinAcceptedPack got;
    SignatureCheck check = SignatureCheck::VERIFIED;
    ASSERT_TRUE(decodeAndCheck(got, data.data(), data.size(), key, check));
    EXPECT_EQ(SignatureCheck::BAD, check);
    check = SignatureCheck::VERIFIED;
    EXPECT_FALSE(decodeAndCheck(got, data.data(), 35, key, check));
    EXPECT_EQ(SignatureCheck::VERIFIED, check);
}
