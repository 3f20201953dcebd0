// velto-transfer: the transfer figures. Starts the hub (and, for the lossy
// link, one velto-link per device) in a fresh directory and times (1) a 64 KiB
// and a 1 MiB direct message between two devices of the device library, over
// a clean link and over links that drop 2 %, duplicate 1 % and hold back 1 %
// of the datagrams both ways; (2) the hub's device list as a device sees it
// with 1,000 / 5,000 / 10,000 devices connected (the scale fleet). Prints one
// RESULT line per figure. Run inside a private network
// namespace; every wait is bounded.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "Device/CliOptions.h"
#include "Device/DeviceSession.h"
#include "bench/common/bench_clock.h"
#include "bench/common/cli_args.h"
#include "bench/common/result_line.h"
#include "bench/common/loopback_io.h"
#include "bench/driver/processes.h"
#include "bench/load/scale_fleet.h"

using namespace device;

namespace {

const char* FAULTS[] = {"--drop", "0.02", "--duplicate", "0.01", "--reorder", "0.01"};
constexpr int MESSAGE_TIMEOUT_MS = 60000;
constexpr int LIST_TIMEOUT_MS = 30000;

double msSince(uint64_t t0) { return static_cast<double>(bench::nowNs() - t0) / 1e6; }

struct Hub {
    int pid = -1;
    std::vector<int> links;
    ~Hub() {
        for (int l : links) bench::stopChild(l, 1000);
        if (pid > 0) bench::stopChild(pid, 2000);
    }
};

bool startHub(const std::string& bin, const std::string& dir, Hub& hub) {
    bench::removeTree(dir);
    if (!bench::makeDirs(dir + "/DB")) return false;
    hub.pid = bench::startChild({{bin + "/velto-hub"}, dir, "", dir + "/hub.err"});
    usleep(300000);  // binding takes a moment
    return hub.pid > 0 && bench::childRunning(hub.pid);
}

// A link on port for one device; "" when it did not start.
std::string startLink(const std::string& bin, const std::string& dir, int port, Hub& hub) {
    std::vector<std::string> argv = {bin + "/velto-link", "--listen", std::to_string(port), "--seed",
                                     std::to_string(port)};
    argv.insert(argv.end(), std::begin(FAULTS), std::end(FAULTS));
    const std::string out = dir + "/link-" + std::to_string(port) + ".out";
    hub.links.push_back(bench::startChild({argv, dir, out, ""}));
    if (!bench::waitForText(out, "relaying", 5000, hub.links.back())) return "";
    return "127.0.0.1:" + std::to_string(port);
}

DeviceConfig deviceConfig(const std::string& duid, const std::string& hubAddr) {
    DeviceConfig c;
    c.duid = duid;
    c.specs = "ab";
    c.discover = false;
    parseHubAddress(hubAddr, c.hub);
    c.objects.push_back(DeviceObject());
    c.objects.back().name = "main";
    return c;
}

// Polls the session on a thread of its own until stop is set.
std::thread pumpAlone(DeviceSession& s, std::atomic<bool>& stop) {
    return std::thread([&s, &stop] {
        while (!stop && s.poll(5) >= 0) {
        }
    });
}

// Sends msg from a to b, each session on its own thread. Returns the time until
// b had it (intact set when it arrived unchanged), or a negative value.
double timeOneMessage(DeviceSession& a, DeviceSession& b, const std::vector<uint8_t>& msg, bool& intact) {
    std::atomic<bool> arrived{false}, stopB{false};
    std::vector<uint8_t> got;
    b.onMessage([&](const IncomingMessage& m) {
        got = m.data;
        arrived = true;
    });
    std::thread tb = pumpAlone(b, stopB);
    const uint64_t t0 = bench::nowNs();
    bool sent = a.sendDirect(b.nodeId(), 0, 5, msg) > 0;
    while (sent && !arrived && msSince(t0) < MESSAGE_TIMEOUT_MS)
        if (a.poll(5) < 0) break;
    const double ms = msSince(t0);
    a.flush(2000);  // the final acknowledgement
    stopB = true;
    tb.join();
    intact = arrived && got == msg;
    return arrived ? ms : -1;
}

void messageFigures(const std::string& bin, const std::string& work, bool lossy) {
    const std::string dir = work + (lossy ? "/transfer-lossy" : "/transfer-clean");
    Hub hub;
    if (!startHub(bin, dir, hub)) return (void)std::printf("TRANSFER error=hub\n");
    std::string addr[2] = {"127.0.0.1", "127.0.0.1"};
    for (int i = 0; lossy && i < 2; ++i) addr[i] = startLink(bin, dir, 19301 + i, hub);
    DeviceSession a(deviceConfig("xfer-a", addr[0])), b(deviceConfig("xfer-b", addr[1]));
    if (!a.join(10000) || !b.join(10000))
        return (void)std::printf("TRANSFER error=join %s%s\n", a.lastError().c_str(), b.lastError().c_str());
    for (uint32_t size : {65536u, 1048576u}) {
        std::vector<uint8_t> msg(size);
        for (uint32_t i = 0; i < size; ++i) msg[i] = static_cast<uint8_t>(i * 7 + (i >> 11));
        bool intact = false;
        const double ms = timeOneMessage(a, b, msg, intact);
        std::printf("%s\n", bench::formatResult("TRANSFER", {{"link", lossy ? "lossy" : "clean"},
                                                             {"bytes", std::to_string(size)},
                                                             {"intact", intact ? "yes" : "no"},
                                                             {"ms", bench::fixed(ms, 1)}})
                                .c_str());
        std::fflush(stdout);
    }
}

void listFigures(const std::string& bin, const std::string& work, const std::vector<int>& counts) {
    int most = 0;
    for (int c : counts) most = std::max(most, c);
    bench::raiseDescriptorLimit(most + 256);
    const std::string dir = work + "/device-list";
    Hub hub;
    if (!startHub(bin, dir, hub)) return (void)std::printf("DEVLIST error=hub\n");
    bench::ScaleFleet fleet(1881, "bench-list-");
    DeviceSession s(deviceConfig("list-asker", "127.0.0.1"));
    int diagnostics = 0;
    s.onDiagnostic([&](const std::string&) { ++diagnostics; });
    for (int c : counts) {
        std::string why;
        if (!fleet.growTo(c, 32, 300000, why)) return (void)std::printf("DEVLIST n=%d error=fleet\n", c);
        fleet.serve(500);
        if (!s.join(10000)) return (void)std::printf("DEVLIST n=%d error=join\n", c);
        diagnostics = 0;
        BasicDeviceListMsg list;
        const uint64_t t0 = bench::nowNs();
        const bool ok = s.requestDeviceList(list, LIST_TIMEOUT_MS);
        const double ms = msSince(t0);
        std::printf("%s\n", bench::formatResult("DEVLIST", {{"n", std::to_string(fleet.connected())},
                                                            {"listed", ok ? std::to_string(list.devList.size()) : "0"},
                                                            {"ms", bench::fixed(ms, 1)},
                                                            {"diagnostics", std::to_string(diagnostics)}})
                                .c_str());
        std::fflush(stdout);
    }
}

}  // namespace

int main(int argc, char** argv) {
    bench::CliArgs args(argc, argv);
    const std::string bin = args.text("bin-dir", ".");
    const std::string work = args.text("work", "/tmp/velto-transfer");
    for (bool lossy : {false, true}) messageFigures(bin, work, lossy);
    listFigures(bin, work, args.numberList("counts", {1000, 5000, 10000}));
    return 0;
}
