// The syscall ceiling: a single-threaded UDP relay that does per message only
// what a hub must do at the least — receive the sender's piece, acknowledge it
// to the sender, pass the piece on to its destination, receive the
// destination's acknowledgement — with no sessions, no checks, no queues and no
// logging. Destinations are learnt from the header's devId of whatever a node
// sends (a node registers with a ping, which is answered with a pong).
//
// Usage: ceiling-relay --port N [--max-seconds S]
// Prints one line when it listens; exits after S seconds (default 900) or when
// its socket fails.
#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "bench/common/bench_clock.h"
#include "bench/common/cli_args.h"
#include "bench/common/loopback_io.h"
#include "Device/PackKit.h"

namespace {

struct Relay {
    int fd = -1;
    std::vector<sockaddr_in> nodes = std::vector<sockaddr_in>(65536);
    std::vector<bool> known = std::vector<bool>(65536, false);
    uint32_t packetNo = 0;
    uint8_t out[MAX_PACKET_SIZE];

    void learn(DeviceID id, const sockaddr_in& from) {
        nodes[id] = from;
        known[id] = true;
    }

    void carrier(const uint8_t* data, int n, const sockaddr_in& from) {
        MessageCarrierPack c;
        if (c.deserialize(data, static_cast<size_t>(n), false) < 1) return;
        MessageCarrierACKPack ack = packkit::ackOf(c);
        int len = packkit::encodeInto(ack, c.devId, ++packetNo, out, sizeof(out));
        if (len > 0) bench::sendDatagram(fd, from, out, static_cast<size_t>(len));
        if (known[c.toDeviceId]) bench::sendDatagram(fd, nodes[c.toDeviceId], data, static_cast<size_t>(n));
    }

    void ping(const uint8_t* data, int n, const sockaddr_in& from) {
        PingPongPack p;
        if (p.deserialize(data, static_cast<size_t>(n), false) < 1 || p.pingOrPong != PingPongPack::PING) return;
        PingPongPack pong = packkit::ping(PingPongPack::PONG, p.replyKey);
        int len = packkit::encodeInto(pong, p.devId, ++packetNo, out, sizeof(out));
        if (len > 0) bench::sendDatagram(fd, from, out, static_cast<size_t>(len));
    }

    void handle(const uint8_t* data, int n, const sockaddr_in& from) {
        VeltoPacket header;
        if (header.deserialize(data, static_cast<size_t>(n), false) < 1) return;
        learn(header.devId, from);
        switch (bench::packIdOf(data, n)) {
            case MessageCarrierPack::PACK_ID:
                carrier(data, n, from);
                break;
            case PingPongPack::PACK_ID:
                ping(data, n, from);
                break;
            default:  // acknowledgements end here
                break;
        }
    }
};

// Makes fd blocking with a one-second receive time-out. Returns false on failure.
bool blockingWithTimeout(int fd) {
    int flags = ::fcntl(fd, F_GETFL, 0);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) return false;
    timeval tv{1, 0};
    return ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    bench::CliArgs args(argc, argv);
    long port = args.number("port", 1882);
    uint64_t endNs = bench::nowNs() + bench::msToNs(static_cast<uint64_t>(args.number("max-seconds", 900)) * 1000);
    Relay relay;
    relay.fd = bench::openLoopbackSocket(static_cast<uint16_t>(port));
    if (relay.fd < 0) {
        std::fprintf(stderr, "ceiling-relay: cannot bind 127.0.0.1:%ld\n", port);
        return 1;
    }
    std::printf("ceiling-relay listening on 127.0.0.1:%ld\n", port);
    std::fflush(stdout);
    if (!blockingWithTimeout(relay.fd)) return 1;
    uint8_t buf[MAX_PACKET_SIZE];
    // One blocking recvfrom per datagram; the one-second receive time-out only
    // lets the deadline be checked when nothing arrives.
    while (bench::nowNs() < endNs) {
        sockaddr_in from;
        socklen_t len = sizeof(from);
        ssize_t n = ::recvfrom(relay.fd, buf, sizeof(buf), 0, reinterpret_cast<sockaddr*>(&from), &len);
        if (n > 0) relay.handle(buf, static_cast<int>(n), from);
        else if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR && errno != ECONNREFUSED)
            return 1;
    }
    ::close(relay.fd);
    return 0;
}
