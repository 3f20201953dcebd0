#include "Hub/hub_utilities.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/support/test_support.h"

using Bytes = std::vector<unsigned char>;

TEST(HexTest, RoundTripAndFormattedPairReading) {
    Bytes all(256), back;
    for (int i = 0; i < 256; ++i) all[i] = static_cast<unsigned char>(i);
    std::string out;
    EXPECT_TRUE(bin2hex(all, out));
    EXPECT_EQ("000102", out.substr(0, 6));
    EXPECT_EQ(256u, hex2bin(out, back));
    EXPECT_EQ(all, back);

    unsigned char buf[6] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(1u, hex2bin("ABcd", buf, 1));
    EXPECT_EQ(0xEE, buf[1]);  // nothing past the capacity
    // Each pair is read as a stream would: "zz" is 0, "az" the first digit
    // alone, " f" skips the blank, "-1" keeps the low byte ff, "+7" is 7.
    EXPECT_EQ(6u, hex2bin("zzaz f-1+709", buf, sizeof(buf)));
    EXPECT_EQ((Bytes{0x00, 0x0A, 0x0F, 0xFF, 0x07, 0x09}), Bytes(buf, buf + 6));
}

TEST(XorTest, VectorFormRepeatsTheShorterAndGuardsEmpty) {
    Bytes a{0x01, 0x02, 0x03}, b{0xFF}, out{9, 9, 9, 9, 9}, empty;
    binXOR(a, b, out);
    EXPECT_EQ((Bytes{0xFE, 0xFD, 0xFC}), out);
    binXOR(empty, a, out);
    EXPECT_TRUE(out.empty());
    unsigned char x[3] = {0x01, 0x02, 0x03};
    binXOR(x, x, x, 3);  // in place
    EXPECT_EQ((Bytes{0, 0, 0}), Bytes(x, x + 3));
}

TEST(GetdirTest, ReportsAMissingDirectory) {
    testsupport::TempDir dir;
    std::vector<std::string> files;
    const std::string missing = dir.file("nope");
    EXPECT_EQ("Error(2) opening " + missing + "\n",
              testsupport::stdoutOf([&] { EXPECT_EQ(ENOENT, getdir(missing, files)); }));
}
