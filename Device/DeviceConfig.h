// What a simulated device is: its identity, its keys, its object table and how
// it finds its hub, with the checks that keep every field within what the
// protocol and the hub's record files can carry.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Velto/UdpSocket.h"
#include "Velto/Velto.h"

namespace device {

// The domain a hub uses unless it is configured otherwise.
extern const char* const DEFAULT_DOMAIN;
constexpr uint16_t HUB_PORT = 1881;
// Where an unadopted device announces itself when it does not know its hub.
extern const char* const DISCOVERY_GROUP;

struct DeviceObject {
    std::string name;
    std::string interface;
    uint8_t groupNo = 0;
    uint8_t ifaceType = ObjectInfoPack::VELTO;
};

struct DeviceConfig {
    std::string duid;           // unique identifier; also the hub's record file name
    std::string specs;          // identifier of the specification document
    uint8_t intVer = 1;
    std::string name;           // node name asked for; empty takes the one offered
    std::string domain = DEFAULT_DOMAIN;
    std::vector<uint8_t> mainKey;  // empty: the device has none
    std::vector<DeviceObject> objects;
    bool sign = false;          // sign packs with the session key (type 1)
    bool discover = true;       // announce to the multicast group to find the hub
    SockAddress hub;            // the hub, when discover is false
    uint32_t maxMessageSize = 1u << 20;
};

// Returns true when cfg can be used; false with why set to one line saying
// which field is wrong.
bool validateConfig(const DeviceConfig& cfg, std::string& why);

// The multicast address and port of discovery.
SockAddress discoveryAddress();

}  // namespace device
