// Readiness and keep-alive reports to a service manager that started the hub.
//
// When the environment names a socket in NOTIFY_SOCKET (a path, or "@name" for
// the abstract namespace), each report is one datagram of text to it:
// "READY=1", "WATCHDOG=1", "STOPPING=1". WATCHDOG_USEC (and WATCHDOG_PID, when
// set, equal to our pid) asks for keep-alives at half that period. With
// NOTIFY_SOCKET unset or empty nothing is sent, printed or opened.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <string>

#include "Velto/platform.h"

class ServiceNotifier {
public:
    // Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID.
    static ServiceNotifier fromEnvironment();

    // Disabled: every report is a no-op.
    ServiceNotifier() = default;
    // socketName as in NOTIFY_SOCKET; watchdogUsec 0 for no keep-alives.
    ServiceNotifier(const std::string& socketName, uint64_t watchdogUsec);

    bool enabled() const { return addrLen != 0; }
    // Milliseconds between keep-alives, 0 when none are asked for.
    uint64_t keepAliveIntervalMs() const { return keepAliveMs; }

    // Sends text as one datagram. False when disabled or the send fails; the
    // first failure prints one WARNING line to standard error, later ones none.
    bool notify(const char* text);
    // Sends WATCHDOG=1 when keep-alives are asked for and the interval has
    // passed since the last one (or none was sent yet). Called from the loop.
    void keepAlive(Timestamp now);

private:
    sockaddr_un addr{};
    socklen_t addrLen = 0;
    uint64_t keepAliveMs = 0;
    Timestamp lastKeepAlive = 0;
    bool sentKeepAlive = false;
    bool warned = false;
};

// The hub's notifier, made from the environment on first use.
ServiceNotifier& serviceNotifier();
