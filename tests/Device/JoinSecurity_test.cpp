#include "Device/JoinSecurity.h"

#include <gtest/gtest.h>

#include <vector>

#include "Device/PackKit.h"

using namespace device;

namespace {

ByteArray<32> pattern(size_t n, uint8_t seed) { return packkit::keyBytes(n, seed, 7); }

}  // namespace

// XOR-sent session keys come back only with the right random; short main
// keys become twenty zero bytes. (That the transport key matches the hub's is
// shown end to end: a joined device's session key is the one in its record.)
TEST(JoinSecurity, SessionKeyTransportAndShortMainKeys) {
    const ByteArray<32> mainKey = pattern(16, 3), session = pattern(32, 9);
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
        std::vector<uint8_t> data = packkit::encode(offer);
        AdoptionOfferPack got;
        SignatureCheck check = SignatureCheck::BAD;
        ASSERT_TRUE(decodeAndCheck(got, data.data(), data.size(), key, check));
        EXPECT_EQ(c.expected, check) << "type " << int(c.type);
        EXPECT_FALSE(decodeAndCheck(got, data.data(), 20, key, check)) << "truncated";
    }
}
