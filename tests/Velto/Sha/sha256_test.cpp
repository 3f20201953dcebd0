// SHA-256 against FIPS 180 examples, HMAC-SHA256 against RFC 4231 (short key,
// short data, key longer than a block), and the byte-by-byte and bulk paths;
// every case with each compression engine.
#include "Velto/Sha/sha256.h"

#include "tests/support/sha_checks.h"

using namespace testsupport;

namespace {

typedef ShaChecks<Sha256Class, SHA256_HASH_LENGTH> Checks;
const char* const ABC = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

class Sha256Vectors : public ShaEngineTest {};

}  // namespace

TEST_P(Sha256Vectors, DigestVectorsAndPaths) {
    Checks::digestVectors({{"abc", ABC},
                           {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
                            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"}});
    Checks::millionA(1001, "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    Checks::byteAndBulkAgree(17, 3);
    Checks::restartAndRefusals(ABC, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST_P(Sha256Vectors, HmacRfc4231Vectors) {
    Checks::hmacVectors({
        {std::vector<uint8_t>(20, 0x0b), "Hi There",
         "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
        {fromHex("4a656665"), "what do ya want for nothing?",
         "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
        {std::vector<uint8_t>(131, 0xaa), "Test Using Larger Than Block-Size Key - Hash Key First",
         "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"},
    });
    Checks::hmacKeyRules(0x24);
}

INSTANTIATE_FOR_SHA_ENGINES(Sha256Vectors);
