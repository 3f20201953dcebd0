#include "Device/MessageInbox.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

using namespace device;

namespace {

const std::vector<uint8_t> MSG = [] {
    std::vector<uint8_t> d(1000);
    for (size_t i = 0; i < d.size(); ++i) d[i] = static_cast<uint8_t>(1 + i * 13);
    return d;
}();

// The piece at pos of MSG, as the hub would send it.
MessageCarrierPack piece(uint32_t pos, MessageNo no = 9) {
    MessageCarrierPack p;
    p.msgCat = DIRECT_MSGCAT;
    p.fromDeviceId = 1001;
    p.msgId = 3;
    p.toDeviceId = 1000;
    p.msgNo = no;
    p.msgSize = static_cast<uint32_t>(MSG.size());
    p.checksum = std::accumulate(MSG.begin(), MSG.end(), 0u);
    p.packetStart = pos;
    p.payload = ByteArray<326>(MSG.data() + pos, std::min<size_t>(326, MSG.size() - pos));
    return p;
}

}  // namespace

// A gap asks the sender to resume where the bytes stop; the whole message is
// acknowledged once at its end and delivered; a repeat of it is acknowledged
// but not delivered again; an oversized message is refused.
TEST(MessageInbox, GapsAckAtTheEndAndRepeats) {
    MessageInbox inbox{4096};
    InboxOutcome o;
    ASSERT_TRUE(inbox.take(piece(0), o));
    EXPECT_FALSE(o.sendAck);
    EXPECT_FALSE(inbox.take(piece(652), o));
    EXPECT_TRUE(o.sendAck);
    EXPECT_EQ(326u, o.ackPos);
    for (uint32_t pos : {326u, 652u}) ASSERT_TRUE(inbox.take(piece(pos), o));
    EXPECT_FALSE(o.sendAck);
    ASSERT_TRUE(inbox.take(piece(978), o));
    EXPECT_TRUE(o.sendAck);
    EXPECT_EQ(1000u, o.ackPos);
    ASSERT_TRUE(o.complete);
    EXPECT_EQ(MSG, o.message.data);
    ASSERT_TRUE(inbox.take(piece(978), o));
    EXPECT_TRUE(o.sendAck);
    EXPECT_FALSE(o.complete) << "a repeat is not delivered again";
    MessageInbox small{500};
    EXPECT_FALSE(small.take(piece(0, 10), o));
}

// A stalled reception is nudged with the resume position, then abandoned.
TEST(MessageInbox, AStalledReceptionIsNudgedThenAbandoned) {
    MessageInbox inbox{4096};
    InboxOutcome o;
    ASSERT_TRUE(inbox.take(piece(0), o));
    EXPECT_FALSE(inbox.checkStall(currentTime(), o)) << "too early";
    int nudges = 0;
    for (int i = 1; i <= 30 && inbox.receiving(); ++i) {
        setClockOffsetForTesting(300 * i);
        if (inbox.checkStall(currentTime(), o)) {
            ++nudges;
            EXPECT_EQ(326u, o.ackPos);
        }
    }
    setClockOffsetForTesting(0);
    EXPECT_EQ(MessageInbox::MAX_NUDGES, nudges);
    EXPECT_FALSE(inbox.receiving());
}
