// The bridge's connection to an MQTT broker: libmosquitto driven from the
// caller's poll() loop, with its last will, credentials, TLS, and reconnects
// with back-off and jitter (1 s doubling to 30 s). The loop never waits for a
// silent broker host: a numeric address is probed without blocking first.
//
// Single-threaded: every callback runs inside handleIo() or service(). While
// disconnected, publish() and subscribe() return false and queue nothing: the
// owner republishes everything from onConnected. A broker that refuses us is
// reported in one line per distinct reason, not per attempt.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "Velto/platform.h"

struct mosquitto;
struct mosquitto_message;

namespace bridge {

struct MqttSettings {
    std::string host = "127.0.0.1";
    int port = 1883;
    std::string clientId;
    std::string username;
    std::string password;
    std::string tlsCa;  // CA file; empty: no TLS
    std::string willTopic;
    std::string willPayload;
    int keepAliveS = 30;
};

class MqttLink {
public:
    MqttLink() = default;
    ~MqttLink();
    MqttLink(const MqttLink&) = delete;
    MqttLink& operator=(const MqttLink&) = delete;

    // Creates the client (nothing is connected yet). False with why set when
    // the library refuses a setting (a TLS file it cannot use, say).
    bool init(const MqttSettings& settings, std::string& why);

    void onConnected(std::function<void()> f) { connectedCb = std::move(f); }
    void onMessage(std::function<void(const std::string&, const std::string&, bool)> f) { messageCb = std::move(f); }

    // The socket to poll (-1 while there is none) and whether to poll it for writing.
    int socket() const;
    bool wantWrite() const;
    // After poll(): reads and writes as the socket allows.
    void handleIo(bool readable, bool writable);
    // Keep-alives, and a connection attempt when one is due.
    void service(Timestamp now);
    // Milliseconds until service() has work (at most 1000).
    int msUntilDue(Timestamp now) const;

    bool publish(const std::string& topic, const std::string& payload, int qos, bool retain);
    bool subscribe(const std::string& filter, int qos);
    bool connected() const { return isConnected; }
    // Publishes nothing more; disconnects cleanly after what is queued is sent
    // (bounded by timeoutMs).
    void close(int timeoutMs);

private:
    static void connectCallback(struct mosquitto*, void* self, int rc);
    static void disconnectCallback(struct mosquitto*, void* self, int rc);
    static void messageCallback(struct mosquitto*, void* self, const struct mosquitto_message* msg);
    void startProbe(Timestamp now);
    void checkProbe(Timestamp now);
    void endProbe(Timestamp now, const std::string& error);
    void tryConnect(Timestamp now);
    void lost(Timestamp now);
    void report(const std::string& reason);

    struct mosquitto* mosq = nullptr;
    MqttSettings cfg;
    bool isConnected = false;
    bool socketOpen = false;
    int probeFd = -1;  // a non-blocking connect testing that the broker answers
    Timestamp probeUntil = 0;
    Timestamp nextAttempt = 0;
    Timestamp lastMisc = 0;
    int backoffMs = 1000;
    std::string lastReason;
    std::function<void()> connectedCb;
    std::function<void(const std::string&, const std::string&, bool)> messageCb;
};

}  // namespace bridge
