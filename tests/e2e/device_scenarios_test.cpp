// Device scenarios against the real hub. Every test starts velto-hub in a
// fresh temporary working directory with its own DB and talks to it over
// 127.0.0.1, with the device library in this process or with velto-device
// processes. The hub joins a multicast group, so this binary refuses to run
// outside a private network namespace (CTest starts it through tests/netns.sh).
#include <gtest/gtest.h>


#include "tests/support/device_scenario.h"
#include "tests/support/http_server.h"

using namespace device;
using namespace testsupport;

namespace {

using Process = ChildProcess;

const char* const LIGHT_INTF =
    "<?xml version=\"1.0\"?>\n<Velto-interface name=\"Light\" def=\"1\">\n  <messages>\n"
    "    <message name=\"switch\" id=\"5\" type=\"direct\" direction=\"IN\" security=\"1\"/>\n"
    "  </messages>\n</Velto-interface>\n";

std::vector<uint8_t> bytes(const std::string& s) { return std::vector<uint8_t>(s.begin(), s.end()); }

class DeviceScenarios : public DeviceScenarioFixture {
protected:
    // A record the hub finds at start: the device's main key and the signature
    // type the hub signs the handshake with.
    void seedKeyedRecord(const std::string& duid, const std::vector<uint8_t>& key, int sigType, DeviceID id) {
        ASSERT_TRUE(writeFile(recordPath(duid), "DUID=" + duid + "\nMAIN_KEY=" + hexOf(key) + "\nID=" +
                                                    std::to_string(id) + "\nNAME=keyed\nSIG_TYPE=" +
                                                    std::to_string(sigType) + "\nENC_TYPE=1\n"));
    }
};

}  // namespace

// One piece, one full piece, one byte over, many pieces; dev-b signs its packs.
TEST_F(DeviceScenarios, DirectMessagesOfEverySizeTravelBothWays) {
    startHub();
    DeviceSession& a = device("dev-a");
    DeviceSession& b = device("dev-b", false, DEFAULT_DOMAIN, true);
    ASSERT_TRUE(joinAll()) << rec(0).session.lastError() << rec(1).session.lastError() << hub.err();
    ASSERT_NE(a.nodeId(), b.nodeId());
    uint8_t seed = 1;
    for (size_t size : {1u, 326u, 327u, 5000u}) {
        for (int dir = 0; dir < 2; ++dir) {
            DeviceSession& from = dir == 0 ? a : b;
            Recorder& to = rec(dir == 0 ? 1 : 0);
            std::vector<uint8_t> msg = pattern(size, seed++);
            size_t before = to.messages.size();
            int64_t no = from.sendDirect(to.session.nodeId(), 1, 40 + dir, msg, 1);
            ASSERT_GE(no, 1) << from.lastError();
            ASSERT_TRUE(pumpUntil([&] { return to.messages.size() > before; }, 8000))
                << "size " << size << " dir " << dir << "\n" << to.diags << hub.err();
            const IncomingMessage& m = to.messages.back();
            EXPECT_EQ(msg, m.data) << "size " << size;
            EXPECT_EQ(from.nodeId(), m.selector.fromDeviceId);
            EXPECT_EQ(40 + dir, m.selector.msgId);
            EXPECT_TRUE(from.waitForDelivery(static_cast<MessageNo>(no), 3000)) << from.lastError();
        }
    }
    pumpFor(300);
    EXPECT_EQ(4u, rec(0).messages.size()) << "nothing delivered twice";
    EXPECT_EQ(4u, rec(1).messages.size());
    EXPECT_EQ(std::string(40, '0'), recordValue("dev-a", "MAIN_KEY")) << "a fresh device gets the cleared key";
    EXPECT_EQ("0", recordValue("dev-a", "TRUST"));
    EXPECT_EQ(std::string::npos, hub.err().find("Failed to verify")) << hub.err();
}

TEST_F(DeviceScenarios, NotificationsReachSubscribersUntilTheyUnsubscribe) {
    startHub();
    DeviceSession& pub = device("pub");
    DeviceSession& s1 = device("sub-1");
    DeviceSession& s2 = device("sub-2");
    ASSERT_TRUE(joinAll()) << hub.err();
    ASSERT_TRUE(s1.subscribe(pub.nodeId(), 1, 7, true));
    ASSERT_TRUE(s2.subscribe(pub.nodeId(), 1, 7, true));
    pumpFor(300);
    std::vector<uint8_t> first = pattern(400, 3);
    ASSERT_GE(pub.notify(1, 7, first), 1);
    ASSERT_TRUE(pumpUntil([&] { return !rec(1).messages.empty() && !rec(2).messages.empty(); }, 8000))
        << hub.err();
    for (size_t i : {1u, 2u}) {
        EXPECT_EQ(first, rec(i).messages[0].data);
        EXPECT_EQ(NOTIFICATION_MSGCAT, rec(i).messages[0].selector.msgCat);
        EXPECT_EQ(pub.nodeId(), rec(i).messages[0].selector.fromDeviceId);
    }
    ASSERT_TRUE(s2.subscribe(pub.nodeId(), 1, 7, false));
    pumpFor(300);
    std::vector<uint8_t> second = pattern(20, 4);
    ASSERT_GE(pub.notify(1, 7, second), 1);
    ASSERT_TRUE(pumpUntil([&] { return rec(1).messages.size() == 2; }, 8000));
    pumpFor(500);
    EXPECT_EQ(second, rec(1).messages[1].data);
    EXPECT_EQ(1u, rec(2).messages.size()) << "unsubscribed";
}

TEST_F(DeviceScenarios, AWrongDomainIsRefusedAndTheJoinTimesOut) {
    startHub();
    DeviceSession& d = device("wrong-dom", false, "NotMyDomain");
    EXPECT_FALSE(d.join(3000));
    EXPECT_NE(std::string::npos, d.lastError().find("TestDomain_KVZ1")) << "names the offered domain";
    EXPECT_NE(std::string::npos, hub.err().find("Refuse join request missmatch domains")) << hub.err();

    Process bad;
    ASSERT_TRUE(bad.start({cli(), "--hub", "127.0.0.1"}, work.path(), "bad"));
    EXPECT_EQ(2, bad.waitExit(5000));
    EXPECT_NE(std::string::npos, bad.err().find("--duid")) << bad.err();
}

// A main key the hub holds: type 1 signatures are checked (a wrong key is
// refused), type 2 ones cannot be checked but the handshake works; the session
// key is recovered with the main key either way.
TEST_F(DeviceScenarios, AMainKeyKnownToTheHubSignsTheHandshake) {
    const std::vector<uint8_t> key1 = pattern(20, 77), key2 = pattern(24, 91);
    seedKeyedRecord("keyed-01", key1, 1, 1500);
    seedKeyedRecord("keyed-02", key2, 2, 1600);
    startHub();
    DeviceSession& one = device("keyed-01", false, DEFAULT_DOMAIN, true, key1);
    DeviceSession& two = device("keyed-02", false, DEFAULT_DOMAIN, false, key2);
    ASSERT_TRUE(joinAll(5000)) << one.lastError() << two.lastError() << hub.err();
    EXPECT_EQ(1500, one.nodeId());
    EXPECT_EQ(1600, two.nodeId());
    EXPECT_TRUE(rec(0).diags.empty()) << rec(0).diags;
    EXPECT_NE(std::string::npos, rec(1).diags.find("adoption offer signed with type 2: not checkable")) << rec(1).diags;
    EXPECT_NE(std::string::npos, rec(1).diags.find("join acceptance signed with type 2: not checkable"));
    EXPECT_EQ(recordValue("keyed-01", "SESSION_KEY"), hexOf(one.sessionKey()));
    EXPECT_EQ(recordValue("keyed-02", "SESSION_KEY"), hexOf(two.sessionKey()));
    for (const std::string& line : std::vector<std::string>{"New Baby born at:127.0.0.1/", " DUID=keyed-01, SPECS=t1 VER=",
                                   "Adopting client:127.0.0.1/", " DUID=keyed-01 joins the networkTestDomain_KVZ1",
                                   "sessionKey[32]: " + hexOf(one.sessionKey()) + "\n"})
        EXPECT_TRUE(hub.waitForOutput(line, 2000)) << line;
    sessions.clear();
    pumpFor(100);
    DeviceSession& bad = device("keyed-01", false, DEFAULT_DOMAIN, false, pattern(20, 78));
    EXPECT_FALSE(bad.join(2500));
    EXPECT_NE(std::string::npos, bad.lastError().find("does not verify")) << bad.lastError();
}

TEST_F(DeviceScenarios, DiscoveryFindsTheHubThroughItsGroup) {
    startHub();
    DeviceSession& d = device("disc-01", true);
    ASSERT_TRUE(d.join(6000)) << d.lastError() << hub.err();
    EXPECT_EQ(HUB_PORT, d.hubAddress().port());
}

TEST_F(DeviceScenarios, QuickStartTwoSimulatorsOneSendsTheOtherPrints) {
    startHub();
    Process lamp, sw;
    ASSERT_TRUE(lamp.start({cli(), "--duid", "lamp-01", "--hub", "127.0.0.1", "--object", "light:switchable.1"},
                           work.path(), "lamp"));
    ASSERT_TRUE(lamp.waitForOutput("joined hub", 8000)) << lamp.err() << hub.err();
    ASSERT_TRUE(sw.start({cli(), "--duid", "switch-01", "--hub", "127.0.0.1"}, work.path(), "switch"));
    ASSERT_TRUE(sw.waitForOutput("joined hub", 8000)) << sw.err();
    for (const char* line : {"send lamp-01/0 5 turn on, please", "send lamp-01/0 6 hex:00ff", "bogus command", "quit"})
        sw.writeLine(line);
    EXPECT_EQ(0, sw.waitExit(15000)) << sw.err();
    EXPECT_NE(std::string::npos, sw.out().find("delivered no")) << sw.out();
    EXPECT_NE(std::string::npos, sw.err().find("unknown command")) << sw.err();
    ASSERT_TRUE(lamp.waitForOutput("hex:00ff", 8000)) << lamp.out() << lamp.err();
    EXPECT_NE(std::string::npos, lamp.out().find("/0 id 5 no ")) << lamp.out();
    EXPECT_NE(std::string::npos, lamp.out().find(" size 15: turn on, please\n")) << lamp.out();

    Process list;
    ASSERT_TRUE(list.start({cli(), "list", "--hub", "127.0.0.1"}, work.path(), "list"));
    EXPECT_EQ(0, list.waitExit(10000)) << list.err();
    EXPECT_NE(std::string::npos, list.out().find("lamp-01")) << list.out();

    lamp.writeLine("quit");
    EXPECT_EQ(0, lamp.waitExit(10000)) << lamp.err();
}

// A device whose specification names a loopback web server: the hub fetches
// the specification and the interface it maps "light" to, files both in DB
// and loads the object's rights.
TEST_F(DeviceScenarios, DocumentsFromAWebServerAreFiledAndGiveEachObjectItsRights) {
    HttpServer web{HttpServer::Routes()};
    ASSERT_TRUE(web.ok());
    const std::string host = "localhost:" + std::to_string(web.port()), specId = host + "/specs/lamp.1";
    const std::string spec = "<?xml version=\"1.0\"?>\n<Velto-spec>\n  <info><specs>" + specId +
                             "</specs></info>\n  <interfaces>\n    <interface name=\"light\" intf=\"" + host +
                             "/intf/Light.1\"/>\n  </interfaces>\n</Velto-spec>\n";
    web.setBody("/specs/lamp.1/device.spec", spec);
    web.setBody("/intf/Light.1", LIGHT_INTF);
    startHub();
    DeviceConfig c = config("doc-lamp");
    c.specs = specId;
    c.objects = {DeviceObject{"light", "light", 0, 0}};
    DeviceSession& d = device(c);
    ASSERT_TRUE(d.join(8000)) << d.lastError() << hub.out();
    ASSERT_TRUE(hub.waitForOutput("Loaded Rights for dev: " + specId + " iface: light\n", 3000)) << hub.out();
    EXPECT_EQ(spec, readFile(work.file("DB/000000001.spec")));
    EXPECT_EQ(specId + "\t000000001\n", readFile(work.file("DB/specs.idx")));
    EXPECT_EQ(LIGHT_INTF, readFile(work.file("DB/000000001.intf")));
    EXPECT_EQ(host + "/intf/Light.1\t000000001\n", readFile(work.file("DB/interfaces.idx")));
}

TEST_F(DeviceScenarios, TheLampExampleAnswersEveryMessage) {
    startHub();
    Process lamp;
    ASSERT_TRUE(lamp.start({VELTO_LAMP_BIN, "--hub", "127.0.0.1", "--duid", "lamp-ex"}, work.path(), "lamp"));
    ASSERT_TRUE(lamp.waitForOutput("lamp: joined as node ", 8000)) << lamp.err() << hub.err();
    DeviceSession& sw = device("switch-ex");
    ASSERT_TRUE(joinAll()) << hub.err();
    BasicDeviceListMsg list;
    ASSERT_TRUE(sw.requestDeviceList(list, 3000)) << sw.lastError();
    DeviceID lampId = 0, hubNode = 0;
    for (const BasicDeviceInfo& d : list.devList) {
        if (d.duid == "lamp-ex") lampId = d.id;
        if (d.duid == "VHubMainServices") hubNode = d.id;
    }
    ASSERT_NE(0, lampId) << "listed";
    EXPECT_EQ(1, hubNode);

    const std::vector<std::pair<std::string, std::string>> talk = {
        {"on", "light is on"}, {"how are you?", "light is on"}, {"off", "light is off"}};
    for (const auto& t : talk) {
        size_t before = rec(0).messages.size();
        ASSERT_GE(sw.sendDirect(lampId, 0, 5, bytes(t.first), 1), 1);
        ASSERT_TRUE(pumpUntil([&] { return rec(0).messages.size() > before; }, 5000)) << lamp.out() << lamp.err();
        const IncomingMessage& answer = rec(0).messages.back();
        EXPECT_EQ(bytes(t.second), answer.data) << t.first;
        EXPECT_EQ(1, answer.selector.toObjectNo) << "back to the object that asked";
        EXPECT_NE(std::string::npos, lamp.out().find("lamp: message 5 from " + std::to_string(sw.nodeId()) +
                                                     "/1: " + t.first + "\n"));
    }
    EXPECT_EQ(0, lamp.terminate()) << lamp.err();
    EXPECT_NE(std::string::npos, lamp.out().find("lamp: bye")) << lamp.out();
}
