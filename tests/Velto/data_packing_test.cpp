// Primitive wire encodings: exact bytes, cursor movement, refusals, and reads from
// exactly sized heap buffers.
#include "Velto/data_packing.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/wire_bytes.h"

using testsupport::ExactBytes;
using testsupport::fromHex;
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

}  // namespace

// ---- integers ----

TEST(DataPackingIntegers, BigEndianWireForms) {
    EXPECT_EQ(toHex(packed(uint8_t(0xAB))), "ab");
    EXPECT_EQ(toHex(packed(int8_t(-2))), "fe");
    EXPECT_EQ(toHex(packed(uint16_t(0x1234))), "1234");
    EXPECT_EQ(toHex(packed(int16_t(-2))), "fffe");
    EXPECT_EQ(toHex(packed(uint32_t(0x01020304))), "01020304");
    EXPECT_EQ(toHex(packed(int32_t(-1))), "ffffffff");
    EXPECT_EQ(toHex(packed(uint64_t(1))), "0000000000000001");
    EXPECT_EQ(toHex(packed(uint64_t(0x0102030405060708ull))), "0102030405060708");
    EXPECT_EQ(toHex(packed(int64_t(-3))), "fffffffffffffffd");
}

TEST(DataPackingIntegers, ReadBackFromExactBuffers) {
    ExactBytes b(fromHex("ab fffe 01020304 ffffff9c 0102030405060708 fffffffffffffffd"));
    const uint8_t* cur = b.data();
    size_t left = b.size();
    uint8_t u8 = 0;
    int16_t i16 = 0;
    uint32_t u32 = 0;
    int32_t i32 = 0;
    uint64_t u64 = 0;
    int64_t i64 = 0;
    EXPECT_TRUE(getFromBuffer(cur, left, u8));
    EXPECT_TRUE(getFromBuffer(cur, left, i16));
    EXPECT_TRUE(getFromBuffer(cur, left, u32));
    EXPECT_TRUE(getFromBuffer(cur, left, i32));
    EXPECT_TRUE(getFromBuffer(cur, left, u64));
    EXPECT_TRUE(getFromBuffer(cur, left, i64));
    EXPECT_EQ(u8, 0xAB);
    EXPECT_EQ(i16, -2);
    EXPECT_EQ(u32, 0x01020304u);
    EXPECT_EQ(i32, -100);
    EXPECT_EQ(u64, 0x0102030405060708ull);
    EXPECT_EQ(i64, -3);
    EXPECT_EQ(left, 0u);
    EXPECT_EQ(cur, b.data() + b.size());

    uint8_t again = 0;
    EXPECT_FALSE(getFromBuffer(cur, left, again));
}

TEST(DataPackingIntegers, ShortOrNullCursorFailsWithoutMoving) {
    ExactBytes b(fromHex("010203"));
    const uint8_t* cur = b.data();
    size_t left = b.size();
    uint32_t u32 = 7;
    EXPECT_FALSE(getFromBuffer(cur, left, u32));
    EXPECT_EQ(cur, b.data());
    EXPECT_EQ(left, 3u);
    EXPECT_EQ(u32, 7u);

    const uint8_t* none = nullptr;
    size_t lots = 100;
    uint8_t u8 = 0;
    EXPECT_FALSE(getFromBuffer(none, lots, u8));

    uint8_t out[1];
    uint8_t* w = out;
    size_t room = 1;
    EXPECT_FALSE(addToBuffer(uint16_t(1), w, room));
    EXPECT_EQ(w, out);
    EXPECT_EQ(room, 1u);
    uint8_t* nullOut = nullptr;
    room = 8;
    EXPECT_FALSE(addToBuffer(uint8_t(1), nullOut, room));
}

TEST(DataPackingIntegers, SixtyFourBitAttemptsBothHalves) {
    // Six bytes of room: the high half goes in, the low half does not fit.
    uint8_t out[6] = {0};
    uint8_t* w = out;
    size_t room = sizeof(out);
    EXPECT_FALSE(addToBuffer(uint64_t(0x1122334455667788ull), w, room));
    EXPECT_EQ(toHex(out, 4), "11223344");
    EXPECT_EQ(room, 2u);

    ExactBytes b(fromHex("0a0b0c0d 0e"));
    const uint8_t* cur = b.data();
    size_t left = b.size();
    uint64_t v = 0;
    EXPECT_FALSE(getFromBuffer(cur, left, v));
    EXPECT_EQ(left, 1u);
}

// ---- texts ----

TEST(DataPackingText, WriteCapsAndTerminates) {
    std::vector<uint8_t> buf(16, 0xEE);
    uint8_t* w = buf.data();
    size_t room = buf.size();
    EXPECT_TRUE(addToBuffer("hello", 32, w, room));
    EXPECT_TRUE(addToBuffer("abcdef", 3, w, room));
    EXPECT_TRUE(addToBuffer(std::string("xy"), 8, w, room));
    EXPECT_EQ(toHex(buf.data(), buf.size() - room), "68656c6c6f00" "61626300" "787900");
}

TEST(DataPackingText, WriteRefusesWhenNoRoomForTheNul) {
    uint8_t out[5];
    memset(out, 0xEE, sizeof(out));
    uint8_t* w = out;
    size_t room = sizeof(out);
    EXPECT_FALSE(addToBuffer("hello", 32, w, room));
    EXPECT_EQ(w, out);
    EXPECT_EQ(room, 5u);
    EXPECT_EQ(out[0], 0xEE);
    EXPECT_FALSE(addToBuffer(static_cast<const char*>(nullptr), 32, w, room));
    uint8_t* nullOut = nullptr;
    EXPECT_FALSE(addToBuffer("a", 32, nullOut, room));
}

TEST(DataPackingText, ReadStopsAtNulAndAtTheCount) {
    ExactBytes b(fromHex("616200 6364"));  // "ab", then "cd" with no NUL before the end
    const uint8_t* cur = b.data();
    size_t left = b.size();
    char dst[10];
    EXPECT_TRUE(getFromBuffer(cur, left, dst, 8));
    EXPECT_STREQ(dst, "ab");
    EXPECT_EQ(left, 2u);
    EXPECT_TRUE(getFromBuffer(cur, left, dst, 8));
    EXPECT_STREQ(dst, "cd");
    EXPECT_EQ(left, 0u);
    EXPECT_FALSE(getFromBuffer(cur, left, dst, 8));
    const uint8_t* cur2 = b.data();
    left = b.size();
    EXPECT_FALSE(getFromBuffer(cur2, left, static_cast<char*>(nullptr), 8));
}

TEST(DataPackingText, OverCapTextIsNotSkipped) {
    // 35 characters then a NUL and a marker byte, read as FString<32> then u8s.
    std::vector<uint8_t> wire;
    for (int i = 0; i < 35; ++i) wire.push_back(static_cast<uint8_t>('A' + i % 26));
    wire.push_back(0);
    wire.push_back(0x5A);
    ExactBytes b(wire);
    const uint8_t* cur = b.data();
    size_t left = b.size();
    FString<32> s;
    ASSERT_TRUE(getFromBuffer(cur, left, s));
    EXPECT_EQ(b.size() - left, 33u);
    EXPECT_EQ(s.size(), 33u);
    EXPECT_EQ(s.str(), std::string(reinterpret_cast<const char*>(wire.data()), 33));
    uint8_t next = 0;
    ASSERT_TRUE(getFromBuffer(cur, left, next));
    EXPECT_EQ(next, wire[33]);
}

TEST(DataPackingText, ThirtyThreeCharactersLeaveTheNulForTheNextField) {
    std::vector<uint8_t> wire(33, 'q');
    wire.push_back(0);
    ExactBytes b(wire);
    const uint8_t* cur = b.data();
    size_t left = b.size();
    FString<32> s;
    ASSERT_TRUE(getFromBuffer(cur, left, s));
    EXPECT_EQ(left, 1u);
    EXPECT_EQ(s.str(), std::string(33, 'q'));
    uint8_t next = 0xFF;
    EXPECT_TRUE(getFromBuffer(cur, left, next));
    EXPECT_EQ(next, 0);
}

TEST(DataPackingText, StdStringNeedsItsNul) {
    ExactBytes good(fromHex("78797a00"));
    const uint8_t* cur = good.data();
    size_t left = good.size();
    std::string s;
    EXPECT_TRUE(getFromBuffer(cur, left, s));
    EXPECT_EQ(s, "xyz");
    EXPECT_EQ(left, 0u);

    ExactBytes bad(fromHex("78797a"));
    cur = bad.data();
    left = bad.size();
    EXPECT_FALSE(getFromBuffer(cur, left, s));
    EXPECT_EQ(cur, bad.data());
    EXPECT_EQ(left, 3u);
}

TEST(DataPackingText, FStringCutsToCapacityAndWritesItsSize) {
    FString<8> s("abcdefghijk");
    EXPECT_EQ(s.size(), 8u);
    EXPECT_TRUE(s == std::string("abcdefgh"));
    EXPECT_TRUE(s != std::string("abcdefghijk"));
    s = std::string("hi");
    EXPECT_EQ(s.size(), 2u);
    EXPECT_EQ(toHex(packed(s)), "686900");
    FString<8> empty;
    EXPECT_EQ(toHex(packed(empty)), "00");
}

// ---- VLQ sizes ----

TEST(DataPackingVLQ, DocumentedExamples) {
    EXPECT_EQ(toHex(vlq(0)), "00");
    EXPECT_EQ(toHex(vlq(127)), "7f");
    EXPECT_EQ(toHex(vlq(128)), "8100");
    EXPECT_EQ(toHex(vlq(326)), "8246");
    EXPECT_EQ(toHex(vlq(16384)), "818000");
    EXPECT_EQ(toHex(vlq(0xFFFFFFFFu)), "8fffffff7f");
}

TEST(DataPackingVLQ, LengthThresholdsAndRoundTrip) {
    const struct {
        uint32_t value;
        size_t bytes;
    } cases[] = {{0x7F, 1},        {0x80, 2},        {0x3FFF, 2},      {0x4000, 3},     {0x1FFFFF, 3},
                 {0x200000, 4},    {0xFFFFFFF, 4},   {0x10000000, 5},  {0xFFFFFFFF, 5}};
    for (const auto& c : cases) {
        std::vector<uint8_t> enc = vlq(c.value);
        EXPECT_EQ(enc.size(), c.bytes) << c.value;
        ExactBytes b(enc);
        const uint8_t* cur = b.data();
        size_t left = b.size();
        uint32_t back = 0;
        EXPECT_TRUE(decodeVLQSize(cur, left, back));
        EXPECT_EQ(back, c.value);
        EXPECT_EQ(left, 0u);
    }
}

TEST(DataPackingVLQ, EncodeRefusesBeforeWriting) {
    uint8_t out[2] = {0xEE, 0xEE};
    uint8_t* w = out;
    size_t room = sizeof(out);
    EXPECT_FALSE(encodeSizeVLQ(16384, w, room));
    EXPECT_EQ(w, out);
    EXPECT_EQ(room, 2u);
    EXPECT_EQ(out[0], 0xEE);
    room = 0;
    EXPECT_FALSE(encodeSizeVLQ(0, w, room));
    uint8_t* nullOut = nullptr;
    room = 8;
    EXPECT_FALSE(encodeSizeVLQ(1, nullOut, room));
}

TEST(DataPackingVLQ, DecodeHasNoByteCap) {
    // Six groups of 1: the top group falls off the 32-bit value.
    ExactBytes b(fromHex("8181818181 01 ee"));
    const uint8_t* cur = b.data();
    size_t left = b.size();
    uint32_t v = 0;
    EXPECT_TRUE(decodeVLQSize(cur, left, v));
    EXPECT_EQ(v, 0x10204081u);
    EXPECT_EQ(left, 1u);
}

TEST(DataPackingVLQ, EndOfBytesWithContinuationBitSucceedsWithoutOverRead) {
    ExactBytes one(fromHex("81"));
    const uint8_t* cur = one.data();
    size_t left = one.size();
    uint32_t v = 0;
    EXPECT_TRUE(decodeVLQSize(cur, left, v));
    EXPECT_EQ(v, 128u);  // the missing group counts as 0
    EXPECT_EQ(left, 0u);
    EXPECT_EQ(cur, one.data() + 1);

    ExactBytes two(fromHex("8180"));
    cur = two.data();
    left = two.size();
    EXPECT_TRUE(decodeVLQSize(cur, left, v));
    EXPECT_EQ(v, 16384u);
    EXPECT_EQ(left, 0u);
}

TEST(DataPackingVLQ, DecodeRefusesEmptyOrNull) {
    ExactBytes empty(std::vector<uint8_t>{});
    const uint8_t* cur = empty.data();
    size_t left = 0;
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
    ByteArray<32> a(bytes, 3);
    EXPECT_EQ(toHex(packed(a)), "03dead01");

    ByteArray<326> big;
    big.setSize(326);
    for (size_t i = 0; i < 326; ++i) big[i] = static_cast<uint8_t>(i * 7);
    std::vector<uint8_t> wire = packed(big, 400);
    ASSERT_EQ(wire.size(), 328u);
    EXPECT_EQ(toHex(wire.data(), 2), "8246");

    ExactBytes b(wire);
    const uint8_t* cur = b.data();
    size_t left = b.size();
    ByteArray<326> back;
    EXPECT_TRUE(getFromBuffer(cur, left, back));
    EXPECT_TRUE(back == big);
    EXPECT_EQ(left, 0u);
}

TEST(DataPackingByteArray, DeclaredBeyondCapacityKeepsCapacityAndSkipsTheRest) {
    std::vector<uint8_t> wire{40};
    for (int i = 0; i < 40; ++i) wire.push_back(static_cast<uint8_t>(i + 1));
    wire.push_back(0x77);
    ExactBytes b(wire);
    const uint8_t* cur = b.data();
    size_t left = b.size();
    ByteArray<32> a;
    ASSERT_TRUE(getFromBuffer(cur, left, a));
    EXPECT_EQ(a.size(), 32u);
    EXPECT_EQ(toHex(a.data(), a.size()), toHex(wire.data() + 1, 32));
    EXPECT_EQ(cur, b.data() + 41);
    uint8_t marker = 0;
    EXPECT_TRUE(getFromBuffer(cur, left, marker));
    EXPECT_EQ(marker, 0x77);
}

TEST(DataPackingByteArray, DeclaredBeyondTheBytesLeftFails) {
    ExactBytes b(fromHex("05 0102030405"));
    for (size_t cut = 0; cut < b.size(); ++cut) {
        ExactBytes part(b.data(), cut);
        const uint8_t* cur = part.data();
        size_t left = part.size();
        ByteArray<32> a;
        EXPECT_FALSE(getFromBuffer(cur, left, a)) << cut;
        EXPECT_EQ(cur, part.data());
        EXPECT_EQ(left, cut);
    }
}

TEST(DataPackingByteArray, WriteStopsWhenBytesDoNotFit) {
    const uint8_t bytes[4] = {1, 2, 3, 4};
    ByteArray<32> a(bytes, 4);
    uint8_t out[3];
    uint8_t* w = out;
    size_t room = sizeof(out);
    EXPECT_FALSE(addToBuffer(a, w, room));
    EXPECT_EQ(room, 0u);  // size and the bytes that fitted went in
    EXPECT_EQ(toHex(out, 3), "040102");
}
