// The device session against a fake hub: a socket on 127.0.0.1 driven by the
// test with the pack classes. Joining, signing and message exchange are walked
// against the real hub by the device scenarios; here what a real hub does not
// readily do: silence, error packs, strangers and garbage.
#include "Device/DeviceSession.h"

#include <gtest/gtest.h>

#include <set>

#include "tests/support/device_sim.h"

using namespace device;

namespace {

class DeviceSessionTest : public ::testing::Test {
protected:
    // Waits for a pack of type P from the device, polling it meanwhile.
    template <class P>
    bool expect(P& p) {
        uint8_t buf[MAX_PACKET_SIZE];
        for (Timestamp end = currentTime() + 1500; currentTime() < end;) {
            session->poll(5);
            int n = hub.recvWithTo(buf, sizeof(buf), &device, 5);
            if (n > 0 && buf[0] == P::PACK_ID) return p.deserialize(buf, static_cast<size_t>(n), true) > 0;
        }
        return false;
    }
    void send(VeltoPacket& p) {
        p.hubId = 17;
        p.packetNo = packetNo++;
        testsupport::Bytes d = testsupport::encodePack(p);
        hub.sendTo(device, d.data(), d.size());
    }

    // A session with a one-object device joined through the whole handshake
    // (unsigned, the session key sent in the clear).
    void joinFully(SessionTiming t) {
        ASSERT_TRUE(hub.bind(SockAddress("127.0.0.1", 0), false));
        DeviceConfig c;
        c.duid = "lamp-01", c.specs = "t1", c.discover = false;
        c.hub = SockAddress("127.0.0.1", testsupport::boundPort(hub));
        c.objects = {DeviceObject{"light", "sw.1", 0, 0}};
        session.reset(new DeviceSession(c, t));
        session->onDiagnostic([this](const std::string& l) { diags += l + "\n"; });
        session->onMessage([this](const IncomingMessage& m) { messages.push_back(m); });
        session->onError([this](const MessageError& e) { errors.push_back(e); });
        ASSERT_TRUE(session->start()) << session->lastError();
        NewBornDevicePack nb;
        ASSERT_TRUE(expect(nb));
        handshake();
    }
    void offerFrom(UdpSocket& from) {
        AdoptionOfferPack offer;
        offer.duid = "lamp-01", offer.domain = DEFAULT_DOMAIN, offer.hubId = 17;
        testsupport::Bytes o = testsupport::encodePack(offer);
        from.sendTo(device, o.data(), o.size());
    }
    // The rest of the handshake after an announcement: 1000 is the node id given.
    void handshake() {
        offerFrom(hub);
        NetworkJoinPack join;
        ASSERT_TRUE(expect(join));
        JoinAcceptedPack acc;
        acc.duid = join.duid, acc.nodeId = 1000, acc.encAlg = NO_ENCRYPTION_TYPE;
        acc.sessionKey = testsupport::keyBytes(32, 50, 1);
        send(acc);
        ConfigSummaryPack cs;
        ASSERT_TRUE(expect(cs));
        GetObjectInfoPack g;
        send(g);
        ObjectInfoPack oi;
        ASSERT_TRUE(expect(oi));
        ConfigurationCompletePack cc;
        send(cc);
        for (int i = 0; i < 40 && session->state() != DeviceSession::State::READY; ++i) session->poll(10);
        ASSERT_EQ(DeviceSession::State::READY, session->state()) << diags;
    }

    UdpSocket hub;
    SockAddress device;
    uint32_t packetNo = 0;
    std::unique_ptr<DeviceSession> session;
    std::string diags;
    std::vector<IncomingMessage> messages;
    std::vector<MessageError> errors;
};

}  // namespace

// Pings are answered with the same reply key. A hub that leaves a ping
// unanswered loses the session: the message in flight is reported not
// delivered, the one queued behind it waits, and the session rejoins by itself
// (a stranger's offer changes nothing), renews its subscriptions and sends it.
TEST_F(DeviceSessionTest, AnswersPingsAndRejoinsWhenTheHubLeavesAPingUnanswered) {
    SessionTiming t;
    t.pingAfterMs = 150, t.pingAnswerMs = 300, t.rejoinFirstMs = 400, t.rejoinSettleMs = 100;
    joinFully(t);
    if (HasFatalFailure()) return;
    std::vector<bool> changes;
    std::vector<DeliveryResult> results;
    session->onSessionChange([&](bool up) { changes.push_back(up); });
    session->onDelivery([&](const DeliveryResult& r) { results.push_back(r); });
    PingPongPack ping;
    ping.pingOrPong = PingPongPack::PING, ping.replyKey = 4242;
    send(ping);
    PingPongPack pong, own;
    ASSERT_TRUE(expect(pong));
    EXPECT_TRUE(pong.pingOrPong == PingPongPack::PONG && pong.replyKey == 4242u);
    ASSERT_TRUE(session->subscribe(1001, 2, 7, true));
    int64_t cut = session->sendDirect(1001, 0, 1, {1, 2, 3});
    int64_t waiting = session->sendDirect(1001, 0, 2, {4, 5});
    ASSERT_TRUE(expect(own));
    EXPECT_EQ(PingPongPack::PING, own.pingOrPong);
    for (int i = 0; i < 100 && session->state() != DeviceSession::State::LOST; ++i) session->poll(5);
    ASSERT_EQ(DeviceSession::State::LOST, session->state());
    EXPECT_NE(std::string::npos, session->lastError().find("not answered a ping")) << session->lastError();
    ASSERT_EQ(1u, results.size());
    EXPECT_EQ(cut, results[0].msgNo);
    EXPECT_FALSE(results[0].delivered);
    EXPECT_TRUE(session->subscribe(1001, 3, 8, true)) << "kept for the rejoin";

    NewBornDevicePack again;
    ASSERT_TRUE(expect(again));
    EXPECT_EQ("lamp-01", again.prevn.str());
    const Timestamp triedAt = currentTime();
    UdpSocket stranger;
    ASSERT_TRUE(stranger.bind(SockAddress("127.0.0.1", 0), false));
    offerFrom(stranger);
    for (int i = 0; i < 10; ++i) session->poll(5);
    EXPECT_EQ(DeviceSession::State::ANNOUNCING, session->state()) << "no join for a stranger's offer";
    offerFrom(hub);
    NetworkJoinPack refused;  // and never answered, as a hub of another domain does
    ASSERT_TRUE(expect(refused));
    ASSERT_TRUE(expect(again));
    EXPECT_GE(currentTime() - triedAt, 380u) << "the next try waits for its pause";
    handshake();
    if (HasFatalFailure()) return;
    EXPECT_EQ(1000, session->nodeId());
    EXPECT_EQ((std::vector<bool>{false, true}), changes);
    std::set<std::pair<int, int>> renewed;
    for (NotificationSubscriptionPack r; renewed.size() < 2 && expect(r);) renewed.insert({r.objectNo, r.eventId});
    EXPECT_EQ((std::set<std::pair<int, int>>{{2, 7}, {3, 8}}), renewed);
    MessageCarrierPack piece;
    ASSERT_TRUE(expect(piece));
    EXPECT_EQ(waiting, piece.msgNo);
    for (const char* once : {"session lost: ", "session back: node 1000 "})
        EXPECT_EQ(diags.find(once), diags.rfind(once)) << "one line each: " << diags;
}

// An error pack is reported; a stray pack, a piece for another node, a pack
// from a stranger and a cut pack are noted and change nothing.
TEST_F(DeviceSessionTest, ReportsErrorPacksAndSurvivesWhatDoesNotBelong) {
    joinFully(SessionTiming());
    if (HasFatalFailure()) return;
    MessageErrorPack e;
    e.errorCode = MessageErrorPack::PERMISSION_DENIED, e.toNodeId = 1000, e.toObjectNo = 3, e.optErorMsg = "denied";
    send(e);
    NewBornDevicePack stray;
    send(stray);
    MessageCarrierPack foreign;
    foreign.msgCat = DIRECT_MSGCAT, foreign.toDeviceId = 1234, foreign.msgSize = 1;
    foreign.payload.setSize(1);
    send(foreign);
    UdpSocket other;
    ASSERT_TRUE(other.bind(SockAddress("127.0.0.1", 0), false));
    testsupport::Bytes d = testsupport::encodePack(e);
    other.sendTo(device, d.data(), d.size());
    uint8_t junk[3] = {31, 1, 2};
    hub.sendTo(device, junk, sizeof junk);
    for (int i = 0; i < 20; ++i) session->poll(5);
    ASSERT_EQ(1u, errors.size());
    EXPECT_TRUE(errors[0].toObjectNo == 3 && errors[0].text == "denied");
    for (const char* noted : {"unexpected pack 1", "for node 1234", "not the hub", "too short"})
        EXPECT_NE(std::string::npos, diags.find(noted)) << diags;
    EXPECT_EQ(DeviceSession::State::READY, session->state());
    ASSERT_GE(session->sendDirect(1001, 0, 1, {1, 2, 3}), 1);
    MessageCarrierPack p;
    EXPECT_TRUE(expect(p)) << "still sending";
}
