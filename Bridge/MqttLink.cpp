// libmosquitto in an external poll loop.
#include "Bridge/MqttLink.h"

#include <arpa/inet.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <random>

namespace bridge {

namespace {
constexpr int MAX_BACKOFF_MS = 30000;
constexpr Timestamp PROBE_MS = 3000;
}  // namespace

MqttLink::~MqttLink() {
    if (probeFd >= 0) ::close(probeFd);
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
        if (probeFd >= 0)
            checkProbe(now);
        else if (now >= nextAttempt)
            startProbe(now);
        return;
    }
    if (now >= lastMisc + 1000) {
        lastMisc = now;
        if (mosquitto_loop_misc(mosq) != MOSQ_ERR_SUCCESS) lost(now);
    }
}

int MqttLink::msUntilDue(Timestamp now) const {
    if (probeFd >= 0) return 10;
    Timestamp due = socketOpen ? lastMisc + 1000 : nextAttempt;
    return due <= now ? 0 : static_cast<int>(std::min<Timestamp>(due - now, 1000));
}

// mosquitto_connect blocks until TCP connects, which a silent host can make
// last minutes. A numeric address is first probed with a non-blocking connect
// (PROBE_MS at most, across loop passes); the library connects only to a
// broker that answered. A host name is left to the library.
void MqttLink::startProbe(Timestamp now) {
    struct sockaddr_in addr {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(cfg.port));
    if (inet_pton(AF_INET, cfg.host.c_str(), &addr.sin_addr) != 1) return tryConnect(now);
    probeFd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (probeFd < 0) return tryConnect(now);
    probeUntil = now + PROBE_MS;
    if (::connect(probeFd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0 || errno == EINPROGRESS)
        return checkProbe(now);
    endProbe(now, std::strerror(errno));
}

void MqttLink::checkProbe(Timestamp now) {
    struct pollfd p = {probeFd, POLLOUT, 0};
    if (::poll(&p, 1, 0) == 0) {
        if (now >= probeUntil) endProbe(now, "no answer within " + std::to_string(PROBE_MS) + " ms");
        return;
    }
    int err = 0;
    socklen_t len = sizeof(err);
    ::getsockopt(probeFd, SOL_SOCKET, SO_ERROR, &err, &len);
    endProbe(now, err == 0 ? "" : std::strerror(err));
}

void MqttLink::endProbe(Timestamp now, const std::string& error) {
    ::close(probeFd);
    probeFd = -1;
    if (error.empty()) return tryConnect(now);
    report("cannot connect to the broker at " + cfg.host + ":" + std::to_string(cfg.port) + ": " + error);
    lost(now);
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
