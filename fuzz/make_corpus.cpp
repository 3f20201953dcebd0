// Writes the generated seeds of the packet harnesses with the pack kit: real
// packets of every pack type (unsigned and signed), carrier streams of a
// message in pieces, the device-management message bodies (fuzz_packs), and
// datagram sequences for the hub's dispatch from the two devices fuzz_datagram
// has joined (fuzz_datagram). The record, document and index seeds are plain
// text files kept as they are in fuzz/corpus/.
//
// Usage: make_corpus <corpus dir>; writes into <dir>/fuzz_packs and
// <dir>/fuzz_datagram (which must exist). Returns 0 when every file was written.
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "Device/PackKit.h"
#include "Velto/Interfaces/DeviceManagementInterface.h"
#include "fuzz/datagram_input.h"

namespace {

using fuzzdatagram::DeviceProfile;
using fuzzdatagram::kLamp;
using fuzzdatagram::kSwitch;
using packkit::Bytes;

const uint8_t kKey[20] = {0x5e, 0x55, 0x10, 0x4b, 0x00, 0xff, 0x21, 0x9a, 0x3c, 0x77,
                          0x80, 0x01, 0xde, 0xad, 0xbe, 0xef, 0x42, 0x13, 0x37, 0x66};
const char* const kDuid = "lamp-00:11:22";
bool failed = false;

void writeSeed(const std::string& path, const Bytes& bytes) {
    FILE* f = fopen(path.c_str(), "wb");
    const bool ok = f != nullptr && fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    if (f == nullptr || fclose(f) != 0 || !ok || bytes.empty()) {
        fprintf(stderr, "cannot write %s\n", path.c_str());
        failed = true;
    }
}

// A pack of fuzz_packs: node 1000 of hub 17, signed with kKey under sigType.
Bytes packed(VeltoPacket& p, uint8_t sigType) {
    p.hubId = 17;
    return packkit::encode(p, 1000, 7, sigType, kKey, sizeof kKey);
}

void writePacks(const std::string& dir) {
    NewBornDevicePack nb = packkit::newBorn(kDuid, "acme.example/Velto/specs/Lamp.1");
    writeSeed(dir + "/01-newborn", packed(nb, NO_SIGNATURE_TYPE));
    AdoptionOfferPack offer;
    offer.offer = 1, offer.svrNodeId = 17, offer.duid = kDuid, offer.nname = "lamp";
    offer.domain = fuzzdatagram::kDomain;
    writeSeed(dir + "/02-adoption-offer", packed(offer, NO_SIGNATURE_TYPE));
    NetworkJoinPack join = packkit::joinRequest(kDuid, fuzzdatagram::kDomain, 0x0123456789abcdefULL);
    join.generalFlags = NetworkJoinPack::HaveDirectInterface | NetworkJoinPack::HaveConfigSummary;
    writeSeed(dir + "/03-network-join", packed(join, NO_SIGNATURE_TYPE));
    JoinAcceptedPack accepted;
    accepted.duid = kDuid, accepted.nodeId = 1000, accepted.flags = JoinAcceptedPack::ConfigSummaryRequest;
    accepted.svrRand = 0xfedcba9876543210ULL, accepted.encAlg = SIMPLE_XOR_TYPE;
    accepted.sessionKey = ByteArray<32>(kKey, sizeof kKey);
    writeSeed(dir + "/04-join-accepted", packed(accepted, NO_SIGNATURE_TYPE));
    ConfigSummaryPack summary = packkit::configSummary(kDuid, 2);
    summary.maxNoOfDirectUsers = 3;
    writeSeed(dir + "/10-config-summary", packed(summary, HMAC_SHA1_TYPE));
    GetObjectInfoPack get;
    get.objectNo = 1;
    writeSeed(dir + "/15-get-object-info", packed(get, HMAC_SHA1_TYPE));
    ObjectInfoPack info = packkit::objectInfo(1, "light", "acme.example/Light.1");
    info.sParam1 = "a", info.lnParam = 0x1122334455667788ULL;
    writeSeed(dir + "/16-object-info", packed(info, HMAC_SHA1_TYPE));
    ConfigurationCompletePack complete;
    complete.serverTimestamp = 1700000000000ULL, complete.hub2DevSequence = 2;
    writeSeed(dir + "/19-config-complete", packed(complete, HMAC_SHA256_TYPE));
    PingPongPack ping = packkit::ping(PingPongPack::PING, 5);
    writeSeed(dir + "/20-ping", packed(ping, HMAC_SHA1_TYPE));
    MessageCarrierACKPack ack = packkit::ackOf(packkit::selector(DIRECT_MSGCAT, 1000, 1, 1, 1, 1, 5), 326);
    writeSeed(dir + "/32-carrier-ack", packed(ack, HMAC_SHA1_TYPE));
    NotificationSubscriptionPack sub;
    sub.nodeId = 1001, sub.objectNo = 2, sub.eventId = 4, sub.subscribe = 1;
    writeSeed(dir + "/33-subscription", packed(sub, HMAC_SHA1_TYPE));
    MessageErrorPack err;
    err.errorCode = MessageErrorPack::PERMISSION_DENIED, err.category = DIRECT_MSGCAT;
    err.fromNodeId = 1000, err.toNodeId = 1001, err.optErorMsg = "denied";
    writeSeed(dir + "/34-message-error", packed(err, NO_SIGNATURE_TYPE));
}

// A message of msgSize bytes in pieces, appended in the given order.
void writeCarrierStream(const std::string& path, uint32_t msgSize, const std::vector<size_t>& order,
                        uint8_t sigType) {
    std::vector<MessageCarrierPack> pieces =
        packkit::pieces(packkit::selector(DIRECT_MSGCAT, 1000, 1, 1, 1, 1, 5), packkit::pattern(msgSize, 3));
    Bytes stream;
    for (size_t i : order) {
        if (i >= pieces.size()) continue;
        Bytes b = packed(pieces[i], sigType);
        stream.insert(stream.end(), b.begin(), b.end());
    }
    writeSeed(path, stream);
}

template <typename Body>
Bytes bodyBytes(const Body& body, size_t room) {
    Bytes buf(room);
    uint8_t* cursor = buf.data();
    size_t left = buf.size();
    if (!body.addToBuffer(cursor, left)) return {};
    buf.resize(buf.size() - left);
    return buf;
}

BasicDeviceInfo deviceInfo(DeviceID id, const std::string& duid, const std::string& specs) {
    BasicDeviceInfo d;
    d.id = id, d.duid = duid, d.nname = duid, d.specs = specs;
    d.intVer = 3, d.status = 6, d.hubId = 17, d.domain = fuzzdatagram::kDomain;
    return d;
}

// The device list the hub's node 1 sends right after a reset: the two
// pre-joined devices, then node 1 itself.
BasicDeviceListMsg hubDeviceList() {
    BasicDeviceListMsg list;
    list.devList = {deviceInfo(kLamp.id, kLamp.duid, "sp"), deviceInfo(kSwitch.id, kSwitch.duid, "sp"),
                    deviceInfo(fuzzdatagram::kHubNode, "VHubMainServices",
                               "hub.velto.local/Velto/specs/std/HubMainServices.1")};
    list.devList[2].nname = "HubMainServices", list.devList[2].intVer = 1, list.devList[2].status = 0;
    return list;
}

RequestBasicDeviceListMsg listRequest(const std::string& specs) {
    RequestBasicDeviceListMsg request;
    request.matchSpecs = specs;
    return request;
}

// A sequence of datagrams being built into one fuzz_datagram input.
class Sequence {
public:
    // p as device d sends it from its own address after `clock`, signed with
    // its session key when it signs.
    Sequence& send(const DeviceProfile& d, VeltoPacket& p, uint8_t clock = 0) {
        p.hubId = 17;
        return raw(d.peer, packkit::encode(p, d.id, packetNo++, d.sigType, d.sessionKey, sizeof d.sessionKey),
                   clock);
    }
    Sequence& raw(uint8_t peer, const Bytes& bytes, uint8_t clock = 0) {
        fuzzdatagram::appendDatagram(input, peer, clock, bytes);
        return *this;
    }
    // From the peer no device holds yet, as node `id`, unsigned.
    Sequence& spare(VeltoPacket& p, DeviceID id, uint8_t clock) {
        return raw(fuzzdatagram::SPARE_PEER, packkit::encode(p, id, packetNo++), clock);
    }
    Sequence& message(const DeviceProfile& d, const MsgSelector& ms, const Bytes& body) {
        for (MessageCarrierPack& p : packkit::pieces(ms, body)) send(d, p, 1);
        return *this;
    }
    Sequence& wait(uint8_t clock) { return raw(0, {}, clock); }
    void write(const std::string& path) { writeSeed(path, input); }

private:
    Bytes input;
    uint32_t packetNo = 1;
};

void writeJoinsAndConfiguration(const std::string& dir) {
    NewBornDevicePack born = packkit::newBorn("fuzz-plug", "sp");
    NetworkJoinPack join = packkit::joinRequest("fuzz-plug", fuzzdatagram::kDomain, 0x1122334455667788ULL);
    ConfigSummaryPack one = packkit::configSummary("fuzz-plug", 1);
    ObjectInfoPack obj0 = packkit::objectInfo(0, "obj0", "if");
    PingPongPack ping = packkit::ping(PingPongPack::PING, 0x55), pong = packkit::ping(PingPongPack::PONG, 0x55);
    const DeviceID plug = fuzzdatagram::kFirstFreeNode;
    Sequence().spare(born, 0, 0).spare(join, 0, 5).spare(one, plug, 5).spare(obj0, plug, 5).spare(ping, plug, 5)
        .write(dir + "/announce-join-configure");
    born.duid = join.duid = kLamp.duid;  // the same from the lamp's own address and DUID
    Sequence().raw(kLamp.peer, packkit::encode(born)).raw(kLamp.peer, packkit::encode(join), 3)
        .write(dir + "/lamp-rejoin");

    Sequence signedConf;
    ConfigSummaryPack three = packkit::configSummary(kLamp.duid, 3);
    signedConf.send(kLamp, three);
    for (uint8_t n = 0; n < 3; ++n) {
        ObjectInfoPack info = packkit::objectInfo(n, "obj" + std::to_string(n), "if");
        signedConf.send(kLamp, info, 2);
    }
    signedConf.write(dir + "/lamp-configuration-signed");
    ConfigSummaryPack two = packkit::configSummary(kSwitch.duid, 2);
    ObjectInfoPack obj1 = packkit::objectInfo(1, "obj1", "if");
    Sequence().send(kSwitch, two).send(kSwitch, obj1, 2).write(dir + "/switch-configuration");
    DeviceProfile impostor = kLamp;  // a key the hub does not hold: dropped
    impostor.sessionKey[0] ^= 0xff;
    ConfigSummaryPack forged = packkit::configSummary(kLamp.duid, 1);
    Sequence().send(impostor, forged).write(dir + "/lamp-bad-signature");

    Sequence().send(kSwitch, ping).send(kSwitch, pong, 20).send(kLamp, ping, 20).write(dir + "/ping-pong");
    // Silent beyond the idle time: probed, then answered; then silent for good.
    Sequence().wait(240).wait(150).wait(100).wait(100).send(kLamp, pong, 10).write(dir + "/lamp-probed-then-pong");
    Sequence().wait(242).wait(239).wait(239).wait(239).wait(239).wait(100).wait(100).write(dir + "/lamp-given-up");
}

void writeMessages(const std::string& dir) {
    // Lamp object 0 to switch object 1 in two pieces; the switch acknowledges.
    const MsgSelector direct = packkit::selector(DIRECT_MSGCAT, kLamp.id, 0, 5, kSwitch.id, 1, 7);
    const Bytes body = packkit::pattern(500, 1);
    MessageCarrierACKPack ack = packkit::ackOf(direct, 500);
    Sequence().message(kLamp, direct, body).send(kSwitch, ack, 2).write(dir + "/lamp-two-piece-message");
    Sequence reversed;  // the second piece first
    MsgSelector eighth = direct;
    eighth.msgNo = 8;
    std::vector<MessageCarrierPack> pieces = packkit::pieces(eighth, body);
    for (auto it = pieces.rbegin(); it != pieces.rend(); ++it) reversed.send(kLamp, *it, 1);
    reversed.write(dir + "/lamp-pieces-reversed");

    // The switch subscribes to notification 9 of the lamp's object 0, which the
    // lamp sends; the switch acknowledges it and unsubscribes.
    NotificationSubscriptionPack sub;
    sub.nodeId = kLamp.id, sub.eventId = 9, sub.subscribe = 1;
    const MsgSelector note = packkit::selector(NOTIFICATION_MSGCAT, kLamp.id, 0, 9, 0, 0, 3);
    MessageCarrierACKPack noteAck = packkit::ackOf(note, 24);
    NotificationSubscriptionPack unsub = sub;
    unsub.subscribe = 0;
    Sequence().send(kSwitch, sub).message(kLamp, note, packkit::pattern(24, 1)).send(kSwitch, noteAck, 1)
        .send(kSwitch, unsub, 1).write(dir + "/switch-subscribes-lamp-notifies");

    // The switch asks node 1 for the device list and acknowledges the answer.
    const MsgSelector ask = packkit::selector(DIRECT_MSGCAT, kSwitch.id, 0, RequestBasicDeviceListMsg::MSG_ID,
                                              fuzzdatagram::kHubNode, 1, 1);
    const MsgSelector answer = packkit::selector(DIRECT_MSGCAT, fuzzdatagram::kHubNode, 1,
                                                 BasicDeviceListMsg::MSG_ID, kSwitch.id, 0, 1);
    BasicDeviceListMsg list = hubDeviceList();
    MessageCarrierACKPack listAck =
        packkit::ackOf(answer, static_cast<uint32_t>(bodyBytes(list, list.estimateRequiredSize()).size()));
    Sequence().message(kSwitch, ask, bodyBytes(listRequest("sp"), MAX_PACKET_SIZE)).send(kSwitch, listAck, 2)
        .write(dir + "/switch-device-list");

    MessageCarrierACKPack lone = packkit::ackOf(direct, 326);  // of nothing the hub sent
    Sequence().send(kLamp, lone).write(dir + "/stray-ack");
    // Too short, an unknown node, and a pack without a handler.
    PingPongPack ping = packkit::ping(PingPongPack::PING, 0x55);
    MessageErrorPack err;
    err.errorCode = MessageErrorPack::PERMISSION_DENIED, err.fromNodeId = kSwitch.id, err.toNodeId = kLamp.id;
    Sequence().raw(fuzzdatagram::SPARE_PEER + 1, {0x14}).raw(fuzzdatagram::SPARE_PEER + 1,
                                                            packkit::encode(ping, 4242, 1), 1)
        .send(kSwitch, err, 1).write(dir + "/oddities");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s <corpus dir>\n", argv[0]);
        return 2;
    }
    const std::string packs = std::string(argv[1]) + "/fuzz_packs";
    writePacks(packs);
    writeCarrierStream(packs + "/31-carrier-one-piece", 100, {0}, HMAC_SHA1_TYPE);
    writeCarrierStream(packs + "/31-carrier-in-order", 700, {0, 1, 2}, NO_SIGNATURE_TYPE);
    writeCarrierStream(packs + "/31-carrier-gap-repeat", 1000, {0, 2, 1, 0, 1, 2, 3}, NO_SIGNATURE_TYPE);
    RequestBasicDeviceListMsg request = listRequest("acme.example/Velto/specs/Lamp.1");
    request.flags = 1, request.withName = "lamp";
    writeSeed(packs + "/dm-request-device-list", bodyBytes(request, MAX_PACKET_SIZE));
    BasicDeviceListMsg list = hubDeviceList();
    writeSeed(packs + "/dm-device-list", bodyBytes(list, list.estimateRequiredSize()));
    writeJoinsAndConfiguration(std::string(argv[1]) + "/fuzz_datagram");
    writeMessages(std::string(argv[1]) + "/fuzz_datagram");
    return failed ? 1 : 0;
}
