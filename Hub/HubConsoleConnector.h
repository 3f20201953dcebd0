// Virtual clients: parties inside the hub that devices address like any device.
//
// A VirtualClient carries a client record and node status like a device and is
// a MessageTargetInterface, so the delivery paths hand it direct messages and
// subscriptions as they would a device proxy. HubMainServices is the hub's own
// node (id 1); it owns its service objects and routes a message to the one named
// by the destination object number: 0 AnonymousServices, 1
// DeviceManagementServices. Single-threaded.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Hub/Clients.h"
#include "Hub/Database/ClientsDB.h"

// Vendor domain that prefixes the specification identifiers of the hub's own node.
extern const char* const HUB_VENDOR_DOMAIN;

// A service object inside a virtual client.
class VirtualClientObjectInterface {
public:
    virtual void deliverMessage(const MsgSelector& ms, std::shared_ptr<unsigned char>& data, unsigned int size) = 0;
    virtual bool subscribeToNotification(unsigned short msgId, unsigned short subscriber, bool subscribe) = 0;
    virtual void deviceHadBeenRemoved(unsigned short deviceId) = 0;
    virtual ~VirtualClientObjectInterface() = default;
};

class VirtualClient : public MessageTargetInterface {
public:
    ClientDBRec& record() { return dbRecord; }
    const ClientDBRec& record() const { return dbRecord; }
    NodeStatusInfo& status() { return nodeStatus; }
    const NodeStatusInfo& status() const { return nodeStatus; }

protected:
    ClientDBRec dbRecord;
    NodeStatusInfo nodeStatus;
};

class HubMainServices : public VirtualClient {
public:
    HubMainServices();
    ~HubMainServices() override;

    void deliverMessage(const MsgSelector& ms, std::shared_ptr<unsigned char>& data, uint32_t size) override;
    // Always refused, with a warning line: the node subscribes to nothing.
    bool subscribeToNotification(uint8_t objectNo, uint16_t msgId, DeviceID subscriber, bool subscribe) override;
    void deviceHadBeenRemoved(DeviceID id) override;

    size_t noOfObjects() const { return objects.size(); }

private:
    std::vector<VirtualClientObjectInterface*> objects;  // owned
};
