// The hub's answers to one device while another device's document download
// hangs (velto-load hung against a fresh hub): the longest and the p99 round
// trip of back-to-back pings, and the line the report gets.
#pragma once

#include <string>
#include <vector>

#include "bench/driver/bench_config.h"

namespace bench {

struct HungData {
    bool ran = false;
    double maxMs = 0, p99Ms = 0, secs = 0;
    long pings = 0, lost = 0;
    std::vector<std::string> problems;
};

// Runs the figure in cfg.workDir/hung (10 s of pings, 3 s in the quick run).
void runHungDownload(const BenchConfig& cfg, HungData& out);
// A markdown paragraph with the figure or its problems.
std::string hungMarkdown(const HungData& d);

}  // namespace bench
