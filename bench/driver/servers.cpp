// Starting the servers under test.
#include "bench/driver/servers.h"

#include "bench/driver/processes.h"

namespace bench {

std::string tailLine(const std::string& text, size_t n) {
    std::string s = text.size() <= n ? text : "..." + text.substr(text.size() - n);
    for (char& c : s)
        if (c == '\n' || c == '\r') c = ' ';
    return s;
}

Server startHub(const BenchConfig& cfg, const std::string& dir, std::string& why) {
    Server s;
    s.port = HUB_PORT;
    if (!makeDirs(dir + "/DB")) return why = "cannot create " + dir + "/DB", s;
    s.out = dir + "/hub.out";
    s.err = dir + "/hub.err";
    s.pid = startChild({{cfg.bin("velto-hub")}, dir, s.out, s.err});
    if (s.pid < 0 || !waitForText(s.out, "Successfully bind", 5000, s.pid)) {
        why = "velto-hub did not start: " + tailLine(readFile(s.err) + readFile(s.out), 300);
        stopChild(s.pid, 500);
        s.pid = -1;
    }
    return s;
}

Server startRelay(const BenchConfig& cfg, const std::string& dir, std::string& why) {
    Server s;
    s.port = RELAY_PORT;
    s.out = dir + "/relay.out";
    s.err = dir + "/relay.err";
    s.pid = startChild({{cfg.bin("ceiling-relay"), "--port", std::to_string(RELAY_PORT), "--max-seconds", "600"},
                        dir, s.out, s.err});
    if (s.pid < 0 || !waitForText(s.out, "listening", 5000, s.pid)) {
        why = "ceiling-relay did not start: " + tailLine(readFile(s.err), 300);
        stopChild(s.pid, 500);
        s.pid = -1;
    }
    return s;
}

namespace {

// The broker's configuration: loopback only, a port of its own, no persistence,
// Nagle off as the clients have it, errors and warnings only.
std::string mosquittoConfig(uint16_t port) {
    return "listener " + std::to_string(port) + " 127.0.0.1\n" +
           "allow_anonymous true\n"
           "persistence false\n"
           "set_tcp_nodelay true\n"
           "log_dest stderr\n"
           "log_type error\n"
           "log_type warning\n";
}

}  // namespace

Server startMosquitto(const BenchConfig& cfg, const std::string& dir, std::string& why) {
    Server s;
    s.port = freeTcpPort();
    std::string conf = dir + "/mosquitto.conf";
    if (s.port == 0 || !writeFile(conf, mosquittoConfig(s.port))) return why = "cannot prepare mosquitto", s;
    s.out = dir + "/mosquitto.out";
    s.err = dir + "/mosquitto.err";
    s.pid = startChild({{cfg.mosquittoPath, "-c", conf}, dir, s.out, s.err});
    if (s.pid < 0 || !waitForTcpPort(s.port, 5000, s.pid)) {
        why = "mosquitto did not start: " + tailLine(readFile(s.err), 300);
        stopChild(s.pid, 500);
        s.pid = -1;
    }
    return s;
}

}  // namespace bench
