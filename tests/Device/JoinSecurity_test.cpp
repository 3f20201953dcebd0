#include "Device/JoinSecurity.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "tests/support/device_sim.h"

using namespace device;

namespace {

ByteArray<32> pattern(size_t n, uint8_t seed) { return testsupport::keyBytes(n, seed, 7); }

}  // namespace

// The transport key matches the hub's SHA-1 of (clientRand LE, main key,
// svrRand LE), computed independently; XOR-sent session keys come back only
// with the right random; short main keys become twenty zero bytes.
TEST(JoinSecurity, TransportKeySessionKeyAndShortMainKeys) {
    const ByteArray<32> mainKey = pattern(16, 3), session = pattern(32, 9);
    uint8_t expected[20], got[TRANSPORT_KEY_SIZE];
    testsupport::joinTransportKey(0x0102030405060708ULL, mainKey.data(), mainKey.size(), 0xA1A2A3A4A5A6A7A8ULL,
                                  expected);
    transportKey(0x0102030405060708ULL, mainKey, 0xA1A2A3A4A5A6A7A8ULL, got);
    EXPECT_EQ(0, memcmp(got, expected, TRANSPORT_KEY_SIZE));
    JoinAcceptedPack acc;
    acc.encAlg = SIMPLE_XOR_TYPE;
    acc.svrRand = 987654321;
    ASSERT_TRUE(encryptSessionKey(acc, 42, mainKey, session));
    EXPECT_FALSE(acc.sessionKey == session);
    ByteArray<32> back, wrong;
    ASSERT_TRUE(recoverSessionKey(acc, 42, mainKey, back));
    EXPECT_TRUE(back == session);
    ASSERT_TRUE(recoverSessionKey(acc, 43, mainKey, wrong));
    EXPECT_FALSE(wrong == session);
    acc.encAlg = AES128_XXX_TYPE;
    EXPECT_FALSE(recoverSessionKey(acc, 42, mainKey, back));
    ByteArray<32> k = effectiveMainKey(std::vector<uint8_t>(3, 0x55));
    ASSERT_EQ(20u, k.size());
    for (size_t i = 0; i < 20; ++i) EXPECT_EQ(0, k[i]);
    EXPECT_EQ(4u, effectiveMainKey({1, 2, 3, 4}).size());
}

TEST(JoinSecurity, SignatureChecksByType) {
    const ByteArray<32> key = pattern(20, 11), other = pattern(20, 12);
    struct Case { uint8_t type; const ByteArray<32>& signKey; SignatureCheck expected; } cases[] = {
        {NO_SIGNATURE_TYPE, key, SignatureCheck::UNSIGNED},
        {HMAC_SHA1_TYPE, key, SignatureCheck::VERIFIED},
        {HMAC_SHA1_TYPE, other, SignatureCheck::BAD},
        {HMAC_SHA256_TYPE, key, SignatureCheck::NOT_CHECKABLE}};
    for (const Case& c : cases) {
        AdoptionOfferPack offer;
        offer.duid = "lamp-01";
        if (c.type != 0) offer.signature.setKey(c.type, c.signKey.data(), c.signKey.size());
        std::vector<uint8_t> data = testsupport::encodePack(offer);
        AdoptionOfferPack got;
        SignatureCheck check = SignatureCheck::BAD;
        ASSERT_TRUE(decodeAndCheck(got, data.data(), data.size(), key, check));
        EXPECT_EQ(c.expected, check) << "type " << int(c.type);
        EXPECT_FALSE(decodeAndCheck(got, data.data(), 20, key, check)) << "truncated";
    }
}
