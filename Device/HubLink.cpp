// UDP link of a device to its hub.
#include "Device/HubLink.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace device {

bool HubLink::open() {
    if (!sock.bind(SockAddress("", 0), false)) return false;
    // The hub sends a long message in one burst; without room for it the
    // queue overflows and every round loses its tail. Not fatal when refused.
    sock.setReceiveBuffer(RECEIVE_BUFFER_BYTES);
    return true;
}

uint16_t HubLink::localPort() const {
    if (!sock.ok()) return 0;
    sockaddr_in a;
    socklen_t len = sizeof(a);
    memset(&a, 0, sizeof(a));
    if (getsockname(sock.handle(), reinterpret_cast<sockaddr*>(&a), &len) != 0) return 0;
    return ntohs(a.sin_port);
}

bool HubLink::localAddressToward(const SockAddress& to, uint8_t out[4]) {
    sockaddr_in dst;
    if (!to.getSockAddr(dst)) return false;
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return false;
    // Connecting a datagram socket only picks the route; nothing is sent.
    bool ok = connect(fd, reinterpret_cast<const sockaddr*>(&dst), sizeof(dst)) == 0;
    sockaddr_in self;
    socklen_t len = sizeof(self);
    memset(&self, 0, sizeof(self));
    ok = ok && getsockname(fd, reinterpret_cast<sockaddr*>(&self), &len) == 0;
    ::close(fd);
    if (!ok) return false;
    memcpy(out, &self.sin_addr.s_addr, 4);
    return true;
}

void HubLink::setSigning(uint8_t type, const ByteArray<32>& key) {
    sigType = type;
    sigKey = key;
}

bool HubLink::send(VeltoPacket& p) {
    if (!haveHub) return false;
    return sendTo(hubAddr, p);
}

bool HubLink::sendTo(const SockAddress& to, VeltoPacket& p) {
    if (!sock.ok()) return false;
    p.devId = devId;
    p.hubId = hubId;
    p.packetNo = packetNo;
    if (sigType != NO_SIGNATURE_TYPE)
        p.signature.setKey(sigType, sigKey.data(), sigKey.size());
    uint8_t buf[MAX_PACKET_SIZE];
    int n = p.serialize(buf, sizeof(buf));
    if (n < 1) return false;
    ++packetNo;
    return sock.sendTo(to, buf, static_cast<size_t>(n)) == n;
}

int HubLink::receive(uint8_t* buffer, size_t capacity, SockAddress& from, uint32_t timeoutMs) {
    if (!sock.ok()) return -1;
    errno = 0;
    int n = sock.recvWithTo(buffer, capacity, &from, timeoutMs);
    // A signal that cuts the wait short is the caller's business, not a
    // socket failure.
    return n < 0 && errno == EINTR ? 0 : n;
}

}  // namespace device
