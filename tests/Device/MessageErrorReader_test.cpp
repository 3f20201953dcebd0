#include "Device/MessageErrorReader.h"

#include <gtest/gtest.h>

#include <vector>

using namespace device;

namespace {

std::vector<uint8_t> errorPack(uint8_t toObjectNo, const char* text) {
    MessageErrorPack e;
    e.errorCode = MessageErrorPack::PERMISSION_DENIED;
    e.category = DIRECT_MSGCAT;
    e.fromNodeId = 1000;
    e.fromObjectNo = 2;
    e.msgId = 77;
    e.toNodeId = 1001;
    e.toObjectNo = toObjectNo;
    e.optErorMsg = text;
    std::vector<uint8_t> buf(MAX_PACKET_SIZE);
    int n = e.serialize(buf.data(), buf.size());
    buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return buf;
}

}  // namespace

TEST(MessageErrorReader, ReadsEveryFieldInWrittenOrderWhateverTheObject) {
    for (uint8_t obj : {0, 5, 255}) {
        std::vector<uint8_t> d = errorPack(obj, "no rights");
        MessageError e;
        ASSERT_TRUE(readMessageError(d.data(), d.size(), e));
        EXPECT_EQ(10u, e.errorCode);
        EXPECT_EQ(DIRECT_MSGCAT, e.category);
        EXPECT_EQ(1000, e.fromNodeId);
        EXPECT_EQ(2, e.fromObjectNo);
        EXPECT_EQ(77, e.msgId);
        EXPECT_EQ(1001, e.toNodeId);
        EXPECT_EQ(obj, e.toObjectNo);
        EXPECT_EQ("no rights", e.text);
    }
}

TEST(MessageErrorReader, RefusesOtherPacksAndTruncation) {
    std::vector<uint8_t> d = errorPack(5, "x");
    MessageError e;
    e.text = "untouched";
    for (size_t cut = 0; cut < d.size(); ++cut) EXPECT_FALSE(readMessageError(d.data(), cut, e)) << cut;
    PingPongPack ping;
    std::vector<uint8_t> p(MAX_PACKET_SIZE);
    int n = ping.serialize(p.data(), p.size());
    EXPECT_FALSE(readMessageError(p.data(), static_cast<size_t>(n), e));
    EXPECT_FALSE(readMessageError(nullptr, 10, e));
    EXPECT_EQ("untouched", e.text);
}

