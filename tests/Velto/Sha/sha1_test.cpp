// SHA-1 against the FIPS 180 examples, HMAC-SHA1 against RFC 2202, and the
// agreement of the byte-by-byte and bulk paths; every case with each
// compression engine.
#include "Velto/Sha/sha1.h"

#include "tests/support/sha_checks.h"

using namespace testsupport;

namespace {

typedef ShaChecks<Sha1Class, SHA1_HASH_LENGTH> Checks;
const char* const ABC = "a9993e364706816aba3e25717850c26c9cd0d89d";
const char* const EMPTY = "da39a3ee5e6b4b0d3255bfef95601890afd80709";
const char* const JEFE = "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79";

class Sha1Digest : public ShaEngineTest {};
class Sha1Hmac : public ShaEngineTest {};

}  // namespace

TEST_P(Sha1Digest, Fips180ExamplesAndOneMillionA) {
    Checks::digestVectors({{"abc", ABC},
                           {"", EMPTY},
                           {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
                            "84983e441c3bd26ebaae4aa1f95129e5e54670f1"}});
    Checks::millionA(997, "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
}

TEST_P(Sha1Digest, ByteAndBulkPathsAgreeAtEveryLength) { Checks::byteAndBulkAgree(31, 7); }

TEST_P(Sha1Digest, InitStartsOverAndInvalidInputsTakeNothing) { Checks::restartAndRefusals(ABC, EMPTY); }

TEST_P(Sha1Hmac, Rfc2202Vectors) {
    Checks::hmacVectors({
        {std::vector<uint8_t>(20, 0x0b), "Hi There", "b617318655057264e28bc0b6fb378c8ef146be00"},
        {fromHex("4a656665"), "what do ya want for nothing?", JEFE},
        {std::vector<uint8_t>(20, 0xaa), repeated(50, 0xdd), "125d7342b9ac11cd91a39af48aa17b4f63f175d3"},
        {fromHex("0102030405060708090a0b0c0d0e0f10111213141516171819"), repeated(50, 0xcd),
         "4c9007f4026250c6bc8414f9bf50c86c2d7235da"},
        {std::vector<uint8_t>(20, 0x0c), "Test With Truncation", "4c1a03424b55e07fe7f27be1d58bb9324a9a5a04"},
        {std::vector<uint8_t>(80, 0xaa), "Test Using Larger Than Block-Size Key - Hash Key First",
         "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
        {std::vector<uint8_t>(80, 0xaa), "Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data",
         "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"},
    });
}

TEST_P(Sha1Hmac, KeyRulesAndTheResultAreaStartsWithTheDigest) {
    Checks::hmacKeyRules(1, 100);
    Sha1Class h;
    h.initHmac(reinterpret_cast<const uint8_t*>("Jefe"), 4);
    h.write("what do ya want for nothing?");
    h.resultHmac();
    uint8_t area[32];
    h.copyResultArea(area);
    EXPECT_EQ(toHex(area, 20), JEFE);
}

INSTANTIATE_FOR_SHA_ENGINES(Sha1Digest);
INSTANTIATE_FOR_SHA_ENGINES(Sha1Hmac);
