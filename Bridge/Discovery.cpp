// Builders of the Home Assistant discovery configs.
#include "Bridge/Discovery.h"

#include "Bridge/FieldCodec.h"

namespace bridge {

using nlohmann::json;

namespace {

// Jinja reference to a field of the JSON state.
std::string fieldRef(const std::string& name) { return "value_json[" + json(name).dump() + "]"; }

json deviceBlock(const BridgeDevice& dev) {
    return {{"identifiers", json::array({"velto_" + discoveryId(dev.duid)})},
            {"name", dev.name.empty() ? dev.duid : dev.name},
            {"model", dev.specs},
            {"via_device", "velto_bridge"}};
}

// The notification of obj holding a bool field of this name, or null.
const VeltoMessageInfo* switchState(const BridgeObject& obj, const std::string& field) {
    for (const VeltoMessageInfo& m : obj.doc->messages)
        if (m.type == NOTIFICATION_MSGCAT)
            for (const MessageFieldInfo& f : m.fields)
                if (f.name == field && fieldTypeOf(f.type) == FieldType::BOOL) return &m;
    return nullptr;
}

// The component-specific part of a config.
void addComponentFields(json& c, const std::string& component, const BridgeDevice& dev, const BridgeObject& obj,
                        const VeltoMessageInfo& msg, const TopicNames& topics) {
    const std::string own = topics.message(dev.duid, obj.name, msg.name);
    if (component == "sensor") {
        c["state_topic"] = own;
        c["json_attributes_topic"] = own;
        std::string first = msg.fields.empty() || !fieldsKnown(msg.fields) ? "raw" : msg.fields[0].name;
        c["value_template"] = "{{ " + fieldRef(first) + " | default('') }}";
        return;
    }
    c["command_topic"] = topics.set(dev.duid, obj.name, msg.name);
    if (component == "button") {
        c["payload_press"] = "{}";
        return;
    }
    const MessageFieldInfo& f = msg.fields[0];
    const std::string key = json(f.name).dump();
    if (component == "switch") {
        c["payload_on"] = json{{f.name, true}}.dump();
        c["payload_off"] = json{{f.name, false}}.dump();
        if (const VeltoMessageInfo* st = switchState(obj, f.name)) {
            c["state_topic"] = topics.message(dev.duid, obj.name, st->name);
            c["value_template"] = "{{ 'ON' if " + fieldRef(f.name) + " else 'OFF' }}";
            c["state_on"] = "ON";
            c["state_off"] = "OFF";
        }
    } else if (component == "number") {
        c["command_template"] = "{" + key + ": {{ value | int }}}";
        FieldType t = fieldTypeOf(f.type);
        c["min"] = t == FieldType::I8 ? -128 : t == FieldType::I16 ? -32768 : t >= FieldType::I32 ? -2147483648LL : 0;
        c["max"] = t == FieldType::U8    ? 255
                   : t == FieldType::I8  ? 127
                   : t == FieldType::U16 ? 65535
                   : t == FieldType::I16 ? 32767
                                         : 2147483647LL;
        c["step"] = 1;
    } else if (component == "text") {
        c["command_template"] = "{" + key + ": {{ value | tojson }}}";
    }
}

}  // namespace

std::string componentFor(const VeltoMessageInfo& msg) {
    if (msg.type == NOTIFICATION_MSGCAT) return "sensor";
    if (msg.type != DIRECT_MSGCAT || msg.direction != 1 || !fieldsKnown(msg.fields)) return "";
    if (msg.fields.empty()) return "button";
    if (msg.fields.size() != 1) return "";
    FieldType t = fieldTypeOf(msg.fields[0].type);
    if (isNumeric(t)) return "number";
    if (t == FieldType::BOOL) return "switch";
    if (t == FieldType::STRING) return "text";
    return "";
}

std::vector<DiscoveryConfig> discoveryConfigs(const BridgeDevice& dev, const TopicNames& topics) {
    std::vector<DiscoveryConfig> out;
    for (const BridgeObject& obj : dev.objects) {
        if (!obj.doc) continue;
        for (const VeltoMessageInfo& msg : obj.doc->messages) {
            std::string component = componentFor(msg);
            if (component.empty()) continue;
            json c = {{"name", obj.name + " " + msg.name},
                      {"unique_id", "velto_" + discoveryId(dev.duid) + "_" + std::to_string(obj.number) + "_" +
                                        std::to_string(static_cast<uint16_t>(msg.id))},
                      {"device", deviceBlock(dev)},
                      {"availability",
                       json::array({{{"topic", topics.bridge("state")}}, {{"topic", topics.availability(dev.duid)}}})},
                      {"availability_mode", "all"},
                      {"origin", {{"name", "velto-mqtt"}}}};
            addComponentFields(c, component, dev, obj, msg, topics);
            out.push_back({topics.config(component, dev.duid, obj.name, msg.name), c});
        }
    }
    return out;
}

}  // namespace bridge
