// Scale, start-up and HMAC measurements.
#include "bench/driver/scale_runs.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <filesystem>

#include "bench/common/bench_clock.h"
#include "bench/common/latency_stats.h"
#include "bench/common/proc_probe.h"
#include "bench/common/result_line.h"
#include "bench/common/loopback_io.h"
#include "Device/PackKit.h"
#include "bench/driver/processes.h"
#include "bench/driver/servers.h"

namespace bench {

namespace {

size_t countRecordFiles(const std::string& dir) {
    std::error_code ec;
    size_t n = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir, ec))
        if (e.path().extension() == ".dev") ++n;
    return n;
}

std::string joinNumbers(const std::vector<int>& v) {
    std::string s;
    for (int n : v) s += (s.empty() ? "" : ",") + std::to_string(n);
    return s;
}

void readScaleLines(const std::string& out, ScaleData& data) {
    for (const ResultFields& f : parseResults(out, "SCALE")) {
        ScaleStep st;
        st.devices = static_cast<int>(fieldNumber(f, "n", 0));
        st.alive = static_cast<int>(fieldNumber(f, "alive", 0));
        st.rssKb = static_cast<long>(fieldNumber(f, "rss_kb", -1));
        st.joinSecs = fieldNumber(f, "join_secs", 0);
        st.failed = static_cast<int>(fieldNumber(f, "failed", 0));
        data.baselineKb = static_cast<long>(fieldNumber(f, "baseline_kb", -1));
        data.steps.push_back(st);
    }
    for (const ResultFields& f : parseResults(out, "STALL")) {
        data.stallRan = true;
        data.stallDevices = static_cast<int>(fieldNumber(f, "n", 0));
        data.stallSecs = fieldNumber(f, "secs", 0);
        data.stallMaxMs = fieldNumber(f, "max_ms", NAN);
        data.stallP50Us = fieldNumber(f, "p50_us", NAN);
        data.stallP99Us = fieldNumber(f, "p99_us", NAN);
        data.stallPings = static_cast<long>(fieldNumber(f, "pings", 0));
        data.stallLost = static_cast<long>(fieldNumber(f, "lost", 0));
        data.stallWorstAtMs = static_cast<long>(fieldNumber(f, "worst_at_ms", 0));
        data.hubPingsAnswered = static_cast<long>(fieldNumber(f, "hub_pings_answered", 0));
        auto slow = f.find("slow_at_ms");
        if (slow != f.end() && slow->second != "-") data.stallSlowAtMs = slow->second;
    }
}

// Starts the hub in dir and times it until it answers an announcement: a new
// device's NewBornDevicePack sent every 2 ms until an AdoptionOfferPack comes
// back. Returns milliseconds from the start of the process, or NaN.
double timeStartup(const BenchConfig& cfg, const std::string& dir, std::string& why) {
    int fd = openLoopbackSocket(0);
    if (fd < 0) return why = "no probe socket", NAN;
    NewBornDevicePack p = packkit::newBorn("bench-startup-probe", "bn");
    uint8_t announce[MAX_PACKET_SIZE];
    int len = packkit::encodeInto(p, 0, 1, announce, sizeof(announce));
    sockaddr_in hub = loopbackAddress(HUB_PORT);

    uint64_t t0 = nowNs();
    int pid = startChild({{cfg.bin("velto-hub")}, dir, dir + "/startup.out", dir + "/startup.err"});
    double ms = NAN;
    uint64_t deadline = t0 + msToNs(60000);
    uint64_t nextSend = 0;
    while (pid > 0 && nowNs() < deadline && std::isnan(ms)) {
        uint64_t now = nowNs();
        if (now >= nextSend) {
            sendDatagram(fd, hub, announce, static_cast<size_t>(len));
            nextSend = now + msToNs(2);
            if (!childRunning(pid)) break;
        }
        uint8_t buf[MAX_PACKET_SIZE];
        sockaddr_in from;
        int n = receiveNow(fd, buf, sizeof(buf), from);
        if (n > 0 && packIdOf(buf, n) == AdoptionOfferPack::PACK_ID) ms = static_cast<double>(nowNs() - t0) / 1e6;
        if (n <= 0) usleep(100);
    }
    if (std::isnan(ms)) why = "the hub did not answer: " + tailLine(readFile(dir + "/startup.err"), 200);
    stopChild(pid, 1000);
    ::close(fd);
    return ms;
}

double medianStartup(const BenchConfig& cfg, const std::string& dir, ScaleData& data) {
    std::vector<double> runs;
    for (int i = 0; i < cfg.startupRepeats; ++i) {
        std::string why;
        double ms = timeStartup(cfg, dir, why);
        if (std::isnan(ms)) data.problems.push_back("start-up in " + dir + ": " + why);
        runs.push_back(ms);
    }
    return median(runs);
}

double opensslOpsPerSecond(const BenchConfig& cfg, const std::string& alg, std::string& why) {
    const char* candidates[] = {"/usr/bin/openssl", "/usr/local/bin/openssl"};
    std::string openssl;
    for (const char* c : candidates)
        if (::access(c, X_OK) == 0) openssl = c;
    if (openssl.empty()) return why = "openssl not found", NAN;
    std::string out = cfg.workDir + "/openssl-" + alg + ".out";
    std::string err = cfg.workDir + "/openssl-" + alg + ".err";
    int status = runChild({{openssl, "speed", "-hmac", alg, "-bytes", "400", "-seconds",
                            std::to_string(cfg.opensslSeconds), "-mr"},
                           cfg.workDir, out, err},
                          (cfg.opensslSeconds + 20) * 1000);
    if (status != 0) return why = "openssl speed exit " + std::to_string(status), NAN;
    // Machine-readable count (on standard error): +R:<count>:<name>:<user CPU seconds>
    std::string text = readFile(err) + readFile(out);
    size_t at = text.find("+R:");
    if (at == std::string::npos) return why = "no +R line from openssl speed", NAN;
    unsigned long long count = 0;
    double secs = 0;
    char name[64] = {0};
    if (std::sscanf(text.c_str() + at, "+R:%llu:%63[^:]:%lf", &count, name, &secs) != 3 || secs <= 0)
        return why = "unreadable +R line from openssl speed", NAN;
    return static_cast<double>(count) / secs;
}

}  // namespace

void runScale(const BenchConfig& cfg, ScaleData& data) {
    data.ran = true;
    std::string dir = cfg.workDir + "/scale";
    std::string why;
    Server hub = startHub(cfg, dir, why);
    if (hub.pid < 0) return data.problems.push_back("scale: " + why);
    sleepMs(300);  // idle baseline: the loop has settled
    int64_t drops0 = udpReceiveBufferDrops();
    std::string out = dir + "/scale.out", err = dir + "/scale.err";
    int most = 0;
    for (int c : cfg.scaleCounts) most = std::max(most, c);
    int timeoutMs = 120000 + most * 40 + cfg.probeMs;
    int status = runChild({{cfg.bin("velto-load"), "scale", "--port", std::to_string(HUB_PORT), "--server-pid",
                            std::to_string(hub.pid), "--counts", joinNumbers(cfg.scaleCounts), "--probe-ms",
                            std::to_string(cfg.probeMs)},
                           dir, out, err},
                          timeoutMs);
    bool alive = childRunning(hub.pid);
    stopChild(hub.pid, 2000);
    int64_t drops1 = udpReceiveBufferDrops();
    if (drops0 >= 0 && drops1 >= drops0) data.udpDrops = static_cast<long>(drops1 - drops0);
    if (status != 0) data.problems.push_back("scale: generator exit " + std::to_string(status) + ": " +
                                             tailLine(readFile(err), 300));
    if (!alive) data.problems.push_back("scale: the hub exited during the run");
    readScaleLines(readFile(out), data);
    data.removals = countLines(readFile(hub.out), "Will destroy proxy for Device");
    data.recordFiles = countRecordFiles(dir + "/DB");
}

void runStartup(const BenchConfig& cfg, ScaleData& data) {
    std::string empty = cfg.workDir + "/startup-empty";
    if (!makeDirs(empty + "/DB")) return data.problems.push_back("start-up: cannot create " + empty);
    data.startupEmptyMs = medianStartup(cfg, empty, data);
    std::string full = cfg.workDir + "/scale";
    if (countRecordFiles(full + "/DB") == 0) return data.problems.push_back("start-up: no record files to load");
    data.startupFullMs = medianStartup(cfg, full, data);
}

void runHmac(const BenchConfig& cfg, HmacData& data) {
    std::string out = cfg.workDir + "/hmac.out";
    int status = runChild({{cfg.bin("hmac-bench"), "--ms", std::to_string(cfg.hmacMs)}, cfg.workDir, out,
                           cfg.workDir + "/hmac.err"},
                          cfg.hmacMs * 4 + 20000);
    if (status != 0) data.problems.push_back("hmac-bench exit " + std::to_string(status));
    for (const ResultFields& f : parseResults(readFile(out), "HMAC")) {
        auto alg = f.find("alg");
        if (alg == f.end()) continue;
        double ops = fieldNumber(f, "ops_per_s", NAN);
        if (alg->second == "sha1") data.oursSha1 = ops;
        if (alg->second == "sha256") data.oursSha256 = ops;
    }
    std::string why;
    data.opensslSha1 = opensslOpsPerSecond(cfg, "sha1", why);
    if (!why.empty()) data.problems.push_back("openssl sha1: " + why);
    why.clear();
    data.opensslSha256 = opensslOpsPerSecond(cfg, "sha256", why);
    if (!why.empty()) data.problems.push_back("openssl sha256: " + why);
}

}  // namespace bench
