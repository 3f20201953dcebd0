// The report of a run: medians over rounds and ratios to the ceiling within each
// round, printed as tables, written as Markdown (with the machine it ran on)
// and plotted with gnuplot (throughput and p50/p99 latency against P).
#pragma once

#include <string>

#include "bench/driver/bench_config.h"

namespace bench {

struct RunInfo {
    std::string date;       // UTC, ISO form
    std::string machine;    // CPU, cores, memory, kernel
    std::string software;   // compiler, mosquitto, openssl
    double elapsedSecs = 0;
};

// Collects the machine and software description.
RunInfo describeMachine(const BenchConfig& cfg);

// The whole report as Markdown (tables, figures, notes, problems).
std::string markdownReport(const BenchConfig& cfg, const RunInfo& info, const ThroughputData& t, const ScaleData& s,
                           const HmacData& h, const std::string& plotName);

// Per-round raw figures as CSV.
std::string roundsCsv(const ThroughputData& t);

// Writes the plot to pngPath through gnuplot (data and script in workDir).
// Returns false with why set when gnuplot is missing or fails.
bool plotThroughput(const BenchConfig& cfg, const ThroughputData& t, const std::string& pngPath, std::string& why);

}  // namespace bench
