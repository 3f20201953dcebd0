// The few Velto packs the benchmarks exchange, built and read with the protocol
// library's pack classes, and bare datagram helpers on loopback descriptors.
// Every pack goes out unsigned (signature type 0), as a device sends before it
// has been asked to sign. All encoders return the datagram's byte count, or -1
// when the pack does not fit `cap`.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "Velto/Velto.h"

namespace bench {

// The message id the benchmark's direct messages carry.
constexpr MessageID BENCH_MSG_ID = 1;

// Stamps the header (devId, packetNo) and serialises any pack.
int encodePack(VeltoPacket& p, DeviceID headerDev, uint32_t packetNo, uint8_t* out, size_t cap);

// A one-piece direct message of `len` bytes from (from, object 0) to (to, object 0).
int encodeCarrier(uint8_t* out, size_t cap, DeviceID headerDev, uint32_t packetNo, DeviceID from, DeviceID to,
                  MessageNo msgNo, const uint8_t* data, uint32_t len);

// The acknowledgement of the whole of carrier `c`, sent by node headerDev.
int encodeAck(uint8_t* out, size_t cap, DeviceID headerDev, uint32_t packetNo, const MessageCarrierPack& c);

// A ping (kind PingPongPack::PING) or pong (PONG) echoing replyKey.
int encodePing(uint8_t* out, size_t cap, DeviceID headerDev, uint32_t packetNo, uint8_t kind, uint64_t replyKey);

// The pack id of a datagram (its first byte), or 0 when it is empty.
inline uint8_t packIdOf(const uint8_t* data, int n) { return n > 0 ? data[0] : 0; }

// 127.0.0.1:port.
sockaddr_in loopbackAddress(uint16_t port);

// A UDP socket bound to 127.0.0.1 (port 0 = any free port), non-blocking.
// Returns the descriptor, or -1.
int openLoopbackSocket(uint16_t port);

// The bound local port of fd, or 0.
uint16_t localPortOf(int fd);

// Sends one datagram; true when the kernel took all of it.
bool sendDatagram(int fd, const sockaddr_in& to, const uint8_t* data, size_t n);

// Takes one waiting datagram without blocking. Returns its size, 0 when none is
// waiting, -1 on a socket error.
int receiveNow(int fd, uint8_t* buf, size_t cap, sockaddr_in& from);

// Raises the soft limit of open descriptors to `wanted` (at most the hard
// limit). Returns the soft limit in force afterwards.
long raiseDescriptorLimit(long wanted);

}  // namespace bench
