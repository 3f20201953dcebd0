// What one benchmark run does (full or quick) and the figures it collects,
// shared by the driver's parts.
#pragma once

#include <cmath>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace bench {

struct BenchConfig {
    std::string binDir;         // velto-hub, velto-load, mqtt-load, ceiling-relay, hmac-bench
    std::string mosquittoPath;  // the broker binary
    std::string workDir;        // temporary working directories of every server
    bool quick = false;
    int rounds = 3;
    std::vector<int> plist{1, 8, 32};
    int warmupMs = 500;
    int measureMs = 4000;
    std::vector<int> scaleCounts{1000, 10000};
    // Stall probe. The hub flushes 15.05 s after the end of its previous flush,
    // so 25 s hold at least one whole flush that lasts up to 5 s.
    int probeMs = 25000;
    int startupRepeats = 3;
    int hmacMs = 1000;
    int opensslSeconds = 2;

    std::string bin(const std::string& name) const { return binDir + "/" + name; }
    int maxPairs() const {
        int m = 1;
        for (int p : plist) m = p > m ? p : m;
        return m;
    }
};

// The systems of the throughput comparison, in report order.
extern const std::vector<std::string> SYSTEMS;      // keys: hub, ceiling, mqtt0, mqtt1
std::string systemLabel(const std::string& key);    // e.g. "mosquitto QoS 1"

// One (system, round, P) measurement as the generator reported it.
struct Measurement {
    bool valid = false;
    double rate = 0;                 // messages per second
    double p50Us = 0, p99Us = 0;     // latency A send -> B receipt
    double cpuPerMsgUs = NAN;        // server CPU time per message
    double genCpuPerMsgUs = NAN;     // generator CPU time per message
    double timeouts = 0, errors = 0;
};

struct ThroughputData {
    int rounds = 0;
    std::vector<int> plist;
    std::map<std::tuple<std::string, int, int>, Measurement> runs;  // (system, round, P)
    std::vector<std::string> problems;
};

struct ScaleStep {
    int devices = 0;  // joined by the generator
    int alive = 0;    // still held by the hub (answered a ping) when memory was read
    long rssKb = -1;
    double joinSecs = 0;
    int failed = 0;
};

struct ScaleData {
    bool ran = false;
    long baselineKb = -1;
    std::vector<ScaleStep> steps;
    bool stallRan = false;
    int stallDevices = 0;
    double stallSecs = 0, stallMaxMs = NAN, stallP50Us = NAN, stallP99Us = NAN;
    long stallPings = 0, stallLost = 0, stallWorstAtMs = 0, hubPingsAnswered = 0;
    std::string stallSlowAtMs;  // when round trips of 50 ms or more ended, ms into the window
    size_t removals = 0;
    long udpDrops = -1;         // datagrams dropped for a full receive buffer during the scale run
    size_t recordFiles = 0;
    double startupEmptyMs = NAN, startupFullMs = NAN;
    std::vector<std::string> problems;
};

struct HmacData {
    double oursSha1 = NAN, oursSha256 = NAN;        // operations per second, 400 bytes each
    double opensslSha1 = NAN, opensslSha256 = NAN;
    std::vector<std::string> problems;
};

}  // namespace bench
