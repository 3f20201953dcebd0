#include "Hub/messages.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Device/PackKit.h"
#include "Hub/DeviceManager.h"
#include "Hub/server.h"
#include "tests/support/session_story.h"

using sessionstory::JoinedDevice;
using sessionstory::LoopbackPeer;

namespace {

[[maybe_unused]] const auto* const scratch = ::testing::AddGlobalTestEnvironment(new sessionstory::ScratchWorkDir);

// Device A (objects 0 and 1) and device B (object 0), both CONNECTED, share
// the hub socket; each has a socket of its own playing the device.
class MessageTest : public ::testing::Test {
protected:
    void SetUp() override {
        a.connectWithObjects(2);
        b.connectWithObjects(1);
    }
    void TearDown() override { setClockOffsetForTesting(0); }

    MsgSelector direct(DeviceID to, uint16_t msgId = 5, uint32_t msgNo = 1) {
        return packkit::selector(DIRECT_MSGCAT, a.id, 1, msgId, to, 0, msgNo);
    }

    // The piece from A's device that starts at byte `start` of a body of `size` bytes.
    void sendPiece(const MsgSelector& ms, uint32_t size, uint32_t start) {
        std::vector<uint8_t> body(size, 0x5a);
        MessageCarrierPack p = packkit::carrier(ms, body.data(), size, start);
        p.devId = a.id;
        handleMessagePack(p, a->record().lastAddress, *a);
    }

    uint32_t ackAtA() {
        MessageCarrierACKPack ack;
        return devA.receivePack(ack) ? ack.lastSeqNo : 0;
    }

    LoopbackPeer hub, devA, devB;
    JoinedDevice a{devA, hub, "sender"};
    JoinedDevice b{devB, hub, "receiver"};
};

// A piece must match the open reception in everything but msgNo.
TEST_F(MessageTest, LaterPieceOfAnotherMessageIsRefusedAndTheReceptionStaysOpen) {
    sendPiece(direct(b.id, 5), 600, 0);
    sendPiece(direct(b.id, 6), 600, 326);  // another msgId
    EXPECT_TRUE(devA.silent());
    EXPECT_EQ(326u, a->messageReceiver().size());

    sendPiece(direct(b.id, 5, 99), 600, 326);  // differs only in msgNo: accepted
    EXPECT_EQ(600u, ackAtA());
    MessageCarrierPack piece;
    ASSERT_TRUE(devB.receivePack(piece));
    EXPECT_EQ(5, piece.msgId);
}

// A sender not yet connected, a missing destination node, an unknown category:
// the whole message is acknowledged, nothing goes on, the reception is closed.
TEST_F(MessageTest, UndeliverableMessagesAreAcknowledgedAndDropped) {
    MsgSelector unknownCat = direct(b.id);
    unknownCat.msgCat = 3;
    const struct {
        MsgSelector ms;
        bool connected;
        std::string err;
    } cases[] = {
        {direct(b.id), false, ""},
        {direct(300), true, "Msg proxy==NULL for did=300 toObjNo=1\n"},
        {unknownCat, true, "ERROR ClientProxy::putMsgPacket() dispatch unknown msgCat=3\n"},
    };
    for (const auto& c : cases) {
        a->status().state = c.connected ? NodeStatusInfo::CONNECTED : NodeStatusInfo::INITIALIZING;
        EXPECT_EQ(c.err, testsupport::stderrOf([&] { sendPiece(c.ms, 50, 0); }));
        EXPECT_EQ(50u, ackAtA());
        EXPECT_TRUE(devB.silent());
        EXPECT_EQ(MsgReceiver::EMPTY, a->messageReceiver().getStatus());
    }
}

TEST_F(MessageTest, BusyProxyKeepsTheNewestFiveWaiting) {
    auto deliverToB = [&](uint32_t msgNo) {
        MessageBuffer buf = makeMessageBuffer(100);
        b->deliverMessage(direct(b.id, 5, msgNo), buf, 100);
    };
    deliverToB(1);
    MessageCarrierPack piece;
    ASSERT_TRUE(devB.receivePack(piece));
    setClockOffsetForTesting(-3600000);  // message 1 stays waiting for its ack, never timed out
    for (uint32_t n = 2; n <= 7; ++n) deliverToB(n);
    ASSERT_EQ(5u, b->queuedMessages());
    EXPECT_EQ(3u, b->queue().front().ms.msgNo);

    MessageCarrierACKPack ack;  // message 1 done: the oldest waiting one goes out
    direct(b.id, 5, 1).copyTo(ack);
    ack.devId = b.id;
    ack.lastSeqNo = 100;
    handleMessageACK(ack, devB.addr, *b);
    ASSERT_TRUE(devB.receivePack(piece));
    EXPECT_EQ(3u, piece.msgNo);
}

}  // namespace
