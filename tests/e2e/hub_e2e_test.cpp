// End to end at the wire: the built hub daemon, started in a temporary working
// directory with its own DB, driven over UDP on 127.0.0.1:1881 by simulated
// devices that build every pack themselves. Runs inside a private network
// namespace (tests/netns.sh). The hub binary comes as the first argument or in
// the environment variable VELTO_HUB. Every wait is bounded.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/device_sim.h"
#include "tests/support/test_support.h"
#include "tests/support/wire_bytes.h"

using namespace testsupport;

namespace {

std::string hubBinary;
const uint32_t WAIT_MS = 2000;  // per expected packet or log line

std::string hexOf(const ByteArray<32>& a) { return toHex(a.data(), a.size()); }

class HubE2E : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(hubBinary.empty()) << "pass the hub binary as the first argument or in VELTO_HUB";
        ASSERT_EQ(0, mkdir(dir.file("DB").c_str(), 0755));
        // The lamp is known before the hub starts: a main key, HMAC-SHA1
        // signatures and XOR transport, no session key yet.
        ASSERT_TRUE(writeFile(recordPath("e2e-lamp"),
                              "DUID=e2e-lamp\nMAIN_KEY=" + hexOf(lampKey) +
                                  "\nID=1500\nSPECS=sp\nVERSION=3\nNAME=Lamp\nFIRST_ADDR=[127.0.0.1]:1\n"
                                  "LAST_ADDR=[127.0.0.1]:1\nFIRST_TIME=1000\nLAST_TIME=2000\nKEY_TIME=0\n"
                                  "SESSION_KEY=\nTRUST=4\nSIG_TYPE=1\nENC_TYPE=1\nSEQUENCES=0 0\n"));
        ASSERT_TRUE(hub.start({hubBinary}, dir.path(), "hub"));
        ASSERT_TRUE(waitFor("Successfully joined group\n")) << hub.out() << hub.err();
    }
    void TearDown() override { hub.kill9(); }

    bool waitFor(const std::string& text, bool inErr = false) { return hub.waitForOutput(text, WAIT_MS, inErr); }
    std::string recordPath(const std::string& duid) const { return dir.file("DB/" + duid + ".dev"); }

    // The next pack for dev other than a ping, decoded as T; false when none
    // came in time or it is another pack.
    template <typename T>
    bool await(SimDevice& dev, T& pack) {
        for (int guard = 0; guard < 100; ++guard) {
            Bytes d = dev.receiveRaw(WAIT_MS);
            if (d.empty()) return false;
            if (d[0] != PingPongPack::PACK_ID) return d[0] == T::PACK_ID && pack.deserialize(d.data(), d.size(), true) > 1;
        }
        return false;
    }

    // Announcement and join under mainKey, signatures checked with sigType; on
    // success dev holds its node id and the session key. offer.id and ja.id are
    // 0 when the pack did not come.
    void adoptAndJoin(SimDevice& dev, const ByteArray<32>& mainKey, uint8_t sigType, uint64_t clientRand,
                      AdoptionOfferPack& offer, JoinAcceptedPack& ja) {
        NewBornDevicePack born = dev.newBorn("sp");
        dev.send(hubAddr, born);
        offer.signature.setKey(sigType, mainKey.data(), mainKey.size());
        if (!await(dev, offer)) offer.id = 0;
        NetworkJoinPack request = dev.joinRequest("TestDomain_KVZ1", clientRand);
        dev.send(hubAddr, request);
        ja.signature.setKey(sigType, mainKey.data(), mainKey.size());
        if (!await(dev, ja)) ja.id = 0;
        dev.nodeId = ja.nodeId;
        dev.sessionKey = recoverSessionKey(ja, clientRand, mainKey);
    }

    TempDir dir;
    ChildProcess hub;
    const SockAddress hubAddr = SockAddress("127.0.0.1", 1881);
    const ByteArray<32> lampKey = keyBytes(16, 0xa5);
};

}  // namespace

TEST_F(HubE2E, ProvisionedDeviceIsAdoptedAndJoinsUnderItsMainKey) {
    EXPECT_TRUE(waitFor("add to map e2e-lamp -- 1500 next=1501\n"));
    SimDevice lamp("e2e-lamp");
    AdoptionOfferPack offer;
    JoinAcceptedPack ja;
    adoptAndJoin(lamp, lampKey, HMAC_SHA1_TYPE, 0x0badc0ffee, offer, ja);
    ASSERT_EQ(AdoptionOfferPack::PACK_ID, offer.id);
    EXPECT_TRUE(offer.signature.verified());
    EXPECT_EQ(255, offer.offer);  // it has been here before
    EXPECT_EQ(std::string("Lamp"), offer.nname.str());
    EXPECT_EQ(17, offer.svrNodeId);
    ASSERT_EQ(JoinAcceptedPack::PACK_ID, ja.id);
    EXPECT_TRUE(ja.signature.verified());
    EXPECT_EQ(1500, ja.nodeId);
    EXPECT_EQ(SIMPLE_XOR_TYPE, ja.encAlg);
    ASSERT_EQ(32u, lamp.sessionKey.size());
    EXPECT_NE(std::string::npos, readFile(recordPath("e2e-lamp")).find("SESSION_KEY=" + hexOf(lamp.sessionKey) + "\n"));
    const std::string port = std::to_string(lamp.address().port());
    EXPECT_TRUE(waitFor("New Baby born at:127.0.0.1/" + port + " DUID=e2e-lamp, SPECS=sp VER=3\n"));
    EXPECT_TRUE(waitFor("Adopting client:127.0.0.1/" + port + " DUID=e2e-lamp joins the networkTestDomain_KVZ1"));
    EXPECT_TRUE(waitFor("Sending join acceptance \x04 to [127.0.0.1]:" + port + " sessionKey[32]: " +
                        hexOf(lamp.sessionKey) + "\n"));
}

TEST_F(HubE2E, FreshDeviceJoinsUnderTheClearedKeyAndIsConfigured) {
    SimDevice sw("e2e-switch");
    const ByteArray<32> clearedKey = keyBytes(20, 0);
    AdoptionOfferPack offer;
    JoinAcceptedPack ja;
    adoptAndJoin(sw, clearedKey, NO_SIGNATURE_TYPE, 42, offer, ja);
    EXPECT_EQ(200, offer.offer);
    ASSERT_EQ(JoinAcceptedPack::PACK_ID, ja.id);
    EXPECT_EQ(1501, ja.nodeId);  // next after the provisioned 1500
    const std::string record = readFile(recordPath("e2e-switch"));
    EXPECT_NE(std::string::npos, record.find("SESSION_KEY=" + hexOf(sw.sessionKey) + "\n"));
    EXPECT_NE(std::string::npos, record.find("MAIN_KEY=" + hexOf(clearedKey) + "\n"));
    EXPECT_NE(std::string::npos, record.find("TRUST=0\n"));

    // The configuration exchange, every pack signed with the session key.
    ConfigSummaryPack summary = sw.configSummary(2);
    summary.signature.setKey(HMAC_SHA1_TYPE, sw.sessionKey.data(), sw.sessionKey.size());
    sw.send(hubAddr, summary);
    for (uint8_t n = 0; n < 2; ++n) {
        GetObjectInfoPack ask;
        ASSERT_TRUE(await(sw, ask));
        EXPECT_EQ(n, ask.objectNo);
        ObjectInfoPack info = sw.objectInfo(n, "obj" + std::to_string(n), "if");
        info.signature.setKey(HMAC_SHA1_TYPE, sw.sessionKey.data(), sw.sessionKey.size());
        sw.send(hubAddr, info);
    }
    ConfigurationCompletePack done;
    ASSERT_TRUE(await(sw, done));
    EXPECT_EQ(done.packetNo, done.hub2DevSequence);
    EXPECT_TRUE(waitFor("Received Config Summary. No of objects=2"));
    EXPECT_TRUE(waitFor(" signature type: 1 verified: 1\n"));
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
    EXPECT_TRUE(waitFor(" received too small packet to deserialize id 5 bytes\n", true));
    EXPECT_TRUE(waitFor("handleConnectedMsgs(): Failed to get client for nodeId=777 msgId=\n from [127.0.0.1]:" +
                            std::to_string(stranger.address().port()) + "\n",
                        true));
    NewBornDevicePack born = stranger.newBorn("sp");
    AdoptionOfferPack offer;
    EXPECT_TRUE(stranger.send(hubAddr, born) && await(stranger, offer));
}

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (argc > 1)
        hubBinary = argv[1];
    else if (const char* env = getenv("VELTO_HUB"))
        hubBinary = env;
    return RUN_ALL_TESTS();
}
