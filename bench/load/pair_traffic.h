// The closed-loop pair workload over Velto datagrams, the same for the hub and
// for the ceiling relay: device A of each pair sends a 64-byte direct message to
// device B through the server; the server acknowledges it to A and passes it to
// B, which acknowledges it to the server. A sends the next message only when it
// holds its own acknowledgement and B has received (and acknowledged) the
// previous one, so each pair keeps exactly one message in flight.
//
// Latency is the time from A's send to B's receipt. Pings from the server are
// answered on every node, busy or idle. Single-threaded, epoll-driven; every
// wait is bounded.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <vector>

#include "Velto/Velto.h"

namespace bench {

// One device as the traffic sees it: its socket (not owned) and node id.
struct TrafficNode {
    int fd = -1;
    DeviceID id = 0;
};

struct PhaseConfig {
    int pairs = 1;               // pairs active in this phase (from pair 0 up)
    uint64_t warmupMs = 300;     // traffic before the measurement starts
    uint64_t measureMs = 3000;   // length of the measured window
    int serverPid = 0;           // whose CPU time is read around the window (0: none)
    uint32_t messageSize = 64;   // payload bytes of every message
};

struct PhaseResult {
    uint64_t messages = 0;       // messages received by B inside the window
    double seconds = 0;          // length of the window as measured
    uint64_t p50Ns = 0;          // latency percentiles of those messages
    uint64_t p99Ns = 0;
    int64_t serverCpuNs = -1;    // server CPU time inside the window, -1 unknown
    uint64_t generatorCpuNs = 0; // this process's CPU time inside the window
    uint64_t timeouts = 0;       // messages given up after 1 s without completion
    uint64_t errors = 0;         // error packs or undecodable datagrams received
};

class PairTraffic {
public:
    // nodes[2i] is A and nodes[2i+1] is B of pair i; server is where every
    // datagram goes. Returns with ok() false when epoll cannot be set up.
    PairTraffic(const std::vector<TrafficNode>& nodes, const sockaddr_in& server);
    ~PairTraffic();
    PairTraffic(const PairTraffic&) = delete;
    PairTraffic& operator=(const PairTraffic&) = delete;

    bool ok() const { return epollFd >= 0; }
    int pairCount() const { return static_cast<int>(pairs.size()); }

    // Runs one phase: warm-up, measured window, then a drain of at most one
    // second. Returns false when the phase cannot run (bad pair count, socket
    // failure); result holds what was measured either way.
    bool runPhase(const PhaseConfig& cfg, PhaseResult& result);

    // Answers pings only, for `ms` milliseconds (keeps idle sessions alive).
    bool idle(uint64_t ms);

private:
    struct PairState {
        MessageNo msgNo = 0;
        uint64_t sentNs = 0;
        bool inFlight = false;
        bool gotAck = false;
        bool gotMessage = false;
    };

    bool pumpUntil(uint64_t deadlineNs, bool untilDrained);
    bool handleReadable(size_t nodeIndex);
    void onCarrier(size_t nodeIndex, const uint8_t* data, int n);
    void onAck(size_t nodeIndex, const uint8_t* data, int n);
    void onPing(size_t nodeIndex, const uint8_t* data, int n);
    void startMessage(size_t pair);
    void finishIfComplete(size_t pair);
    void checkTimeouts(uint64_t now);
    bool anyInFlight() const;
    void send(size_t nodeIndex, const uint8_t* data, int n);

    std::vector<TrafficNode> nodes;
    std::vector<uint32_t> packetNos;
    std::vector<PairState> pairs;
    sockaddr_in server;
    int epollFd = -1;
    std::vector<uint8_t> payload;

    int activePairs = 0;
    bool sending = false;
    bool measuring = false;
    std::vector<uint64_t> latencies;
    uint64_t timeouts = 0;
    uint64_t errors = 0;
    bool socketFailed = false;
};

}  // namespace bench
