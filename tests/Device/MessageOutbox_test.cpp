#include "Device/MessageOutbox.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

using namespace device;

namespace {

class MessageOutboxTest : public ::testing::Test {
protected:
    void TearDown() override { setClockOffsetForTesting(0); }
    void advance(int64_t ms) {
        offset += ms;
        setClockOffsetForTesting(offset);
    }

    static MsgSelector direct(MessageNo no) {
        MsgSelector ms;
        ms.msgCat = DIRECT_MSGCAT;
        ms.fromDeviceId = 1000;
        ms.fromObjectNo = 1;
        ms.msgId = 7;
        ms.toDeviceId = 1001;
        ms.toObjectNo = 2;
        ms.msgNo = no;
        return ms;
    }
    static std::vector<uint8_t> data(size_t n) {
        std::vector<uint8_t> d(n);
        for (size_t i = 0; i < n; ++i) d[i] = static_cast<uint8_t>(i * 31 + 5);
        return d;
    }
    static MessageCarrierACKPack ackFor(const MsgSelector& ms, uint32_t pos) {
        MessageCarrierACKPack a;
        ms.copyTo(a);
        a.lastSeqNo = pos;
        return a;
    }
    // Every piece the outbox will give now, as (position, length).
    std::vector<std::pair<uint32_t, size_t>> drain(std::vector<uint8_t>* bytes = nullptr) {
        std::vector<std::pair<uint32_t, size_t>> out;
        MessageCarrierPack p;
        for (int i = 0; i < 100 && box.nextPiece(p); ++i) {
            out.emplace_back(p.packetStart, p.payload.size());
            if (bytes) {
                if (bytes->size() < p.packetStart + p.payload.size()) bytes->resize(p.packetStart + p.payload.size());
                std::copy(p.payload.data(), p.payload.data() + p.payload.size(), bytes->begin() + p.packetStart);
            }
            last = p;
            p = MessageCarrierPack();
        }
        return out;
    }

    MessageOutbox box;
    MessageCarrierPack last;
    int64_t offset = 0;
};

}  // namespace

TEST_F(MessageOutboxTest, CutsIntoPiecesOfAtMost326AndCarriesTheSelector) {
    std::vector<uint8_t> msg = data(327);
    ASSERT_TRUE(box.enqueue(direct(4), msg));
    std::vector<uint8_t> got;
    auto pieces = drain(&got);
    ASSERT_EQ(2u, pieces.size());
    EXPECT_EQ(std::make_pair(0u, size_t(326)), pieces[0]);
    EXPECT_EQ(std::make_pair(326u, size_t(1)), pieces[1]);
    EXPECT_EQ(msg, got);
    EXPECT_EQ(327u, last.msgSize);
    EXPECT_EQ(std::accumulate(msg.begin(), msg.end(), 0u), last.checksum);
    EXPECT_EQ(4u, last.msgNo);
    EXPECT_EQ(1001, last.toDeviceId);
    EXPECT_TRUE(drain().empty()) << "nothing more until acknowledged";
}

TEST_F(MessageOutboxTest, FullAckDeliversAndStartsTheNextMessage) {
    ASSERT_TRUE(box.enqueue(direct(1), data(10)));
    ASSERT_TRUE(box.enqueue(direct(2), data(20)));
    EXPECT_EQ(1u, drain().size());
    EXPECT_TRUE(box.pending(2));
    EXPECT_TRUE(box.takeAck(ackFor(direct(1), 10)));
    auto results = box.takeResults();
    ASSERT_EQ(1u, results.size());
    EXPECT_EQ(1u, results[0].msgNo);
    EXPECT_TRUE(results[0].delivered);
    auto next = drain();
    ASSERT_EQ(1u, next.size());
    EXPECT_EQ(20u, next[0].second);
    EXPECT_EQ(2u, last.msgNo);
    EXPECT_TRUE(box.takeAck(ackFor(direct(2), 20)));
    EXPECT_FALSE(box.busy());
}

TEST_F(MessageOutboxTest, PartialAckResendsFromThatPosition) {
    ASSERT_TRUE(box.enqueue(direct(3), data(1000)));
    EXPECT_EQ(4u, drain().size());
    EXPECT_TRUE(box.takeAck(ackFor(direct(3), 326)));
    auto again = drain();
    ASSERT_EQ(3u, again.size());
    EXPECT_EQ(326u, again[0].first);
    EXPECT_EQ(978u, again[2].first);
    EXPECT_TRUE(box.takeResults().empty());
}

TEST_F(MessageOutboxTest, ForeignStaleOrImpossibleAcksChangeNothing) {
    ASSERT_TRUE(box.enqueue(direct(5), data(400)));
    drain();
    EXPECT_FALSE(box.takeAck(ackFor(direct(4), 400))) << "another message number";
    MsgSelector other = direct(5);
    other.toObjectNo = 9;
    EXPECT_FALSE(box.takeAck(ackFor(other, 400))) << "another destination";
    EXPECT_FALSE(box.takeAck(ackFor(direct(5), 401))) << "beyond what was sent";
    EXPECT_TRUE(box.takeResults().empty());
    EXPECT_TRUE(drain().empty());
    EXPECT_TRUE(box.takeAck(ackFor(direct(5), 400)));
    MessageOutbox idle;
    EXPECT_FALSE(idle.takeAck(ackFor(direct(5), 400)));
}

TEST_F(MessageOutboxTest, TimeoutResendsTheLastPieceAndFinallyGivesUp) {
    ASSERT_TRUE(box.enqueue(direct(6), data(700)));
    drain();
    EXPECT_FALSE(box.checkTimeout()) << "still within the wait";
    int resends = 0;
    for (int i = 0; i < 20 && box.busy(); ++i) {
        advance(300);
        if (box.checkTimeout()) {
            auto again = drain();
            ASSERT_EQ(1u, again.size());
            EXPECT_EQ(652u, again[0].first);
            ++resends;
        }
    }
    EXPECT_EQ(MsgSender::MaxConssecutiveFailues + 1, resends);
    auto results = box.takeResults();
    ASSERT_EQ(1u, results.size());
    EXPECT_FALSE(results[0].delivered);
    EXPECT_FALSE(results[0].reason.empty());
}

TEST_F(MessageOutboxTest, RefusesEmptyMessagesAndAnOverfullQueue) {
    EXPECT_FALSE(box.enqueue(direct(1), {}));
    for (size_t i = 0; i < MessageOutbox::MAX_QUEUED; ++i) ASSERT_TRUE(box.enqueue(direct(i + 1), data(3)));
    EXPECT_FALSE(box.enqueue(direct(999), data(3)));
    box.abandonAll("stop");
    auto results = box.takeResults();
    EXPECT_EQ(MessageOutbox::MAX_QUEUED, results.size());
    for (const auto& r : results) EXPECT_FALSE(r.delivered);
    EXPECT_FALSE(box.busy());
}
