// The input of fuzz_datagram and the fixed parties of the hub it sets up,
// shared with the seed generator (make_corpus).
//
// An input is a sequence of records, each: one peer byte (its low two bits pick
// the sender among four fixed 127.0.0.1 peers), one clock byte (how far the
// hub's clock moves before the datagram, see clockAdvanceMs), a 2-byte length
// (big-endian) and that many bytes. A length beyond what is left takes what is
// left; the datagram is the first 400 of those bytes at most, as the receive
// buffer cuts it. A record of length 0 only moves the clock. The two devices
// joined before any input have fixed session keys, so that seeds may sign.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace fuzzdatagram {

constexpr size_t kPeerCount = 4;
constexpr uint8_t LAMP_PEER = 0;
constexpr uint8_t SWITCH_PEER = 1;
constexpr uint8_t SPARE_PEER = 2;      // peers 2 and 3 are addresses no device holds yet
constexpr size_t kRecordHeader = 4;    // peer, clock, length (2)
constexpr size_t kMaxDatagram = 400;   // the hub's receive buffer

const char* const kDomain = "TestDomain_KVZ1";
constexpr uint16_t kHubNode = 1;
constexpr uint16_t kFirstFreeNode = 1002;

// A pre-joined device and what its record holds before it joins.
struct DeviceProfile {
    const char* duid;
    uint16_t id;
    uint8_t peer;
    uint8_t sigType;
    uint8_t mainKey[20];
    size_t mainKeyLen;     // 0: none (the hub then gives it 20 zero bytes)
    uint8_t sessionKey[32];
    uint8_t objects;
};

inline const DeviceProfile kLamp = {
    "fuzz-lamp", 1000, LAMP_PEER, 1,
    {0x4c, 0x61, 0x6d, 0x70, 0x2d, 0x6d, 0x61, 0x69, 0x6e, 0x2d, 0x6b, 0x65, 0x79, 0x21, 0x00, 0x01, 0x02, 0x03,
     0xfe, 0xff},
    20,
    {0x10, 0x21, 0x32, 0x43, 0x54, 0x65, 0x76, 0x87, 0x98, 0xa9, 0xba, 0xcb, 0xdc, 0xed, 0xfe, 0x0f,
     0x01, 0x12, 0x23, 0x34, 0x45, 0x56, 0x67, 0x78, 0x89, 0x9a, 0xab, 0xbc, 0xcd, 0xde, 0xef, 0xf0},
    2};

inline const DeviceProfile kSwitch = {
    "fuzz-switch", 1001, SWITCH_PEER, 0,
    {0},
    0,
    {0xa5, 0x5a, 0x00, 0xff, 0x13, 0x37, 0xc0, 0xde, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88,
     0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff, 0x00, 0x0f, 0x1e, 0x2d, 0x3c, 0x4b, 0x5a, 0x69, 0x78},
    2};

// Milliseconds the clock moves for a clock byte: 10 ms steps up to 2.39 s for
// 0-239, then 4 s steps from 4 to 64 s for 240-255 (ping probes, give-ups,
// idle newcomers and flushes all lie within reach; long silences, which cost
// the pre-joined devices their session, stay the exception).
inline uint32_t clockAdvanceMs(uint8_t b) { return b < 240 ? b * 10u : (b - 239u) * 4000u; }

// One record of an input.
struct Datagram {
    uint8_t peer = 0;          // 0 .. kPeerCount - 1
    uint32_t advanceMs = 0;
    const uint8_t* data = nullptr;
    size_t size = 0;           // at most kMaxDatagram
};

// Reads the next record at cursor; false (cursor untouched) when fewer than
// kRecordHeader bytes are left.
inline bool nextDatagram(const uint8_t*& cursor, size_t& left, Datagram& d) {
    if (left < kRecordHeader) return false;
    d.peer = static_cast<uint8_t>(cursor[0] % kPeerCount);
    d.advanceMs = clockAdvanceMs(cursor[1]);
    size_t length = static_cast<size_t>(cursor[2]) << 8 | cursor[3];
    cursor += kRecordHeader;
    left -= kRecordHeader;
    if (length > left) length = left;
    d.data = cursor;
    d.size = length < kMaxDatagram ? length : kMaxDatagram;
    cursor += length;
    left -= length;
    return true;
}

// Appends one record (bytes beyond 65535 are not representable and dropped).
inline void appendDatagram(std::vector<uint8_t>& input, uint8_t peer, uint8_t clock,
                           const std::vector<uint8_t>& bytes) {
    const size_t n = bytes.size() < 0xffff ? bytes.size() : 0xffff;
    input.push_back(peer);
    input.push_back(clock);
    input.push_back(static_cast<uint8_t>(n >> 8));
    input.push_back(static_cast<uint8_t>(n));
    input.insert(input.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n));
}

}  // namespace fuzzdatagram
