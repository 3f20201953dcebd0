// The device's datagram link to its hub: one UDP socket on an ephemeral local
// port, the hub's address, and the stamping of every outgoing pack (device id,
// hub id, running packet number, optional signature).
//
// The link copies the signing key, so callers need not keep it alive. It never
// blocks longer than the time-out it is given and never prints.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Velto/UdpSocket.h"
#include "Velto/Velto.h"

namespace device {

class HubLink {
public:
    // Room in the socket's receive queue for a burst of a 1 MiB message
    // (about 3,200 datagrams, each charged well above its 400 bytes).
    static constexpr int RECEIVE_BUFFER_BYTES = 4 << 20;

    // Binds a fresh socket to the any-address and an ephemeral port and asks
    // for RECEIVE_BUFFER_BYTES of receive queue. Returns true when bound,
    // false otherwise (the link stays closed).
    bool open();
    bool isOpen() const { return sock.ok(); }
    // The socket descriptor (for select), or -1 when closed.
    int handle() const { return sock.handle(); }
    // The bound local port, or 0 when closed or unknown.
    uint16_t localPort() const;
    // Copies into out the local IPv4 address (network order) that the system
    // uses to reach `to`. Returns false when no route is known (out untouched).
    static bool localAddressToward(const SockAddress& to, uint8_t out[4]);

    void setHub(const SockAddress& addr) { hubAddr = addr; haveHub = true; }
    void forgetHub() { haveHub = false; }
    bool hasHub() const { return haveHub; }
    const SockAddress& hub() const { return hubAddr; }
    void setDeviceId(DeviceID id) { devId = id; }
    void setHubId(HubID id) { hubId = id; }
    // Type 0 turns signing off; otherwise every later pack is signed with a
    // copy of key under that type.
    void setSigning(uint8_t type, const ByteArray<32>& key);
    uint8_t signingType() const { return sigType; }
    // Packet number the next pack will carry.
    uint32_t nextPacketNo() const { return packetNo; }

    // Stamps and sends p to the hub. Returns true when the datagram went out;
    // false when closed, no hub is known, or the pack does not serialise.
    bool send(VeltoPacket& p);
    // The same towards any address (the multicast group while discovering).
    bool sendTo(const SockAddress& to, VeltoPacket& p);
    // Waits at most timeoutMs for one datagram. Returns its byte count (cut to
    // capacity), 0 on time-out or when a signal interrupted the wait, -1 when
    // closed or on a socket error.
    int receive(uint8_t* buffer, size_t capacity, SockAddress& from, uint32_t timeoutMs);

private:
    UdpSocket sock;
    SockAddress hubAddr;
    bool haveHub = false;
    DeviceID devId = 0;
    HubID hubId = 0;
    uint32_t packetNo = 0;
    uint8_t sigType = 0;
    ByteArray<32> sigKey;
};

}  // namespace device
