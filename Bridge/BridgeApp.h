// The velto-mqtt process: one poll() loop serving the device session and the
// broker connection, the mirror of the hub and the publisher.
//
// The session is started without waiting; when it is lost the devices go
// offline and it is started again (every 2 s until it is back), after which
// everything is read again. run() returns when stop becomes non-zero, after
// "offline" is published on the bridge's state topic.
#pragma once

#include <csignal>

#include "Bridge/BridgeOptions.h"
#include "Bridge/HubMirror.h"
#include "Bridge/InterfaceStore.h"
#include "Bridge/MqttLink.h"
#include "Bridge/Publisher.h"
#include "Device/DeviceSession.h"

namespace bridge {

class BridgeApp {
public:
    explicit BridgeApp(const BridgeOptions& options);
    // 0 after a stop request; 1 when the MQTT client cannot be set up.
    int run(volatile std::sig_atomic_t& stop);

private:
    void waitOnce(Timestamp now);
    // Marks the devices offline when the hub session is lost and reads
    // everything again when it is back.
    void followSession();

    BridgeOptions opts;
    TopicNames topics;
    device::DeviceSession session;
    InterfaceStore store;
    MqttLink mqtt;
    Publisher publisher;
    HubMirror mirror;
    bool sessionReady = false;
};

}  // namespace bridge
