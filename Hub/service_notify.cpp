// Notification datagrams to the service manager.
#include "Hub/service_notify.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace {

// A whole decimal number of microseconds, 0 when absent or malformed.
uint64_t parseMicros(const char* text) {
    if (text == nullptr || *text < '0' || *text > '9') return 0;
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(text, &end, 10);
    return errno == 0 && *end == '\0' ? v : 0;
}

// WATCHDOG_PID, when set, names the process the keep-alives are meant for.
bool watchdogMeantForUs() {
    const char* pid = std::getenv("WATCHDOG_PID");
    if (pid == nullptr || *pid == '\0') return true;
    return parseMicros(pid) == static_cast<uint64_t>(getpid());
}

}  // namespace

ServiceNotifier::ServiceNotifier(const std::string& socketName, uint64_t watchdogUsec) {
    const size_t n = socketName.size();
    const bool abstract = n > 0 && socketName[0] == '@';
    // A path needs room for its terminating NUL; an abstract name does not.
    if (n < 2 && abstract) return;
    if (n == 0 || n > sizeof(addr.sun_path) - (abstract ? 0 : 1)) return;
    if (!abstract && socketName[0] != '/') return;
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, socketName.data(), n);
    if (abstract) addr.sun_path[0] = '\0';
    addrLen = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + n);
    keepAliveMs = watchdogUsec / 2000;
    if (watchdogUsec > 0 && keepAliveMs == 0) keepAliveMs = 1;
}

ServiceNotifier ServiceNotifier::fromEnvironment() {
    const char* name = std::getenv("NOTIFY_SOCKET");
    if (name == nullptr || *name == '\0') return ServiceNotifier();
    const uint64_t usec = watchdogMeantForUs() ? parseMicros(std::getenv("WATCHDOG_USEC")) : 0;
    ServiceNotifier n(name, usec);
    if (!n.enabled()) std::cerr << "WARNING: NOTIFY_SOCKET is not a usable socket name; no notifications\n";
    return n;
}

bool ServiceNotifier::notify(const char* text) {
    if (!enabled()) return false;
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool ok = fd >= 0;
    if (ok) {
        const size_t len = std::strlen(text);
        ssize_t sent;
        do {
            sent = ::sendto(fd, text, len, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&addr), addrLen);
        } while (sent < 0 && errno == EINTR);
        ok = sent == static_cast<ssize_t>(len);
        ::close(fd);
    }
    if (!ok && !warned) {
        warned = true;
        std::cerr << "WARNING: cannot notify the service manager: " << std::strerror(errno) << '\n';
    }
    return ok;
}

void ServiceNotifier::keepAlive(Timestamp now) {
    if (keepAliveMs == 0) return;
    if (sentKeepAlive && now < lastKeepAlive + keepAliveMs) return;
    lastKeepAlive = now;
    sentKeepAlive = true;
    notify("WATCHDOG=1");
}

ServiceNotifier& serviceNotifier() {
    static ServiceNotifier notifier = ServiceNotifier::fromEnvironment();
    return notifier;
}
