// The bridge's single-threaded loop.
#include "Bridge/BridgeApp.h"

#include <poll.h>

#include <algorithm>
#include <iostream>

namespace bridge {

namespace {
constexpr int MAX_WAIT_MS = 50;  // the session's own timers want a pass this often
}  // namespace

BridgeApp::BridgeApp(const BridgeOptions& o)
    : opts(o),
      topics(o.baseTopic, o.discoveryPrefix),
      session(o.device),
      store(o.storeDir),
      publisher(mqtt, topics),
      mirror(session, store, publisher, o.pollMs) {
    publisher.attach(mirror);
}

int BridgeApp::run(volatile std::sig_atomic_t& stop) {
    std::string why;
    if (!mqtt.init(opts.mqtt, why)) {
        std::cerr << "velto-mqtt: " << why << '\n';
        return 1;
    }
    mqtt.onConnected([this] { publisher.connected(); });
    mqtt.onMessage([this](const std::string& t, const std::string& p, bool r) { publisher.mqttMessage(t, p, r); });
    session.onMessage([this](const device::IncomingMessage& m) { mirror.onHubMessage(m); });
    session.onDelivery([this](const device::DeliveryResult& r) { publisher.delivery(r); });
    session.onError([this](const device::MessageError& e) { publisher.refused(e); });
    if (!session.start()) std::cerr << "velto-mqtt: " << session.lastError() << '\n';
    while (!stop) {
        Timestamp now = currentTime();
        mqtt.service(now);
        waitOnce(now);
        now = currentTime();
        followSession();
        mirror.service(now);
        mirror.documentsArrived();
        publisher.service(now);
    }
    publisher.stopping();
    mqtt.close(1000);
    std::cout << "velto-mqtt: stopped" << std::endl;
    return 0;
}

// One bounded wait on both sockets, then whatever is readable is handled.
void BridgeApp::waitOnce(Timestamp now) {
    struct pollfd fds[2];
    nfds_t n = 0;
    int mfd = mqtt.socket();
    if (session.handle() >= 0) fds[n++] = {session.handle(), POLLIN, 0};
    if (mfd >= 0) fds[n++] = {mfd, static_cast<short>(POLLIN | (mqtt.wantWrite() ? POLLOUT : 0)), 0};
    int wait = std::min({MAX_WAIT_MS, session.pollSliceMs(), mqtt.msUntilDue(now)});
    ::poll(fds, n, wait);
    if (session.handle() >= 0 && session.poll(0) < 0) std::cerr << "velto-mqtt: " << session.lastError() << '\n';
    if (mfd >= 0) {
        const struct pollfd& m = fds[n - 1];
        mqtt.handleIo((m.revents & (POLLIN | POLLERR | POLLHUP)) != 0, (m.revents & POLLOUT) != 0);
    }
}

// The hub session lost and back, in one place: devices go offline meanwhile,
// and everything is read again after the rejoin.
void BridgeApp::followSession() {
    bool ready = session.state() == device::DeviceSession::State::READY;
    if (ready && !sessionReady) {
        std::cout << "velto-mqtt: joined the hub as node " << session.nodeId() << std::endl;
        mirror.sessionBack();
    }
    if (!ready && sessionReady) {
        std::cerr << "velto-mqtt: lost the hub: " << session.lastError() << '\n';
        mirror.sessionLost();
    }
    sessionReady = ready;  // the session rejoins by itself, with back-off
}

}  // namespace bridge
