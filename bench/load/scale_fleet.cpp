// A fleet of devices joined to one hub and kept alive.
#include "bench/load/scale_fleet.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>

#include "bench/common/bench_clock.h"
#include "bench/common/loopback_io.h"
#include "Device/PackKit.h"

namespace bench {

namespace {

// A hub busy with a flush can take seconds to answer: handshake steps are sent
// again every 3 s and given up only after a minute.
constexpr uint64_t STEP_RETRY_NS = 3000000000ull;
constexpr int MAX_TRIES = 20;
// A probe ping unanswered for 100 ms is followed by a fresh one: a ping dropped
// on the way (the hub's receive queue overflows when many pongs arrive at once)
// then costs little, while a ping held up by a stall is still timed in full.
constexpr uint64_t PROBE_RESEND_NS = 100000000ull;
constexpr uint64_t SLOW_NS = 50000000ull;            // round trips noted as slow
constexpr uint64_t ROLL_CALL_KEY = 1ull << 63;       // roll-call pings carry index | this
constexpr size_t MAX_OUTSTANDING_PROBES = 600;
constexpr int MAX_EVENTS = 256;
const char* const DOMAIN = "TestDomain_KVZ1";

uint64_t mix64(uint64_t x) {
    x += 0x9e3779b97f4a7c15ull;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return x ^ (x >> 31);
}

}  // namespace

ScaleFleet::ScaleFleet(uint16_t port, std::string duidPrefix) : hubPort(port), prefix(std::move(duidPrefix)) {
    epollFd = ::epoll_create1(EPOLL_CLOEXEC);
}

ScaleFleet::~ScaleFleet() {
    for (Device& d : devices)
        if (d.fd >= 0) ::close(d.fd);
    if (epollFd >= 0) ::close(epollFd);
}

void ScaleFleet::sendPack(Device& d, VeltoPacket& p) {
    uint8_t buf[MAX_PACKET_SIZE];
    int n = packkit::encodeInto(p, d.id, ++d.packetNo, buf, sizeof(buf));
    if (n > 0) sendDatagram(d.fd, loopbackAddress(hubPort), buf, static_cast<size_t>(n));
}

// Sends the pack of the device's current handshake step (again, on a retry).
void ScaleFleet::sendStep(Device& d) {
    d.lastSendNs = nowNs();
    if (d.stage == Stage::ANNOUNCED) {
        NewBornDevicePack p;
        p.duid = d.duid;
        p.specs = "bn";  // too short to be fetched: no download is attempted
        p.intVer = 1;
        sendPack(d, p);
    } else if (d.stage == Stage::JOIN_SENT) {
        NetworkJoinPack p;
        p.duid = d.duid;
        p.nname = d.offeredName;
        p.domain = DOMAIN;
        p.generalFlags = NetworkJoinPack::HaveConfigSummary;
        p.clientRand = d.clientRand;
        p.addrType = NetworkJoinPack::IPV4;
        p.hubPortNo = localPortOf(d.fd);
        const uint8_t self[4] = {127, 0, 0, 1};
        p.addrValue = ByteArray<32>(self, 4);
        sendPack(d, p);
    } else if (d.stage == Stage::CONFIGURING) {
        ConfigSummaryPack p;
        p.duid = d.duid;
        p.noOfObjects = 1;
        p.maxNoOfObjects = 1;
        p.maxPacketSize = static_cast<uint16_t>(MAX_PACKET_SIZE);
        p.maxMessageSize = 4096;
        p.maxNoOfDirectUsers = 4;
        p.random = mix64(d.clientRand);
        sendPack(d, p);
    }
}

bool ScaleFleet::addDevice(std::string& why) {
    Device d;
    d.fd = openLoopbackSocket(0);
    if (d.fd < 0) {
        why = "cannot open socket number " + std::to_string(devices.size() + 1) + " (descriptor limit?)";
        return false;
    }
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = devices.size();
    if (::epoll_ctl(epollFd, EPOLL_CTL_ADD, d.fd, &ev) != 0) {
        ::close(d.fd);
        why = "epoll refused a socket";
        return false;
    }
    d.duid = prefix + std::to_string(devices.size());
    d.clientRand = mix64(devices.size() + 1);
    devices.push_back(d);
    sendStep(devices.back());
    return true;
}

void ScaleFleet::onOffer(Device& d, const uint8_t* data, int n) {
    if (d.stage != Stage::ANNOUNCED) return;
    AdoptionOfferPack p;
    if (p.deserialize(data, static_cast<size_t>(n), false) < 1) return;
    d.offeredName = p.nname.c_str();
    d.stage = Stage::JOIN_SENT;
    d.tries = 0;
    sendStep(d);
}

void ScaleFleet::onAccepted(Device& d, const uint8_t* data, int n) {
    if (d.stage != Stage::JOIN_SENT) return;
    JoinAcceptedPack p;
    if (p.deserialize(data, static_cast<size_t>(n), false) < 1 || p.nodeId == 0) return;
    d.id = p.nodeId;
    d.stage = Stage::CONFIGURING;
    d.tries = 0;
    sendStep(d);
}

void ScaleFleet::onGetObjectInfo(Device& d, const uint8_t* data, int n) {
    if (d.stage != Stage::CONFIGURING) return;
    GetObjectInfoPack q;
    if (q.deserialize(data, static_cast<size_t>(n), false) < 1 || q.objectNo != 0) return;
    ObjectInfoPack p;
    p.objectNo = 0;
    p.ifaceType = ObjectInfoPack::VELTO;
    p.name = "load";
    p.interface = "bench.1";
    d.lastSendNs = nowNs();
    sendPack(d, p);
}

void ScaleFleet::onConfigComplete(Device& d) {
    if (d.stage != Stage::CONFIGURING) return;
    d.stage = Stage::READY;
    ++readyCount;
}

void ScaleFleet::onPing(Device& d, const uint8_t* data, int n) {
    PingPongPack p;
    if (p.deserialize(data, static_cast<size_t>(n), false) < 1) return;
    if (p.pingOrPong == PingPongPack::PING) {
        PingPongPack pong;
        pong.pingOrPong = PingPongPack::PONG;
        pong.replyKey = p.replyKey;
        pong.random = mix64(p.replyKey);
        sendPack(d, pong);
        ++counters.pingsAnswered;
        return;
    }
    size_t index = static_cast<size_t>(&d - devices.data());
    if (p.replyKey & ROLL_CALL_KEY) {
        size_t who = static_cast<size_t>(p.replyKey & ~ROLL_CALL_KEY);
        if (who == index && who < rollAnswered.size()) rollAnswered[who] = true;
        return;
    }
    if (probing && index == 0) onProbeAnswer(p.replyKey, nowNs());
}

void ScaleFleet::onProbeAnswer(uint64_t key, uint64_t now) {
    auto it = probeOutstanding.find(key);
    if (it == probeOutstanding.end()) {
        ++probeOut->stray;
        return;
    }
    uint64_t rtt = now - it->second;
    probeOutstanding.erase(it);
    uint64_t atMs = (now - probeStartNs) / 1000000ull;
    if (probeOut->rttNs.empty() || rtt > probeMaxNs) {
        probeMaxNs = rtt;
        probeOut->worstAtMs = atMs;
    }
    // Pings held up by the same stall end together: note each stall once.
    std::vector<uint64_t>& slow = probeOut->slowAtMs;
    if (rtt >= SLOW_NS && slow.size() < 20 && (slow.empty() || atMs > slow.back() + 500)) slow.push_back(atMs);
    probeOut->rttNs.push_back(rtt);
}

// Sends the next probe ping when the last one has been answered, or a fresh one
// beside a last ping that has waited too long (an older ping lost on the way
// must not slow the probe down).
void ScaleFleet::probeStep(uint64_t now) {
    bool lastWaiting = probeOutstanding.count(probeKey) > 0;
    if (lastWaiting && (now <= probeLastSendNs || now - probeLastSendNs < PROBE_RESEND_NS)) return;
    if (probeOutstanding.size() >= MAX_OUTSTANDING_PROBES) return;
    probeKey = mix64(probeKey + 1) & ~ROLL_CALL_KEY;
    PingPongPack ping;
    ping.pingOrPong = PingPongPack::PING;
    ping.replyKey = probeKey;
    probeLastSendNs = nowNs();
    probeOutstanding[probeKey] = probeLastSendNs;
    sendPack(devices[0], ping);
}

void ScaleFleet::handleReadable(size_t index) {
    Device& d = devices[index];
    uint8_t buf[MAX_PACKET_SIZE];
    sockaddr_in from;
    int n = receiveNow(d.fd, buf, sizeof(buf), from);
    if (n <= 0) return;
    switch (packIdOf(buf, n)) {
        case AdoptionOfferPack::PACK_ID:
            onOffer(d, buf, n);
            break;
        case JoinAcceptedPack::PACK_ID:
            onAccepted(d, buf, n);
            break;
        case GetObjectInfoPack::PACK_ID:
            onGetObjectInfo(d, buf, n);
            break;
        case ConfigurationCompletePack::PACK_ID:
            onConfigComplete(d);
            break;
        case PingPongPack::PACK_ID:
            onPing(d, buf, n);
            break;
        default:
            break;
    }
}

void ScaleFleet::checkRetries(uint64_t now) {
    for (Device& d : devices) {
        if (d.stage == Stage::READY || d.stage == Stage::FAILED) continue;
        if (now <= d.lastSendNs || now - d.lastSendNs < STEP_RETRY_NS) continue;
        if (++d.tries >= MAX_TRIES) {
            d.stage = Stage::FAILED;
            ++failedCount;
            ++counters.failed;
            continue;
        }
        ++counters.retries;
        sendStep(d);
    }
}

bool ScaleFleet::pump(uint64_t deadlineNs, int growTarget, int window) {
    epoll_event events[MAX_EVENTS];
    uint64_t nextCheck = 0;
    std::string why;
    for (;;) {
        uint64_t now = nowNs();
        if (now >= deadlineNs) return growTarget <= 0;
        if (growTarget > 0 && readyCount >= growTarget) return true;
        while (growTarget > 0 && inHandshake() < window &&
               static_cast<int>(devices.size()) - failedCount < growTarget)
            if (!addDevice(why)) return false;
        if (now >= nextCheck) {
            checkRetries(now);
            nextCheck = now + msToNs(100);
        }
        if (probing) probeStep(now);
        int n = ::epoll_wait(epollFd, events, MAX_EVENTS, 5);
        for (int i = 0; i < n; ++i) handleReadable(static_cast<size_t>(events[i].data.u64));
    }
}

bool ScaleFleet::growTo(int total, int window, uint64_t timeoutMs, std::string& why) {
    if (epollFd < 0) {
        why = "epoll unavailable";
        return false;
    }
    if (!pump(nowNs() + msToNs(timeoutMs), total, std::max(1, window))) {
        if (why.empty())
            why = "only " + std::to_string(readyCount) + " of " + std::to_string(total) + " devices connected (" +
                  std::to_string(failedCount) + " failed)";
        return false;
    }
    return true;
}

bool ScaleFleet::serve(uint64_t ms) { return pump(nowNs() + msToNs(ms), 0, 0); }

bool ScaleFleet::probe(uint64_t ms, ProbeResult& out) {
    if (devices.empty() || devices[0].stage != Stage::READY) return false;
    out = ProbeResult();
    probeOut = &out;
    probing = true;
    probeOutstanding.clear();
    probeMaxNs = 0;
    probeStartNs = nowNs();
    pump(probeStartNs + msToNs(ms), 0, 0);
    // Answers still on their way are waited for a little.
    pump(nowNs() + msToNs(probeOutstanding.empty() ? 0 : 3000), 0, 0);
    out.lost = probeOutstanding.size();
    probing = false;
    probeOut = nullptr;
    return true;
}

int ScaleFleet::rollCall(uint64_t timeoutMs) {
    rollAnswered.assign(devices.size(), false);
    uint64_t deadline = nowNs() + msToNs(timeoutMs);
    // Small batches, each answered before the next goes out: a burst of
    // hundreds would overflow the hub's receive queue.
    const size_t batch = 32;
    for (int pass = 0; pass < 3 && nowNs() < deadline; ++pass) {
        for (size_t start = 0; start < devices.size() && nowNs() < deadline; start += batch) {
            size_t end = std::min(devices.size(), start + batch);
            size_t sent = 0;
            for (size_t i = start; i < end; ++i) {
                if (rollAnswered[i] || devices[i].id == 0) continue;
                PingPongPack ping;
                ping.pingOrPong = PingPongPack::PING;
                ping.replyKey = ROLL_CALL_KEY | i;
                sendPack(devices[i], ping);
                ++sent;
            }
            uint64_t batchEnd = std::min(deadline, nowNs() + msToNs(sent ? 200 : 0));
            while (nowNs() < batchEnd &&
                   !std::all_of(rollAnswered.begin() + static_cast<long>(start),
                                rollAnswered.begin() + static_cast<long>(end), [](bool a) { return a; }))
                pump(std::min(batchEnd, nowNs() + msToNs(1)), 0, 0);
        }
    }
    int answered = 0;
    for (bool a : rollAnswered) answered += a ? 1 : 0;
    rollAnswered.clear();
    return answered;
}

}  // namespace bench
