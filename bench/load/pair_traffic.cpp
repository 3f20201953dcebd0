// Closed-loop pair traffic over Velto datagrams.
#include "bench/load/pair_traffic.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>

#include "bench/common/bench_clock.h"
#include "bench/common/latency_stats.h"
#include "bench/common/proc_probe.h"
#include "bench/common/loopback_io.h"
#include "Device/PackKit.h"

namespace bench {

namespace {

constexpr uint64_t GIVE_UP_NS = 1000000000ull;  // a message not completed in 1 s
constexpr uint64_t DRAIN_MS = 1000;
constexpr int MAX_EVENTS = 128;

}  // namespace

PairTraffic::PairTraffic(const std::vector<TrafficNode>& n, const sockaddr_in& srv)
    : nodes(n), packetNos(n.size(), 0), pairs(n.size() / 2), server(srv) {
    epollFd = ::epoll_create1(EPOLL_CLOEXEC);
    if (epollFd < 0) return;
    for (size_t i = 0; i < nodes.size(); ++i) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = i;
        if (::epoll_ctl(epollFd, EPOLL_CTL_ADD, nodes[i].fd, &ev) != 0) {
            ::close(epollFd);
            epollFd = -1;
            return;
        }
    }
}

PairTraffic::~PairTraffic() {
    if (epollFd >= 0) ::close(epollFd);
}

void PairTraffic::send(size_t nodeIndex, const uint8_t* data, int n) {
    if (n <= 0) return;
    if (!sendDatagram(nodes[nodeIndex].fd, server, data, static_cast<size_t>(n))) ++errors;
}

void PairTraffic::startMessage(size_t pair) {
    PairState& st = pairs[pair];
    const TrafficNode& a = nodes[2 * pair];
    const TrafficNode& b = nodes[2 * pair + 1];
    ++st.msgNo;
    // The message number in the first bytes lets a stale copy be told apart.
    for (size_t i = 0; i < 4 && i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(st.msgNo >> (8 * i));
    uint8_t buf[MAX_PACKET_SIZE];
    MessageCarrierPack piece = packkit::carrier(packkit::selector(DIRECT_MSGCAT, a.id, 0, 1, b.id, 0, st.msgNo),
                                                payload.data(), static_cast<uint32_t>(payload.size()), 0);
    int n = packkit::encodeInto(piece, a.id, ++packetNos[2 * pair], buf, sizeof(buf));
    st.inFlight = true;
    st.gotAck = false;
    st.gotMessage = false;
    st.sentNs = nowNs();
    send(2 * pair, buf, n);
}

void PairTraffic::finishIfComplete(size_t pair) {
    PairState& st = pairs[pair];
    if (!st.inFlight || !st.gotAck || !st.gotMessage) return;
    st.inFlight = false;
    if (sending && static_cast<int>(pair) < activePairs) startMessage(pair);
}

void PairTraffic::onCarrier(size_t nodeIndex, const uint8_t* data, int n) {
    MessageCarrierPack c;
    if (c.deserialize(data, static_cast<size_t>(n), false) < 1) {
        ++errors;
        return;
    }
    // Every piece is acknowledged, repeats included, as a device must.
    uint8_t buf[MAX_PACKET_SIZE];
    MessageCarrierACKPack ack = packkit::ackOf(c);
    send(nodeIndex, buf, packkit::encodeInto(ack, nodes[nodeIndex].id, ++packetNos[nodeIndex], buf, sizeof(buf)));
    if (nodeIndex % 2 == 0) return;
    size_t pair = nodeIndex / 2;
    PairState& st = pairs[pair];
    if (!st.inFlight || st.gotMessage || c.msgNo != st.msgNo) return;
    st.gotMessage = true;
    if (measuring) latencies.push_back(nowNs() - st.sentNs);
    finishIfComplete(pair);
}

void PairTraffic::onAck(size_t nodeIndex, const uint8_t* data, int n) {
    MessageCarrierACKPack a;
    if (a.deserialize(data, static_cast<size_t>(n), false) < 1) {
        ++errors;
        return;
    }
    if (nodeIndex % 2 != 0) return;
    size_t pair = nodeIndex / 2;
    PairState& st = pairs[pair];
    if (!st.inFlight || a.msgNo != st.msgNo) return;
    st.gotAck = true;
    finishIfComplete(pair);
}

void PairTraffic::onPing(size_t nodeIndex, const uint8_t* data, int n) {
    PingPongPack p;
    if (p.deserialize(data, static_cast<size_t>(n), false) < 1 || p.pingOrPong != PingPongPack::PING) return;
    uint8_t buf[MAX_PACKET_SIZE];
    PingPongPack pong = packkit::ping(PingPongPack::PONG, p.replyKey);
    send(nodeIndex, buf, packkit::encodeInto(pong, nodes[nodeIndex].id, ++packetNos[nodeIndex], buf, sizeof(buf)));
}

bool PairTraffic::handleReadable(size_t nodeIndex) {
    // One datagram per readiness report: the level-triggered epoll reports the
    // socket again while more are waiting, which saves the empty read.
    uint8_t buf[MAX_PACKET_SIZE];
    sockaddr_in from;
    int n = receiveNow(nodes[nodeIndex].fd, buf, sizeof(buf), from);
    if (n < 0) return false;
    switch (packIdOf(buf, n)) {
        case MessageCarrierPack::PACK_ID:
            onCarrier(nodeIndex, buf, n);
            break;
        case MessageCarrierACKPack::PACK_ID:
            onAck(nodeIndex, buf, n);
            break;
        case PingPongPack::PACK_ID:
            onPing(nodeIndex, buf, n);
            break;
        case MessageErrorPack::PACK_ID:
            ++errors;
            break;
        default:
            break;
    }
    return true;
}

void PairTraffic::checkTimeouts(uint64_t now) {
    for (size_t i = 0; i < pairs.size(); ++i) {
        PairState& st = pairs[i];
        if (!st.inFlight || now <= st.sentNs || now - st.sentNs < GIVE_UP_NS) continue;
        ++timeouts;
        st.inFlight = false;
        if (sending && static_cast<int>(i) < activePairs) startMessage(i);
    }
}

bool PairTraffic::anyInFlight() const {
    return std::any_of(pairs.begin(), pairs.end(), [](const PairState& s) { return s.inFlight; });
}

bool PairTraffic::pumpUntil(uint64_t deadlineNs, bool untilDrained) {
    epoll_event events[MAX_EVENTS];
    uint64_t nextCheck = 0;
    for (;;) {
        uint64_t now = nowNs();
        if (now >= deadlineNs) return true;
        if (untilDrained && !anyInFlight()) return true;
        if (now >= nextCheck) {
            checkTimeouts(now);
            nextCheck = now + msToNs(20);
        }
        uint64_t leftMs = (deadlineNs - now) / 1000000ull;
        int wait = static_cast<int>(std::min<uint64_t>(leftMs + 1, 20));
        int n = ::epoll_wait(epollFd, events, MAX_EVENTS, wait);
        for (int i = 0; i < n; ++i)
            if (!handleReadable(static_cast<size_t>(events[i].data.u64))) socketFailed = true;
        if (socketFailed) return false;
    }
}

bool PairTraffic::runPhase(const PhaseConfig& cfg, PhaseResult& result) {
    result = PhaseResult();
    if (!ok() || cfg.pairs < 1 || cfg.pairs > pairCount()) return false;
    payload.assign(std::max<uint32_t>(cfg.messageSize, 4), 0x5a);
    activePairs = cfg.pairs;
    sending = true;
    measuring = false;
    for (int i = 0; i < activePairs; ++i)
        if (!pairs[static_cast<size_t>(i)].inFlight) startMessage(static_cast<size_t>(i));
    bool okRun = pumpUntil(nowNs() + msToNs(cfg.warmupMs), false);

    latencies.clear();
    latencies.reserve(1 << 20);
    timeouts = 0;
    errors = 0;
    int64_t cpu0 = cfg.serverPid > 0 ? processCpuNs(cfg.serverPid) : -1;
    uint64_t gen0 = selfCpuNs();
    uint64_t t0 = nowNs();
    measuring = true;
    okRun = okRun && pumpUntil(t0 + msToNs(cfg.measureMs), false);
    measuring = false;
    uint64_t t1 = nowNs();
    uint64_t gen1 = selfCpuNs();
    int64_t cpu1 = cfg.serverPid > 0 ? processCpuNs(cfg.serverPid) : -1;

    result.messages = latencies.size();
    result.seconds = static_cast<double>(t1 - t0) / 1e9;
    result.p50Ns = percentile(latencies, 0.50);
    result.p99Ns = percentile(latencies, 0.99);
    result.serverCpuNs = (cpu0 >= 0 && cpu1 >= cpu0) ? cpu1 - cpu0 : -1;
    result.generatorCpuNs = gen1 - gen0;
    result.timeouts = timeouts;
    result.errors = errors;

    sending = false;
    okRun = pumpUntil(nowNs() + msToNs(DRAIN_MS), true) && okRun;
    return okRun;
}

bool PairTraffic::idle(uint64_t ms) {
    sending = false;
    measuring = false;
    return pumpUntil(nowNs() + msToNs(ms), false);
}

}  // namespace bench
