// The servers under test, each started in its own working directory with its
// output going to files there: velto-hub (needs DB/ beside it; port 1881), the
// ceiling relay (port 1882) and the mosquitto broker (a free port, a config
// written here). A failed start leaves pid -1 and says why.
#pragma once

#include <cstdint>
#include <string>

#include "bench/driver/bench_config.h"

namespace bench {

constexpr uint16_t HUB_PORT = 1881;
constexpr uint16_t RELAY_PORT = 1882;

struct Server {
    int pid = -1;
    uint16_t port = 0;
    std::string out, err;  // its standard output and error files
};

// Starts velto-hub in dir (creating dir/DB when missing) and waits until it has
// bound its port.
Server startHub(const BenchConfig& cfg, const std::string& dir, std::string& why);
Server startRelay(const BenchConfig& cfg, const std::string& dir, std::string& why);
Server startMosquitto(const BenchConfig& cfg, const std::string& dir, std::string& why);

// The last n characters of text, on one line (for problem notes).
std::string tailLine(const std::string& text, size_t n);

}  // namespace bench
