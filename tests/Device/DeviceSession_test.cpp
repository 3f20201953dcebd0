// The device session against a fake hub: a socket on 127.0.0.1 driven by the
// test with the pack classes. Joining, signing and message exchange are walked
// against the real hub by the device scenarios; here what a real hub does not
// readily do: silence, error packs, strangers and garbage.
#include "Device/DeviceSession.h"

#include <gtest/gtest.h>

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
        c.duid = "lamp-01";
        c.specs = "t1";
        c.discover = false;
        c.hub = SockAddress("127.0.0.1", testsupport::boundPort(hub));
        c.objects = {DeviceObject{"light", "sw.1", 0, 0}};
        session.reset(new DeviceSession(c, t));
        session->onDiagnostic([this](const std::string& l) { diags += l + "\n"; });
        session->onMessage([this](const IncomingMessage& m) { messages.push_back(m); });
        session->onError([this](const MessageError& e) { errors.push_back(e); });
        ASSERT_TRUE(session->start()) << session->lastError();
        NewBornDevicePack nb;
        ASSERT_TRUE(expect(nb));
        AdoptionOfferPack offer;
        offer.duid = nb.duid;
        offer.domain = DEFAULT_DOMAIN;
        send(offer);
        NetworkJoinPack join;
        ASSERT_TRUE(expect(join));
        JoinAcceptedPack acc;
        acc.duid = join.duid;
        acc.nodeId = 1000;
        acc.encAlg = NO_ENCRYPTION_TYPE;
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

// Pings are answered with the same reply key; a silent hub is pinged and at
// last given up, after which nothing can be sent.
TEST_F(DeviceSessionTest, AnswersPingsPingsASilentHubAndGivesUpAtLast) {
    SessionTiming t;
    t.pingAfterMs = 150;
    t.lostAfterMs = 600;
    joinFully(t);
    if (HasFatalFailure()) return;
    PingPongPack ping;
    ping.pingOrPong = PingPongPack::PING;
    ping.replyKey = 4242;
    send(ping);
    PingPongPack pong, own;
    ASSERT_TRUE(expect(pong));
    EXPECT_EQ(PingPongPack::PONG, pong.pingOrPong);
    EXPECT_EQ(4242u, pong.replyKey);
    ASSERT_TRUE(expect(own));
    EXPECT_EQ(PingPongPack::PING, own.pingOrPong);
    for (int i = 0; i < 100 && session->state() != DeviceSession::State::LOST; ++i) session->poll(10);
    EXPECT_EQ(DeviceSession::State::LOST, session->state());
    EXPECT_EQ(-1, session->sendDirect(1001, 0, 1, {1, 2, 3}));
}

// An error pack is reported; a stray pack, a piece for another node, a pack
// from a stranger and a cut pack are noted and change nothing.
TEST_F(DeviceSessionTest, ReportsErrorPacksAndSurvivesWhatDoesNotBelong) {
    joinFully(SessionTiming());
    if (HasFatalFailure()) return;
    MessageErrorPack e;
    e.errorCode = MessageErrorPack::PERMISSION_DENIED;
    e.toNodeId = 1000;
    e.toObjectNo = 3;
    e.optErorMsg = "denied";
    send(e);
    NewBornDevicePack stray;
    send(stray);
    MessageCarrierPack foreign;
    foreign.msgCat = DIRECT_MSGCAT;
    foreign.toDeviceId = 1234;
    foreign.msgSize = 1;
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
    EXPECT_EQ(3, errors[0].toObjectNo);
    EXPECT_EQ("denied", errors[0].text);
    EXPECT_NE(std::string::npos, diags.find("unexpected pack 1")) << diags;
    EXPECT_NE(std::string::npos, diags.find("for node 1234")) << diags;
    EXPECT_NE(std::string::npos, diags.find("not the hub")) << diags;
    EXPECT_NE(std::string::npos, diags.find("too short")) << diags;
    EXPECT_EQ(DeviceSession::State::READY, session->state());
    ASSERT_GE(session->sendDirect(1001, 0, 1, {1, 2, 3}), 1);
    MessageCarrierPack p;
    EXPECT_TRUE(expect(p)) << "still sending";
}
