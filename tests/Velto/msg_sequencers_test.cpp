// Message sequencing: cutting into pieces, acknowledgements, time-outs, gap
// handling on the receiving side, the kept quirks, and a whole transfer.
#include "Velto/msg_sequencers.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "Device/PackKit.h"
#include "tests/support/test_support.h"

using testsupport::stderrOf;
using testsupport::stdoutOf;

namespace {

std::vector<uint8_t> pattern(size_t n) { return packkit::pattern(n, 3); }
MsgSelector directSelector() { return packkit::selector(DIRECT_MSGCAT, 1001, 3, 42, 1002, 7, 9); }

// Pulls every piece the sender has now; returns them in order.
std::vector<MessageCarrierPack> drain(MsgSender& s) {
    std::vector<MessageCarrierPack> out;
    MessageCarrierPack p;
    for (int guard = 0; guard < 1000 && s.getNextPack(p); ++guard) out.push_back(p);
    return out;
}

// Every test that moves the clock leaves it as it found it.
class MsgSequencersTest : public ::testing::Test {
protected:
    void TearDown() override { setClockOffsetForTesting(0); }
    // Gives s a message of n pattern bytes (kept in msg) and takes all its pieces.
    void loadAndDrain(MsgSender& s, size_t n, size_t pieces) {
        msg = pattern(n);
        ASSERT_TRUE(s.setNewMessage(msg.data(), static_cast<uint32_t>(n), directSelector()));
        ASSERT_EQ(drain(s).size(), pieces);
    }
    std::vector<uint8_t> msg;
};

}  // namespace

TEST_F(MsgSequencersTest, AckDrivesResendAndCompletion) {
    MsgSender s;
    loadAndDrain(s, 1000, 4);
    EXPECT_FALSE(s.processAck(1001, directSelector()));  // beyond what was sent
    EXPECT_TRUE(s.processAck(500, directSelector()));    // go back to 500
    EXPECT_EQ(s.getStatus(), MsgSender::SEND_NOW);
    std::vector<MessageCarrierPack> again = drain(s);
    ASSERT_EQ(again.size(), 2u);
    EXPECT_EQ(again[0].packetStart, 500u);
    EXPECT_EQ(0, memcmp(again[0].payload.data(), msg.data() + 500, 326));
    EXPECT_EQ(again[1].payload.size(), 174u);
    EXPECT_TRUE(s.processAck(1000, directSelector()));
    EXPECT_EQ(s.getStatus(), MsgSender::DONE);
}

TEST_F(MsgSequencersTest, ProcessAckDiagnostics) {
    MsgSender s;
    EXPECT_EQ(stderrOf([&] { EXPECT_FALSE(s.processAck(0, directSelector())); }), "MsgSender::processAck() bailaou #1\n");
    loadAndDrain(s, 20, 1);
    MsgSelector other = directSelector();
    other.fromDeviceId = 1500;
    other.toObjectNo = 12;
    EXPECT_EQ(stderrOf([&] { EXPECT_FALSE(s.processAck(20, other)); }),
              "MsgSender::processAck() bailaou #2\nINF:2 1001/3,42,1002,7\nMS:2 1500/3,42,1002,12\n");
}

TEST_F(MsgSequencersTest, SenderTimesOutAfter250msButAnAckStillCompletes) {
    MsgSender s;
    loadAndDrain(s, 400, 2);
    setClockOffsetForTesting(200);
    EXPECT_EQ(s.getStatus(), MsgSender::WAITING_FOR_ACK);
    setClockOffsetForTesting(1000);
    EXPECT_EQ(s.getStatus(), MsgSender::TIMEOUT);
    EXPECT_TRUE(s.processAck(400, directSelector()));
    EXPECT_EQ(s.getStatus(), MsgSender::DONE);
}

TEST_F(MsgSequencersTest, FallbackResendsLastPieceAndCountsFailures) {
    MsgSender s;
    loadAndDrain(s, 700, 3);  // last piece at 652, 48 bytes
    EXPECT_EQ(stdoutOf([&] { EXPECT_TRUE(s.fallbackToLastSentSequence()); }),
              "MsgSender::fallbackToLastSequence(652) \n");
    std::vector<MessageCarrierPack> again = drain(s);
    ASSERT_EQ(again.size(), 1u);
    EXPECT_EQ(again[0].packetStart, 652u);
    stdoutOf([&] {
        for (int i = 1; i < 10; ++i) s.fallbackToLastSentSequence();
    });
    EXPECT_FALSE(s.tooManyFailures());  // 10 failures
    stdoutOf([&] { s.fallbackToLastSentSequence(); });
    EXPECT_TRUE(s.tooManyFailures());  // 11
    s.clear();                         // clear keeps the count; a new message resets it
    EXPECT_TRUE(s.tooManyFailures());
    ASSERT_TRUE(s.setNewMessage(msg.data(), 700, directSelector()));
    EXPECT_FALSE(s.tooManyFailures());
}

TEST_F(MsgSequencersTest, ResetToLastAckedIsRefusedButCounts) {
    MsgSender s;
    loadAndDrain(s, 700, 3);
    ASSERT_TRUE(s.processAck(326, directSelector()));
    // kept quirk: the acknowledgement's time is taken for a position.
    EXPECT_FALSE(s.resetToLastAckedSequence());
    MessageCarrierPack p;
    ASSERT_TRUE(s.getNextPack(p));
    EXPECT_EQ(p.packetStart, 326u);
    for (int i = 0; i < 10; ++i) s.resetToLastAckedSequence();
    EXPECT_TRUE(s.tooManyFailures());
}

// A whole transfer with one piece lost on the way: the receiver reports the
// gap and the sender goes back to it.
TEST_F(MsgSequencersTest, FullTransferWithALostPieceReproducesTheMessage) {
    msg = pattern(5000);
    std::vector<uint8_t> dest(5000, 0);
    MsgSender sender;
    MsgReceiver receiver;
    ASSERT_TRUE(sender.setNewMessage(msg.data(), 5000, directSelector()));
    ASSERT_TRUE(receiver.init(dest.data(), 5000, directSelector()));
    bool dropped = false;
    int acks = 0;
    for (int round = 0; round < 100 && sender.getStatus() != MsgSender::DONE; ++round) {
        MessageCarrierPack out;
        if (sender.getNextPack(out) && (dropped || out.packetStart != 978))
            receiver.put(out.payload.data(), out.packetStart, static_cast<uint32_t>(out.payload.size()));
        dropped = dropped || out.packetStart == 978;
        uint32_t pos = 0;
        if (!receiver.sendAck(pos)) continue;
        MessageCarrierACKPack ack;
        receiver.getMsgInfo().copyTo(ack);
        ack.lastSeqNo = pos;
        EXPECT_TRUE(sender.processAck(ack));
        ++acks;
    }
    EXPECT_EQ(acks, 2);  // one for the gap, one at the end
    EXPECT_EQ(sender.getStatus(), MsgSender::DONE);
    EXPECT_EQ(dest, msg);
    EXPECT_EQ(receiver.getMsgInfo().checksum, sender.getMsgInfo().checksum);
}
