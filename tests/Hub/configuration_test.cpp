#include "Hub/configuration.h"

#include <gtest/gtest.h>

#include <map>
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
        p.groupNo = 4;
        p.ifaceType = ObjectInfoPack::UNICAST_UDP;
        p.name = name;
        p.interface = "iface";
        p.nParam1 = 11;
        p.nParam2 = 12;
        p.sParam1 = "s1";
        p.sParam2 = "s2";
        p.lnParam = 0x0102030405060708ull;
        handleObjectInfo(p, device.addr, *dev);
    }

    // The object number the hub asks for next, or -1 when it asks nothing.
    int requested() {
        GetObjectInfoPack get;
        return device.receivePack(get, 300) ? get.objectNo : -1;
    }

    void ping(uint8_t kind, uint64_t replyKey, uint64_t random) {
        PingPongPack p;
        p.pingOrPong = kind;
        p.replyKey = replyKey;
        p.random = random;
        handlePingPong(p, device.addr, *dev);
    }

    LoopbackPeer hub, device;
    JoinedDevice dev{device, hub, "config"};
};

TEST_F(ConfigTest, ObjectsAreAskedOneByOneThenTheDeviceIsConnected) {
    summary(2, 2);
    EXPECT_EQ(0, requested());
    objectInfo(0, "lamp");
    EXPECT_EQ(1, requested());
    EXPECT_EQ(NodeStatusInfo::INITIALIZING, dev->status().state);
    objectInfo(1, "dimmer");

    ConfigurationCompletePack done;
    ASSERT_TRUE(device.receivePack(done));
    EXPECT_EQ(NodeStatusInfo::CONNECTED, dev->status().state);
    ASSERT_EQ(2u, dev->noOfObjects());
    const ObjectInfo* o = dev->object(1);
    EXPECT_EQ("dimmer", o->hardName.str());
    EXPECT_EQ("", o->givenName.str());
    EXPECT_EQ("iface", o->interface.str());
    EXPECT_EQ(4, o->groupNo);
    EXPECT_EQ(ObjectInfoPack::UNICAST_UDP, o->ifaceType);
    EXPECT_EQ(12u, o->nParam2);
    EXPECT_EQ("s2", o->sParam2.str());
    EXPECT_EQ(0x0102030405060708ull, o->lnParam);
    EXPECT_TRUE(o->msgRights.empty());  // nothing could be loaded
}

TEST_F(ConfigTest, ActivationLoadsEachObjectsRightsFromTheLocalStore) {
    using testsupport::writeFile;
    ASSERT_TRUE(writeFile("DB/specs.idx", "acme/Lamp.1\t000000001\n"));
    ASSERT_TRUE(writeFile("DB/000000001.spec",
                          "<?xml version=\"1.0\"?>\n<Velto-spec><info><specs>acme/Lamp.1</specs></info>"
                          "<interfaces><interface name=\"Light\" intf=\"acme/Velto/specs/std/Light.1\"/>"
                          "</interfaces></Velto-spec>\n"));
    ASSERT_TRUE(writeFile("DB/interfaces.idx", "acme/Velto/specs/std/Light.1\t000000001\n"));
    ASSERT_TRUE(writeFile("DB/000000001.intf",
                          "<?xml version=\"1.0\"?>\n<Velto-interface name=\"Light.1\"><messages>"
                          "<message name=\"On\" id=\"3\" type=\"direct\" security=\"2\"/>"
                          "<message name=\"State\" id=\"5\" type=\"notification\" security=\"3\"/>"
                          "</messages></Velto-interface>\n"));
    dev->record().specs = "acme/Lamp.1";
    summary(1, 1);
    ObjectInfoPack p;
    p.objectNo = 0;
    p.interface = "Light";
    std::string out = testsupport::stdoutOf([&] { handleObjectInfo(p, device.addr, *dev); });
    EXPECT_NE(std::string::npos, out.find("istring=acme/Velto/specs/std/Light.1\n"));
    EXPECT_NE(std::string::npos, out.find("Loaded Rights for dev: acme/Lamp.1 iface: Light\n"));
    EXPECT_EQ((std::map<uint16_t, uint8_t>{{3, 2}}), dev->object(0)->msgRights);
    EXPECT_EQ((std::map<uint16_t, uint8_t>{{5, 3}}), dev->object(0)->notiRights);
    EXPECT_EQ(NodeStatusInfo::CONNECTED, dev->status().state);
}

TEST_F(ConfigTest, SummaryWithNoObjectsStillAsksForObjectZero) {
    summary(0, 0);
    EXPECT_EQ(0, requested());
    objectInfo(0);
    ConfigurationCompletePack done;
    ASSERT_TRUE(device.receivePack(done));
    EXPECT_EQ(1u, dev->noOfObjects());
    EXPECT_EQ(NodeStatusInfo::CONNECTED, dev->status().state);
}

TEST_F(ConfigTest, MaximumIsRaisedToTheNumberOfObjectsAndTheTableIsKept) {
    objectInfo(0);
    ConfigurationCompletePack done;
    ASSERT_TRUE(device.receivePack(done));  // a first, one-object round
    summary(4, 2);
    EXPECT_EQ(4, dev->status().noOfObjects);
    EXPECT_EQ(4, dev->status().maxNoOfObjects);
    EXPECT_EQ(0, requested());
    EXPECT_EQ(1u, dev->noOfObjects());
}

TEST_F(ConfigTest, CompletionCarriesItsOwnPacketNumberAndTheDeviceSequence) {
    dev->record().toDeviceSequence = 70;
    dev->record().fromDeviceSequence = 33;
    Timestamp before = currentTime();
    summary(1, 1);
    EXPECT_EQ(0, requested());  // packet 70
    objectInfo(0);
    ConfigurationCompletePack done;
    ASSERT_TRUE(device.receivePack(done));
    EXPECT_EQ(71u, done.packetNo);
    EXPECT_EQ(done.packetNo, done.hub2DevSequence);
    EXPECT_EQ(33u, done.dev2HubSequence);
    EXPECT_GE(done.serverTimestamp, before);
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
    // A repeat of object 0 empties entry 0, lands on entry 1, and the object
    // after the last one held is asked for.
    objectInfo(0, "repeat");
    EXPECT_EQ(2, requested());
    EXPECT_EQ(2u, dev->noOfObjects());
    EXPECT_EQ("repeat", dev->object(1)->hardName.str());
}

TEST_F(ConfigTest, PingIsAnsweredWithItsOwnReplyKeyAPongIsNot) {
    dev->setLastPackTime(1);
    Timestamp before = currentTime();
    ping(PingPongPack::PONG, 5, 6);
    EXPECT_TRUE(device.silent());
    EXPECT_GE(dev->status().lastRecvTime, before);

    ping(PingPongPack::PING, 0x1122334455667788ull, 99);
    PingPongPack reply;
    ASSERT_TRUE(device.receivePack(reply));
    EXPECT_EQ(PingPongPack::PONG, reply.pingOrPong);
    EXPECT_EQ(0x1122334455667788ull, reply.replyKey);
    EXPECT_EQ(0u, dev->firstPing());

    ping(7, 1, 1);  // anything but a ping counts as a pong
    EXPECT_TRUE(device.silent());
}

}  // namespace
