// libmosquitto in an external poll loop.
#include "Bridge/MqttLink.h"

#include <mosquitto.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <random>

namespace bridge {

namespace {
constexpr int MAX_BACKOFF_MS = 30000;
}

MqttLink::~MqttLink() {
    if (mosq != nullptr) mosquitto_destroy(mosq);
}

bool MqttLink::init(const MqttSettings& settings, std::string& why) {
    cfg = settings;
    mosq = mosquitto_new(cfg.clientId.c_str(), true, this);
    if (mosq == nullptr) return why = "cannot create the MQTT client", false;
    mosquitto_connect_callback_set(mosq, connectCallback);
    mosquitto_disconnect_callback_set(mosq, disconnectCallback);
    mosquitto_message_callback_set(mosq, messageCallback);
    int rc = mosquitto_will_set(mosq, cfg.willTopic.c_str(), static_cast<int>(cfg.willPayload.size()),
                                cfg.willPayload.data(), 1, true);
    if (rc == MOSQ_ERR_SUCCESS && !cfg.username.empty())
        rc = mosquitto_username_pw_set(mosq, cfg.username.c_str(),
                                       cfg.password.empty() ? nullptr : cfg.password.c_str());
    if (rc == MOSQ_ERR_SUCCESS && !cfg.tlsCa.empty())
        rc = mosquitto_tls_set(mosq, cfg.tlsCa.c_str(), nullptr, nullptr, nullptr, nullptr);
    if (rc != MOSQ_ERR_SUCCESS) return why = std::string("MQTT settings refused: ") + mosquitto_strerror(rc), false;
    return true;
}

int MqttLink::socket() const { return socketOpen ? mosquitto_socket(mosq) : -1; }

bool MqttLink::wantWrite() const { return socketOpen && mosquitto_want_write(mosq); }

void MqttLink::handleIo(bool readable, bool writable) {
    if (!socketOpen) return;
    int rc = MOSQ_ERR_SUCCESS;
    if (readable) rc = mosquitto_loop_read(mosq, 1);
    if (rc == MOSQ_ERR_SUCCESS && (writable || mosquitto_want_write(mosq))) rc = mosquitto_loop_write(mosq, 1);
    if (rc != MOSQ_ERR_SUCCESS && socketOpen) lost(currentTime());
}

void MqttLink::service(Timestamp now) {
    if (!socketOpen) {
        if (now >= nextAttempt) tryConnect(now);
        return;
    }
    if (now >= lastMisc + 1000) {
        lastMisc = now;
        if (mosquitto_loop_misc(mosq) != MOSQ_ERR_SUCCESS) lost(now);
    }
}

int MqttLink::msUntilDue(Timestamp now) const {
    Timestamp due = socketOpen ? lastMisc + 1000 : nextAttempt;
    return due <= now ? 0 : static_cast<int>(std::min<Timestamp>(due - now, 1000));
}

void MqttLink::tryConnect(Timestamp now) {
    int rc = mosquitto_connect(mosq, cfg.host.c_str(), cfg.port, cfg.keepAliveS);
    if (rc != MOSQ_ERR_SUCCESS) {
        report("cannot connect to the broker at " + cfg.host + ":" + std::to_string(cfg.port) + ": " +
               (rc == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(rc)));
        socketOpen = false;
        lost(now);
        return;
    }
    socketOpen = true;
    lastMisc = now;
}

void MqttLink::lost(Timestamp now) {
    if (socketOpen) mosquitto_disconnect(mosq);
    socketOpen = false;
    isConnected = false;
    static std::minstd_rand jitter(static_cast<unsigned>(now));
    nextAttempt = now + static_cast<Timestamp>(backoffMs + static_cast<int>(jitter() % (backoffMs / 4 + 1)));
    backoffMs = std::min(backoffMs * 2, MAX_BACKOFF_MS);
}

void MqttLink::report(const std::string& reason) {
    if (reason == lastReason) return;
    lastReason = reason;
    std::cerr << "velto-mqtt: " << reason << '\n';
}

void MqttLink::connectCallback(struct mosquitto*, void* self, int rc) {
    MqttLink& link = *static_cast<MqttLink*>(self);
    if (rc != 0) {
        link.report(std::string("the broker refused the connection: ") + mosquitto_connack_string(rc));
        link.lost(currentTime());
        return;
    }
    link.isConnected = true;
    link.backoffMs = 1000;
    link.lastReason.clear();
    std::cout << "velto-mqtt: connected to the broker at " << link.cfg.host << ":" << link.cfg.port << std::endl;
    if (link.connectedCb) link.connectedCb();
}

void MqttLink::disconnectCallback(struct mosquitto*, void* self, int rc) {
    MqttLink& link = *static_cast<MqttLink*>(self);
    if (rc != 0 && link.isConnected) link.report("lost the broker; reconnecting");
    if (link.socketOpen) link.lost(currentTime());
}

void MqttLink::messageCallback(struct mosquitto*, void* self, const struct mosquitto_message* msg) {
    MqttLink& link = *static_cast<MqttLink*>(self);
    if (!link.messageCb || msg->topic == nullptr) return;
    std::string payload(static_cast<const char*>(msg->payload), static_cast<size_t>(std::max(msg->payloadlen, 0)));
    link.messageCb(msg->topic, payload, msg->retain);
}

bool MqttLink::publish(const std::string& topic, const std::string& payload, int qos, bool retain) {
    if (!isConnected) return false;
    return mosquitto_publish(mosq, nullptr, topic.c_str(), static_cast<int>(payload.size()), payload.data(), qos,
                             retain) == MOSQ_ERR_SUCCESS;
}

bool MqttLink::subscribe(const std::string& filter, int qos) {
    return isConnected && mosquitto_subscribe(mosq, nullptr, filter.c_str(), qos) == MOSQ_ERR_SUCCESS;
}

void MqttLink::close(int timeoutMs) {
    if (!socketOpen) return;
    Timestamp end = currentTime() + static_cast<Timestamp>(timeoutMs);
    while (mosquitto_want_write(mosq) && currentTime() < end)
        if (mosquitto_loop_write(mosq, 1) != MOSQ_ERR_SUCCESS) break;
    mosquitto_disconnect(mosq);
    mosquitto_loop_write(mosq, 1);
    socketOpen = false;
    isConnected = false;
}

}  // namespace bridge
