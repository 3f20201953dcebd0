// Bare datagram helpers of the benchmarks on non-blocking loopback descriptors
// (the packs themselves come from the pack kit, Device/PackKit.h, and go out
// unsigned, as a device sends before it has been asked to sign).
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>


namespace bench {

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
