// Device-management messages: exact layouts, round trips, refusal of every
// truncation, and a huge declared list count that must not reserve memory.
#include "Velto/Interfaces/DeviceManagementInterface.h"

#include <gtest/gtest.h>

#include <vector>

#include "tests/support/wire_bytes.h"

using testsupport::fromHex;
using testsupport::toHex;

namespace {

typedef std::vector<uint8_t> Bytes;

template <typename Msg>
Bytes encode(const Msg& m) {
    Bytes buf(2048);
    uint8_t* cursor = buf.data();
    size_t left = buf.size();
    if (!m.addToBuffer(cursor, left)) return Bytes();
    buf.resize(buf.size() - left);
    return buf;
}

// Decodes the first n bytes from an exactly sized copy; true when accepted.
template <typename Msg>
bool decodePrefix(const Bytes& bytes, size_t n, Msg& m) {
    testsupport::ReadCursor c(Bytes(bytes.begin(), bytes.begin() + n));
    return m.getFromBuffer(c.cur, c.left);
}

BasicDeviceInfo device(DeviceID id, const char* duid) {
    BasicDeviceInfo d;
    d.id = id, d.duid = duid, d.specs = "s", d.intVer = 7, d.status = 6;
    d.hubId = 17, d.nname = "n", d.domain = "x", d.noOfObjects = 9;
    return d;
}

}  // namespace

// A VLQ count, then the entries in order, each laid out field by field.
TEST(BasicDeviceListMsg, LayoutRoundTripAndEveryPrefixRefused) {
    BasicDeviceListMsg list;
    list.devList.push_back(device(0x1234, "d"));
    list.devList.push_back(device(1, "VHubMainServices"));
    const Bytes bytes = encode(list);
    EXPECT_EQ(toHex(bytes.data(), 15), toHex(fromHex("02 1234 6400 7300 07 06 11 6e00 7800 09")));
    BasicDeviceListMsg back;
    ASSERT_TRUE(decodePrefix(bytes, bytes.size(), back));
    ASSERT_EQ(2u, back.devList.size());
    EXPECT_EQ(bytes, encode(back));
    for (size_t n = 0; n < bytes.size(); ++n) {
        BasicDeviceListMsg m;
        EXPECT_FALSE(decodePrefix(bytes, n, m)) << "prefix " << n;
    }
}

TEST(BasicDeviceListMsg, HugeDeclaredCountStopsAtTheFirstMissingEntry) {
    Bytes bytes = fromHex("ffffff7f");  // 2^28 - 1 entries declared, one present
    const Bytes one = encode(device(1000, "only"));
    bytes.insert(bytes.end(), one.begin(), one.end());
    BasicDeviceListMsg m;
    EXPECT_FALSE(decodePrefix(bytes, bytes.size(), m));
    ASSERT_EQ(1u, m.devList.size());
    EXPECT_LT(m.devList.capacity(), 1000u);
}

// The request is the node id alone (trailing bytes ignored); the reply is the
// node id, a VLQ count and each object's bytes and texts in order.
TEST(BasicObjectInfoMsg, LayoutRoundTripAndTruncationRefused) {
    RequestBasicObjectInfoMsg req;
    EXPECT_TRUE(decodePrefix(fromHex("03ea ff ff"), 4, req));
    EXPECT_EQ(1002, req.nodeId);
    EXPECT_FALSE(decodePrefix(fromHex("03"), 1, req));

    BasicObjectInfoMsg msg;
    msg.nodeId = 0x03ea;
    BasicObjectInfo o;
    o.objectNo = 1, o.groupNo = 2, o.ifaceType = 3, o.name = "l", o.interface = "if", o.interfaceId = "x/I.1";
    msg.objects = {o, o};
    const Bytes bytes = encode(msg);
    EXPECT_EQ(toHex(bytes.data(), 17), toHex(fromHex("03ea 02 01 02 03 6c00 696600 782f492e3100")));
    EXPECT_LE(bytes.size(), msg.estimateRequiredSize());
    BasicObjectInfoMsg back;
    ASSERT_TRUE(decodePrefix(bytes, bytes.size(), back));
    ASSERT_EQ(2u, back.objects.size());
    EXPECT_EQ(bytes, encode(back));
    // Every cut before the last object's last text loses an object or a field.
    for (size_t n = 0; n + 6 < bytes.size(); ++n) {
        BasicObjectInfoMsg m;
        EXPECT_FALSE(decodePrefix(bytes, n, m) && m.objects.size() == 2) << "prefix " << n;
    }
}
