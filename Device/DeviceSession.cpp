// A device's session with its hub: handshake, configuration, liveness and the
// message traffic, driven by poll().
#include "Device/DeviceSession.h"

#include <algorithm>
#include <sstream>

#include "Velto/platform.h"

namespace device {

namespace {

constexpr size_t MAX_REMEMBERED_OUTCOMES = 256;
constexpr int MAX_DATAGRAMS_PER_POLL = 64;
// The blocking helpers look at their condition at least this often: poll()
// itself returns only when datagrams arrive or its time is up.
constexpr int HELPER_SLICE_MS = 20;

uint64_t fresh64() {
    uint64_t v = 0;
    if (!randomNumber(v)) v = currentTime() * 6364136223846793005ULL + 1442695040888963407ULL;
    return v;
}

std::string addressText(const SockAddress& a) {
    std::ostringstream os;
    os << a;
    return os.str();
}

int remainingMs(Timestamp deadline) {
    Timestamp now = currentTime();
    return now >= deadline ? 0 : static_cast<int>(std::min<Timestamp>(deadline - now, 1u << 30));
}

Timestamp deadlineAfter(int timeoutMs) { return currentTime() + static_cast<Timestamp>(std::max(0, timeoutMs)); }

}  // namespace

DeviceSession::DeviceSession(DeviceConfig c, SessionTiming t)
    : cfg(std::move(c)), timing(t), mainKey(effectiveMainKey(cfg.mainKey)), inbox(cfg.maxMessageSize) {}

const char* DeviceSession::stateName(State s) {
    switch (s) {
        case State::IDLE:
            return "idle";
        case State::ANNOUNCING:
            return "announcing";
        case State::JOINING:
            return "joining";
        case State::CONFIGURING:
            return "configuring";
        case State::READY:
            return "ready";
        case State::LOST:
            return "lost";
    }
    return "?";
}

bool DeviceSession::fail(const std::string& why) {
    lastErr = why;
    return false;
}

void DeviceSession::diag(const std::string& line) {
    if (diagCb) diagCb(line);
}

// ---------------------------------------------------------------------------
// Handshake

bool DeviceSession::start() {
    std::string why;
    if (!validateConfig(cfg, why)) return fail("invalid device configuration: " + why);
    if (!link.isOpen() && !link.open()) return fail("cannot open a UDP socket");
    outbox.abandonAll("the session was restarted");
    reportDeliveries();
    myId = 0;
    hubPacketNo = -1;
    everReady = rejoining = false;
    lostAt = resumeSendingAt = 0;
    held.clear();
    withdrawn.clear();
    resetHandshake();
    st = State::ANNOUNCING;
    Timestamp now = currentTime();
    lastHeard = now;
    announce(now);
    return true;
}

// What every handshake starts from; the node id is kept for the messages
// queued while rejoining.
void DeviceSession::resetHandshake() {
    if (cfg.discover)
        link.forgetHub();
    else
        link.setHub(cfg.hub);
    link.setDeviceId(0);
    link.setSigning(NO_SIGNATURE_TYPE, ByteArray<32>());
    sessKey = ByteArray<32>();
    offerSeen = false;
    discovered = false;
    joinProblem.clear();
    unansweredPingAt = 0;
}

void DeviceSession::announce(Timestamp now) {
    NewBornDevicePack p;
    p.duid = cfg.duid;
    p.specs = cfg.specs;
    p.intVer = cfg.intVer;
    p.prevn = nodeName;
    p.prevdom = hubDomain;
    lastAnnounce = now;
    bool sent = cfg.discover && !discovered ? link.sendTo(discoveryAddress(), p) : link.send(p);
    if (!sent) diag("could not send the announcement");
}

void DeviceSession::sendJoin(Timestamp now) {
    NetworkJoinPack p;
    p.duid = cfg.duid;
    p.nname = nodeName;
    p.domain = cfg.domain;
    p.generalFlags = NetworkJoinPack::HaveConfigSummary;
    clientRand = fresh64();
    p.clientRand = clientRand;
    p.addrType = NetworkJoinPack::IPV4;
    p.hubPortNo = link.localPort();
    uint8_t self[4];
    if (HubLink::localAddressToward(link.hub(), self)) p.addrValue = ByteArray<32>(self, 4);
    joinSentAt = now;
    st = State::JOINING;
    if (!link.send(p)) diag("could not send the join request");
}

bool DeviceSession::join(int timeoutMs) {
    if (st == State::READY) return true;
    Timestamp deadline = deadlineAfter(timeoutMs);
    if (st == State::IDLE && !start()) return false;
    while (st != State::READY) {
        int left = remainingMs(deadline);
        if (left == 0) return fail(joinFailure(timeoutMs));
        if (poll(std::min(left, HELPER_SLICE_MS)) < 0) return false;
    }
    lastErr.clear();
    return true;
}

std::string DeviceSession::joinFailure(int timeoutMs) const {
    std::string within = " within " + std::to_string(timeoutMs) + " ms";
    if (st == State::CONFIGURING) return "the hub did not complete the configuration exchange" + within;
    if (!joinProblem.empty()) return "join not accepted: " + joinProblem;
    if (!offerSeen) {
        if (cfg.discover)
            return "no hub answered the announcement to " + addressText(discoveryAddress()) + within;
        return "no answer from the hub at " + addressText(cfg.hub) + within + " (is it running?)";
    }
    std::string msg = "join not accepted by the hub" + within + "; maybe the domain \"" + cfg.domain + "\" is wrong";
    if (!hubDomain.empty() && hubDomain != cfg.domain) msg += " (the hub offered \"" + hubDomain + "\")";
    return msg;
}

void DeviceSession::handleOffer(const uint8_t* data, size_t n, const SockAddress& from, Timestamp now) {
    if (st != State::ANNOUNCING) return;  // answers to repeated announcements
    AdoptionOfferPack offer;
    SignatureCheck check;
    if (!decodeAndCheck(offer, data, n, mainKey, check)) return diag("refused a malformed adoption offer");
    if (offer.duid != cfg.duid) return;  // meant for another device
    if (check == SignatureCheck::BAD) {
        joinProblem = "the hub's signature on its adoption offer does not verify (wrong main key?)";
        return diag("refused adoption offer: " + joinProblem);
    }
    if (check == SignatureCheck::NOT_CHECKABLE)
        diag("adoption offer signed with type 2: not checkable by the protocol, accepted unchecked");
    link.setHubId(offer.svrNodeId);
    offerSeen = true;
    if (cfg.discover && !discovered) {
        // The hub files a newcomer under the source address of its
        // announcement, and a multicast announcement may leave with another
        // source address than our unicast packs. Announce once more, straight
        // to the hub, and join on that offer.
        discovered = true;
        link.setHub(from);
        announce(now);
        return;
    }
    hubDomain = offer.domain.str();
    nodeName = cfg.name.empty() ? offer.nname.str() : cfg.name;
    if (nodeName.empty()) nodeName = cfg.duid;
    if (hubDomain != cfg.domain)
        diag("the hub offers domain \"" + hubDomain + "\"; joining \"" + cfg.domain + "\" as configured");
    sendJoin(now);
}

void DeviceSession::handleAcceptance(const uint8_t* data, size_t n, Timestamp now) {
    if (st != State::JOINING) return;
    JoinAcceptedPack acc;
    SignatureCheck check;
    if (!decodeAndCheck(acc, data, n, mainKey, check)) return diag("refused a malformed join acceptance");
    if (acc.duid != cfg.duid) return;
    if (check == SignatureCheck::BAD) {
        joinProblem = "the hub's signature on the join acceptance does not verify (wrong main key?)";
        return diag("refused join acceptance: " + joinProblem);
    }
    if (check == SignatureCheck::NOT_CHECKABLE)
        diag("join acceptance signed with type 2: not checkable by the protocol, accepted unchecked");
    ByteArray<32> key;
    if (!recoverSessionKey(acc, clientRand, mainKey, key)) {
        joinProblem = "the session key uses encryption type " + std::to_string(acc.encAlg) +
                      ", which the device cannot undo";
        return diag("refused join acceptance: " + joinProblem);
    }
    if (acc.nodeId == 0) {
        joinProblem = "the hub gave node id 0";
        return diag("refused join acceptance: " + joinProblem);
    }
    if (myId != 0 && acc.nodeId != myId)
        diag("the hub gave node id " + std::to_string(acc.nodeId) + " instead of " + std::to_string(myId) +
             "; messages queued meanwhile still name the old one");
    myId = acc.nodeId;
    sessKey = key;
    link.setDeviceId(myId);
    if (cfg.sign) link.setSigning(HMAC_SHA1_TYPE, sessKey);
    st = State::CONFIGURING;
    lastHeard = now;
    sendConfigSummary(now);
}

// ---------------------------------------------------------------------------
// Configuration exchange

void DeviceSession::sendConfigSummary(Timestamp now) {
    ConfigSummaryPack p;
    p.duid = cfg.duid;
    p.noOfObjects = static_cast<uint8_t>(cfg.objects.size());
    p.maxNoOfObjects = p.noOfObjects;
    p.maxPacketSize = static_cast<uint16_t>(MAX_PACKET_SIZE);
    p.maxMessageSize = cfg.maxMessageSize;
    p.maxNoOfDirectUsers = 16;
    p.random = fresh64();
    configSentAt = now;
    lastObjectSent = -1;
    if (!link.send(p)) diag("could not send the configuration summary");
}

void DeviceSession::sendObjectInfo(uint8_t objectNo, Timestamp now) {
    const DeviceObject& o = cfg.objects[objectNo];
    ObjectInfoPack p;
    p.objectNo = objectNo;
    p.groupNo = o.groupNo;
    p.ifaceType = o.ifaceType;
    p.name = o.name;
    p.interface = o.interface;
    configSentAt = now;
    lastObjectSent = objectNo;
    if (!link.send(p)) diag("could not send object information");
}

void DeviceSession::handleGetObjectInfo(const uint8_t* data, size_t n, Timestamp now) {
    GetObjectInfoPack p;
    if (!acceptPostJoin(p, data, n)) return;
    if (p.objectNo >= cfg.objects.size())
        return diag("the hub asked for object " + std::to_string(p.objectNo) + " of " +
                    std::to_string(cfg.objects.size()));
    sendObjectInfo(p.objectNo, now);
}

void DeviceSession::handleConfigComplete(const uint8_t* data, size_t n) {
    ConfigurationCompletePack p;
    if (!acceptPostJoin(p, data, n)) return;
    if (st == State::CONFIGURING) becomeReady(currentTime());
}

void DeviceSession::becomeReady(Timestamp now) {
    st = State::READY;
    everReady = true;
    if (!rejoining) {
        renewPauseMs = timing.renewMaxMs;
        nextRenewAt = now + static_cast<Timestamp>(renewPauseMs);
        return;
    }
    rejoining = false;
    tries = 0;
    resumeSendingAt = now + static_cast<Timestamp>(std::max(0, timing.rejoinSettleMs));
    renewSubscriptions(now, true);
    renewPauseMs = 1000;
    nextRenewAt = now + static_cast<Timestamp>(renewPauseMs);
    if (lostAt == 0) return;  // lost before the first join was complete: nothing was reported
    diag("session back: node " + std::to_string(myId) + " after " + std::to_string(now - lostAt) + " ms");
    lostAt = 0;
    lastErr.clear();
    if (sessionCb) sessionCb(true);
}

// ---------------------------------------------------------------------------
// Receiving

bool DeviceSession::acceptPostJoin(VeltoPacket& pack, const uint8_t* data, size_t n) {
    if (st != State::CONFIGURING && st != State::READY) {
        // While rejoining, a hub that still holds the lost session may go on
        // pinging and sending pieces for a moment: expected, not noted.
        if (!rejoining) diag("ignored pack " + std::to_string(data[0]) + " outside a session");
        return false;
    }
    SignatureCheck check;
    if (!decodeAndCheck(pack, data, n, sessKey, check)) {
        diag("refused malformed pack " + std::to_string(data[0]) + " from the hub");
        return false;
    }
    if (check == SignatureCheck::BAD) {
        diag("refused pack " + std::to_string(data[0]) + ": its signature does not verify");
        return false;
    }
    if (check == SignatureCheck::NOT_CHECKABLE && !warnedType2) {
        warnedType2 = true;
        diag("the hub signs with type 2, which the protocol cannot check; packs accepted unchecked");
    }
    if (pack.devId != 0 && pack.devId != myId) {
        diag("refused pack " + std::to_string(data[0]) + " addressed to node " + std::to_string(pack.devId));
        return false;
    }
    hubPacketNo = pack.packetNo;
    return true;
}

void DeviceSession::handleDatagram(const uint8_t* data, size_t n, const SockAddress& from, Timestamp now) {
    VeltoPacket header;
    if (header.deserialize(data, n, false) < 1) return diag("refused a datagram too short for a pack");
    if (link.hasHub() && from != link.hub())
        return noteStranger(from);
    if (link.hasHub()) {
        lastHeard = now;
        unansweredPingAt = 0;
    }
    switch (header.id) {
        case AdoptionOfferPack::PACK_ID:
            return handleOffer(data, n, from, now);
        case JoinAcceptedPack::PACK_ID:
            return handleAcceptance(data, n, now);
        case GetObjectInfoPack::PACK_ID:
            return handleGetObjectInfo(data, n, now);
        case ConfigurationCompletePack::PACK_ID:
            return handleConfigComplete(data, n);
        case PingPongPack::PACK_ID:
            return handlePing(data, n, now);
        case MessageCarrierPack::PACK_ID:
            return handleCarrier(data, n);
        case MessageCarrierACKPack::PACK_ID:
            return handleAck(data, n);
        case MessageErrorPack::PACK_ID:
            return handleError(data, n);
        default:
            return diag("refused unexpected pack " + std::to_string(header.id) + " from the hub");
    }
}

// A stranger may send any number of datagrams: the 1st, 2nd, 4th, 8th, ...
// get a line.
void DeviceSession::noteStranger(const SockAddress& from) {
    ++strangers;
    if ((strangers & (strangers - 1)) != 0) return;
    diag("ignored a datagram from " + addressText(from) + ", which is not the hub (" + std::to_string(strangers) +
         " so far)");
}

void DeviceSession::handlePing(const uint8_t* data, size_t n, Timestamp) {
    PingPongPack p;
    if (!acceptPostJoin(p, data, n)) return;
    if (p.pingOrPong != PingPongPack::PING) return;
    PingPongPack pong;
    pong.pingOrPong = PingPongPack::PONG;
    pong.replyKey = p.replyKey;
    pong.random = fresh64();
    if (!link.send(pong)) diag("could not answer a ping");
}

void DeviceSession::handleCarrier(const uint8_t* data, size_t n) {
    MessageCarrierPack p;
    if (!acceptPostJoin(p, data, n)) return;
    if (p.msgCat == DIRECT_MSGCAT && p.toDeviceId != myId)
        return diag("refused a message piece for node " + std::to_string(p.toDeviceId));
    InboxOutcome o;
    inbox.take(p, o);
    if (!o.note.empty()) diag(o.note);
    if (o.sendAck) sendAck(o);
    if (o.complete) deliverIncoming(o.message);
}

void DeviceSession::sendAck(const InboxOutcome& o) {
    MessageCarrierACKPack ack;
    o.ackSelector.copyTo(ack);
    ack.lastSeqNo = o.ackPos;
    if (!link.send(ack)) diag("could not send an acknowledgement");
}

void DeviceSession::deliverIncoming(IncomingMessage& m) {
    const MsgSelector& s = m.selector;
    if (listWanted && s.msgCat == DIRECT_MSGCAT && s.fromDeviceId == 1 && s.msgId == wantedReplyId) {
        listReply = std::move(m.data);
        listArrived = true;
        listWanted = false;
        return;
    }
    if (messageCb) messageCb(m);
}

void DeviceSession::handleAck(const uint8_t* data, size_t n) {
    MessageCarrierACKPack p;
    if (!acceptPostJoin(p, data, n)) return;
    if (!outbox.takeAck(p))
        diag("ignored acknowledgement of message no " + std::to_string(p.msgNo) + " up to " +
             std::to_string(p.lastSeqNo));
    reportDeliveries();
    pumpOutbox();
}

void DeviceSession::handleError(const uint8_t* data, size_t n) {
    if (st != State::CONFIGURING && st != State::READY) return;
    MessageError e;
    if (!readMessageError(data, n, e)) return diag("refused a malformed error pack from the hub");
    VeltoPacket header;
    if (header.deserialize(data, n, false) >= 1) hubPacketNo = header.packetNo;
    // A refused subscription is not held: it is not renewed.
    if (e.errorCode == MessageErrorPack::PERMISSION_DENIED && e.category == NOTIFICATION_MSGCAT)
        held.erase(Subscription(e.fromNodeId, e.fromObjectNo, e.msgId));
    if (errorCb) errorCb(e);
}

// ---------------------------------------------------------------------------
// Sending

int64_t DeviceSession::queueMessage(MsgSelector ms, const std::vector<uint8_t>& data) {
    std::string why;
    if (!underWay())
        why = "not connected to a hub";
    else if (ms.fromObjectNo >= cfg.objects.size())
        why = "the device has no object " + std::to_string(ms.fromObjectNo);
    else if (data.empty())
        why = "a message needs at least one byte";
    ms.msgNo = nextMsgNo;
    if (why.empty() && !outbox.enqueue(ms, data)) why = "too many messages waiting to be sent";
    if (!why.empty()) {
        lastErr = why;
        return -1;
    }
    ++nextMsgNo;
    pumpOutbox();
    return ms.msgNo;
}

int64_t DeviceSession::sendDirect(DeviceID toNode, uint8_t toObject, MessageID msgId,
                                  const std::vector<uint8_t>& data, uint8_t fromObject) {
    MsgSelector ms;
    ms.msgCat = DIRECT_MSGCAT;
    ms.fromDeviceId = myId;
    ms.fromObjectNo = fromObject;
    ms.msgId = msgId;
    ms.toDeviceId = toNode;
    ms.toObjectNo = toObject;
    return queueMessage(ms, data);
}

int64_t DeviceSession::notify(uint8_t fromObject, MessageID eventId, const std::vector<uint8_t>& data) {
    MsgSelector ms;
    ms.msgCat = NOTIFICATION_MSGCAT;
    ms.fromDeviceId = myId;
    ms.fromObjectNo = fromObject;
    ms.msgId = eventId;
    return queueMessage(ms, data);
}

bool DeviceSession::subscribe(DeviceID node, uint8_t object, uint16_t eventId, bool on) {
    if (!underWay()) return fail("not connected to a hub");
    Subscription s(node, object, eventId);
    if (on) {
        held.insert(s);
        withdrawn.erase(s);
    } else {
        held.erase(s);
        if (st != State::READY) withdrawn.insert(s);
    }
    if (st != State::READY) return true;  // sent when the session is back
    return sendSubscription(s, on) || fail("could not send the subscription");
}

bool DeviceSession::sendSubscription(const Subscription& s, bool on) {
    NotificationSubscriptionPack p;
    p.nodeId = std::get<0>(s);
    p.objectNo = std::get<1>(s);
    p.eventId = std::get<2>(s);
    p.subscribe = on ? 1 : 0;
    return link.send(p);
}

// Sends every held subscription again (and, after a rejoin, the withdrawals
// made while lost). One line at most when sends fail.
void DeviceSession::renewSubscriptions(Timestamp now, bool afterRejoin) {
    size_t failed = 0;
    if (afterRejoin) {
        for (const Subscription& s : withdrawn) failed += sendSubscription(s, false) ? 0 : 1;
        withdrawn.clear();
    }
    for (const Subscription& s : held) failed += sendSubscription(s, true) ? 0 : 1;
    if (failed > 0) diag("could not renew " + std::to_string(failed) + " subscriptions");
    renewPauseMs = std::min(std::max(1000, renewPauseMs * 2), std::max(1000, timing.renewMaxMs));
    nextRenewAt = now + static_cast<Timestamp>(renewPauseMs);
}

void DeviceSession::pumpOutbox() {
    if (st != State::READY || currentTime() < resumeSendingAt) return;
    MessageCarrierPack piece;
    // Bounded: a message of at most 4 GiB has fewer pieces than this.
    for (int i = 0; i < (1 << 24) && outbox.nextPiece(piece); ++i) {
        if (!link.send(piece)) diag("could not send a message piece");
        piece = MessageCarrierPack();
    }
}

void DeviceSession::reportDeliveries() {
    for (const DeliveryResult& r : outbox.takeResults()) {
        finished[r.msgNo] = r.delivered;
        if (finished.size() > MAX_REMEMBERED_OUTCOMES) finished.erase(finished.begin());
        // The device list request is the session's own business.
        if (r.msgNo == internalMsgNo) continue;
        if (deliveryCb) deliveryCb(r);
    }
}

void DeviceSession::sendPing(Timestamp now) {
    PingPongPack p;
    p.pingOrPong = PingPongPack::PING;
    p.replyKey = fresh64();
    p.random = fresh64();
    lastPingSent = now;
    if (unansweredPingAt == 0) unansweredPingAt = now;
    if (!link.send(p)) diag("could not send a ping");
}

// ---------------------------------------------------------------------------
// Timers and the loop

// The session is lost: the message in flight is cut off, the queue stays, and
// the rejoin tries start. Only the loss of a ready session is reported.
void DeviceSession::loseSession(const std::string& why, Timestamp now) {
    bool wasReady = st == State::READY;
    st = State::LOST;
    lastErr = why;
    outbox.abandonInFlight("the session with the hub was lost during the transfer");
    reportDeliveries();
    inbox = MessageInbox(cfg.maxMessageSize);  // the hub's half of a reception is gone
    if (!rejoining || wasReady) {
        tries = 0;
        nextTryAt = now + static_cast<Timestamp>(nextPauseMs());
    }
    rejoining = true;
    if (!wasReady) return;
    lostAt = now;
    diag("session lost: " + why + "; rejoining");
    if (sessionCb) sessionCb(false);
}

bool DeviceSession::hubGone(Timestamp now) {
    if (unansweredPingAt != 0 && now >= unansweredPingAt + static_cast<Timestamp>(timing.pingAnswerMs)) {
        loseSession("the hub has not answered a ping for " + std::to_string(now - unansweredPingAt) + " ms", now);
        return true;
    }
    if (now < lastHeard + static_cast<Timestamp>(timing.lostAfterMs)) return false;
    loseSession("the hub has been silent for " + std::to_string(now - lastHeard) + " ms", now);
    return true;
}

// Pauses grow from rejoinFirstMs to rejoinMaxMs, each drawn between half and
// the whole of its base so that devices lost together do not try together.
int DeviceSession::nextPauseMs() {
    int shift = std::min(tries++, 20);
    int64_t base = std::min<int64_t>(std::max(1, timing.rejoinMaxMs),
                                     static_cast<int64_t>(std::max(1, timing.rejoinFirstMs)) << shift);
    return static_cast<int>(base / 2 + static_cast<int64_t>(fresh64() % static_cast<uint64_t>(base / 2 + 1)));
}

// One rejoin try: a single announcement; the next try is due after a pause
// unless the session is ready (or configuring) by then.
void DeviceSession::beginTry(Timestamp now) {
    resetHandshake();
    st = State::ANNOUNCING;
    lastHeard = now;
    nextTryAt = now + static_cast<Timestamp>(nextPauseMs());
    announce(now);
}

void DeviceSession::service(Timestamp now) {
    switch (st) {
        case State::IDLE:
            return;
        case State::LOST:
            if (now >= nextTryAt) beginTry(now);
            return;
        case State::ANNOUNCING:
        case State::JOINING:
            if (rejoining) {
                if (now >= nextTryAt) beginTry(now);
            } else if (st == State::ANNOUNCING) {
                if (now >= lastAnnounce + static_cast<Timestamp>(timing.announceRetryMs)) announce(now);
            } else if (now >= joinSentAt + static_cast<Timestamp>(timing.joinWaitMs)) {
                st = State::ANNOUNCING;  // start over: the hub forgets a join it refused
                announce(now);
            }
            return;
        case State::CONFIGURING:
            if (now >= configSentAt + static_cast<Timestamp>(timing.configRetryMs)) {
                if (lastObjectSent < 0)
                    sendConfigSummary(now);
                else
                    sendObjectInfo(static_cast<uint8_t>(lastObjectSent), now);
            }
            break;
        case State::READY:
            break;
    }
    if (hubGone(now)) return;
    if (now >= lastHeard + static_cast<Timestamp>(timing.pingAfterMs) &&
        now >= lastPingSent + static_cast<Timestamp>(timing.pingAfterMs))
        sendPing(now);
    if (st != State::READY) return;
    if (!held.empty() && now >= nextRenewAt) renewSubscriptions(now, false);
    if (outbox.checkTimeout()) pumpOutbox();
    reportDeliveries();
    pumpOutbox();
    InboxOutcome o;
    if (inbox.checkStall(now, o)) sendAck(o);
    if (!o.note.empty()) diag(o.note);
}

int DeviceSession::pollSliceMs() const {
    if (outbox.betweenBursts()) return MessageOutbox::BURST_GAP_MS;
    return outbox.busy() || inbox.receiving() || st != State::READY ? 25 : 100;
}

int DeviceSession::poll(int timeoutMs) {
    if (!link.isOpen()) {
        fail("the session has not been started");
        return -1;
    }
    Timestamp deadline = deadlineAfter(timeoutMs);
    uint8_t buf[MAX_PACKET_SIZE];
    for (;;) {
        service(currentTime());
        int wait = std::min(remainingMs(deadline), pollSliceMs());
        SockAddress from;
        int n = link.receive(buf, sizeof(buf), from, static_cast<uint32_t>(wait));
        if (n < 0) {
            fail("receiving from the socket failed");
            return -1;
        }
        if (n > 0) {
            int handled = 0;
            while (n > 0 && handled < MAX_DATAGRAMS_PER_POLL) {
                handleDatagram(buf, static_cast<size_t>(n), from, currentTime());
                ++handled;
                n = link.receive(buf, sizeof(buf), from, 0);
            }
            service(currentTime());
            return handled;
        }
        if (remainingMs(deadline) == 0) return 0;
    }
}

// ---------------------------------------------------------------------------
// Blocking helpers

bool DeviceSession::waitForDelivery(MessageNo msgNo, int timeoutMs) {
    Timestamp deadline = deadlineAfter(timeoutMs);
    for (;;) {
        auto it = finished.find(msgNo);
        if (it != finished.end()) return it->second ? true : fail("message " + std::to_string(msgNo) + " was not delivered");
        if (!outbox.pending(msgNo)) return fail("message " + std::to_string(msgNo) + " is unknown");
        int left = remainingMs(deadline);
        if (left == 0) return fail("message " + std::to_string(msgNo) + " still undelivered after " +
                                   std::to_string(timeoutMs) + " ms");
        if (poll(std::min(left, HELPER_SLICE_MS)) < 0) return false;
    }
}

bool DeviceSession::flush(int timeoutMs) {
    Timestamp deadline = deadlineAfter(timeoutMs);
    while (outbox.busy()) {
        int left = remainingMs(deadline);
        if (left == 0) return fail("messages still waiting after " + std::to_string(timeoutMs) + " ms");
        if (poll(std::min(left, HELPER_SLICE_MS)) < 0) return false;
    }
    return true;
}

bool DeviceSession::requestDeviceList(BasicDeviceListMsg& out, int timeoutMs) {
    RequestBasicDeviceListMsg req;
    BasicDeviceListMsg list;
    if (!askHub(req, list, "device list", timeoutMs)) return false;
    out = std::move(list);
    return true;
}

bool DeviceSession::requestObjectInfo(DeviceID node, BasicObjectInfoMsg& out, int timeoutMs) {
    RequestBasicObjectInfoMsg req;
    req.nodeId = node;
    BasicObjectInfoMsg info;
    if (!askHub(req, info, "object information", timeoutMs)) return false;
    out = std::move(info);
    return true;
}

template <typename Req, typename Reply>
bool DeviceSession::askHub(const Req& req, Reply& reply, const std::string& what, int timeoutMs) {
    // While the session is lost a request would only wait in the queue.
    if (st != State::READY) return fail("not connected to a hub");
    std::vector<uint8_t> body(req.estimateRequiredSize());
    uint8_t* cursor = body.data();
    size_t left = body.size();
    if (!req.addToBuffer(cursor, left)) return fail("could not encode the " + what + " request");
    body.resize(body.size() - left);
    Timestamp deadline = deadlineAfter(timeoutMs);
    listWanted = true;
    listArrived = false;
    wantedReplyId = Reply::MSG_ID;
    int64_t no = sendDirect(1, 1, Req::MSG_ID, body, 0);
    if (no < 0) {
        listWanted = false;
        return false;
    }
    internalMsgNo = static_cast<MessageNo>(no);
    while (!listArrived) {
        auto it = finished.find(static_cast<MessageNo>(no));
        if (it != finished.end() && !it->second) {
            listWanted = false;
            return fail("the " + what + " request was not delivered to the hub");
        }
        int leftMs = remainingMs(deadline);
        if (leftMs == 0) {
            listWanted = false;
            return fail("no " + what + " from the hub within " + std::to_string(timeoutMs) + " ms");
        }
        if (poll(std::min(leftMs, HELPER_SLICE_MS)) < 0) {
            listWanted = false;
            return false;
        }
    }
    const uint8_t* rc = listReply.data();
    size_t rl = listReply.size();
    if (!reply.getFromBuffer(rc, rl)) return fail("the hub's " + what + " does not decode");
    return true;
}

}  // namespace device
