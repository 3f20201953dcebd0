// velto-link: a lossy UDP link between one device and its hub. The device is
// pointed at 127.0.0.1:PORT instead of the hub; every datagram each way may be
// dropped, duplicated, held back (so that later ones overtake it) or delayed,
// with the given probabilities and seed. Runs until SIGTERM or SIGINT, then
// prints what it did in each direction and exits 0.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "Device/CliOptions.h"
#include "Link/LinkRelay.h"

using namespace lossy;

namespace {

volatile sig_atomic_t stopRequested = 0;

void onStop(int) { stopRequested = 1; }

const char* USAGE =
    "Usage: velto-link --listen PORT [options]\n"
    "  --listen PORT       where the device sends (127.0.0.1:PORT)\n"
    "  --hub ADDRESS       the hub as a.b.c.d[:port] (default 127.0.0.1:1881)\n"
    "  --drop P            probability that a datagram is lost (0 to 1)\n"
    "  --duplicate P       probability that a datagram is sent twice\n"
    "  --reorder P         probability that a datagram is held back\n"
    "  --hold-back MS      how long a held-back datagram waits (default 5)\n"
    "  --delay MS          delay of every datagram (default 0)\n"
    "  --seed N            seed of the faults (default 1)\n";

struct LinkOptions {
    uint32_t port = 0;
    SockAddress hub{"127.0.0.1", 1881};
    FaultRates rates;
    uint64_t seed = 1;
};

bool parseProbability(const std::string& text, double& out) {
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(v >= 0.0 && v <= 1.0)) return false;
    out = v;
    return true;
}

bool parseOne(const std::string& name, const std::string& value, LinkOptions& o) {
    uint32_t n = 0;
    if (name == "--listen") return device::parseNumber(value, 65535, o.port) && o.port != 0;
    if (name == "--hub") return device::parseHubAddress(value, o.hub);
    if (name == "--drop") return parseProbability(value, o.rates.drop);
    if (name == "--duplicate") return parseProbability(value, o.rates.duplicate);
    if (name == "--reorder") return parseProbability(value, o.rates.reorder);
    if (name == "--hold-back") return device::parseNumber(value, 60000, o.rates.holdBackMs);
    if (name == "--delay") return device::parseNumber(value, 60000, o.rates.delayMs);
    if (name == "--seed" && device::parseNumber(value, 0xFFFFFFFFu, n)) {
        o.seed = n;
        return true;
    }
    return false;
}

// Returns 0 when parsed, 1 for --help, 2 (after one line) on a bad argument.
int parseArgs(int argc, char** argv, LinkOptions& o) {
    for (int i = 1; i < argc; i += 2) {
        const std::string name = argv[i];
        if (name == "--help" || name == "-h") return 1;
        if (i + 1 >= argc || !parseOne(name, argv[i + 1], o)) {
            std::cerr << "velto-link: ERROR bad or incomplete option " << name << "\n" << USAGE;
            return 2;
        }
    }
    if (o.port != 0) return 0;
    std::cerr << "velto-link: ERROR --listen is required\n" << USAGE;
    return 2;
}

void printCounts(const char* name, const RelayCounts& c) {
    std::printf("velto-link: %s %llu in, %llu out, %llu dropped, %llu duplicated, %llu held back\n", name,
                static_cast<unsigned long long>(c.in), static_cast<unsigned long long>(c.out),
                static_cast<unsigned long long>(c.dropped), static_cast<unsigned long long>(c.duplicated),
                static_cast<unsigned long long>(c.reordered));
}

}  // namespace

int main(int argc, char** argv) {
    LinkOptions o;
    const int parsed = parseArgs(argc, argv, o);
    if (parsed == 1) std::cout << USAGE;
    if (parsed != 0) return parsed == 1 ? 0 : 2;
    LinkRelay relay(o.rates, o.seed);
    std::string why;
    if (!relay.open(static_cast<uint16_t>(o.port), o.hub, why)) {
        std::cerr << "velto-link: ERROR " << why << "\n";
        return 1;
    }
    std::signal(SIGTERM, onStop);
    std::signal(SIGINT, onStop);
    std::cout << "velto-link: relaying 127.0.0.1:" << relay.devicePort() << " <-> " << o.hub << std::endl;
    while (!stopRequested) {
        if (relay.step(100) < 0) {
            std::cerr << "velto-link: ERROR the relay's sockets failed\n";
            return 1;
        }
    }
    printCounts("up", relay.counts(UP));
    printCounts("down", relay.counts(DOWN));
    return 0;
}
