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
// given up after eleven waits in a row without progress: an ack that gets
// further starts the count again. A long message never answered at all is sent
// once more from its first piece after three silent resends; a short one never.
TEST(MessageOutbox, TimeoutsResendAndFinallyGiveUp) {
    for (const uint32_t size : {700u, MessageOutbox::BURST_PIECES * 326u + 1}) {
        MessageOutbox box;
        ASSERT_TRUE(box.enqueue(direct(6), std::vector<uint8_t>(size, 1)));
        int clock = 0;
        auto sendAll = [&] {  // across the gaps between bursts
            size_t n = 0;
            for (int i = 0; i < 5; ++i, setClockOffsetForTesting(clock += 10)) n += drain(box).size();
            return n;
        };
        auto resends = [&](int most) {  // the pieces sent after each time-out
            std::vector<size_t> sent;
            for (int i = 0; i < most && box.busy(); ++i)
                if (setClockOffsetForTesting(clock += 300), box.checkTimeout()) sent.push_back(sendAll());
            return sent;
        };
        sendAll();
        std::vector<size_t> sent(11, 1);
        if (size == 700) {
            EXPECT_EQ(std::vector<size_t>(8, 1), resends(8));
            ASSERT_TRUE(box.takeAck(ackFor(6, 326)));
            EXPECT_EQ(2u, sendAll());
        } else {
            sent[3] = MessageOutbox::BURST_PIECES + 1;
        }
        EXPECT_EQ(sent, resends(20)) << size;
        setClockOffsetForTesting(0);
        EXPECT_EQ(std::vector<std::string>{"6 lost"}, outcomes(box));
    }
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
