#include "Device/MessageOutbox.h"

#include <gtest/gtest.h>

#include <vector>

using namespace device;

namespace {

MsgSelector direct(MessageNo no) {
    MsgSelector ms;
    ms.msgCat = DIRECT_MSGCAT, ms.fromDeviceId = 1000, ms.toDeviceId = 1001, ms.toObjectNo = 2, ms.msgNo = no;
    return ms;
}

MessageCarrierACKPack ackFor(MessageNo no, uint32_t pos) {
    MessageCarrierACKPack a;
    direct(no).copyTo(a);
    a.lastSeqNo = pos;
    return a;
}

// The start positions of every piece the outbox gives now.
std::vector<uint32_t> drain(MessageOutbox& box) {
    std::vector<uint32_t> starts;
    MessageCarrierPack p;
    for (int i = 0; i < 100 && box.nextPiece(p); ++i) starts.push_back(p.packetStart);
    return starts;
}

// The outcomes reported since the last call, as "msgNo delivered|lost".
std::vector<std::string> outcomes(MessageOutbox& box) {
    std::vector<std::string> out;
    for (const DeliveryResult& r : box.takeResults())
        out.push_back(std::to_string(r.msgNo) + (r.delivered ? " delivered" : " lost"));
    return out;
}

}  // namespace

// Pieces of at most 326 bytes; a partial ack resends from its position, acks
// of another message or beyond what was sent change nothing, a full one
// delivers and starts the next message.
TEST(MessageOutbox, PiecesAcksAndTheNextMessage) {
    MessageOutbox box;
    ASSERT_TRUE(box.enqueue(direct(3), std::vector<uint8_t>(1000, 7)));
    ASSERT_TRUE(box.enqueue(direct(4), std::vector<uint8_t>(20, 8)));
    EXPECT_FALSE(box.enqueue(direct(5), {}));
    EXPECT_EQ((std::vector<uint32_t>{0, 326, 652, 978}), drain(box));
    EXPECT_TRUE(drain(box).empty()) << "nothing more until acknowledged";
    EXPECT_FALSE(box.takeAck(ackFor(4, 1000))) << "another message number";
    EXPECT_FALSE(box.takeAck(ackFor(3, 1001))) << "beyond what was sent";
    EXPECT_TRUE(box.takeAck(ackFor(3, 326)));
    EXPECT_EQ((std::vector<uint32_t>{326, 652, 978}), drain(box));
    EXPECT_TRUE(outcomes(box).empty());
    EXPECT_TRUE(box.takeAck(ackFor(3, 1000)));
    EXPECT_EQ(std::vector<std::string>{"3 delivered"}, outcomes(box));
    EXPECT_EQ((std::vector<uint32_t>{0}), drain(box));
}

// Without an ack the last piece is resent after each wait, and the message is
// given up after the allowed failures in a row; an ack that gets further into
// the message starts the count again.
TEST(MessageOutbox, TimeoutResendsTheLastPieceAndFinallyGivesUp) {
    MessageOutbox box;
    ASSERT_TRUE(box.enqueue(direct(6), std::vector<uint8_t>(700, 1)));
    drain(box);
    EXPECT_FALSE(box.checkTimeout()) << "still within the wait";
    int clock = 0;
    auto resendsUntil = [&](int most) {
        int resends = 0;
        for (int i = 0; i < most && box.busy(); ++i) {
            setClockOffsetForTesting(clock += 300);
            if (box.checkTimeout()) {
                EXPECT_EQ((std::vector<uint32_t>{652}), drain(box));
                ++resends;
            }
        }
        return resends;
    };
    EXPECT_EQ(8, resendsUntil(8));
    ASSERT_TRUE(box.takeAck(ackFor(6, 326)));
    EXPECT_EQ((std::vector<uint32_t>{326, 652}), drain(box));
    EXPECT_EQ(MsgSender::MaxConssecutiveFailues + 1, resendsUntil(20));
    setClockOffsetForTesting(0);
    EXPECT_EQ(std::vector<std::string>{"6 lost"}, outcomes(box));
}

// A long message the hub never answered is sent once more from its first
// piece after three silent resends of its last one (short ones never are:
// see above), then the last piece is resent again until the give-up.
TEST(MessageOutbox, LongMessageNeverAnsweredStartsOverOnce) {
    MessageOutbox box;
    const uint32_t size = MessageOutbox::BURST_PIECES * 326 + 1;
    ASSERT_TRUE(box.enqueue(direct(7), std::vector<uint8_t>(size, 2)));
    int clock = 0;
    auto sendAll = [&] {  // across the gaps between bursts
        std::vector<uint32_t> starts;
        for (int i = 0; i < 5; ++i, setClockOffsetForTesting(clock += 10)) {
            std::vector<uint32_t> more = drain(box);
            starts.insert(starts.end(), more.begin(), more.end());
        }
        return starts;
    };
    ASSERT_EQ(MessageOutbox::BURST_PIECES + 1u, sendAll().size());
    std::vector<std::vector<uint32_t>> resent;
    for (int i = 0; i < 20 && box.busy(); ++i) {
        setClockOffsetForTesting(clock += 300);
        if (box.checkTimeout()) resent.push_back(sendAll());
    }
    setClockOffsetForTesting(0);
    ASSERT_EQ(MsgSender::MaxConssecutiveFailues + 1, static_cast<int>(resent.size()));
    for (size_t i = 0; i < resent.size(); ++i)
        EXPECT_EQ(i == 3 ? MessageOutbox::BURST_PIECES + 1u : 1u, resent[i].size()) << "resend " << i;
    EXPECT_EQ(std::vector<std::string>{"7 lost"}, outcomes(box));
}

// The hub acknowledges its gap once for every piece past it: a position gone
// back to in the last 250 ms does not restart a round (not even when a held-
// back repeat of it comes after a newer one); later it does. Acks of the
// message finished last change nothing.
TEST(MessageOutbox, RepeatedAcksDoNotRestartARound) {
    struct Step {
        uint32_t pos;
        int atMs;
        std::vector<uint32_t> resent;
    };
    const Step steps[] = {{326, 0, {326, 652, 978}}, {326, 0, {}}, {652, 5, {652, 978}}, {326, 100, {}},
                          {326, 300, {326, 652, 978}}};
    MessageOutbox box;
    ASSERT_TRUE(box.enqueue(direct(7), std::vector<uint8_t>(1000, 2)));
    drain(box);
    for (const Step& st : steps) {
        setClockOffsetForTesting(st.atMs);
        EXPECT_TRUE(box.takeAck(ackFor(7, st.pos)));
        EXPECT_EQ(st.resent, drain(box)) << st.pos << " at " << st.atMs;
    }
    EXPECT_TRUE(box.takeAck(ackFor(7, 1000)));
    EXPECT_TRUE(box.takeAck(ackFor(7, 326)));
    setClockOffsetForTesting(0);
    EXPECT_EQ(std::vector<std::string>{"7 delivered"}, outcomes(box));
    EXPECT_FALSE(box.busy());
}
