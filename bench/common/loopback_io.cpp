// Moving datagrams on loopback sockets.
#include "bench/common/loopback_io.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace bench {

sockaddr_in loopbackAddress(uint16_t port) {
    sockaddr_in a;
    std::memset(&a, 0, sizeof(a));
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

int openLoopbackSocket(uint16_t port) {
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_in a = loopbackAddress(port);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

uint16_t localPortOf(int fd) {
    sockaddr_in a;
    socklen_t len = sizeof(a);
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) return 0;
    return ntohs(a.sin_port);
}

bool sendDatagram(int fd, const sockaddr_in& to, const uint8_t* data, size_t n) {
    ssize_t r = ::sendto(fd, data, n, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
    return r == static_cast<ssize_t>(n);
}

int receiveNow(int fd, uint8_t* buf, size_t cap, sockaddr_in& from) {
    socklen_t len = sizeof(from);
    ssize_t r = ::recvfrom(fd, buf, cap, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &len);
    if (r >= 0) return static_cast<int>(r);
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return 0;
    // An earlier datagram to a closed port reports ECONNREFUSED once; not fatal.
    if (errno == ECONNREFUSED) return 0;
    return -1;
}

long raiseDescriptorLimit(long wanted) {
    rlimit lim;
    if (::getrlimit(RLIMIT_NOFILE, &lim) != 0) return -1;
    rlim_t target = static_cast<rlim_t>(wanted);
    if (lim.rlim_max != RLIM_INFINITY && target > lim.rlim_max) target = lim.rlim_max;
    if (lim.rlim_cur < target) {
        lim.rlim_cur = target;
        if (::setrlimit(RLIMIT_NOFILE, &lim) != 0) ::getrlimit(RLIMIT_NOFILE, &lim);
    }
    return static_cast<long>(lim.rlim_cur);
}

}  // namespace bench
