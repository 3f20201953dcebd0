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

    std::string probe(Timestamp now) {
        return testsupport::stdoutOf([&] { dev->checkReceiverTimeout(now); });
    }

    bool pingArrives() {
        PingPongPack ping;
        return device.receivePack(ping) && ping.pingOrPong == PingPongPack::PING;
    }

    LoopbackPeer hub;
    LoopbackPeer device;
    JoinedDevice dev{device, hub};
};

// Probing starts after 500 ms of silence; the device is given up only once
// the first ping is more than 3500 ms old and the last one more than 500 ms.
TEST_F(ProxyTest, ProbeBoundariesAndGivingUpThroughCleanupAndDestroy) {
    dev->setLastPackTime(T);
    EXPECT_EQ("ClientProxy::checkReceiverTimeout(): Node=" + std::to_string(dev.id) + " now=" +
                  std::to_string(T + 499) + " lastRecvTime=" + std::to_string(T) + " diff=499.  1 \n",
              probe(T + 499));
    EXPECT_TRUE(device.silent());
    probe(T + 500);
    EXPECT_TRUE(pingArrives());
    EXPECT_EQ(T + 500, dev->firstPing());

    probe(T + 4000);
    EXPECT_EQ(NodeStatusInfo::INITIALIZED, dev->status().state);
    EXPECT_TRUE(pingArrives());
    EXPECT_TRUE(sessionstory::takeAllEvents().empty());

    probe(T + 4501);
    EXPECT_EQ(NodeStatusInfo::DISCONNECTED, dev->status().state);
    EXPECT_TRUE(pingArrives());  // kept: pinged even as it is given up
    std::vector<EventEntry> ev = sessionstory::takeAllEvents();
    ASSERT_EQ(1u, ev.size());
    EXPECT_EQ(EventEntry::CLEANUP, ev[0].type);
    dev->handleEvent(ev[0]);
    ev = sessionstory::takeAllEvents();
    ASSERT_EQ(1u, ev.size());
    EXPECT_EQ(EventEntry::DESTROY_DEVICE, ev[0].type);
    EXPECT_EQ(T + 4501, ev[0].t);
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

    setClockOffsetForTesting(1000);  // no acknowledgement for a second: TIMEOUT
    ASSERT_EQ(MsgSender::TIMEOUT, dev->sender().getStatus());
    dev->checkSenderTimeout(currentTime());
    EXPECT_TRUE(pingArrives());
    EXPECT_EQ(0u, dev->firstPing());  // kept: only lastPing is set here
    ASSERT_TRUE(device.receivePack(piece));
    EXPECT_EQ(326u, piece.packetStart);
    EXPECT_EQ(74u, piece.payload.size());
}

}  // namespace
