// SHA-1 against FIPS 180 examples, HMAC-SHA1 against RFC 2202 (short key, short
// data, key longer than a block), and the byte-by-byte and bulk paths; every
// case with each compression engine.
#include "Velto/Sha/sha1.h"

#include "tests/support/sha_checks.h"

using namespace testsupport;

namespace {

typedef ShaChecks<Sha1Class, SHA1_HASH_LENGTH> Checks;
const char* const ABC = "a9993e364706816aba3e25717850c26c9cd0d89d";

class Sha1Vectors : public ShaEngineTest {};

}  // namespace

TEST_P(Sha1Vectors, DigestVectorsAndPaths) {
    Checks::digestVectors({{"abc", ABC},
                           {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
                            "84983e441c3bd26ebaae4aa1f95129e5e54670f1"}});
    Checks::millionA(997, "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
    Checks::byteAndBulkAgree(31, 7);
    Checks::restartAndRefusals(ABC, "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST_P(Sha1Vectors, HmacRfc2202Vectors) {
    Checks::hmacVectors({
        {std::vector<uint8_t>(20, 0x0b), "Hi There", "b617318655057264e28bc0b6fb378c8ef146be00"},
        {fromHex("4a656665"), "what do ya want for nothing?", "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        {std::vector<uint8_t>(80, 0xaa), "Test Using Larger Than Block-Size Key - Hash Key First",
         "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
    });
    Checks::hmacKeyRules(0x42);
}

INSTANTIATE_FOR_SHA_ENGINES(Sha1Vectors);
