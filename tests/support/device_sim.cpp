#include "tests/support/device_sim.h"

#include <sys/socket.h>

#include <cstring>

#include "Device/JoinSecurity.h"

namespace testsupport {

uint16_t boundPort(const UdpSocket& sock) {
    sockaddr_in a;
    socklen_t len = sizeof a;
    if (!sock.ok() || getsockname(sock.handle(), reinterpret_cast<sockaddr*>(&a), &len) != 0) return 0;
    return ntohs(a.sin_port);
}

ByteArray<32> recoverSessionKey(const JoinAcceptedPack& ja, uint64_t clientRand, const ByteArray<32>& mainKey) {
    ByteArray<32> out;
    device::recoverSessionKey(ja, clientRand, mainKey, out);
    return out;
}

SimDevice::SimDevice(const std::string& duid) : duidText(duid) { sock.bind(SockAddress("127.0.0.1", 0), false); }

bool SimDevice::send(const SockAddress& hub, VeltoPacket& pack) {
    Bytes bytes = encode(pack);
    return !bytes.empty() && sock.sendTo(hub, bytes.data(), bytes.size()) == static_cast<int>(bytes.size());
}

Bytes SimDevice::receiveRaw(uint32_t timeoutMs) {
    uint8_t buf[1024];
    int n = sock.recvWithTo(buf, sizeof buf, nullptr, timeoutMs);
    return n > 0 ? Bytes(buf, buf + n) : Bytes();
}

bool SimDevice::receiveMessage(MsgSelector& ms, Bytes& body, uint32_t timeoutMs) {
    body.clear();
    size_t held = 0;
    for (int guard = 0; guard < 64 && (body.empty() || held < body.size()); ++guard) {
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
    }
    return !body.empty() && held == body.size();
}

bool SimDevice::join(const ToHub& toHub, const std::string& domain, const ByteArray<32>& mainKey,
                     uint64_t clientRand, uint32_t timeoutMs) {
    nodeId = 0;
    NewBornDevicePack born = newBorn("sp");
    toHub(born);
    AdoptionOfferPack offer;
    if (!receive(offer, timeoutMs)) return false;
    NetworkJoinPack request = joinRequest(domain, clientRand);
    toHub(request);
    JoinAcceptedPack accepted;
    if (!receive(accepted, timeoutMs)) return false;
    nodeId = accepted.nodeId;
    sessionKey = recoverSessionKey(accepted, clientRand, mainKey);
    return true;
}

bool SimDevice::configure(const ToHub& toHub, uint8_t objects, uint8_t sigType, uint32_t timeoutMs) {
    ConfigSummaryPack summary = configSummary(objects);
    summary.signature.setKey(sigType, sessionKey.data(), sessionKey.size());
    toHub(summary);
    for (uint8_t n = 0; n < objects; ++n) {
        GetObjectInfoPack ask;
        if (!receive(ask, timeoutMs) || ask.objectNo != n) return false;
        ObjectInfoPack info = objectInfo(n, "obj" + std::to_string(n), "if");
        info.signature.setKey(sigType, sessionKey.data(), sessionKey.size());
        toHub(info);
    }
    ConfigurationCompletePack done;
    return receive(done, timeoutMs);
}

}  // namespace testsupport
