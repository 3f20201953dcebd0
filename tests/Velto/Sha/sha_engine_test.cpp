// The engine choice, and the agreement of the two compression engines on
// digests of every length around the block boundaries, also when the engine
// changes in the middle of a message.
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

// Digest of `n` pattern bytes, fed in two pieces, the engine switched to `second` at the cut.
template <typename Hasher>
std::string digest(size_t n, ShaEngine first, ShaEngine second, size_t len) {
    std::vector<uint8_t> data(n);
    for (size_t i = 0; i < n; ++i) data[i] = static_cast<uint8_t>(i * 131 + (i >> 8) * 7 + 1);
    selectShaEngine(first);
    Hasher h;
    h.init();
    h.write(data.data(), n / 3);
    selectShaEngine(second);
    h.write(data.data() + n / 3, n - n / 3);
    return toHex(h.result(), len);
}

}  // namespace

TEST_F(ShaEngineChoice, ExtensionsOnlyWhereAvailableAndBothEnginesAgree) {
    EXPECT_EQ(ShaEngine::PORTABLE, selectShaEngine(ShaEngine::PORTABLE));
    const ShaEngine expected = shaExtensionsAvailable() ? ShaEngine::SHA_EXTENSIONS : ShaEngine::PORTABLE;
    EXPECT_EQ(expected, selectShaEngine(ShaEngine::SHA_EXTENSIONS));
    if (!shaExtensionsAvailable()) GTEST_SKIP() << "this processor has no SHA extensions";
    const ShaEngine P = ShaEngine::PORTABLE, X = ShaEngine::SHA_EXTENSIONS;
    for (size_t n = 0; n <= 5 * 64 + 3; ++n) {
        const std::string sha1 = digest<Sha1Class>(n, P, P, SHA1_HASH_LENGTH);
        EXPECT_EQ(sha1, digest<Sha1Class>(n, X, X, SHA1_HASH_LENGTH)) << n;
        EXPECT_EQ(sha1, digest<Sha1Class>(n, P, X, SHA1_HASH_LENGTH)) << n;
        const std::string sha256 = digest<Sha256Class>(n, P, P, SHA256_HASH_LENGTH);
        EXPECT_EQ(sha256, digest<Sha256Class>(n, X, X, SHA256_HASH_LENGTH)) << n;
        EXPECT_EQ(sha256, digest<Sha256Class>(n, X, P, SHA256_HASH_LENGTH)) << n;
    }
}
