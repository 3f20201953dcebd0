// The hub's own node (id 1) and the routing of its messages to its service objects.
#include "Hub/HubConsoleConnector.h"

#include <iostream>

#include "Hub/Services/AnonymousServices.h"
#include "Hub/Services/DeviceManagementServices.h"

const char* const HUB_VENDOR_DOMAIN = "hub.velto.local";

HubMainServices::HubMainServices() {
    dbRecord.id = 1;
    dbRecord.duid = "VHubMainServices";
    dbRecord.version = 1;
    dbRecord.assignedName = "HubMainServices";
    dbRecord.specs = std::string(HUB_VENDOR_DOMAIN) + "/Velto/specs/std/HubMainServices.1";
    objects.push_back(new AnonymousServices());         // object 0
    objects.push_back(new DeviceManagementServices());  // object 1
}

HubMainServices::~HubMainServices() {
    for (VirtualClientObjectInterface* obj : objects) delete obj;
}

void HubMainServices::deliverMessage(const MsgSelector& ms, std::shared_ptr<unsigned char>& data, uint32_t size) {
    if (ms.msgCat == DIRECT_MSGCAT && ms.toDeviceId != 1) {
        std::cout << "DBG: ms.msgCat==DIRECT_MSGCAT && ms.toDeviceId != 1\n";
        return;
    }
    if (ms.toObjectNo >= objects.size()) {
        std::cerr << "ERROR: HubConsoleConnector::deliverMessage Object Number out of range="
                  << unsigned(ms.toObjectNo) << '\n';
        return;
    }
    VirtualClientObjectInterface* obj = objects[ms.toObjectNo];
    if (obj == nullptr) {
        std::cerr << "ERROR: HubConsoleConnector::deliverMessage NULL object pointer for objNo"
                  << unsigned(ms.toObjectNo) << '\n';
        return;
    }
    obj->deliverMessage(ms, data, size);
}

bool HubMainServices::subscribeToNotification(uint8_t, uint16_t, DeviceID, bool) {
    // kept: the wording letter for letter
    std::cerr << "WARNING: HubConsoleConnector is not suppose to subscribe to any notificvation\n";
    return false;
}

void HubMainServices::deviceHadBeenRemoved(DeviceID id) {
    for (VirtualClientObjectInterface* obj : objects) obj->deviceHadBeenRemoved(id);
}

bool HubMainServices::replaceObject(size_t n, VirtualClientObjectInterface* obj) {
    if (n >= objects.size()) return false;
    delete objects[n];
    objects[n] = obj;
    return true;
}
