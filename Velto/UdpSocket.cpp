#include "Velto/UdpSocket.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <istream>
#include <ostream>
#include <sstream>
#include <string>

// ---------------------------------------------------------------- SockAddress

SockAddress::SockAddress() : SockAddress(nullptr, 0, nullptr) {}

SockAddress::SockAddress(const char* host, uint16_t port, const char* /*extra*/)
    : t(IPV4), pn(port) {
    memset(&addr6, 0, sizeof(addr6));  // the larger member: clears the whole union
    addr4.sin_family = AF_INET;
    addr4.sin_port = htons(port);
    const bool any = host == nullptr || host[0] == '\0' || strcmp(host, "*") == 0;
    addr4.sin_addr.s_addr = any ? htonl(INADDR_ANY) : inet_addr(host);
}

const char* SockAddress::ipAddr() const {
    return inet_ntoa(addr4.sin_addr);
}

bool SockAddress::getSockAddr(sockaddr_in& out) const {
    if (t != IPV4) return false;
    out = addr4;
    return true;
}

void SockAddress::setSockAddr(const sockaddr_in& in) {
    memset(&addr6, 0, sizeof(addr6));
    t = IPV4;
    addr4 = in;
    pn = ntohs(in.sin_port);
}

bool SockAddress::operator==(const SockAddress& o) const {
    if (t != o.t || pn != o.pn) return false;
    if (t != IPV4) return false;
    return addr4.sin_addr.s_addr == o.addr4.sin_addr.s_addr;
}

bool SockAddress::operator<(const SockAddress& o) const {
    if (t != o.t) return t < o.t;
    if (t != IPV4) return false;
    const uint32_t a = addr4.sin_addr.s_addr;
    const uint32_t b = o.addr4.sin_addr.s_addr;
    if (a != b) return a < b;
    return pn < o.pn;
}

std::ostream& operator<<(std::ostream& os, const SockAddress& a) {
    return os << '[' << a.ipAddr() << "]:" << static_cast<unsigned>(a.port());
}

namespace {

// Reads the port from at most seven characters of `token` starting at `pos`;
// false (port 0) when no number can be read there.
bool readPort(const std::string& token, size_t pos, uint16_t& port) {
    std::istringstream in(token.substr(pos, 7));
    in >> port;
    if (in.fail()) {
        port = 0;
        return false;
    }
    return true;
}

}  // namespace

std::istream& operator>>(std::istream& is, SockAddress& a) {
    std::string token;
    if (!(is >> token)) return is;
    const size_t close = token.find(']');
    if (close == std::string::npos) {
        is.setstate(std::ios::failbit);
        return is;
    }
    const size_t start = token[0] == '[' ? 1 : 0;
    const std::string host = close > start ? token.substr(start, close - start) : "";
    size_t pos = close;
    while (pos < token.size() && (token[pos] == ']' || token[pos] == ':')) ++pos;
    uint16_t port = 0;
    if (!readPort(token, pos, port)) is.setstate(std::ios::failbit);
    a = SockAddress(host.c_str(), port, nullptr);
    return is;
}

// ------------------------------------------------------------------ UdpSocket

UdpSocket::~UdpSocket() {
    close();
}

bool UdpSocket::bind(const SockAddress& local, bool reuse) {
    close();
    sockaddr_in sa;
    if (!local.getSockAddr(sa)) return false;
    fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        fd = -1;
        return false;
    }
    if (reuse) {
        int one = 1;
        (void)::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    }
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&sa), sizeof(sa)) != 0) {
        close();
        return false;
    }
    return true;
}

bool UdpSocket::joinMCastGroup(const SockAddress& group) {
    sockaddr_in sa;
    if (fd < 0 || !group.getSockAddr(sa)) return false;
    ip_mreq req;
    memset(&req, 0, sizeof(req));
    req.imr_multiaddr = sa.sin_addr;
    req.imr_interface.s_addr = htonl(INADDR_ANY);
    return ::setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &req, sizeof(req)) == 0;
}

void UdpSocket::close() {
    if (fd >= 0) ::close(fd);
    fd = -1;
    receiveTimeoutUs = 0;
    holdDepth = 0;
}

struct UdpSocket::HeldSends {
    uint8_t data[MAX_BATCH][MAX_HELD_SIZE];
    size_t sizes[MAX_BATCH];
    sockaddr_in to[MAX_BATCH];
    size_t count = 0;
};

UdpSocket::UdpSocket() = default;

int UdpSocket::sendTo(const SockAddress& to, uint8_t* data, size_t size) {
    sockaddr_in sa;
    if (fd < 0 || data == nullptr || !to.getSockAddr(sa)) return -1;
    if (holdDepth > 0) {
        if (held->count == MAX_BATCH) sendHeld();
        if (size <= MAX_HELD_SIZE) {
            const size_t i = held->count++;
            memcpy(held->data[i], data, size);
            held->sizes[i] = size;
            held->to[i] = sa;
            return static_cast<int>(size);
        }
        sendHeld();  // keeps the order: what is held goes first
    }
    const ssize_t n = ::sendto(fd, data, size, 0, reinterpret_cast<const sockaddr*>(&sa), sizeof(sa));
    return static_cast<int>(n);
}

void UdpSocket::holdSends() {
    if (!held) held.reset(new HeldSends());
    ++holdDepth;
}

int UdpSocket::releaseSends() {
    if (holdDepth == 0 || --holdDepth > 0) return 0;
    const int n = static_cast<int>(held->count);
    sendHeld();
    return n;
}

bool UdpSocket::setReceiveBuffer(int bytes) {
    if (fd < 0 || bytes <= 0) return false;
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes)) == 0) return true;
    return ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)) == 0;
}

// Sends every held datagram with sendmmsg; one the platform refuses is dropped
// (as a failed sendto would be) and the rest go on. Bounded: each round moves
// past at least one datagram.
void UdpSocket::sendHeld() {
    mmsghdr msgs[MAX_BATCH];
    iovec iov[MAX_BATCH];
    const size_t count = held->count;
    held->count = 0;
    if (count == 0 || fd < 0) return;
    memset(msgs, 0, sizeof(mmsghdr) * count);
    for (size_t i = 0; i < count; ++i) {
        iov[i].iov_base = held->data[i];
        iov[i].iov_len = held->sizes[i];
        msgs[i].msg_hdr.msg_iov = &iov[i];
        msgs[i].msg_hdr.msg_iovlen = 1;
        msgs[i].msg_hdr.msg_name = &held->to[i];
        msgs[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
    }
    size_t done = 0;
    while (done < count) {
        const int r = ::sendmmsg(fd, msgs + done, static_cast<unsigned>(count - done), 0);
        done += r > 0 ? static_cast<size_t>(r) : 1;
    }
}

namespace {

// recvfrom with the given flags; the byte count or -1, `from` set on success.
int receiveFrom(int fd, uint8_t* buffer, size_t capacity, SockAddress* from, int flags) {
    sockaddr_in sa;
    memset(&sa, 0, sizeof(sa));
    socklen_t len = sizeof(sa);
    const ssize_t n = ::recvfrom(fd, buffer, capacity, flags, reinterpret_cast<sockaddr*>(&sa), &len);
    if (n < 0) return -1;
    if (from != nullptr) from->setSockAddr(sa);
    return static_cast<int>(n);
}

// Waits at most micros microseconds for fd to become readable (poll(), which
// takes any descriptor number, unlike select()). 1 when readable, 0 on
// time-out, -1 on error.
int pollReadable(int fd, uint64_t micros) {
    pollfd p;
    p.fd = fd;
    p.events = POLLIN;
    p.revents = 0;
    timespec ts;
    ts.tv_sec = static_cast<time_t>(micros / 1000000u);
    ts.tv_nsec = static_cast<long>((micros % 1000000u) * 1000u);
    const int r = ::ppoll(&p, 1, &ts, nullptr);
    if (r < 0) return -1;
    return r > 0 ? 1 : 0;
}

}  // namespace

int UdpSocket::recv(uint8_t* buffer, size_t capacity, SockAddress* from) {
    if (fd < 0 || buffer == nullptr) return -1;
    return receiveFrom(fd, buffer, capacity, from, 0);
}

int UdpSocket::recvNoWait(uint8_t* buffer, size_t capacity, SockAddress* from) {
    if (fd < 0 || buffer == nullptr) return -1;
    const int n = receiveFrom(fd, buffer, capacity, from, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return 0;
    return n;
}

int UdpSocket::recvBatchNoWait(uint8_t* buffers, size_t capacity, size_t count, int* sizes, SockAddress* froms) {
    return recvBatch(buffers, capacity, count, sizes, froms, MSG_DONTWAIT);
}

int UdpSocket::recvBatchWait(uint8_t* buffers, size_t capacity, size_t count, int* sizes, SockAddress* froms,
                             uint32_t maxWaitUs) {
    if (fd < 0) return -1;
    if (maxWaitUs == 0) return recvBatchNoWait(buffers, capacity, count, sizes, froms);
    if (maxWaitUs != receiveTimeoutUs) {
        timeval tv;
        tv.tv_sec = static_cast<time_t>(maxWaitUs / 1000000u);
        tv.tv_usec = static_cast<suseconds_t>(maxWaitUs % 1000000u);
        if (::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) != 0) return -1;
        receiveTimeoutUs = maxWaitUs;
    }
    return recvBatch(buffers, capacity, count, sizes, froms, MSG_WAITFORONE);
}

// recvmmsg into count buffers of capacity bytes each; EAGAIN (nothing queued,
// or the receive time-out passed) counts as 0 datagrams.
int UdpSocket::recvBatch(uint8_t* buffers, size_t capacity, size_t count, int* sizes, SockAddress* froms,
                         int flags) {
    if (fd < 0 || buffers == nullptr || sizes == nullptr || froms == nullptr) return -1;
    if (count > MAX_BATCH) count = MAX_BATCH;
    if (count == 0) return 0;
    mmsghdr msgs[MAX_BATCH];
    iovec iov[MAX_BATCH];
    sockaddr_in addrs[MAX_BATCH];
    memset(msgs, 0, sizeof(mmsghdr) * count);
    memset(addrs, 0, sizeof(sockaddr_in) * count);
    for (size_t i = 0; i < count; ++i) {
        iov[i].iov_base = buffers + i * capacity;
        iov[i].iov_len = capacity;
        msgs[i].msg_hdr.msg_iov = &iov[i];
        msgs[i].msg_hdr.msg_iovlen = 1;
        msgs[i].msg_hdr.msg_name = &addrs[i];
        msgs[i].msg_hdr.msg_namelen = sizeof(addrs[i]);
    }
    const int n = ::recvmmsg(fd, msgs, static_cast<unsigned>(count), flags, nullptr);
    if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
    for (int i = 0; i < n; ++i) {
        sizes[i] = static_cast<int>(msgs[i].msg_len);
        froms[i].setSockAddr(addrs[i]);
    }
    return n;
}

int UdpSocket::recvWithTo(uint8_t* buffer, size_t capacity, SockAddress* from, uint32_t timeout) {
    if (fd < 0) return -1;
    const int r = pollReadable(fd, static_cast<uint64_t>(timeout) * 1000u);
    if (r <= 0) return r;
    return recv(buffer, capacity, from);
}

int UdpSocket::waitReadable(uint64_t micros) {
    if (fd < 0) return -1;
    return pollReadable(fd, micros);
}
