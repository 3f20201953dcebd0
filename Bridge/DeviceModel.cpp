// Lookups in the device model and its description as JSON.
#include "Bridge/DeviceModel.h"

#include "Bridge/TopicNames.h"

namespace bridge {

using nlohmann::json;

const VeltoMessageInfo* BridgeObject::message(uint8_t kind, uint16_t id) const {
    if (!doc) return nullptr;
    for (const VeltoMessageInfo& m : doc->messages)
        if (m.type == kind && static_cast<uint16_t>(m.id) == id) return &m;
    return nullptr;
}

const VeltoMessageInfo* BridgeObject::messageNamed(uint8_t kind, const std::string& level) const {
    if (!doc) return nullptr;
    for (const VeltoMessageInfo& m : doc->messages)
        if (m.type == kind && topicLevel(m.name) == level) return &m;
    return nullptr;
}

const BridgeObject* BridgeDevice::object(uint8_t number) const {
    for (const BridgeObject& o : objects)
        if (o.number == number) return &o;
    return nullptr;
}

const BridgeObject* BridgeDevice::objectNamed(const std::string& level) const {
    for (const BridgeObject& o : objects)
        if (topicLevel(o.name) == level) return &o;
    return nullptr;
}

const char* kindName(uint8_t kind) { return kind == 1 ? "notification" : kind == 2 ? "direct" : "other"; }

const char* directionName(uint8_t direction) { return direction == 1 ? "IN" : direction == 2 ? "OUT" : ""; }

json describeDevice(const BridgeDevice& dev) {
    json objects = json::array();
    for (const BridgeObject& o : dev.objects) {
        json messages = json::array();
        if (o.doc)
            for (const VeltoMessageInfo& m : o.doc->messages) {
                json fields = json::array();
                for (const MessageFieldInfo& f : m.fields) fields.push_back({{"name", f.name}, {"type", f.type}});
                messages.push_back({{"id", m.id},
                                    {"name", m.name},
                                    {"kind", kindName(m.type)},
                                    {"direction", directionName(m.direction)},
                                    {"fields", fields}});
            }
        objects.push_back({{"number", o.number},
                           {"name", o.name},
                           {"interface", o.interface},
                           {"interface_id", o.interfaceId},
                           {"messages", messages}});
    }
    return {{"id", dev.id},         {"duid", dev.duid},           {"name", dev.name},  {"state", dev.state},
            {"online", dev.online}, {"specification", dev.specs}, {"objects", objects}};
}

}  // namespace bridge
