// The process-wide objects, the receive loop and the dispatch of every pack.
#include <iostream>  // first: the standard streams must exist before the globals print

#include "Hub/server.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <chrono>
#include <csignal>
#include <thread>

#include "Hub/Activation.h"
#include "Hub/configuration.h"
#include "Hub/log_line.h"
#include "Hub/messages.h"
#include "Hub/newDevice.h"
#include "Hub/service_notify.h"

// Built in this order; later ones refer to earlier ones.
std::string myDomain = "TestDomain_KVZ1";
ClientsDatabase clientsDb("DB");
SpecsDB specDb("DB");
ClientManager clientMgr(clientsDb);
MessageSecurityMgr securityMgr;
HubID serverNodeId = 17;

const char* const HUB_MCAST_GROUP = "224.68.12.8";

namespace {

volatile std::sig_atomic_t stopRequested = 0;

extern "C" void onStopSignal(int) { stopRequested = 1; }

// Collects output in memory and writes it to a descriptor only when full or
// flushed, so that a log line costs no system call of its own.
class FdOutBuf : public std::streambuf {
public:
    FdOutBuf(int fd_, size_t capacity) : fd(fd_), storage(capacity) { resetArea(); }

protected:
    int_type overflow(int_type ch) override {
        if (!drain()) return traits_type::eof();
        if (!traits_type::eq_int_type(ch, traits_type::eof())) {
            *pptr() = traits_type::to_char_type(ch);
            pbump(1);
        }
        return traits_type::not_eof(ch);
    }

    int sync() override { return drain() ? 0 : -1; }

private:
    void resetArea() { setp(storage.data(), storage.data() + storage.size()); }

    // Writes out what is buffered, retrying interrupted and partial writes.
    // On an error the buffered bytes are dropped and false is returned.
    bool drain() {
        const char* p = pbase();
        size_t n = static_cast<size_t>(pptr() - pbase());
        bool ok = true;
        while (n > 0) {
            ssize_t w = ::write(fd, p, n);
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) {
                ok = false;
                break;
            }
            p += w;
            n -= static_cast<size_t>(w);
        }
        resetArea();
        return ok;
    }

    int fd;
    std::vector<char> storage;
};

// The loop's deadlines for the periodic work.
struct PeriodicDeadlines {
    Timestamp nextCleanup;
    Timestamp nextFlush;
    uint32_t flushEvery;
};

// Milliseconds from now to deadline, 0 when it has passed.
uint32_t millisecondsUntil(Timestamp deadline, Timestamp now) {
    return now < deadline ? static_cast<uint32_t>(deadline - now) : 0;
}

// How long the loop looks for a next datagram before it writes its output
// out, microseconds. Traffic in flight (an acknowledgement, the next piece)
// mostly comes back within this; the log write then waits for a real pause
// (or a full buffer) instead of delaying that datagram.
constexpr uint32_t OUTPUT_GRACE_US = 100;
// The same look ahead made inside the receive call (one system call instead of
// a wait and a receive when the datagram comes), which the kernel rounds up to
// a clock tick: used only while no timed work is due within TICK_BOUND_MS.
constexpr uint32_t BLOCKING_GRACE_US = 1000;
constexpr uint32_t TICK_BOUND_MS = 12;

// Datagrams taken from the socket together, handed to the loop one per pass
// in arrival order: while traffic queues up, one system call serves several
// passes.
class ReceivedDatagrams {
public:
    static constexpr size_t CAPACITY = 16;

    bool empty() const { return next >= count; }
    // How many the last refill took (0 when it found none).
    size_t lastCount() const { return count; }
    // Takes what the socket has queued (at most CAPACITY) without waiting:
    // how many, 0 for none, -1 on error.
    int refill(UdpSocket& sock) { return refillWaiting(sock, 0); }
    // The same, waiting up to about maxWaitUs for the first one (see
    // UdpSocket::recvBatchWait).
    int refillWaiting(UdpSocket& sock, uint32_t maxWaitUs) {
        next = count = 0;
        const int n = sock.recvBatchWait(&data[0][0], RECV_BUFFER_SIZE, CAPACITY, sizes, peers, maxWaitUs);
        if (n > 0) count = static_cast<size_t>(n);
        return n;
    }
    // The next datagram (not empty()): its bytes, sender and byte count.
    int take(const uint8_t*& bytes, SockAddress& peer) {
        bytes = data[next];
        peer = peers[next];
        return sizes[next++];
    }

private:
    uint8_t data[CAPACITY][RECV_BUFFER_SIZE];
    int sizes[CAPACITY];
    SockAddress peers[CAPACITY];
    size_t next = 0;
    size_t count = 0;
};

// Waits up to micros for a datagram, then takes what is queued; the result
// of the wait (0, -1) or of the refill.
int waitAndRefill(UdpSocket& sock, ReceivedDatagrams& in, uint64_t micros) {
    const int w = pendingActivations().waitReadable(sock, micros);
    return w <= 0 ? w : in.refill(sock);
}

// While the datagrams of one received batch are handled, what the hub sends
// is held and goes out with one system call once the batch is done (or before
// periodic work, which may take milliseconds): several senders' traffic then
// costs one send call. A batch of one is not held.
class BatchSends {
public:
    void holdFor(UdpSocket& sock) {
        if (holding) return;
        sock.holdSends();
        holding = true;
    }
    void release(UdpSocket& sock) {
        if (!holding) return;
        sock.releaseSends();
        holding = false;
    }

private:
    bool holding = false;
};

// The short look ahead before the output is written: inside the receive call
// when the wait may run a clock tick long, else a precise wait and a receive.
int refillWithinGrace(UdpSocket& sock, ReceivedDatagrams& in, uint32_t waitMs) {
    if (waitMs > TICK_BOUND_MS) return in.refillWaiting(sock, BLOCKING_GRACE_US);
    return waitAndRefill(sock, in, OUTPUT_GRACE_US);
}

// One datagram: the next one already taken from the socket, else whatever the
// socket has queued, else whatever comes within a short look ahead; only when
// nothing comes is the output flushed and the bounded wait made. When the last
// batch held one datagram at most, traffic is going back and forth and the
// socket is most likely empty: the look ahead comes first then (it returns at
// once when something is queued), which spares a receive that finds nothing.
// Returns the datagram's byte count (0 when none came, also for an empty
// datagram) or -1 on error.
int receiveDatagram(UdpSocket& sock, ReceivedDatagrams& in, const uint8_t*& data, SockAddress& peer,
                    uint32_t waitMs) {
    if (in.empty()) {
        const bool mayWait = waitMs > 0 && !stopRequested;
        int r = 0;
        if (mayWait && in.lastCount() <= 1) {
            r = refillWithinGrace(sock, in, waitMs);
        } else {
            r = in.refill(sock);
            if (r == 0 && mayWait) r = refillWithinGrace(sock, in, waitMs);
        }
        if (r == 0) {
            flushOutput();
            if (!mayWait) return 0;
            r = waitAndRefill(sock, in, static_cast<uint64_t>(waitMs) * 1000u);
        }
        if (r <= 0) return r;
    }
    return in.take(data, peer);
}

// A receive interrupted by a stop signal is not an error.
void reportReceiveError() {
    if (stopRequested) return;
    std::cerr << "Error while receiving \n";
    std::this_thread::sleep_for(std::chrono::microseconds(100));
}

// True when doPeriodicWork may write records or walk the devices in this pass.
bool periodicWorkDue(const PeriodicDeadlines& d, Timestamp now) {
    return now >= d.nextFlush || now >= d.nextCleanup || clientMgr.flushPending();
}

// Flush and clean-up, judged against the pass's own now; each deadline moves
// forward from a fresh clock reading taken after its work. A flush round
// writes a few milliseconds' worth of records per step until it is done: in
// every pass that found no datagram, and at most every 20 ms while datagrams
// keep coming (busy).
void doPeriodicWork(PeriodicDeadlines& d, Timestamp now, bool busy) {
    if (now >= d.nextFlush) {
        clientMgr.doFlush(now);
        d.nextFlush = currentTime() + d.flushEvery;
    } else {
        clientMgr.continueFlush(busy);
    }
    if (now >= d.nextCleanup) {
        clientMgr.doCleanUp(now);
        d.nextCleanup = currentTime() + MaxCleanupInterval;
    }
}

template <typename T>
using PackHandler = void (*)(const T&, const SockAddress&, ClientProxy&);

template <typename T>
void keyWithSessionKey(T& pack, uint8_t sigType, ClientProxy& client) {
    const ByteArray<32>& key = client.record().sessionKey;
    pack.signature.setKey(sigType, key.data(), key.size());
}

void logDeserializeFailure(const VeltoPacket& pack) {
    LogLine(std::cerr) << "ERROR !!! Failed to deserialize Packet ID " << unsigned(pack.id)
                       << " have signature type: " << unsigned(pack.signature.signatureType()) << '\n';
}

void logVerifyFailure(const char* prefix, const VeltoPacket& pack) {
    LogLine(std::cerr) << prefix << "Failed to verify signature for Packet ID " << unsigned(pack.id)
                       << " have signature type: " << unsigned(pack.signature.signatureType()) << '\n';
}

void logPacketTrace(const VeltoPacket& pack, size_t size) {
    LogLine(std::cout) << "DBG: Packet ID " << unsigned(pack.id) << " sz=" << size << " from " << pack.devId
                       << " signature type: " << unsigned(pack.signature.signatureType())
                       << " verified: " << (pack.signature.verified() ? 1 : 0) << '\n';
}

// Packs 1 and 3 come from senders that have no key yet: read without one, and
// the handler runs whatever the signature check said.
template <typename T>
void handleFromAnySender(const uint8_t* data, size_t size, const SockAddress& peer, UdpSocket& sock,
                         void (*handler)(const T&, const SockAddress&, UdpSocket&)) {
    T pack;
    if (pack.deserialize(data, size, true) > 1) handler(pack, peer, sock);
}

// The inline carrier path (packs 31 and 32): a bad signature is logged with the
// path's own wording and the pack is handled all the same (kept: carrier
// traffic is not blocked on a bad signature).
template <typename T>
void handleCarrier(const uint8_t* data, size_t size, uint8_t sigType, const char* verifyPrefix,
                   PackHandler<T> handler, const SockAddress& peer, ClientProxy& client) {
    T pack;
    keyWithSessionKey(pack, sigType, client);
    if (pack.deserialize(data, size, true) < 2) {
        logDeserializeFailure(pack);
        return;
    }
    logPacketTrace(pack, size);
    if (sigType != NO_SIGNATURE_TYPE && !pack.signature.verified()) logVerifyFailure(verifyPrefix, pack);
    client.setLastPackTime(currentTime());
    handler(pack, peer, client);
}

}  // namespace

// Deserialise, verify with the client's session key, dispatch. An unverified
// pack is dropped and does not count as a sign of life. encType is carried only.
template <typename T>
void CALL(const uint8_t* data, size_t size, uint8_t sigType, uint8_t encType, PackHandler<T> handler,
          const SockAddress& peer, ClientProxy& client) {
    (void)encType;
    T pack;
    keyWithSessionKey(pack, sigType, client);
    if (pack.deserialize(data, size, true) < 2) {
        logDeserializeFailure(pack);
        return;
    }
    logPacketTrace(pack, size);
    if (!pack.signature.verified()) {
        logVerifyFailure("ERROR !!! ", pack);
        return;
    }
    client.setLastPackTime(currentTime());
    handler(pack, peer, client);
}

uint32_t flushIntervalFromEnvironment() {
    const char* text = std::getenv("VELTO_FLUSH_INTERVAL_MS");
    if (text == nullptr || *text < '0' || *text > '9') return FlushInterval;
    char* end = nullptr;
    errno = 0;
    const unsigned long ms = std::strtoul(text, &end, 10);
    if (errno != 0 || *end != '\0' || ms < 1 || ms > FlushInterval) return FlushInterval;
    return static_cast<uint32_t>(ms);
}

void stopMainThread() { stopRequested = 1; }

bool mainThreadStopRequested() { return stopRequested != 0; }

bool installStopSignalHandlers() {
    struct sigaction sa {};
    sa.sa_handler = onStopSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: the wait returns at once
    bool ok = sigaction(SIGTERM, &sa, nullptr) == 0;
    return sigaction(SIGINT, &sa, nullptr) == 0 && ok;
}

void setUpBufferedOutput() {
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
    std::ios::sync_with_stdio(false);
    // Never freed: the streams may still be flushed while the process exits.
    static FdOutBuf* outBuf = new FdOutBuf(STDOUT_FILENO, 1 << 16);
    static FdOutBuf* errBuf = new FdOutBuf(STDERR_FILENO, 1 << 14);
    std::cout.rdbuf(outBuf);
    std::cerr.rdbuf(errBuf);
    std::cerr.tie(nullptr);
    std::cerr.unsetf(std::ios::unitbuf);
}

void flushOutput() {
    std::cout.flush();
    std::cerr.flush();
}

Timestamp EventBatch::runDue(Timestamp now) {
    clientMgr.retrievePendingEventsUpTo(pendingEvents, now + MaxCleanupInterval);
    if (pendingEvents.empty() || pendingEvents.front().t > now) return now;
    leftOverEvents.clear();
    for (const EventEntry& e : pendingEvents) {
        if (e.t <= now)
            handleEvent(e, now);
        else
            leftOverEvents.push_back(e);
    }
    pendingEvents.swap(leftOverEvents);
    return currentTime();
}

Timestamp EventBatch::nextEventTime(Timestamp now) const {
    Timestamp next = now + MaxCleanupInterval;
    if (!pendingEvents.empty() && pendingEvents.front().t < next) next = pendingEvents.front().t;
    return next;
}

void mainThread(UdpSocket& sock) {
    ReceivedDatagrams received;
    PeriodicDeadlines deadlines;
    deadlines.nextCleanup = currentTime() + MaxCleanupInterval;
    deadlines.flushEvery = flushIntervalFromEnvironment();
    deadlines.nextFlush = currentTime() + deadlines.flushEvery;
    EventBatch events;
    BatchSends sends;

    while (!stopRequested) {
        SockAddress peer;  // the any-address, port 0
        Timestamp now = events.runDue(currentTime());
        serviceNotifier().keepAlive(now);  // WATCHDOG=1 when the service manager asks for it
        // While a flush round has records left the loop only looks for datagrams.
        uint32_t wait = clientMgr.flushPending() ? 0 : millisecondsUntil(events.nextEventTime(now), now);

        const uint8_t* datagram = nullptr;
        int bytes = receiveDatagram(sock, received, datagram, peer, wait);
        if (!received.empty()) sends.holdFor(sock);
        if (bytes < 0)
            reportReceiveError();
        else if (bytes > 0)
            handleDatagram(datagram, static_cast<size_t>(bytes), peer, sock);
        pendingActivations().drive(sock);

        if (received.empty() || periodicWorkDue(deadlines, now)) sends.release(sock);
        doPeriodicWork(deadlines, now, bytes > 0);
    }
    sends.release(sock);
}

void handleDatagram(const uint8_t* data, size_t bytes, const SockAddress& peer, UdpSocket& sock) {
    VeltoPacket header;
    if (header.deserialize(data, bytes, false) < 1) {
        LogLine(std::cerr) << " received too small packet to deserialize id " << bytes << " bytes\n";
        return;
    }
    switch (header.id) {
        case NewBornDevicePack::PACK_ID:
            handleFromAnySender<NewBornDevicePack>(data, bytes, peer, sock, handleNewBaby);
            break;
        case NetworkJoinPack::PACK_ID:
            handleFromAnySender<NetworkJoinPack>(data, bytes, peer, sock, handleDomainJoin);
            break;
        default:
            handleConnectedMsgs(header, data, bytes, peer, sock);
            break;
    }
}

void handleConnectedMsgs(const VeltoPacket& header, const uint8_t* data, size_t size, const SockAddress& peer,
                         UdpSocket& sock) {
    ClientProxy* client = clientMgr.getClient(header.devId);
    if (client == nullptr) {
        // kept: the pack id is written as a raw character, not as a number
        LogLine(std::cerr) << "handleConnectedMsgs(): Failed to get client for nodeId=" << header.devId
                           << " msgId=" << static_cast<char>(header.id) << " from " << peer << '\n';
        return;
    }
    // Held until the device's ConfigurationComplete while its documents download.
    if (header.id != PingPongPack::PACK_ID && pendingActivations().hold(client, data, size, peer)) return;
    uint8_t sigType = header.signature.signatureType();
    uint8_t encType = header.encType;
    switch (header.id) {
        case ConfigSummaryPack::PACK_ID:
            CALL<ConfigSummaryPack>(data, size, sigType, encType, handleConfigSummary, peer, *client);
            break;
        case ObjectInfoPack::PACK_ID:
            CALL<ObjectInfoPack>(data, size, sigType, encType, handleObjectInfo, peer, *client);
            break;
        case PingPongPack::PACK_ID:
            CALL<PingPongPack>(data, size, sigType, encType, handlePingPong, peer, *client);
            break;
        case MessageCarrierPack::PACK_ID:
            sock.holdSends();  // the acknowledgement and the pieces sent on go out together
            handleCarrier<MessageCarrierPack>(data, size, sigType, "ERROR ! ", handleMessagePack, peer, *client);
            sock.releaseSends();
            break;
        case MessageCarrierACKPack::PACK_ID:
            sock.holdSends();
            handleCarrier<MessageCarrierACKPack>(data, size, sigType, "ERROR !! ", handleMessageACK, peer, *client);
            sock.releaseSends();
            break;
        case NotificationSubscriptionPack::PACK_ID:
            CALL<NotificationSubscriptionPack>(data, size, sigType, encType, handleNotificationSubscription, peer,
                                               *client);
            break;
        default:
            handleUnknownMsgs(header, data, size, peer, sock);
            break;
    }
}

void handleUnknownMsgs(const VeltoPacket&, const uint8_t*, size_t, const SockAddress&, UdpSocket&) {}

void handleEvent(const EventEntry& e, Timestamp now) {
    (void)now;
    if (e.type == EventEntry::DESTROY_DEVICE) {
        clientMgr.destroyClient(e.dev);
        return;
    }
    ClientProxy* client = clientMgr.getClient(e.dev);
    if (client != nullptr) client->handleEvent(e);
}
