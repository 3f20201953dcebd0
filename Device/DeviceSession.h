// A device's session with a hub.
//
// The session announces the device (to the hub's address, or to the discovery
// group, taking the hub's address from the offer), joins the hub's domain,
// recovers the session key, goes through the configuration exchange from its
// object table, and then carries direct messages and notifications both ways
// in acknowledged pieces, answers the hub's pings and pings the hub when it has
// been silent. Packs the hub signs are checked where the protocol allows (see
// JoinSecurity.h); packs the device sends are signed with the session key when
// the configuration asks for it.
//
// A session that was ready once rejoins by itself when it is lost (the hub
// silent, or no longer answering pings because it forgot the device): it
// announces and joins again with the same DUID and keys after pauses that grow
// with jitter, renews every subscription it holds, and sends the messages that
// were queued but not begun. The message cut off mid-transfer is reported not
// delivered.
//
// Single-threaded and event-driven: poll() processes what arrives and runs the
// timers; join(), requestDeviceList(), waitForDelivery() and flush() poll for at
// most the time they are given. Callbacks run inside those calls and must not
// call them again; they may send (sendDirect, notify, subscribe). Nothing
// throws; failures are false or -1 results, with lastError() telling why in
// one line.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "Device/DeviceConfig.h"
#include "Device/HubLink.h"
#include "Device/JoinSecurity.h"
#include "Device/MessageErrorReader.h"
#include "Device/MessageInbox.h"
#include "Device/MessageOutbox.h"
#include "Velto/Interfaces/DeviceManagementInterface.h"
#include "Velto/msg_sequencers.h"

namespace device {

// Time constants of the session, in milliseconds.
struct SessionTiming {
    int announceRetryMs = 1000;  // a new announcement while no offer came
    int joinWaitMs = 2000;       // wait for the join answer before announcing again
    int configRetryMs = 1000;    // repeat the last configuration pack after this silence
    int pingAfterMs = 2000;      // ping a hub silent for this long
    int pingAnswerMs = 3000;     // the session is lost when a ping has no answer for this long
    int lostAfterMs = 10000;     // ... or after this much silence in any case
    // Rejoin: the n-th pause before a try is drawn between half and the whole
    // of min(rejoinMaxMs, rejoinFirstMs * 2^n).
    int rejoinFirstMs = 2000;
    int rejoinMaxMs = 30000;
    // After a rejoin, queued messages wait this long, so that devices that lost
    // the hub at the same moment are back when they arrive (the hub drops
    // messages for nodes it does not know, without telling the sender).
    int rejoinSettleMs = 3000;
    // Subscriptions are renewed at once after a rejoin and then after pauses
    // doubling from 1 s up to this (the hub keeps them only as long as the
    // publisher's session lasts and never confirms them).
    int renewMaxMs = 60000;
};

class DeviceSession {
public:
    // LOST: a session that was under way was lost; the next rejoin try is due
    // at a later poll(). While rejoining the session passes through
    // ANNOUNCING, JOINING and CONFIGURING again.
    enum class State { IDLE, ANNOUNCING, JOINING, CONFIGURING, READY, LOST };

    explicit DeviceSession(DeviceConfig cfg, SessionTiming timing = SessionTiming());
    DeviceSession(const DeviceSession&) = delete;
    DeviceSession& operator=(const DeviceSession&) = delete;

    void onMessage(std::function<void(const IncomingMessage&)> f) { messageCb = std::move(f); }
    void onError(std::function<void(const MessageError&)> f) { errorCb = std::move(f); }
    void onDelivery(std::function<void(const DeliveryResult&)> f) { deliveryCb = std::move(f); }
    void onDiagnostic(std::function<void(const std::string&)> f) { diagCb = std::move(f); }
    // Called with false when a ready session is lost (lastError() says why)
    // and with true when it is ready again; not called for the first join.
    void onSessionChange(std::function<void(bool up)> f) { sessionCb = std::move(f); }

    // Opens the link if needed and sends the first announcement (again from the
    // start when called in any state). Returns false when the configuration is
    // invalid or the socket cannot be opened or used.
    bool start();
    // start() unless already started, then polls until the configuration
    // exchange is complete. Returns true when READY (at once if already so);
    // false after timeoutMs or on a socket failure, with lastError() saying how
    // far the join got.
    bool join(int timeoutMs);
    // Waits at most timeoutMs for datagrams, handles what arrives and runs the
    // timers. Returns the number of datagrams handled (0 on time-out), or -1
    // when the socket failed.
    int poll(int timeoutMs);

    // Queues a direct message from our object fromObject. Returns its message
    // number, or -1 when the session never was READY, the object is unknown,
    // data is empty, or the queue is full. While the session is rejoining the
    // message waits for it.
    int64_t sendDirect(DeviceID toNode, uint8_t toObject, MessageID msgId, const std::vector<uint8_t>& data,
                       uint8_t fromObject = 0);
    // Queues a notification of event eventId from our object fromObject.
    // Returns its message number, or -1 as for sendDirect.
    int64_t notify(uint8_t fromObject, MessageID eventId, const std::vector<uint8_t>& data);
    // Subscribes to (on) or unsubscribes from (off) notification eventId of
    // object `object` of node `node`, and keeps (or forgets) the subscription
    // to renew it. Returns true when the request was sent, or kept for the
    // rejoin while the session is lost; false when the session never was
    // READY or the send failed. The hub answers only a refusal, and a refused
    // subscription is forgotten.
    bool subscribe(DeviceID node, uint8_t object, uint16_t eventId, bool on);
    // Polls until message msgNo is delivered or given up. Returns true when it
    // was delivered; false when it failed, is unknown, or timeoutMs passed.
    bool waitForDelivery(MessageNo msgNo, int timeoutMs);
    // Polls until every queued message is finished. Returns true when the queue
    // emptied within timeoutMs (whatever the outcomes), false otherwise.
    bool flush(int timeoutMs);
    // Asks node 1, object 1 for the device list and waits for the reply.
    // Returns true with out filled; false when not READY, on time-out, or when
    // the reply does not decode.
    bool requestDeviceList(BasicDeviceListMsg& out, int timeoutMs);
    // Asks node 1, object 1 for the objects of `node` and waits for the reply.
    // Returns true with out filled (no objects for an unknown node); false as
    // for requestDeviceList.
    bool requestObjectInfo(DeviceID node, BasicObjectInfoMsg& out, int timeoutMs);

    State state() const { return st; }
    DeviceID nodeId() const { return myId; }
    const SockAddress& hubAddress() const { return link.hub(); }
    const ByteArray<32>& sessionKey() const { return sessKey; }
    const std::string& assignedName() const { return nodeName; }
    const std::string& offeredDomain() const { return hubDomain; }
    // The packet number of the last pack the hub sent in this session (after
    // the join acceptance), or -1 when none has arrived since start().
    int64_t lastHubPacketNo() const { return hubPacketNo; }
    const DeviceConfig& config() const { return cfg; }
    // The socket descriptor (for select), or -1 before start().
    int handle() const { return link.handle(); }
    // How long a caller waiting on handle() may sleep before poll() is due
    // again, in ms: short while a transfer or the join is under way (the gap
    // between two bursts of pieces), longer when idle.
    int pollSliceMs() const;
    const std::string& lastError() const { return lastErr; }
    static const char* stateName(State s);

private:
    bool fail(const std::string& why);
    void diag(const std::string& line);
    void service(Timestamp now);
    void handleDatagram(const uint8_t* data, size_t n, const SockAddress& from, Timestamp now);
    bool acceptPostJoin(VeltoPacket& pack, const uint8_t* data, size_t n);
    void noteStranger(const SockAddress& from);

    void announce(Timestamp now);
    void sendJoin(Timestamp now);
    void sendConfigSummary(Timestamp now);
    void sendObjectInfo(uint8_t objectNo, Timestamp now);
    void sendPing(Timestamp now);

    void handleOffer(const uint8_t* data, size_t n, const SockAddress& from, Timestamp now);
    void handleAcceptance(const uint8_t* data, size_t n, Timestamp now);
    void handleGetObjectInfo(const uint8_t* data, size_t n, Timestamp now);
    void handleConfigComplete(const uint8_t* data, size_t n);
    void handlePing(const uint8_t* data, size_t n, Timestamp now);
    void handleCarrier(const uint8_t* data, size_t n);
    void handleAck(const uint8_t* data, size_t n);
    void handleError(const uint8_t* data, size_t n);

    void sendAck(const InboxOutcome& o);
    void deliverIncoming(IncomingMessage& m);
    void pumpOutbox();
    void reportDeliveries();
    void loseSession(const std::string& why, Timestamp now);
    bool hubGone(Timestamp now);
    void resetHandshake();
    void beginTry(Timestamp now);
    int nextPauseMs();
    void becomeReady(Timestamp now);
    void renewSubscriptions(Timestamp now, bool afterRejoin);
    using Subscription = std::tuple<DeviceID, uint8_t, uint16_t>;  // node, object, event
    bool sendSubscription(const Subscription& s, bool on);
    bool underWay() const { return st == State::READY || (everReady && st != State::IDLE); }
    int64_t queueMessage(MsgSelector ms, const std::vector<uint8_t>& data);
    std::string joinFailure(int timeoutMs) const;
    // Sends req to node 1, object 1 and polls until the reply Reply::MSG_ID
    // arrives and decodes into reply; false with lastError() otherwise.
    template <typename Req, typename Reply>
    bool askHub(const Req& req, Reply& reply, const std::string& what, int timeoutMs);

    DeviceConfig cfg;
    SessionTiming timing;
    ByteArray<32> mainKey;  // the key the hub uses for us
    HubLink link;
    State st = State::IDLE;
    std::string lastErr;

    uint64_t clientRand = 0;
    DeviceID myId = 0;
    ByteArray<32> sessKey;
    std::string nodeName;
    std::string hubDomain;
    bool offerSeen = false;
    bool discovered = false;  // the hub's address came from an offer to the group
    std::string joinProblem;  // why the last join answer was refused
    bool warnedType2 = false;
    uint64_t strangers = 0;  // datagrams ignored because they did not come from the hub

    Timestamp lastAnnounce = 0;
    Timestamp joinSentAt = 0;
    Timestamp configSentAt = 0;
    int lastObjectSent = -1;  // -1: the summary was the last configuration pack
    Timestamp lastHeard = 0;
    int64_t hubPacketNo = -1;
    Timestamp lastPingSent = 0;
    Timestamp unansweredPingAt = 0;  // the first ping since the hub was last heard; 0: none

    bool everReady = false;
    bool rejoining = false;  // lost: the tries run on their own schedule
    int tries = 0;           // rejoin tries since the loss
    Timestamp nextTryAt = 0;
    Timestamp lostAt = 0;    // when a ready session was lost; 0 when not lost
    Timestamp resumeSendingAt = 0;

    // Subscriptions held, and withdrawals made while lost (sent after the rejoin).
    std::set<Subscription> held, withdrawn;
    Timestamp nextRenewAt = 0;
    int renewPauseMs = 0;

    MessageNo nextMsgNo = 1;
    MessageOutbox outbox;
    MessageInbox inbox;
    std::map<MessageNo, bool> finished;  // recent delivery outcomes

    MessageNo internalMsgNo = 0;  // the last request to the hub (not reported)
    bool listWanted = false;
    MessageID wantedReplyId = BasicDeviceListMsg::MSG_ID;
    bool listArrived = false;
    std::vector<uint8_t> listReply;

    std::function<void(const IncomingMessage&)> messageCb;
    std::function<void(const MessageError&)> errorCb;
    std::function<void(const DeliveryResult&)> deliveryCb;
    std::function<void(const std::string&)> diagCb;
    std::function<void(bool)> sessionCb;
};

}  // namespace device
