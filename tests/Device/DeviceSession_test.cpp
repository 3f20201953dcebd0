// The device session against a fake hub: a socket on 127.0.0.1 driven by the
// test with the pack classes.
#include "Device/DeviceSession.h"

#include <gtest/gtest.h>

#include "tests/support/device_sim.h"

using namespace device;

namespace {

ByteArray<32> keyOf(size_t n, uint8_t seed) { return testsupport::keyBytes(n, seed, 11); }

std::vector<uint8_t> bytes(size_t n, uint8_t seed) {
    std::vector<uint8_t> d(n);
    for (size_t i = 0; i < n; ++i) d[i] = static_cast<uint8_t>(seed + 7 * i);
    return d;
}

// What the hub does: XOR the session key with the transport key, SHA-1 of
// (clientRand LE, main key, svrRand LE), computed by the test support
// independently of the library.
void hubEncrypt(JoinAcceptedPack& acc, uint64_t clientRand, const ByteArray<32>& mainKey,
                const ByteArray<32>& session) {
    uint8_t hash[20];
    testsupport::joinTransportKey(clientRand, mainKey.data(), mainKey.size(), acc.svrRand, hash);
    acc.encAlg = SIMPLE_XOR_TYPE;
    for (size_t i = 0; i < session.size(); ++i) acc.sessionKey[i] = session[i] ^ hash[i % 20];
    acc.sessionKey.setSize(session.size());
}

struct FakeHub {
    UdpSocket sock;
    SockAddress addr;
    SockAddress device;
    uint32_t packetNo = 0;
    ByteArray<32> sessionKey;  // checks the device's signed packs
    std::vector<uint8_t> skipped;  // ids of packs passed over while awaiting

    FakeHub() {
        sock.bind(SockAddress("127.0.0.1", 0), false);
        addr = SockAddress("127.0.0.1", testsupport::boundPort(sock));
    }

    // Waits for a pack with this id, polling s meanwhile when given.
    std::vector<uint8_t> await(uint8_t id, DeviceSession* s, int timeoutMs = 1500) {
        Timestamp end = currentTime() + timeoutMs;
        uint8_t buf[MAX_PACKET_SIZE];
        while (currentTime() < end) {
            if (s) s->poll(5);
            SockAddress from;
            int n = sock.recvWithTo(buf, sizeof(buf), &from, 5);
            if (n <= 0) continue;
            device = from;
            if (buf[0] == id) return std::vector<uint8_t>(buf, buf + n);
            skipped.push_back(buf[0]);
        }
        return {};
    }

    template <class P>
    bool expect(P& p, DeviceSession* s, int timeoutMs = 1500) {
        std::vector<uint8_t> raw = await(P::PACK_ID, s, timeoutMs);
        if (raw.empty()) return false;
        p.signature.setKey(HMAC_SHA1_TYPE, sessionKey.data(), sessionKey.size());
        return p.deserialize(raw.data(), raw.size(), true) > 0 && p.signature.verified();
    }

    bool send(VeltoPacket& p, uint8_t sigType = 0, const ByteArray<32>* key = nullptr) {
        p.hubId = 17;
        p.packetNo = packetNo++;
        if (sigType != 0 && key) p.signature.setKey(sigType, key->data(), key->size());
        uint8_t buf[MAX_PACKET_SIZE];
        int n = p.serialize(buf, sizeof(buf));
        return n > 0 && sock.sendTo(device, buf, static_cast<size_t>(n)) == n;
    }
};

DeviceConfig config(const FakeHub& hub) {
    DeviceConfig c;
    c.duid = "lamp-01";
    c.specs = "t1";
    c.discover = false;
    c.hub = hub.addr;
    c.objects = {DeviceObject{"light", "sw.1", 2, 0}, DeviceObject{"dimmer", "dim.1", 3, 11}};
    return c;
}

class DeviceSessionTest : public ::testing::Test {
protected:
    void make(DeviceConfig c, SessionTiming t = SessionTiming()) {
        session.reset(new DeviceSession(std::move(c), t));
        session->onDiagnostic([this](const std::string& l) { diags += l + "\n"; });
        session->onMessage([this](const IncomingMessage& m) { messages.push_back(m); });
        session->onError([this](const MessageError& e) { errors.push_back(e); });
        session->onDelivery([this](const DeliveryResult& r) { deliveries.push_back(r); });
    }

    // A session whose device holds mainKey.
    void makeKeyed(const ByteArray<32>& mainKey) {
        DeviceConfig c = config(hub);
        c.mainKey.assign(mainKey.data(), mainKey.data() + mainKey.size());
        make(c);
    }

    // Offer and acceptance signed with sigType under hubKey (the main key the
    // hub holds for the device). Returns the join pack the device sent.
    NetworkJoinPack joinUpTo(uint8_t sigType, const ByteArray<32>& hubKey, const ByteArray<32>& session) {
        NetworkJoinPack join;
        EXPECT_TRUE(this->session->start()) << this->session->lastError();
        NewBornDevicePack nb;
        EXPECT_TRUE(hub.expect(nb, this->session.get()));
        EXPECT_TRUE(nb.duid == std::string("lamp-01"));
        AdoptionOfferPack offer;
        offer.duid = nb.duid;
        offer.nname = "given-name";
        offer.domain = DEFAULT_DOMAIN;
        offer.svrNodeId = 17;
        hub.send(offer, sigType, &hubKey);
        EXPECT_TRUE(hub.expect(join, this->session.get()));
        JoinAcceptedPack acc;
        acc.duid = join.duid;
        acc.nodeId = 1000;
        acc.svrRand = 0x1122334455667788ULL;
        hubEncrypt(acc, join.clientRand, hubKey, session);
        hub.send(acc, sigType, &hubKey);
        return join;
    }

    // The configuration exchange after an accepted join; true when READY.
    bool configure(ConfigSummaryPack& cs, std::vector<ObjectInfoPack>& objs) {
        if (!hub.expect(cs, session.get())) return false;
        for (uint8_t i = 0; i < cs.noOfObjects; ++i) {
            GetObjectInfoPack g;
            g.objectNo = i;
            hub.send(g);
            ObjectInfoPack oi;
            if (!hub.expect(oi, session.get())) return false;
            objs.push_back(oi);
        }
        ConfigurationCompletePack cc;
        hub.send(cc);
        for (int i = 0; i < 40 && session->state() != DeviceSession::State::READY; ++i) session->poll(10);
        return session->state() == DeviceSession::State::READY;
    }

    bool joinFully(DeviceConfig c, SessionTiming t = SessionTiming()) {
        make(std::move(c), t);
        hub.sessionKey = keyOf(32, 50);
        ByteArray<32> zero;
        zero.setSize(20);
        joinUpTo(0, zero, hub.sessionKey);
        ConfigSummaryPack cs;
        std::vector<ObjectInfoPack> objs;
        return configure(cs, objs);
    }

    FakeHub hub;
    std::unique_ptr<DeviceSession> session;
    std::string diags;
    std::vector<IncomingMessage> messages;
    std::vector<MessageError> errors;
    std::vector<DeliveryResult> deliveries;
};

}  // namespace

TEST_F(DeviceSessionTest, JoinsRecoversTheSessionKeyAndDescribesItsObjects) {
    ByteArray<32> mainKey = keyOf(20, 90);
    makeKeyed(mainKey);
    hub.sessionKey = keyOf(32, 7);
    NetworkJoinPack join = joinUpTo(HMAC_SHA1_TYPE, mainKey, hub.sessionKey);
    EXPECT_TRUE(join.domain == std::string("TestDomain_KVZ1"));
    EXPECT_TRUE(join.nname == std::string("given-name")) << "takes the offered name";
    EXPECT_EQ(NetworkJoinPack::IPV4, join.addrType);
    ConfigSummaryPack cs;
    std::vector<ObjectInfoPack> objs;
    ASSERT_TRUE(configure(cs, objs)) << diags;
    EXPECT_EQ(1000, cs.devId);
    EXPECT_EQ(2, cs.noOfObjects);
    EXPECT_EQ(NO_SIGNATURE_TYPE, cs.signature.signatureType()) << "unsigned unless asked";
    ASSERT_EQ(2u, objs.size());
    EXPECT_TRUE(objs[1].name == std::string("dimmer"));
    EXPECT_TRUE(objs[1].interface == std::string("dim.1"));
    EXPECT_EQ(3, objs[1].groupNo);
    EXPECT_EQ(11, objs[1].ifaceType);
    EXPECT_TRUE(session->sessionKey() == hub.sessionKey);
    EXPECT_EQ(1000, session->nodeId());
    EXPECT_EQ("given-name", session->assignedName());
    EXPECT_TRUE(diags.empty()) << diags;
}

TEST_F(DeviceSessionTest, AnAcceptanceSignedWithAnotherKeyIsRefused) {
    ByteArray<32> mainKey = keyOf(16, 1);
    makeKeyed(mainKey);
    ASSERT_TRUE(session->start());
    NewBornDevicePack nb;
    ASSERT_TRUE(hub.expect(nb, session.get()));
    AdoptionOfferPack offer;
    offer.duid = nb.duid;
    offer.domain = DEFAULT_DOMAIN;
    hub.send(offer, HMAC_SHA1_TYPE, &mainKey);
    NetworkJoinPack join;
    ASSERT_TRUE(hub.expect(join, session.get()));
    JoinAcceptedPack acc;
    acc.duid = join.duid;
    acc.nodeId = 1000;
    hubEncrypt(acc, join.clientRand, mainKey, keyOf(32, 5));
    ByteArray<32> wrong = keyOf(16, 2);
    hub.send(acc, HMAC_SHA1_TYPE, &wrong);
    for (int i = 0; i < 10; ++i) session->poll(5);
    EXPECT_EQ(DeviceSession::State::JOINING, session->state());
    EXPECT_NE(std::string::npos, diags.find("does not verify")) << diags;
    hub.send(acc, HMAC_SHA1_TYPE, &mainKey);
    ConfigSummaryPack cs;
    EXPECT_TRUE(hub.expect(cs, session.get()));
    EXPECT_TRUE(session->sessionKey() == keyOf(32, 5));
}

TEST_F(DeviceSessionTest, TypeTwoSignaturesAreReportedAsNotCheckable) {
    ByteArray<32> mainKey = keyOf(20, 9);
    makeKeyed(mainKey);
    hub.sessionKey = keyOf(32, 8);
    joinUpTo(HMAC_SHA256_TYPE, mainKey, hub.sessionKey);
    ConfigSummaryPack cs;
    ASSERT_TRUE(hub.expect(cs, session.get())) << diags;
    EXPECT_NE(std::string::npos, diags.find("not checkable")) << diags;
}

TEST_F(DeviceSessionTest, SignsItsPacksWithTheSessionKeyWhenAsked) {
    DeviceConfig c = config(hub);
    c.sign = true;
    make(c);
    hub.sessionKey = keyOf(32, 21);
    ByteArray<32> zero;
    zero.setSize(20);
    joinUpTo(0, zero, hub.sessionKey);
    ConfigSummaryPack cs;
    std::vector<ObjectInfoPack> objs;
    ASSERT_TRUE(configure(cs, objs)) << diags;
    EXPECT_EQ(HMAC_SHA1_TYPE, cs.signature.signatureType());
    EXPECT_EQ(HMAC_SHA1_TYPE, objs[0].signature.signatureType());
    ASSERT_GE(session->sendDirect(1001, 0, 9, bytes(10, 1)), 1);
    MessageCarrierPack piece;
    EXPECT_TRUE(hub.expect(piece, session.get())) << "verified with the session key";
}

TEST_F(DeviceSessionTest, AnswersPingsPingsASilentHubAndGivesUpAtLast) {
    SessionTiming t;
    t.pingAfterMs = 150;
    t.lostAfterMs = 600;
    ASSERT_TRUE(joinFully(config(hub), t)) << diags;
    PingPongPack ping;
    ping.pingOrPong = PingPongPack::PING;
    ping.replyKey = 4242;
    hub.send(ping);
    PingPongPack pong;
    ASSERT_TRUE(hub.expect(pong, session.get()));
    EXPECT_EQ(PingPongPack::PONG, pong.pingOrPong);
    EXPECT_EQ(4242u, pong.replyKey);
    PingPongPack own;
    ASSERT_TRUE(hub.expect(own, session.get()));
    EXPECT_EQ(PingPongPack::PING, own.pingOrPong);
    for (int i = 0; i < 100 && session->state() != DeviceSession::State::LOST; ++i) session->poll(10);
    EXPECT_EQ(DeviceSession::State::LOST, session->state());
    EXPECT_EQ(-1, session->sendDirect(1001, 0, 1, bytes(3, 1)));
}

TEST_F(DeviceSessionTest, SendsLongMessagesInAcknowledgedPiecesAndResendsFromTheAck) {
    ASSERT_TRUE(joinFully(config(hub))) << diags;
    std::vector<uint8_t> msg = bytes(1000, 3);
    int64_t no = session->sendDirect(1001, 4, 77, msg, 1);
    ASSERT_GE(no, 1);
    std::vector<uint8_t> got(1000);
    std::vector<uint32_t> starts;
    MessageCarrierPack p;
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(hub.expect(p, session.get()));
        starts.push_back(p.packetStart);
        std::copy(p.payload.data(), p.payload.data() + p.payload.size(), got.begin() + p.packetStart);
    }
    EXPECT_EQ((std::vector<uint32_t>{0, 326, 652, 978}), starts);
    EXPECT_EQ(msg, got);
    EXPECT_EQ(DIRECT_MSGCAT, p.msgCat);
    EXPECT_EQ(1000, p.fromDeviceId);
    EXPECT_EQ(1, p.fromObjectNo);
    EXPECT_EQ(1001, p.toDeviceId);
    EXPECT_EQ(4, p.toObjectNo);
    EXPECT_EQ(77, p.msgId);
    EXPECT_EQ(1000u, p.msgSize);
    MessageCarrierACKPack ack;
    MsgSelector ms;
    ms = p;
    ms.copyTo(ack);
    ack.lastSeqNo = 326;
    hub.send(ack);
    starts.clear();
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(hub.expect(p, session.get()));
        starts.push_back(p.packetStart);
    }
    EXPECT_EQ((std::vector<uint32_t>{326, 652, 978}), starts);
    ack.lastSeqNo = 1000;
    hub.send(ack);
    EXPECT_TRUE(session->waitForDelivery(static_cast<MessageNo>(no), 1000)) << session->lastError();
    ASSERT_EQ(1u, deliveries.size());
    EXPECT_TRUE(deliveries[0].delivered);
}

TEST_F(DeviceSessionTest, GivesAMessageUpWhenNoAcknowledgementComes) {
    ASSERT_TRUE(joinFully(config(hub))) << diags;
    int64_t no = session->notify(0, 12, bytes(5, 1));
    ASSERT_GE(no, 1);
    MessageCarrierPack p;
    ASSERT_TRUE(hub.expect(p, session.get()));
    EXPECT_EQ(NOTIFICATION_MSGCAT, p.msgCat);
    EXPECT_EQ(12, p.msgId);
    EXPECT_FALSE(session->waitForDelivery(static_cast<MessageNo>(no), 8000));
    ASSERT_EQ(1u, deliveries.size());
    EXPECT_FALSE(deliveries[0].delivered);
}

TEST_F(DeviceSessionTest, ReassemblesTheHubsPiecesAndAcknowledgesAtTheEndOrAfterAGap) {
    ASSERT_TRUE(joinFully(config(hub))) << diags;
    std::vector<uint8_t> msg = bytes(800, 9);
    auto pieceAt = [&](uint32_t pos, MessageNo no) {
        MessageCarrierPack p;
        p.msgCat = DIRECT_MSGCAT;
        p.fromDeviceId = 1001;
        p.msgId = 5;
        p.toDeviceId = 1000;
        p.toObjectNo = 1;
        p.msgNo = no;
        p.msgSize = 800;
        for (uint8_t b : msg) p.checksum += b;
        p.packetStart = pos;
        p.payload = ByteArray<326>(msg.data() + pos, std::min<size_t>(326, 800 - pos));
        return p;
    };
    for (uint32_t pos : {0u, 326u, 652u}) {
        MessageCarrierPack p = pieceAt(pos, 1);
        hub.send(p);
    }
    MessageCarrierACKPack ack;
    ASSERT_TRUE(hub.expect(ack, session.get()));
    EXPECT_EQ(800u, ack.lastSeqNo);
    EXPECT_EQ(1u, ack.msgNo);
    EXPECT_EQ(1001, ack.fromDeviceId);
    for (int i = 0; i < 5; ++i) session->poll(5);
    ASSERT_EQ(1u, messages.size());
    EXPECT_EQ(msg, messages[0].data);
    EXPECT_EQ(1, messages[0].selector.toObjectNo);

    MessageCarrierPack first = pieceAt(0, 2), third = pieceAt(652, 2);
    hub.send(first);
    hub.send(third);
    ASSERT_TRUE(hub.expect(ack, session.get()));
    EXPECT_EQ(326u, ack.lastSeqNo) << "resume where the bytes stop";
    EXPECT_EQ(1u, messages.size());
}

TEST_F(DeviceSessionTest, ReportsErrorPacksAndRefusesWhatDoesNotBelong) {
    ASSERT_TRUE(joinFully(config(hub))) << diags;
    MessageErrorPack e;
    e.errorCode = MessageErrorPack::PERMISSION_DENIED;
    e.category = DIRECT_MSGCAT;
    e.fromNodeId = 1000;
    e.msgId = 3;
    e.toNodeId = 1001;
    e.toObjectNo = 3;
    e.optErorMsg = "denied";
    hub.send(e);
    NewBornDevicePack stray;
    hub.send(stray);
    MessageCarrierPack foreign;
    foreign.msgCat = DIRECT_MSGCAT;
    foreign.toDeviceId = 1234;
    foreign.msgSize = 1;
    foreign.payload.setSize(1);
    hub.send(foreign);
    UdpSocket other;
    ASSERT_TRUE(other.bind(SockAddress("127.0.0.1", 0), false));
    uint8_t buf[MAX_PACKET_SIZE];
    PingPongPack ping;
    int n = ping.serialize(buf, sizeof(buf));
    other.sendTo(hub.device, buf, static_cast<size_t>(n));
    uint8_t junk[3] = {31, 1, 2};
    hub.sock.sendTo(hub.device, junk, sizeof(junk));
    for (int i = 0; i < 20; ++i) session->poll(5);
    ASSERT_EQ(1u, errors.size());
    EXPECT_EQ(3, errors[0].toObjectNo);
    EXPECT_EQ("denied", errors[0].text);
    EXPECT_NE(std::string::npos, diags.find("unexpected pack 1")) << diags;
    EXPECT_NE(std::string::npos, diags.find("for node 1234")) << diags;
    EXPECT_NE(std::string::npos, diags.find("not the hub")) << diags;
    EXPECT_NE(std::string::npos, diags.find("too short")) << diags;
    EXPECT_TRUE(messages.empty());
    EXPECT_EQ(DeviceSession::State::READY, session->state());
}

TEST_F(DeviceSessionTest, JoinTimesOutWithAReasonWhenNobodyAnswers) {
    make(config(hub));
    Timestamp t0 = currentTime();
    EXPECT_FALSE(session->join(300));
    EXPECT_LT(currentTime() - t0, 2000u);
    EXPECT_NE(std::string::npos, session->lastError().find("no answer")) << session->lastError();
}

TEST_F(DeviceSessionTest, RefusesBadConfigurationsAndCallsBeforeJoining) {
    DeviceConfig c = config(hub);
    c.objects.clear();
    make(c);
    EXPECT_FALSE(session->start());
    EXPECT_NE(std::string::npos, session->lastError().find("objects"));
    make(config(hub));
    EXPECT_EQ(-1, session->poll(0));
    EXPECT_EQ(-1, session->sendDirect(1, 1, 1, bytes(1, 1)));
    EXPECT_FALSE(session->subscribe(1000, 0, 1, true));
    BasicDeviceListMsg list;
    EXPECT_FALSE(session->requestDeviceList(list, 10));
}

TEST_F(DeviceSessionTest, SurvivesGarbageFromTheHub) {
    ASSERT_TRUE(joinFully(config(hub))) << diags;
    uint32_t x = 12345;
    auto next = [&x] { return x = x * 1103515245u + 12345u, static_cast<uint8_t>(x >> 16); };
    const uint8_t ids[] = {2, 4, 15, 19, 20, 31, 32, 34, 99};
    for (int i = 0; i < 300; ++i) {
        uint8_t buf[MAX_PACKET_SIZE];
        size_t n = 1 + next() % 120 + (i % 3 == 0 ? next() : 0);
        for (size_t k = 0; k < n; ++k) buf[k] = next();
        buf[0] = ids[i % (sizeof(ids))];
        if (n > 8) buf[8] = next() % 3;  // mostly valid signature types
        hub.sock.sendTo(hub.device, buf, n);
        if (i % 20 == 0) session->poll(1);
    }
    for (int i = 0; i < 20; ++i) session->poll(5);
    EXPECT_EQ(DeviceSession::State::READY, session->state());
    ASSERT_GE(session->sendDirect(1001, 0, 1, bytes(5, 1)), 1);
    MessageCarrierPack p;
    EXPECT_TRUE(hub.expect(p, session.get())) << "still sending";
}
