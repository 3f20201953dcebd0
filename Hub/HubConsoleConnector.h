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

// An in-hub client: a record and a node status like a device's; subclasses fill
// the record and implement the delivery operations.
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

// The hub's own node, id 1: object 0 AnonymousServices, object 1
// DeviceManagementServices, fixed at construction and owned.
class HubMainServices : public VirtualClient {
public:
    // Fills the record (id 1, duid "VHubMainServices", version 1, name
    // "HubMainServices", specs HUB_VENDOR_DOMAIN + "/Velto/specs/std/HubMainServices.1")
    // and creates the two service objects.
    HubMainServices();
    // Deletes the service objects.
    ~HubMainServices() override;

    // Direct messages for another node are dropped with a DBG line; otherwise
    // the message goes to the object named by ms.toObjectNo (notifications
    // too, whatever their destination); an unknown number is logged and dropped.
    void deliverMessage(const MsgSelector& ms, std::shared_ptr<unsigned char>& data, uint32_t size) override;
    // Always refused (false), with a warning line: the node subscribes to nothing.
    bool subscribeToNotification(uint8_t objectNo, uint16_t msgId, DeviceID subscriber, bool subscribe) override;
    // Passed on to every object in order, object 0 first.
    void deviceHadBeenRemoved(DeviceID id) override;

    size_t noOfObjects() const { return objects.size(); }

protected:
    // Puts obj (owned from now on) in place of object n, deleting the one there;
    // false (obj not taken) when n is out of range. For instrumented subclasses.
    bool replaceObject(size_t n, VirtualClientObjectInterface* obj);

private:
    std::vector<VirtualClientObjectInterface*> objects;  // owned
};
