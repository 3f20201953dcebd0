#include "Hub/newDevice.h"

#include <gtest/gtest.h>

#include <string>

#include "Hub/DeviceManager.h"
#include "Hub/server.h"
#include "tests/support/hub_harness.h"
#include "tests/support/wire_bytes.h"

using namespace testsupport;

namespace {

template <size_t N>
std::string hexOf(const ByteArray<N>& a) {
    return toHex(a.data(), a.size());
}

ByteArray<32> bytesOf(std::initializer_list<uint8_t> l) { return ByteArray<32>(l.begin(), l.size()); }

ByteArray<32> filled(size_t n, uint8_t v) { return keyBytes(n, v); }

class NewDeviceTest : public HubFixture {
protected:
    // The device announces itself; returns the offer (id 0 when none came).
    AdoptionOfferPack announce(SimDevice& dev, const ByteArray<32>* verifyKey = nullptr, uint8_t sigType = 0) {
        NewBornDevicePack born = dev.newBorn("sp");
        deliver(dev, born);
        AdoptionOfferPack offer;
        if (verifyKey) offer.signature.setKey(sigType, verifyKey->data(), verifyKey->size());
        if (!dev.receive(offer)) offer.id = 0;
        return offer;
    }

    // The device asks to join; returns the acceptance (id 0 when none came).
    JoinAcceptedPack requestJoin(SimDevice& dev, const std::string& domain, uint64_t clientRand,
                                 const ByteArray<32>* verifyKey = nullptr, uint8_t sigType = 0) {
        NetworkJoinPack request = dev.joinRequest(domain, clientRand);
        deliver(dev, request);
        JoinAcceptedPack ja;
        if (verifyKey) ja.signature.setKey(sigType, verifyKey->data(), verifyKey->size());
        if (!dev.receive(ja, 500)) ja.id = 0;
        return ja;
    }

    std::string recordFile(const SimDevice& dev) { return readFile(dir.file("DB/" + dev.duid() + ".dev")); }
};

}  // namespace

// ---------------------------------------------------------------------------
// Adoption

TEST_F(NewDeviceTest, NewBornGetsAnOfferAndBecomesANewcomer) {
    SimDevice dev("nd-adopt");
    AdoptionOfferPack offer;
    CapturedOutput log = outputOf([&] { offer = announce(dev); });

    ASSERT_EQ(AdoptionOfferPack::PACK_ID, offer.id);
    EXPECT_EQ(17, offer.hubId);
    EXPECT_EQ(17, offer.svrNodeId);
    EXPECT_EQ(200, offer.offer);  // never seen before
    EXPECT_EQ(std::string("nd-adopt"), offer.duid.str());
    EXPECT_EQ(std::string("nd-adopt"), offer.nname.str());
    EXPECT_EQ(std::string("TestDomain_KVZ1"), offer.domain.str());
    EXPECT_EQ(NO_SIGNATURE_TYPE, offer.signature.signatureType());

    ClientInfo* nc = newComerOf(dev);
    ASSERT_NE(nullptr, nc);
    EXPECT_EQ(NodeStatusInfo::ADOPTION_SENT, nc->status.state);
    EXPECT_EQ("oldname", nc->status.prevn);
    EXPECT_EQ("olddomain", nc->status.prevdom);
    EXPECT_NE(std::string::npos, log.out.find("New Baby born at:127.0.0.1/" + std::to_string(dev.address().port()) +
                                              " DUID=nd-adopt, SPECS=sp VER=3\n"));
    EXPECT_EQ(std::string::npos, log.err.find("NewCommer problem"));
}

TEST_F(NewDeviceTest, RepeatedNewBornReusesTheNewcomerAndSignsWithAMainKey) {
    SimDevice dev("nd-repeat");
    ASSERT_EQ(AdoptionOfferPack::PACK_ID, announce(dev).id);
    ClientInfo* first = newComerOf(dev);
    ASSERT_NE(nullptr, first);
    first->record.mainKey = filled(16, 0x5a);
    first->record.sigType = HMAC_SHA1_TYPE;

    ByteArray<32> key = filled(16, 0x5a);
    AdoptionOfferPack offer = announce(dev, &key, HMAC_SHA1_TYPE);
    ASSERT_EQ(AdoptionOfferPack::PACK_ID, offer.id);
    EXPECT_EQ(first, newComerOf(dev));
    EXPECT_EQ(HMAC_SHA1_TYPE, offer.signature.signatureType());
    EXPECT_TRUE(offer.signature.verified());
}

// ---------------------------------------------------------------------------
// Join refusals

TEST_F(NewDeviceTest, DomainDifferingByCaseIsRefusedWithoutAnswer) {
    SimDevice dev("nd-case");
    ASSERT_EQ(AdoptionOfferPack::PACK_ID, announce(dev).id);
    JoinAcceptedPack ja;
    CapturedOutput log = outputOf([&] { ja = requestJoin(dev, "testdomain_kvz1", 1); });

    EXPECT_EQ(0, ja.id);
    EXPECT_NE(std::string::npos, log.err.find("Refuse join request missmatch domains. requested: testdomain_kvz1 "
                                              "mine: TestDomain_KVZ1\n"));
    EXPECT_NE(nullptr, newComerOf(dev));  // still a newcomer, no session made
}

TEST_F(NewDeviceTest, JoinWithoutAdoptionIsRefused) {
    SimDevice dev("nd-stranger");
    JoinAcceptedPack ja;
    CapturedOutput log = outputOf([&] { ja = requestJoin(dev, "TestDomain_KVZ1", 1); });
    EXPECT_EQ(0, ja.id);
    EXPECT_NE(std::string::npos, log.err.find("Refuse join request failed to make device active\n"));
}

// ---------------------------------------------------------------------------
// Keys

TEST_F(NewDeviceTest, NoMainKeyMeansTheClearedTwentyByteKeyAndNoTrust) {
    SimDevice dev("nd-nokey");
    ASSERT_EQ(AdoptionOfferPack::PACK_ID, announce(dev).id);
    ClientInfo* nc = newComerOf(dev);
    ASSERT_NE(nullptr, nc);
    nc->record.trust = 7;
    nc->record.sigType = HMAC_SHA1_TYPE;
    nc->record.encType = SIMPLE_XOR_TYPE;

    const ByteArray<32> zeros = filled(20, 0);
    const uint64_t clientRand = 0x1122334455667788ULL;
    JoinAcceptedPack ja = requestJoin(dev, "TestDomain_KVZ1", clientRand, &zeros, HMAC_SHA1_TYPE);
    ASSERT_EQ(JoinAcceptedPack::PACK_ID, ja.id);
    EXPECT_TRUE(ja.signature.verified());
    EXPECT_EQ(0, ja.flags);

    ClientProxy* proxy = clientMgr.getClient(ja.nodeId);
    ASSERT_NE(nullptr, proxy);
    EXPECT_EQ(0, proxy->record().trust);
    EXPECT_EQ(zeros, proxy->record().mainKey);
    EXPECT_EQ(NodeStatusInfo::INITIALIZING, proxy->status().state);
    EXPECT_EQ(32u, proxy->record().sessionKey.size());
    EXPECT_EQ(proxy->record().sessionKey, recoverSessionKey(ja, clientRand, zeros));
    EXPECT_NE(proxy->record().sessionKey, ja.sessionKey);  // it travels transformed
}

TEST_F(NewDeviceTest, SessionKeyIsRecoveredWithTheMainKeyAndSaved) {
    SimDevice dev("nd-mainkey");
    ASSERT_EQ(AdoptionOfferPack::PACK_ID, announce(dev).id);
    ClientInfo* nc = newComerOf(dev);
    ASSERT_NE(nullptr, nc);
    const ByteArray<32> mainKey = bytesOf({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17});
    nc->record.mainKey = mainKey;
    nc->record.sigType = HMAC_SHA1_TYPE;
    nc->record.encType = SIMPLE_XOR_TYPE;
    nc->record.trust = 3;

    const uint64_t clientRand = 987654321;
    JoinAcceptedPack ja;
    CapturedOutput log = outputOf([&] { ja = requestJoin(dev, "TestDomain_KVZ1", clientRand, &mainKey, HMAC_SHA1_TYPE); });
    ASSERT_EQ(JoinAcceptedPack::PACK_ID, ja.id);
    EXPECT_TRUE(ja.signature.verified());
    EXPECT_EQ(SIMPLE_XOR_TYPE, ja.encAlg);

    ClientProxy* proxy = clientMgr.getClient(ja.nodeId);
    ASSERT_NE(nullptr, proxy);
    const ByteArray<32>& session = proxy->record().sessionKey;
    EXPECT_EQ(3, proxy->record().trust);
    EXPECT_EQ(session, recoverSessionKey(ja, clientRand, mainKey));
    EXPECT_NE(session, recoverSessionKey(ja, clientRand + 1, mainKey));
    EXPECT_NE(std::string::npos, recordFile(dev).find("SESSION_KEY=" + hexOf(session) + "\n"));
    EXPECT_NE(std::string::npos, recordFile(dev).find("MAIN_KEY=" + hexOf(mainKey) + "\n"));

    const std::string port = std::to_string(dev.address().port());
    EXPECT_NE(std::string::npos, log.out.find("Sending join acceptance \x04 to [127.0.0.1]:" + port + " sessionKey[32]: " +
                                              hexOf(session) + "\n"));
    EXPECT_NE(std::string::npos, log.out.find("ClientRand=987654321 SvrRand=" + std::to_string(ja.svrRand) +
                                              " MainKey[17]=" + hexOf(mainKey) + "\n"));
    EXPECT_NE(std::string::npos, log.out.find("Device Key[17]: " + hexOf(mainKey) + "  enc: " + hexOf(ja.sessionKey)));
    EXPECT_NE(std::string::npos, log.out.find("Adopting client:127.0.0.1/" + port + " DUID=nd-mainkey joins the network"
                                              "TestDomain_KVZ1 as nd-mainkey clientId: " + std::to_string(ja.nodeId) +
                                              " urand=987654321 disclaimer:  1(1881,127.0.0.1\n"));
}

TEST_F(NewDeviceTest, SixteenByteSessionKeyIsKeptFifteenIsReplacedAndSaved) {
    SimDevice keeps("nd-sk16"), replaces("nd-sk15");
    ASSERT_EQ(AdoptionOfferPack::PACK_ID, announce(keeps).id);
    ASSERT_EQ(AdoptionOfferPack::PACK_ID, announce(replaces).id);
    newComerOf(keeps)->record.sessionKey = filled(16, 0x33);
    newComerOf(replaces)->record.sessionKey = filled(15, 0x44);

    JoinAcceptedPack kept = requestJoin(keeps, "TestDomain_KVZ1", 1);
    JoinAcceptedPack replaced = requestJoin(replaces, "TestDomain_KVZ1", 2);
    ASSERT_EQ(JoinAcceptedPack::PACK_ID, kept.id);
    ASSERT_EQ(JoinAcceptedPack::PACK_ID, replaced.id);

    EXPECT_EQ(filled(16, 0x33), clientMgr.getClient(kept.nodeId)->record().sessionKey);
    EXPECT_NE(std::string::npos, recordFile(keeps).find("SESSION_KEY=\n"));  // not saved by the join

    const ByteArray<32>& fresh = clientMgr.getClient(replaced.nodeId)->record().sessionKey;
    EXPECT_EQ(32u, fresh.size());
    EXPECT_NE(std::string::npos, recordFile(replaces).find("SESSION_KEY=" + hexOf(fresh) + "\n"));
}

// ---------------------------------------------------------------------------
// Sending

TEST_F(NewDeviceTest, PacketNumbersRunOnAcrossHandlers) {
    SimDevice a("nd-seq-a"), b("nd-seq-b");
    AdoptionOfferPack offerA = announce(a);
    JoinAcceptedPack joinA = requestJoin(a, "TestDomain_KVZ1", 5);
    AdoptionOfferPack offerB = announce(b);
    ASSERT_EQ(JoinAcceptedPack::PACK_ID, joinA.id);
    ASSERT_EQ(AdoptionOfferPack::PACK_ID, offerB.id);
    EXPECT_EQ(offerA.packetNo + 1, joinA.packetNo);
    EXPECT_EQ(joinA.packetNo + 1, offerB.packetNo);
    EXPECT_EQ(17, joinA.hubId);
}

TEST_F(NewDeviceTest, SendPacketToReportsAFailedSend) {
    UdpSocket closed;
    PingPongPack p;
    EXPECT_FALSE(sendPacketTo(SockAddress("127.0.0.1", 9), closed, p));
    EXPECT_EQ(17, p.hubId);

    SimDevice dev("nd-send");
    PingPongPack q;
    EXPECT_TRUE(sendPacketTo(dev.address(), hubSock, q));
    PingPongPack got;
    ASSERT_TRUE(dev.receive(got));
    EXPECT_EQ(q.packetNo, got.packetNo);
    EXPECT_EQ(p.packetNo + 1, q.packetNo);  // the failed send used its number too
}
