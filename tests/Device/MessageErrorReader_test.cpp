#include "Device/MessageErrorReader.h"

#include <gtest/gtest.h>

#include <vector>

using namespace device;

// Every field in written order, then every truncation and another pack refused
// with the output left alone.
TEST(MessageErrorReader, ReadsEveryFieldAndRefusesTruncationAndOtherPacks) {
    MessageErrorPack p;
    p.errorCode = MessageErrorPack::PERMISSION_DENIED;
    p.category = DIRECT_MSGCAT;
    p.fromNodeId = 1000;
    p.fromObjectNo = 2;
    p.msgId = 77;
    p.toNodeId = 1001;
    p.toObjectNo = 255;
    p.optErorMsg = "no rights";
    std::vector<uint8_t> d(MAX_PACKET_SIZE);
    d.resize(static_cast<size_t>(p.serialize(d.data(), d.size())));
    MessageError e;
    ASSERT_TRUE(readMessageError(d.data(), d.size(), e));
    EXPECT_EQ(10u, e.errorCode);
    EXPECT_EQ(DIRECT_MSGCAT, e.category);
    EXPECT_EQ(1000, e.fromNodeId);
    EXPECT_EQ(2, e.fromObjectNo);
    EXPECT_EQ(77, e.msgId);
    EXPECT_EQ(1001, e.toNodeId);
    EXPECT_EQ(255, e.toObjectNo);
    EXPECT_EQ("no rights", e.text);
    e.text = "untouched";
    for (size_t cut = 0; cut < d.size(); ++cut) EXPECT_FALSE(readMessageError(d.data(), cut, e)) << cut;
    d[0] = PingPongPack::PACK_ID;
    EXPECT_FALSE(readMessageError(d.data(), d.size(), e));
    EXPECT_EQ("untouched", e.text);
}
