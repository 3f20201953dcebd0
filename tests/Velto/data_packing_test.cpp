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

// A writer with `room` bytes of 0xEE; the tests check what was refused left alone.
struct Writer {
    explicit Writer(size_t room) : buf(room, 0xEE), cur(buf.data()), left(room) {}
    std::vector<uint8_t> buf;
    uint8_t* cur;
    size_t left;
    bool untouched() const { return cur == buf.data() && left == buf.size() && (buf.empty() || buf[0] == 0xEE); }
};

}  // namespace

TEST(DataPacking, TextsAreCutAndTerminatedOrRefusedWhole) {
    Writer w(16);
    EXPECT_TRUE(addToBuffer("abcdef", 3, w.cur, w.left));
    EXPECT_TRUE(addToBuffer(std::string("xy"), 8, w.cur, w.left));
    EXPECT_EQ(toHex(w.buf.data(), w.buf.size() - w.left), "61626300" "787900");
    Writer small(5);
    EXPECT_FALSE(addToBuffer("hello", 32, small.cur, small.left));  // no room for the NUL
    EXPECT_TRUE(small.untouched());
}

// A text is read up to one byte over its capacity and not skipped further:
// 35 characters leave 2 and the NUL, 33 leave the NUL for the next field.
TEST(DataPacking, OverCapTextIsNotSkipped) {
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

TEST(DataPacking, VlqWireFormsAndRoundTrip) {
    const struct {
        uint32_t value;
        const char* hex;
    } cases[] = {{0, "00"}, {127, "7f"}, {128, "8100"}, {326, "8246"}, {16384, "818000"},
                 {0x0FFFFFFF, "ffffff7f"}, {0xFFFFFFFFu, "8fffffff7f"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        std::vector<uint8_t> enc(8, 0xEE);
        uint8_t* cur = enc.data();
        size_t left = enc.size();
        ASSERT_TRUE(encodeSizeVLQ(c.value, cur, left));
        enc.resize(enc.size() - left);
        EXPECT_EQ(toHex(enc), c.hex);
        ReadCursor r(enc);
        uint32_t back = 0;
        EXPECT_TRUE(decodeVLQSize(r.cur, r.left, back));
        EXPECT_EQ(back, c.value);
        EXPECT_EQ(r.left, 0u);
    }
    Writer w(2);
    EXPECT_FALSE(encodeSizeVLQ(16384, w.cur, w.left));
    EXPECT_TRUE(w.untouched());
}

// No cap on the groups (the top ones fall off), and bytes ending with the
// continuation bit set read the missing group as 0.
TEST(DataPacking, VlqDecodeHasNoByteCapAndEndsAtTheBytes) {
    for (const auto& c : {std::make_pair("8181818181 01", 0x10204081u), std::make_pair("8180", 16384u)}) {
        ReadCursor r(fromHex(c.first));
        uint32_t v = 0;
        EXPECT_TRUE(decodeVLQSize(r.cur, r.left, v));
        EXPECT_EQ(v, c.second);
        EXPECT_EQ(r.left, 0u);
    }
}

TEST(DataPacking, ByteArrayKeepsCapacitySkipsTheRestAndRefusesShortInput) {
    const uint8_t bytes[3] = {0xDE, 0xAD, 0x01};
    EXPECT_EQ(toHex(packed(ByteArray<32>(bytes, 3))), "03dead01");

    std::vector<uint8_t> wire{40};
    for (int i = 0; i < 40; ++i) wire.push_back(static_cast<uint8_t>(i + 1));
    wire.push_back(0x77);
    ReadCursor r(wire);
    ByteArray<32> a;
    ASSERT_TRUE(getFromBuffer(r.cur, r.left, a));
    EXPECT_EQ(toHex(a.data(), a.size()), toHex(wire.data() + 1, 32));
    uint8_t marker = 0;
    EXPECT_TRUE(getFromBuffer(r.cur, r.left, marker));
    EXPECT_EQ(marker, 0x77);

    ReadCursor cut(fromHex("05 01020304"));
    EXPECT_FALSE(getFromBuffer(cut.cur, cut.left, a));
    EXPECT_EQ(cut.left, 5u);
}
