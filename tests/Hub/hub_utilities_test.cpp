#include "Hub/hub_utilities.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include "tests/support/test_support.h"

using Bytes = std::vector<unsigned char>;

TEST(Bin2HexTest, BufferForm) {
    const unsigned char data[] = {0x00, 0x7F, 0x0A, 0xFF};
    std::string out = "old";
    EXPECT_TRUE(bin2hex(data, 2, out));
    EXPECT_EQ("007f", out);
    EXPECT_TRUE(bin2hex(data + 2, 2, out));
    EXPECT_EQ("0aff", out);

    // Empty input keeps what was there; null data with a length is refused.
    out = "keep";
    EXPECT_TRUE(bin2hex(data, 0, out));
    EXPECT_TRUE(bin2hex(nullptr, 0, out));
    EXPECT_EQ("keep", out);
    EXPECT_FALSE(bin2hex(nullptr, 3, out));
    EXPECT_EQ("keep", out);
}

TEST(Bin2HexTest, VectorFormAlwaysReplaces) {
    std::string out = "keep";
    EXPECT_TRUE(bin2hex(Bytes{}, out));
    EXPECT_EQ("", out);
    Bytes all(256);
    for (int i = 0; i < 256; ++i) all[i] = static_cast<unsigned char>(i);
    EXPECT_TRUE(bin2hex(all, out));
    ASSERT_EQ(512u, out.size());
    EXPECT_EQ("000102", out.substr(0, 6));
    EXPECT_EQ("feff", out.substr(508));
    // Every byte survives the way back.
    Bytes back;
    EXPECT_EQ(256u, hex2bin(out, back));
    EXPECT_EQ(all, back);
}

TEST(Hex2BinTest, BufferForm) {
    unsigned char out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(1u, hex2bin("ABcd", out, 1));
    EXPECT_EQ(0xAB, out[0]);
    EXPECT_EQ(0xEE, out[1]);  // nothing past the capacity

    EXPECT_EQ(1u, hex2bin("abc", out, 4));  // odd last character ignored
    EXPECT_EQ(0xAB, out[0]);
    EXPECT_EQ(0xEE, out[1]);
    EXPECT_EQ(0u, hex2bin("", out, 4));
    EXPECT_EQ(0u, hex2bin("abcd", nullptr, 4));
    EXPECT_EQ(0u, hex2bin("abcd", out, 0));
}

TEST(Hex2BinTest, FormattedReadingOfEachPair) {
    unsigned char out[6];
    // "zz" is no number: 0; "az" is the first digit alone; " f" skips the
    // blank; "-1" is a signed -1 whose low byte is ff; "+7" reads 7.
    EXPECT_EQ(6u, hex2bin("zzaz f-1+709", out, sizeof(out)));
    EXPECT_EQ(0x00, out[0]);
    EXPECT_EQ(0x0A, out[1]);
    EXPECT_EQ(0x0F, out[2]);
    EXPECT_EQ(0xFF, out[3]);
    EXPECT_EQ(0x07, out[4]);
    EXPECT_EQ(0x09, out[5]);
}

TEST(Hex2BinTest, VectorAppends) {
    Bytes v{0x55};
    EXPECT_EQ(2u, hex2bin("0102", v));
    EXPECT_EQ((Bytes{0x55, 0x01, 0x02}), v);
    EXPECT_EQ(1u, hex2bin("Fe7", v));
    EXPECT_EQ((Bytes{0x55, 0x01, 0x02, 0xFE}), v);
    EXPECT_EQ(0u, hex2bin("f", v));
    EXPECT_EQ(4u, v.size());
}

TEST(BinXorTest, BufferForm) {
    unsigned char a[3] = {0x01, 0x02, 0x03};
    const unsigned char b[3] = {0xFF, 0x0F, 0x03};
    unsigned char out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    binXOR(a, b, out, 3);
    EXPECT_EQ(0xFE, out[0]);
    EXPECT_EQ(0x0D, out[1]);
    EXPECT_EQ(0x00, out[2]);
    EXPECT_EQ(0xEE, out[3]);

    // Null operands or zero length do nothing.
    unsigned char untouched[3] = {7, 7, 7};
    binXOR(nullptr, b, untouched, 3);
    binXOR(a, nullptr, untouched, 3);
    binXOR(a, b, untouched, 0);
    binXOR(a, b, nullptr, 3);
    EXPECT_EQ(7, untouched[0]);

    // In place.
    binXOR(a, b, a, 3);
    EXPECT_EQ(0xFE, a[0]);
    EXPECT_EQ(0x00, a[2]);
}

TEST(BinXorTest, VectorFormRepeatsTheShorter) {
    Bytes a{0x01, 0x02, 0x03}, b{0xFF}, out{9, 9, 9, 9, 9};
    binXOR(a, b, out);
    EXPECT_EQ((Bytes{0xFE, 0xFD, 0xFC}), out);
    binXOR(b, a, out);
    EXPECT_EQ((Bytes{0xFE, 0xFD, 0xFC}), out);

    Bytes c{0x10, 0x20}, d{0x01, 0x02, 0x03, 0x04, 0x05};
    binXOR(c, d, out);
    EXPECT_EQ((Bytes{0x11, 0x22, 0x13, 0x24, 0x15}), out);

    // Result into one of the operands.
    binXOR(c, d, c);
    EXPECT_EQ((Bytes{0x11, 0x22, 0x13, 0x24, 0x15}), c);
}

TEST(BinXorTest, VectorFormEmptyOperands) {
    Bytes empty, some{1, 2}, out{9};
    binXOR(empty, empty, out);
    EXPECT_TRUE(out.empty());
    out = {9};
    binXOR(empty, some, out);
    EXPECT_TRUE(out.empty());
    out = {9};
    binXOR(some, empty, out);
    EXPECT_TRUE(out.empty());
}

TEST(GetdirTest, ListsEverythingAndAppends) {
    testsupport::TempDir dir;
    std::vector<std::string> files{"kept"};
    EXPECT_EQ(0, getdir(dir.path(), files));
    std::sort(files.begin(), files.end());
    EXPECT_EQ((std::vector<std::string>{".", "..", "kept"}), files);

    ASSERT_TRUE(testsupport::writeFile(dir.file("x.dev"), "DUID=x\n"));
    files.clear();
    EXPECT_EQ(0, getdir(dir.path(), files));
    EXPECT_EQ(3u, files.size());
    EXPECT_EQ(1, std::count(files.begin(), files.end(), "x.dev"));
}

TEST(GetdirTest, MissingDirectoryPrintsErrorLine) {
    testsupport::TempDir dir;
    const std::string missing = dir.file("nope");
    std::vector<std::string> files{"kept"};
    testing::internal::CaptureStdout();
    const int rc = getdir(missing, files);
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(ENOENT, rc);
    EXPECT_EQ("Error(" + std::to_string(ENOENT) + ") opening " + missing + "\n", printed);
    EXPECT_EQ(std::vector<std::string>{"kept"}, files);
}
