// The hub's answers to one device while another device's specification
// document hangs: a TCP listener on 127.0.0.1 that never accepts serves as the
// document's server, a device naming it joins (its activation then waits for
// the download, up to the 30 s bound), and a second device pings the hub back
// to back meanwhile. Prints one HUNG result line (round trips, the longest).
#pragma once

#include "bench/common/cli_args.h"

namespace bench {

// velto-load hung --port N [--probe-ms 10000]; exit status 0 when it ran.
int runHungDownload(const CliArgs& args);

}  // namespace bench
