#include "Device/PackKit.h"

#include <algorithm>

namespace packkit {

ByteArray<32> keyBytes(size_t n, uint8_t first, uint8_t step) {
    ByteArray<32> a;
    n = std::min(n, a.capacity());
    for (size_t i = 0; i < n; ++i) a[i] = static_cast<uint8_t>(first + step * i);
    a.setSize(n);
    return a;
}

Bytes pattern(size_t n, uint8_t seed) {
    Bytes d(n);
    for (size_t i = 0; i < n; ++i) d[i] = static_cast<uint8_t>(seed + i * 37 + (i >> 8));
    return d;
}

int encodeInto(VeltoPacket& p, DeviceID dev, uint32_t packetNo, uint8_t* out, size_t cap) {
    p.devId = dev;
    p.packetNo = packetNo;
    return p.serialize(out, cap);
}

Bytes encode(VeltoPacket& p) {
    uint8_t buf[MAX_PACKET_SIZE];
    int n = p.serialize(buf, sizeof buf);
    return n < 0 ? Bytes() : Bytes(buf, buf + n);
}

Bytes encode(VeltoPacket& p, DeviceID dev, uint32_t packetNo, uint8_t sigType, const uint8_t* key, size_t keyLen) {
    p.devId = dev;
    p.packetNo = packetNo;
    if (sigType != NO_SIGNATURE_TYPE) p.signature.setKey(sigType, key, keyLen);
    return encode(p);
}

NewBornDevicePack newBorn(const std::string& duid, const std::string& specs) {
    NewBornDevicePack p;
    p.duid = duid;
    p.specs = specs;
    p.intVer = 3;
    p.prevn = "oldname";
    p.prevdom = "olddomain";
    return p;
}

NetworkJoinPack joinRequest(const std::string& duid, const std::string& domain, uint64_t clientRand) {
    NetworkJoinPack p;
    p.duid = duid;
    p.nname = duid;
    p.domain = domain;
    p.clientRand = clientRand;
    p.addrType = NetworkJoinPack::IPV4;
    p.hubPortNo = 1881;
    const uint8_t loopback[4] = {127, 0, 0, 1};
    p.addrValue = ByteArray<32>(loopback, 4);
    return p;
}

ConfigSummaryPack configSummary(const std::string& duid, uint8_t noOfObjects) {
    ConfigSummaryPack p;
    p.duid = duid;
    p.noOfObjects = noOfObjects;
    p.maxNoOfObjects = noOfObjects;
    p.maxPacketSize = 400;
    p.maxMessageSize = 4096;
    return p;
}

ObjectInfoPack objectInfo(uint8_t objectNo, const std::string& name, const std::string& iface) {
    ObjectInfoPack p;
    p.objectNo = objectNo;
    p.ifaceType = ObjectInfoPack::VELTO;
    p.name = name;
    p.interface = iface;
    return p;
}

PingPongPack ping(uint8_t kind, uint64_t replyKey) {
    PingPongPack p;
    p.pingOrPong = kind;
    p.replyKey = replyKey;
    p.random = replyKey ^ 0x9e3779b97f4a7c15ull;
    return p;
}

MsgSelector selector(uint8_t msgCat, DeviceID from, uint8_t fromObj, MessageID msgId, DeviceID to, uint8_t toObj,
                     MessageNo msgNo) {
    MsgSelector ms;
    ms.msgCat = msgCat;
    ms.fromDeviceId = from;
    ms.fromObjectNo = fromObj;
    ms.msgId = msgId;
    ms.toDeviceId = to;
    ms.toObjectNo = toObj;
    ms.msgNo = msgNo;
    return ms;
}

MessageCarrierPack carrier(const MsgSelector& ms, const uint8_t* body, uint32_t size, uint32_t start) {
    MessageCarrierPack p;
    ms.copyTo(p);
    p.msgSize = size;
    p.checksum = messageChecksum(body, size);
    p.packetStart = start;
    size_t len = start < size ? std::min<size_t>(MAX_CARRIER_PAYLOAD, size - start) : 0;
    p.payload = ByteArray<326>(body + start, len);
    return p;
}

std::vector<MessageCarrierPack> pieces(const MsgSelector& ms, const Bytes& body) {
    std::vector<MessageCarrierPack> out;
    MsgSender tx;
    if (!tx.setNewMessage(body.data(), static_cast<uint32_t>(body.size()), ms)) return out;
    MessageCarrierPack p;
    for (size_t guard = body.size() / MAX_CARRIER_PAYLOAD + 1; guard > 0 && tx.getNextPack(p); --guard) {
        out.push_back(p);
        p = MessageCarrierPack();
    }
    return out;
}

MessageCarrierACKPack ackOf(const MsgSelector& ms, uint32_t lastSeqNo) {
    MessageCarrierACKPack ack;
    ms.copyTo(ack);
    ack.lastSeqNo = lastSeqNo;
    return ack;
}

MessageCarrierACKPack ackOf(const MessageCarrierPack& piece) {
    MsgSelector ms;
    ms = piece;
    return ackOf(ms, piece.msgSize);
}

}  // namespace packkit
