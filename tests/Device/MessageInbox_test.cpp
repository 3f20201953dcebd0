#include "Device/MessageInbox.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

using namespace device;

namespace {

const std::vector<uint8_t> MSG = [] {
    std::vector<uint8_t> d(1500);
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

// Pieces past a gap are kept. A gap is acknowledged once per round: again only
// when the sender's round from the asked position reached the last piece with a
// hole left, or 250 ms later. The whole message is acknowledged and delivered
// once; its repeats are acknowledged at most once per 250 ms.
TEST(MessageInbox, OneAcknowledgementPerRound) {
    struct Step {
        uint32_t pos;
        int atMs;
        int64_t ack;  // -1: none
        bool complete;
    };
    const Step steps[] = {
        {0, 0, -1, false},        {652, 0, 326, false},   // first gap
        {1304, 0, -1, false},     {652, 0, -1, false},    // the old round goes on
        {326, 10, -1, false},                             // resent from 326: prefix 978
        {1304, 10, 978, false},                           // that round ended, hole at 978
        {1304, 20, -1, false},    {1304, 300, 978, false},  // asked again only after 250 ms
        {978, 300, 1500, true},   {1304, 310, -1, false},   // complete; a repeat soon after
        {1304, 600, 1500, false},                         // and one 250 ms later
    };
    MessageInbox inbox{4096};
    for (const Step& st : steps) {
        setClockOffsetForTesting(st.atMs);
        InboxOutcome o;
        EXPECT_TRUE(inbox.take(piece(st.pos), o)) << st.pos << " at " << st.atMs;
        EXPECT_EQ(st.ack >= 0, o.sendAck) << st.pos << " at " << st.atMs;
        if (st.ack >= 0) { EXPECT_EQ(st.ack, o.ackPos) << st.pos << " at " << st.atMs; }
        EXPECT_EQ(st.complete, o.complete);
        if (o.complete) { EXPECT_EQ(MSG, o.message.data); }
    }
    setClockOffsetForTesting(0);
    MessageInbox small{500};
    InboxOutcome o;
    EXPECT_FALSE(small.take(piece(0, 10), o));
    EXPECT_FALSE(o.note.empty());
    EXPECT_FALSE(small.take(piece(326, 10), o));
    EXPECT_TRUE(o.note.empty()) << "a refused message is noted once";
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
