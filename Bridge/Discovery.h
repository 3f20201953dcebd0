// Home Assistant discovery: one retained config per entity.
//
// A notification is a sensor (state: its first field, the whole JSON as
// attributes). A direct message towards the device (direction IN) is a button
// without fields, a number for one numeric field, a switch for one bool field
// (its state from a notification of the same object with a bool field of the
// same name, when there is one), a text for one string field; other messages
// get no entity. Every entity is available when both the bridge and the
// device are.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Bridge/DeviceModel.h"
#include "Bridge/TopicNames.h"

namespace bridge {

struct DiscoveryConfig {
    std::string topic;
    nlohmann::json payload;
};

// The component for a message ("sensor", "button", "number", "switch",
// "text"), or "" when it gets no entity.
std::string componentFor(const VeltoMessageInfo& msg);

// Every config of the device's described objects.
std::vector<DiscoveryConfig> discoveryConfigs(const BridgeDevice& dev, const TopicNames& topics);

}  // namespace bridge
