#include "bench/load/hung_download.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "Device/DeviceSession.h"
#include "bench/common/bench_clock.h"
#include "bench/common/latency_stats.h"
#include "bench/common/result_line.h"
#include "bench/load/scale_fleet.h"

namespace bench {

namespace {

// A listener whose connections the kernel completes and nobody ever reads:
// its port, 0 on failure. The descriptor stays open for the process.
uint16_t neverAnsweringListener() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(fd, 16) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        return 0;
    return ntohs(a.sin_port);
}

std::string ms(uint64_t ns) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.2f", static_cast<double>(ns) / 1e6);
    return buf;
}

}  // namespace

int runHungDownload(const CliArgs& args) {
    const uint16_t port = static_cast<uint16_t>(args.number("--port", 1881));
    const uint64_t probeMs = static_cast<uint64_t>(args.number("--probe-ms", 10000));
    const uint16_t docPort = neverAnsweringListener();
    if (docPort == 0) return std::fprintf(stderr, "hung: no listener\n"), 1;

    ScaleFleet fleet(port, "hungprobe-");
    std::string why;
    if (!fleet.growTo(1, 1, 10000, why)) return std::fprintf(stderr, "hung: %s\n", why.c_str()), 1;

    device::DeviceConfig c;
    c.duid = "hung-doc-01";
    c.specs = "localhost:" + std::to_string(docPort) + "/a";
    c.discover = false;
    c.hub = SockAddress("127.0.0.1", port);
    c.objects = {device::DeviceObject{"obj0", "", 0, 0}};
    device::DeviceSession slow(c);
    if (!slow.start()) return std::fprintf(stderr, "hung: %s\n", slow.lastError().c_str()), 1;
    // Polled until its last object is sent: from then on the hub downloads.
    for (int i = 0; i < 500 && slow.state() != device::DeviceSession::State::CONFIGURING; ++i) slow.poll(10);
    for (int i = 0; i < 20; ++i) slow.poll(10);

    ProbeResult pr;
    if (!fleet.probe(probeMs, pr)) return std::fprintf(stderr, "hung: no device to probe with\n"), 1;
    std::vector<uint64_t> rtt = pr.rttNs;
    const uint64_t worst = rtt.empty() ? 0 : *std::max_element(rtt.begin(), rtt.end());
    std::printf("%s\n", formatResult("HUNG", {{"secs", std::to_string(probeMs / 1000)},
                                             {"pings", std::to_string(rtt.size())},
                                             {"lost", std::to_string(pr.lost)},
                                             {"p99_ms", ms(percentile(rtt, 0.99))},
                                             {"max_ms", ms(worst)},
                                             {"slow_state", device::DeviceSession::stateName(slow.state())}})
                            .c_str());
    return 0;
}

}  // namespace bench
