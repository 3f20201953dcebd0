#include "Hub/messages.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Hub/DeviceManager.h"
#include "Hub/server.h"
#include "tests/support/session_story.h"

using sessionstory::JoinedDevice;
using sessionstory::LoopbackPeer;
using sessionstory::RecordingClient;

namespace {

[[maybe_unused]] const auto* const scratch = ::testing::AddGlobalTestEnvironment(new sessionstory::ScratchWorkDir);

constexpr uint16_t TEST_VC_ID = 200;

std::vector<uint8_t> pattern(size_t n) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 31 + 7);
    return v;
}

// Device A (objects 0 and 1) and device B (object 0), both CONNECTED, share
// the hub socket; each has a socket of its own playing the device.
class MessageTest : public ::testing::Test {
protected:
    void SetUp() override {
        sessionstory::takeAllEvents();
        a.connectWithObjects(2);
        b.connectWithObjects(1);
    }
    void TearDown() override { setClockOffsetForTesting(0); }

    MsgSelector direct(DeviceID to, uint16_t msgId = 5, uint32_t msgNo = 1) {
        MsgSelector ms;
        ms.msgCat = DIRECT_MSGCAT;
        ms.fromDeviceId = a.id;
        ms.fromObjectNo = 1;
        ms.msgId = msgId;
        ms.toDeviceId = to;
        ms.toObjectNo = 0;
        ms.msgNo = msgNo;
        return ms;
    }

    // One piece from A's device: bytes [start, start + len) of `body`.
    void sendPiece(const MsgSelector& ms, const std::vector<uint8_t>& body, uint32_t start, uint32_t len,
                   ClientProxy& from) {
        MessageCarrierPack p;
        ms.copyTo(p);
        p.devId = from.record().id;
        p.msgSize = static_cast<uint32_t>(body.size());
        p.checksum = messageChecksum(body.data(), p.msgSize);
        p.packetStart = start;
        p.payload = ByteArray<326>(body.data() + start, len);
        handleMessagePack(p, from.record().lastAddress, from);
    }

    // The whole message, piece by piece, from A.
    void sendMessage(const MsgSelector& ms, const std::vector<uint8_t>& body) {
        for (uint32_t pos = 0; pos < body.size(); pos += 326)
            sendPiece(ms, body, pos, std::min<uint32_t>(326, body.size() - pos), *a);
    }

    // What B's sender is sending, delivered straight to B.
    void deliverToB(uint32_t msgNo, size_t size = 100) {
        MessageBuffer buf = makeMessageBuffer(static_cast<uint32_t>(size));
        b->deliverMessage(direct(b.id, 5, msgNo), buf, static_cast<uint32_t>(size));
    }

    bool ackArrivesAtA(uint32_t& lastSeqNo) {
        MessageCarrierACKPack ack;
        if (!devA.receivePack(ack)) return false;
        lastSeqNo = ack.lastSeqNo;
        return true;
    }

    void ackFromB(const MsgSelector& ms, uint32_t lastSeqNo) {
        MessageCarrierACKPack ack;
        ms.copyTo(ack);
        ack.devId = b.id;
        ack.lastSeqNo = lastSeqNo;
        handleMessageACK(ack, devB.addr, *b);
    }

    void subscribeFromB(uint16_t node, uint8_t objectNo, uint16_t eventId, uint8_t subscribe) {
        NotificationSubscriptionPack p;
        p.devId = b.id;
        p.nodeId = node;
        p.objectNo = objectNo;
        p.eventId = eventId;
        p.subscribe = subscribe;
        handleNotificationSubscription(p, devB.addr, *b);
    }

    LoopbackPeer hub, devA, devB;
    JoinedDevice a{devA, hub, "sender"};
    JoinedDevice b{devB, hub, "receiver"};
};

// ---------------------------------------------------------------------------
// Upward path

TEST_F(MessageTest, RelayedLongMessageReachesBInOrderAndBsAcksFinishIt) {
    std::vector<uint8_t> body = pattern(5000);
    MsgSelector ms = direct(b.id);
    sendMessage(ms, body);

    uint32_t acked = 0;
    ASSERT_TRUE(ackArrivesAtA(acked));  // in-order pieces: one ack, at the end
    EXPECT_EQ(5000u, acked);
    EXPECT_TRUE(devA.silent());
    EXPECT_EQ(MsgReceiver::EMPTY, a->messageReceiver().getStatus());

    std::vector<uint8_t> got;
    MessageCarrierPack piece;
    for (int i = 0; i < 16 && devB.receivePack(piece); ++i) {
        EXPECT_EQ(got.size(), piece.packetStart);
        EXPECT_EQ(5000u, piece.msgSize);
        EXPECT_EQ(messageChecksum(body.data(), 5000), piece.checksum);
        EXPECT_EQ(a.id, piece.fromDeviceId);
        got.insert(got.end(), piece.payload.data(), piece.payload.data() + piece.payload.size());
    }
    EXPECT_EQ(body, got);
    EXPECT_TRUE(devB.silent());

    // B lost everything after the third piece: the hub goes back there.
    ackFromB(ms, 3 * 326);
    for (uint32_t pos = 3 * 326; pos < 5000; pos += 326) {
        ASSERT_TRUE(devB.receivePack(piece));
        EXPECT_EQ(pos, piece.packetStart);
    }
    ackFromB(ms, 5000);
    EXPECT_EQ(MsgSender::EMPTY, b->sender().getStatus());
    EXPECT_TRUE(devB.silent());
}

TEST_F(MessageTest, LaterPieceOfAnotherMessageIsRefusedAndTheReceptionStaysOpen) {
    std::vector<uint8_t> body = pattern(600);
    MsgSelector ms = direct(b.id, 5);
    sendPiece(ms, body, 0, 326, *a);
    sendPiece(direct(b.id, 6), body, 326, 274, *a);  // another msgId
    EXPECT_TRUE(devA.silent());
    EXPECT_EQ(MsgReceiver::RECEIVING, a->messageReceiver().getStatus());
    EXPECT_EQ(326u, a->messageReceiver().size());

    sendPiece(direct(b.id, 5, 99), body, 326, 274, *a);  // differs only in msgNo: accepted
    uint32_t acked = 0;
    ASSERT_TRUE(ackArrivesAtA(acked));
    EXPECT_EQ(600u, acked);
    MessageCarrierPack piece;
    ASSERT_TRUE(devB.receivePack(piece));
    EXPECT_EQ(5, piece.msgId);
}

TEST_F(MessageTest, StalledReceptionRefusesEveryNewFirstPiece) {
    std::vector<uint8_t> body = pattern(600);
    sendPiece(direct(b.id, 5), body, 0, 326, *a);
    setClockOffsetForTesting(60000);  // a minute later: still not abandoned
    sendPiece(direct(b.id, 8), pattern(10), 0, 10, *a);
    EXPECT_EQ(5, a->messageReceiver().getMsgInfo().msgId);
    EXPECT_TRUE(devA.silent());
    EXPECT_TRUE(devB.silent());
}

TEST_F(MessageTest, FirstPiecesWithAnUnusableSizeOrObjectAreRefused) {
    MsgSelector ms = direct(b.id);
    uint32_t ack = 0;
    uint8_t byte = 1;
    EXPECT_EQ(ClientProxy::MSG_ERROR, a->putMsgPacket(ms, 0, 0, &byte, 1, ack));
    EXPECT_EQ(ClientProxy::MSG_ERROR,
              a->putMsgPacket(ms, 0, ClientProxy::MAX_INCOMING_MESSAGE_SIZE + 1, &byte, 1, ack));
    EXPECT_EQ(MsgReceiver::EMPTY, a->messageReceiver().getStatus());

    ms.fromObjectNo = 2;  // A has objects 0 and 1
    EXPECT_EQ("ERROR ClientProxy::putMsgPacket(). ms.fromObjectNo=2 objects.sz=2\n", testsupport::stderrOf([&] {
                  EXPECT_EQ(ClientProxy::MSG_ERROR, a->putMsgPacket(ms, 0, 1, &byte, 1, ack));
              }));

    ms.fromObjectNo = 0;
    EXPECT_EQ(ClientProxy::MSG_OK_ACK, a->putMsgPacket(ms, 0, 1, &byte, 1, ack));  // the largest is fine too
    EXPECT_EQ(1u, ack);
}

// A sender not yet connected, a missing destination node, an unknown category:
// the whole message is acknowledged, nothing goes on, the reception is closed.
TEST_F(MessageTest, UndeliverableMessagesAreAcknowledgedAndDropped) {
    MsgSelector toMissing = direct(300), unknownCat = direct(b.id), fine = direct(b.id);
    unknownCat.msgCat = 3;
    const struct {
        const char* what;
        MsgSelector ms;
        bool connected;
        std::string err;
    } cases[] = {
        {"not yet connected", fine, false, ""},
        {"missing node", toMissing, true, "Msg proxy==NULL for did=300 toObjNo=1\n"},
        {"unknown category", unknownCat, true, "ERROR ClientProxy::putMsgPacket() dispatch unknown msgCat=3\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        a->status().state = c.connected ? NodeStatusInfo::CONNECTED : NodeStatusInfo::INITIALIZING;
        EXPECT_EQ(c.err, testsupport::stderrOf([&] { sendMessage(c.ms, pattern(50)); }));
        uint32_t acked = 0;
        EXPECT_TRUE(ackArrivesAtA(acked));
        EXPECT_EQ(50u, acked);
        EXPECT_TRUE(devA.silent());
        EXPECT_TRUE(devB.silent());
        EXPECT_EQ(MsgReceiver::EMPTY, a->messageReceiver().getStatus());
    }
}

TEST_F(MessageTest, DirectMessageToAVirtualClientArrivesWhole) {
    RecordingClient* vc = new RecordingClient();
    ASSERT_TRUE(clientMgr.addVirtualClient(TEST_VC_ID, vc));
    std::vector<uint8_t> body = pattern(700);
    sendMessage(direct(TEST_VC_ID), body);
    ASSERT_EQ(1u, vc->bodies.size());
    EXPECT_EQ(body, vc->bodies[0]);
    EXPECT_EQ(a.id, vc->delivered[0].fromDeviceId);
}

// ---------------------------------------------------------------------------
// Notifications and subscriptions

TEST_F(MessageTest, NotificationGoesToEachSubscriberAndWithoutThemIsDropped) {
    MsgSelector note = direct(0, 40);
    note.msgCat = NOTIFICATION_MSGCAT;
    sendMessage(note, pattern(30));  // nobody listens yet
    uint32_t acked = 0;
    EXPECT_TRUE(ackArrivesAtA(acked));
    EXPECT_TRUE(devB.silent());

    subscribeFromB(a.id, 1, 40, 1);
    ASSERT_NE(nullptr, a->listenersOf(1, 40));
    EXPECT_EQ(1u, a->listenersOf(1, 40)->count(b.id));
    a->subscribeToNotification(1, 40, 999, true);  // a subscriber that has no target: skipped
    sendMessage(note, pattern(30));
    MessageCarrierPack piece;
    ASSERT_TRUE(devB.receivePack(piece));
    EXPECT_EQ(NOTIFICATION_MSGCAT, piece.msgCat);
    EXPECT_EQ(40, piece.msgId);
    EXPECT_EQ(30u, piece.payload.size());
}

TEST_F(MessageTest, SubscriptionRefusedByATargetThatWantsLevel3GetsPermissionDenied) {
    RecordingClient* strict = new RecordingClient(nullptr, 3);
    ASSERT_TRUE(clientMgr.addVirtualClient(TEST_VC_ID, strict));
    subscribeFromB(TEST_VC_ID, 2, 77, 1);
    EXPECT_TRUE(strict->subscriptions.empty());

    MessageErrorPack err;
    ASSERT_TRUE(devB.receivePack(err));
    EXPECT_EQ(MessageErrorPack::PERMISSION_DENIED, err.errorCode);
    EXPECT_EQ(NOTIFICATION_MSGCAT, err.category);
    EXPECT_EQ(TEST_VC_ID, err.fromNodeId);
    EXPECT_EQ(2, err.fromObjectNo);
    EXPECT_EQ(77, err.msgId);
    EXPECT_EQ(b.id, err.toNodeId);
}

TEST_F(MessageTest, UnsubscriptionNeedsNoRights) {
    RecordingClient* strict = new RecordingClient(nullptr, 3);
    ASSERT_TRUE(clientMgr.addVirtualClient(TEST_VC_ID, strict));
    subscribeFromB(TEST_VC_ID, 2, 77, 0);
    subscribeFromB(TEST_VC_ID, 2, 77, 5);  // any value but 1 unsubscribes
    ASSERT_EQ(2u, strict->subscriptions.size());
    EXPECT_FALSE(strict->subscriptions[0].subscribe);
    EXPECT_FALSE(strict->subscriptions[1].subscribe);
    EXPECT_EQ(b.id, strict->subscriptions[0].subscriber);
    EXPECT_TRUE(devB.silent());
}

TEST_F(MessageTest, SubscriptionToAMissingNodeIsRefusedWithALine) {
    EXPECT_EQ("Failed to find proxy for devId=" + std::to_string(b.id) + " node=300\n",
              testsupport::stderrOf([&] { subscribeFromB(300, 0, 1, 1); }));
    EXPECT_TRUE(devB.silent());
}

// ---------------------------------------------------------------------------
// Downward path

TEST_F(MessageTest, BusyProxyKeepsTheNewestFiveWaiting) {
    deliverToB(1);
    MessageCarrierPack piece;
    ASSERT_TRUE(devB.receivePack(piece));
    setClockOffsetForTesting(-3600000);  // message 1 stays waiting for its ack, never timed out
    for (uint32_t n = 2; n <= 7; ++n) deliverToB(n);
    ASSERT_EQ(5u, b->queuedMessages());
    EXPECT_EQ(3u, b->queue().front().ms.msgNo);
    EXPECT_EQ(7u, b->queue().back().ms.msgNo);
    EXPECT_TRUE(devB.silent());

    ackFromB(direct(b.id, 5, 1), 100);  // message 1 done: the oldest waiting one goes out
    ASSERT_TRUE(devB.receivePack(piece));
    EXPECT_EQ(3u, piece.msgNo);
    EXPECT_EQ(4u, b->queuedMessages());
}

TEST_F(MessageTest, SenderWithTooManyFailuresDropsTheMessageInFlight) {
    deliverToB(1);
    MessageCarrierPack piece;
    ASSERT_TRUE(devB.receivePack(piece));
    // Eleven timeouts, each nudged by a new delivery that waits in the queue.
    for (int i = 0; i < 11; ++i) {
        setClockOffsetForTesting(1000 * (i + 1));
        deliverToB(100 + i);
        ASSERT_TRUE(devB.receivePack(piece)) << "resend " << i;
        EXPECT_EQ(1u, piece.msgNo);
    }
    setClockOffsetForTesting(20000);
    sessionstory::takeAllEvents();
    deliverToB(200);
    EXPECT_EQ(MsgSender::EMPTY, b->sender().getStatus());
    std::vector<EventEntry> ev = sessionstory::takeAllEvents();
    ASSERT_EQ(1u, ev.size());
    EXPECT_EQ(EventEntry::CHECK_SND_TO, ev[0].type);
    EXPECT_EQ(b.id, ev[0].dev);

    b->handleEvent(ev[0]);  // finds the sender EMPTY: nothing
    EXPECT_TRUE(devB.silent());
    deliverToB(300);  // the next message goes out at once, ahead of the queue
    ASSERT_TRUE(devB.receivePack(piece));
    EXPECT_EQ(300u, piece.msgNo);
    EXPECT_EQ(5u, b->queuedMessages());
}

}  // namespace
