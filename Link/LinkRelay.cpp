// Relay loop of the lossy link.
#include "Link/LinkRelay.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace lossy {

namespace {

uint64_t nowUs() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

uint16_t boundPort(const UdpSocket& s) {
    sockaddr_in a;
    socklen_t len = sizeof(a);
    memset(&a, 0, sizeof(a));
    if (!s.ok() || getsockname(s.handle(), reinterpret_cast<sockaddr*>(&a), &len) != 0) return 0;
    return ntohs(a.sin_port);
}

}  // namespace

LinkRelay::LinkRelay(const FaultRates& rates, uint64_t seed)
    : plans{FaultPlan(rates, seed), FaultPlan(rates, seed ^ 0x9e3779b97f4a7c15ULL)} {}

bool LinkRelay::open(uint16_t listenPort, const SockAddress& hub, std::string& why) {
    if (!deviceSide.bind(SockAddress("127.0.0.1", listenPort), false)) {
        why = "cannot bind 127.0.0.1:" + std::to_string(listenPort);
        return false;
    }
    if (!hubSide.bind(SockAddress("", 0), false)) {
        why = "cannot open a socket toward the hub";
        return false;
    }
    // Both ends send bursts of a whole long message.
    deviceSide.setReceiveBuffer(RECEIVE_BUFFER_BYTES);
    hubSide.setReceiveBuffer(RECEIVE_BUFFER_BYTES);
    hubAddr = hub;
    return true;
}

uint16_t LinkRelay::devicePort() const { return boundPort(deviceSide); }

void LinkRelay::schedule(Direction d, const uint8_t* data, size_t n, uint64_t now) {
    RelayCounts& c = tally[d];
    ++c.in;
    const Fate f = plans[d].next();
    if (f.dropped) {
        ++c.dropped;
        return;
    }
    if (f.reordered) ++c.reordered;
    const uint64_t at = now + static_cast<uint64_t>(f.delayMs) * 1000;
    due.push(Held{at, seq++, d, std::vector<uint8_t>(data, data + n)});
    if (f.duplicated) {
        ++c.duplicated;
        due.push(Held{at, seq++, d, std::vector<uint8_t>(data, data + n)});
    }
}

// Takes what one socket has queued (a bounded batch). Returns the count, or -1.
int LinkRelay::takeFrom(UdpSocket& s, Direction d, uint64_t now) {
    static uint8_t bufs[UdpSocket::MAX_BATCH * CAPACITY];
    int sizes[UdpSocket::MAX_BATCH];
    SockAddress froms[UdpSocket::MAX_BATCH];
    const int n = s.recvBatchNoWait(bufs, CAPACITY, UdpSocket::MAX_BATCH, sizes, froms);
    for (int i = 0; i < n; ++i) {
        if (d == UP) {
            deviceAddr = froms[i];
            haveDevice = true;
        } else if (froms[i] != hubAddr) {
            continue;  // only the hub speaks on this side
        }
        schedule(d, bufs + static_cast<size_t>(i) * CAPACITY, static_cast<size_t>(sizes[i]), now);
    }
    return n;
}

int LinkRelay::sendDue(uint64_t now) {
    int sent = 0;
    while (!due.empty() && due.top().dueUs <= now) {
        const Held& h = due.top();
        UdpSocket& s = h.dir == UP ? hubSide : deviceSide;
        const SockAddress& to = h.dir == UP ? hubAddr : deviceAddr;
        if (h.dir == UP || haveDevice) {
            // sendTo does not write to the bytes it is given.
            if (s.sendTo(to, const_cast<uint8_t*>(h.data.data()), h.data.size()) >= 0) {
                ++tally[h.dir].out;
                ++sent;
            }
        }
        due.pop();
    }
    return sent;
}

int LinkRelay::waitMsFor(int waitMs, uint64_t now) const {
    if (due.empty()) return waitMs;
    const uint64_t at = due.top().dueUs;
    if (at <= now) return 0;
    const uint64_t ms = (at - now + 999) / 1000;
    return ms < static_cast<uint64_t>(waitMs) ? static_cast<int>(ms) : waitMs;
}

int LinkRelay::step(int waitMs) {
    if (!deviceSide.ok() || !hubSide.ok()) return -1;
    pollfd fds[2] = {{deviceSide.handle(), POLLIN, 0}, {hubSide.handle(), POLLIN, 0}};
    const int r = ::poll(fds, 2, waitMsFor(waitMs, nowUs()));
    if (r < 0 && errno != EINTR) return -1;
    const uint64_t now = nowUs();
    if (r > 0 && (fds[0].revents & POLLIN) && takeFrom(deviceSide, UP, now) < 0) return -1;
    if (r > 0 && (fds[1].revents & POLLIN) && takeFrom(hubSide, DOWN, now) < 0) return -1;
    return sendDue(nowUs());
}

}  // namespace lossy
