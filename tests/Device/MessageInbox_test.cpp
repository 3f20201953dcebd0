#include "Device/MessageInbox.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

using namespace device;

namespace {

class MessageInboxTest : public ::testing::Test {
protected:
    void TearDown() override { setClockOffsetForTesting(0); }
    void advance(int64_t ms) {
        offset += ms;
        setClockOffsetForTesting(offset);
    }

    static std::vector<uint8_t> body(size_t n, uint8_t seed = 1) {
        std::vector<uint8_t> d(n);
        for (size_t i = 0; i < n; ++i) d[i] = static_cast<uint8_t>(seed + i * 13);
        return d;
    }
    // The piece at pos of msg, as the hub would send it.
    static MessageCarrierPack piece(const std::vector<uint8_t>& msg, uint32_t pos, MessageNo no = 9,
                                    uint8_t cat = DIRECT_MSGCAT) {
        MessageCarrierPack p;
        p.msgCat = cat;
        p.fromDeviceId = 1001;
        p.fromObjectNo = 0;
        p.msgId = 3;
        p.toDeviceId = 1000;
        p.toObjectNo = 1;
        p.msgNo = no;
        p.msgSize = static_cast<uint32_t>(msg.size());
        p.checksum = std::accumulate(msg.begin(), msg.end(), 0u);
        p.packetStart = pos;
        size_t len = std::min<size_t>(326, msg.size() - pos);
        p.payload = ByteArray<326>(msg.data() + pos, len);
        return p;
    }

    MessageInbox inbox{4096};
    int64_t offset = 0;
};

}  // namespace

TEST_F(MessageInboxTest, InOrderPiecesAreAcknowledgedOnceAtTheEnd) {
    std::vector<uint8_t> msg = body(800);
    InboxOutcome o;
    ASSERT_TRUE(inbox.take(piece(msg, 0), o));
    EXPECT_FALSE(o.sendAck);
    ASSERT_TRUE(inbox.take(piece(msg, 326), o));
    EXPECT_FALSE(o.sendAck);
    EXPECT_FALSE(o.complete);
    ASSERT_TRUE(inbox.take(piece(msg, 652), o));
    EXPECT_TRUE(o.sendAck);
    EXPECT_EQ(800u, o.ackPos);
    EXPECT_EQ(9u, o.ackSelector.msgNo);
    ASSERT_TRUE(o.complete);
    EXPECT_EQ(msg, o.message.data);
    EXPECT_EQ(3, o.message.selector.msgId);
    EXPECT_FALSE(inbox.receiving());
}

TEST_F(MessageInboxTest, AGapAsksTheSenderToResumeWhereTheBytesStop) {
    std::vector<uint8_t> msg = body(1000);
    InboxOutcome o;
    ASSERT_TRUE(inbox.take(piece(msg, 0), o));
    EXPECT_FALSE(inbox.take(piece(msg, 652), o));
    EXPECT_TRUE(o.sendAck);
    EXPECT_EQ(326u, o.ackPos);
    EXPECT_FALSE(o.note.empty());
    for (uint32_t pos : {326u, 652u}) ASSERT_TRUE(inbox.take(piece(msg, pos), o));
    ASSERT_TRUE(inbox.take(piece(msg, 978), o));
    ASSERT_TRUE(o.complete);
    EXPECT_EQ(msg, o.message.data);
}

TEST_F(MessageInboxTest, ARepeatOfTheLastMessageIsAcknowledgedButNotDeliveredAgain) {
    std::vector<uint8_t> msg = body(400);
    InboxOutcome o;
    inbox.take(piece(msg, 0), o);
    inbox.take(piece(msg, 326), o);
    ASSERT_TRUE(o.complete);
    for (uint32_t pos : {326u, 0u}) {
        ASSERT_TRUE(inbox.take(piece(msg, pos), o));
        EXPECT_TRUE(o.sendAck);
        EXPECT_EQ(400u, o.ackPos);
        EXPECT_FALSE(o.complete);
    }
    // The next message number with the same content is a new message.
    ASSERT_TRUE(inbox.take(piece(msg, 0, 10), o));
    ASSERT_TRUE(inbox.take(piece(msg, 326, 10), o));
    EXPECT_TRUE(o.complete);
}

TEST_F(MessageInboxTest, RefusesOversizedUnknownAndStrayPieces) {
    InboxOutcome o;
    EXPECT_FALSE(inbox.take(piece(body(5000), 0), o));
    EXPECT_FALSE(o.note.empty());
    EXPECT_FALSE(inbox.take(piece(body(10), 0, 9, 7), o)) << "unknown category";
    EXPECT_FALSE(inbox.take(piece(body(700), 326), o)) << "not started";
    std::vector<uint8_t> msg = body(700);
    ASSERT_TRUE(inbox.take(piece(msg, 0), o));
    MessageCarrierPack other = piece(msg, 326);
    other.msgId = 4;
    EXPECT_FALSE(inbox.take(other, o)) << "another message's piece";
    EXPECT_TRUE(inbox.receiving());
    MessageCarrierPack zero = piece(msg, 0);
    zero.msgSize = 0;
    EXPECT_FALSE(inbox.take(zero, o));
}

TEST_F(MessageInboxTest, ChecksumMismatchAsksForTheWholeMessageAgain) {
    std::vector<uint8_t> msg = body(30);
    MessageCarrierPack p = piece(msg, 0);
    p.checksum += 1;
    InboxOutcome o;
    inbox.take(p, o);
    EXPECT_FALSE(o.complete);
    EXPECT_TRUE(o.sendAck);
    EXPECT_EQ(0u, o.ackPos);
    EXPECT_FALSE(inbox.receiving());
}

TEST_F(MessageInboxTest, AStalledReceptionIsNudgedThenAbandoned) {
    std::vector<uint8_t> msg = body(900);
    InboxOutcome o;
    ASSERT_TRUE(inbox.take(piece(msg, 0), o));
    EXPECT_FALSE(inbox.checkStall(currentTime(), o)) << "too early";
    int nudges = 0;
    for (int i = 0; i < 30 && inbox.receiving(); ++i) {
        advance(300);
        if (inbox.checkStall(currentTime(), o)) {
            ++nudges;
            EXPECT_EQ(326u, o.ackPos);
        }
    }
    EXPECT_EQ(MessageInbox::MAX_NUDGES, nudges);
    EXPECT_FALSE(inbox.receiving());
    EXPECT_FALSE(o.note.empty());
}
