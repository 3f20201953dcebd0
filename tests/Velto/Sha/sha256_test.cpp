// SHA-256 against the FIPS 180 examples, HMAC-SHA256 against RFC 4231, and the
// agreement of the byte-by-byte and bulk paths; every case with each
// compression engine.
#include "Velto/Sha/sha256.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/sha_engines.h"
#include "tests/support/wire_bytes.h"

using testsupport::fromHex;
using testsupport::toHex;

namespace {

std::string sha256Of(const std::string& msg) {
    Sha256Class h;
    h.init();
    h.write(reinterpret_cast<const uint8_t*>(msg.data()), msg.size());
    return toHex(h.result(), SHA256_HASH_LENGTH);
}

std::string hmacOf(const std::vector<uint8_t>& key, const std::string& msg) {
    Sha256Class h;
    h.initHmac(key.data(), static_cast<int>(key.size()));
    h.write(msg.c_str());
    return toHex(h.resultHmac(), SHA256_HASH_LENGTH);
}

std::string bytes(size_t n, uint8_t b) { return std::string(n, static_cast<char>(b)); }

class Sha256Digest : public testsupport::ShaEngineTest {};
class Sha256Print : public testsupport::ShaEngineTest {};
class Sha256Hmac : public testsupport::ShaEngineTest {};

}  // namespace

TEST_P(Sha256Digest, Fips180Examples) {
    EXPECT_EQ(sha256Of("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(sha256Of(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(sha256Of("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

TEST_P(Sha256Digest, OneMillionAInUnevenChunks) {
    Sha256Class h;
    h.init();
    const std::string chunk(1001, 'a');
    size_t done = 0;
    while (done + chunk.size() <= 1000000) {
        h.write(reinterpret_cast<const uint8_t*>(chunk.data()), chunk.size());
        done += chunk.size();
    }
    while (done < 1000000) {
        h.write(static_cast<uint8_t>('a'));
        ++done;
    }
    EXPECT_EQ(toHex(h.result(), SHA256_HASH_LENGTH),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST_P(Sha256Digest, ByteAndBulkPathsAgreeAtEveryLength) {
    std::vector<uint8_t> msg(200);
    for (size_t i = 0; i < msg.size(); ++i) msg[i] = static_cast<uint8_t>(i * 17 + 3);
    for (size_t len = 0; len <= msg.size(); ++len) {
        Sha256Class one;
        one.init();
        for (size_t i = 0; i < len; ++i) one.write(msg[i]);
        Sha256Class bulk;
        bulk.init();
        bulk.write(msg.data(), len / 3);  // a partial block first, then the rest
        bulk.write(msg.data() + len / 3, msg.data() + len);
        EXPECT_EQ(toHex(one.result(), 32), toHex(bulk.result(), 32)) << len;
    }
}

TEST_P(Sha256Digest, InitStartsOver) {
    Sha256Class h;
    h.init();
    h.write("garbage");
    h.init();
    h.write("abc");
    EXPECT_EQ(toHex(h.result(), 32), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST_P(Sha256Print, EmptyAndInvalidInputsTakeNothing) {
    Sha256Class h;
    h.init();
    const uint8_t some[3] = {'a', 'b', 'c'};
    EXPECT_EQ(h.write(static_cast<const char*>(nullptr)), 0u);
    EXPECT_EQ(h.write(static_cast<const uint8_t*>(nullptr), size_t(5)), 0u);
    EXPECT_EQ(h.write(some, size_t(0)), 0u);
    EXPECT_EQ(h.write(some + 3, some), 0u);
    EXPECT_EQ(h.write(static_cast<const uint8_t*>(nullptr), some), 0u);
    EXPECT_EQ(toHex(h.result(), 32), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST_P(Sha256Hmac, Rfc4231Vectors) {
    EXPECT_EQ(hmacOf(std::vector<uint8_t>(20, 0x0b), "Hi There"),
              "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
    EXPECT_EQ(hmacOf(fromHex("4a656665"), "what do ya want for nothing?"),
              "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
    EXPECT_EQ(hmacOf(std::vector<uint8_t>(20, 0xaa), bytes(50, 0xdd)),
              "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe");
    EXPECT_EQ(hmacOf(fromHex("0102030405060708090a0b0c0d0e0f10111213141516171819"), bytes(50, 0xcd)),
              "82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b");
    EXPECT_EQ(hmacOf(std::vector<uint8_t>(20, 0x0c), "Test With Truncation").substr(0, 32),
              "a3b6167473100ee06e0c796c2955552b");
    EXPECT_EQ(hmacOf(std::vector<uint8_t>(131, 0xaa), "Test Using Larger Than Block-Size Key - Hash Key First"),
              "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54");
    EXPECT_EQ(hmacOf(std::vector<uint8_t>(131, 0xaa),
                     "This is a test using a larger than block-size key and a larger than block-size data. "
                     "The key needs to be hashed before being used by the HMAC algorithm."),
              "9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2");
}

TEST_P(Sha256Hmac, LongKeyActsAsItsDigest) {
    std::vector<uint8_t> key(70);
    for (size_t i = 0; i < key.size(); ++i) key[i] = static_cast<uint8_t>(i * 5 + 1);
    Sha256Class kh;
    kh.init();
    kh.write(key.data(), key.size());
    const uint8_t* d = kh.result();
    std::vector<uint8_t> digest(d, d + SHA256_HASH_LENGTH);
    EXPECT_EQ(hmacOf(key, "payload"), hmacOf(digest, "payload"));
}

TEST_P(Sha256Hmac, SixtyFourByteKeyIsUsedAsItIs) {
    std::vector<uint8_t> key(64, 0x42);
    Sha256Class kh;
    kh.init();
    kh.write(key.data(), key.size());
    const uint8_t* d = kh.result();
    std::vector<uint8_t> digest(d, d + SHA256_HASH_LENGTH);
    EXPECT_NE(hmacOf(key, "payload"), hmacOf(digest, "payload"));
    std::vector<uint8_t> shortKey(10, 0x42);
    std::vector<uint8_t> padded = shortKey;
    padded.resize(64, 0);
    EXPECT_EQ(hmacOf(shortKey, "m"), hmacOf(padded, "m"));
}

INSTANTIATE_FOR_SHA_ENGINES(Sha256Digest);
INSTANTIATE_FOR_SHA_ENGINES(Sha256Print);
INSTANTIATE_FOR_SHA_ENGINES(Sha256Hmac);
