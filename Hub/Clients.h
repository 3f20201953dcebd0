// The hub's session with one joined device (ClientProxy) and the interface of
// every message destination (MessageTargetInterface).
//
// A proxy holds the device's database record and run-time status, the table of
// its objects (with their access rights and notification subscribers), the
// outgoing queue (at most 5 waiting messages) with its sequenced sender, the
// incoming sequenced receiver, and the ping bookkeeping. Message bodies are
// shared buffers: every queue that carries one holds a share, and the last
// holder frees it. Times are milliseconds from currentTime(). Single-threaded.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Hub/Database/ClientsDB.h"
#include "Velto/UdpSocket.h"
#include "Velto/Velto.h"
#include "Velto/msg_sequencers.h"
#include "Velto/platform.h"

struct ClientInfo;
struct EventEntry;

// A message body shared by every holder; allocate with makeMessageBuffer.
typedef std::shared_ptr<unsigned char> MessageBuffer;
// A zero-filled buffer of size bytes, freed with the last share; empty for size 0.
MessageBuffer makeMessageBuffer(uint32_t size);

class MessageTargetInterface {
public:
    // Hands over one complete message.
    virtual void deliverMessage(const MsgSelector& ms, std::shared_ptr<unsigned char>& msg, uint32_t size) = 0;
    // Adds (subscribe) or removes subscriber as a listener of notification msgId
    // of object objectNo. False when refused or the object does not exist.
    virtual bool subscribeToNotification(uint8_t objectNo, uint16_t msgId, DeviceID subscriber, bool subscribe) = 0;
    // A device left the hub.
    virtual void deviceHadBeenRemoved(DeviceID id) = 0;
    virtual ~MessageTargetInterface() = default;
    // Access levels this destination requires; 1 unless a destination says more.
    virtual uint8_t requiredMsgAccess(uint8_t objectNo, MessageID msgId);
    virtual uint8_t requiredNotificationAccess(uint8_t objectNo, MessageID msgId);
};

// Run-time status of a node.
struct NodeStatusInfo {
    enum State {
        UNKNOW = 0,
        IGNORE = 1,
        UNINIT = 2,
        ADOPTION_SENT = 3,
        INITIALIZING = 4,
        INITIALIZED = 5,
        CONNECTED = 6,
        DISCONNECTED = 7
    };

    State state = UNKNOW;
    Timestamp lastRecvTime = 0;
    Timestamp lastSendTime = 0;
    std::string prevn;
    std::string prevdom;
    uint8_t noOfDirectInterfaces = 0;
    uint8_t noOfConfigParams = 0;
    uint16_t maxNoOfDirectUsers = 0;
    uint16_t delayBetweenPackets = 0;
    uint16_t maxIddleTimeSeconds = 5;  // silence in seconds after which the device is probed
    uint8_t noOfObjects = 0;
    uint8_t maxNoOfObjects = 0;
    Timestamp downSendAfter = 0;
    uint64_t clientRand = 0;
    uint64_t svrRand = 0;
};

// One object of a device, as the configuration exchange delivered it.
struct ObjectInfo {
    uint8_t objectNo = 0;
    uint8_t groupNo = 0;
    uint8_t ifaceType = 0;
    FString<32> hardName;
    FString<32> givenName;
    FString<32> interface;
    uint32_t nParam1 = 0;
    uint32_t nParam2 = 0;
    FString<32> sParam1;
    FString<32> sParam2;
    uint64_t lnParam = 0;
    std::map<uint16_t, uint8_t> msgRights;   // direct message id -> level required
    std::map<uint16_t, uint8_t> notiRights;  // notification id -> level required
};

class ClientProxy : public MessageTargetInterface {
public:
    struct ObjectProxy : public ObjectInfo {
        // notification id -> subscribed device ids
        std::map<uint16_t, std::set<uint16_t>> notificationListeners;
    };

    struct QuedMsg {
        MsgSelector ms;
        uint32_t sz = 0;
        std::shared_ptr<unsigned char> msgPtr;
    };

    enum MsgStatus { MSG_ERROR = 0, MSG_OK = 1, MSG_OK_ACK = 2 };

    // Most messages kept waiting while one is being sent down.
    static constexpr size_t MAX_QUEUED_MESSAGES = 5;
    // Largest message a device may announce in a first piece (1 MiB). The hub
    // holds a whole message in memory before dispatching it, so a larger (or
    // zero) msgSize is refused rather than allocated.
    static constexpr uint32_t MAX_INCOMING_MESSAGE_SIZE = 1024 * 1024;

    // Copies the newcomer's record and status; `socket` is not owned and must
    // outlive the proxy (null: nothing can be sent).
    ClientProxy(const ClientInfo& info, UdpSocket* socket);
    ~ClientProxy() override;

    ClientDBRec& record() { return dbRecord; }
    const ClientDBRec& record() const { return dbRecord; }
    NodeStatusInfo& status() { return nodeStatus; }
    const NodeStatusInfo& status() const { return nodeStatus; }

    size_t noOfObjects() const { return objects.size(); }
    // Entry n, or null when n >= noOfObjects().
    ObjectInfo* object(uint8_t n);
    // Objects arrive in order 0, 1, 2...; a greater number is refused (false).
    // A smaller one empties that entry and overwrites the last one (kept).
    bool setObjectInfo(const ObjectInfo& oi);
    // Subscribers of notification msgId of object objectNo (null when none).
    const std::set<uint16_t>* listenersOf(uint8_t objectNo, uint16_t msgId) const;

    void setLastPackTime(Timestamp t) { nodeStatus.lastRecvTime = t; }

    // Stamps packetNo from toDeviceSequence (then increments it) and hubId with
    // serverNodeId, signs/serialises into 400 bytes and sends. True when the
    // socket reports more than 0 bytes sent; false without a socket.
    bool sendPacketToDevice(VeltoPacket& p);  // to the record's lastAddress
    bool sendPacketToDevice(const SockAddress& to, VeltoPacket& p);

    // State CONNECTED; loads each object's rights through the specification
    // store (a failure is logged and does not stop the activation), waiting
    // for any download. The hub's loop uses PendingActivations instead.
    void activate();
    // State DISCONNECTED, nothing else.
    void deactivate();
    // Runs DELAYED_SND, CHECK_SND_TO, CHECK_RCV_TO or CLEANUP for this device;
    // ignores events for another id and any other kind.
    void handleEvent(const EventEntry& e);
    // Any ping or pong from the device: ends the probe, lastRecvTime = now.
    void handlePong();
    // Only with the sender in TIMEOUT: maybe a ping or a give-up, then the last
    // piece is sent again.
    void checkSenderTimeout(Timestamp now);
    // The liveness probe: a ping when silent for at least 500 ms; gives the
    // device up (DISCONNECTED, CLEANUP event) after 3500 ms of silence.
    void checkReceiverTimeout(Timestamp now);
    // Requests DESTROY_DEVICE for this device, due now.
    void prepareObjectDestruction(Timestamp now);

    // MessageTargetInterface
    // Starts sending the message down, or queues it while another one is going
    // down (the oldest waiting one is dropped beyond five).
    void deliverMessage(const MsgSelector& ms, std::shared_ptr<unsigned char>& msg, uint32_t size) override;
    // False (with a line on standard error) when objectNo is out of range.
    bool subscribeToNotification(uint8_t objectNo, uint16_t msgId, DeviceID subscriber, bool subscribe) override;
    // Kept: leaves the listener tables as they are (works on a copy).
    void deviceHadBeenRemoved(DeviceID id) override;
    // A device proxy requires level 1 for everything.
    uint8_t requiredMsgAccess(uint8_t objectNo, MessageID msgId) override;
    uint8_t requiredNotificationAccess(uint8_t objectNo, MessageID msgId) override;

    // Upward path: one piece from the device. MSG_ERROR for an unknown sending
    // object, a first piece while a reception is under way or with a msgSize of
    // 0 or above MAX_INCOMING_MESSAGE_SIZE, or a later piece of another message;
    // MSG_OK_ACK (ackPos set) when an acknowledgement is due, else MSG_OK.
    MsgStatus putMsgPacket(const MsgSelector& ms, uint32_t packetStart, uint32_t msgSize, const uint8_t* data,
                           uint32_t len, uint32_t& ackPos);
    // False when a reception is under way or size is 0 or too large.
    bool initializeReceiver(uint32_t size, const MsgSelector& ms);
    // True when nothing is complete yet or the message was dispatched; false
    // for an unknown category (the message is dropped either way).
    bool attemptToDispatch();
    // To every subscriber of the completed notification (only when CONNECTED).
    void dispactNotificationMsg(DeviceID from);
    // To the addressed node, after the access check (only when CONNECTED).
    void dispactDirectMessage(DeviceID from, uint8_t fromObjectNo);

    // Downward path: clears a finished message, starts the next queued one and
    // sends every piece the sender allows now (re-arming a DELAYED_SND event).
    void downSendNextSequence();
    // The sender's result for the acknowledgement.
    bool processACK(uint32_t lastSeqNo, const MsgSelector& ms);

    // Inspection, for the services and the tests.
    size_t queuedMessages() const { return downstream.size(); }
    // Oldest first.
    const std::vector<QuedMsg>& queue() const { return downstream; }
    const MsgSender& sender() const { return downSender; }
    MsgSender& sender() { return downSender; }
    const MsgReceiver& messageReceiver() const { return receiver; }
    Timestamp firstPing() const { return firstPingRequested; }
    Timestamp lastPing() const { return lastPingRequested; }
    Timestamp lastPong() const { return pongReceived; }

private:
    void sendPing();
    bool requestEvent(int type, Timestamp due);
    void giveUp(Timestamp now);
    void sendPermissionDenied(const MsgSelector& ms);
    void enqueue(const MsgSelector& ms, std::shared_ptr<unsigned char>& msg, uint32_t size);
    bool startSending(const std::shared_ptr<unsigned char>& msg, uint32_t size, const MsgSelector& ms);

    ClientDBRec dbRecord;
    NodeStatusInfo nodeStatus;
    std::vector<ObjectProxy> objects;
    UdpSocket* selfSocket;
    // At most MAX_QUEUED_MESSAGES + 1 entries, so a vector (empty: no storage,
    // as most devices' queues are) serves better than a deque, which allocates
    // its first chunk and map with the proxy.
    std::vector<QuedMsg> downstream;
    MsgSender downSender;
    std::shared_ptr<unsigned char> downMsgPtr;
    Timestamp firstPingRequested = 0;
    Timestamp lastPingRequested = 0;
    Timestamp pongReceived = 0;
    MsgReceiver receiver;
    std::shared_ptr<unsigned char> msgPtr;
};
