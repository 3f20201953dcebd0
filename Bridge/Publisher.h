// The MQTT side of the bridge: what the mirror of the hub learns becomes
// retained topics and discovery configs; what arrives on the broker (set
// topics, requests, Home Assistant's birth message) becomes direct messages
// and answers.
//
// Retained topics of each device are remembered so that removing the device
// clears all of them, and so that everything is published again after each
// connect to the broker and on Home Assistant's "online". Sets that arrive
// retained are ignored; the bridge never publishes a retained set.
#pragma once

#include <map>
#include <set>
#include <string>

#include "Bridge/HubMirror.h"
#include "Bridge/MqttLink.h"
#include "Bridge/TopicNames.h"

namespace bridge {

class Publisher : public MirrorListener {
public:
    Publisher(MqttLink& mqtt, const TopicNames& topics);
    void attach(HubMirror& m) { mirror = &m; }

    void availabilityChanged(const BridgeDevice& dev) override;
    void deviceDescribed(const BridgeDevice& dev) override;
    void notification(const BridgeDevice& dev, const BridgeObject& obj, const VeltoMessageInfo& msg,
                      const nlohmann::json& fields) override;

    // The broker connection is (again) up: state, subscriptions, everything.
    void connected();
    void mqttMessage(const std::string& topic, const std::string& payload, bool retain);
    // Outcomes of the direct messages that sets produced.
    void delivery(const device::DeliveryResult& r);
    void refused(const device::MessageError& e);
    // Publishes the device list when it changed (at most once a second).
    void service(Timestamp now);
    // The clean goodbye: "offline" on the state topic.
    void stopping();

private:
    void publishRetained(const std::string& duid, const std::string& topic, const std::string& payload);
    void republishAll();
    void publishConfigs(const BridgeDevice& dev);
    void handleSet(const std::string& topic, const std::string& payload);
    void handleRequest(const std::string& op, const std::string& payload);
    void event(const nlohmann::json& e);

    MqttLink& mqtt;
    TopicNames topics;
    HubMirror* mirror = nullptr;
    // DUID -> retained topic -> last payload ("" for the bridge's own topics).
    std::map<std::string, std::map<std::string, std::string>> retained;
    std::map<MessageNo, nlohmann::json> pendingSets;  // message number -> what it was
    bool devicesDirty = false;
    Timestamp devicesPublishedAt = 0;
};

}  // namespace bridge
