// Checks shared by the SHA-1 and SHA-256 suites: published vectors, the one
// million 'a' message in uneven chunks, byte-by-byte against bulk writes,
// restarts, refused inputs and the HMAC key rules. H is the hash class, LEN
// its digest length in bytes; every check runs with the engine the calling
// ShaEngineTest selected.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/sha_engines.h"
#include "tests/support/wire_bytes.h"

namespace testsupport {

struct DigestVector {
    std::string msg;
    std::string hex;
};

// hex may be a prefix of the whole HMAC (a truncated-output vector).
struct HmacVector {
    std::vector<uint8_t> key;
    std::string msg;
    std::string hex;
};

template <typename H, size_t LEN>
struct ShaChecks {
    static std::string digest(const std::string& msg) {
        H h;
        h.init();
        h.write(reinterpret_cast<const uint8_t*>(msg.data()), msg.size());
        return toHex(h.result(), LEN);
    }

    static std::string hmac(const std::vector<uint8_t>& key, const std::string& msg) {
        H h;
        h.initHmac(key.data(), static_cast<int>(key.size()));
        h.write(msg.c_str());
        return toHex(h.resultHmac(), LEN);
    }

    static void digestVectors(const std::vector<DigestVector>& vectors) {
        for (const DigestVector& v : vectors) EXPECT_EQ(digest(v.msg), v.hex) << "[" << v.msg << "]";
    }

    static void hmacVectors(const std::vector<HmacVector>& vectors) {
        for (size_t i = 0; i < vectors.size(); ++i)
            EXPECT_EQ(hmac(vectors[i].key, vectors[i].msg).substr(0, vectors[i].hex.size()), vectors[i].hex)
                << "vector " << i + 1;
    }

    // One million 'a' written in chunks of `chunk` bytes, the rest byte by byte.
    static void millionA(size_t chunk, const std::string& hex) {
        H h;
        h.init();
        const std::string part(chunk, 'a');
        size_t done = 0;
        for (; done + chunk <= 1000000; done += chunk) h.write(reinterpret_cast<const uint8_t*>(part.data()), chunk);
        for (; done < 1000000; ++done) h.write(static_cast<uint8_t>('a'));
        EXPECT_EQ(toHex(h.result(), LEN), hex);
    }

    // Every length up to 200: byte by byte equals a partial block then the rest.
    static void byteAndBulkAgree(uint8_t mul, uint8_t add) {
        std::vector<uint8_t> msg(200);
        for (size_t i = 0; i < msg.size(); ++i) msg[i] = static_cast<uint8_t>(i * mul + add);
        for (size_t len = 0; len <= msg.size(); ++len) {
            H one;
            one.init();
            for (size_t i = 0; i < len; ++i) one.write(msg[i]);
            H bulk;
            bulk.init();
            bulk.write(msg.data(), len / 3);
            bulk.write(msg.data() + len / 3, msg.data() + len);
            EXPECT_EQ(toHex(one.result(), LEN), toHex(bulk.result(), LEN)) << len;
        }
    }

    // init() starts over; empty and invalid writes take nothing.
    static void restartAndRefusals(const std::string& abcHex, const std::string& emptyHex) {
        H h;
        h.init();
        h.write("garbage");
        h.init();
        h.write("abc");
        EXPECT_EQ(toHex(h.result(), LEN), abcHex);

        H e;
        e.init();
        const uint8_t some[3] = {'a', 'b', 'c'};
        EXPECT_EQ(e.write(static_cast<const char*>(nullptr)), 0u);
        EXPECT_EQ(e.write(static_cast<const uint8_t*>(nullptr), size_t(5)), 0u);
        EXPECT_EQ(e.write(some, size_t(0)), 0u);
        EXPECT_EQ(e.write(some + 3, some), 0u);
        EXPECT_EQ(e.write(some, static_cast<const uint8_t*>(nullptr)), 0u);
        EXPECT_EQ(e.write(static_cast<const uint8_t*>(nullptr), some), 0u);
        EXPECT_EQ(toHex(e.result(), LEN), emptyHex);
    }

    // A key of exactly the 64-byte block is used as it is, not hashed (the
    // published vectors cover short keys and keys longer than a block).
    static void hmacKeyRules(uint8_t fill) {
        std::vector<uint8_t> blockKey(64, fill);
        EXPECT_NE(hmac(blockKey, "payload"), hmac(digestOf(blockKey), "payload"));
    }

private:
    static std::vector<uint8_t> digestOf(const std::vector<uint8_t>& data) {
        H h;
        h.init();
        h.write(data.data(), data.size());
        const uint8_t* d = h.result();
        return std::vector<uint8_t>(d, d + LEN);
    }
};

}  // namespace testsupport
