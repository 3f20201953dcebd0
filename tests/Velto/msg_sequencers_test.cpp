#include "Velto/msg_sequencers.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/test_support.h"

using testsupport::stderrOf;
using testsupport::stdoutOf;

namespace {

std::vector<uint8_t> pattern(size_t n) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>((i * 7 + 3) & 0xFF);
    return v;
}

MsgSelector directSelector() {
    MsgSelector s;
    s.msgCat = DIRECT_MSGCAT;
    s.fromDeviceId = 1001;
    s.fromObjectNo = 3;
    s.msgId = 42;
    s.toDeviceId = 1002;
    s.toObjectNo = 7;
    s.msgNo = 9;
    return s;
}

// Every test that moves the clock leaves it as it found it.
class MsgSequencersTest : public ::testing::Test {
protected:
    void TearDown() override { setClockOffsetForTesting(0); }
    // Gives s a message of n pattern bytes (kept in msg) under directSelector().
    void load(MsgSender& s, size_t n) {
        msg = pattern(n);
        ASSERT_TRUE(s.setNewMessage(msg.data(), static_cast<uint32_t>(n), directSelector()));
    }
    std::vector<uint8_t> msg;
};


// Pulls every piece the sender has now; returns them in order.
std::vector<MessageCarrierPack> drain(MsgSender& s) {
    std::vector<MessageCarrierPack> out;
    for (int guard = 0; guard < 1000; ++guard) {
        MessageCarrierPack p;
        if (!s.getNextPack(p)) break;
        out.push_back(p);
    }
    return out;
}

}  // namespace

TEST_F(MsgSequencersTest, SelectorEqualityIgnoresReceiverOnlyForNotifications) {
    MsgSelector a = directSelector();
    MsgSelector b = a;
    b.toObjectNo = 8;
    EXPECT_FALSE(a == b);
    EXPECT_TRUE(a != b);
    a.msgCat = b.msgCat = NOTIFICATION_MSGCAT;
    EXPECT_TRUE(a == b);
    b.toDeviceId = 5;
    EXPECT_TRUE(a == b);
    b.msgId = 43;
    EXPECT_FALSE(a == b);

    // msgNo, msgSize and checksum never take part.
    MsgSelector c = directSelector(), d = directSelector();
    d.msgNo = 100;
    d.msgSize = 5;
    d.checksum = 77;
    EXPECT_TRUE(c == d);
    d.fromObjectNo = 4;
    EXPECT_FALSE(c == d);
}

TEST_F(MsgSequencersTest, SelectorCopiesToAndFromPacks) {
    MsgSelector s = directSelector();
    s.msgSize = 1234;
    s.checksum = 0xDEADBEEF;

    MessageCarrierPack p;
    s.copyTo(p);
    MsgSelector back;
    back = p;
    EXPECT_TRUE(back == s);  // category, sender, id, receiver
    EXPECT_EQ(back.msgNo, s.msgNo);
    EXPECT_EQ(back.msgSize, 1234u);
    EXPECT_EQ(back.checksum, 0xDEADBEEFu);

    MessageCarrierACKPack a;
    s.copyTo(a);
    EXPECT_EQ(a.toObjectNo, 7);
    EXPECT_EQ(a.msgNo, 9u);
    MsgSelector fromAck;
    fromAck.msgSize = 55;
    fromAck.checksum = 66;
    fromAck = a;
    EXPECT_TRUE(fromAck == s);
    EXPECT_EQ(fromAck.msgNo, 9u);
    // The acknowledgement has no size and checksum: those are left alone.
    EXPECT_EQ(fromAck.msgSize, 55u);
    EXPECT_EQ(fromAck.checksum, 66u);
}

TEST_F(MsgSequencersTest, ChecksumSumsUnsignedBytes) {
    const uint8_t ff[3] = {0xFF, 0xFF, 0xFF};
    EXPECT_EQ(messageChecksum(ff, 3), 765u);
    EXPECT_EQ(messageChecksum(nullptr, 3), 0u);

    MsgSender s;
    ASSERT_TRUE(s.setNewMessage(ff, 3, directSelector()));
    EXPECT_EQ(s.getMsgInfo().checksum, 765u);
    EXPECT_EQ(s.getMsgInfo().msgSize, 3u);
}

TEST_F(MsgSequencersTest, PiecesAreAtMost326Bytes) {
    for (uint32_t size : {326u, 327u}) {
        SCOPED_TRACE(size);
        std::vector<uint8_t> msg = pattern(size);
        MsgSender s;
        ASSERT_TRUE(s.setNewMessage(msg.data(), size, directSelector()));
        EXPECT_EQ(s.getStatus(), MsgSender::SEND_NOW);
        std::vector<MessageCarrierPack> pieces = drain(s);
        ASSERT_EQ(pieces.size(), size == 326 ? 1u : 2u);
        EXPECT_EQ(pieces[0].packetStart, 0u);
        EXPECT_EQ(pieces[0].payload.size(), 326u);
        EXPECT_EQ(0, memcmp(pieces[0].payload.data(), msg.data(), 326));
        if (size == 327) {
            EXPECT_EQ(pieces[1].packetStart, 326u);
            EXPECT_EQ(pieces[1].payload.size(), 1u);
            EXPECT_EQ(pieces[1].payload[0], msg[326]);
        }
        EXPECT_EQ(s.getStatus(), MsgSender::WAITING_FOR_ACK);
    }
}

TEST_F(MsgSequencersTest, EveryPieceCarriesTheFullSelector) {
    MsgSender s;
    load(s, 1000);
    std::vector<MessageCarrierPack> pieces = drain(s);
    ASSERT_EQ(pieces.size(), 4u);
    for (const MessageCarrierPack& p : pieces) {
        MsgSelector got;
        got = p;
        EXPECT_TRUE(got == directSelector());
        EXPECT_EQ(p.msgNo, 9u);
        EXPECT_EQ(p.msgSize, 1000u);
        EXPECT_EQ(p.checksum, messageChecksum(msg.data(), 1000));
        EXPECT_EQ(p.commands, 0);
    }
    EXPECT_EQ(pieces[3].packetStart, 978u);
    EXPECT_EQ(pieces[3].payload.size(), 22u);
}

TEST_F(MsgSequencersTest, SetNewMessageRefusals) {
    std::vector<uint8_t> msg = pattern(10);
    MsgSender s;
    EXPECT_EQ(s.getStatus(), MsgSender::EMPTY);
    EXPECT_FALSE(s.setNewMessage(msg.data(), 0, directSelector()));
    EXPECT_FALSE(s.setNewMessage(nullptr, 10, directSelector()));
    EXPECT_EQ(s.getStatus(), MsgSender::EMPTY);

    ASSERT_TRUE(s.setNewMessage(msg.data(), 10, directSelector()));
    MsgSelector other = directSelector();
    other.msgNo = 77;
    EXPECT_FALSE(s.setNewMessage(msg.data(), 5, other));
    EXPECT_EQ(s.getMsgInfo().msgNo, 9u);
    EXPECT_EQ(s.capacity(), 10u);

    s.clear();
    EXPECT_EQ(s.getStatus(), MsgSender::EMPTY);
    EXPECT_EQ(s.capacity(), 0u);
    EXPECT_EQ(s.getMsgInfo().msgNo, 0u);
    EXPECT_TRUE(s.setNewMessage(msg.data(), 5, other));
}

TEST_F(MsgSequencersTest, AckBeyondHighestByteSentChangesNothing) {
    MsgSender s;
    load(s, 1000);
    MessageCarrierPack first;
    ASSERT_TRUE(s.getNextPack(first));  // 0..326 out
    EXPECT_FALSE(s.processAck(327, directSelector()));
    EXPECT_FALSE(s.processAck(1000, directSelector()));
    MessageCarrierPack next;
    ASSERT_TRUE(s.getNextPack(next));
    EXPECT_EQ(next.packetStart, 326u);
    EXPECT_NE(s.getStatus(), MsgSender::DONE);
}

TEST_F(MsgSequencersTest, AckDrivesResendAndCompletion) {
    MsgSender s;
    load(s, 1000);
    ASSERT_EQ(drain(s).size(), 4u);
    EXPECT_EQ(s.getStatus(), MsgSender::WAITING_FOR_ACK);

    // A smaller position: go back and send again from there.
    EXPECT_TRUE(s.processAck(500, directSelector()));
    EXPECT_EQ(s.getStatus(), MsgSender::SEND_NOW);
    std::vector<MessageCarrierPack> again = drain(s);
    ASSERT_EQ(again.size(), 2u);
    EXPECT_EQ(again[0].packetStart, 500u);
    EXPECT_EQ(again[0].payload.size(), 326u);
    EXPECT_EQ(0, memcmp(again[0].payload.data(), msg.data() + 500, 326));
    EXPECT_EQ(again[1].packetStart, 826u);
    EXPECT_EQ(again[1].payload.size(), 174u);

    EXPECT_TRUE(s.processAck(1000, directSelector()));
    EXPECT_EQ(s.getStatus(), MsgSender::DONE);
    MessageCarrierPack none;
    EXPECT_FALSE(s.getNextPack(none));
}

// The clock-free predicates agree with getStatus() through a message's life.
TEST_F(MsgSequencersTest, DoneAndUnsentAgreeWithStatus) {
    auto agree = [](const MsgSender& s) {
        const MsgSender::SenderStatus st = s.getStatus();
        EXPECT_EQ(st == MsgSender::DONE, s.isDone()) << st;
        EXPECT_EQ(st == MsgSender::SEND_NOW || st == MsgSender::DELAYED_SEND, s.hasUnsent()) << st;
    };
    std::vector<uint8_t> msg = pattern(700);
    MsgSender s;
    agree(s);  // EMPTY
    ASSERT_TRUE(s.setNewMessage(msg.data(), 700, directSelector()));
    agree(s);  // SEND_NOW
    MessageCarrierPack p;
    ASSERT_TRUE(s.getNextPack(p));
    agree(s);  // still bytes to send
    drain(s);
    agree(s);  // WAITING_FOR_ACK
    setClockOffsetForTesting(1000);
    agree(s);  // TIMEOUT
    setClockOffsetForTesting(0);
    EXPECT_TRUE(s.processAck(326, directSelector()));
    agree(s);  // SEND_NOW again
    drain(s);
    EXPECT_TRUE(s.processAck(700, directSelector()));
    agree(s);  // DONE
    s.clear();
    agree(s);  // EMPTY
}

TEST_F(MsgSequencersTest, ProcessAckDiagnostics) {
    std::vector<uint8_t> msg = pattern(20);
    MsgSender s;

    EXPECT_EQ(stderrOf([&] { EXPECT_FALSE(s.processAck(0, directSelector())); }), "MsgSender::processAck() bailaou #1\n");

    ASSERT_TRUE(s.setNewMessage(msg.data(), 20, directSelector()));
    ASSERT_EQ(drain(s).size(), 1u);
    MsgSelector other = directSelector();
    other.fromDeviceId = 1500;
    other.toObjectNo = 12;
    EXPECT_EQ(stderrOf([&] { EXPECT_FALSE(s.processAck(20, other)); }),
              "MsgSender::processAck() bailaou #2\n"
              "INF:2 1001/3,42,1002,7\n"
              "MS:2 1500/3,42,1002,12\n");
    EXPECT_EQ(s.getStatus(), MsgSender::WAITING_FOR_ACK);

    // The pack variant: all fields separated by ",", category as a raw byte.
    MessageCarrierACKPack ack;
    other.msgCat = 'A';
    other.copyTo(ack);
    ack.lastSeqNo = 20;
    EXPECT_EQ(stderrOf([&] { EXPECT_FALSE(s.processAck(ack)); }),
              "MsgSender::processAck() bailaou #2\n"
              "INF:\x02,1001,3,42,1002,7\n"
              "MS:A,1500,3,42,1002,12\n");

    MessageCarrierACKPack good;
    directSelector().copyTo(good);
    good.lastSeqNo = 20;
    EXPECT_EQ(stderrOf([&] { EXPECT_TRUE(s.processAck(good)); }), "");
    EXPECT_EQ(s.getStatus(), MsgSender::DONE);
    EXPECT_EQ(stderrOf([&] { EXPECT_FALSE(s.processAck(good)); }), "MsgSender::processAck() bailaou #1\n");
}

TEST_F(MsgSequencersTest, SenderTimesOutAfter250ms) {
    MsgSender s;
    load(s, 400);
    ASSERT_EQ(drain(s).size(), 2u);
    EXPECT_EQ(s.getStatus(), MsgSender::WAITING_FOR_ACK);
    setClockOffsetForTesting(1000);
    EXPECT_EQ(s.getStatus(), MsgSender::TIMEOUT);
    // A time-out is only reported: an acknowledgement still completes it.
    EXPECT_TRUE(s.processAck(400, directSelector()));
    EXPECT_EQ(s.getStatus(), MsgSender::DONE);
}

TEST_F(MsgSequencersTest, FallbackResendsLastPieceAndCountsFailures) {
    MsgSender s;
    load(s, 700);
    ASSERT_EQ(drain(s).size(), 3u);  // last piece at 652, 48 bytes

    EXPECT_EQ(stdoutOf([&] { EXPECT_TRUE(s.fallbackToLastSentSequence()); }),
              "MsgSender::fallbackToLastSequence(652) \n");
    std::vector<MessageCarrierPack> again = drain(s);
    ASSERT_EQ(again.size(), 1u);
    EXPECT_EQ(again[0].packetStart, 652u);
    EXPECT_EQ(again[0].payload.size(), 48u);

    stdoutOf([&] {
        for (int i = 1; i < 10; ++i) s.fallbackToLastSentSequence();
    });
    EXPECT_FALSE(s.tooManyFailures());  // 10 failures
    stdoutOf([&] { s.fallbackToLastSentSequence(); });
    EXPECT_TRUE(s.tooManyFailures());  // 11

    // clear keeps the count; only a new message resets it.
    s.clear();
    EXPECT_TRUE(s.tooManyFailures());
    ASSERT_TRUE(s.setNewMessage(msg.data(), 700, directSelector()));
    EXPECT_FALSE(s.tooManyFailures());
}

TEST_F(MsgSequencersTest, ResetToLastAckedIsRefusedButCounts) {
    MsgSender s;
    load(s, 700);
    ASSERT_EQ(drain(s).size(), 3u);
    ASSERT_TRUE(s.processAck(326, directSelector()));
    // kept quirk: the acknowledgement's time is taken for a position.
    EXPECT_FALSE(s.resetToLastAckedSequence());
    MessageCarrierPack p;
    ASSERT_TRUE(s.getNextPack(p));
    EXPECT_EQ(p.packetStart, 326u);
    for (int i = 0; i < 10; ++i) s.resetToLastAckedSequence();
    EXPECT_TRUE(s.tooManyFailures());
}

TEST_F(MsgSequencersTest, DesequencerDropsPieceAfterGap) {
    std::vector<uint8_t> msg = pattern(1000);
    std::vector<uint8_t> buf(1000, 0);
    MsgDesequencer d;
    ASSERT_TRUE(d.init(buf.data(), 1000));
    EXPECT_FALSE(d.init(buf.data(), 1000));
    uint32_t pos = 99;
    ASSERT_TRUE(d.put(msg.data(), 0, 326));
    EXPECT_FALSE(d.sendAck(pos));  // in order: no acknowledgement yet
    EXPECT_FALSE(d.put(msg.data() + 652, 652, 326));
    EXPECT_EQ(d.size(), 326u);
    EXPECT_EQ(buf[652], 0);
    ASSERT_TRUE(d.sendAck(pos));
    EXPECT_EQ(pos, 326u);
    EXPECT_FALSE(d.sendAck(pos));  // answered once per gap

    ASSERT_TRUE(d.put(msg.data() + 326, 326, 326));
    // A repeated earlier piece moves the position back to its end.
    ASSERT_TRUE(d.put(msg.data(), 0, 326));
    EXPECT_EQ(d.size(), 326u);
    EXPECT_EQ(d.left(), 674u);
}

TEST_F(MsgSequencersTest, DesequencerCutsAtMessageSize) {
    std::vector<uint8_t> src = pattern(64);
    uint8_t buf[20];
    memset(buf, 0xEE, sizeof buf);
    MsgDesequencer d;
    ASSERT_TRUE(d.init(buf, 16));  // the last 4 bytes must stay untouched
    EXPECT_FALSE(d.put(src.data(), 10, 0));  // gap at 10 before anything
    ASSERT_TRUE(d.put(src.data(), 0, 64));
    EXPECT_EQ(d.size(), 16u);
    EXPECT_EQ(d.left(), 0u);
    EXPECT_EQ(0, memcmp(buf, src.data(), 16));
    for (int i = 16; i < 20; ++i) EXPECT_EQ(buf[i], 0xEE);
    EXPECT_EQ(d.calcChecksum(), messageChecksum(src.data(), 16));
    ASSERT_TRUE(d.put(src.data(), 8, 0xFFFFFFFFu));  // huge length is cut too
    EXPECT_EQ(d.size(), 16u);
    EXPECT_FALSE(d.put(nullptr, 0, 4));
}

TEST_F(MsgSequencersTest, ReceiverStatusAndChecksum) {
    std::vector<uint8_t> msg = pattern(400);
    std::vector<uint8_t> buf(400, 0);
    MsgReceiver r;
    EXPECT_EQ(r.getStatus(), MsgReceiver::EMPTY);
    MsgSelector sel = directSelector();
    sel.checksum = 1;  // wrong on purpose: replaced once complete
    ASSERT_TRUE(r.init(buf.data(), 400, sel));
    EXPECT_FALSE(r.init(buf.data(), 400, sel));
    EXPECT_EQ(r.getStatus(), MsgReceiver::RECEIVING);
    setClockOffsetForTesting(1000);
    EXPECT_EQ(r.getStatus(), MsgReceiver::RECEIVING);  // nothing taken yet

    ASSERT_TRUE(r.put(msg.data(), 0, 326));
    uint32_t pos = 0;
    EXPECT_FALSE(r.sendAck(pos));
    EXPECT_EQ(r.getMsgInfo().checksum, 1u);
    EXPECT_EQ(r.getStatus(), MsgReceiver::RECEIVING);
    setClockOffsetForTesting(2000);
    EXPECT_EQ(r.getStatus(), MsgReceiver::TIMEOUT);

    ASSERT_TRUE(r.put(msg.data() + 326, 326, 74));
    EXPECT_EQ(r.getStatus(), MsgReceiver::DONE);
    ASSERT_TRUE(r.sendAck(pos));
    EXPECT_EQ(pos, 400u);
    EXPECT_EQ(r.getMsgInfo().checksum, messageChecksum(msg.data(), 400));
    EXPECT_EQ(r.size(), 400u);

    r.clear();
    EXPECT_EQ(r.getStatus(), MsgReceiver::EMPTY);
    EXPECT_EQ(r.getMsgInfo().msgNo, 0u);
    EXPECT_TRUE(r.init(buf.data(), 10, sel));
}

// The whole road: every piece and acknowledgement through the wire format,
// with one piece lost on the way so the receiver reports a gap and the sender
// goes back to it.
TEST_F(MsgSequencersTest, FullTransferReproducesTheMessage) {
    const uint32_t size = 5000;
    std::vector<uint8_t> msg = pattern(size);
    std::vector<uint8_t> dest(size, 0);
    MsgSender sender;
    MsgReceiver receiver;
    ASSERT_TRUE(sender.setNewMessage(msg.data(), size, directSelector()));

    bool dropped = false;
    int acks = 0;
    for (int round = 0; round < 100 && sender.getStatus() != MsgSender::DONE; ++round) {
        MessageCarrierPack out;
        uint8_t wire[MAX_PACKET_SIZE];
        if (sender.getNextPack(out)) {
            int n = out.serialize(wire, sizeof wire);
            ASSERT_GT(n, 0);
            if (!dropped && out.packetStart == 978) {
                dropped = true;
                continue;
            }
            MessageCarrierPack in;
            ASSERT_EQ(in.deserialize(wire, static_cast<size_t>(n), false), n);
            if (receiver.getStatus() == MsgReceiver::EMPTY) {
                MsgSelector sel;
                sel = in;
                ASSERT_TRUE(receiver.init(dest.data(), in.msgSize, sel));
            }
            receiver.put(in.payload.data(), in.packetStart, static_cast<uint32_t>(in.payload.size()));
        }
        uint32_t pos = 0;
        if (!receiver.sendAck(pos)) continue;
        MessageCarrierACKPack ack;
        receiver.getMsgInfo().copyTo(ack);
        ack.lastSeqNo = pos;
        int n = ack.serialize(wire, sizeof wire);
        ASSERT_GT(n, 0);
        MessageCarrierACKPack ackIn;
        ASSERT_EQ(ackIn.deserialize(wire, static_cast<size_t>(n), false), n);
        MsgSelector ackSel;
        ackSel = ackIn;
        EXPECT_TRUE(sender.processAck(ackIn.lastSeqNo, ackSel));
        ++acks;
    }
    EXPECT_TRUE(dropped);
    EXPECT_EQ(acks, 2);  // one for the gap, one at the end
    EXPECT_EQ(sender.getStatus(), MsgSender::DONE);
    EXPECT_EQ(receiver.getStatus(), MsgReceiver::DONE);
    EXPECT_EQ(dest, msg);
    EXPECT_EQ(receiver.getMsgInfo().checksum, sender.getMsgInfo().checksum);
}
