#include "Hub/newDevice.h"

#include <gtest/gtest.h>


#include "Hub/DeviceManager.h"
#include "Hub/server.h"
#include "tests/support/hub_harness.h"
#include "tests/support/wire_bytes.h"

using namespace testsupport;

namespace {

class NewDeviceTest : public HubFixture {
protected:
    // Announces dev, gives the newcomer sessionKey and asks to join; returns
    // the acceptance (id 0 when none came).
    JoinAcceptedPack adoptAndJoin(SimDevice& dev, const ByteArray<32>& sessionKey) {
        NewBornDevicePack born = dev.newBorn("sp");
        deliver(dev, born);
        AdoptionOfferPack offer;
        JoinAcceptedPack ja;
        ja.id = 0;
        if (!dev.receive(offer)) return ja;
        newComerOf(dev)->record.sessionKey = sessionKey;
        NetworkJoinPack request = dev.joinRequest("TestDomain_KVZ1", 1);
        deliver(dev, request);
        if (!dev.receive(ja, 500)) ja.id = 0;
        return ja;
    }
};

}  // namespace

TEST_F(NewDeviceTest, SixteenByteSessionKeyIsKeptFifteenIsReplacedAndSaved) {
    SimDevice keeps("nd-sk16"), replaces("nd-sk15");
    const ByteArray<32> k16 = keyBytes(16, 0x33), k15 = keyBytes(15, 0x44);
    JoinAcceptedPack kept = adoptAndJoin(keeps, k16);
    JoinAcceptedPack replaced = adoptAndJoin(replaces, k15);
    ASSERT_EQ(JoinAcceptedPack::PACK_ID, kept.id);
    ASSERT_EQ(JoinAcceptedPack::PACK_ID, replaced.id);

    EXPECT_EQ(k16, clientMgr.getClient(kept.nodeId)->record().sessionKey);
    // Saved, key kept: the main key fallback changed a key, and changed keys reach the disk before the acceptance.
    EXPECT_NE(std::string::npos, readFile(dir.file("DB/nd-sk16.dev")).find("SESSION_KEY=" + toHex(k16.data(), 16) + "\n"));

    const ByteArray<32>& fresh = clientMgr.getClient(replaced.nodeId)->record().sessionKey;
    EXPECT_EQ(32u, fresh.size());
    EXPECT_NE(std::string::npos, readFile(dir.file("DB/nd-sk15.dev"))
                                     .find("SESSION_KEY=" + toHex(fresh.data(), fresh.size()) + "\n"));
}

// Every send takes the next packet number, a failed one too.
TEST_F(NewDeviceTest, PacketNumbersRunOnAcrossSends) {
    UdpSocket closed;
    PingPongPack p;
    EXPECT_FALSE(sendPacketTo(SockAddress("127.0.0.1", 9), closed, p));
    SimDevice dev("nd-send");
    PingPongPack q;
    EXPECT_TRUE(sendPacketTo(dev.address(), hubSock, q));
    PingPongPack got;
    ASSERT_TRUE(dev.receive(got));
    EXPECT_EQ(q.packetNo, got.packetNo);
    EXPECT_EQ(17, got.hubId);
    EXPECT_EQ(p.packetNo + 1, q.packetNo);
}
