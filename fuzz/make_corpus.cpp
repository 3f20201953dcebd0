// Writes the seed corpora of the fuzz harnesses: real packets of every pack
// type (unsigned and signed), carrier streams of a message in pieces, the
// device-management message bodies, sample client record files, sample
// specification and interface documents, document indexes and rules files,
// and datagram sequences for the hub's
// dispatch (joins, configuration, pings, messages, acknowledgements,
// subscriptions, a device-list request) from the two devices fuzz_datagram
// has joined.
//
// Usage: make_corpus <corpus dir>; writes <dir>/fuzz_packs, <dir>/fuzz_record,
// <dir>/fuzz_xml, <dir>/fuzz_datagram and <dir>/fuzz_index (which must exist).
// Returns 0 when every file was written.
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "Velto/Interfaces/DeviceManagementInterface.h"
#include "Velto/Velto.h"
#include "Velto/msg_sequencers.h"
#include "fuzz/datagram_input.h"

namespace {

const uint8_t kKey[20] = {0x5e, 0x55, 0x10, 0x4b, 0x00, 0xff, 0x21, 0x9a, 0x3c, 0x77,
                          0x80, 0x01, 0xde, 0xad, 0xbe, 0xef, 0x42, 0x13, 0x37, 0x66};

bool failed = false;

void writeSeed(const std::string& path, const void* data, size_t size) {
    FILE* f = fopen(path.c_str(), "wb");
    const bool ok = f != nullptr && fwrite(data, 1, size, f) == size;
    if (f == nullptr || fclose(f) != 0 || !ok) {
        fprintf(stderr, "cannot write %s\n", path.c_str());
        failed = true;
    }
}

void writeText(const std::string& path, const std::string& text) { writeSeed(path, text.data(), text.size()); }

// Serialises the pack with the given signature type and appends it to out.
void appendPack(VeltoPacket& p, uint8_t sigType, std::vector<uint8_t>& out) {
    p.hubId = 17;
    p.devId = 1000;
    p.packetNo = 7;
    p.signature.setKey(sigType, kKey, sizeof(kKey));
    uint8_t buf[MAX_PACKET_SIZE];
    const int n = p.serialize(buf, sizeof(buf));
    if (n < 0) {
        fprintf(stderr, "pack %u does not fit\n", unsigned(p.id));
        failed = true;
        return;
    }
    out.insert(out.end(), buf, buf + n);
}

void writePack(const std::string& dir, const std::string& name, VeltoPacket& p, uint8_t sigType) {
    std::vector<uint8_t> bytes;
    appendPack(p, sigType, bytes);
    writeSeed(dir + "/" + name, bytes.data(), bytes.size());
}

void writeAllPacks(const std::string& dir) {
    NewBornDevicePack nb;
    nb.duid = "lamp-00:11:22";
    nb.specs = "acme.example/Velto/specs/Lamp.1";
    nb.intVer = 1;
    nb.prevn = "kitchen";
    nb.prevdom = "TestDomain_KVZ1";
    writePack(dir, "01-newborn", nb, NO_SIGNATURE_TYPE);

    AdoptionOfferPack offer;
    offer.offer = 1;
    offer.svrNodeId = 17;
    offer.duid = "lamp-00:11:22";
    offer.nname = "lamp";
    offer.domain = "TestDomain_KVZ1";
    writePack(dir, "02-adoption-offer", offer, NO_SIGNATURE_TYPE);

    NetworkJoinPack join;
    join.duid = "lamp-00:11:22";
    join.nname = "lamp";
    join.domain = "TestDomain_KVZ1";
    join.generalFlags = NetworkJoinPack::HaveDirectInterface | NetworkJoinPack::HaveConfigSummary;
    join.clientRand = 0x0123456789abcdefULL;
    join.addrType = NetworkJoinPack::IPV4;
    join.hubPortNo = 1881;
    const uint8_t addr[4] = {127, 0, 0, 1};
    join.addrValue = ByteArray<32>(addr, sizeof(addr));
    writePack(dir, "03-network-join", join, NO_SIGNATURE_TYPE);

    JoinAcceptedPack accepted;
    accepted.duid = "lamp-00:11:22";
    accepted.nodeId = 1000;
    accepted.flags = JoinAcceptedPack::ConfigSummaryRequest;
    accepted.svrRand = 0xfedcba9876543210ULL;
    accepted.encAlg = SIMPLE_XOR_TYPE;
    accepted.sessionKey = ByteArray<32>(kKey, sizeof(kKey));
    writePack(dir, "04-join-accepted", accepted, NO_SIGNATURE_TYPE);

    ConfigSummaryPack summary;
    summary.duid = "lamp-00:11:22";
    summary.noOfObjects = 2;
    summary.maxNoOfObjects = 4;
    summary.maxPacketSize = 400;
    summary.maxMessageSize = 4096;
    summary.maxNoOfDirectUsers = 3;
    summary.random = 99;
    writePack(dir, "10-config-summary", summary, HMAC_SHA1_TYPE);

    GetObjectInfoPack get;
    get.objectNo = 1;
    writePack(dir, "15-get-object-info", get, HMAC_SHA1_TYPE);

    ObjectInfoPack info;
    info.objectNo = 1;
    info.groupNo = 0;
    info.ifaceType = ObjectInfoPack::VELTO;
    info.name = "light";
    info.interface = "acme.example/Light.1";
    info.nParam1 = 1;
    info.nParam2 = 2;
    info.sParam1 = "a";
    info.sParam2 = "b";
    info.lnParam = 0x1122334455667788ULL;
    writePack(dir, "16-object-info", info, HMAC_SHA1_TYPE);

    ConfigurationCompletePack complete;
    complete.serverTimestamp = 1700000000000ULL;
    complete.dev2HubSequence = 1;
    complete.hub2DevSequence = 2;
    writePack(dir, "19-config-complete", complete, HMAC_SHA256_TYPE);

    PingPongPack ping;
    ping.pingOrPong = PingPongPack::PING;
    ping.replyKey = 5;
    ping.random = 6;
    writePack(dir, "20-ping", ping, HMAC_SHA1_TYPE);

    MessageCarrierACKPack ack;
    ack.msgCat = DIRECT_MSGCAT;
    ack.fromDeviceId = 1000;
    ack.fromObjectNo = 1;
    ack.msgId = 1;
    ack.toDeviceId = 1;
    ack.toObjectNo = 1;
    ack.msgNo = 5;
    ack.lastSeqNo = 326;
    writePack(dir, "32-carrier-ack", ack, HMAC_SHA1_TYPE);

    NotificationSubscriptionPack sub;
    sub.nodeId = 1001;
    sub.objectNo = 2;
    sub.eventId = 4;
    sub.subscribe = 1;
    writePack(dir, "33-subscription", sub, HMAC_SHA1_TYPE);

    MessageErrorPack err;
    err.errorCode = MessageErrorPack::PERMISSION_DENIED;
    err.category = DIRECT_MSGCAT;
    err.fromNodeId = 1000;
    err.fromObjectNo = 1;
    err.msgId = 3;
    err.toNodeId = 1001;
    err.toObjectNo = 0;
    err.optErorMsg = "denied";
    writePack(dir, "34-message-error", err, NO_SIGNATURE_TYPE);
}

// A message cut by a MsgSender; the pieces are appended in the given order.
void writeCarrierStream(const std::string& dir, const std::string& name, uint32_t msgSize,
                        const std::vector<int>& order, uint8_t sigType) {
    std::vector<uint8_t> msg(msgSize);
    for (uint32_t i = 0; i < msgSize; ++i) msg[i] = static_cast<uint8_t>(i * 7 + 3);
    MsgSelector ms;
    ms.msgCat = DIRECT_MSGCAT;
    ms.fromDeviceId = 1000;
    ms.fromObjectNo = 1;
    ms.msgId = 1;
    ms.toDeviceId = 1;
    ms.toObjectNo = 1;
    ms.msgNo = 5;
    MsgSender tx;
    tx.setNewMessage(msg.data(), msgSize, ms);
    std::vector<std::vector<uint8_t>> pieces;
    MessageCarrierPack pk;
    while (tx.getNextPack(pk)) {
        pieces.emplace_back();
        appendPack(pk, sigType, pieces.back());
        pk = MessageCarrierPack();
    }
    std::vector<uint8_t> stream;
    for (int i : order)
        if (i >= 0 && static_cast<size_t>(i) < pieces.size())
            stream.insert(stream.end(), pieces[i].begin(), pieces[i].end());
    writeSeed(dir + "/" + name, stream.data(), stream.size());
}

// Device-management message bodies as they travel inside carried messages.
template <typename Body>
void writeBody(const std::string& dir, const std::string& name, const Body& body, size_t room) {
    std::vector<uint8_t> buf(room);
    uint8_t* cursor = buf.data();
    size_t left = buf.size();
    if (!body.addToBuffer(cursor, left)) {
        fprintf(stderr, "body %s does not fit\n", name.c_str());
        failed = true;
        return;
    }
    writeSeed(dir + "/" + name, buf.data(), buf.size() - left);
}

void writeBodies(const std::string& dir) {
    RequestBasicDeviceListMsg request;
    request.flags = 1;
    request.matchSpecs = "acme.example/Velto/specs/Lamp.1";
    request.withName = "lamp";
    request.haveObjectWithIface = "Light.1";
    writeBody(dir, "dm-request-device-list", request, MAX_PACKET_SIZE);

    BasicDeviceListMsg list;
    BasicDeviceInfo hub;
    hub.id = 1;
    hub.duid = "VHubMainServices";
    hub.nname = "HubMainServices";
    hub.hubId = 17;
    hub.domain = "TestDomain_KVZ1";
    BasicDeviceInfo lamp = hub;
    lamp.id = 1000;
    lamp.duid = "lamp-00:11:22";
    lamp.specs = "acme.example/Velto/specs/Lamp.1";
    lamp.intVer = 1;
    lamp.status = 3;
    lamp.nname = "lamp";
    lamp.noOfObjects = 2;
    list.devList = {lamp, hub};
    writeBody(dir, "dm-device-list", list, list.estimateRequiredSize());
}

void writeRecords(const std::string& dir) {
    writeText(dir + "/full.dev",
              "DUID=fuzzdev\n"
              "MAIN_KEY=000102030405060708090a0b0c0d0e0f10111213\n"
              "ID=1005\n"
              "SPECS=acme.example/Velto/specs/Lamp.1\n"
              "VERSION=1\n"
              "NAME=kitchen lamp\n"
              "FIRST_ADDR=[127.0.0.1]:40000\n"
              "LAST_ADDR=[127.0.0.1]:40001\n"
              "FIRST_TIME=1700000000000\n"
              "LAST_TIME=1700000005000\n"
              "KEY_TIME=1700000001000\n"
              "SESSION_KEY=5e55104b00ff219a3c778001deadbeef42133766\n"
              "TRUST=2\n"
              "SIG_TYPE=1\n"
              "ENC_TYPE=1\n"
              "SEQUENCES=12 7\n");
    writeText(dir + "/odd.dev",
              "ID=65535\n"
              " NAME = x\n"
              "NAME==x\n"
              "MAIN_KEY=abc\n"
              "SEQUENCES=5\n"
              "FIRST_ADDR=[host]:99999\n"
              "DUID=fuzzdev\n"
              "SPECS=\n"
              "junk line\n");
    writeText(dir + "/crlf.dev", "DUID=fuzzdev\r\nDUID=fuzzdev\nID=1000\r\nKEY_TIME=-1\r\n");
    writeText(dir + "/other.dev", "DUID=someone-else\nID=1001\n");
}

void writeDocuments(const std::string& dir) {
    writeText(dir + "/lamp.spec",
              "<?xml version=\"1.0\"?>\n"
              "<Velto-spec>\n"
              " <info>\n"
              "  <specs>acme.example/Velto/specs/Lamp.1</specs>\n"
              "  <desc lang=\"en\">A lamp</desc><desc lang=\"fr\">Une lampe</desc>\n"
              "  <signature capable=\"yes\" required=\"1\">\n"
              "   <algorithm name=\"HMAC-SHA256\" id=\"2\" preference=\"5\" security=\"3\"/>\n"
              "  </signature>\n"
              "  <encryption capable=\"True\"><algorithm name=\"XOR\" id=\"1\"/></encryption>\n"
              "  <configurations><param name=\"period\" value=\"10\"/></configurations>\n"
              "  <dev_params><param name=\"color\" value=\"red\"/></dev_params>\n"
              " </info>\n"
              " <interfaces><interface name=\"Light\" intf=\"acme.example/Light.1\"/>"
              "<interface name=\"Dimmer\"/></interfaces>\n"
              " <clients><client spec=\"s\" interface=\"i.1\" level=\"2\" required=\"TRUE\">"
              "<reason lang=\"en\">to switch</reason></client>"
              "<client interface=\"j.1\" level=\"9\"><reason>dropped</reason></client></clients>\n"
              "</Velto-spec>\n");
    writeText(dir + "/light.intf",
              "<?xml version=\"1.0\"?>\n"
              "<Velto-interface name=\"Light.1\" def=\"std\">\n"
              " <description>Switches a light</description>\n"
              " <inherits> Base.1 </inherits>\n"
              " <messages>\n"
              "  <message name=\"On\" id=\"3\" type=\"direct\" direction=\"IN\" security=\"2\">\n"
              "   <field name=\"level\" type=\"uint8\" default=\"255\"/>\n"
              "  </message>\n"
              "  <message name=\"State\" id=\"70000\" type=\"notification\" direction=\"OUT\"/>\n"
              "  <struct name=\"Color\"><field name=\"r\" type=\"uint8\"/></struct>\n"
              " </messages>\n"
              " <methods><method name=\"toggle\" input=\"none\" output=\"bool\"/></methods>\n"
              " <intelligence><meta_alert notification=\"State\" criticality=\"low\" domains=\"lights, home\">"
              "<condition>level &gt; 200</condition><text lang=\"en\">Bright</text>"
              "<text>Hell</text></meta_alert></intelligence>\n"
              "</Velto-interface>\n");
    writeText(dir + "/prefixed.spec",
              "HTTP/1.1 200 OK\r\n\r\n<<?xml <?xml version=\"1.0\"?><Velto-spec><info>"
              "<specs>x</specs></info></Velto-spec>");
    // Longer than one 8192-byte read, so that elements straddle two reads.
    std::string longDoc = "<?xml version=\"1.0\"?>\n<Velto-interface name=\"Long.1\">\n <messages>\n";
    for (int i = 0; longDoc.size() < 8600; ++i)
        longDoc += "  <message name=\"M" + std::to_string(i) + "\" id=\"" + std::to_string(i) +
                   "\" type=\"direct\" direction=\"IN\"><field name=\"f\" type=\"uint8\"/></message>\n";
    longDoc += " </messages>\n</Velto-interface>\n";
    writeText(dir + "/long.intf", longDoc);
    writeText(dir + "/entity.intf",
              "<?xml version=\"1.0\"?><!DOCTYPE Velto-interface [<!ENTITY n \"Name\">]>"
              "<Velto-interface name=\"&n;\"><inherits>&n;.1</inherits></Velto-interface>");
}


// ---- datagram sequences for fuzz_datagram

using fuzzdatagram::DeviceProfile;
using fuzzdatagram::kLamp;
using fuzzdatagram::kSwitch;

// The wire bytes of p as node devId sends them, signed with the device's
// session key when it signs.
std::vector<uint8_t> wire(VeltoPacket& p, uint16_t devId, const DeviceProfile* signer = nullptr) {
    static uint32_t packetNo = 1;
    p.hubId = 17;
    p.devId = devId;
    p.packetNo = packetNo++;
    if (signer != nullptr && signer->sigType != NO_SIGNATURE_TYPE)
        p.signature.setKey(signer->sigType, signer->sessionKey, sizeof(signer->sessionKey));
    uint8_t buf[MAX_PACKET_SIZE];
    const int n = p.serialize(buf, sizeof(buf));
    if (n < 0) {
        fprintf(stderr, "pack %u does not fit\n", unsigned(p.id));
        failed = true;
        return {};
    }
    return std::vector<uint8_t>(buf, buf + n);
}

std::vector<uint8_t> fromDevice(VeltoPacket& p, const DeviceProfile& d) { return wire(p, d.id, &d); }

// A sequence of datagrams being built into one input.
class Sequence {
public:
    // Appends p as sent by device d from its own address after `clock`.
    Sequence& send(const DeviceProfile& d, VeltoPacket& p, uint8_t clock = 0) {
        fuzzdatagram::appendDatagram(input, d.peer, clock, fromDevice(p, d));
        return *this;
    }
    Sequence& raw(uint8_t peer, const std::vector<uint8_t>& bytes, uint8_t clock = 0) {
        fuzzdatagram::appendDatagram(input, peer, clock, bytes);
        return *this;
    }
    // Only the clock moves.
    Sequence& wait(uint8_t clock) { return raw(0, {}, clock); }
    void write(const std::string& path) { writeSeed(path, input.data(), input.size()); }

private:
    std::vector<uint8_t> input;
};

PingPongPack ping(uint8_t pingOrPong) {
    PingPongPack p;
    p.pingOrPong = pingOrPong;
    p.replyKey = 0x55;
    p.random = 0x0102030405060708ULL;
    return p;
}

ConfigSummaryPack summaryOf(const char* duid, uint8_t objects) {
    ConfigSummaryPack p;
    p.duid = duid;
    p.noOfObjects = objects;
    p.maxNoOfObjects = objects;
    p.maxPacketSize = 400;
    p.maxMessageSize = 4096;
    return p;
}

ObjectInfoPack objectInfo(uint8_t n) {
    ObjectInfoPack p;
    p.objectNo = n;
    p.ifaceType = ObjectInfoPack::VELTO;
    p.name = "obj" + std::to_string(n);
    p.interface = "if";
    return p;
}

MsgSelector selector(uint8_t cat, uint16_t from, uint8_t fromObj, uint16_t msgId, uint16_t to, uint8_t toObj,
                     uint32_t msgNo) {
    MsgSelector ms;
    ms.msgCat = cat;
    ms.fromDeviceId = from;
    ms.fromObjectNo = fromObj;
    ms.msgId = msgId;
    ms.toDeviceId = to;
    ms.toObjectNo = toObj;
    ms.msgNo = msgNo;
    return ms;
}

// The carrier pieces of body as a MsgSender cuts them, sent by d in order.
void sendMessage(Sequence& seq, const DeviceProfile& d, const MsgSelector& ms, const std::vector<uint8_t>& body) {
    MsgSender tx;
    if (!tx.setNewMessage(body.data(), static_cast<uint32_t>(body.size()), ms)) {
        fprintf(stderr, "message of %zu bytes refused\n", body.size());
        failed = true;
        return;
    }
    MessageCarrierPack piece;
    for (int guard = 0; guard < 16 && tx.getNextPack(piece); ++guard) {
        seq.send(d, piece, 1);
        piece = MessageCarrierPack();
    }
}

MessageCarrierACKPack ackOf(const MsgSelector& ms, uint32_t lastSeqNo) {
    MessageCarrierACKPack ack;
    ms.copyTo(ack);
    ack.lastSeqNo = lastSeqNo;
    return ack;
}

std::vector<uint8_t> pattern(size_t n) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 13 + 1);
    return v;
}

// The device list the hub's node 1 sends back right after a reset: the two
// devices and then node 1 itself.
size_t deviceListSize() {
    BasicDeviceListMsg list;
    for (const DeviceProfile* d : {&kLamp, &kSwitch}) {
        BasicDeviceInfo info;
        info.id = d->id;
        info.duid = d->duid;
        info.specs = "sp";
        info.nname = d->duid;
        info.intVer = 3;
        info.status = 6;
        info.hubId = 17;
        info.domain = fuzzdatagram::kDomain;
        list.devList.push_back(info);
    }
    BasicDeviceInfo hub;
    hub.id = fuzzdatagram::kHubNode;
    hub.duid = "VHubMainServices";
    hub.specs = "hub.velto.local/Velto/specs/std/HubMainServices.1";
    hub.nname = "HubMainServices";
    hub.intVer = 1;
    hub.hubId = 17;
    hub.domain = fuzzdatagram::kDomain;
    list.devList.push_back(hub);
    std::vector<uint8_t> buf(list.estimateRequiredSize());
    uint8_t* cursor = buf.data();
    size_t left = buf.size();
    return list.addToBuffer(cursor, left) ? buf.size() - left : 0;
}

// A third device announces itself from a fresh address, joins, is configured
// with one object and pings.
void writeNewDevice(const std::string& dir) {
    const char* duid = "fuzz-plug";
    const uint16_t id = fuzzdatagram::kFirstFreeNode;
    Sequence seq;
    NewBornDevicePack born;
    born.duid = duid;
    born.specs = "sp";
    born.intVer = 1;
    born.prevn = "plug";
    born.prevdom = fuzzdatagram::kDomain;
    seq.raw(fuzzdatagram::SPARE_PEER, wire(born, 0));
    NetworkJoinPack join;
    join.duid = duid;
    join.nname = "plug";
    join.domain = fuzzdatagram::kDomain;
    join.clientRand = 0x1122334455667788ULL;
    join.addrType = NetworkJoinPack::IPV4;
    join.hubPortNo = 1881;
    const uint8_t loopback[4] = {127, 0, 0, 1};
    join.addrValue = ByteArray<32>(loopback, sizeof(loopback));
    seq.raw(fuzzdatagram::SPARE_PEER, wire(join, 0), 5);
    ConfigSummaryPack summary = summaryOf(duid, 1);
    seq.raw(fuzzdatagram::SPARE_PEER, wire(summary, id), 5);
    ObjectInfoPack info = objectInfo(0);
    seq.raw(fuzzdatagram::SPARE_PEER, wire(info, id), 5);
    PingPongPack p = ping(PingPongPack::PING);
    seq.raw(fuzzdatagram::SPARE_PEER, wire(p, id), 5);
    seq.write(dir + "/announce-join-configure");

    // The same announcement and join from the lamp's own address and DUID.
    Sequence again;
    born.duid = kLamp.duid;
    join.duid = kLamp.duid;
    again.raw(kLamp.peer, wire(born, 0)).raw(kLamp.peer, wire(join, 0), 3);
    again.write(dir + "/lamp-rejoin");
}

void writeConfiguration(const std::string& dir) {
    Sequence seq;
    ConfigSummaryPack summary = summaryOf(kLamp.duid, 3);
    seq.send(kLamp, summary);
    for (uint8_t n = 0; n < 3; ++n) {
        ObjectInfoPack info = objectInfo(n);
        seq.send(kLamp, info, 2);
    }
    seq.write(dir + "/lamp-configuration-signed");

    Sequence plain;
    ConfigSummaryPack again = summaryOf(kSwitch.duid, 2);
    plain.send(kSwitch, again);
    ObjectInfoPack info = objectInfo(1);
    plain.send(kSwitch, info, 2);
    plain.write(dir + "/switch-configuration");

    // Signed with a key the hub does not hold for the lamp: dropped.
    Sequence forged;
    DeviceProfile impostor = kLamp;
    impostor.sessionKey[0] ^= 0xff;
    ConfigSummaryPack bad = summaryOf(kLamp.duid, 1);
    forged.send(impostor, bad);
    forged.write(dir + "/lamp-bad-signature");
}

void writeLiveness(const std::string& dir) {
    Sequence seq;
    PingPongPack p = ping(PingPongPack::PING);
    PingPongPack q = ping(PingPongPack::PONG);
    seq.send(kSwitch, p).send(kSwitch, q, 20).send(kLamp, p, 20);
    seq.write(dir + "/ping-pong");

    // Silent beyond the idle time: probed, then answered.
    Sequence probe;
    probe.wait(240).wait(150).wait(100).wait(100).send(kLamp, q, 10);
    probe.write(dir + "/lamp-probed-then-pong");

    // Silent for good: probed, given up and destroyed.
    Sequence gone;
    gone.wait(242).wait(239).wait(239).wait(239).wait(239).wait(100).wait(100);
    gone.write(dir + "/lamp-given-up");
}

void writeMessages(const std::string& dir) {
    // Lamp object 0 to switch object 1, two pieces; the switch acknowledges
    // the message the hub passes down.
    const MsgSelector direct = selector(DIRECT_MSGCAT, kLamp.id, 0, 5, kSwitch.id, 1, 7);
    const std::vector<uint8_t> body = pattern(500);
    Sequence seq;
    sendMessage(seq, kLamp, direct, body);
    MessageCarrierACKPack ack = ackOf(direct, static_cast<uint32_t>(body.size()));
    seq.send(kSwitch, ack, 2);
    seq.write(dir + "/lamp-two-piece-message");

    // The second piece first, then the first.
    Sequence reversed;
    MsgSender tx;
    MsgSelector ms = direct;
    ms.msgNo = 8;
    std::vector<std::vector<uint8_t>> pieces;
    if (tx.setNewMessage(body.data(), static_cast<uint32_t>(body.size()), ms)) {
        MessageCarrierPack piece;
        while (pieces.size() < 4 && tx.getNextPack(piece)) {
            pieces.push_back(fromDevice(piece, kLamp));
            piece = MessageCarrierPack();
        }
    }
    for (auto it = pieces.rbegin(); it != pieces.rend(); ++it) reversed.raw(kLamp.peer, *it, 1);
    reversed.write(dir + "/lamp-pieces-reversed");

    // The switch subscribes to notification 9 of the lamp's object 0, which
    // the lamp then sends; the switch acknowledges it.
    Sequence notify;
    NotificationSubscriptionPack sub;
    sub.nodeId = kLamp.id;
    sub.objectNo = 0;
    sub.eventId = 9;
    sub.subscribe = 1;
    notify.send(kSwitch, sub);
    const MsgSelector note = selector(NOTIFICATION_MSGCAT, kLamp.id, 0, 9, 0, 0, 3);
    sendMessage(notify, kLamp, note, pattern(24));
    MessageCarrierACKPack noteAck = ackOf(note, 24);
    notify.send(kSwitch, noteAck, 1);
    sub.subscribe = 0;
    notify.send(kSwitch, sub, 1);
    notify.write(dir + "/switch-subscribes-lamp-notifies");

    // The switch asks node 1 for the device list and acknowledges the answer.
    Sequence list;
    RequestBasicDeviceListMsg request;
    request.matchSpecs = "sp";
    std::vector<uint8_t> req(MAX_PACKET_SIZE);
    uint8_t* cursor = req.data();
    size_t left = req.size();
    if (!request.addToBuffer(cursor, left)) failed = true;
    req.resize(req.size() - left);
    const MsgSelector ask =
        selector(DIRECT_MSGCAT, kSwitch.id, 0, RequestBasicDeviceListMsg::MSG_ID, fuzzdatagram::kHubNode, 1, 1);
    sendMessage(list, kSwitch, ask, req);
    const MsgSelector answer =
        selector(DIRECT_MSGCAT, fuzzdatagram::kHubNode, 1, BasicDeviceListMsg::MSG_ID, kSwitch.id, 0, 1);
    MessageCarrierACKPack listAck = ackOf(answer, static_cast<uint32_t>(deviceListSize()));
    list.send(kSwitch, listAck, 2);
    list.write(dir + "/switch-device-list");

    // An acknowledgement of nothing the hub sent.
    Sequence stray;
    MessageCarrierACKPack lone = ackOf(direct, 326);
    stray.send(kLamp, lone);
    stray.write(dir + "/stray-ack");
}

// Too short, an unknown node and a pack id without a handler.
void writeOddities(const std::string& dir) {
    Sequence seq;
    seq.raw(fuzzdatagram::SPARE_PEER + 1, {0x14});
    PingPongPack p = ping(PingPongPack::PING);
    seq.raw(fuzzdatagram::SPARE_PEER + 1, wire(p, 4242), 1);
    MessageErrorPack err;
    err.errorCode = MessageErrorPack::PERMISSION_DENIED;
    err.category = DIRECT_MSGCAT;
    err.fromNodeId = kSwitch.id;
    err.toNodeId = kLamp.id;
    seq.send(kSwitch, err, 1);
    seq.write(dir + "/oddities");
}

// Document indexes as the hub writes them, one with odd lines, and rules files.
void writeIndexSeeds(const std::string& dir) {
    writeText(dir + "/specs.idx",
              "acme.example/Velto/specs/Lamp.1 000000001\n"
              "acme.example/Velto/specs/Switch.2 000000002\n");
    writeText(dir + "/odd.idx",
              "lonely\n"
              "  spaced\tid   000000007 trailing words\n"
              "big 18446744073709551616\n"
              "neg -5\n"
              "acme.example/Velto/specs/Lamp.1 000000009\r\n"
              "last 12");
    writeText(dir + "/rules.txt",
              "D 2 lampdev switchdev\n"
              "N 3 switchdev lampdev\n"
              "X 1 lampdev lampdev\n"
              "D 4 lampdev switchdev\n"
              "D 1 ab switchdev\n"
              "N 1 nobody lampdev\n");
}

void writeDatagramSeeds(const std::string& dir) {
    writeNewDevice(dir);
    writeConfiguration(dir);
    writeLiveness(dir);
    writeMessages(dir);
    writeOddities(dir);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s <corpus dir>\n", argv[0]);
        return 2;
    }
    const std::string root = argv[1];
    const std::string packs = root + "/fuzz_packs";
    writeAllPacks(packs);
    writeCarrierStream(packs, "31-carrier-one-piece", 100, {0}, HMAC_SHA1_TYPE);
    writeCarrierStream(packs, "31-carrier-in-order", 700, {0, 1, 2}, NO_SIGNATURE_TYPE);
    writeCarrierStream(packs, "31-carrier-gap-repeat", 1000, {0, 2, 1, 0, 1, 2, 3}, NO_SIGNATURE_TYPE);
    writeBodies(packs);
    writeRecords(root + "/fuzz_record");
    writeDocuments(root + "/fuzz_xml");
    writeDatagramSeeds(root + "/fuzz_datagram");
    writeIndexSeeds(root + "/fuzz_index");
    return failed ? 1 : 0;
}
