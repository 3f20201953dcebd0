// The hub side of the bridge: keeps a mirror of the hub's devices through the
// bridge's own device session.
//
// It reads the device list every pollMs, asks each connected device's objects
// (at most WINDOW requests in flight, since the hub keeps only a few replies
// waiting per device), loads each object's interface document, subscribes to
// every notification the document declares, and tells its listener what
// changed. A device is reported online once its objects are read and its
// notifications subscribed (after each rejoin too). Nothing here blocks: requests go out through the session's queue
// and replies arrive through onHubMessage.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>

#include "Bridge/DeviceModel.h"
#include "Bridge/InterfaceStore.h"
#include "Device/DeviceSession.h"

namespace bridge {

class MirrorListener {
public:
    virtual ~MirrorListener() = default;
    virtual void availabilityChanged(const BridgeDevice& dev) = 0;
    virtual void deviceDescribed(const BridgeDevice& dev) = 0;
    virtual void notification(const BridgeDevice& dev, const BridgeObject& obj, const VeltoMessageInfo& msg,
                              const nlohmann::json& fields) = 0;
};

class HubMirror {
public:
    static constexpr size_t WINDOW = 4;
    static constexpr int REPLY_WAIT_MS = 5000;

    HubMirror(device::DeviceSession& session, InterfaceStore& store, MirrorListener& listener, int pollMs);

    // Sends what is due: the device list request, object requests. Call often.
    void service(Timestamp now);
    // Session callback for every whole message that reaches the bridge.
    void onHubMessage(const device::IncomingMessage& m);
    // The session was lost: every device goes offline. After the rejoin,
    // sessionBack() reads everything again (and so subscribes again).
    void sessionLost();
    void sessionBack();
    // Documents whose download ended: the objects that name them are looked
    // up again, subscribed and described anew.
    void documentsArrived();
    // Reads the list, every object and every document again.
    void refresh();
    // Forgets the device with this DUID until it leaves the hub's list.
    // Returns false when there is no such device.
    bool forget(const std::string& duid, BridgeDevice& removed);

    const std::map<DeviceID, BridgeDevice>& devices() const { return devs; }
    // The device whose DUID has this topic level; null when none.
    const BridgeDevice* deviceByLevel(const std::string& level) const;
    const BridgeDevice* device(DeviceID id) const;
    // Queues a direct message from the bridge's object 0; the message number or -1.
    int64_t sendDirect(const BridgeDevice& dev, uint8_t objectNo, uint16_t msgId, const std::vector<uint8_t>& body);

private:
    void askList(Timestamp now);
    void askObjects(Timestamp now);
    void takeList(const std::vector<uint8_t>& body);
    void takeObjects(const std::vector<uint8_t>& body);
    void updateEntry(const BasicDeviceInfo& info, std::set<DeviceID>& seen);
    void setOnline(BridgeDevice& dev, bool online);
    void subscribeAll(const BridgeDevice& dev);

    device::DeviceSession& session;
    InterfaceStore& store;
    MirrorListener& listener;
    int pollMs;
    std::map<DeviceID, BridgeDevice> devs;
    std::set<std::string> ignored;  // DUIDs forgotten while still listed
    std::deque<DeviceID> toAsk;
    std::map<DeviceID, Timestamp> asking;  // object requests in flight, sent at
    Timestamp nextList = 0;
    Timestamp listSentAt = 0;  // 0: no list request in flight
};

}  // namespace bridge
