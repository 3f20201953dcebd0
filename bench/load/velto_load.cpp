// The Velto load generator: one process, many devices, each with its own UDP
// socket on 127.0.0.1.
//
//   velto-load pairs --target hub|relay --port N [--pairs 32] [--plist 1,8,32]
//                    [--warmup-ms 300] [--measure-ms 3000] [--size 64] [--server-pid PID]
//     Closed-loop pair traffic (see pair_traffic.h). With --target hub the
//     devices first join the hub through the device library; with --target
//     relay they only register with a ping. One RESULT line per pair count.
//
//   velto-load scale --port N --server-pid PID [--counts 1000,10000] [--window 16]
//                    [--settle-ms 1500] [--probe-ms 16000] [--join-timeout-ms 180000]
//     Connects devices to the hub in steps; after each step counts the devices
//     the hub still answers (a ping from each) and reads the hub's resident
//     memory (SCALE lines). Then times the hub's answers to back-to-back pings
//     from one device while all stay connected (one STALL line; slow_at_ms
//     lists when round trips of 50 ms or more ended).
//
//   velto-load hung --port N [--probe-ms 10000]
//     One device pings the hub back to back while another device's document
//     download hangs (see hung_download.h). One HUNG line.
//
// Exit status 0 when everything ran, 1 otherwise (with a line on standard error).
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench/common/bench_clock.h"
#include "bench/common/cli_args.h"
#include "bench/common/latency_stats.h"
#include "bench/common/proc_probe.h"
#include "bench/common/result_line.h"
#include "bench/common/loopback_io.h"
#include "Device/PackKit.h"
#include "bench/load/hub_join.h"
#include "bench/load/hung_download.h"
#include "bench/load/pair_traffic.h"
#include "bench/load/scale_fleet.h"

namespace {

using bench::fixed;

// Progress on standard error, stamped with seconds since the process started.
void progress(const std::string& what) {
    static const uint64_t start = bench::nowNs();
    std::fprintf(stderr, "velto-load: %.3f s: %s\n", static_cast<double>(bench::nowNs() - start) / 1e9, what.c_str());
}

int failWith(const std::string& why) {
    std::fprintf(stderr, "velto-load: %s\n", why.c_str());
    return 1;
}

// Opens `count` relay-side devices and registers each with a ping. Returns false
// when a socket cannot be opened or the relay does not answer within 3 s.
bool registerWithRelay(int count, uint16_t port, std::vector<int>& fds, std::vector<bench::TrafficNode>& nodes) {
    sockaddr_in relay = bench::loopbackAddress(port);
    for (int i = 0; i < count; ++i) {
        int fd = bench::openLoopbackSocket(0);
        if (fd < 0) return false;
        fds.push_back(fd);
        nodes.push_back({fd, static_cast<DeviceID>(1000 + i)});
    }
    std::vector<bool> answered(nodes.size(), false);
    uint64_t deadline = bench::nowNs() + bench::msToNs(3000);
    size_t left = nodes.size();
    while (left > 0 && bench::nowNs() < deadline) {
        uint8_t buf[MAX_PACKET_SIZE];
        for (size_t i = 0; i < nodes.size(); ++i) {
            if (answered[i]) continue;
            PingPongPack ping = packkit::ping(PingPongPack::PING, i + 1);
            int n = packkit::encodeInto(ping, nodes[i].id, 1, buf, sizeof(buf));
            if (n > 0) bench::sendDatagram(nodes[i].fd, relay, buf, static_cast<size_t>(n));
        }
        uint64_t waitUntil = bench::nowNs() + bench::msToNs(100);
        while (left > 0 && bench::nowNs() < waitUntil) {
            for (size_t i = 0; i < nodes.size(); ++i) {
                sockaddr_in from;
                int n = bench::receiveNow(nodes[i].fd, buf, sizeof(buf), from);
                if (n > 0 && bench::packIdOf(buf, n) == PingPongPack::PACK_ID && !answered[i]) {
                    answered[i] = true;
                    --left;
                }
            }
        }
    }
    return left == 0;
}

std::string resultLine(int p, const bench::PhaseResult& r) {
    double rate = r.seconds > 0 ? static_cast<double>(r.messages) / r.seconds : 0;
    return bench::formatResult(
        "RESULT", {{"p", std::to_string(p)},
                   {"msgs", std::to_string(r.messages)},
                   {"secs", fixed(r.seconds, 3)},
                   {"rate", fixed(rate, 1)},
                   {"p50_us", fixed(static_cast<double>(r.p50Ns) / 1e3, 1)},
                   {"p99_us", fixed(static_cast<double>(r.p99Ns) / 1e3, 1)},
                   {"server_cpu_ms", r.serverCpuNs >= 0 ? fixed(static_cast<double>(r.serverCpuNs) / 1e6, 2) : "nan"},
                   {"gen_cpu_ms", fixed(static_cast<double>(r.generatorCpuNs) / 1e6, 2)},
                   {"timeouts", std::to_string(r.timeouts)},
                   {"errors", std::to_string(r.errors)}});
}

int runPairs(const bench::CliArgs& args) {
    std::string target = args.text("target", "hub");
    uint16_t port = static_cast<uint16_t>(args.number("port", target == "hub" ? 1881 : 1882));
    int pairs = static_cast<int>(args.number("pairs", 32));
    if (pairs < 1 || pairs > 1000) return failWith("--pairs must be 1 to 1000");
    std::vector<int> plist = args.numberList("plist", {1, 8, 32});
    bench::PhaseConfig cfg;
    cfg.warmupMs = static_cast<uint64_t>(args.number("warmup-ms", 300));
    cfg.measureMs = static_cast<uint64_t>(args.number("measure-ms", 3000));
    cfg.serverPid = static_cast<int>(args.number("server-pid", 0));
    cfg.messageSize = static_cast<uint32_t>(args.number("size", 64));
    if (cfg.messageSize == 0 || cfg.messageSize > 326) return failWith("--size must be 1 to 326 (one piece)");

    std::vector<std::unique_ptr<device::DeviceSession>> sessions;
    std::vector<int> ownFds;
    std::vector<bench::TrafficNode> nodes;
    uint64_t t0 = bench::nowNs();
    if (target == "hub") {
        std::string why;
        if (!bench::joinWithLibrary(2 * pairs, "bench-dev-", port, sessions, why)) return failWith("join: " + why);
        for (auto& s : sessions) nodes.push_back({s->handle(), s->nodeId()});
    } else if (target == "relay") {
        if (!registerWithRelay(2 * pairs, port, ownFds, nodes)) return failWith("the relay did not answer");
    } else {
        return failWith("--target must be hub or relay");
    }
    std::printf("JOINED n=%zu secs=%s\n", nodes.size(), fixed(static_cast<double>(bench::nowNs() - t0) / 1e9, 3).c_str());

    bench::PairTraffic traffic(nodes, bench::loopbackAddress(port));
    if (!traffic.ok()) return failWith("epoll set-up failed");
    int status = 0;
    for (int p : plist) {
        if (p > pairs) continue;
        cfg.pairs = p;
        bench::PhaseResult r;
        if (!traffic.runPhase(cfg, r)) status = failWith("phase p=" + std::to_string(p) + " failed");
        std::printf("%s\n", resultLine(p, r).c_str());
        std::fflush(stdout);
    }
    return status;
}

int runScale(const bench::CliArgs& args) {
    uint16_t port = static_cast<uint16_t>(args.number("port", 1881));
    int pid = static_cast<int>(args.number("server-pid", 0));
    std::vector<int> counts = args.numberList("counts", {1000, 10000});
    int window = static_cast<int>(args.number("window", 16));
    uint64_t settleMs = static_cast<uint64_t>(args.number("settle-ms", 1500));
    uint64_t probeMs = static_cast<uint64_t>(args.number("probe-ms", 16000));
    uint64_t joinTimeoutMs = static_cast<uint64_t>(args.number("join-timeout-ms", 180000));
    if (pid <= 0) return failWith("--server-pid is required");
    int most = 0;
    for (int c : counts) most = std::max(most, c);
    long limit = bench::raiseDescriptorLimit(most + 256);
    if (limit < most + 64) return failWith("descriptor limit " + std::to_string(limit) + " is too low");

    progress("scale start");
    int64_t baseline = bench::processRssKb(pid);
    bench::ScaleFleet fleet(port, "bench-scale-");
    for (int c : counts) {
        uint64_t t0 = bench::nowNs();
        std::string why;
        if (!fleet.growTo(c, window, joinTimeoutMs, why)) return failWith("joining " + std::to_string(c) + ": " + why);
        double joinSecs = static_cast<double>(bench::nowNs() - t0) / 1e9;
        progress("joined " + std::to_string(fleet.connected()));
        fleet.serve(settleMs);
        int alive = fleet.rollCall(30000);
        progress("roll call: " + std::to_string(alive) + " answered");
        fleet.serve(500);
        int64_t rss = bench::processRssKb(pid);
        std::printf("%s\n", bench::formatResult("SCALE", {{"n", std::to_string(fleet.connected())},
                                                          {"alive", std::to_string(alive)},
                                                          {"rss_kb", std::to_string(rss)},
                                                          {"baseline_kb", std::to_string(baseline)},
                                                          {"join_secs", fixed(joinSecs, 3)},
                                                          {"retries", std::to_string(fleet.stats().retries)},
                                                          {"failed", std::to_string(fleet.stats().failed)}})
                                .c_str());
        std::fflush(stdout);
    }
    if (probeMs == 0) return 0;
    bench::ProbeResult pr;
    progress("probe start");
    if (!fleet.probe(probeMs, pr)) return failWith("no device to probe with");
    progress("probe end");
    uint64_t maxNs = 0;
    for (uint64_t v : pr.rttNs) maxNs = std::max(maxNs, v);
    std::vector<uint64_t> rtt = pr.rttNs;
    std::string slowList;
    for (uint64_t t : pr.slowAtMs) slowList += (slowList.empty() ? "" : ",") + std::to_string(t);
    std::printf("%s\n",
                bench::formatResult("STALL", {{"n", std::to_string(fleet.connected())},
                                              {"secs", fixed(static_cast<double>(probeMs) / 1e3, 1)},
                                              {"pings", std::to_string(pr.rttNs.size())},
                                              {"lost", std::to_string(pr.lost)},
                                              {"stray", std::to_string(pr.stray)},
                                              {"p50_us", fixed(static_cast<double>(bench::percentile(rtt, 0.5)) / 1e3, 1)},
                                              {"p99_us", fixed(static_cast<double>(bench::percentile(rtt, 0.99)) / 1e3, 1)},
                                              {"max_ms", fixed(static_cast<double>(maxNs) / 1e6, 2)},
                                              {"worst_at_ms", std::to_string(pr.worstAtMs)},
                                              {"slow_at_ms", slowList.empty() ? "-" : slowList},
                                              {"hub_pings_answered", std::to_string(fleet.stats().pingsAnswered)}})
                    .c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    bench::CliArgs args(argc, argv);
    if (args.command() == "pairs") return runPairs(args);
    if (args.command() == "scale") return runScale(args);
    if (args.command() == "hung") return bench::runHungDownload(args);
    return failWith("usage: velto-load pairs|scale|hung [options] (see the header of velto_load.cpp)");
}
