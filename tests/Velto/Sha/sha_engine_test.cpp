// The engine choice, and the agreement of the two compression engines on
// digests and HMACs of every length around the block boundaries, fed whole and
// in pieces.
#include "Velto/Sha/sha_engine.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Velto/Sha/sha1.h"
#include "Velto/Sha/sha256.h"
#include "tests/support/wire_bytes.h"

using testsupport::toHex;

namespace {

// Restores the engine in use when the test ends.
class ShaEngineChoice : public ::testing::Test {
protected:
    ~ShaEngineChoice() override { selectShaEngine(previous); }
    ShaEngine previous = activeShaEngine();
};

std::vector<uint8_t> pattern(size_t n) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 131 + (i >> 8) * 7 + 1);
    return v;
}

// Digest of data with `Hasher`, fed in two pieces split at `cut`.
template <typename Hasher>
std::string digest(const std::vector<uint8_t>& data, size_t cut, size_t len) {
    Hasher h;
    h.init();
    h.write(data.data(), cut);
    h.write(data.data() + cut, data.size() - cut);
    return toHex(h.result(), len);
}

template <typename Hasher>
std::string hmac(const std::vector<uint8_t>& key, const std::vector<uint8_t>& data, size_t len) {
    Hasher h;
    h.initHmac(key.data(), static_cast<int>(key.size()));
    h.write(data.data(), data.size());
    return toHex(h.resultHmac(), len);
}

// Every result of `run` for lengths 0..n, with the given engine.
template <typename Run>
std::vector<std::string> allLengths(ShaEngine engine, size_t n, Run run) {
    selectShaEngine(engine);
    std::vector<std::string> out;
    for (size_t len = 0; len <= n; ++len) out.push_back(run(pattern(len)));
    return out;
}

}  // namespace

TEST_F(ShaEngineChoice, PortableAlwaysAndExtensionsOnlyWhereAvailable) {
    EXPECT_EQ(ShaEngine::PORTABLE, selectShaEngine(ShaEngine::PORTABLE));
    EXPECT_EQ(ShaEngine::PORTABLE, activeShaEngine());
    const ShaEngine expected = shaExtensionsAvailable() ? ShaEngine::SHA_EXTENSIONS : ShaEngine::PORTABLE;
    EXPECT_EQ(expected, selectShaEngine(ShaEngine::SHA_EXTENSIONS));
    EXPECT_EQ(expected, activeShaEngine());
}

TEST_F(ShaEngineChoice, BothEnginesAgreeAtEveryLength) {
    if (!shaExtensionsAvailable()) GTEST_SKIP() << "this processor has no SHA extensions";
    const size_t n = 5 * 64 + 3;
    auto sha1 = [](const std::vector<uint8_t>& d) {
        return digest<Sha1Class>(d, d.size() / 3, SHA1_HASH_LENGTH) + hmac<Sha1Class>(pattern(d.size() % 90), d, 20);
    };
    auto sha256 = [](const std::vector<uint8_t>& d) {
        return digest<Sha256Class>(d, d.size() / 3, SHA256_HASH_LENGTH) +
               hmac<Sha256Class>(pattern(d.size() % 90), d, 32);
    };
    const auto sha1Portable = allLengths(ShaEngine::PORTABLE, n, sha1);
    const auto sha1Ext = allLengths(ShaEngine::SHA_EXTENSIONS, n, sha1);
    const auto sha256Portable = allLengths(ShaEngine::PORTABLE, n, sha256);
    const auto sha256Ext = allLengths(ShaEngine::SHA_EXTENSIONS, n, sha256);
    for (size_t len = 0; len <= n; ++len) {
        EXPECT_EQ(sha1Portable[len], sha1Ext[len]) << "SHA-1, " << len << " bytes";
        EXPECT_EQ(sha256Portable[len], sha256Ext[len]) << "SHA-256, " << len << " bytes";
    }
}

TEST_F(ShaEngineChoice, EnginesCanChangeBetweenMessagesAndMidMessage) {
    // The state between blocks is the same for both, so a hasher may even
    // change engine half way.
    const std::vector<uint8_t> data = pattern(1000);
    selectShaEngine(ShaEngine::PORTABLE);
    const std::string reference = digest<Sha256Class>(data, 0, 32);
    Sha256Class h;
    h.init();
    h.write(data.data(), 500);
    selectShaEngine(ShaEngine::SHA_EXTENSIONS);
    h.write(data.data() + 500, 500);
    EXPECT_EQ(reference, toHex(h.result(), 32));
    EXPECT_EQ(reference, digest<Sha256Class>(data, 999, 32));
}
