// A simulated device for the tests: one real UDP socket on 127.0.0.1 (an
// ephemeral port) sending the packs the pack kit builds, and reading what the
// hub answers. Every receive is bounded by a time-out in milliseconds. Uses the
// protocol library and the device library's key handling, never the hub's globals.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "Device/PackKit.h"
#include "Velto/UdpSocket.h"

namespace testsupport {

using packkit::Bytes;
using packkit::keyBytes;

// Port of a bound socket, 0 when it cannot be had.
uint16_t boundPort(const UdpSocket& sock);
inline Bytes encodePack(VeltoPacket& pack) { return packkit::encode(pack); }
// The session key carried by ja, recovered with the device's main key (empty
// when the algorithm is unknown).
ByteArray<32> recoverSessionKey(const JoinAcceptedPack& ja, uint64_t clientRand, const ByteArray<32>& mainKey);

class SimDevice {
public:
    // Binds 127.0.0.1 on an ephemeral port; ok() tells whether that worked.
    explicit SimDevice(const std::string& duid);

    bool ok() const { return sock.ok(); }
    const std::string& duid() const { return duidText; }
    SockAddress address() const { return SockAddress("127.0.0.1", boundPort(sock)); }

    NewBornDevicePack newBorn(const std::string& specs) const { return packkit::newBorn(duidText, specs); }
    NetworkJoinPack joinRequest(const std::string& domain, uint64_t clientRand) const {
        return packkit::joinRequest(duidText, domain, clientRand);
    }
    ConfigSummaryPack configSummary(uint8_t n) const { return packkit::configSummary(duidText, n); }
    ObjectInfoPack objectInfo(uint8_t n, const std::string& name, const std::string& iface) const {
        return packkit::objectInfo(n, name, iface);
    }

    // Stamps devId with the node id and serialises (signed when keyed).
    Bytes encode(VeltoPacket& pack) const {
        pack.devId = nodeId;
        return packkit::encode(pack);
    }
    // Encodes and sends to hub; true when sent.
    bool send(const SockAddress& hub, VeltoPacket& pack);
    // Next datagram within timeoutMs; empty on time-out.
    Bytes receiveRaw(uint32_t timeoutMs);
    // Next datagram within timeoutMs decoded as T (signature checked with the
    // key set on pack beforehand, if any). False on time-out, another pack id or
    // a datagram that does not decode.
    template <typename T>
    bool receive(T& pack, uint32_t timeoutMs = 2000) {
        Bytes d = receiveRaw(timeoutMs);
        return !d.empty() && d[0] == T::PACK_ID && pack.deserialize(d.data(), d.size(), true) > 1;
    }
    // Collects the pieces of one message sent down by the hub until msgSize
    // bytes are held in order; false when a piece misses timeoutMs. Sends no
    // acknowledgement.
    bool receiveMessage(MsgSelector& ms, Bytes& body, uint32_t timeoutMs = 2000);

    // The join exchange: announcement, offer, join request, acceptance. Each
    // pack goes to the hub through toHub; answers are read from this socket
    // within timeoutMs each. On success sets nodeId and sessionKey (recovered
    // with mainKey, the key the hub holds for the device) and returns true.
    typedef std::function<void(VeltoPacket&)> ToHub;
    bool join(const ToHub& toHub, const std::string& domain, const ByteArray<32>& mainKey, uint64_t clientRand,
              uint32_t timeoutMs = 2000);
    // The configuration exchange with objects "obj<n>" of interface "if", every
    // pack signed with sigType under the session key; true when the hub
    // completed it.
    bool configure(const ToHub& toHub, uint8_t objects, uint8_t sigType = 0, uint32_t timeoutMs = 2000);
    static MessageCarrierACKPack ackFor(const MsgSelector& ms, uint32_t lastSeqNo) {
        return packkit::ackOf(ms, lastSeqNo);
    }

    DeviceID nodeId = 0;
    ByteArray<32> sessionKey;

private:
    std::string duidText;
    UdpSocket sock;
};

}  // namespace testsupport
