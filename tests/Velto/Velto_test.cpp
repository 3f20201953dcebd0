// The packet envelope and the pack catalogue: exact wire bytes of every pack,
// refusal of truncated datagrams, field-by-field round trips, and the kept
// oddities of the format. Every decode reads from an exactly sized heap copy.
#include "Velto/Velto.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/wire_bytes.h"

using testsupport::ExactBytes;
using testsupport::fromHex;
using testsupport::toHex;

namespace {

const uint8_t KEY[16] = {0x10, 0x21, 0x32, 0x43, 0x54, 0x65, 0x76, 0x87,
                         0x98, 0xa9, 0xba, 0xcb, 0xdc, 0xed, 0xfe, 0x0f};

std::vector<uint8_t> wireOf(VeltoPacket& p) {
    std::vector<uint8_t> buf(MAX_PACKET_SIZE);
    int n = p.serialize(buf.data(), buf.size());
    EXPECT_GT(n, 0);
    buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return buf;
}

// Decodes `wire` from an exact copy into `into`; returns deserialize's result.
int decode(const std::vector<uint8_t>& wire, VeltoPacket& into, bool verify = false) {
    ExactBytes b(wire);
    return into.deserialize(b.data(), b.size(), verify);
}

// The header every layout test uses: hub 17, device 1000, packet 5, unsigned, plain.
std::string header(uint8_t id) { return toHex(&id, 1) + " 11 03e8 00000005 00 00 "; }

void setHeader(VeltoPacket& p) {
    p.hubId = 17;
    p.devId = 1000;
    p.packetNo = 5;
}

template <typename P>
void expectSameHeader(const P& a, const P& b) {
    EXPECT_EQ(a.id, b.id);
    EXPECT_EQ(a.hubId, b.hubId);
    EXPECT_EQ(a.devId, b.devId);
    EXPECT_EQ(a.packetNo, b.packetNo);
    EXPECT_EQ(a.encType, b.encType);
    EXPECT_EQ(a.signature.signatureType(), b.signature.signatureType());
}

// Signs `in` with HMAC-SHA1, decodes it into a fresh pack and checks the header
// and the size consumed; the caller compares the pack's own fields.
template <typename P>
P roundTrip(P& in) {
    in.hubId = 17;
    in.devId = 0xBEEF;
    in.packetNo = 0xDEADBEEF;
    in.encType = SIMPLE_XOR_TYPE;
    in.signature.setKey(HMAC_SHA1_TYPE, KEY, sizeof(KEY));
    std::vector<uint8_t> wire = wireOf(in);
    P out;
    out.signature.setKey(NO_SIGNATURE_TYPE, KEY, sizeof(KEY));
    EXPECT_EQ(decode(wire, out, true), static_cast<int>(wire.size()));
    EXPECT_TRUE(out.signature.verified());
    expectSameHeader(in, out);
    return out;
}

}  // namespace

// ---- envelope ----

TEST(VeltoEnvelope, HeaderSizeFollowsTheSignatureType) {
    const struct {
        uint8_t type;
        size_t size;
    } cases[] = {{NO_SIGNATURE_TYPE, 10}, {HMAC_SHA1_TYPE, 30}, {HMAC_SHA256_TYPE, 42}, {3, 10}};
    for (const auto& c : cases) {
        VeltoPacket p;
        p.signature.setKey(c.type, KEY, sizeof(KEY));
        std::vector<uint8_t> wire = wireOf(p);
        EXPECT_EQ(wire.size(), c.size) << int(c.type);
        EXPECT_EQ(wire[8], c.type);
        VeltoPacket back;
        EXPECT_EQ(decode(wire, back), static_cast<int>(c.size));
        EXPECT_EQ(back.signature.signatureType(), c.type);
    }
}

TEST(VeltoEnvelope, HeaderFieldsInOrder) {
    GetObjectInfoPack p;
    p.hubId = 17;
    p.devId = 0x1234;
    p.packetNo = 0xA1B2C3D4;
    p.encType = SIMPLE_XOR_TYPE;
    p.objectNo = 7;
    EXPECT_EQ(toHex(wireOf(p)), toHex(fromHex("0f 11 1234 a1b2c3d4 00 01 07")));
}

TEST(VeltoEnvelope, ConstructorsSetIdAndDefaults) {
    VeltoPacket base;
    EXPECT_EQ(base.id, 0);
    EXPECT_EQ(base.devId, 0);
    EXPECT_EQ(base.packetNo, 0u);
    EXPECT_EQ(base.encType, 0);
    EXPECT_EQ(base.signature.signatureType(), NO_SIGNATURE_TYPE);
    EXPECT_EQ(NewBornDevicePack().id, 1);
    EXPECT_EQ(AdoptionOfferPack().id, 2);
    EXPECT_EQ(NetworkJoinPack().id, 3);
    EXPECT_EQ(JoinAcceptedPack().id, 4);
    EXPECT_EQ(ConfigSummaryPack().id, 10);
    EXPECT_EQ(GetObjectInfoPack().id, 15);
    EXPECT_EQ(ObjectInfoPack().id, 16);
    EXPECT_EQ(ConfigurationCompletePack().id, 19);
    EXPECT_EQ(PingPongPack().id, 20);
    EXPECT_EQ(MessageCarrierACKPack().id, 32);
    EXPECT_EQ(NotificationSubscriptionPack().id, 33);
    EXPECT_EQ(MessageErrorPack().id, 34);
    MessageCarrierPack c;
    EXPECT_EQ(c.id, 31);
    EXPECT_EQ(c.msgCat, 0);
    EXPECT_EQ(c.msgNo, 0u);
    EXPECT_EQ(c.commands, 0);
    EXPECT_EQ(c.checksum, 0u);
}

TEST(VeltoEnvelope, LastFieldNotFittingGivesMinusOneAndNothingSigned) {
    PingPongPack p;
    p.random = 0x0102030405060708ull;
    p.signature.setKey(HMAC_SHA1_TYPE, KEY, sizeof(KEY));
    const size_t full = 30 + 17;
    std::vector<uint8_t> buf(full - 1, 0xEE);
    EXPECT_EQ(p.serialize(buf.data(), buf.size()), -1);
    // The signature area was written as zeros and never filled in.
    for (size_t i = 10; i < 30; ++i) EXPECT_EQ(buf[i], 0) << i;
    std::vector<uint8_t> enough(full);
    EXPECT_EQ(p.serialize(enough.data(), enough.size()), static_cast<int>(full));
    EXPECT_EQ(p.serialize(nullptr, 400), -1);
}

TEST(VeltoEnvelope, TrailingBytesAreIgnoredAndNotChecked) {
    PingPongPack p;
    p.replyKey = 99;
    p.signature.setKey(HMAC_SHA1_TYPE, KEY, sizeof(KEY));
    std::vector<uint8_t> wire = wireOf(p);
    const size_t packLen = wire.size();
    for (int i = 0; i < 5; ++i) wire.push_back(static_cast<uint8_t>(0xA0 + i));
    PingPongPack back;
    back.signature.setKey(NO_SIGNATURE_TYPE, KEY, sizeof(KEY));
    EXPECT_EQ(decode(wire, back, true), static_cast<int>(packLen));
    EXPECT_TRUE(back.signature.verified());
    EXPECT_EQ(back.replyKey, 99u);
}

TEST(VeltoEnvelope, FullCarrierWithSha256SignatureTakes396Bytes) {
    MessageCarrierPack p;
    p.signature.setKey(HMAC_SHA256_TYPE, KEY, sizeof(KEY));
    p.payload.setSize(MAX_CARRIER_PAYLOAD);
    for (size_t i = 0; i < MAX_CARRIER_PAYLOAD; ++i) p.payload[i] = static_cast<uint8_t>(i ^ 0x5A);
    std::vector<uint8_t> wire = wireOf(p);
    ASSERT_EQ(wire.size(), 396u);
    EXPECT_LE(wire.size(), MAX_PACKET_SIZE);
    MessageCarrierPack back;
    EXPECT_EQ(decode(wire, back), 396);
    EXPECT_TRUE(back.payload == p.payload);
}

TEST(VeltoEnvelope, CarrierDeclaringMorePayloadKeeps326) {
    MessageCarrierPack p;
    p.checksum = 0xCAFEF00D;
    std::vector<uint8_t> wire = wireOf(p);
    ASSERT_EQ(wire.back(), 0x00);  // the empty payload's size
    wire.pop_back();
    wire.push_back(0x82);  // 330 = 0x14A
    wire.push_back(0x4A);
    for (int i = 0; i < 330; ++i) wire.push_back(static_cast<uint8_t>(i));
    MessageCarrierPack back;
    EXPECT_EQ(decode(wire, back), static_cast<int>(wire.size()));
    EXPECT_EQ(back.payload.size(), 326u);
    EXPECT_EQ(back.payload[325], static_cast<uint8_t>(325));
    EXPECT_EQ(back.checksum, 0xCAFEF00Du);
}

// ---- exact wire bytes of every pack ----

TEST(VeltoPackLayout, NewBornDevice) {
    NewBornDevicePack p;
    setHeader(p);
    p.duid = "d1";
    p.specs = "s";
    p.intVer = 7;
    p.prevn = "n";
    EXPECT_EQ(toHex(wireOf(p)), toHex(fromHex(header(1) + "643100 7300 07 6e00 00")));
}

TEST(VeltoPackLayout, AdoptionOffer) {
    AdoptionOfferPack p;
    setHeader(p);
    p.offer = 1;
    p.svrNodeId = 17;
    p.duid = "d1";
    p.nname = "nn";
    p.domain = "D";
    EXPECT_EQ(toHex(wireOf(p)), toHex(fromHex(header(2) + "01 11 643100 6e6e00 4400")));
}

TEST(VeltoPackLayout, NetworkJoin) {
    NetworkJoinPack p;
    setHeader(p);
    p.duid = "d";
    p.nname = "n";
    p.domain = "D";
    p.generalFlags = NetworkJoinPack::HaveDirectInterface | NetworkJoinPack::HaveConfigSummary;
    p.clientRand = 0x0102030405060708ull;
    p.addrType = NetworkJoinPack::IPV4;
    p.hubPortNo = 1881;
    const uint8_t addr[4] = {192, 168, 1, 2};
    p.addrValue = ByteArray<32>(addr, 4);
    EXPECT_EQ(toHex(wireOf(p)),
              toHex(fromHex(header(3) + "6400 6e00 4400 09 0102030405060708 01 0759 04c0a80102")));
}

TEST(VeltoPackLayout, JoinAccepted) {
    JoinAcceptedPack p;
    setHeader(p);
    p.duid = "d";
    p.nodeId = 1000;
    p.flags = JoinAcceptedPack::ConfigSummaryRequest | JoinAcceptedPack::StartUsingEncryption;
    p.svrRand = 0xA1A2A3A4A5A6A7A8ull;
    p.encAlg = SIMPLE_XOR_TYPE;
    const uint8_t key[3] = {1, 2, 3};
    p.sessionKey = ByteArray<32>(key, 3);
    EXPECT_EQ(toHex(wireOf(p)), toHex(fromHex(header(4) + "6400 03e8 18 a1a2a3a4a5a6a7a8 01 03010203")));
}

TEST(VeltoPackLayout, ConfigSummary) {
    ConfigSummaryPack p;
    setHeader(p);
    p.duid = "d";
    p.noOfObjects = 3;
    p.maxNoOfObjects = 8;
    p.maxPacketSize = 400;
    p.maxMessageSize = 0x10000;
    p.maxNoOfDirectUsers = 4;
    p.random = 0x1122334455667788ull;
    EXPECT_EQ(toHex(wireOf(p)),
              toHex(fromHex(header(10) + "6400 03 08 0190 00010000 0004 1122334455667788")));
}

TEST(VeltoPackLayout, GetObjectInfo) {
    GetObjectInfoPack p;
    setHeader(p);
    p.objectNo = 2;
    EXPECT_EQ(toHex(wireOf(p)), toHex(fromHex(header(15) + "02")));
}

TEST(VeltoPackLayout, ObjectInfo) {
    ObjectInfoPack p;
    setHeader(p);
    p.objectNo = 1;
    p.groupNo = 2;
    p.ifaceType = ObjectInfoPack::UNICAST_UDP;
    p.name = "a";
    p.interface = "b";
    p.nParam1 = 0x10;
    p.nParam2 = 0x20;
    p.sParam1 = "c";
    p.lnParam = 0x0000000100000002ull;
    EXPECT_EQ(toHex(wireOf(p)),
              toHex(fromHex(header(16) + "01 02 0b 6100 6200 00000010 00000020 6300 00 0000000100000002")));
}

TEST(VeltoPackLayout, ConfigurationComplete) {
    ConfigurationCompletePack p;
    setHeader(p);
    p.serverTimestamp = 0x0000018B12345678ull;
    p.dev2HubSequence = 7;
    p.hub2DevSequence = 9;
    std::vector<uint8_t> wire = wireOf(p);
    EXPECT_EQ(wire.size(), 10u + 16u);
    EXPECT_EQ(toHex(wire), toHex(fromHex(header(19) + "0000018b12345678 00000007 00000009")));
}

TEST(VeltoPackLayout, PingPong) {
    PingPongPack p;
    setHeader(p);
    p.pingOrPong = PingPongPack::PONG;
    p.replyKey = 10;
    p.random = ~0ull;
    std::vector<uint8_t> wire = wireOf(p);
    EXPECT_EQ(wire.size(), 10u + 17u);
    EXPECT_EQ(toHex(wire), toHex(fromHex(header(20) + "01 000000000000000a ffffffffffffffff")));
}

TEST(VeltoPackLayout, MessageCarrier) {
    MessageCarrierPack p;
    setHeader(p);
    p.msgCat = DIRECT_MSGCAT;
    p.fromDeviceId = 1000;
    p.fromObjectNo = 1;
    p.msgId = 0x0102;
    p.toDeviceId = 1001;
    p.toObjectNo = 3;
    p.msgNo = 0x10;
    p.packetStart = 0;
    p.msgSize = 3;
    p.commands = MessageCarrierPack::MSG_START | MessageCarrierPack::MSG_STOP | MessageCarrierPack::REQUIRE_ACK;
    p.checksum = 6;
    const uint8_t body[3] = {1, 2, 3};
    p.payload = ByteArray<326>(body, 3);
    std::vector<uint8_t> wire = wireOf(p);
    EXPECT_EQ(wire.size(), 10u + 26u + 1u + 3u);
    EXPECT_EQ(toHex(wire), toHex(fromHex(header(31) +
                                         "02 03e8 01 0102 03e9 03 00000010 00000000 00000003 07 00000006 03010203")));
}

TEST(VeltoPackLayout, MessageCarrierACK) {
    MessageCarrierACKPack p;
    setHeader(p);
    p.msgCat = NOTIFICATION_MSGCAT;
    p.fromDeviceId = 1000;
    p.fromObjectNo = 1;
    p.msgId = 0x0203;
    p.toDeviceId = 1001;
    p.toObjectNo = 2;
    p.msgNo = 0x11;
    p.lastSeqNo = 0x12;
    std::vector<uint8_t> wire = wireOf(p);
    EXPECT_EQ(wire.size(), 10u + 17u);
    EXPECT_EQ(toHex(wire), toHex(fromHex(header(32) + "01 03e8 01 0203 03e9 02 00000011 00000012")));
}

TEST(VeltoPackLayout, NotificationSubscription) {
    NotificationSubscriptionPack p;
    setHeader(p);
    p.nodeId = 1002;
    p.objectNo = 4;
    p.eventId = 0x0506;
    p.subscribe = 1;
    std::vector<uint8_t> wire = wireOf(p);
    EXPECT_EQ(wire.size(), 10u + 6u);
    EXPECT_EQ(toHex(wire), toHex(fromHex(header(33) + "03ea 04 0506 01")));
}

TEST(VeltoPackLayout, MessageError) {
    MessageErrorPack p;
    setHeader(p);
    p.errorCode = MessageErrorPack::PERMISSION_DENIED;
    p.category = DIRECT_MSGCAT;
    p.fromNodeId = 1000;
    p.fromObjectNo = 1;
    p.msgId = 0x0102;
    p.toNodeId = 1001;
    p.toObjectNo = 3;
    p.optErorMsg = "no";
    EXPECT_EQ(toHex(wireOf(p)), toHex(fromHex(header(34) + "0000000a 02 03e8 01 0102 03e9 03 6e6f00")));
}

// ---- truncated datagrams ----

namespace {

struct PackCase {
    const char* name;
    std::function<std::unique_ptr<VeltoPacket>()> make;  // filled in
    std::function<std::unique_ptr<VeltoPacket>()> fresh;  // empty, to decode into
    size_t lastTextLen;  // characters of a text the reader takes last; 0 if it ends otherwise
};

template <typename P>
std::unique_ptr<VeltoPacket> freshPack() {
    return std::unique_ptr<VeltoPacket>(new P);
}

std::vector<PackCase> filledPacks() {
    std::vector<PackCase> v;
    v.push_back({"NewBornDevice",
                 [] {
                     auto p = new NewBornDevicePack;
                     p->duid = "dev-1";
                     p->specs = "http://x/spec.xml";
                     p->intVer = 2;
                     p->prevn = "node";
                     p->prevdom = "dom";
                     return std::unique_ptr<VeltoPacket>(p);
                 },
                 freshPack<NewBornDevicePack>, 3});
    v.push_back({"AdoptionOffer",
                 [] {
                     auto p = new AdoptionOfferPack;
                     p->offer = 1;
                     p->svrNodeId = 17;
                     p->duid = "dev-1";
                     p->nname = "node";
                     p->domain = "home";
                     return std::unique_ptr<VeltoPacket>(p);
                 },
                 freshPack<AdoptionOfferPack>, 4});
    v.push_back({"NetworkJoin",
                 [] {
                     auto p = new NetworkJoinPack;
                     p->duid = "dev-1";
                     p->nname = "node";
                     p->domain = "home";
                     p->clientRand = 42;
                     p->hubPortNo = 1881;
                     const uint8_t a[4] = {10, 0, 0, 1};
                     p->addrValue = ByteArray<32>(a, 4);
                     return std::unique_ptr<VeltoPacket>(p);
                 },
                 freshPack<NetworkJoinPack>, 0});
    v.push_back({"JoinAccepted",
                 [] {
                     auto p = new JoinAcceptedPack;
                     p->duid = "dev-1";
                     p->nodeId = 1000;
                     p->svrRand = 7;
                     uint8_t k[32];
                     for (int i = 0; i < 32; ++i) k[i] = static_cast<uint8_t>(i);
                     p->sessionKey = ByteArray<32>(k, 32);
                     return std::unique_ptr<VeltoPacket>(p);
                 },
                 freshPack<JoinAcceptedPack>, 0});
    v.push_back({"ConfigSummary",
                 [] {
                     auto p = new ConfigSummaryPack;
                     p->duid = "dev-1";
                     p->random = 5;
                     return std::unique_ptr<VeltoPacket>(p);
                 },
                 freshPack<ConfigSummaryPack>, 0});
    v.push_back({"GetObjectInfo", [] { return freshPack<GetObjectInfoPack>(); }, freshPack<GetObjectInfoPack>, 0});
    v.push_back({"ObjectInfo",
                 [] {
                     auto p = new ObjectInfoPack;
                     p->name = "lamp";
                     p->interface = "if.light";
                     p->sParam1 = "x";
                     p->sParam2 = "y";
                     p->lnParam = 1;
                     return std::unique_ptr<VeltoPacket>(p);
                 },
                 freshPack<ObjectInfoPack>, 0});
    v.push_back({"ConfigurationComplete", [] { return freshPack<ConfigurationCompletePack>(); },
                 freshPack<ConfigurationCompletePack>, 0});
    v.push_back({"PingPong", [] { return freshPack<PingPongPack>(); }, freshPack<PingPongPack>, 0});
    v.push_back({"MessageCarrier",
                 [] {
                     auto p = new MessageCarrierPack;
                     p->payload.setSize(200);  // a two-byte size
                     return std::unique_ptr<VeltoPacket>(p);
                 },
                 freshPack<MessageCarrierPack>, 0});
    v.push_back({"MessageCarrierACK", [] { return freshPack<MessageCarrierACKPack>(); },
                 freshPack<MessageCarrierACKPack>, 0});
    v.push_back({"NotificationSubscription", [] { return freshPack<NotificationSubscriptionPack>(); },
                 freshPack<NotificationSubscriptionPack>, 0});
    v.push_back({"MessageError",
                 [] {
                     auto p = new MessageErrorPack;
                     p->toObjectNo = 0;
                     p->optErorMsg = "abc";
                     return std::unique_ptr<VeltoPacket>(p);
                 },
                 freshPack<MessageErrorPack>, 3});
    return v;
}

}  // namespace

// Every prefix is refused, except that a text read last accepts a cut text (a
// text read stops at the count, it does not require its NUL).
TEST(VeltoTruncation, EveryPrefixOfEveryPackIsRefused) {
    for (const PackCase& c : filledPacks()) {
        for (uint8_t sigType : {NO_SIGNATURE_TYPE, HMAC_SHA1_TYPE, HMAC_SHA256_TYPE}) {
            std::unique_ptr<VeltoPacket> p = c.make();
            p->signature.setKey(sigType, KEY, sizeof(KEY));
            std::vector<uint8_t> wire = wireOf(*p);
            ASSERT_FALSE(wire.empty()) << c.name;
            std::unique_ptr<VeltoPacket> whole = c.fresh();
            EXPECT_EQ(decode(wire, *whole), static_cast<int>(wire.size())) << c.name;
            const size_t lastTextStart = c.lastTextLen ? wire.size() - (c.lastTextLen + 1) : wire.size();
            for (size_t k = 0; k < wire.size(); ++k) {
                ExactBytes part(wire.data(), k);
                std::unique_ptr<VeltoPacket> q = c.fresh();
                int r = q->deserialize(part.data(), part.size(), true);
                if (k <= lastTextStart)
                    EXPECT_EQ(r, -1) << c.name << " sig " << int(sigType) << " prefix " << k;
                else
                    EXPECT_EQ(r, static_cast<int>(k)) << c.name << " sig " << int(sigType) << " prefix " << k;
            }
        }
    }
}

TEST(VeltoTruncation, CutTextReadLastComesBackShortened) {
    AdoptionOfferPack p;
    p.domain = "home";
    std::vector<uint8_t> wire = wireOf(p);
    wire.resize(wire.size() - 3);  // "ho" left, no NUL
    AdoptionOfferPack back;
    EXPECT_EQ(decode(wire, back), static_cast<int>(wire.size()));
    EXPECT_TRUE(back.domain == std::string("ho"));
}

// ---- round trips ----

TEST(VeltoRoundTrip, NewBornDevice) {
    NewBornDevicePack in;
    in.duid = "0123456789abcdef0123456789abcdef";
    in.specs = std::string(128, 's');
    in.intVer = 0xFE;
    in.prevn = "prev-node";
    in.prevdom = "prev-domain";
    NewBornDevicePack out = roundTrip(in);
    EXPECT_EQ(out.duid.str(), in.duid.str());
    EXPECT_EQ(out.specs.str(), in.specs.str());
    EXPECT_EQ(out.intVer, in.intVer);
    EXPECT_EQ(out.prevn.str(), in.prevn.str());
    EXPECT_EQ(out.prevdom.str(), in.prevdom.str());
}

TEST(VeltoRoundTrip, AdoptionOffer) {
    AdoptionOfferPack in;
    in.offer = 3;
    in.svrNodeId = 17;
    in.duid = "dev";
    in.nname = "kitchen";
    in.domain = "TestDomain_KVZ1";
    AdoptionOfferPack out = roundTrip(in);
    EXPECT_EQ(out.offer, in.offer);
    EXPECT_EQ(out.svrNodeId, in.svrNodeId);
    EXPECT_EQ(out.duid.str(), in.duid.str());
    EXPECT_EQ(out.nname.str(), in.nname.str());
    EXPECT_EQ(out.domain.str(), in.domain.str());
}

TEST(VeltoRoundTrip, NetworkJoin) {
    NetworkJoinPack in;
    in.duid = "dev";
    in.nname = "node";
    in.domain = "dom";
    in.generalFlags = 0x1F;
    in.clientRand = 0xF0E1D2C3B4A59687ull;
    in.addrType = NetworkJoinPack::IPV6;
    in.hubPortNo = 0xFFFE;
    uint8_t a[16];
    for (int i = 0; i < 16; ++i) a[i] = static_cast<uint8_t>(0xF0 + i);
    in.addrValue = ByteArray<32>(a, 16);
    NetworkJoinPack out = roundTrip(in);
    EXPECT_EQ(out.duid.str(), in.duid.str());
    EXPECT_EQ(out.nname.str(), in.nname.str());
    EXPECT_EQ(out.domain.str(), in.domain.str());
    EXPECT_EQ(out.generalFlags, in.generalFlags);
    EXPECT_EQ(out.clientRand, in.clientRand);
    EXPECT_EQ(out.addrType, in.addrType);
    EXPECT_EQ(out.hubPortNo, in.hubPortNo);
    EXPECT_TRUE(out.addrValue == in.addrValue);
}

TEST(VeltoRoundTrip, JoinAccepted) {
    JoinAcceptedPack in;
    in.duid = "dev";
    in.nodeId = 0xFFFF;
    in.flags = JoinAcceptedPack::StartUsingEncryption;
    in.svrRand = 0x8000000000000001ull;
    in.encAlg = SIMPLE_XOR_TYPE;
    uint8_t k[32];
    for (int i = 0; i < 32; ++i) k[i] = static_cast<uint8_t>(255 - i);
    in.sessionKey = ByteArray<32>(k, 32);
    JoinAcceptedPack out = roundTrip(in);
    EXPECT_EQ(out.duid.str(), in.duid.str());
    EXPECT_EQ(out.nodeId, in.nodeId);
    EXPECT_EQ(out.flags, in.flags);
    EXPECT_EQ(out.svrRand, in.svrRand);
    EXPECT_EQ(out.encAlg, in.encAlg);
    EXPECT_TRUE(out.sessionKey == in.sessionKey);
}

TEST(VeltoRoundTrip, ConfigSummary) {
    ConfigSummaryPack in;
    in.duid = "dev";
    in.noOfObjects = 5;
    in.maxNoOfObjects = 250;
    in.maxPacketSize = 400;
    in.maxMessageSize = 0xFFFFFFF0u;
    in.maxNoOfDirectUsers = 0x1234;
    in.random = 0x0123456789ABCDEFull;
    ConfigSummaryPack out = roundTrip(in);
    EXPECT_EQ(out.duid.str(), in.duid.str());
    EXPECT_EQ(out.noOfObjects, in.noOfObjects);
    EXPECT_EQ(out.maxNoOfObjects, in.maxNoOfObjects);
    EXPECT_EQ(out.maxPacketSize, in.maxPacketSize);
    EXPECT_EQ(out.maxMessageSize, in.maxMessageSize);
    EXPECT_EQ(out.maxNoOfDirectUsers, in.maxNoOfDirectUsers);
    EXPECT_EQ(out.random, in.random);
}

TEST(VeltoRoundTrip, GetObjectInfo) {
    GetObjectInfoPack in;
    in.objectNo = 200;
    EXPECT_EQ(roundTrip(in).objectNo, 200);
}

TEST(VeltoRoundTrip, ObjectInfoKeepsEveryFieldIncludingTheLongParameter) {
    ObjectInfoPack in;
    in.objectNo = 9;
    in.groupNo = 8;
    in.ifaceType = ObjectInfoPack::CLNT_HTTPS;
    in.name = "thermostat";
    in.interface = "org.example.temp";
    in.nParam1 = 0x80000001u;
    in.nParam2 = 0x7FFFFFFFu;
    in.sParam1 = "p1";
    in.sParam2 = "p2";
    in.lnParam = 0xFEDCBA9876543210ull;
    ObjectInfoPack out = roundTrip(in);
    EXPECT_EQ(out.objectNo, in.objectNo);
    EXPECT_EQ(out.groupNo, in.groupNo);
    EXPECT_EQ(out.ifaceType, in.ifaceType);
    EXPECT_EQ(out.name.str(), in.name.str());
    EXPECT_EQ(out.interface.str(), in.interface.str());
    EXPECT_EQ(out.nParam1, in.nParam1);
    EXPECT_EQ(out.nParam2, in.nParam2);
    EXPECT_EQ(out.sParam1.str(), in.sParam1.str());
    EXPECT_EQ(out.sParam2.str(), in.sParam2.str());
    EXPECT_EQ(out.lnParam, in.lnParam);
}

TEST(VeltoRoundTrip, ConfigurationComplete) {
    ConfigurationCompletePack in;
    in.serverTimestamp = 1700000000123ull;
    in.dev2HubSequence = 0xAABBCCDDu;
    in.hub2DevSequence = 3;
    ConfigurationCompletePack out = roundTrip(in);
    EXPECT_EQ(out.serverTimestamp, in.serverTimestamp);
    EXPECT_EQ(out.dev2HubSequence, in.dev2HubSequence);
    EXPECT_EQ(out.hub2DevSequence, in.hub2DevSequence);
}

TEST(VeltoRoundTrip, PingPong) {
    PingPongPack in;
    in.pingOrPong = PingPongPack::PONG;
    in.replyKey = 0x1111222233334444ull;
    in.random = 0x5555666677778888ull;
    PingPongPack out = roundTrip(in);
    EXPECT_EQ(out.pingOrPong, in.pingOrPong);
    EXPECT_EQ(out.replyKey, in.replyKey);
    EXPECT_EQ(out.random, in.random);
}

TEST(VeltoRoundTrip, MessageCarrier) {
    MessageCarrierPack in;
    in.msgCat = NOTIFICATION_MSGCAT;
    in.fromDeviceId = 1001;
    in.fromObjectNo = 2;
    in.msgId = 0xABCD;
    in.toDeviceId = 1002;
    in.toObjectNo = 4;
    in.msgNo = 0x01020304;
    in.packetStart = 326;
    in.msgSize = 1000;
    in.commands = MessageCarrierPack::REQUIRE_ACK;
    in.checksum = 0x99887766u;
    in.payload.setSize(100);
    for (size_t i = 0; i < 100; ++i) in.payload[i] = static_cast<uint8_t>(i * 3);
    MessageCarrierPack out = roundTrip(in);
    EXPECT_EQ(out.msgCat, in.msgCat);
    EXPECT_EQ(out.fromDeviceId, in.fromDeviceId);
    EXPECT_EQ(out.fromObjectNo, in.fromObjectNo);
    EXPECT_EQ(out.msgId, in.msgId);
    EXPECT_EQ(out.toDeviceId, in.toDeviceId);
    EXPECT_EQ(out.toObjectNo, in.toObjectNo);
    EXPECT_EQ(out.msgNo, in.msgNo);
    EXPECT_EQ(out.packetStart, in.packetStart);
    EXPECT_EQ(out.msgSize, in.msgSize);
    EXPECT_EQ(out.commands, in.commands);
    EXPECT_EQ(out.checksum, in.checksum);
    EXPECT_TRUE(out.payload == in.payload);
}

TEST(VeltoRoundTrip, MessageCarrierACK) {
    MessageCarrierACKPack in;
    in.msgCat = DIRECT_MSGCAT;
    in.fromDeviceId = 1001;
    in.fromObjectNo = 2;
    in.msgId = 0xABCD;
    in.toDeviceId = 1002;
    in.toObjectNo = 4;
    in.msgNo = 0x01020304;
    in.lastSeqNo = 652;
    MessageCarrierACKPack out = roundTrip(in);
    EXPECT_EQ(out.msgCat, in.msgCat);
    EXPECT_EQ(out.fromDeviceId, in.fromDeviceId);
    EXPECT_EQ(out.fromObjectNo, in.fromObjectNo);
    EXPECT_EQ(out.msgId, in.msgId);
    EXPECT_EQ(out.toDeviceId, in.toDeviceId);
    EXPECT_EQ(out.toObjectNo, in.toObjectNo);
    EXPECT_EQ(out.msgNo, in.msgNo);
    EXPECT_EQ(out.lastSeqNo, in.lastSeqNo);
}

TEST(VeltoRoundTrip, NotificationSubscription) {
    NotificationSubscriptionPack in;
    in.nodeId = 1003;
    in.objectNo = 6;
    in.eventId = 0x0F0E;
    in.subscribe = 1;
    NotificationSubscriptionPack out = roundTrip(in);
    EXPECT_EQ(out.nodeId, in.nodeId);
    EXPECT_EQ(out.objectNo, in.objectNo);
    EXPECT_EQ(out.eventId, in.eventId);
    EXPECT_EQ(out.subscribe, in.subscribe);
}

// ---- the error pack's reader ----

TEST(VeltoMessageError, ReadsBackItsTextOnlyWhenToObjectNoIsZero) {
    MessageErrorPack in;
    in.errorCode = MessageErrorPack::UNKNOWN_MESSAGE_ERROR;
    in.category = DIRECT_MSGCAT;
    in.fromNodeId = 1000;
    in.fromObjectNo = 1;
    in.msgId = 0x0203;
    in.toNodeId = 1001;
    in.toObjectNo = 0;
    in.optErorMsg = "abc";
    MessageErrorPack out = roundTrip(in);
    EXPECT_EQ(out.errorCode, in.errorCode);
    EXPECT_EQ(out.category, in.category);
    EXPECT_EQ(out.fromNodeId, in.fromNodeId);
    EXPECT_EQ(out.fromObjectNo, in.fromObjectNo);
    EXPECT_EQ(out.msgId, in.msgId);
    EXPECT_EQ(out.toNodeId, in.toNodeId);
    EXPECT_EQ(out.optErorMsg.str(), "abc");
    EXPECT_EQ(out.toObjectNo, 0);  // never read
}

TEST(VeltoMessageError, NonZeroToObjectNoFailsWhenTheTextIsLast) {
    MessageErrorPack in;
    in.toObjectNo = 5;
    in.optErorMsg = "abc";
    std::vector<uint8_t> wire = wireOf(in);
    MessageErrorPack out;
    EXPECT_EQ(decode(wire, out), -1);

    // With one more byte after it, the second text read takes that byte instead.
    wire.push_back(0);
    MessageErrorPack out2;
    out2.toObjectNo = 77;
    EXPECT_EQ(decode(wire, out2), static_cast<int>(wire.size()));
    EXPECT_EQ(out2.optErorMsg.str(), "");
    EXPECT_EQ(out2.toObjectNo, 77);
}
