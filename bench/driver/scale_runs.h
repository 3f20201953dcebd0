// The scale figures: the hub's resident memory with many connected devices and
// the longest stall of its loop while a periodic flush runs; its start-up time
// with an empty and a full record directory; and the HMAC timing of the
// project's own classes next to `openssl speed` on the same machine.
#pragma once

#include "bench/driver/bench_config.h"

namespace bench {

// Memory and stall with cfg.scaleCounts devices; leaves the hub's DB (with one
// record per device) in cfg.workDir/scale for runStartup.
void runScale(const BenchConfig& cfg, ScaleData& data);

// Start-up time to the first answer, with an empty DB and with the DB that
// runScale left, cfg.startupRepeats times each (medians kept).
void runStartup(const BenchConfig& cfg, ScaleData& data);

void runHmac(const BenchConfig& cfg, HmacData& data);

}  // namespace bench
