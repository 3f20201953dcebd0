#include "Hub/Clients.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Hub/DeviceManager.h"
#include "Hub/server.h"
#include "tests/support/session_story.h"

using sessionstory::JoinedDevice;
using sessionstory::LoopbackPeer;

namespace {

[[maybe_unused]] const auto* const scratch = ::testing::AddGlobalTestEnvironment(new sessionstory::ScratchWorkDir);

constexpr Timestamp T = 1000000;  // when the device was last heard, in the timing stories

class ProxyTest : public ::testing::Test {
protected:
    void SetUp() override { sessionstory::takeAllEvents(); }
    void TearDown() override { setClockOffsetForTesting(0); }

    // The events queued since the last call, for this device only.
    std::vector<EventEntry> myEvents() {
        std::vector<EventEntry> mine;
        for (const EventEntry& e : sessionstory::takeAllEvents())
            if (e.dev == dev.id) mine.push_back(e);
        return mine;
    }

    // Runs the probe at `now` and returns its log line.
    std::string probe(Timestamp now) {
        return testsupport::stdoutOf([&] { dev->checkReceiverTimeout(now); });
    }

    bool pingArrives() {
        PingPongPack ping;
        return device.receivePack(ping) && ping.pingOrPong == PingPongPack::PING && ping.replyKey == 0;
    }

    ObjectInfo object(uint8_t no, const char* name) {
        ObjectInfo oi;
        oi.objectNo = no;
        oi.hardName = name;
        return oi;
    }

    LoopbackPeer hub;
    LoopbackPeer device;
    JoinedDevice dev{device, hub};
};

// ---------------------------------------------------------------------------
// Object table

TEST_F(ProxyTest, ObjectsArriveInOrderAndARepeatedNumberLandsOnTheLastEntry) {
    ASSERT_TRUE(dev->setObjectInfo(object(0, "zero")));
    ASSERT_TRUE(dev->setObjectInfo(object(1, "one")));
    ASSERT_TRUE(dev->subscribeToNotification(0, 9, 1234, true));
    EXPECT_FALSE(dev->setObjectInfo(object(3, "three")));

    ASSERT_TRUE(dev->setObjectInfo(object(0, "again")));
    ASSERT_EQ(2u, dev->noOfObjects());
    EXPECT_EQ("", dev->object(0)->hardName.str());  // emptied, listeners gone
    EXPECT_EQ(nullptr, dev->listenersOf(0, 9));
    EXPECT_EQ("again", dev->object(1)->hardName.str());
    EXPECT_EQ(0, dev->object(1)->objectNo);
    EXPECT_EQ(nullptr, dev->object(2));
}

TEST_F(ProxyTest, SubscriptionsAreKeptPerObjectAndSurviveARemovedDevice) {
    dev.connectWithObjects(1);
    EXPECT_TRUE(dev->subscribeToNotification(0, 7, 1234, true));
    EXPECT_TRUE(dev->subscribeToNotification(0, 7, 1235, true));
    dev->deviceHadBeenRemoved(1234);
    ASSERT_NE(nullptr, dev->listenersOf(0, 7));
    EXPECT_EQ((std::set<uint16_t>{1234, 1235}), *dev->listenersOf(0, 7));  // kept as listed

    EXPECT_TRUE(dev->subscribeToNotification(0, 7, 1234, false));
    EXPECT_TRUE(dev->subscribeToNotification(0, 7, 1235, false));
    ASSERT_NE(nullptr, dev->listenersOf(0, 7));  // an emptied set stays
    EXPECT_TRUE(dev->listenersOf(0, 7)->empty());

    EXPECT_EQ("handleNotificationSubscription(): Subscription objectNo out of range: 3\n",
              testsupport::stderrOf([&] { EXPECT_FALSE(dev->subscribeToNotification(3, 7, 1234, true)); }));
    EXPECT_EQ(1, dev->requiredMsgAccess(0, 7));
    EXPECT_EQ(1, dev->requiredNotificationAccess(0, 7));
}

// ---------------------------------------------------------------------------
// Sending

TEST_F(ProxyTest, PacketNumbersFollowTheRecordAndPersistThroughAFlush) {
    dev->record().toDeviceSequence = 41;
    PingPongPack a, b;
    Timestamp before = currentTime();
    EXPECT_TRUE(dev->sendPacketToDevice(a));
    EXPECT_TRUE(dev->sendPacketToDevice(b));
    EXPECT_GE(dev->status().lastSendTime, before);

    PingPongPack got;
    ASSERT_TRUE(device.receivePack(got));
    EXPECT_EQ(41u, got.packetNo);
    EXPECT_EQ(serverNodeId, got.hubId);
    ASSERT_TRUE(device.receivePack(got));
    EXPECT_EQ(42u, got.packetNo);
    EXPECT_EQ(43u, dev->record().toDeviceSequence);

    clientMgr.doFlush(currentTime());
    ClientDBRec stored;
    ASSERT_TRUE(clientsDb.loadRecord(dev->record().duid, stored));
    EXPECT_EQ(43u, stored.toDeviceSequence);
}

TEST_F(ProxyTest, WithoutASocketNothingIsSentOrCounted) {
    ClientInfo info;
    info.record.id = 4000;
    info.record.toDeviceSequence = 5;
    ClientProxy lonely(info, nullptr);
    PingPongPack p;
    EXPECT_FALSE(lonely.sendPacketToDevice(device.addr, p));
    EXPECT_EQ(5u, lonely.record().toDeviceSequence);
}

// ---------------------------------------------------------------------------
// Liveness

TEST_F(ProxyTest, ProbeWaitsUntilTheDeviceIsSilentFor500Ms) {
    dev->setLastPackTime(T);
    std::string line = probe(T + 499);
    EXPECT_EQ("ClientProxy::checkReceiverTimeout(): Node=" + std::to_string(dev.id) + " now=" +
                  std::to_string(T + 499) + " lastRecvTime=" + std::to_string(T) + " diff=499.  1 \n",
              line);
    EXPECT_TRUE(device.silent());
    EXPECT_EQ(0u, dev->firstPing());

    probe(T + 500);
    EXPECT_TRUE(pingArrives());
    EXPECT_EQ(T + 500, dev->firstPing());
    EXPECT_EQ(T + 500, dev->lastPing());

    Timestamp before = currentTime();
    dev->handlePong();  // any ping or pong ends the probe
    EXPECT_EQ(0u, dev->firstPing());
    EXPECT_EQ(0u, dev->lastPing());
    EXPECT_GE(dev->status().lastRecvTime, before);
}

TEST_F(ProxyTest, EverySilentCheckPingsAgainButGivingUpNeedsTheGaps) {
    dev->setLastPackTime(T);
    probe(T + 500);
    EXPECT_TRUE(pingArrives());
    std::string second = probe(T + 600);  // a ping 100 ms after the last one
    EXPECT_TRUE(pingArrives());
    EXPECT_NE(std::string::npos, second.find(" 2  \n"));
    EXPECT_EQ(T + 500, dev->firstPing());
    EXPECT_EQ(T + 600, dev->lastPing());

    // The first ping exactly 3500 ms old is not enough.
    std::string atLimit = probe(T + 4000);
    EXPECT_NE(std::string::npos, atLimit.find(" 2  3  \n"));
    EXPECT_EQ(NodeStatusInfo::INITIALIZED, dev->status().state);
    EXPECT_TRUE(myEvents().empty());
    EXPECT_TRUE(pingArrives());
}

TEST_F(ProxyTest, LongSilenceGivesTheDeviceUpThroughCleanupAndDestroy) {
    dev->setLastPackTime(T);
    probe(T + 500);
    EXPECT_TRUE(pingArrives());
    std::string line = probe(T + 4001);
    EXPECT_NE(std::string::npos, line.find(" 2  3  4  \n"));
    EXPECT_EQ(NodeStatusInfo::DISCONNECTED, dev->status().state);
    EXPECT_TRUE(pingArrives());  // kept: pinged even as it is given up

    std::vector<EventEntry> ev = myEvents();
    ASSERT_EQ(1u, ev.size());
    EXPECT_EQ(EventEntry::CLEANUP, ev[0].type);
    EXPECT_EQ(T + 4001, ev[0].t);

    dev->handleEvent(ev[0]);
    ev = myEvents();
    ASSERT_EQ(1u, ev.size());
    EXPECT_EQ(EventEntry::DESTROY_DEVICE, ev[0].type);
    EXPECT_EQ(T + 4001, ev[0].t);
}

TEST_F(ProxyTest, EventsForAnotherDeviceOrOfAnotherKindDoNothing) {
    dev->setLastPackTime(T);
    dev->handleEvent(EventEntry(EventEntry::CHECK_RCV_TO, dev.id + 1, T + 600));
    dev->handleEvent(EventEntry(EventEntry::CLEANUP, dev.id + 1, T + 600));
    dev->handleEvent(EventEntry(EventEntry::DESTROY_DEVICE, dev.id, T + 600));
    EXPECT_TRUE(device.silent());
    EXPECT_TRUE(sessionstory::takeAllEvents().empty());

    dev->handleEvent(EventEntry(EventEntry::CHECK_RCV_TO, dev.id, T + 600));  // its own: probed
    EXPECT_TRUE(pingArrives());
}

TEST_F(ProxyTest, SenderTimeoutPingsOnceAndResendsTheLastPiece) {
    dev->setLastPackTime(currentTime());
    MessageBuffer body = makeMessageBuffer(400);
    MsgSelector ms;
    ms.msgCat = DIRECT_MSGCAT;
    ms.toDeviceId = dev.id;
    dev->deliverMessage(ms, body, 400);
    MessageCarrierPack piece;
    ASSERT_TRUE(device.receivePack(piece));
    ASSERT_TRUE(device.receivePack(piece));
    EXPECT_EQ(326u, piece.packetStart);

    setClockOffsetForTesting(1000);  // no acknowledgement for a second: TIMEOUT
    ASSERT_EQ(MsgSender::TIMEOUT, dev->sender().getStatus());
    Timestamp now = currentTime();
    dev->checkSenderTimeout(now);
    EXPECT_TRUE(pingArrives());
    EXPECT_EQ(0u, dev->firstPing());  // kept: only lastPing is set here
    EXPECT_EQ(now, dev->lastPing());
    ASSERT_TRUE(device.receivePack(piece));
    EXPECT_EQ(326u, piece.packetStart);
    EXPECT_EQ(74u, piece.payload.size());
}

}  // namespace
