// A lamp: the smallest useful device built on the device library.
//
// It joins a hub with one object, "light", prints every message and
// notification it receives, and answers each direct message with the state of
// its light: the text "on" or "off" switches it, anything else just asks.
//
//   lamp [--hub a.b.c.d[:port]] [--duid ID]
//
// Without --hub the lamp finds its hub through the discovery group. When the
// hub goes away (a restart, a power cut) the library rejoins by itself; the
// lamp only says so. It runs until SIGINT or SIGTERM (Ctrl-C) and exits 0
// then, 1 when it cannot join at first, 2 on bad arguments.
#include <csignal>
#include <iostream>
#include <string>
#include <vector>

#include "Device/CliOptions.h"
#include "Device/DeviceSession.h"

namespace {

volatile std::sig_atomic_t stopRequested = 0;
extern "C" void onStop(int) { stopRequested = 1; }

// Reads the two options into cfg. Returns false on anything else.
bool parseArgs(int argc, char** argv, device::DeviceConfig& cfg) {
    for (int i = 1; i < argc; i += 2) {
        std::string opt = argv[i];
        if (i + 1 >= argc) return false;
        std::string value = argv[i + 1];
        if (opt == "--duid")
            cfg.duid = value;
        else if (opt == "--hub" && device::parseHubAddress(value, cfg.hub))
            cfg.discover = false;
        else
            return false;
    }
    return true;
}

std::string text(const std::vector<uint8_t>& data) { return std::string(data.begin(), data.end()); }

}  // namespace

int main(int argc, char** argv) {
    // What the device is: an identifier, and its objects with the name of the
    // interface each one offers (the names its specification document maps to
    // interface documents).
    device::DeviceConfig cfg;
    cfg.duid = "lamp-01";
    cfg.objects = {device::DeviceObject{"light", "switchable.1", 0, 0}};
    if (!parseArgs(argc, argv, cfg)) {
        std::cerr << "usage: lamp [--hub a.b.c.d[:port]] [--duid ID]\n";
        return 2;
    }
    std::cout << std::unitbuf;  // one line at a time, also into a pipe or file
    std::signal(SIGINT, onStop);
    std::signal(SIGTERM, onStop);

    device::DeviceSession lamp(cfg);
    bool lit = false;
    // Callbacks run inside poll(); sending from them is allowed.
    lamp.onMessage([&](const device::IncomingMessage& m) {
        const MsgSelector& from = m.selector;
        std::string said = text(m.data);
        if (from.msgCat != DIRECT_MSGCAT) {
            std::cout << "lamp: notification " << from.msgId << " from " << from.fromDeviceId << ": " << said
                      << '\n';
            return;
        }
        std::cout << "lamp: message " << from.msgId << " from " << from.fromDeviceId << "/"
                  << unsigned(from.fromObjectNo) << ": " << said << '\n';
        if (said == "on" || said == "off") lit = said == "on";
        std::string answer = lit ? "light is on" : "light is off";
        // The answer goes back to the object that asked, under the same id.
        if (lamp.sendDirect(from.fromDeviceId, from.fromObjectNo, from.msgId,
                            std::vector<uint8_t>(answer.begin(), answer.end())) < 0)
            std::cerr << "lamp: cannot answer: " << lamp.lastError() << '\n';
        else
            std::cout << "lamp: answered " << answer << '\n';
    });
    lamp.onDiagnostic([](const std::string& line) { std::cerr << "lamp: " << line << '\n'; });
    // Lost and back: the session rejoins, renews subscriptions and sends what
    // was queued meanwhile. An answer cut off by the loss is reported lost.
    lamp.onSessionChange([&](bool up) {
        if (up)
            std::cout << "lamp: back as node " << lamp.nodeId() << '\n';
        else
            std::cout << "lamp: lost the hub (" << lamp.lastError() << "), rejoining" << '\n';
    });

    if (!lamp.join(5000)) {
        std::cerr << "lamp: " << lamp.lastError() << '\n';
        return 1;
    }
    std::cout << "lamp: joined as node " << lamp.nodeId() << ", light is off" << '\n';

    while (!stopRequested) {
        if (lamp.poll(100) < 0) {  // only a socket failure
            std::cerr << "lamp: " << lamp.lastError() << '\n';
            return 1;
        }
    }
    lamp.flush(2000);  // let answers in flight arrive
    std::cout << "lamp: bye" << '\n';
    return 0;
}
