// End to end: the built hub daemon, started in a temporary working directory
// with its own DB, driven over UDP on 127.0.0.1:1881 by simulated devices.
// Runs inside a private network namespace (tests/netns.sh): the hub joins its
// multicast group at start. The hub binary comes as the first argument or in
// the environment variable VELTO_HUB. Every wait is bounded.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "Velto/Interfaces/DeviceManagementInterface.h"
#include "tests/support/child_process.h"
#include "tests/support/device_sim.h"
#include "tests/support/test_support.h"
#include "tests/support/wire_bytes.h"

using namespace testsupport;

namespace {

std::string hubBinary;

const uint32_t WAIT_MS = 2000;  // per expected packet or log line

typedef std::chrono::steady_clock Clock;

std::string hexOf(const ByteArray<32>& a) { return toHex(a.data(), a.size()); }

ByteArray<32> filled(size_t n, uint8_t v) { return keyBytes(n, v); }

uint32_t millisecondsLeft(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<uint32_t>(left) : 0;
}

// Whether text shows up in the hub's standard output (or error) in time.
bool waitFor(const ChildProcess& hub, const std::string& text, bool inErr = false) {
    return hub.waitForOutput(text, WAIT_MS, inErr);
}

class HubE2E : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(hubBinary.empty()) << "pass the hub binary as the first argument or in VELTO_HUB";
        ASSERT_EQ(0, mkdir(dir.file("DB").c_str(), 0755));
        provisionLamp();
        started = Clock::now();
        ASSERT_TRUE(hub.start({hubBinary}, dir.path(), "hub"));
        ASSERT_TRUE(waitFor(hub, "Successfully joined group\n")) << hub.out() << hub.err();
    }

    void TearDown() override { hub.kill9(); }

    // The lamp is known before the hub starts: a record with a main key, HMAC-SHA1
    // signatures and XOR transport, no session key yet.
    void provisionLamp() {
        std::string rec = "DUID=e2e-lamp\nMAIN_KEY=" + hexOf(lampKey) +
                          "\nID=1500\nSPECS=sp\nVERSION=3\nNAME=Lamp\nFIRST_ADDR=[127.0.0.1]:1\n"
                          "LAST_ADDR=[127.0.0.1]:1\nFIRST_TIME=1000\nLAST_TIME=2000\nKEY_TIME=0\nSESSION_KEY=\n"
                          "TRUST=4\nSIG_TYPE=1\nENC_TYPE=1\nSEQUENCES=0 0\n";
        ASSERT_TRUE(writeFile(recordPath("e2e-lamp"), rec));
    }

    std::string recordPath(const std::string& duid) const { return dir.file("DB/" + duid + ".dev"); }

    // The next pack of type T for dev, skipping pings; false when none came in time.
    template <typename T>
    bool await(SimDevice& dev, T& pack, uint32_t timeoutMs = WAIT_MS) {
        auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
        for (int guard = 0; guard < 100; ++guard) {
            Bytes d = dev.receiveRaw(millisecondsLeft(deadline));
            if (d.empty()) return false;
            if (d[0] == PingPongPack::PACK_ID) continue;
            return d[0] == T::PACK_ID && pack.deserialize(d.data(), d.size(), true) > 1;
        }
        return false;
    }

    AdoptionOfferPack adopt(SimDevice& dev, const ByteArray<32>& verifyKey, uint8_t sigType) {
        NewBornDevicePack born = dev.newBorn("sp");
        dev.send(hubAddr, born);
        AdoptionOfferPack offer;
        offer.signature.setKey(sigType, verifyKey.data(), verifyKey.size());
        if (!await(dev, offer)) offer.id = 0;
        return offer;
    }

    // Join with the default domain; on success dev holds its node id and the
    // session key recovered with mainKey.
    JoinAcceptedPack joinWith(SimDevice& dev, uint64_t clientRand, const ByteArray<32>& mainKey, uint8_t sigType) {
        NetworkJoinPack request = dev.joinRequest("TestDomain_KVZ1", clientRand);
        dev.send(hubAddr, request);
        JoinAcceptedPack ja;
        ja.signature.setKey(sigType, mainKey.data(), mainKey.size());
        if (!await(dev, ja)) return JoinAcceptedPack();
        dev.nodeId = ja.nodeId;
        dev.sessionKey = recoverSessionKey(ja, clientRand, mainKey);
        return ja;
    }

    // The configuration exchange with `objects` objects, every pack signed with
    // the session key; the ConfigurationCompletePack, or one with id 0.
    ConfigurationCompletePack configure(SimDevice& dev, uint8_t objects) {
        ConfigurationCompletePack none;
        none.id = 0;
        ConfigSummaryPack summary = dev.configSummary(objects);
        summary.signature.setKey(HMAC_SHA1_TYPE, dev.sessionKey.data(), dev.sessionKey.size());
        dev.send(hubAddr, summary);
        for (uint8_t n = 0; n < objects; ++n) {
            GetObjectInfoPack ask;
            if (!await(dev, ask) || ask.objectNo != n) return none;
            ObjectInfoPack info = dev.objectInfo(n, "obj" + std::to_string(n), "if");
            info.signature.setKey(HMAC_SHA1_TYPE, dev.sessionKey.data(), dev.sessionKey.size());
            dev.send(hubAddr, info);
        }
        ConfigurationCompletePack done;
        return await(dev, done) ? done : none;
    }

    // Both devices adopted, joined and configured (the lamp with 1 object, the
    // switch with 2).
    void bringUpBoth() {
        ASSERT_EQ(AdoptionOfferPack::PACK_ID, adopt(lamp, lampKey, HMAC_SHA1_TYPE).id);
        ASSERT_EQ(JoinAcceptedPack::PACK_ID, joinWith(lamp, 11, lampKey, HMAC_SHA1_TYPE).id);
        ASSERT_EQ(ConfigurationCompletePack::PACK_ID, configure(lamp, 1).id);
        ASSERT_EQ(AdoptionOfferPack::PACK_ID, adopt(sw, clearedKey, NO_SIGNATURE_TYPE).id);
        ASSERT_EQ(JoinAcceptedPack::PACK_ID, joinWith(sw, 22, clearedKey, NO_SIGNATURE_TYPE).id);
        ASSERT_EQ(ConfigurationCompletePack::PACK_ID, configure(sw, 2).id);
    }

    MsgSelector direct(const SimDevice& from, uint8_t fromObj, DeviceID to, uint8_t toObj, MessageID msgId,
                       MessageNo msgNo) {
        MsgSelector ms;
        ms.msgCat = DIRECT_MSGCAT;
        ms.fromDeviceId = from.nodeId;
        ms.fromObjectNo = fromObj;
        ms.toDeviceId = to;
        ms.toObjectNo = toObj;
        ms.msgId = msgId;
        ms.msgNo = msgNo;
        return ms;
    }

    // A whole message sent down to dev, acknowledged; false when it did not come.
    bool takeMessage(SimDevice& dev, MsgSelector& ms, Bytes& body) {
        if (!dev.receiveMessage(ms, body, WAIT_MS)) return false;
        MessageCarrierACKPack ack = SimDevice::ackFor(ms, static_cast<uint32_t>(body.size()));
        return dev.send(hubAddr, ack);
    }

    TempDir dir;
    ChildProcess hub;
    Clock::time_point started;
    const SockAddress hubAddr = SockAddress("127.0.0.1", 1881);
    const ByteArray<32> lampKey = filled(16, 0xa5);
    const ByteArray<32> clearedKey = filled(20, 0);
    SimDevice lamp{"e2e-lamp"};
    SimDevice sw{"e2e-switch"};
};

Bytes pattern(size_t n, uint8_t seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + i * 7);
    return b;
}

}  // namespace

TEST_F(HubE2E, ProvisionedDeviceIsAdoptedAndJoinsUnderItsMainKey) {
    EXPECT_TRUE(waitFor(hub, "add to map e2e-lamp -- 1500 next=1501\n"));
    AdoptionOfferPack offer = adopt(lamp, lampKey, HMAC_SHA1_TYPE);
    ASSERT_EQ(AdoptionOfferPack::PACK_ID, offer.id);
    EXPECT_TRUE(offer.signature.verified());
    EXPECT_EQ(255, offer.offer);  // it has been here before
    EXPECT_EQ(std::string("Lamp"), offer.nname.str());
    EXPECT_EQ(17, offer.svrNodeId);

    JoinAcceptedPack ja = joinWith(lamp, 0x0badc0ffee, lampKey, HMAC_SHA1_TYPE);
    ASSERT_EQ(JoinAcceptedPack::PACK_ID, ja.id);
    EXPECT_TRUE(ja.signature.verified());
    EXPECT_EQ(1500, ja.nodeId);
    EXPECT_EQ(SIMPLE_XOR_TYPE, ja.encAlg);
    ASSERT_EQ(32u, lamp.sessionKey.size());
    EXPECT_NE(std::string::npos, readFile(recordPath("e2e-lamp")).find("SESSION_KEY=" + hexOf(lamp.sessionKey) + "\n"));

    const std::string port = std::to_string(lamp.address().port());
    EXPECT_TRUE(waitFor(hub, "New Baby born at:127.0.0.1/" + port + " DUID=e2e-lamp, SPECS=sp VER=3\n"));
    EXPECT_TRUE(waitFor(hub, "Adopting client:127.0.0.1/" + port + " DUID=e2e-lamp joins the networkTestDomain_KVZ1"));
    EXPECT_TRUE(waitFor(hub, "Sending join acceptance \x04 to [127.0.0.1]:" + port + " sessionKey[32]: " +
                            hexOf(lamp.sessionKey) + "\n"));
}

TEST_F(HubE2E, FreshDeviceJoinsUnderTheClearedKeyAndIsConfigured) {
    AdoptionOfferPack offer = adopt(sw, clearedKey, NO_SIGNATURE_TYPE);
    ASSERT_EQ(AdoptionOfferPack::PACK_ID, offer.id);
    EXPECT_EQ(200, offer.offer);
    JoinAcceptedPack ja = joinWith(sw, 42, clearedKey, NO_SIGNATURE_TYPE);
    ASSERT_EQ(JoinAcceptedPack::PACK_ID, ja.id);
    EXPECT_EQ(1501, ja.nodeId);  // next after the provisioned 1500
    const std::string record = readFile(recordPath("e2e-switch"));
    EXPECT_NE(std::string::npos, record.find("SESSION_KEY=" + hexOf(sw.sessionKey) + "\n"));
    EXPECT_NE(std::string::npos, record.find("MAIN_KEY=" + hexOf(clearedKey) + "\n"));
    EXPECT_NE(std::string::npos, record.find("TRUST=0\n"));

    ConfigurationCompletePack done = configure(sw, 2);
    ASSERT_EQ(ConfigurationCompletePack::PACK_ID, done.id);
    EXPECT_EQ(done.packetNo, done.hub2DevSequence);
    EXPECT_TRUE(waitFor(hub, "DBG: Packet ID 16 sz="));
    EXPECT_TRUE(waitFor(hub, " signature type: 1 verified: 1\n"));
}

TEST_F(HubE2E, DirectMessagesAreRelayedBothWays) {
    bringUpBoth();
    if (HasFatalFailure()) return;

    // Lamp object 0 -> switch object 1: two pieces up, one ack, two pieces down.
    const Bytes toSwitch = pattern(500, 3);
    ASSERT_EQ(2u, lamp.sendMessage(hubAddr, direct(lamp, 0, sw.nodeId, 1, 40, 1), toSwitch));
    MessageCarrierACKPack ack;
    ASSERT_TRUE(await(lamp, ack));
    EXPECT_EQ(500u, ack.lastSeqNo);
    MsgSelector ms;
    Bytes body;
    ASSERT_TRUE(takeMessage(sw, ms, body));
    EXPECT_EQ(toSwitch, body);
    EXPECT_EQ(lamp.nodeId, ms.fromDeviceId);
    EXPECT_EQ(1, ms.toObjectNo);
    EXPECT_EQ(40, ms.msgId);
    EXPECT_TRUE(waitFor(hub, "Received Message ack for seqNo=500"));

    // And back: switch object 1 -> lamp object 0.
    const Bytes toLamp = pattern(100, 9);
    ASSERT_EQ(1u, sw.sendMessage(hubAddr, direct(sw, 1, lamp.nodeId, 0, 41, 1), toLamp));
    ASSERT_TRUE(await(sw, ack));
    EXPECT_EQ(100u, ack.lastSeqNo);
    ASSERT_TRUE(takeMessage(lamp, ms, body));
    EXPECT_EQ(toLamp, body);
    EXPECT_EQ(sw.nodeId, ms.fromDeviceId);
    EXPECT_EQ(41, ms.msgId);
}

TEST_F(HubE2E, DeviceListQueryIsAnsweredByNodeOne) {
    bringUpBoth();
    if (HasFatalFailure()) return;

    RequestBasicDeviceListMsg req;
    uint8_t buf[128];
    uint8_t* cursor = buf;
    size_t left = sizeof buf;
    ASSERT_TRUE(req.addToBuffer(cursor, left));
    ASSERT_EQ(1u, lamp.sendMessage(hubAddr, direct(lamp, 0, 1, 1, 1, 1), Bytes(buf, cursor)));
    MessageCarrierACKPack ack;
    ASSERT_TRUE(await(lamp, ack));

    MsgSelector ms;
    Bytes body;
    ASSERT_TRUE(takeMessage(lamp, ms, body));
    EXPECT_EQ(2, ms.msgId);
    EXPECT_EQ(1, ms.fromDeviceId);
    EXPECT_EQ(1, ms.fromObjectNo);
    EXPECT_EQ(0, ms.toObjectNo);
    EXPECT_EQ(1u, ms.msgNo);
    BasicDeviceListMsg list;
    const uint8_t* in = body.data();
    size_t inLeft = body.size();
    ASSERT_TRUE(list.getFromBuffer(in, inLeft));
    ASSERT_EQ(3u, list.devList.size());
    EXPECT_EQ(1500, list.devList[0].id);
    EXPECT_EQ(std::string("e2e-lamp"), list.devList[0].duid.str());
    EXPECT_EQ(6, list.devList[0].status);  // connected
    EXPECT_EQ(1501, list.devList[1].id);
    EXPECT_EQ(std::string("e2e-switch"), list.devList[1].duid.str());
    EXPECT_EQ(1, list.devList[2].id);
    EXPECT_EQ(std::string("HubMainServices"), list.devList[2].nname.str());
    EXPECT_TRUE(waitFor(hub, "DeviceManagementServices::deliverMessage() RequestBasicDeviceListMsg from 1500/0\n"));
}

TEST_F(HubE2E, BadDatagramsAreLoggedAndServiceGoesOn) {
    SimDevice stranger("e2e-stranger");
    stranger.nodeId = 777;
    uint8_t shortOne[5] = {1, 2, 3, 4, 5};
    UdpSocket raw;
    ASSERT_TRUE(raw.bind(SockAddress("127.0.0.1", 0), false));
    ASSERT_EQ(5, raw.sendTo(hubAddr, shortOne, sizeof shortOne));
    ConfigSummaryPack summary = stranger.configSummary(1);
    stranger.send(hubAddr, summary);

    EXPECT_TRUE(waitFor(hub, " received too small packet to deserialize id 5 bytes\n", true));
    EXPECT_TRUE(waitFor(hub, "handleConnectedMsgs(): Failed to get client for nodeId=777 msgId=\n from [127.0.0.1]:" +
                                std::to_string(stranger.address().port()) + "\n",
                            true));
    EXPECT_EQ(AdoptionOfferPack::PACK_ID, adopt(stranger, clearedKey, NO_SIGNATURE_TYPE).id);
}

TEST_F(HubE2E, SigtermExitsZeroWithRecordsFlushed) {
    ASSERT_EQ(AdoptionOfferPack::PACK_ID, adopt(lamp, lampKey, HMAC_SHA1_TYPE).id);
    ASSERT_EQ(JoinAcceptedPack::PACK_ID, joinWith(lamp, 5, lampKey, HMAC_SHA1_TYPE).id);
    ASSERT_EQ(ConfigurationCompletePack::PACK_ID, configure(lamp, 1).id);
    // Two packets went to the lamp through its session (GetObjectInfo,
    // ConfigurationComplete); the file still holds the counters of the join
    // unless the periodic flush (15050 ms) came first.
    if (Clock::now() - started < std::chrono::seconds(14)) {
        EXPECT_NE(std::string::npos, readFile(recordPath("e2e-lamp")).find("SEQUENCES=0 0\n"));
    }

    EXPECT_EQ(0, hub.terminate(WAIT_MS));
    EXPECT_NE(std::string::npos, readFile(recordPath("e2e-lamp")).find("SEQUENCES=2 0\n"));
    EXPECT_NE(std::string::npos, hub.out().find("Received Config Summary. No of objects=1"));
    EXPECT_EQ(std::string::npos, hub.err().find("Error while receiving"));
}

TEST_F(HubE2E, SecondHubOnTheSamePortExitsWithOne) {
    TempDir other;
    ASSERT_EQ(0, mkdir(other.file("DB").c_str(), 0755));
    ChildProcess second;
    ASSERT_TRUE(second.start({hubBinary}, other.path(), "hub"));
    EXPECT_TRUE(waitFor(second, "Failed to bind\n"));
    EXPECT_EQ(1, second.waitExit(WAIT_MS));
    EXPECT_EQ(std::string::npos, second.out().find("Successfully bind"));
}

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (argc > 1)
        hubBinary = argv[1];
    else if (const char* env = getenv("VELTO_HUB"))
        hubBinary = env;
    return RUN_ALL_TESTS();
}
