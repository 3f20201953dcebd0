#include "Velto/Interfaces/DeviceManagementInterface.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

typedef std::vector<uint8_t> Bytes;

template <typename Msg>
Bytes encode(const Msg& m, size_t capacity = 2048) {
    Bytes buf(capacity);
    uint8_t* cursor = buf.data();
    size_t left = buf.size();
    if (!m.addToBuffer(cursor, left)) return Bytes();
    buf.resize(capacity - left);
    return buf;
}

// Decodes from a buffer of exactly n bytes (so an over-read is caught by the
// sanitizers); true when the decoder accepted it.
template <typename Msg>
bool decodePrefix(const Bytes& bytes, size_t n, Msg& m, size_t* consumed = nullptr) {
    Bytes exact(bytes.begin(), bytes.begin() + n);
    const uint8_t* cursor = exact.data();
    size_t left = exact.size();
    bool ok = m.getFromBuffer(cursor, left);
    if (consumed) *consumed = n - left;
    return ok;
}

BasicDeviceInfo sampleDevice(DeviceID id, const char* duid) {
    BasicDeviceInfo d;
    d.id = id;
    d.duid = duid;
    d.specs = "vendor.example/specs/lamp";
    d.intVer = 3;
    d.status = 6;
    d.hubId = 17;
    d.nname = "lamp";
    d.domain = "TestDomain_KVZ1";
    d.noOfObjects = 2;
    return d;
}

Bytes text(const char* s) {
    Bytes b(s, s + strlen(s));
    b.push_back(0);
    return b;
}

void append(Bytes& to, const Bytes& more) { to.insert(to.end(), more.begin(), more.end()); }

}  // namespace

TEST(RequestBasicDeviceListMsg, LayoutRoundTripAndTruncation) {
    RequestBasicDeviceListMsg req;
    req.flags = 0x81;
    req.matchSpecs = "sp";
    req.withName = "n";
    req.haveObjectWithIface = "switch";
    Bytes bytes = {0x81};
    append(bytes, text("sp"));
    append(bytes, text("n"));
    append(bytes, text("switch"));
    EXPECT_EQ(bytes, encode(req));
    EXPECT_EQ(101u, req.estimateRequiredSize());

    RequestBasicDeviceListMsg back;
    size_t consumed = 0;
    ASSERT_TRUE(decodePrefix(bytes, bytes.size(), back, &consumed));
    EXPECT_EQ(bytes.size(), consumed);
    EXPECT_EQ(bytes, encode(back));  // every field came back

    // Every prefix that ends before the last text starts is refused. (A cut
    // inside the last text reads as that text cut short: texts end at the end
    // of the bytes.)
    size_t lastTextStart = bytes.size() - strlen("switch") - 1;
    for (size_t n = 0; n <= lastTextStart; ++n) {
        RequestBasicDeviceListMsg m;
        EXPECT_FALSE(decodePrefix(bytes, n, m)) << "prefix " << n;
    }
}

TEST(BasicDeviceInfo, ExactLayout) {
    BasicDeviceInfo d;
    d.id = 0x1234;
    d.duid = "d";
    d.specs = "s";
    d.intVer = 7;
    d.status = 6;
    d.hubId = 17;
    d.nname = "n";
    d.domain = "x";
    d.noOfObjects = 9;
    Bytes expected = {0x12, 0x34, 'd', 0, 's', 0, 7, 6, 17, 'n', 0, 'x', 0, 9};
    EXPECT_EQ(expected, encode(d));
    EXPECT_EQ(234u, d.estimateRequiredSize());
}

TEST(BasicDeviceListMsg, EmptyListIsVlqZeroAlone) {
    BasicDeviceListMsg list;
    EXPECT_EQ(Bytes{0x00}, encode(list));
    EXPECT_EQ(8u, list.estimateRequiredSize());
    BasicDeviceListMsg back;
    ASSERT_TRUE(decodePrefix(Bytes{0x00}, 1, back));
    EXPECT_TRUE(back.devList.empty());
}

// A count, then the entries in order; read back whole, and every cut refused.
TEST(BasicDeviceListMsg, RoundTripKeepsOrderAndFieldsAndRefusesEveryPrefix) {
    BasicDeviceListMsg list;
    list.devList.push_back(sampleDevice(1000, "first"));
    list.devList.push_back(sampleDevice(1, "VHubMainServices"));
    EXPECT_EQ(8u + 2 * 234u, list.estimateRequiredSize());
    Bytes bytes = encode(list);
    ASSERT_FALSE(bytes.empty());
    EXPECT_EQ(2, bytes[0]);
    Bytes first = encode(list.devList[0]);
    EXPECT_TRUE(std::equal(first.begin(), first.end(), bytes.begin() + 1));

    BasicDeviceListMsg back;
    ASSERT_TRUE(decodePrefix(bytes, bytes.size(), back));
    ASSERT_EQ(2u, back.devList.size());
    EXPECT_EQ(bytes, encode(back));
    EXPECT_EQ(std::string("VHubMainServices"), back.devList[1].duid.str());
    for (size_t n = 0; n < bytes.size(); ++n) {
        BasicDeviceListMsg m;
        EXPECT_FALSE(decodePrefix(bytes, n, m)) << "prefix " << n;
    }
}

TEST(BasicDeviceListMsg, HugeDeclaredCountStopsAtTheFirstMissingEntry) {
    // A count of 2^28 - 1 followed by one real entry: the reader keeps that
    // entry, fails on the next, and never reserves room for the declared count.
    Bytes bytes = {0xFF, 0xFF, 0xFF, 0x7F};
    append(bytes, encode(sampleDevice(1000, "only")));
    BasicDeviceListMsg m;
    EXPECT_FALSE(decodePrefix(bytes, bytes.size(), m));
    ASSERT_EQ(1u, m.devList.size());
    EXPECT_EQ(1000, m.devList[0].id);
    EXPECT_LT(m.devList.capacity(), 1000u);
}
