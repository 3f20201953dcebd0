// The throughput comparison: every round runs each system once (the order
// rotates from round to round) with a fresh server and its own temporary
// working directory, driving it with the pair workload at every P.
#pragma once

#include "bench/driver/bench_config.h"

namespace bench {

// Runs cfg.rounds rounds and fills data; failures are noted in data.problems.
void runThroughputRounds(const BenchConfig& cfg, ThroughputData& data);

}  // namespace bench
