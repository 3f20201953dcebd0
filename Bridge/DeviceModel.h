// What the bridge knows of one device of the hub: its list entry, whether it
// is online, and its objects with their interface documents.
//
// A device is online while it is in the hub's device list and connected.
// Objects are known once the hub answered the object-information request; an
// object whose document is missing or broken has no messages.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Velto/Parsing/InterfaceFileParser.h"
#include "Velto/Velto.h"

namespace bridge {

struct BridgeObject {
    uint8_t number = 0;
    std::string name;
    std::string interface;
    std::string interfaceId;
    std::shared_ptr<const InterfaceInformations> doc;  // null: no messages

    // The message of this kind (1 notification, 2 direct) with this id or
    // topic-level name; null when there is none.
    const VeltoMessageInfo* message(uint8_t kind, uint16_t id) const;
    const VeltoMessageInfo* messageNamed(uint8_t kind, const std::string& level) const;
};

struct BridgeDevice {
    DeviceID id = 0;
    std::string duid;
    std::string name;
    std::string specs;
    uint8_t state = 0;  // the hub's node state
    bool online = false;
    bool described = false;  // objects known
    std::vector<BridgeObject> objects;

    const BridgeObject* object(uint8_t number) const;
    const BridgeObject* objectNamed(const std::string& level) const;
};

// The entry of bridge/devices for one device.
nlohmann::json describeDevice(const BridgeDevice& dev);
// "notification", "direct" or "other"; "IN", "OUT" or "".
const char* kindName(uint8_t kind);
const char* directionName(uint8_t direction);

}  // namespace bridge
