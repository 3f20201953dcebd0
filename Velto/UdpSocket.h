// IPv4 UDP transport: SockAddress, an address and port usable as a map key with a
// text form "[a.b.c.d]:port" for logs and record files, and UdpSocket, the thin
// owner of one datagram socket. Nothing here prints; failures are returned
// (false, or -1). Ports are in host order in `pn`, in network order in `addr4`;
// the address inside `addr4` is in network order. A UdpSocket owns its descriptor
// and closes it on destruction.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>

class SockAddress {
public:
    enum Type { IPV4 = 0, IPV6 = 1 };

    // IPV4, the any-address, port 0.
    SockAddress();
    // host null, "" or "*" gives the any-address; otherwise inet_addr(host), so
    // an unparsable text gives 255.255.255.255. `extra` is not used.
    SockAddress(const char* host, uint16_t port, const char* extra = nullptr);

    Type type() const { return t; }
    uint16_t port() const { return pn; }
    // Dotted-quad text; lives in a static buffer of the platform, use it at once.
    const char* ipAddr() const;
    const char* hostName() const { return ipAddr(); }
    // Copies the IPv4 address out: true for IPV4, false (out untouched) otherwise.
    bool getSockAddr(sockaddr_in& out) const;
    // Becomes IPV4 with the address and port of `in`.
    void setSockAddr(const sockaddr_in& in);

    // Equal type and port and, for IPV4, equal address; two IPV6 values never
    // compare equal.
    bool operator==(const SockAddress& o) const;
    bool operator!=(const SockAddress& o) const { return !(*this == o); }
    // Strict weak order: by type, then by the address word as stored (network
    // order read as a host integer), then by port. IPV6 values are never less.
    bool operator<(const SockAddress& o) const;

private:
    Type t;
    uint16_t pn;
    union {
        sockaddr_in addr4;
        sockaddr_in6 addr6;  // reserved for a later IPv6 form
    };
};

// Writes "[" ipAddr() "]:" port in decimal; returns os.
std::ostream& operator<<(std::ostream& os, const SockAddress& a);
// Reads one whitespace-delimited token in the output form "[host]:port". A
// leading "[" is skipped, the host ends before the first "]", every "]" or ":"
// after it is skipped and the port is read from at most the next 7 characters.
// The target becomes SockAddress(host, port). A token without "]" sets failbit
// and leaves the target unchanged; an unreadable port replaces the target with
// port 0 and sets failbit. Returns is.
std::istream& operator>>(std::istream& is, SockAddress& a);

class UdpSocket {
public:
    UdpSocket();
    ~UdpSocket();
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    bool ok() const { return fd >= 0; }
    int handle() const { return fd; }
    // Closes any open socket, opens a new one and binds it; true when bound,
    // false (socket closed) on failure. reuse sets SO_REUSEADDR.
    bool bind(const SockAddress& local, bool reuse);
    // Joins the group address on the default interface (the port is ignored);
    // true when the platform accepts it, false otherwise or when closed.
    bool joinMCastGroup(const SockAddress& group);
    // Closes the socket if open; afterwards ok() is false.
    void close();
    // -1 when closed, data is null or `to` is not IPv4; otherwise the platform's
    // result (bytes sent or -1).
    int sendTo(const SockAddress& to, uint8_t* data, size_t size);
    // Blocking receive of one datagram, cut to capacity; the byte count, or -1
    // when closed, buffer null or on error. `from` (if not null) gets the sender.
    int recv(uint8_t* buffer, size_t capacity, SockAddress* from);
    // Waits at most timeout ms (0 = poll); 0 on time-out, -1 on error or when
    // closed, else the result of recv(). Works for any descriptor number.
    int recvWithTo(uint8_t* buffer, size_t capacity, SockAddress* from, uint32_t timeout);
    // Waits at most `micros` microseconds (0 = poll) for a datagram to be
    // queued, without taking it: 1 when one is, 0 on time-out, -1 on error or
    // when closed.
    int waitReadable(uint64_t micros);
    // One datagram if one is queued, without waiting: its byte count (cut to
    // capacity), 0 when nothing is queued, -1 when closed, buffer null or on
    // error. One system call; `from` (if not null) gets the sender.
    int recvNoWait(uint8_t* buffer, size_t capacity, SockAddress* from);
    // Up to `count` (at most MAX_BATCH) queued datagrams without waiting, in
    // one system call: datagram i goes to buffers + i * capacity, cut to
    // capacity bytes, its byte count to sizes[i] and its sender to froms[i].
    // Returns how many were taken, 0 when nothing is queued, -1 when closed,
    // an argument is null or on error.
    static constexpr size_t MAX_BATCH = 32;
    int recvBatchNoWait(uint8_t* buffers, size_t capacity, size_t count, int* sizes, SockAddress* froms);
    // The same, but waiting for the first datagram in the receive call itself
    // (no separate wait: one system call when one comes), at most about
    // maxWaitUs: the socket's receive time-out, which the kernel rounds up to
    // its clock tick (1 to 10 ms), so use it for short grace waits where
    // waking a tick late does no harm. The time-out stays set on the socket
    // (a plain recv() then waits at most that long too). Returns 0 when none
    // came in time (and for maxWaitUs 0, which does not wait), -1 on error or
    // on a signal.
    int recvBatchWait(uint8_t* buffers, size_t capacity, size_t count, int* sizes, SockAddress* froms,
                      uint32_t maxWaitUs);

    // From holdSends() to the matching releaseSends(), sendTo() keeps copies
    // of the datagrams (up to MAX_BATCH of at most MAX_HELD_SIZE bytes; when
    // full they go out first) and returns their size; the release sends them
    // in their order with one system call. A datagram that does not fit is
    // sent at once, after the ones held. Holds nest: only the outermost
    // release sends. Returns nothing.
    static constexpr size_t MAX_HELD_SIZE = 512;
    void holdSends();
    // Ends one hold; the outermost sends what is held. Returns how many
    // datagrams it sent (0 for an inner release or when not holding).
    int releaseSends();

    // Asks for a receive buffer of `bytes` (above the system's limit when the
    // process may); true when the socket took some size.
    bool setReceiveBuffer(int bytes);

private:
    struct HeldSends;
    void sendHeld();
    int recvBatch(uint8_t* buffers, size_t capacity, size_t count, int* sizes, SockAddress* froms, int flags);

    int fd = -1;
    uint32_t receiveTimeoutUs = 0;  // SO_RCVTIMEO as last set; 0: none (blocks)
    unsigned holdDepth = 0;  // nested holdSends() not yet released
    std::unique_ptr<HeldSends> held;  // made at the first hold
};
