// A simulated device for the tests: one real UDP socket on 127.0.0.1 (an
// ephemeral port), the device side of the packs, and the recovery of the
// session key from a join acceptance. Every receive is bounded by a time-out in
// milliseconds. Uses the protocol library only, never the hub's globals.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Velto/UdpSocket.h"
#include "Velto/Velto.h"
#include "Velto/msg_sequencers.h"

namespace testsupport {

typedef std::vector<uint8_t> Bytes;

// n key bytes: first, first + step, first + 2 * step, ... (mod 256).
inline ByteArray<32> keyBytes(size_t n, uint8_t first, uint8_t step = 0) {
    ByteArray<32> a;
    for (size_t i = 0; i < n; ++i) a[i] = static_cast<uint8_t>(first + step * i);
    a.setSize(n);
    return a;
}

// Port of a bound socket, 0 when it cannot be had.
uint16_t boundPort(const UdpSocket& sock);

// Serialises pack into its wire bytes (signed when its signature was keyed);
// empty when the pack does not fit in 400 bytes.
Bytes encodePack(VeltoPacket& pack);

// SHA-1 over clientRand (8 bytes, least significant first), mainKey and
// svrRand (likewise): the key a join acceptance carries the session key under.
void joinTransportKey(uint64_t clientRand, const uint8_t* mainKey, size_t mainKeyLen, uint64_t svrRand,
                      uint8_t out[20]);
// The session key carried by ja, recovered with the device's main key.
ByteArray<32> recoverSessionKey(const JoinAcceptedPack& ja, uint64_t clientRand, const ByteArray<32>& mainKey);

class SimDevice {
public:
    // Binds 127.0.0.1 on an ephemeral port; ok() tells whether that worked.
    explicit SimDevice(const std::string& duid);

    bool ok() const { return sock.ok(); }
    const std::string& duid() const { return duidText; }
    // 127.0.0.1 and the device's port.
    SockAddress address() const;

    // The packs a device sends, filled with this device's DUID and node id.
    NewBornDevicePack newBorn(const std::string& specs) const;
    NetworkJoinPack joinRequest(const std::string& domain, uint64_t clientRand) const;
    ConfigSummaryPack configSummary(uint8_t noOfObjects) const;
    ObjectInfoPack objectInfo(uint8_t objectNo, const std::string& name, const std::string& iface) const;

    // Stamps devId with the node id and serialises (see encodePack).
    Bytes encode(VeltoPacket& pack) const;
    // Stamps devId with the node id and sends to hub; true when sent.
    bool send(const SockAddress& hub, VeltoPacket& pack);
    // Next datagram within timeoutMs; empty on time-out.
    Bytes receiveRaw(uint32_t timeoutMs);
    // Next datagram within timeoutMs, decoded as T (signature checked with the
    // key set on pack beforehand, if any). False on time-out, another pack id or
    // a datagram that does not decode.
    template <typename T>
    bool receive(T& pack, uint32_t timeoutMs = 2000) {
        Bytes d = receiveRaw(timeoutMs);
        return !d.empty() && d[0] == T::PACK_ID && pack.deserialize(d.data(), d.size(), true) > 1;
    }

    // Sends a whole direct message as carrier pieces of at most 326 bytes (all
    // at once; no acknowledgement is awaited). Returns the number of pieces sent.
    size_t sendMessage(const SockAddress& hub, const MsgSelector& ms, const Bytes& body);
    // Collects the carrier pieces of one message sent down by the hub, in the
    // order they come, until msgSize bytes are held contiguously. False when a
    // piece is missing within timeoutMs per piece. On success ms and body hold
    // the message (no acknowledgement is sent: see ackFor).
    bool receiveMessage(MsgSelector& ms, Bytes& body, uint32_t timeoutMs = 2000);
    // The acknowledgement of the message ms up to lastSeqNo.
    static MessageCarrierACKPack ackFor(const MsgSelector& ms, uint32_t lastSeqNo);

    DeviceID nodeId = 0;
    ByteArray<32> sessionKey;

private:
    std::string duidText;
    UdpSocket sock;
};

}  // namespace testsupport
