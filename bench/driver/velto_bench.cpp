// The benchmark driver: runs the pair-workload comparison (velto-hub, the
// ceiling relay, mosquitto at QoS 0 and 1), the scale figures and the HMAC
// timing, then prints the tables and writes latest.md, latest.csv and
// latest.png into the results directory.
//
//   velto-bench --bin-dir DIR --out DIR [--quick] [--rounds N] [--keep-work]
//               [--mosquitto PATH]
//
// Must run inside a private network namespace (tests/netns.sh): the hub joins a
// multicast group, and every server and device here talks over 127.0.0.1 only.
// Exit status 0 when every system and figure was measured (problems such as
// time-outs are reported, not judged), 1 when something could not be measured,
// 2 on bad use. No timing is asserted.
#include <stdlib.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "bench/common/bench_clock.h"
#include "bench/common/cli_args.h"
#include "bench/driver/processes.h"
#include "bench/driver/report.h"
#include "bench/driver/rounds.h"
#include "bench/driver/hung_run.h"
#include "bench/driver/scale_runs.h"

namespace {

using namespace bench;

// True when the only network interface is loopback (a private namespace).
bool onlyLoopback(std::string& others) {
    std::ifstream in("/proc/net/dev");
    std::string line;
    int lineNo = 0;
    while (std::getline(in, line)) {
        if (++lineNo <= 2) continue;  // two header lines
        size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        std::istringstream name(line.substr(0, colon));
        std::string n;
        name >> n;
        if (n != "lo") others += (others.empty() ? "" : " ") + n;
    }
    return others.empty() && lineNo > 2;
}

BenchConfig configFrom(const CliArgs& args, std::string& why) {
    BenchConfig cfg;
    cfg.binDir = args.text("bin-dir", "");
    cfg.mosquittoPath = args.text("mosquitto", "/usr/sbin/mosquitto");
    cfg.quick = args.has("quick");
    if (cfg.quick) {
        cfg.rounds = 1;
        cfg.warmupMs = 100;
        cfg.measureMs = 500;
        cfg.scaleCounts = {100, 500};
        cfg.probeMs = 0;
        cfg.startupRepeats = 1;
        cfg.hmacMs = 200;
        cfg.opensslSeconds = 1;
    }
    cfg.rounds = static_cast<int>(args.number("rounds", cfg.rounds));
    cfg.measureMs = static_cast<int>(args.number("measure-ms", cfg.measureMs));
    if (cfg.binDir.empty()) why = "--bin-dir is required";
    if (cfg.rounds < 1 || cfg.rounds > 20) why = "--rounds must be 1 to 20";
    if (cfg.measureMs < 100 || cfg.measureMs > 60000) why = "--measure-ms must be 100 to 60000";
    return cfg;
}

// True when every system has a figure for every P, and the scale steps ran.
bool complete(const BenchConfig& cfg, const ThroughputData& t, const ScaleData& s) {
    for (const std::string& sys : SYSTEMS)
        for (int p : cfg.plist) {
            bool any = false;
            for (int r = 0; r < cfg.rounds; ++r) {
                auto it = t.runs.find({sys, r, p});
                any = any || (it != t.runs.end() && it->second.valid);
            }
            if (!any) return false;
        }
    return s.steps.size() == cfg.scaleCounts.size() && std::isfinite(s.startupFullMs);
}

}  // namespace

int main(int argc, char** argv) {
    CliArgs args(argc, argv);
    std::string why;
    BenchConfig cfg = configFrom(args, why);
    std::string outDir = args.text("out", "");
    if (!why.empty() || outDir.empty()) {
        std::fprintf(stderr, "velto-bench: %s\n", why.empty() ? "--out is required" : why.c_str());
        return 2;
    }
    std::string others;
    if (!onlyLoopback(others)) {
        std::fprintf(stderr, "velto-bench: run me in a private network namespace (tests/netns.sh); found: %s\n",
                     others.c_str());
        return 2;
    }
    char tmpl[] = "/tmp/velto-bench.XXXXXX";
    if (!mkdtemp(tmpl) || !makeDirs(outDir)) {
        std::fprintf(stderr, "velto-bench: cannot create working or results directory\n");
        return 1;
    }
    cfg.workDir = tmpl;
    uint64_t t0 = nowNs();

    std::printf("Pair workload: %d round(s), P in {1,8,32}, %d ms measured per P\n", cfg.rounds, cfg.measureMs);
    std::fflush(stdout);
    ThroughputData t;
    runThroughputRounds(cfg, t);

    std::printf("Scale: hub with up to %d devices%s\n", cfg.scaleCounts.empty() ? 0 : cfg.scaleCounts.back(),
                cfg.probeMs > 0 ? ", stall probe during a flush" : "");
    std::fflush(stdout);
    ScaleData s;
    runScale(cfg, s);
    std::printf("Start-up times\n");
    std::fflush(stdout);
    runStartup(cfg, s);
    std::printf("Pings during a hung document download\n");
    std::fflush(stdout);
    HungData hung;
    runHungDownload(cfg, hung);
    std::printf("HMAC timing\n");
    std::fflush(stdout);
    HmacData h;
    runHmac(cfg, h);

    RunInfo info = describeMachine(cfg);
    info.elapsedSecs = static_cast<double>(nowNs() - t0) / 1e9;
    std::string plotWhy;
    bool plotted = plotThroughput(cfg, t, outDir + "/latest.png", plotWhy);
    if (!plotted) h.problems.push_back("plot: " + plotWhy);
    std::string md = markdownReport(cfg, info, t, s, h, "latest.png") + hungMarkdown(hung);
    bool written = writeFile(outDir + "/latest.md", md) && writeFile(outDir + "/latest.csv", roundsCsv(t));
    std::printf("\n%s", md.c_str());
    std::printf("\nWritten: %s/latest.md, latest.csv%s\n", outDir.c_str(), plotted ? ", latest.png" : "");

    if (args.has("keep-work"))
        std::printf("Working directories kept in %s\n", cfg.workDir.c_str());
    else
        removeTree(cfg.workDir);
    return complete(cfg, t, s) && written ? 0 : 1;
}
