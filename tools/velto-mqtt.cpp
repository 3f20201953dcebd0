// velto-mqtt: every device of a Velto hub on an MQTT broker, with Home
// Assistant discovery. See `velto-mqtt --help` and velto-mqtt(1).
#include <mosquitto.h>

#include <csignal>
#include <iostream>
#include <string>
#include <vector>

#include "Bridge/BridgeApp.h"
#include "Bridge/BridgeOptions.h"

namespace {
volatile std::sig_atomic_t stopRequested = 0;
extern "C" void onStop(int) { stopRequested = 1; }
}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    bridge::BridgeOptions opts;
    std::string why;
    if (!bridge::parseBridgeOptions(args, opts, why)) {
        std::cerr << "velto-mqtt: " << why << "\n" << bridge::bridgeUsage();
        return 2;
    }
    if (opts.help) {
        std::cout << bridge::bridgeUsage();
        return 0;
    }
    std::signal(SIGINT, onStop);
    std::signal(SIGTERM, onStop);
    std::signal(SIGPIPE, SIG_IGN);
    mosquitto_lib_init();
    int rc = 0;
    {
        bridge::BridgeApp app(opts);
        rc = app.run(stopRequested);
    }
    mosquitto_lib_cleanup();
    return rc;
}
