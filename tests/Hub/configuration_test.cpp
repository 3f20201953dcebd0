#include "Hub/configuration.h"

#include <gtest/gtest.h>

#include <string>

#include "Hub/DeviceManager.h"
#include "tests/support/session_story.h"

using sessionstory::JoinedDevice;
using sessionstory::LoopbackPeer;

namespace {

[[maybe_unused]] const auto* const scratch = ::testing::AddGlobalTestEnvironment(new sessionstory::ScratchWorkDir);

// A joined device going through the exchange. Its specification identifier is
// too short to be fetched, so activation finds no rights and stays local.
class ConfigTest : public ::testing::Test {
protected:
    void SetUp() override { dev->status().state = NodeStatusInfo::INITIALIZING; }

    void summary(uint8_t noOfObjects, uint8_t maxNoOfObjects) {
        ConfigSummaryPack p;
        p.noOfObjects = noOfObjects;
        p.maxNoOfObjects = maxNoOfObjects;
        handleConfigSummary(p, device.addr, *dev);
    }

    void objectInfo(uint8_t no, const char* name = "obj") {
        ObjectInfoPack p;
        p.objectNo = no;
        p.name = name;
        handleObjectInfo(p, device.addr, *dev);
    }

    // The object number the hub asks for next, or -1 when it asks nothing.
    int requested() {
        GetObjectInfoPack get;
        return device.receivePack(get, 300) ? get.objectNo : -1;
    }

    LoopbackPeer hub, device;
    JoinedDevice dev{device, hub, "config"};
};

TEST_F(ConfigTest, CompletionCarriesItsOwnPacketNumberAndTheDeviceSequence) {
    dev->record().toDeviceSequence = 70;
    dev->record().fromDeviceSequence = 33;
    summary(0, 0);
    EXPECT_EQ(0, requested());  // packet 70; object 0 is asked for even with none announced
    objectInfo(0);
    ConfigurationCompletePack done;
    ASSERT_TRUE(device.receivePack(done));
    EXPECT_EQ(71u, done.packetNo);
    EXPECT_EQ(done.packetNo, done.hub2DevSequence);
    EXPECT_EQ(33u, done.dev2HubSequence);
    EXPECT_EQ(NodeStatusInfo::CONNECTED, dev->status().state);
}

TEST_F(ConfigTest, OutOfOrderObjectIsRefusedWithARawByteAndTheNextMissingOneAsked) {
    summary(3, 3);
    EXPECT_EQ(0, requested());
    EXPECT_EQ("Failed to setObjectInfo for objectNo=A\n", testsupport::stderrOf([&] { objectInfo(65); }));  // 'A'
    EXPECT_EQ(0, requested());
    objectInfo(0);
    EXPECT_EQ(1, requested());
    objectInfo(1, "second");
    EXPECT_EQ(2, requested());
    // A repeat of object 0 lands on entry 1; the object after the last one held is asked for.
    objectInfo(0, "repeat");
    EXPECT_EQ(2, requested());
    EXPECT_EQ("repeat", dev->object(1)->hardName.str());
}

TEST_F(ConfigTest, PingIsAnsweredWithItsOwnReplyKeyAnythingElseIsAPong) {
    PingPongPack p;
    p.pingOrPong = 7;
    handlePingPong(p, device.addr, *dev);
    EXPECT_TRUE(device.silent());

    p.pingOrPong = PingPongPack::PING;
    p.replyKey = 0x1122334455667788ull;
    handlePingPong(p, device.addr, *dev);
    PingPongPack reply;
    ASSERT_TRUE(device.receivePack(reply));
    EXPECT_EQ(PingPongPack::PONG, reply.pingOrPong);
    EXPECT_EQ(0x1122334455667788ull, reply.replyKey);
}

}  // namespace
