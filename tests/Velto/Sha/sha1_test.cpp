// SHA-1 against the FIPS 180 examples, HMAC-SHA1 against RFC 2202, and the
// agreement of the byte-by-byte and bulk paths; every case with each
// compression engine.
#include "Velto/Sha/sha1.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/sha_engines.h"
#include "tests/support/wire_bytes.h"

using testsupport::fromHex;
using testsupport::toHex;

namespace {

std::string sha1Of(const std::string& msg) {
    Sha1Class h;
    h.init();
    h.write(reinterpret_cast<const uint8_t*>(msg.data()), msg.size());
    return toHex(h.result(), SHA1_HASH_LENGTH);
}

std::string hmacOf(const std::vector<uint8_t>& key, const std::string& msg) {
    Sha1Class h;
    h.initHmac(key.data(), static_cast<int>(key.size()));
    h.write(msg.c_str());
    return toHex(h.resultHmac(), SHA1_HASH_LENGTH);
}

std::string bytes(size_t n, uint8_t b) { return std::string(n, static_cast<char>(b)); }

class Sha1Digest : public testsupport::ShaEngineTest {};
class Sha1Print : public testsupport::ShaEngineTest {};
class Sha1Hmac : public testsupport::ShaEngineTest {};

}  // namespace

TEST_P(Sha1Digest, Fips180Examples) {
    EXPECT_EQ(sha1Of("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(sha1Of(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(sha1Of("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
}

TEST_P(Sha1Digest, OneMillionAInUnevenChunks) {
    Sha1Class h;
    h.init();
    const std::string chunk(997, 'a');
    size_t done = 0;
    while (done + chunk.size() <= 1000000) {
        h.write(reinterpret_cast<const uint8_t*>(chunk.data()), chunk.size());
        done += chunk.size();
    }
    while (done < 1000000) {
        h.write(static_cast<uint8_t>('a'));
        ++done;
    }
    EXPECT_EQ(toHex(h.result(), SHA1_HASH_LENGTH), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
}

TEST_P(Sha1Digest, ByteAndBulkPathsAgreeAtEveryLength) {
    std::vector<uint8_t> msg(200);
    for (size_t i = 0; i < msg.size(); ++i) msg[i] = static_cast<uint8_t>(i * 31 + 7);
    for (size_t len = 0; len <= msg.size(); ++len) {
        Sha1Class one;
        one.init();
        for (size_t i = 0; i < len; ++i) one.write(msg[i]);
        Sha1Class bulk;
        bulk.init();
        bulk.write(msg.data(), len / 3);  // a partial block first, then the rest
        bulk.write(msg.data() + len / 3, msg.data() + len);
        EXPECT_EQ(toHex(one.result(), 20), toHex(bulk.result(), 20)) << len;
    }
}

TEST_P(Sha1Digest, InitStartsOver) {
    Sha1Class h;
    h.init();
    h.write("garbage");
    h.init();
    h.write("abc");
    EXPECT_EQ(toHex(h.result(), 20), "a9993e364706816aba3e25717850c26c9cd0d89d");
}

TEST_P(Sha1Print, EmptyAndInvalidInputsTakeNothing) {
    Sha1Class h;
    h.init();
    const uint8_t some[3] = {'a', 'b', 'c'};
    EXPECT_EQ(h.write(static_cast<const char*>(nullptr)), 0u);
    EXPECT_EQ(h.write(static_cast<const uint8_t*>(nullptr), size_t(5)), 0u);
    EXPECT_EQ(h.write(some, size_t(0)), 0u);
    EXPECT_EQ(h.write(some + 3, some), 0u);
    EXPECT_EQ(h.write(some, static_cast<const uint8_t*>(nullptr)), 0u);
    EXPECT_EQ(toHex(h.result(), 20), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST_P(Sha1Hmac, Rfc2202Vectors) {
    EXPECT_EQ(hmacOf(std::vector<uint8_t>(20, 0x0b), "Hi There"), "b617318655057264e28bc0b6fb378c8ef146be00");
    EXPECT_EQ(hmacOf(fromHex("4a656665"), "what do ya want for nothing?"),
              "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79");
    EXPECT_EQ(hmacOf(std::vector<uint8_t>(20, 0xaa), bytes(50, 0xdd)), "125d7342b9ac11cd91a39af48aa17b4f63f175d3");
    EXPECT_EQ(hmacOf(fromHex("0102030405060708090a0b0c0d0e0f10111213141516171819"), bytes(50, 0xcd)),
              "4c9007f4026250c6bc8414f9bf50c86c2d7235da");
    EXPECT_EQ(hmacOf(std::vector<uint8_t>(20, 0x0c), "Test With Truncation"),
              "4c1a03424b55e07fe7f27be1d58bb9324a9a5a04");
    EXPECT_EQ(hmacOf(std::vector<uint8_t>(80, 0xaa), "Test Using Larger Than Block-Size Key - Hash Key First"),
              "aa4ae5e15272d00e95705637ce8a3b55ed402112");
    EXPECT_EQ(hmacOf(std::vector<uint8_t>(80, 0xaa),
                     "Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data"),
              "e8e99d0f45237d786d6bbaa7965c7808bbff1a91");
}

TEST_P(Sha1Hmac, LongKeyActsAsItsDigest) {
    std::vector<uint8_t> key(70);
    for (size_t i = 0; i < key.size(); ++i) key[i] = static_cast<uint8_t>(i + 100);
    Sha1Class kh;
    kh.init();
    kh.write(key.data(), key.size());
    const uint8_t* d = kh.result();
    std::vector<uint8_t> digest(d, d + SHA1_HASH_LENGTH);
    EXPECT_EQ(hmacOf(key, "payload"), hmacOf(digest, "payload"));
}

TEST_P(Sha1Hmac, SixtyFourByteKeyIsUsedAsItIs) {
    std::vector<uint8_t> key(64, 0x42);
    Sha1Class kh;
    kh.init();
    kh.write(key.data(), key.size());
    const uint8_t* d = kh.result();
    std::vector<uint8_t> digest(d, d + SHA1_HASH_LENGTH);
    EXPECT_NE(hmacOf(key, "payload"), hmacOf(digest, "payload"));
    // A key padded with zeros up to the block is the same key.
    std::vector<uint8_t> shortKey(10, 0x42);
    std::vector<uint8_t> padded = shortKey;
    padded.resize(64, 0);
    EXPECT_EQ(hmacOf(shortKey, "m"), hmacOf(padded, "m"));
}

TEST_P(Sha1Hmac, ResultAreaStartsWithTheDigest) {
    Sha1Class h;
    h.initHmac(reinterpret_cast<const uint8_t*>("Jefe"), 4);
    h.write("what do ya want for nothing?");
    h.resultHmac();
    uint8_t area[32];
    h.copyResultArea(area);
    EXPECT_EQ(toHex(area, 20), "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79");
}

INSTANTIATE_FOR_SHA_ENGINES(Sha1Digest);
INSTANTIATE_FOR_SHA_ENGINES(Sha1Print);
INSTANTIATE_FOR_SHA_ENGINES(Sha1Hmac);
