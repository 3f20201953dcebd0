#include "tests/support/device_sim.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "Velto/Sha/sha1.h"
#include "Velto/velto_security.h"

namespace testsupport {

uint16_t boundPort(const UdpSocket& sock) {
    sockaddr_in a;
    socklen_t len = sizeof a;
    if (!sock.ok() || getsockname(sock.handle(), reinterpret_cast<sockaddr*>(&a), &len) != 0) return 0;
    return ntohs(a.sin_port);
}

Bytes encodePack(VeltoPacket& pack) {
    uint8_t buf[MAX_PACKET_SIZE];
    int n = pack.serialize(buf, sizeof buf);
    return n < 0 ? Bytes() : Bytes(buf, buf + n);
}

namespace {

void hashLittleEndian(Sha1Class& sha, uint64_t v) {
    for (int i = 0; i < 8; ++i) sha.write(static_cast<uint8_t>(v >> (8 * i)));
}

}  // namespace

void joinTransportKey(uint64_t clientRand, const uint8_t* mainKey, size_t mainKeyLen, uint64_t svrRand,
                      uint8_t out[20]) {
    Sha1Class sha;
    sha.init();
    hashLittleEndian(sha, clientRand);
    for (size_t i = 0; i < mainKeyLen; ++i) sha.write(mainKey[i]);
    hashLittleEndian(sha, svrRand);
    memcpy(out, sha.result(), 20);
}

ByteArray<32> recoverSessionKey(const JoinAcceptedPack& ja, uint64_t clientRand, const ByteArray<32>& mainKey) {
    uint8_t key[20];
    joinTransportKey(clientRand, mainKey.data(), mainKey.size(), ja.svrRand, key);
    ByteArray<32> out;
    uint8_t* cursor = out.data();
    size_t left = out.capacity();
    if (decryptData(ja.sessionKey.data(), ja.sessionKey.size(), ja.encAlg, key, sizeof key, cursor, left))
        out.setSize(out.capacity() - left);
    return out;
}

SimDevice::SimDevice(const std::string& duid) : duidText(duid) { sock.bind(SockAddress("127.0.0.1", 0), false); }

SockAddress SimDevice::address() const { return SockAddress("127.0.0.1", boundPort(sock)); }

NewBornDevicePack SimDevice::newBorn(const std::string& specs) const {
    NewBornDevicePack p;
    p.duid = duidText;
    p.specs = specs;
    p.intVer = 3;
    p.prevn = "oldname";
    p.prevdom = "olddomain";
    return p;
}

NetworkJoinPack SimDevice::joinRequest(const std::string& domain, uint64_t clientRand) const {
    NetworkJoinPack p;
    p.duid = duidText;
    p.nname = duidText;
    p.domain = domain;
    p.clientRand = clientRand;
    p.addrType = NetworkJoinPack::IPV4;
    p.hubPortNo = 1881;
    const uint8_t loopback[4] = {127, 0, 0, 1};
    p.addrValue = ByteArray<32>(loopback, 4);
    return p;
}

ConfigSummaryPack SimDevice::configSummary(uint8_t noOfObjects) const {
    ConfigSummaryPack p;
    p.duid = duidText;
    p.noOfObjects = noOfObjects;
    p.maxNoOfObjects = noOfObjects;
    p.maxPacketSize = 400;
    p.maxMessageSize = 4096;
    return p;
}

ObjectInfoPack SimDevice::objectInfo(uint8_t objectNo, const std::string& name, const std::string& iface) const {
    ObjectInfoPack p;
    p.objectNo = objectNo;
    p.name = name;
    p.interface = iface;
    return p;
}

Bytes SimDevice::encode(VeltoPacket& pack) const {
    pack.devId = nodeId;
    return encodePack(pack);
}

bool SimDevice::send(const SockAddress& hub, VeltoPacket& pack) {
    Bytes bytes = encode(pack);
    return !bytes.empty() && sock.sendTo(hub, bytes.data(), bytes.size()) == static_cast<int>(bytes.size());
}

Bytes SimDevice::receiveRaw(uint32_t timeoutMs) {
    uint8_t buf[1024];
    int n = sock.recvWithTo(buf, sizeof buf, nullptr, timeoutMs);
    return n > 0 ? Bytes(buf, buf + n) : Bytes();
}

size_t SimDevice::sendMessage(const SockAddress& hub, const MsgSelector& ms, const Bytes& body) {
    size_t pieces = 0;
    for (size_t pos = 0; pos < body.size(); pos += MAX_CARRIER_PAYLOAD) {
        MessageCarrierPack p;
        ms.copyTo(p);
        p.msgSize = static_cast<uint32_t>(body.size());
        p.checksum = messageChecksum(body.data(), static_cast<uint32_t>(body.size()));
        p.packetStart = static_cast<uint32_t>(pos);
        size_t len = std::min(MAX_CARRIER_PAYLOAD, body.size() - pos);
        p.payload = ByteArray<326>(body.data() + pos, len);
        if (!send(hub, p)) break;
        ++pieces;
    }
    return pieces;
}

bool SimDevice::receiveMessage(MsgSelector& ms, Bytes& body, uint32_t timeoutMs) {
    body.clear();
    size_t held = 0;
    for (int guard = 0; guard < 64; ++guard) {
        MessageCarrierPack p;
        if (!receive(p, timeoutMs)) return false;
        if (p.packetStart == 0) {
            ms = p;
            body.assign(p.msgSize, 0);
            held = 0;
        }
        if (p.packetStart != held || held + p.payload.size() > body.size()) continue;
        memcpy(body.data() + held, p.payload.data(), p.payload.size());
        held += p.payload.size();
        if (held == body.size()) break;
    }
    return !body.empty() && held == body.size();
}

MessageCarrierACKPack SimDevice::ackFor(const MsgSelector& ms, uint32_t lastSeqNo) {
    MessageCarrierACKPack ack;
    ms.copyTo(ack);
    ack.lastSeqNo = lastSeqNo;
    return ack;
}

}  // namespace testsupport
