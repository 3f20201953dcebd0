// IPv4 UDP transport: SockAddress, an address and port usable as a map key with a
// text form "[a.b.c.d]:port" for logs and record files, and UdpSocket, the thin
// owner of one datagram socket. Nothing here prints; failures are returned
// (false, or -1). Ports are in host order in `pn`, in network order in `addr4`.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <iosfwd>

class SockAddress {
public:
    enum Type { IPV4 = 0, IPV6 = 1 };

    SockAddress();
    // host null, "" or "*" gives the any-address; otherwise inet_addr(host), so
    // an unparsable text gives 255.255.255.255. `extra` is not used.
    SockAddress(const char* host, uint16_t port, const char* extra = nullptr);

    Type type() const { return t; }
    uint16_t port() const { return pn; }
    // Dotted-quad text; lives in a static buffer of the platform, use it at once.
    const char* ipAddr() const;
    const char* hostName() const { return ipAddr(); }
    bool getSockAddr(sockaddr_in& out) const;
    void setSockAddr(const sockaddr_in& in);

    bool operator==(const SockAddress& o) const;
    bool operator!=(const SockAddress& o) const { return !(*this == o); }
    bool operator<(const SockAddress& o) const;

private:
    Type t;
    uint16_t pn;
    union {
        sockaddr_in addr4;
        sockaddr_in6 addr6;  // reserved for a later IPv6 form
    };
};

// "[" ipAddr() "]:" port
std::ostream& operator<<(std::ostream& os, const SockAddress& a);
// Reads one token in the output form; see the .cpp for the exact rules.
std::istream& operator>>(std::istream& is, SockAddress& a);

class UdpSocket {
public:
    UdpSocket() = default;
    ~UdpSocket();
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    bool ok() const { return fd >= 0; }
    int handle() const { return fd; }
    // Closes any open socket, opens a new one and binds it; false (socket closed)
    // on failure. reuse sets SO_REUSEADDR.
    bool bind(const SockAddress& local, bool reuse);
    bool joinMCastGroup(const SockAddress& group);
    void close();
    // -1 when closed or data is null; otherwise the platform's result.
    int sendTo(const SockAddress& to, uint8_t* data, size_t size);
    // Blocking receive of one datagram; -1 when closed, buffer null or on error.
    int recv(uint8_t* buffer, size_t capacity, SockAddress* from);
    // Waits at most timeout ms (0 = poll); 0 on time-out, -1 on error, else recv().
    int recvWithTo(uint8_t* buffer, size_t capacity, SockAddress* from, uint32_t timeout);

private:
    int fd = -1;
};
