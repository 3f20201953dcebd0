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

// The header every layout test uses, in this order: hub 17, device 1000,
// packet 5, unsigned, XOR transport.
std::string header(uint8_t id) { return toHex(&id, 1) + " 11 03e8 00000005 00 01 "; }

void setHeader(VeltoPacket& p) {
    p.hubId = 17;
    p.devId = 1000;
    p.packetNo = 5;
    p.encType = SIMPLE_XOR_TYPE;
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
        EXPECT_EQ(toHex(wire.data(), 8), "0000000000000000");  // id, hub, device, packet number: all 0 by default
        VeltoPacket back;
        EXPECT_EQ(decode(wire, back), static_cast<int>(c.size));
        EXPECT_EQ(back.signature.signatureType(), c.type);
    }
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

namespace {

// A pack of type P filled in by `fill`, as a VeltoPacket.
template <typename P>
std::function<std::unique_ptr<VeltoPacket>()> filled(std::function<void(P&)> fill) {
    return [fill] {
        std::unique_ptr<P> p(new P);
        fill(*p);
        return std::unique_ptr<VeltoPacket>(std::move(p));
    };
}

template <typename P>
std::unique_ptr<VeltoPacket> freshPack() {
    return std::unique_ptr<VeltoPacket>(new P);
}

struct LayoutCase {
    const char* name;
    std::function<std::unique_ptr<VeltoPacket>()> make;
    std::string hex;  // after the header
};

}  // namespace

// Each pack with the common header, its fields in order, big-endian; the pack's
// own id leads.
TEST(VeltoPackLayout, EveryPackByteForByte) {
    const LayoutCase cases[] = {
        {"NewBornDevice", filled<NewBornDevicePack>([](NewBornDevicePack& p) {
             p.duid = "d1";
             p.specs = "s";
             p.intVer = 7;
             p.prevn = "n";
         }),
         header(1) + "643100 7300 07 6e00 00"},
        {"AdoptionOffer", filled<AdoptionOfferPack>([](AdoptionOfferPack& p) {
             p.offer = 1;
             p.svrNodeId = 17;
             p.duid = "d1";
             p.nname = "nn";
             p.domain = "D";
         }),
         header(2) + "01 11 643100 6e6e00 4400"},
        {"NetworkJoin", filled<NetworkJoinPack>([](NetworkJoinPack& p) {
             p.duid = "d";
             p.nname = "n";
             p.domain = "D";
             p.generalFlags = NetworkJoinPack::HaveDirectInterface | NetworkJoinPack::HaveConfigSummary;
             p.clientRand = 0x0102030405060708ull;
             p.addrType = NetworkJoinPack::IPV4;
             p.hubPortNo = 1881;
             const uint8_t addr[4] = {192, 168, 1, 2};
             p.addrValue = ByteArray<32>(addr, 4);
         }),
         header(3) + "6400 6e00 4400 09 0102030405060708 01 0759 04c0a80102"},
        {"JoinAccepted", filled<JoinAcceptedPack>([](JoinAcceptedPack& p) {
             p.duid = "d";
             p.nodeId = 1000;
             p.flags = JoinAcceptedPack::ConfigSummaryRequest | JoinAcceptedPack::StartUsingEncryption;
             p.svrRand = 0xA1A2A3A4A5A6A7A8ull;
             p.encAlg = SIMPLE_XOR_TYPE;
             const uint8_t key[3] = {1, 2, 3};
             p.sessionKey = ByteArray<32>(key, 3);
         }),
         header(4) + "6400 03e8 18 a1a2a3a4a5a6a7a8 01 03010203"},
        {"ConfigSummary", filled<ConfigSummaryPack>([](ConfigSummaryPack& p) {
             p.duid = "d";
             p.noOfObjects = 3;
             p.maxNoOfObjects = 8;
             p.maxPacketSize = 400;
             p.maxMessageSize = 0x10000;
             p.maxNoOfDirectUsers = 4;
             p.random = 0x1122334455667788ull;
         }),
         header(10) + "6400 03 08 0190 00010000 0004 1122334455667788"},
        {"GetObjectInfo", filled<GetObjectInfoPack>([](GetObjectInfoPack& p) { p.objectNo = 2; }), header(15) + "02"},
        {"ObjectInfo", filled<ObjectInfoPack>([](ObjectInfoPack& p) {
             p.objectNo = 1;
             p.groupNo = 2;
             p.ifaceType = ObjectInfoPack::UNICAST_UDP;
             p.name = "a";
             p.interface = "b";
             p.nParam1 = 0x10;
             p.nParam2 = 0x20;
             p.sParam1 = "c";
             p.lnParam = 0x0000000100000002ull;
         }),
         header(16) + "01 02 0b 6100 6200 00000010 00000020 6300 00 0000000100000002"},
        {"ConfigurationComplete", filled<ConfigurationCompletePack>([](ConfigurationCompletePack& p) {
             p.serverTimestamp = 0x0000018B12345678ull;
             p.dev2HubSequence = 7;
             p.hub2DevSequence = 9;
         }),
         header(19) + "0000018b12345678 00000007 00000009"},
        {"PingPong", filled<PingPongPack>([](PingPongPack& p) {
             p.pingOrPong = PingPongPack::PONG;
             p.replyKey = 10;
             p.random = ~0ull;
         }),
         header(20) + "01 000000000000000a ffffffffffffffff"},
        {"MessageCarrier", filled<MessageCarrierPack>([](MessageCarrierPack& p) {
             p.msgCat = DIRECT_MSGCAT;
             p.fromDeviceId = 1000;
             p.fromObjectNo = 1;
             p.msgId = 0x0102;
             p.toDeviceId = 1001;
             p.toObjectNo = 3;
             p.msgNo = 0x10;
             p.packetStart = 0;
             p.msgSize = 3;
             p.commands =
                 MessageCarrierPack::MSG_START | MessageCarrierPack::MSG_STOP | MessageCarrierPack::REQUIRE_ACK;
             p.checksum = 6;
             const uint8_t body[3] = {1, 2, 3};
             p.payload = ByteArray<326>(body, 3);
         }),
         header(31) + "02 03e8 01 0102 03e9 03 00000010 00000000 00000003 07 00000006 03010203"},
        {"MessageCarrierACK", filled<MessageCarrierACKPack>([](MessageCarrierACKPack& p) {
             p.msgCat = NOTIFICATION_MSGCAT;
             p.fromDeviceId = 1000;
             p.fromObjectNo = 1;
             p.msgId = 0x0203;
             p.toDeviceId = 1001;
             p.toObjectNo = 2;
             p.msgNo = 0x11;
             p.lastSeqNo = 0x12;
         }),
         header(32) + "01 03e8 01 0203 03e9 02 00000011 00000012"},
        {"NotificationSubscription", filled<NotificationSubscriptionPack>([](NotificationSubscriptionPack& p) {
             p.nodeId = 1002;
             p.objectNo = 4;
             p.eventId = 0x0506;
             p.subscribe = 1;
         }),
         header(33) + "03ea 04 0506 01"},
        {"MessageError", filled<MessageErrorPack>([](MessageErrorPack& p) {
             p.errorCode = MessageErrorPack::PERMISSION_DENIED;
             p.category = DIRECT_MSGCAT;
             p.fromNodeId = 1000;
             p.fromObjectNo = 1;
             p.msgId = 0x0102;
             p.toNodeId = 1001;
             p.toObjectNo = 3;
             p.optErorMsg = "no";
         }),
         header(34) + "0000000a 02 03e8 01 0102 03e9 03 6e6f00"},
    };
    for (const LayoutCase& c : cases) {
        SCOPED_TRACE(c.name);
        std::unique_ptr<VeltoPacket> p = c.make();
        setHeader(*p);
        EXPECT_EQ(toHex(wireOf(*p)), toHex(fromHex(c.hex)));
    }
}

// ---- every pack: round trip with each signature, truncated datagrams ----

namespace {

struct PackCase {
    const char* name;
    std::function<std::unique_ptr<VeltoPacket>()> make;   // filled in, every field off its default
    std::function<std::unique_ptr<VeltoPacket>()> fresh;  // empty, to decode into
    size_t lastTextLen;  // characters of a text the reader takes last; 0 if it ends otherwise
};

std::vector<PackCase> filledPacks() {
    std::vector<PackCase> v;
    v.push_back({"NewBornDevice", filled<NewBornDevicePack>([](NewBornDevicePack& p) {
                     p.duid = "0123456789abcdef0123456789abcdef";
                     p.specs = std::string(128, 's');
                     p.intVer = 0xFE;
                     p.prevn = "prev-node";
                     p.prevdom = "prev-domain";
                 }),
                 freshPack<NewBornDevicePack>, 11});
    v.push_back({"AdoptionOffer", filled<AdoptionOfferPack>([](AdoptionOfferPack& p) {
                     p.offer = 3;
                     p.svrNodeId = 17;
                     p.duid = "dev";
                     p.nname = "kitchen";
                     p.domain = "TestDomain_KVZ1";
                 }),
                 freshPack<AdoptionOfferPack>, 15});
    v.push_back({"NetworkJoin", filled<NetworkJoinPack>([](NetworkJoinPack& p) {
                     p.duid = "dev";
                     p.nname = "node";
                     p.domain = "dom";
                     p.generalFlags = 0x1F;
                     p.clientRand = 0xF0E1D2C3B4A59687ull;
                     p.addrType = NetworkJoinPack::IPV6;
                     p.hubPortNo = 0xFFFE;
                     uint8_t a[16];
                     for (int i = 0; i < 16; ++i) a[i] = static_cast<uint8_t>(0xF0 + i);
                     p.addrValue = ByteArray<32>(a, 16);
                 }),
                 freshPack<NetworkJoinPack>, 0});
    v.push_back({"JoinAccepted", filled<JoinAcceptedPack>([](JoinAcceptedPack& p) {
                     p.duid = "dev";
                     p.nodeId = 0xFFFF;
                     p.flags = JoinAcceptedPack::StartUsingEncryption;
                     p.svrRand = 0x8000000000000001ull;
                     p.encAlg = SIMPLE_XOR_TYPE;
                     uint8_t k[32];
                     for (int i = 0; i < 32; ++i) k[i] = static_cast<uint8_t>(255 - i);
                     p.sessionKey = ByteArray<32>(k, 32);
                 }),
                 freshPack<JoinAcceptedPack>, 0});
    v.push_back({"ConfigSummary", filled<ConfigSummaryPack>([](ConfigSummaryPack& p) {
                     p.duid = "dev";
                     p.noOfObjects = 5;
                     p.maxNoOfObjects = 250;
                     p.maxPacketSize = 400;
                     p.maxMessageSize = 0xFFFFFFF0u;
                     p.maxNoOfDirectUsers = 0x1234;
                     p.random = 0x0123456789ABCDEFull;
                 }),
                 freshPack<ConfigSummaryPack>, 0});
    v.push_back({"GetObjectInfo", filled<GetObjectInfoPack>([](GetObjectInfoPack& p) { p.objectNo = 200; }),
                 freshPack<GetObjectInfoPack>, 0});
    v.push_back({"ObjectInfo", filled<ObjectInfoPack>([](ObjectInfoPack& p) {
                     p.objectNo = 9;
                     p.groupNo = 8;
                     p.ifaceType = ObjectInfoPack::CLNT_HTTPS;
                     p.name = "thermostat";
                     p.interface = "org.example.temp";
                     p.nParam1 = 0x80000001u;
                     p.nParam2 = 0x7FFFFFFFu;
                     p.sParam1 = "p1";
                     p.sParam2 = "p2";
                     p.lnParam = 0xFEDCBA9876543210ull;  // the long parameter is kept too
                 }),
                 freshPack<ObjectInfoPack>, 0});
    v.push_back({"ConfigurationComplete", filled<ConfigurationCompletePack>([](ConfigurationCompletePack& p) {
                     p.serverTimestamp = 1700000000123ull;
                     p.dev2HubSequence = 0xAABBCCDDu;
                     p.hub2DevSequence = 3;
                 }),
                 freshPack<ConfigurationCompletePack>, 0});
    v.push_back({"PingPong", filled<PingPongPack>([](PingPongPack& p) {
                     p.pingOrPong = PingPongPack::PONG;
                     p.replyKey = 0x1111222233334444ull;
                     p.random = 0x5555666677778888ull;
                 }),
                 freshPack<PingPongPack>, 0});
    v.push_back({"MessageCarrier", filled<MessageCarrierPack>([](MessageCarrierPack& p) {
                     p.msgCat = NOTIFICATION_MSGCAT;
                     p.fromDeviceId = 1001;
                     p.fromObjectNo = 2;
                     p.msgId = 0xABCD;
                     p.toDeviceId = 1002;
                     p.toObjectNo = 4;
                     p.msgNo = 0x01020304;
                     p.packetStart = 326;
                     p.msgSize = 1000;
                     p.commands = MessageCarrierPack::REQUIRE_ACK;
                     p.checksum = 0x99887766u;
                     p.payload.setSize(200);  // a two-byte size
                     for (size_t i = 0; i < 200; ++i) p.payload[i] = static_cast<uint8_t>(i * 3);
                 }),
                 freshPack<MessageCarrierPack>, 0});
    v.push_back({"MessageCarrierACK", filled<MessageCarrierACKPack>([](MessageCarrierACKPack& p) {
                     p.msgCat = DIRECT_MSGCAT;
                     p.fromDeviceId = 1001;
                     p.fromObjectNo = 2;
                     p.msgId = 0xABCD;
                     p.toDeviceId = 1002;
                     p.toObjectNo = 4;
                     p.msgNo = 0x01020304;
                     p.lastSeqNo = 652;
                 }),
                 freshPack<MessageCarrierACKPack>, 0});
    v.push_back({"NotificationSubscription", filled<NotificationSubscriptionPack>([](NotificationSubscriptionPack& p) {
                     p.nodeId = 1003;
                     p.objectNo = 6;
                     p.eventId = 0x0F0E;
                     p.subscribe = 1;
                 }),
                 freshPack<NotificationSubscriptionPack>, 0});
    // The error pack's text is read back only when toObjectNo is 0.
    v.push_back({"MessageError", filled<MessageErrorPack>([](MessageErrorPack& p) {
                     p.errorCode = MessageErrorPack::UNKNOWN_MESSAGE_ERROR;
                     p.category = DIRECT_MSGCAT;
                     p.fromNodeId = 1000;
                     p.fromObjectNo = 1;
                     p.msgId = 0x0203;
                     p.toNodeId = 1001;
                     p.toObjectNo = 0;
                     p.optErorMsg = "abc";
                 }),
                 freshPack<MessageErrorPack>, 3});
    return v;
}

}  // namespace

// Under every signature type: the whole datagram decodes (HMAC-SHA1 verified
// with the key) and encodes back to the same bytes, so every field and the
// header came back. Every prefix is refused, except that a text read last
// accepts a cut text (a text read stops at the count, it does not require its NUL).
TEST(VeltoPacks, EveryPackRoundTripsAndEveryPrefixIsRefused) {
    for (const PackCase& c : filledPacks()) {
        for (uint8_t sigType : {NO_SIGNATURE_TYPE, HMAC_SHA1_TYPE, HMAC_SHA256_TYPE}) {
            SCOPED_TRACE(std::string(c.name) + " sig " + std::to_string(sigType));
            std::unique_ptr<VeltoPacket> p = c.make();
            p->hubId = 17;
            p->devId = 0xBEEF;
            p->packetNo = 0xDEADBEEF;
            p->encType = SIMPLE_XOR_TYPE;
            p->signature.setKey(sigType, KEY, sizeof(KEY));
            std::vector<uint8_t> wire = wireOf(*p);
            ASSERT_FALSE(wire.empty());
            std::unique_ptr<VeltoPacket> whole = c.fresh();
            whole->signature.setKey(NO_SIGNATURE_TYPE, KEY, sizeof(KEY));
            EXPECT_EQ(decode(wire, *whole, true), static_cast<int>(wire.size()));
            if (sigType == HMAC_SHA1_TYPE) {
                EXPECT_TRUE(whole->signature.verified());
            }
            EXPECT_EQ(whole->signature.signatureType(), sigType);
            whole->signature.setKey(sigType, KEY, sizeof(KEY));
            EXPECT_EQ(toHex(wireOf(*whole)), toHex(wire));

            const size_t lastTextStart = c.lastTextLen ? wire.size() - (c.lastTextLen + 1) : wire.size();
            for (size_t k = 0; k < wire.size(); ++k) {
                ExactBytes part(wire.data(), k);
                std::unique_ptr<VeltoPacket> q = c.fresh();
                int r = q->deserialize(part.data(), part.size(), true);
                EXPECT_EQ(r, k <= lastTextStart ? -1 : static_cast<int>(k)) << "prefix " << k;
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

// ---- the error pack's reader ----

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
    EXPECT_EQ(out2.toObjectNo, 77);  // never read
}
