// Device scenarios against the real hub. Every test starts velto-hub in a
// fresh temporary working directory with its own DB and talks to it over
// 127.0.0.1, with the device library in this process or with velto-device
// processes. The hub joins a multicast group, so this binary refuses to run
// outside a private network namespace (CTest starts it through tests/netns.sh).
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "tests/support/device_scenario.h"
#include "tests/support/http_server.h"

using namespace device;
using namespace testsupport;

namespace {

using Process = ChildProcess;

const char* const LIGHT_INTF =
    "<?xml version=\"1.0\"?>\n"
    "<Velto-interface name=\"Light\" def=\"1\">\n"
    "  <messages>\n"
    "    <message name=\"switch\" id=\"5\" type=\"direct\" direction=\"IN\" security=\"1\"/>\n"
    "    <message name=\"changed\" id=\"7\" type=\"notification\" direction=\"OUT\" security=\"2\"/>\n"
    "  </messages>\n"
    "</Velto-interface>\n";
const char* const DIMMER_INTF =
    "<?xml version=\"1.0\"?>\n"
    "<Velto-interface name=\"Dimmer\" def=\"1\">\n"
    "  <messages><message name=\"level\" id=\"6\" type=\"direct\" security=\"3\"/></messages>\n"
    "</Velto-interface>\n";

// The documents of a lamp type on a loopback web server: the specification
// maps the interface names "light" and "dimmer" to two interface documents on
// the same server. Identifiers name the server as localhost:PORT.
struct LampDocuments {
    HttpServer web{HttpServer::Routes()};
    std::string spec;

    LampDocuments() {
        spec = "<?xml version=\"1.0\"?>\n<Velto-spec>\n  <info><specs>" + specId() +
               "</specs><desc lang=\"en\">A dimmable lamp</desc></info>\n  <interfaces>\n"
               "    <interface name=\"light\" intf=\"" + intfId("Light.1") + "\"/>\n"
               "    <interface name=\"dimmer\" intf=\"" + intfId("Dimmer.1") + "\"/>\n"
               "  </interfaces>\n</Velto-spec>\n";
        web.setBody("/specs/lamp.1/device.spec", spec);
        web.setBody("/intf/Light.1", LIGHT_INTF);
        web.setBody("/intf/Dimmer.1", DIMMER_INTF);
    }
    std::string host() const { return "localhost:" + std::to_string(web.port()); }
    std::string specId() const { return host() + "/specs/lamp.1"; }
    std::string intfId(const std::string& name) const { return host() + "/intf/" + name; }
    size_t requests(const std::string& path) const {
        std::vector<std::string> seen = web.connections();
        return static_cast<size_t>(std::count(seen.begin(), seen.end(), "GET " + host() + " " + path));
    }
};

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

TEST_F(DeviceScenarios, DirectMessagesOfEverySizeTravelBothWays) {
    startHub();
    DeviceSession& a = device("dev-a");
    DeviceSession& b = device("dev-b");
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
            EXPECT_EQ(DIRECT_MSGCAT, m.selector.msgCat);
            EXPECT_EQ(from.nodeId(), m.selector.fromDeviceId);
            EXPECT_EQ(1, m.selector.fromObjectNo);
            EXPECT_EQ(1, m.selector.toObjectNo);
            EXPECT_EQ(40 + dir, m.selector.msgId);
            EXPECT_TRUE(from.waitForDelivery(static_cast<MessageNo>(no), 3000)) << from.lastError();
        }
    }
    pumpFor(300);
    EXPECT_EQ(4u, rec(0).messages.size()) << "nothing delivered twice";
    EXPECT_EQ(4u, rec(1).messages.size());
}

TEST_F(DeviceScenarios, SignedDevicesExchangeMessages) {
    startHub();
    DeviceSession& a = device("sig-a", false, DEFAULT_DOMAIN, true);
    DeviceSession& b = device("sig-b", false, DEFAULT_DOMAIN, true);
    ASSERT_TRUE(joinAll()) << hub.err();
    std::vector<uint8_t> msg = pattern(700, 9);
    ASSERT_GE(a.sendDirect(b.nodeId(), 0, 3, msg), 1);
    ASSERT_TRUE(pumpUntil([&] { return !rec(1).messages.empty(); }, 8000)) << hub.err();
    EXPECT_EQ(msg, rec(1).messages[0].data);
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
        const IncomingMessage& m = rec(i).messages[0];
        EXPECT_EQ(first, m.data);
        EXPECT_EQ(NOTIFICATION_MSGCAT, m.selector.msgCat);
        EXPECT_EQ(pub.nodeId(), m.selector.fromDeviceId);
        EXPECT_EQ(1, m.selector.fromObjectNo);
        EXPECT_EQ(7, m.selector.msgId);
    }
    ASSERT_TRUE(s2.subscribe(pub.nodeId(), 1, 7, false));
    pumpFor(300);
    std::vector<uint8_t> second = pattern(20, 4);
    ASSERT_GE(pub.notify(1, 7, second), 1);
    ASSERT_TRUE(pumpUntil([&] { return rec(1).messages.size() == 2; }, 8000));
    pumpFor(500);
    EXPECT_EQ(second, rec(1).messages[1].data);
    EXPECT_EQ(1u, rec(2).messages.size()) << "unsubscribed";
    // An event nobody subscribed to reaches nobody.
    ASSERT_GE(pub.notify(1, 8, second), 1);
    pumpFor(500);
    EXPECT_EQ(2u, rec(1).messages.size());
}

TEST_F(DeviceScenarios, DeviceListShowsEveryConnectedDeviceAndTheHubNode) {
    startHub();
    DeviceSession& a = device("list-a");
    DeviceSession& b = device("list-b");
    ASSERT_TRUE(joinAll()) << hub.err();
    BasicDeviceListMsg list;
    ASSERT_TRUE(b.requestDeviceList(list, 5000)) << b.lastError() << hub.err();
    std::map<std::string, BasicDeviceInfo> byDuid;
    for (const BasicDeviceInfo& d : list.devList) byDuid[d.duid.str()] = d;
    ASSERT_EQ(1u, byDuid.count("list-a"));
    ASSERT_EQ(1u, byDuid.count("list-b"));
    ASSERT_EQ(1u, byDuid.count("VHubMainServices"));
    EXPECT_EQ(a.nodeId(), byDuid["list-a"].id);
    EXPECT_EQ(6, byDuid["list-a"].status) << "connected";
    EXPECT_EQ("t1", byDuid["list-b"].specs.str());
    EXPECT_EQ(1, byDuid["VHubMainServices"].id);
    EXPECT_TRUE(rec(1).messages.empty()) << "the reply is consumed by the request";
}

TEST_F(DeviceScenarios, AWrongDomainIsRefusedAndTheJoinTimesOut) {
    startHub();
    DeviceSession& d = device("wrong-dom", false, "NotMyDomain");
    EXPECT_FALSE(d.join(3000));
    EXPECT_NE(std::string::npos, d.lastError().find("domain")) << d.lastError();
    EXPECT_NE(std::string::npos, d.lastError().find("TestDomain_KVZ1")) << "names the offered domain";
    EXPECT_NE(std::string::npos, hub.err().find("Refuse join request missmatch domains")) << hub.err();

    Process p;
    ASSERT_TRUE(p.start({cli(), "--duid", "wrong-cli", "--hub", "127.0.0.1", "--domain", "Nope", "--timeout", "2000"},
                        work.path(), "wrong-cli"));
    EXPECT_EQ(1, p.waitExit(10000));
    EXPECT_NE(std::string::npos, p.err().find("domain")) << p.err();
}

TEST_F(DeviceScenarios, AMainKeyKnownToTheHubSignsTheHandshakeWithType1) {
    std::vector<uint8_t> key = pattern(20, 77);
    seedKeyedRecord("keyed-01", key, 1, 1500);
    startHub();
    DeviceSession& good = device("keyed-01", false, DEFAULT_DOMAIN, true, key);
    ASSERT_TRUE(good.join(5000)) << good.lastError() << rec(0).diags << hub.err();
    EXPECT_EQ(1500, good.nodeId());
    EXPECT_TRUE(rec(0).diags.empty()) << rec(0).diags;
    EXPECT_EQ(recordValue("keyed-01", "SESSION_KEY"), hexOf(good.sessionKey())) << "recovered with the main key";
    sessions.clear();
    pumpFor(100);

    std::vector<uint8_t> wrong = pattern(20, 78);
    DeviceSession& bad = device("keyed-01", false, DEFAULT_DOMAIN, false, wrong);
    EXPECT_FALSE(bad.join(2500));
    EXPECT_NE(std::string::npos, bad.lastError().find("does not verify")) << bad.lastError();
}

TEST_F(DeviceScenarios, Type2SignaturesCannotBeCheckedButTheHandshakeWorks) {
    std::vector<uint8_t> key = pattern(24, 91);
    seedKeyedRecord("keyed-02", key, 2, 1600);
    startHub();
    DeviceSession& d = device("keyed-02", false, DEFAULT_DOMAIN, false, key);
    ASSERT_TRUE(d.join(5000)) << d.lastError() << rec(0).diags << hub.err();
    EXPECT_EQ(1600, d.nodeId());
    const std::string& diags = rec(0).diags;
    EXPECT_NE(std::string::npos, diags.find("adoption offer signed with type 2: not checkable")) << diags;
    EXPECT_NE(std::string::npos, diags.find("join acceptance signed with type 2: not checkable")) << diags;
    EXPECT_EQ(recordValue("keyed-02", "SESSION_KEY"), hexOf(d.sessionKey())) << "recovered with the main key";
    BasicDeviceListMsg list;
    EXPECT_TRUE(d.requestDeviceList(list, 3000)) << d.lastError() << hub.err();
}

TEST_F(DeviceScenarios, DiscoveryFindsTheHubThroughItsGroup) {
    startHub();
    DeviceSession& d = device("disc-01", true);
    ASSERT_TRUE(d.join(6000)) << d.lastError() << hub.err();
    EXPECT_EQ(HUB_PORT, d.hubAddress().port());
    Process list;
    ASSERT_TRUE(list.start({cli(), "list"}, work.path(), "list-disc"));
    EXPECT_TRUE(pumpUntil([&] { return list.out().find("disc-01") != std::string::npos; }, 8000))
        << list.out() << list.err();
    EXPECT_EQ(0, list.waitExit(5000)) << list.err();
}

TEST_F(DeviceScenarios, QuickStartTwoSimulatorsOneSendsTheOtherPrints) {
    startHub();
    Process lamp, sw;
    ASSERT_TRUE(lamp.start({cli(), "--duid", "lamp-01", "--hub", "127.0.0.1", "--object", "light:switchable.1"},
                           work.path(), "lamp"));
    ASSERT_TRUE(lamp.waitForOutput("joined hub", 8000)) << lamp.err() << hub.err();
    ASSERT_TRUE(sw.start({cli(), "--duid", "switch-01", "--hub", "127.0.0.1"}, work.path(), "switch"));
    ASSERT_TRUE(sw.waitForOutput("joined hub", 8000)) << sw.err();
    sw.writeLine("send lamp-01/0 5 turn on, please");
    sw.writeLine("send lamp-01/0 6 hex:00ff");
    sw.writeLine("bogus command");
    sw.writeLine("quit");
    EXPECT_EQ(0, sw.waitExit(15000)) << sw.err();
    EXPECT_NE(std::string::npos, sw.out().find("delivered no")) << sw.out();
    EXPECT_NE(std::string::npos, sw.err().find("unknown command")) << sw.err();
    ASSERT_TRUE(lamp.waitForOutput("hex:00ff", 8000)) << lamp.out() << lamp.err();
    std::string out = lamp.out();
    EXPECT_NE(std::string::npos, out.find(" id 5 no ")) << out;
    EXPECT_NE(std::string::npos, out.find(" size 15: turn on, please")) << out;
    EXPECT_NE(std::string::npos, out.find("message from ")) << out;

    Process list;
    ASSERT_TRUE(list.start({cli(), "list", "--hub", "127.0.0.1"}, work.path(), "list"));
    EXPECT_EQ(0, list.waitExit(10000)) << list.err();
    std::string table = list.out();
    EXPECT_EQ(0u, table.find("ID")) << table;
    EXPECT_NE(std::string::npos, table.find("lamp-01")) << table;
    EXPECT_NE(std::string::npos, table.find("connected")) << table;

    lamp.writeLine("quit");
    EXPECT_EQ(0, lamp.waitExit(10000)) << lamp.err();
}

TEST_F(DeviceScenarios, TheSimulatorFailsClearlyWithoutAHub) {
    Process p;
    ASSERT_TRUE(p.start({cli(), "--duid", "alone", "--hub", "127.0.0.1", "--timeout", "800"}, work.path(), "alone"));
    EXPECT_EQ(1, p.waitExit(8000));
    EXPECT_NE(std::string::npos, p.err().find("no answer from the hub")) << p.err();
    Process bad;
    ASSERT_TRUE(bad.start({cli(), "--hub", "127.0.0.1"}, work.path(), "bad"));
    EXPECT_EQ(2, bad.waitExit(5000));
    EXPECT_NE(std::string::npos, bad.err().find("--duid")) << bad.err();
}

TEST_F(DeviceScenarios, DocumentsFromAWebServerAreFiledAndGiveEachObjectItsRights) {
    LampDocuments docs;
    ASSERT_TRUE(docs.web.ok());
    startHub();
    DeviceConfig c = config("doc-lamp");
    c.specs = docs.specId();
    c.objects = {DeviceObject{"light", "light", 0, 0}, DeviceObject{"dimmer", "dimmer", 0, 0}};
    DeviceSession& d = device(c);
    ASSERT_TRUE(d.join(8000)) << d.lastError() << hub.out();
    const std::string lastLine = "Loaded Rights for dev: " + docs.specId() + " iface: dimmer\n";
    ASSERT_TRUE(hub.waitForOutput(lastLine, 3000)) << hub.out();
    std::string log = hub.out();
    // The server speaks plain HTTP: the https try fails, the http one files it.
    std::string specUrl = docs.specId() + "/device.spec";
    EXPECT_NE(std::string::npos, log.find("Downloading https://" + specUrl + " ... Failed. Error data size=0\n"));
    EXPECT_NE(std::string::npos, log.find("Downloading http://" + specUrl + " ... OK as file DB/000000001.spec\n"))
        << log;
    EXPECT_EQ(docs.spec, readFile(work.file("DB/000000001.spec")));
    EXPECT_EQ(docs.specId() + "\t000000001\n", readFile(work.file("DB/specs.idx")));
    EXPECT_EQ(1u, docs.requests("/specs/lamp.1/device.spec")) << "the second object reads it from the store";

    struct Object { const char* name; const char* intf; const char* number; const char* body; };
    for (const Object& o : {Object{"light", "Light.1", "000000001", LIGHT_INTF},
                            Object{"dimmer", "Dimmer.1", "000000002", DIMMER_INTF}}) {
        std::string id = docs.intfId(o.intf);
        EXPECT_NE(std::string::npos, log.find("istring=" + id + "\n")) << o.name;
        EXPECT_NE(std::string::npos,
                  log.find("Downloading http://" + id + " ... OK as file DB/" + o.number + ".intf\n"))
            << o.name;
        EXPECT_NE(std::string::npos, log.find("Loaded Rights for dev: " + docs.specId() + " iface: " + o.name + "\n"))
            << o.name;
        EXPECT_EQ(o.body, readFile(work.file(std::string("DB/") + o.number + ".intf"))) << o.name;
    }
    EXPECT_EQ(docs.intfId("Light.1") + "\t000000001\n" + docs.intfId("Dimmer.1") + "\t000000002\n",
              readFile(work.file("DB/interfaces.idx")));
    EXPECT_EQ(std::string::npos, log.find("Failed to Load Rights")) << log;
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
    DeviceID lampId = 0;
    for (const BasicDeviceInfo& d : list.devList)
        if (d.duid == "lamp-ex") lampId = d.id;
    ASSERT_NE(0, lampId) << "listed";

    const std::vector<std::pair<std::string, std::string>> talk = {
        {"on", "light is on"}, {"how are you?", "light is on"}, {"off", "light is off"}};
    for (const auto& t : talk) {
        size_t before = rec(0).messages.size();
        ASSERT_GE(sw.sendDirect(lampId, 0, 5, bytes(t.first), 1), 1);
        ASSERT_TRUE(pumpUntil([&] { return rec(0).messages.size() > before; }, 5000)) << lamp.out() << lamp.err();
        const IncomingMessage& answer = rec(0).messages.back();
        EXPECT_EQ(bytes(t.second), answer.data) << t.first;
        EXPECT_EQ(lampId, answer.selector.fromDeviceId);
        EXPECT_EQ(1, answer.selector.toObjectNo) << "back to the object that asked";
        EXPECT_EQ(5, answer.selector.msgId);
        std::string heard = "lamp: message 5 from " + std::to_string(sw.nodeId()) + "/1: " + t.first + "\n";
        EXPECT_NE(std::string::npos, lamp.out().find(heard)) << lamp.out();
    }
    EXPECT_EQ(0, lamp.terminate()) << lamp.err();
    EXPECT_NE(std::string::npos, lamp.out().find("lamp: bye")) << lamp.out();
}
