// Command-line options of velto-mqtt and their defaults.
#pragma once

#include <string>
#include <vector>

#include "Bridge/MqttLink.h"
#include "Device/DeviceConfig.h"

namespace bridge {

struct BridgeOptions {
    bool help = false;
    device::DeviceConfig device;  // DUID "velto-mqtt", discovery unless --hub
    MqttSettings mqtt;            // 127.0.0.1:1883, a unique client id
    std::string passwordFile;
    std::string baseTopic = "velto";
    std::string discoveryPrefix = "homeassistant";
    std::string storeDir = "DB";
    int pollMs = 5000;
};

// Parses the arguments after the program name and reads the password file.
// Returns true with out filled; false with why set to one line.
bool parseBridgeOptions(const std::vector<std::string>& args, BridgeOptions& out, std::string& why);

// The help text, ending with a line end.
std::string bridgeUsage();

}  // namespace bridge
