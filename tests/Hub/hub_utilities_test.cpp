#include "Hub/hub_utilities.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include "tests/support/test_support.h"

using Bytes = std::vector<unsigned char>;

TEST(HexTest, Bin2HexFormsAndTheirAsymmetry) {
    const unsigned char data[] = {0x00, 0x7F, 0x0A, 0xFF};
    std::string out = "old";
    EXPECT_TRUE(bin2hex(data, 4, out));
    EXPECT_EQ("007f0aff", out);
    out = "keep";
    EXPECT_TRUE(bin2hex(data, 0, out));  // empty buffer: out kept
    EXPECT_FALSE(bin2hex(nullptr, 3, out));
    EXPECT_EQ("keep", out);
    EXPECT_TRUE(bin2hex(Bytes{}, out));  // empty vector: out cleared
    EXPECT_EQ("", out);

    Bytes all(256), back;
    for (int i = 0; i < 256; ++i) all[i] = static_cast<unsigned char>(i);
    EXPECT_TRUE(bin2hex(all, out));
    EXPECT_EQ("000102", out.substr(0, 6));
    EXPECT_EQ(256u, hex2bin(out, back));
    EXPECT_EQ(all, back);
}

TEST(HexTest, Hex2BinBufferForm) {
    unsigned char out[6] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(1u, hex2bin("ABcd", out, 1));
    EXPECT_EQ(0xAB, out[0]);
    EXPECT_EQ(0xEE, out[1]);  // nothing past the capacity
    EXPECT_EQ(1u, hex2bin("abc", out, 6));  // odd last character ignored
    EXPECT_EQ(0xEE, out[1]);
    EXPECT_EQ(0u, hex2bin("", out, 6));
    EXPECT_EQ(0u, hex2bin("abcd", nullptr, 6));

    // Formatted reading of each pair: "zz" is 0, "az" the first digit alone,
    // " f" skips the blank, "-1" keeps the low byte ff, "+7" is 7.
    EXPECT_EQ(6u, hex2bin("zzaz f-1+709", out, sizeof(out)));
    EXPECT_EQ((Bytes{0x00, 0x0A, 0x0F, 0xFF, 0x07, 0x09}), Bytes(out, out + 6));
}

TEST(HexTest, Hex2BinVectorAppends) {
    Bytes v{0x55};
    EXPECT_EQ(2u, hex2bin("0102", v));
    EXPECT_EQ(1u, hex2bin("Fe7", v));
    EXPECT_EQ((Bytes{0x55, 0x01, 0x02, 0xFE}), v);
}

TEST(XorTest, BufferForm) {
    unsigned char a[3] = {0x01, 0x02, 0x03};
    const unsigned char b[3] = {0xFF, 0x0F, 0x03};
    unsigned char out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    binXOR(a, b, out, 3);
    EXPECT_EQ((Bytes{0xFE, 0x0D, 0x00, 0xEE}), Bytes(out, out + 4));
    binXOR(nullptr, b, out, 3);
    binXOR(a, b, out, 0);
    binXOR(a, b, nullptr, 3);
    EXPECT_EQ(0xFE, out[0]);
    binXOR(a, b, a, 3);  // in place
    EXPECT_EQ((Bytes{0xFE, 0x0D, 0x00}), Bytes(a, a + 3));
}

TEST(XorTest, VectorFormRepeatsShorterAndGuardsEmpty) {
    Bytes a{0x01, 0x02, 0x03}, b{0xFF}, out{9, 9, 9, 9, 9};
    binXOR(a, b, out);
    EXPECT_EQ((Bytes{0xFE, 0xFD, 0xFC}), out);
    Bytes c{0x10, 0x20}, d{0x01, 0x02, 0x03, 0x04, 0x05};
    binXOR(c, d, c);  // into an operand
    EXPECT_EQ((Bytes{0x11, 0x22, 0x13, 0x24, 0x15}), c);

    Bytes empty;
    for (Bytes* other : {&empty, &a}) {
        out = {9};
        binXOR(empty, *other, out);
        EXPECT_TRUE(out.empty());
        out = {9};
        binXOR(*other, empty, out);
        EXPECT_TRUE(out.empty());
    }
}

TEST(GetdirTest, ListsAppendsAndReportsErrors) {
    testsupport::TempDir dir;
    std::vector<std::string> files{"kept"};
    EXPECT_EQ(0, getdir(dir.path(), files));
    std::sort(files.begin(), files.end());
    EXPECT_EQ((std::vector<std::string>{".", "..", "kept"}), files);

    const std::string missing = dir.file("nope");
    EXPECT_EQ("Error(2) opening " + missing + "\n",
              testsupport::stdoutOf([&] { EXPECT_EQ(ENOENT, getdir(missing, files)); }));
    EXPECT_EQ(3u, files.size());
}
