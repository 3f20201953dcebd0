// SHA-256 against the FIPS 180 examples, HMAC-SHA256 against RFC 4231, and the
// agreement of the byte-by-byte and bulk paths; every case with each
// compression engine.
#include "Velto/Sha/sha256.h"

#include "tests/support/sha_checks.h"

using namespace testsupport;

namespace {

typedef ShaChecks<Sha256Class, SHA256_HASH_LENGTH> Checks;
const char* const ABC = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
const char* const EMPTY = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

class Sha256Digest : public ShaEngineTest {};
class Sha256Hmac : public ShaEngineTest {};

}  // namespace

TEST_P(Sha256Digest, Fips180ExamplesAndOneMillionA) {
    Checks::digestVectors({{"abc", ABC},
                           {"", EMPTY},
                           {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
                            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"}});
    Checks::millionA(1001, "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST_P(Sha256Digest, ByteAndBulkPathsAgreeAtEveryLength) { Checks::byteAndBulkAgree(17, 3); }

TEST_P(Sha256Digest, InitStartsOverAndInvalidInputsTakeNothing) { Checks::restartAndRefusals(ABC, EMPTY); }

TEST_P(Sha256Hmac, Rfc4231Vectors) {
    Checks::hmacVectors({
        {std::vector<uint8_t>(20, 0x0b), "Hi There",
         "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
        {fromHex("4a656665"), "what do ya want for nothing?",
         "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
        {std::vector<uint8_t>(20, 0xaa), repeated(50, 0xdd),
         "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe"},
        {fromHex("0102030405060708090a0b0c0d0e0f10111213141516171819"), repeated(50, 0xcd),
         "82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b"},
        {std::vector<uint8_t>(20, 0x0c), "Test With Truncation", "a3b6167473100ee06e0c796c2955552b"},  // 128 bits
        {std::vector<uint8_t>(131, 0xaa), "Test Using Larger Than Block-Size Key - Hash Key First",
         "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"},
        {std::vector<uint8_t>(131, 0xaa),
         "This is a test using a larger than block-size key and a larger than block-size data. "
         "The key needs to be hashed before being used by the HMAC algorithm.",
         "9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2"},
    });
}

TEST_P(Sha256Hmac, KeyRules) { Checks::hmacKeyRules(5, 1); }

INSTANTIATE_FOR_SHA_ENGINES(Sha256Digest);
INSTANTIATE_FOR_SHA_ENGINES(Sha256Hmac);
