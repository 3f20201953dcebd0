// The service manager's end of the notify protocol for tests: an AF_UNIX
// datagram socket bound to a name as NOTIFY_SOCKET gives it (a path, or
// "@name" for the abstract namespace), and bounded waits for its datagrams.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace testsupport {

class NotifyListener {
public:
    explicit NotifyListener(const std::string& name) : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::memcpy(a.sun_path, name.data(), name.size());
        if (name[0] == '@') a.sun_path[0] = '\0';
        bound = bind(fd, reinterpret_cast<sockaddr*>(&a), offsetof(sockaddr_un, sun_path) + name.size()) == 0;
    }
    ~NotifyListener() { close(fd); }
    bool ok() const { return bound; }
    // The next datagram's text, or "" when none comes within timeoutMs.
    std::string next(int timeoutMs) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, timeoutMs) != 1) return "";
        char buf[256];
        const ssize_t n = recv(fd, buf, sizeof buf, 0);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
    }

private:
    int fd;
    bool bound = false;
};

}  // namespace testsupport
