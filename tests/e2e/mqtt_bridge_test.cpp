// The MQTT bridge end to end: Debian's mosquitto on a loopback port, the real
// hub, velto-mqtt, a lamp built on the device library, and mosquitto_sub /
// mosquitto_pub as the users. The hub's store is seeded with the example
// specification and interface document (two-character identifiers, so nothing
// is downloaded). CTest runs this inside a private network namespace.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/device_scenario.h"
#include "tests/support/http_server.h"

using namespace device;
using namespace testsupport;

namespace {

const std::string PORT = "18831";

class MqttBridge : public DeviceScenarioFixture {
protected:
    void SetUp() override {
        DeviceScenarioFixture::SetUp();
        if (IsSkipped()) return;
        std::string examples = VELTO_EXAMPLES_DIR;
        ASSERT_TRUE(writeFile(work.file("DB/specs.idx"), "la\t000000001\n"));
        ASSERT_TRUE(writeFile(work.file("DB/interfaces.idx"), "ex/Switchable.1\t000000001\n"));
        ASSERT_TRUE(writeFile(work.file("DB/000000001.spec"), readFile(examples + "/lamp.spec.xml")));
        ASSERT_TRUE(writeFile(work.file("DB/000000001.intf"), readFile(examples + "/switchable.intf.xml")));
        startBroker();
        startHub();
    }
    void TearDown() override {
        bridge.stop();
        subs.clear();
        broker.stop();
        DeviceScenarioFixture::TearDown();
    }
    void startBroker() {
        ASSERT_TRUE(broker.start({"/usr/sbin/mosquitto", "-p", PORT}, work.path(), "mosquitto"));
        ASSERT_TRUE(broker.waitForOutput("running", 5000, true)) << broker.err();
    }
    // Starts the bridge and waits until it has published the lamp; then a
    // fresh subscriber on filter, which sees what is retained with flag 1.
    ChildProcess& startBridge(const std::string& filter, const std::string& store = "DB") {
        EXPECT_TRUE(bridge.start({VELTO_MQTT_BIN, "--hub", "127.0.0.1", "--broker", "127.0.0.1:" + PORT, "--poll-ms",
                                  "300", "--store", store},
                                 work.path(), "bridge"));
        ChildProcess& live = subscribe("velto/bridge/devices");
        EXPECT_TRUE(saw(live, "\"online\":true")) << bridge.err();
        return subscribe(filter);
    }
    DeviceSession& lamp(const std::string& specs = "la") {
        DeviceConfig c = config("lamp-01");
        c.specs = specs;
        c.objects = {DeviceObject{"light", "switchable", 0, 0}};
        return device(c);
    }
    // mosquitto_sub on filter; its lines read "RETAIN TOPIC PAYLOAD".
    ChildProcess& subscribe(const std::string& filter) {
        subs.emplace_back(new ChildProcess);
        std::string name = "sub" + std::to_string(subs.size());
        EXPECT_TRUE(subs.back()->start({"/usr/bin/stdbuf", "-oL", "/usr/bin/mosquitto_sub", "-p", PORT, "-t", filter,
                                        "-v", "-W", "60", "-F", "%r %t %p"},
                                       work.path(), name));
        sleepMs(200);  // subscribed before anything is published
        return *subs.back();
    }
    void publish(const std::string& topic, const std::string& payload, bool retain = false) {
        ChildProcess pub;
        std::vector<std::string> argv = {"/usr/bin/mosquitto_pub", "-p", PORT, "-t", topic, "-m", payload};
        if (retain) argv.push_back("-r");
        ASSERT_TRUE(pub.start(argv, work.path(), "pub"));
        EXPECT_EQ(0, pub.waitExit(5000));
    }
    // Pumps the devices until the subscriber printed text.
    bool saw(ChildProcess& sub, const std::string& text, int timeoutMs = 8000) {
        return pumpUntil([&] { return sub.out().find(text) != std::string::npos; }, timeoutMs);
    }

    ChildProcess broker, bridge;
    std::vector<std::unique_ptr<ChildProcess>> subs;
};

}  // namespace

// The hub describes a node's objects with the interface identifiers of its
// stored specification (an unknown node has none). Discovery configs, the
// bridge's state and the lamp's availability are retained; a notification
// reaches its topic decoded; every set becomes the right direct message or
// one event saying why not.
TEST_F(MqttBridge, ObjectInfoDiscoveryNotificationsAndSets) {
    DeviceSession& l = lamp();
    ASSERT_TRUE(joinAll()) << hub.err();
    BasicObjectInfoMsg info, none;
    ASSERT_TRUE(l.requestObjectInfo(l.nodeId(), info, 3000) && l.requestObjectInfo(4321, none, 3000)) << l.lastError();
    EXPECT_TRUE(none.objects.empty());
    ASSERT_EQ(1u, info.objects.size());
    EXPECT_EQ(l.nodeId(), info.nodeId);
    const BasicObjectInfo& o = info.objects[0];
    EXPECT_EQ("light switchable ex/Switchable.1", o.name.str() + " " + o.interface.str() + " " + o.interfaceId.str());
    // A set left retained on the broker is ignored when the bridge subscribes.
    ChildProcess& early = subscribe("velto/bridge/event");
    publish("velto/lamp-01/light/power/set", "{\"on\": false}", true);
    ChildProcess& all = startBridge("#");
    EXPECT_TRUE(saw(early, "\"outcome\":\"ignored\"")) << early.out();
    publish("velto/lamp-01/light/power/set", "", true);
    EXPECT_TRUE(rec(0).messages.empty());
    ASSERT_TRUE(saw(all, "1 velto/bridge/state online")) << bridge.err();
    ASSERT_TRUE(saw(all, "1 velto/lamp-01/availability online")) << bridge.err();
    ASSERT_TRUE(saw(all, "\"unique_id\":\"velto_lamp-01_0_2\"")) << all.out();
    for (const char* text :
         {"1 homeassistant/switch/velto_lamp-01/light_power/config ",
          "1 homeassistant/sensor/velto_lamp-01/light_state/config ",
          "1 homeassistant/number/velto_lamp-01/light_level/config ",
          "1 homeassistant/text/velto_lamp-01/light_label/config ",
          "1 homeassistant/button/velto_lamp-01/light_blink/config ", "\"availability_mode\":\"all\"",
          "\"state_topic\":\"velto/lamp-01/light/state\"", "{\"topic\":\"velto/lamp-01/availability\"}",
          "\"identifiers\":[\"velto_lamp-01\"]", "\"model\":\"la\"", "\"via_device\":\"velto_bridge\""})
        EXPECT_NE(std::string::npos, all.out().find(text)) << text;
    ASSERT_TRUE(saw(all, "1 velto/bridge/devices [{")) << all.out();

    ASSERT_GE(rec(0).session.notify(0, 1, {1, 66}), 0);
    EXPECT_TRUE(saw(all, " velto/lamp-01/light/state {\"level\":66,\"on\":true}")) << all.out();

    struct Case { const char* message; const char* payload; std::string bytesOrError; } cases[] = {
        {"power", "{\"on\": true}", "01"}, {"level", "{\"level\": 7}", "07"}, {"label", "{\"text\": \"hi\"}", "686900"},
        {"blink", "{}", "00"}, {"level", "{\"level\": 300}", "field level is not a uint8"},
        {"power", "nonsense", "the payload is not JSON"}, {"dim", "{}", "no such direct message"},
    };
    for (const Case& c : cases) {
        rec(0).messages.clear();
        ChildProcess& events = subscribe("velto/bridge/event");
        publish(std::string("velto/lamp-01/light/") + c.message + "/set", c.payload);
        if (c.bytesOrError.find(' ') == std::string::npos) {
            ASSERT_TRUE(pumpUntil([&] { return !rec(0).messages.empty(); }, 5000)) << c.message;
            EXPECT_EQ(c.bytesOrError, hexOf(rec(0).messages[0].data)) << c.message;
            EXPECT_TRUE(saw(events, "\"outcome\":\"delivered\"")) << events.out();
        } else {
            EXPECT_TRUE(saw(events, "\"error\":\"" + c.bytesOrError + "\"")) << events.out();
            EXPECT_TRUE(rec(0).messages.empty()) << c.message;
        }
    }
    // Home Assistant's birth message brings the configs again.
    ChildProcess& again = subscribe("homeassistant/#");
    publish("homeassistant/status", "online");
    EXPECT_TRUE(saw(again, "0 homeassistant/switch/velto_lamp-01/light_power/config ")) << again.out();
    // A removed device leaves no retained topic behind.
    ChildProcess& answer = subscribe("velto/bridge/response/#");
    publish("velto/bridge/request/remove", "{\"device\": \"lamp-01\", \"transaction\": 7}");
    EXPECT_TRUE(saw(answer, "{\"data\":{\"device\":\"lamp-01\"},\"status\":\"ok\",\"transaction\":7}")) << answer.out();
    ChildProcess& left = subscribe("velto/lamp-01/#");
    pumpFor(500);
    EXPECT_EQ("", left.out());
}

// A lamp that leaves goes offline and comes back online (and its
// notifications flow again); a broker restart brings everything back; the
// will says offline when the bridge is killed.
TEST_F(MqttBridge, AvailabilityBrokerRestartAndWill) {
    lamp();
    ASSERT_TRUE(joinAll()) << hub.err();
    ChildProcess& first = startBridge("velto/#");
    ASSERT_TRUE(saw(first, "1 velto/lamp-01/availability online")) << bridge.err();

    sessions.clear();  // the lamp is gone; the hub drops it after its probes
    ChildProcess& gone = subscribe("velto/lamp-01/#");
    ASSERT_TRUE(saw(gone, "0 velto/lamp-01/availability offline", 15000)) << bridge.err();
    lamp();
    ASSERT_TRUE(joinAll()) << hub.err();
    ASSERT_TRUE(saw(gone, "0 velto/lamp-01/availability online", 15000)) << bridge.err();
    ASSERT_GE(rec(0).session.notify(0, 1, {0, 9}), 0);
    EXPECT_TRUE(saw(gone, "velto/lamp-01/light/state {\"level\":9,\"on\":false}")) << gone.out();

    subs.clear();
    broker.stop();  // no persistence: every retained topic is gone with it
    startBroker();
    ChildProcess& second = subscribe("velto/#");
    // Whatever this broker holds, the bridge published again after the restart.
    EXPECT_TRUE(saw(second, "velto/bridge/state online", 15000)) << bridge.err();
    EXPECT_TRUE(saw(second, "velto/lamp-01/availability online")) << second.out();
    EXPECT_TRUE(saw(second, "velto/lamp-01/light/state {\"level\":9,\"on\":false}")) << second.out();

    bridge.kill9();
    EXPECT_TRUE(saw(second, "velto/bridge/state offline", 10000)) << second.out();
}

// A document missing from the bridge's store is downloaded off its loop and
// filed in the store's layout; the lamp's entities follow.
TEST_F(MqttBridge, AMissingDocumentIsDownloadedIntoTheBridgesStore) {
    HttpServer web{HttpServer::Routes()};
    ASSERT_TRUE(web.ok());
    const std::string intfId = "localhost:" + std::to_string(web.port()) + "/intf/Switchable.1";
    const std::string intf = readFile(std::string(VELTO_EXAMPLES_DIR) + "/switchable.intf.xml");
    web.setBody("/intf/Switchable.1", intf);
    ASSERT_TRUE(writeFile(work.file("DB/specs.idx"), "la\t000000001\nsb\t000000002\n"));
    ASSERT_TRUE(
        writeFile(work.file("DB/000000002.spec"), "<Velto-spec><interfaces><interface name=\"switchable\" intf=\"" +
                                                      intfId + "\"/></interfaces></Velto-spec>\n"));
    ASSERT_EQ(0, mkdir(work.file("bstore").c_str(), 0755));
    lamp("sb");
    ASSERT_TRUE(joinAll()) << hub.err();
    ChildProcess& all = startBridge("homeassistant/#", "bstore");
    // The hub's own attempts at the document come first, on a loaded machine slowly.
    EXPECT_TRUE(saw(all, "1 homeassistant/switch/velto_lamp-01/light_power/config ", 20000)) << bridge.err();
    EXPECT_EQ(intf, readFile(work.file("bstore/000000001.intf")));
    EXPECT_EQ(intfId + "\t000000001\n", readFile(work.file("bstore/interfaces.idx")));
}
