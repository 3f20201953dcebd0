// The packet envelope and the pack catalogue: exact wire bytes of every pack,
// round trips under each signature type, refusal of truncated datagrams, and the
// kept oddities of the format. Every decode reads from an exactly sized heap copy.
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

// The common header: hub 17, device 1000, packet 5, unsigned, XOR transport.
std::string header(uint8_t id) { return toHex(&id, 1) + " 11 03e8 00000005 00 01 "; }

typedef std::function<std::unique_ptr<VeltoPacket>()> Maker;

template <typename P>
Maker filled(std::function<void(P&)> fill) {
    return [fill] {
        std::unique_ptr<P> p(new P);
        fill(*p);
        p->hubId = 17;
        p->devId = 1000;
        p->packetNo = 5;
        p->encType = SIMPLE_XOR_TYPE;
        return std::unique_ptr<VeltoPacket>(std::move(p));
    };
}

template <typename P>
std::unique_ptr<VeltoPacket> fresh() {
    return std::unique_ptr<VeltoPacket>(new P);
}

struct PackCase {
    const char* name;
    Maker make;
    std::unique_ptr<VeltoPacket> (*fresh)();
    std::string hex;     // after the header
    size_t lastTextLen;  // characters of a text read last; 0 if the pack ends otherwise
};

std::vector<PackCase> packCases() {
    return {
        {"NewBornDevice", filled<NewBornDevicePack>([](NewBornDevicePack& p) {
             p.duid = "d1"; p.specs = "s"; p.intVer = 7; p.prevn = "n"; p.prevdom = "pd";
         }), fresh<NewBornDevicePack>, header(1) + "643100 7300 07 6e00 706400", 2},
        {"AdoptionOffer", filled<AdoptionOfferPack>([](AdoptionOfferPack& p) {
             p.offer = 1; p.svrNodeId = 17; p.duid = "d1"; p.nname = "nn"; p.domain = "D";
         }), fresh<AdoptionOfferPack>, header(2) + "01 11 643100 6e6e00 4400", 1},
        {"NetworkJoin", filled<NetworkJoinPack>([](NetworkJoinPack& p) {
             p.duid = "d"; p.nname = "n"; p.domain = "D";
             p.generalFlags = NetworkJoinPack::HaveDirectInterface | NetworkJoinPack::HaveConfigSummary;
             p.clientRand = 0x0102030405060708ull; p.addrType = NetworkJoinPack::IPV4; p.hubPortNo = 1881;
             const uint8_t addr[4] = {192, 168, 1, 2};
             p.addrValue = ByteArray<32>(addr, 4);
         }), fresh<NetworkJoinPack>, header(3) + "6400 6e00 4400 09 0102030405060708 01 0759 04c0a80102", 0},
        {"JoinAccepted", filled<JoinAcceptedPack>([](JoinAcceptedPack& p) {
             p.duid = "d"; p.nodeId = 1000;
             p.flags = JoinAcceptedPack::ConfigSummaryRequest | JoinAcceptedPack::StartUsingEncryption;
             p.svrRand = 0xA1A2A3A4A5A6A7A8ull; p.encAlg = SIMPLE_XOR_TYPE;
             const uint8_t key[3] = {1, 2, 3};
             p.sessionKey = ByteArray<32>(key, 3);
         }), fresh<JoinAcceptedPack>, header(4) + "6400 03e8 18 a1a2a3a4a5a6a7a8 01 03010203", 0},
        {"ConfigSummary", filled<ConfigSummaryPack>([](ConfigSummaryPack& p) {
             p.duid = "d"; p.noOfObjects = 3; p.maxNoOfObjects = 8; p.maxPacketSize = 400;
             p.maxMessageSize = 0x10000; p.maxNoOfDirectUsers = 4; p.random = 0x1122334455667788ull;
         }), fresh<ConfigSummaryPack>, header(10) + "6400 03 08 0190 00010000 0004 1122334455667788", 0},
        {"GetObjectInfo", filled<GetObjectInfoPack>([](GetObjectInfoPack& p) { p.objectNo = 2; }),
         fresh<GetObjectInfoPack>, header(15) + "02", 0},
        {"ObjectInfo", filled<ObjectInfoPack>([](ObjectInfoPack& p) {
             p.objectNo = 1; p.groupNo = 2; p.ifaceType = ObjectInfoPack::UNICAST_UDP; p.name = "a";
             p.interface = "b"; p.nParam1 = 0x10; p.nParam2 = 0x20; p.sParam1 = "c";
             p.lnParam = 0x0000000100000002ull;  // the long parameter is kept too
         }), fresh<ObjectInfoPack>, header(16) + "01 02 0b 6100 6200 00000010 00000020 6300 00 0000000100000002", 0},
        {"ConfigurationComplete", filled<ConfigurationCompletePack>([](ConfigurationCompletePack& p) {
             p.serverTimestamp = 0x0000018B12345678ull; p.dev2HubSequence = 7; p.hub2DevSequence = 9;
         }), fresh<ConfigurationCompletePack>, header(19) + "0000018b12345678 00000007 00000009", 0},
        {"PingPong", filled<PingPongPack>([](PingPongPack& p) {
             p.pingOrPong = PingPongPack::PONG; p.replyKey = 10; p.random = ~0ull;
         }), fresh<PingPongPack>, header(20) + "01 000000000000000a ffffffffffffffff", 0},
        {"MessageCarrier", filled<MessageCarrierPack>([](MessageCarrierPack& p) {
             p.msgCat = DIRECT_MSGCAT; p.fromDeviceId = 1000; p.fromObjectNo = 1; p.msgId = 0x0102;
             p.toDeviceId = 1001; p.toObjectNo = 3; p.msgNo = 0x10; p.packetStart = 0; p.msgSize = 3;
             p.commands = MessageCarrierPack::MSG_START | MessageCarrierPack::MSG_STOP | MessageCarrierPack::REQUIRE_ACK;
             p.checksum = 6;
             const uint8_t body[3] = {1, 2, 3};
             p.payload = ByteArray<326>(body, 3);
         }), fresh<MessageCarrierPack>,
         header(31) + "02 03e8 01 0102 03e9 03 00000010 00000000 00000003 07 00000006 03010203", 0},
        {"MessageCarrierACK", filled<MessageCarrierACKPack>([](MessageCarrierACKPack& p) {
             p.msgCat = NOTIFICATION_MSGCAT; p.fromDeviceId = 1000; p.fromObjectNo = 1; p.msgId = 0x0203;
             p.toDeviceId = 1001; p.toObjectNo = 2; p.msgNo = 0x11; p.lastSeqNo = 0x12;
         }), fresh<MessageCarrierACKPack>, header(32) + "01 03e8 01 0203 03e9 02 00000011 00000012", 0},
        {"NotificationSubscription", filled<NotificationSubscriptionPack>([](NotificationSubscriptionPack& p) {
             p.nodeId = 1002; p.objectNo = 4; p.eventId = 0x0506; p.subscribe = 1;
         }), fresh<NotificationSubscriptionPack>, header(33) + "03ea 04 0506 01", 0},
        // The error pack's text is read back only when toObjectNo is 0.
        {"MessageError", filled<MessageErrorPack>([](MessageErrorPack& p) {
             p.errorCode = MessageErrorPack::PERMISSION_DENIED; p.category = DIRECT_MSGCAT; p.fromNodeId = 1000;
             p.fromObjectNo = 1; p.msgId = 0x0102; p.toNodeId = 1001; p.toObjectNo = 0; p.optErorMsg = "no";
         }), fresh<MessageErrorPack>, header(34) + "0000000a 02 03e8 01 0102 03e9 00 6e6f00", 2},
    };
}

}  // namespace

// Each pack byte for byte (header, then its fields in order, big-endian). Under
// every signature type the datagram decodes (HMAC-SHA1 verified), encodes back
// to the same bytes, and every prefix is refused, except that a text read last
// accepts a cut text (a text read stops at the count, it does not need its NUL).
TEST(VeltoPacks, LayoutRoundTripAndEveryPrefixRefused) {
    for (const PackCase& c : packCases()) {
        SCOPED_TRACE(c.name);
        std::unique_ptr<VeltoPacket> plain = c.make();
        EXPECT_EQ(toHex(wireOf(*plain)), toHex(fromHex(c.hex)));
        for (uint8_t sigType : {NO_SIGNATURE_TYPE, HMAC_SHA1_TYPE, HMAC_SHA256_TYPE}) {
            SCOPED_TRACE(int(sigType));
            std::unique_ptr<VeltoPacket> p = c.make();
            p->signature.setKey(sigType, KEY, sizeof(KEY));
            std::vector<uint8_t> wire = wireOf(*p);
            ASSERT_FALSE(wire.empty());
            std::unique_ptr<VeltoPacket> whole = c.fresh();
            whole->signature.setKey(NO_SIGNATURE_TYPE, KEY, sizeof(KEY));
            EXPECT_EQ(decode(wire, *whole, true), static_cast<int>(wire.size()));
            EXPECT_EQ(whole->signature.verified(), sigType != HMAC_SHA256_TYPE);  // kept: type 2 never verifies
            whole->signature.setKey(sigType, KEY, sizeof(KEY));
            EXPECT_EQ(toHex(wireOf(*whole)), toHex(wire));

            const size_t lastTextStart = c.lastTextLen ? wire.size() - (c.lastTextLen + 1) : wire.size();
            for (size_t k = 0; k < wire.size(); ++k) {
                std::vector<uint8_t> part(wire.begin(), wire.begin() + k);
                std::unique_ptr<VeltoPacket> q = c.fresh();
                EXPECT_EQ(decode(part, *q, true), k <= lastTextStart ? -1 : static_cast<int>(k)) << "prefix " << k;
            }
        }
    }
}

// kept: with toObjectNo not 0 the error pack reads a second text instead of the
// number, so a datagram ending in its text fails.
TEST(VeltoMessageError, NonZeroToObjectNoFailsWhenTheTextIsLast) {
    MessageErrorPack in;
    in.toObjectNo = 5;
    in.optErorMsg = "abc";
    std::vector<uint8_t> wire = wireOf(in);
    MessageErrorPack out;
    EXPECT_EQ(decode(wire, out), -1);
    wire.push_back(0);
    MessageErrorPack out2;
    out2.toObjectNo = 77;
    EXPECT_EQ(decode(wire, out2), static_cast<int>(wire.size()));
    EXPECT_EQ(out2.optErorMsg.str(), "");
    EXPECT_EQ(out2.toObjectNo, 77);  // never read
}
