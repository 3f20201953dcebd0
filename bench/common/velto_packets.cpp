// Encoding the benchmark's packs and moving datagrams on loopback sockets.
#include "bench/common/velto_packets.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace bench {

int encodePack(VeltoPacket& p, DeviceID headerDev, uint32_t packetNo, uint8_t* out, size_t cap) {
    p.devId = headerDev;
    p.packetNo = packetNo;
    return p.serialize(out, cap);
}

int encodeCarrier(uint8_t* out, size_t cap, DeviceID headerDev, uint32_t packetNo, DeviceID from, DeviceID to,
                  MessageNo msgNo, const uint8_t* data, uint32_t len) {
    MessageCarrierPack c;
    if (len > c.payload.capacity()) return -1;
    c.msgCat = DIRECT_MSGCAT;
    c.fromDeviceId = from;
    c.fromObjectNo = 0;
    c.msgId = BENCH_MSG_ID;
    c.toDeviceId = to;
    c.toObjectNo = 0;
    c.msgNo = msgNo;
    c.packetStart = 0;
    c.msgSize = len;
    uint32_t sum = 0;
    for (uint32_t i = 0; i < len; ++i) sum += data[i];
    c.checksum = sum;
    std::memcpy(c.payload.data(), data, len);
    c.payload.setSize(len);
    return encodePack(c, headerDev, packetNo, out, cap);
}

int encodeAck(uint8_t* out, size_t cap, DeviceID headerDev, uint32_t packetNo, const MessageCarrierPack& c) {
    MessageCarrierACKPack a;
    a.msgCat = c.msgCat;
    a.fromDeviceId = c.fromDeviceId;
    a.fromObjectNo = c.fromObjectNo;
    a.msgId = c.msgId;
    a.toDeviceId = c.toDeviceId;
    a.toObjectNo = c.toObjectNo;
    a.msgNo = c.msgNo;
    a.lastSeqNo = c.msgSize;
    return encodePack(a, headerDev, packetNo, out, cap);
}

int encodePing(uint8_t* out, size_t cap, DeviceID headerDev, uint32_t packetNo, uint8_t kind, uint64_t replyKey) {
    PingPongPack p;
    p.pingOrPong = kind;
    p.replyKey = replyKey;
    p.random = replyKey ^ 0x9e3779b97f4a7c15ull;
    return encodePack(p, headerDev, packetNo, out, cap);
}

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
