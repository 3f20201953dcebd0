// Primitive wire encodings: exact bytes, cursor movement, refusals, and reads from
// exactly sized heap buffers.
#include "Velto/data_packing.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/wire_bytes.h"

using testsupport::fromHex;
using testsupport::ReadCursor;
using testsupport::toHex;

namespace {

// Writes one value into a fresh buffer of `room` bytes and returns the bytes written.
template <typename T>
std::vector<uint8_t> packed(const T& v, size_t room = 16) {
    std::vector<uint8_t> buf(room, 0xEE);
    uint8_t* cur = buf.data();
    size_t left = room;
    EXPECT_TRUE(addToBuffer(v, cur, left));
    buf.resize(room - left);
    return buf;
}

std::vector<uint8_t> vlq(uint32_t v) {
    std::vector<uint8_t> buf(8, 0xEE);
    uint8_t* cur = buf.data();
    size_t left = buf.size();
    EXPECT_TRUE(encodeSizeVLQ(v, cur, left));
    buf.resize(buf.size() - left);
    return buf;
}

// A writer with `room` bytes of 0xEE; the tests check what was refused left alone.
struct Writer {
    explicit Writer(size_t room) : buf(room, 0xEE), cur(buf.data()), left(room) {}
    std::vector<uint8_t> buf;
    uint8_t* cur;
    size_t left;
    bool untouched() const { return cur == buf.data() && left == buf.size() && (buf.empty() || buf[0] == 0xEE); }
};

}  // namespace

// ---- integers ----

TEST(DataPackingIntegers, BigEndianWireFormsAndReadBack) {
    EXPECT_EQ(toHex(packed(uint8_t(0xAB))), "ab");
    EXPECT_EQ(toHex(packed(int8_t(-2))), "fe");
    EXPECT_EQ(toHex(packed(uint16_t(0x1234))), "1234");
    EXPECT_EQ(toHex(packed(int16_t(-2))), "fffe");
    EXPECT_EQ(toHex(packed(uint32_t(0x01020304))), "01020304");
    EXPECT_EQ(toHex(packed(int32_t(-1))), "ffffffff");
    EXPECT_EQ(toHex(packed(uint64_t(1))), "0000000000000001");
    EXPECT_EQ(toHex(packed(uint64_t(0x0102030405060708ull))), "0102030405060708");
    EXPECT_EQ(toHex(packed(int64_t(-3))), "fffffffffffffffd");

    ReadCursor r(fromHex("ab fffe 01020304 ffffff9c 0102030405060708 fffffffffffffffd"));
    uint8_t u8 = 0;
    int16_t i16 = 0;
    uint32_t u32 = 0;
    int32_t i32 = 0;
    uint64_t u64 = 0;
    int64_t i64 = 0;
    EXPECT_TRUE(getFromBuffer(r.cur, r.left, u8) && getFromBuffer(r.cur, r.left, i16) &&
                getFromBuffer(r.cur, r.left, u32) && getFromBuffer(r.cur, r.left, i32) &&
                getFromBuffer(r.cur, r.left, u64) && getFromBuffer(r.cur, r.left, i64));
    EXPECT_EQ(u8, 0xAB);
    EXPECT_EQ(i16, -2);
    EXPECT_EQ(u32, 0x01020304u);
    EXPECT_EQ(i32, -100);
    EXPECT_EQ(u64, 0x0102030405060708ull);
    EXPECT_EQ(i64, -3);
    EXPECT_EQ(r.left, 0u);
    EXPECT_EQ(r.cur, r.begin() + r.bytes.size());
    EXPECT_FALSE(getFromBuffer(r.cur, r.left, u8));
}

TEST(DataPackingIntegers, ShortOrNullCursorFailsWithoutMoving) {
    ReadCursor r(fromHex("010203"));
    uint32_t u32 = 7;
    EXPECT_FALSE(getFromBuffer(r.cur, r.left, u32));
    EXPECT_EQ(r.cur, r.begin());
    EXPECT_EQ(r.left, 3u);
    EXPECT_EQ(u32, 7u);
    const uint8_t* none = nullptr;
    size_t lots = 100;
    uint8_t u8 = 0;
    EXPECT_FALSE(getFromBuffer(none, lots, u8));

    Writer w(1);
    EXPECT_FALSE(addToBuffer(uint16_t(1), w.cur, w.left));
    EXPECT_TRUE(w.untouched());
    uint8_t* nullOut = nullptr;
    size_t room = 8;
    EXPECT_FALSE(addToBuffer(uint8_t(1), nullOut, room));
}

TEST(DataPackingIntegers, SixtyFourBitAttemptsBothHalves) {
    // Six bytes of room: the high half goes in, the low half does not fit.
    Writer w(6);
    EXPECT_FALSE(addToBuffer(uint64_t(0x1122334455667788ull), w.cur, w.left));
    EXPECT_EQ(toHex(w.buf.data(), 4), "11223344");
    EXPECT_EQ(w.left, 2u);

    ReadCursor r(fromHex("0a0b0c0d 0e"));
    uint64_t v = 0;
    EXPECT_FALSE(getFromBuffer(r.cur, r.left, v));
    EXPECT_EQ(r.left, 1u);
}

// ---- texts ----

TEST(DataPackingText, WriteCapsTerminatesAndRefusesWhenNoRoomForTheNul) {
    Writer w(16);
    EXPECT_TRUE(addToBuffer("hello", 32, w.cur, w.left));
    EXPECT_TRUE(addToBuffer("abcdef", 3, w.cur, w.left));
    EXPECT_TRUE(addToBuffer(std::string("xy"), 8, w.cur, w.left));
    EXPECT_EQ(toHex(w.buf.data(), w.buf.size() - w.left), "68656c6c6f00" "61626300" "787900");

    Writer small(5);
    EXPECT_FALSE(addToBuffer("hello", 32, small.cur, small.left));
    EXPECT_TRUE(small.untouched());
    EXPECT_FALSE(addToBuffer(static_cast<const char*>(nullptr), 32, small.cur, small.left));
    uint8_t* nullOut = nullptr;
    EXPECT_FALSE(addToBuffer("a", 32, nullOut, small.left));
}

TEST(DataPackingText, ReadStopsAtNulAndAtTheCount) {
    ReadCursor r(fromHex("616200 6364"));  // "ab", then "cd" with no NUL before the end
    char dst[10];
    EXPECT_TRUE(getFromBuffer(r.cur, r.left, dst, 8));
    EXPECT_STREQ(dst, "ab");
    EXPECT_EQ(r.left, 2u);
    EXPECT_TRUE(getFromBuffer(r.cur, r.left, dst, 8));
    EXPECT_STREQ(dst, "cd");
    EXPECT_EQ(r.left, 0u);
    EXPECT_FALSE(getFromBuffer(r.cur, r.left, dst, 8));
    ReadCursor again(fromHex("616200"));
    EXPECT_FALSE(getFromBuffer(again.cur, again.left, static_cast<char*>(nullptr), 8));
}

// A text is read up to one byte over its capacity and not skipped further:
// 35 characters leave 2 and the NUL, 33 leave the NUL for the next field.
TEST(DataPackingText, OverCapTextIsNotSkipped) {
    for (size_t chars : {35u, 33u}) {
        SCOPED_TRACE(chars);
        std::vector<uint8_t> wire;
        for (size_t i = 0; i < chars; ++i) wire.push_back(static_cast<uint8_t>('A' + i % 26));
        wire.push_back(0);
        wire.push_back(0x5A);
        ReadCursor r(wire);
        FString<32> s;
        ASSERT_TRUE(getFromBuffer(r.cur, r.left, s));
        EXPECT_EQ(r.bytes.size() - r.left, 33u);
        EXPECT_EQ(s.str(), std::string(reinterpret_cast<const char*>(wire.data()), 33));
        uint8_t next = 0xFF;
        ASSERT_TRUE(getFromBuffer(r.cur, r.left, next));
        EXPECT_EQ(next, wire[33]);
    }
}

TEST(DataPackingText, StdStringNeedsItsNul) {
    ReadCursor good(fromHex("78797a00"));
    std::string s;
    EXPECT_TRUE(getFromBuffer(good.cur, good.left, s));
    EXPECT_EQ(s, "xyz");
    EXPECT_EQ(good.left, 0u);

    ReadCursor bad(fromHex("78797a"));
    EXPECT_FALSE(getFromBuffer(bad.cur, bad.left, s));
    EXPECT_EQ(bad.cur, bad.begin());
    EXPECT_EQ(bad.left, 3u);
}

TEST(DataPackingText, FStringCutsToCapacityAndWritesItsSize) {
    FString<8> s("abcdefghijk");
    EXPECT_EQ(s.size(), 8u);
    EXPECT_TRUE(s == std::string("abcdefgh"));
    EXPECT_TRUE(s != std::string("abcdefghijk"));
    s = std::string("hi");
    EXPECT_EQ(s.size(), 2u);
    EXPECT_EQ(toHex(packed(s)), "686900");
    EXPECT_EQ(toHex(packed(FString<8>())), "00");
}

// ---- VLQ sizes ----

TEST(DataPackingVLQ, WireFormsLengthThresholdsAndRoundTrip) {
    const struct {
        uint32_t value;
        const char* hex;  // "" where only the length is checked
        size_t bytes;
    } cases[] = {{0, "00", 1},          {127, "7f", 1},        {128, "8100", 2},     {326, "8246", 2},
                 {0x3FFF, "", 2},       {16384, "818000", 3},  {0x1FFFFF, "", 3},    {0x200000, "", 4},
                 {0xFFFFFFF, "", 4},    {0x10000000, "", 5},   {0xFFFFFFFFu, "8fffffff7f", 5}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        std::vector<uint8_t> enc = vlq(c.value);
        EXPECT_EQ(enc.size(), c.bytes);
        if (*c.hex) {
            EXPECT_EQ(toHex(enc), c.hex);
        }
        ReadCursor r(enc);
        uint32_t back = 0;
        EXPECT_TRUE(decodeVLQSize(r.cur, r.left, back));
        EXPECT_EQ(back, c.value);
        EXPECT_EQ(r.left, 0u);
    }
}

TEST(DataPackingVLQ, EncodeRefusesBeforeWriting) {
    Writer w(2);
    EXPECT_FALSE(encodeSizeVLQ(16384, w.cur, w.left));
    EXPECT_TRUE(w.untouched());
    size_t room = 0;
    EXPECT_FALSE(encodeSizeVLQ(0, w.cur, room));
    uint8_t* nullOut = nullptr;
    room = 8;
    EXPECT_FALSE(encodeSizeVLQ(1, nullOut, room));
}

TEST(DataPackingVLQ, DecodeHasNoByteCapAndEndsAtTheBytes) {
    // Six groups of 1: the top group falls off the 32-bit value.
    ReadCursor six(fromHex("8181818181 01 ee"));
    uint32_t v = 0;
    EXPECT_TRUE(decodeVLQSize(six.cur, six.left, v));
    EXPECT_EQ(v, 0x10204081u);
    EXPECT_EQ(six.left, 1u);

    // The bytes end with the continuation bit set: the missing group counts as
    // 0, nothing past the end is read.
    for (const auto& c : {std::make_pair("81", 128u), std::make_pair("8180", 16384u)}) {
        ReadCursor r(fromHex(c.first));
        EXPECT_TRUE(decodeVLQSize(r.cur, r.left, v));
        EXPECT_EQ(v, c.second);
        EXPECT_EQ(r.left, 0u);
        EXPECT_EQ(r.cur, r.begin() + r.bytes.size());
    }
}

TEST(DataPackingVLQ, DecodeRefusesEmptyOrNull) {
    const uint8_t byte = 0x01;
    const uint8_t* cur = &byte;
    size_t left = 0;  // nothing left to read
    uint32_t v = 9;
    EXPECT_FALSE(decodeVLQSize(cur, left, v));
    EXPECT_EQ(v, 9u);
    const uint8_t* none = nullptr;
    left = 4;
    EXPECT_FALSE(decodeVLQSize(none, left, v));
}

// ---- byte arrays ----

TEST(DataPackingByteArray, WireFormAndRoundTrip) {
    const uint8_t bytes[3] = {0xDE, 0xAD, 0x01};
    EXPECT_EQ(toHex(packed(ByteArray<32>(bytes, 3))), "03dead01");

    ByteArray<326> big;
    big.setSize(326);
    for (size_t i = 0; i < 326; ++i) big[i] = static_cast<uint8_t>(i * 7);
    std::vector<uint8_t> wire = packed(big, 400);
    ASSERT_EQ(wire.size(), 328u);
    EXPECT_EQ(toHex(wire.data(), 2), "8246");
    ReadCursor r(wire);
    ByteArray<326> back;
    EXPECT_TRUE(getFromBuffer(r.cur, r.left, back));
    EXPECT_TRUE(back == big);
    EXPECT_EQ(r.left, 0u);
}

TEST(DataPackingByteArray, DeclaredBeyondCapacityKeepsCapacityAndSkipsTheRest) {
    std::vector<uint8_t> wire{40};
    for (int i = 0; i < 40; ++i) wire.push_back(static_cast<uint8_t>(i + 1));
    wire.push_back(0x77);
    ReadCursor r(wire);
    ByteArray<32> a;
    ASSERT_TRUE(getFromBuffer(r.cur, r.left, a));
    EXPECT_EQ(a.size(), 32u);
    EXPECT_EQ(toHex(a.data(), a.size()), toHex(wire.data() + 1, 32));
    EXPECT_EQ(r.cur, r.begin() + 41);
    uint8_t marker = 0;
    EXPECT_TRUE(getFromBuffer(r.cur, r.left, marker));
    EXPECT_EQ(marker, 0x77);
}

TEST(DataPackingByteArray, DeclaredBeyondTheBytesLeftFails) {
    const std::vector<uint8_t> whole = fromHex("05 0102030405");
    for (size_t cut = 0; cut < whole.size(); ++cut) {
        ReadCursor r(std::vector<uint8_t>(whole.begin(), whole.begin() + cut));
        ByteArray<32> a;
        EXPECT_FALSE(getFromBuffer(r.cur, r.left, a)) << cut;
        EXPECT_EQ(r.cur, r.begin());
        EXPECT_EQ(r.left, cut);
    }
}

TEST(DataPackingByteArray, WriteStopsWhenBytesDoNotFit) {
    const uint8_t bytes[4] = {1, 2, 3, 4};
    Writer w(3);
    EXPECT_FALSE(addToBuffer(ByteArray<32>(bytes, 4), w.cur, w.left));
    EXPECT_EQ(w.left, 0u);  // size and the bytes that fitted went in
    EXPECT_EQ(toHex(w.buf), "040102");
}
