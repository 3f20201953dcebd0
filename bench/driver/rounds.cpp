// Throughput rounds: start a server, drive it, stop it, keep the figures.
#include "bench/driver/rounds.h"

#include <cstdio>

#include "bench/common/proc_probe.h"
#include "bench/common/result_line.h"
#include "bench/driver/processes.h"
#include "bench/driver/servers.h"

namespace bench {

const std::vector<std::string> SYSTEMS{"hub", "ceiling", "mqtt0", "mqtt1"};

std::string systemLabel(const std::string& key) {
    if (key == "hub") return "velto-hub";
    if (key == "ceiling") return "ceiling relay";
    if (key == "mqtt0") return "mosquitto QoS 0";
    if (key == "mqtt1") return "mosquitto QoS 1";
    return key;
}

namespace {

std::vector<std::string> generatorArgs(const BenchConfig& cfg, const std::string& system, const Server& s) {
    std::string plist;
    for (int p : cfg.plist) plist += (plist.empty() ? "" : ",") + std::to_string(p);
    std::vector<std::string> common{"--port",      std::to_string(s.port),        "--pairs",
                                    std::to_string(cfg.maxPairs()), "--plist", plist,
                                    "--warmup-ms", std::to_string(cfg.warmupMs),  "--measure-ms",
                                    std::to_string(cfg.measureMs), "--server-pid", std::to_string(s.pid),
                                    "--size",      "64"};
    std::vector<std::string> argv;
    if (system == "hub" || system == "ceiling")
        argv = {cfg.bin("velto-load"), "pairs", "--target", system == "hub" ? "hub" : "relay"};
    else
        argv = {cfg.bin("mqtt-load"), "--qos", system == "mqtt0" ? "0" : "1"};
    argv.insert(argv.end(), common.begin(), common.end());
    return argv;
}

Measurement measurementOf(const ResultFields& f) {
    Measurement m;
    double msgs = fieldNumber(f, "msgs", 0);
    m.valid = msgs > 0;
    m.rate = fieldNumber(f, "rate", 0);
    m.p50Us = fieldNumber(f, "p50_us", 0);
    m.p99Us = fieldNumber(f, "p99_us", 0);
    double cpu = fieldNumber(f, "server_cpu_ms", NAN);
    m.cpuPerMsgUs = msgs > 0 ? cpu * 1000.0 / msgs : NAN;
    m.genCpuPerMsgUs = msgs > 0 ? fieldNumber(f, "gen_cpu_ms", NAN) * 1000.0 / msgs : NAN;
    m.timeouts = fieldNumber(f, "timeouts", 0);
    m.errors = fieldNumber(f, "errors", 0);
    return m;
}

void runOne(const BenchConfig& cfg, const std::string& system, int round, ThroughputData& data) {
    std::string dir = cfg.workDir + "/round" + std::to_string(round + 1) + "-" + system;
    std::string where = systemLabel(system) + " round " + std::to_string(round + 1);
    if (!makeDirs(dir)) return data.problems.push_back(where + ": cannot create " + dir);
    std::string why;
    Server s = system == "hub"       ? startHub(cfg, dir, why)
               : system == "ceiling" ? startRelay(cfg, dir, why)
                                     : startMosquitto(cfg, dir, why);
    if (s.pid < 0) return data.problems.push_back(where + ": " + why);

    int64_t drops0 = udpReceiveBufferDrops();
    std::string genOut = dir + "/generator.out", genErr = dir + "/generator.err";
    int perPhaseMs = cfg.warmupMs + cfg.measureMs + 3000;
    int timeoutMs = 60000 + perPhaseMs * static_cast<int>(cfg.plist.size());
    int status = runChild({generatorArgs(cfg, system, s), dir, genOut, genErr}, timeoutMs);
    bool serverAlive = childRunning(s.pid);
    stopChild(s.pid, 2000);

    if (status != 0)
        data.problems.push_back(where + ": generator exit " + std::to_string(status) + ": " +
                                tailLine(readFile(genErr), 300));
    if (!serverAlive) data.problems.push_back(where + ": the server exited during the run");
    int64_t drops = udpReceiveBufferDrops() - drops0;
    if (drops0 >= 0 && drops > 0)
        data.problems.push_back(where + ": " + std::to_string(drops) + " UDP datagrams dropped for a full receive buffer");
    if (system == "hub") {
        size_t removed = countLines(readFile(s.out), "Will destroy proxy for Device");
        if (removed > 0) data.problems.push_back(where + ": the hub removed " + std::to_string(removed) + " devices");
    }
    for (const ResultFields& f : parseResults(readFile(genOut), "RESULT")) {
        int p = static_cast<int>(fieldNumber(f, "p", 0));
        Measurement m = measurementOf(f);
        data.runs[{system, round, p}] = m;
        if (m.timeouts > 0 || m.errors > 0)
            data.problems.push_back(where + " P=" + std::to_string(p) + ": " + fixed(m.timeouts, 0) + " timeouts, " +
                                    fixed(m.errors, 0) + " errors");
        std::printf("  %-16s round %d  P=%-3d %10.0f msg/s  p50 %8.1f us  p99 %8.1f us  server CPU %6.2f us/msg\n",
                    systemLabel(system).c_str(), round + 1, p, m.rate, m.p50Us, m.p99Us, m.cpuPerMsgUs);
        std::fflush(stdout);
    }
}

}  // namespace

void runThroughputRounds(const BenchConfig& cfg, ThroughputData& data) {
    data.rounds = cfg.rounds;
    data.plist = cfg.plist;
    for (int r = 0; r < cfg.rounds; ++r) {
        for (size_t k = 0; k < SYSTEMS.size(); ++k) {
            const std::string& system = SYSTEMS[(k + static_cast<size_t>(r)) % SYSTEMS.size()];
            runOne(cfg, system, r, data);
        }
    }
}

}  // namespace bench
