// The lossy link's relay: one UDP socket where a device sends as if to its hub,
// one toward the hub, and the datagrams between them, each direction with its
// own seeded FaultPlan. The device's address is the sender of the latest
// datagram on the device side; what the hub sends before any device spoke is
// dropped. Datagrams of up to CAPACITY bytes are carried (longer ones are cut).
// Single-threaded; step() never waits longer than it is told. Nothing prints.
#pragma once

#include <cstdint>
#include <queue>
#include <string>
#include <vector>

#include "Link/FaultPlan.h"
#include "Velto/UdpSocket.h"

namespace lossy {

enum Direction { UP = 0, DOWN = 1 };  // UP: device to hub

struct RelayCounts {
    uint64_t in = 0, out = 0, dropped = 0, duplicated = 0, reordered = 0;
};

class LinkRelay {
public:
    static constexpr size_t CAPACITY = 2048;
    static constexpr int RECEIVE_BUFFER_BYTES = 4 << 20;

    LinkRelay(const FaultRates& rates, uint64_t seed);
    // Binds the device side to 127.0.0.1:listenPort (0: any free port) and the
    // hub side to an ephemeral port. Returns false with why set on failure.
    bool open(uint16_t listenPort, const SockAddress& hub, std::string& why);
    // The device side's port, or 0 when not open.
    uint16_t devicePort() const;
    // Waits at most waitMs for datagrams or the next one due, relays what came
    // and sends what is due. Returns the datagrams sent, or -1 on a socket error.
    int step(int waitMs);
    const RelayCounts& counts(Direction d) const { return tally[d]; }

private:
    struct Held {
        uint64_t dueUs;
        uint64_t seq;  // keeps datagrams due at once in arrival order
        Direction dir;
        std::vector<uint8_t> data;
        bool operator>(const Held& o) const { return dueUs != o.dueUs ? dueUs > o.dueUs : seq > o.seq; }
    };

    int takeFrom(UdpSocket& s, Direction d, uint64_t nowUs);
    void schedule(Direction d, const uint8_t* data, size_t n, uint64_t nowUs);
    int sendDue(uint64_t nowUs);
    int waitMsFor(int waitMs, uint64_t nowUs) const;

    FaultPlan plans[2];
    RelayCounts tally[2];
    UdpSocket deviceSide, hubSide;
    SockAddress hubAddr, deviceAddr;
    bool haveDevice = false;
    uint64_t seq = 0;
    std::priority_queue<Held, std::vector<Held>, std::greater<Held>> due;
};

}  // namespace lossy
