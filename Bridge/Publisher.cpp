// Topics, discovery and commands of the bridge on the broker.
#include "Bridge/Publisher.h"

#include "Bridge/Discovery.h"
#include "Bridge/FieldCodec.h"
#include "Device/MessageErrorReader.h"

namespace bridge {

using nlohmann::json;

namespace {
constexpr size_t MAX_PENDING_SETS = 256;
}

Publisher::Publisher(MqttLink& m, const TopicNames& t) : mqtt(m), topics(t) {}

void Publisher::publishRetained(const std::string& duid, const std::string& topic, const std::string& payload) {
    std::string& last = retained[duid][topic];
    last = payload;
    mqtt.publish(topic, payload, 1, true);
}

void Publisher::availabilityChanged(const BridgeDevice& dev) {
    publishRetained(dev.duid, topics.availability(dev.duid), dev.online ? "online" : "offline");
    devicesDirty = true;
}

void Publisher::deviceDescribed(const BridgeDevice& dev) {
    publishConfigs(dev);
    devicesDirty = true;
}

void Publisher::publishConfigs(const BridgeDevice& dev) {
    for (const DiscoveryConfig& c : discoveryConfigs(dev, topics))
        publishRetained(dev.duid, c.topic, dumpJson(c.payload));
}

void Publisher::notification(const BridgeDevice& dev, const BridgeObject& obj, const VeltoMessageInfo& msg,
                             const json& fields) {
    publishRetained(dev.duid, topics.message(dev.duid, obj.name, msg.name), dumpJson(fields));
}

void Publisher::connected() {
    mqtt.publish(topics.bridge("state"), "online", 1, true);
    mqtt.subscribe(topics.setFilter(), 1);
    mqtt.subscribe(topics.bridge("request/+"), 1);
    mqtt.subscribe(topics.haStatus(), 1);
    republishAll();
}

void Publisher::republishAll() {
    for (const auto& dev : retained)
        for (const auto& t : dev.second) mqtt.publish(t.first, t.second, 1, true);
    devicesDirty = true;
}

void Publisher::service(Timestamp now) {
    if (!devicesDirty || !mqtt.connected() || now < devicesPublishedAt + 1000 || mirror == nullptr) return;
    json list = json::array();
    for (const auto& entry : mirror->devices()) list.push_back(describeDevice(entry.second));
    if (mqtt.publish(topics.bridge("devices"), dumpJson(list), 1, true)) devicesDirty = false;
    devicesPublishedAt = now;
}

void Publisher::stopping() { mqtt.publish(topics.bridge("state"), "offline", 1, true); }

void Publisher::mqttMessage(const std::string& topic, const std::string& payload, bool retain) {
    const std::string requests = topics.bridge("request/");
    if (topic == topics.haStatus()) {
        if (payload == "online") republishAll();
    } else if (topic.compare(0, requests.size(), requests) == 0) {
        if (!retain) handleRequest(topic.substr(requests.size()), payload);
    } else if (retain) {
        event({{"type", "set"}, {"topic", topic}, {"outcome", "ignored"}, {"error", "a retained set is ignored"}});
    } else {
        handleSet(topic, payload);
    }
}

void Publisher::handleSet(const std::string& topic, const std::string& payload) {
    json e = {{"type", "set"}, {"topic", topic}};
    // base/<duid>/<object>/<message>/set
    std::string rest = topic.substr(topics.baseTopic().size() + 1);
    size_t a = rest.find('/'), b = rest.find('/', a + 1), c = rest.find('/', b + 1);
    const BridgeDevice* dev = mirror ? mirror->deviceByLevel(rest.substr(0, a)) : nullptr;
    const BridgeObject* obj = dev ? dev->objectNamed(rest.substr(a + 1, b - a - 1)) : nullptr;
    const VeltoMessageInfo* msg = obj ? obj->messageNamed(DIRECT_MSGCAT, rest.substr(b + 1, c - b - 1)) : nullptr;
    json in = json::parse(payload, nullptr, false);
    std::vector<uint8_t> body;
    std::string why;
    if (dev == nullptr || !dev->online)
        why = "no such device online";
    else if (msg == nullptr)
        why = "no such direct message";
    else if (in.is_discarded())
        why = "the payload is not JSON";
    else
        encodeBody(msg->fields, in, body, why);
    if (why.empty()) {
        int64_t no = mirror->sendDirect(*dev, obj->number, static_cast<uint16_t>(msg->id), body);
        if (no >= 0) {
            e["device"] = dev->duid, e["object"] = obj->name, e["message"] = msg->name;
            if (pendingSets.size() >= MAX_PENDING_SETS) pendingSets.erase(pendingSets.begin());
            pendingSets[static_cast<MessageNo>(no)] = e;
            return;
        }
        why = "the hub cannot take it now (session not ready or queue full)";
    }
    e["outcome"] = "not sent";
    e["error"] = why;
    event(e);
}

void Publisher::delivery(const device::DeliveryResult& r) {
    auto it = pendingSets.find(r.msgNo);
    if (it == pendingSets.end()) return;
    json e = it->second;
    pendingSets.erase(it);
    e["outcome"] = r.delivered ? "delivered" : "not delivered";
    if (!r.delivered) e["error"] = r.reason;
    event(e);
}

void Publisher::refused(const device::MessageError& err) {
    json e = {{"type", err.category == DIRECT_MSGCAT ? "set" : "subscription"},
              {"outcome", "refused"},
              {"error", device::errorCodeName(err.errorCode)},
              {"code", err.errorCode},
              {"text", err.text}};
    DeviceID node = err.category == DIRECT_MSGCAT ? err.toNodeId : err.fromNodeId;
    uint8_t objectNo = err.category == DIRECT_MSGCAT ? err.toObjectNo : err.fromObjectNo;
    const BridgeDevice* dev = mirror ? mirror->device(node) : nullptr;
    const BridgeObject* obj = dev ? dev->object(objectNo) : nullptr;
    const VeltoMessageInfo* msg = obj ? obj->message(err.category, err.msgId) : nullptr;
    if (dev) e["device"] = dev->duid;
    if (obj) e["object"] = obj->name;
    e["message"] = msg ? json(msg->name) : json(err.msgId);
    event(e);
}

void Publisher::handleRequest(const std::string& op, const std::string& payload) {
    json in = json::parse(payload.empty() ? "{}" : payload, nullptr, false);
    json out = {{"status", "ok"}};
    if (in.is_object() && in.contains("transaction")) out["transaction"] = in["transaction"];
    if (op == "refresh" && mirror) {
        mirror->refresh();
    } else if (op == "remove" && mirror && in.is_object() && in.value("device", json()).is_string()) {
        BridgeDevice gone;
        if (mirror->forget(in["device"].get<std::string>(), gone)) {
            for (const auto& t : retained[gone.duid]) mqtt.publish(t.first, "", 1, true);
            retained.erase(gone.duid);
            devicesDirty = true;
            out["data"] = {{"device", gone.duid}};
        } else {
            out["status"] = "error", out["error"] = "no such device";
        }
    } else {
        out["status"] = "error";
        out["error"] = op == "remove" ? "give {\"device\": \"<duid>\"}" : "unknown request " + op;
    }
    mqtt.publish(topics.bridge("response/" + topicLevel(op)), dumpJson(out), 1, false);
}

void Publisher::event(const json& e) { mqtt.publish(topics.bridge("event"), dumpJson(e), 0, false); }

}  // namespace bridge
