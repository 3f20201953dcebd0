// The MQTT bridge's figures: a device's notification to an MQTT subscriber
// (p50/p99 latency, one at a time, and the sustained rate), beside mosquitto's
// own publish-to-subscribe latency on the same broker (the anchor), and the
// time velto-mqtt takes to discover 1,000 devices.
//
//   bridge-bench --hub-bin PATH --bridge-bin PATH --examples DIR [--samples N]
//                [--devices N] [--rate-ms MS]
//
// Starts mosquitto, velto-hub and velto-mqtt itself in a fresh directory under
// /tmp; run it inside a private network namespace (./bench.sh does).
// Single-threaded; every wait is bounded. Prints one RESULT line per figure.
#include <mosquitto.h>

#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bench/common/bench_clock.h"
#include "bench/common/cli_args.h"
#include "bench/common/latency_stats.h"
#include "bench/driver/processes.h"
#include "bench/load/scale_fleet.h"
#include "Device/DeviceSession.h"

namespace {

using namespace bench;

// One MQTT client in this process, counting what arrives on its subscription.
struct Listener {
    struct mosquitto* m = nullptr;
    uint64_t received = 0;
    uint64_t lastNs = 0;
    std::string matchText;    // count only payloads holding this ("" = all)
    std::string topicPrefix;  // and only topics starting with this

    bool open(int port, const std::string& id, const std::string& filter) {
        m = mosquitto_new(id.c_str(), true, this);
        mosquitto_message_callback_set(m, [](struct mosquitto*, void* self, const struct mosquitto_message* msg) {
            Listener& l = *static_cast<Listener*>(self);
            std::string p(static_cast<const char*>(msg->payload), static_cast<size_t>(msg->payloadlen));
            if (!l.matchText.empty() && p.find(l.matchText) == std::string::npos) return;
            if (std::string(msg->topic).compare(0, l.topicPrefix.size(), l.topicPrefix) != 0) return;
            ++l.received;
            l.lastNs = nowNs();
        });
        if (mosquitto_connect(m, "127.0.0.1", port, 30) != MOSQ_ERR_SUCCESS) return false;
        if (!filter.empty()) mosquitto_subscribe(m, nullptr, filter.c_str(), 0);
        for (int i = 0; i < 20; ++i) mosquitto_loop(m, 10, 1);
        return true;
    }
    void pump(int ms) { mosquitto_loop(m, ms, 1); }
    ~Listener() {
        if (m) mosquitto_destroy(m);
    }
};

void pauseMs(int ms) { usleep(static_cast<useconds_t>(ms) * 1000); }

void result(const std::string& name, const std::string& value) {
    std::printf("RESULT %s %s\n", name.c_str(), value.c_str());
}

void latencyResult(const std::string& name, std::vector<uint64_t> ns) {
    char buf[128];
    std::snprintf(buf, sizeof(buf), "p50_us=%.1f p99_us=%.1f samples=%zu", percentile(ns, 0.5) / 1e3,
                  percentile(ns, 0.99) / 1e3, ns.size());
    result(name, buf);
}

// mosquitto alone: publish, wait for the subscriber, n times.
std::vector<uint64_t> anchor(int port, int n) {
    Listener sub, pub;
    std::vector<uint64_t> ns;
    if (!sub.open(port, "anchor-sub", "anchor/t") || !pub.open(port, "anchor-pub", "")) return ns;
    for (int i = 0; i < n; ++i) {
        uint64_t before = sub.received, t0 = nowNs();
        mosquitto_publish(pub.m, nullptr, "anchor/t", 8, "12345678", 0, false);
        pub.pump(0);
        for (int k = 0; k < 1000 && sub.received == before; ++k) sub.pump(1);
        if (sub.received != before) ns.push_back(sub.lastNs - t0);
    }
    return ns;
}

// The lamp's notification to a subscriber of its state topic, n times.
std::vector<uint64_t> bridgeLatency(device::DeviceSession& lamp, Listener& sub, int n) {
    std::vector<uint64_t> ns;
    for (int i = 0; i < n; ++i) {
        uint64_t before = sub.received, t0 = nowNs();
        if (lamp.notify(0, 1, {1, static_cast<uint8_t>(i)}) < 0) lamp.poll(5);
        for (int k = 0; k < 2000 && sub.received == before; ++k) {
            lamp.poll(0);
            sub.pump(1);
        }
        if (sub.received != before) ns.push_back(sub.lastNs - t0);
    }
    return ns;
}

// Notifications as fast as the lamp's queue takes them for ms; arrivals per second.
double sustainedRate(device::DeviceSession& lamp, Listener& sub, int ms) {
    uint64_t start = nowNs(), end = start + msToNs(static_cast<uint64_t>(ms)), before = sub.received;
    uint8_t i = 0;
    while (nowNs() < end) {
        while (lamp.notify(0, 1, {0, i++}) >= 0) {
        }
        lamp.poll(0);
        sub.pump(0);
    }
    for (int k = 0; k < 200; ++k) {  // what is in flight still counts, bounded
        lamp.poll(0);
        sub.pump(1);
    }
    return static_cast<double>(sub.received - before) / (static_cast<double>(sub.lastNs - start) / 1e9);
}

}  // namespace

int main(int argc, char** argv) {
    CliArgs args(argc, argv);
    std::string hubBin = args.text("hub-bin", ""), bridgeBin = args.text("bridge-bin", "");
    std::string examples = args.text("examples", "");
    int samples = static_cast<int>(args.number("samples", 2000));
    int fleetSize = static_cast<int>(args.number("devices", 1000));
    int rateMs = static_cast<int>(args.number("rate-ms", 3000));
    std::string dir = "/tmp/bridge-bench-" + std::to_string(nowNs());
    makeDirs(dir + "/DB");
    writeFile(dir + "/DB/specs.idx", "la\t000000001\n");
    writeFile(dir + "/DB/interfaces.idx", "ex/Switchable.1\t000000001\n");
    writeFile(dir + "/DB/000000001.spec", readFile(examples + "/lamp.spec.xml"));
    writeFile(dir + "/DB/000000001.intf", readFile(examples + "/switchable.intf.xml"));
    mosquitto_lib_init();

    uint16_t port = freeTcpPort();
    int broker = startChild({{"/usr/sbin/mosquitto", "-p", std::to_string(port)}, dir, "", dir + "/mosquitto.err"});
    int hub = startChild({{hubBin}, dir, dir + "/hub.out", dir + "/hub.err"});
    // The hub's output goes to a file, block-buffered: give it a moment to bind.
    bool started = waitForTcpPort(port, 5000, broker);
    for (int k = 0; k < 50 && started; ++k) pauseMs(10);
    if (!started || !childRunning(hub)) {
        std::fprintf(stderr, "bridge-bench: broker or hub did not start\n");
        return 1;
    }
    latencyResult("mosquitto_pub_to_sub", anchor(port, samples));

    device::DeviceConfig c;
    c.duid = "lamp-b", c.specs = "la", c.discover = false;
    c.hub = SockAddress("127.0.0.1", device::HUB_PORT);
    c.objects = {device::DeviceObject{"light", "switchable", 0, 0}};
    device::DeviceSession lamp(c);
    std::vector<std::string> bridgeArgs = {
        bridgeBin,   "--hub", "127.0.0.1", "--broker", "127.0.0.1:" + std::to_string(port),
        "--poll-ms", "1000",  "--store",   "DB"};
    int bridge = startChild({bridgeArgs, dir, dir + "/bridge.out", dir + "/bridge.err"});
    Listener online, state;
    online.matchText = "online";
    bool ok = lamp.join(5000) && online.open(port, "bench-avail", "velto/lamp-b/availability") &&
              state.open(port, "bench-state", "velto/lamp-b/light/state");
    for (int k = 0; ok && k < 3000 && online.received == 0; ++k) {
        lamp.poll(1);
        online.pump(1);
    }
    if (!ok || online.received == 0) {
        std::fprintf(stderr, "bridge-bench: the bridge did not bring the lamp online\n");
        return 1;
    }
    latencyResult("bridge_notification_to_subscriber", bridgeLatency(lamp, state, samples));
    char buf[64];
    std::snprintf(buf, sizeof(buf), "per_s=%.0f", sustainedRate(lamp, state, rateMs));
    result("bridge_sustained_notifications", buf);
    stopChild(bridge, 3000);

    // Discovery: a fresh bridge facing a home of fleetSize devices.
    ScaleFleet fleet(device::HUB_PORT, "bb");
    std::string why;
    if (!fleet.growTo(fleetSize, 64, 120000, why)) {
        std::fprintf(stderr, "bridge-bench: fleet: %s\n", why.c_str());
        return 1;
    }
    Listener all;
    all.matchText = "online";
    all.topicPrefix = "velto/bb";
    all.open(port, "bench-all", "velto/+/availability");
    uint64_t t0 = nowNs();
    bridgeArgs[bridgeArgs.size() - 3] = "5000";
    int second = startChild({bridgeArgs, dir, dir + "/bridge2.out", dir + "/bridge2.err"});
    while (all.received < static_cast<uint64_t>(fleetSize) && nowNs() < t0 + msToNs(60000)) {
        fleet.serve(5);
        all.pump(0);
    }
    std::snprintf(buf, sizeof(buf), "devices=%llu ms=%.0f", static_cast<unsigned long long>(all.received),
                  static_cast<double>(all.lastNs - t0) / 1e6);
    result("bridge_discovery", buf);
    stopChild(second, 3000);
    stopChild(hub, 3000);
    stopChild(broker, 3000);
    removeTree(dir);
    mosquitto_lib_cleanup();
    return 0;
}
