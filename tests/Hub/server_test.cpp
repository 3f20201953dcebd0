#include "Hub/server.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "Hub/DeviceManager.h"
#include "tests/support/hub_harness.h"

using namespace testsupport;

namespace {

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class ServerTest : public HubFixture {
protected:
    // The pack signed by dev with sigType under key (the session key by default).
    void deliverSigned(SimDevice& dev, VeltoPacket& pack, uint8_t sigType, const ByteArray<32>* key = nullptr) {
        const ByteArray<32>& k = key ? *key : dev.sessionKey;
        pack.signature.setKey(sigType, k.data(), k.size());
        deliver(dev, pack);
    }

    // Whether the hub answered dev with a GetObjectInfoPack within timeoutMs.
    bool askedForObject(SimDevice& dev, uint32_t timeoutMs = 300) {
        GetObjectInfoPack ask;
        return dev.receive(ask, timeoutMs);
    }

    MessageCarrierPack piece(const SimDevice& from, const SimDevice& to, const std::string& body) {
        MessageCarrierPack p;
        p.msgCat = DIRECT_MSGCAT;
        p.fromDeviceId = from.nodeId;
        p.toDeviceId = to.nodeId;
        p.msgId = 7;
        p.msgNo = 1;
        p.msgSize = static_cast<uint32_t>(body.size());
        p.payload = ByteArray<326>(reinterpret_cast<const uint8_t*>(body.data()), body.size());
        return p;
    }

    const ByteArray<32> wrongKey = ByteArray<32>(reinterpret_cast<const uint8_t*>("not the session key"), 19);
};

}  // namespace

// ---------------------------------------------------------------------------
// Classification of datagrams from any sender

TEST_F(ServerTest, DatagramShorterThanTheHeaderIsReportedAndDropped) {
    SimDevice dev("srv-short");
    CapturedOutput log = outputOf([&] {
        deliverBytes(Bytes{1, 17, 0, 0, 0, 0, 0, 0, 0}, dev.address());
        deliverBytes(Bytes{1, 17, 0, 0, 0, 0, 0, 0, HMAC_SHA1_TYPE, 0, 1, 2}, dev.address());  // 20 signature bytes short
    });
    EXPECT_EQ(" received too small packet to deserialize id 9 bytes\n"
              " received too small packet to deserialize id 12 bytes\n",
              log.err);
    EXPECT_EQ("", log.out);
    EXPECT_TRUE(dev.receiveRaw(100).empty());
}

TEST_F(ServerTest, NewBornWithAWrongSignatureIsStillAdopted) {
    SimDevice dev("srv-badsig-born");
    NewBornDevicePack born = dev.newBorn("sp");
    deliverSigned(dev, born, HMAC_SHA1_TYPE, &wrongKey);
    AdoptionOfferPack offer;
    EXPECT_TRUE(dev.receive(offer));
}

TEST_F(ServerTest, CutShortNewBornAndJoinAreDroppedSilently) {
    SimDevice dev("srv-cut-born");
    NewBornDevicePack born = dev.newBorn("sp");
    Bytes bytes = dev.encode(born);
    bytes.resize(10 + 3);  // inside the DUID: the fields after it are missing
    CapturedOutput log = outputOf([&] { deliverBytes(bytes, dev.address()); });
    EXPECT_EQ("", log.err);
    EXPECT_FALSE(contains(log.out, "New Baby"));
    EXPECT_EQ(nullptr, newComerOf(dev));

    NetworkJoinPack request = dev.joinRequest(myDomain, 1);
    bytes = dev.encode(request);
    bytes.pop_back();  // the last byte of the address value
    log = outputOf([&] { deliverBytes(bytes, dev.address()); });
    EXPECT_EQ("", log.err);
    EXPECT_TRUE(dev.receiveRaw(100).empty());
}

TEST_F(ServerTest, UnknownNodeIsReportedWithThePackIdAsARawCharacter) {
    SimDevice dev("srv-unknown");
    dev.nodeId = 4321;
    ConfigSummaryPack summary = dev.configSummary(1);
    CapturedOutput log = outputOf([&] { deliver(dev, summary); });
    EXPECT_EQ("handleConnectedMsgs(): Failed to get client for nodeId=4321 msgId=\n from [127.0.0.1]:" +
                  std::to_string(dev.address().port()) + "\n",
              log.err);
    EXPECT_TRUE(dev.receiveRaw(100).empty());
}

// ---------------------------------------------------------------------------
// Signature policy of CALL<T>

// Unsigned or HMAC-SHA1 with the session key: taken (a sign of life, the next
// object asked for). A wrong HMAC, or HMAC-SHA256 even with the right key:
// dropped with one line on standard error.
TEST_F(ServerTest, ConfigSummarySignaturePolicy) {
    const struct {
        const char* duid;
        uint8_t sigType;
        bool wrong;
        const char* err;
    } cases[] = {
        {"srv-cfg0", NO_SIGNATURE_TYPE, false, ""},
        {"srv-cfg1ok", HMAC_SHA1_TYPE, false, ""},
        {"srv-cfg1bad", HMAC_SHA1_TYPE, true,
         "ERROR !!! Failed to verify signature for Packet ID 10 have signature type: 1\n"},
        {"srv-cfg2", HMAC_SHA256_TYPE, false,
         "ERROR !!! Failed to verify signature for Packet ID 10 have signature type: 2\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.duid);
        SimDevice dev(c.duid);
        ClientProxy* proxy = join(dev);
        ASSERT_NE(nullptr, proxy);
        proxy->status().lastRecvTime = 0;
        ConfigSummaryPack summary = dev.configSummary(2);
        CapturedOutput log = outputOf([&] { deliverSigned(dev, summary, c.sigType, c.wrong ? &wrongKey : nullptr); });
        const bool taken = *c.err == 0;
        EXPECT_EQ(taken, askedForObject(dev));
        EXPECT_EQ(taken, proxy->status().lastRecvTime != 0);
        EXPECT_EQ(c.err, log.err);
        if (c.sigType != HMAC_SHA256_TYPE) {
            EXPECT_TRUE(contains(log.out, "DBG: Packet ID 10 sz=" + std::to_string(dev.encode(summary).size()) +
                                              " from " + std::to_string(dev.nodeId) + " signature type: " +
                                              std::to_string(c.sigType) + " verified: " + (c.wrong ? "0" : "1") +
                                              "\n"));
        }
    }
}

TEST_F(ServerTest, BodyThatDoesNotDeserializeIsReported) {
    SimDevice dev("srv-cfgcut");
    ASSERT_NE(nullptr, join(dev));
    ConfigSummaryPack summary = dev.configSummary(1);
    Bytes bytes = dev.encode(summary);
    bytes.resize(bytes.size() - 4);
    CapturedOutput log = outputOf([&] { deliverBytes(bytes, dev.address()); });
    EXPECT_EQ("ERROR !!! Failed to deserialize Packet ID 10 have signature type: 0\n", log.err);
    EXPECT_FALSE(askedForObject(dev, 100));
}

TEST_F(ServerTest, UnknownPackIdOfAKnownNodeIsDroppedSilently) {
    SimDevice dev("srv-unknownid");
    ASSERT_NE(nullptr, join(dev));
    const uint8_t hi = static_cast<uint8_t>(dev.nodeId >> 8), lo = static_cast<uint8_t>(dev.nodeId);
    CapturedOutput log = outputOf([&] {
        deliverBytes(Bytes{99, 0, hi, lo, 0, 0, 0, 0, 0, 0, 1}, dev.address());
        deliverBytes(Bytes{MessageErrorPack::PACK_ID, 0, hi, lo, 0, 0, 0, 0, 0, 0, 1}, dev.address());
    });
    EXPECT_EQ("", log.out + log.err);
}

// ---------------------------------------------------------------------------
// The carrier path: logged, handled all the same

TEST_F(ServerTest, CarrierWithAWrongHmacIsLoggedAndStillDelivered) {
    SimDevice a("srv-car-a"), b("srv-car-b");
    ASSERT_NE(nullptr, connect(a));
    ASSERT_NE(nullptr, connect(b));
    MessageCarrierPack p = piece(a, b, "hello b");
    CapturedOutput log = outputOf([&] { deliverSigned(a, p, HMAC_SHA1_TYPE, &wrongKey); });
    EXPECT_TRUE(contains(log.err, "ERROR ! Failed to verify signature for Packet ID 31 have signature type: 1\n"));

    MessageCarrierACKPack ack;
    ASSERT_TRUE(a.receive(ack));
    EXPECT_EQ(7u, ack.lastSeqNo);
    MsgSelector ms;
    Bytes body;
    ASSERT_TRUE(takeMessage(b, ms, body));
    EXPECT_EQ("hello b", std::string(body.begin(), body.end()));
}

TEST_F(ServerTest, AckWithAWrongHmacIsLoggedAndStillHandled) {
    SimDevice a("srv-ack-a"), b("srv-ack-b");
    ASSERT_NE(nullptr, connect(a));
    ClientProxy* proxyB = connect(b);
    ASSERT_NE(nullptr, proxyB);
    MessageCarrierPack p = piece(a, b, "x");
    deliver(a, p);
    MessageCarrierPack down;
    ASSERT_TRUE(b.receive(down));
    ASSERT_EQ(MsgSender::WAITING_FOR_ACK, proxyB->sender().getStatus());

    MessageCarrierACKPack ack;
    MsgSelector ms;
    ms = down;
    ms.copyTo(ack);
    ack.lastSeqNo = 1;
    CapturedOutput log = outputOf([&] { deliverSigned(b, ack, HMAC_SHA1_TYPE, &wrongKey); });
    EXPECT_TRUE(contains(log.err, "ERROR !! Failed to verify signature for Packet ID 32 have signature type: 1\n"));
    EXPECT_TRUE(contains(log.out, "Received Message ack for seqNo=1"));
    EXPECT_EQ(MsgSender::EMPTY, proxyB->sender().getStatus());
}

// ---------------------------------------------------------------------------
// Timed events

TEST_F(ServerTest, EventRetrievedEarlyWaitsUntilDue) {
    SimDevice dev("srv-ev");
    ASSERT_NE(nullptr, join(dev));
    EventBatch batch;
    Timestamp now = currentTime();
    ASSERT_TRUE(clientMgr.requestTimedEvent(EventEntry(EventEntry::DESTROY_DEVICE, dev.nodeId, now + 800)));

    EXPECT_EQ(now, batch.runDue(now));
    ASSERT_EQ(1u, batch.pending().size());
    EXPECT_EQ(0u, clientMgr.pendingEvents());
    EXPECT_EQ(now + 800, batch.nextEventTime(now));
    batch.runDue(now + 799);
    EXPECT_NE(nullptr, clientMgr.getClient(dev.nodeId));

    EXPECT_GE(batch.runDue(now + 800), now);
    EXPECT_EQ(nullptr, clientMgr.getClient(dev.nodeId));
    EXPECT_TRUE(batch.pending().empty());
    EXPECT_EQ(now + 800 + MaxCleanupInterval, batch.nextEventTime(now + 800));
}

TEST_F(ServerTest, OnlyTheFirstPendingEventDecidesWhenTheBatchIsWalked) {
    SimDevice x("srv-ev-x"), y("srv-ev-y");
    ASSERT_NE(nullptr, join(x));
    ASSERT_NE(nullptr, join(y));
    EventBatch batch;
    Timestamp now = currentTime();
    clientMgr.requestTimedEvent(EventEntry(EventEntry::DESTROY_DEVICE, x.nodeId, now + 800));
    batch.runDue(now);
    clientMgr.requestTimedEvent(EventEntry(EventEntry::DESTROY_DEVICE, y.nodeId, now + 100));
    batch.runDue(now + 1);  // y's event is appended behind x's
    ASSERT_EQ(2u, batch.pending().size());

    batch.runDue(now + 100);
    EXPECT_NE(nullptr, clientMgr.getClient(y.nodeId));  // due, but not first
    batch.runDue(now + 800);
    EXPECT_EQ(nullptr, clientMgr.getClient(x.nodeId));
    EXPECT_EQ(nullptr, clientMgr.getClient(y.nodeId));
}

TEST_F(ServerTest, EventForAnUnknownNodeIsDroppedQuietly) {
    CapturedOutput log = outputOf([&] {
        handleEvent(EventEntry(EventEntry::CHECK_RCV_TO, 4999, currentTime()), currentTime());
        handleEvent(EventEntry(EventEntry::DESTROY_DEVICE, 4999, currentTime()), currentTime());
    });
    EXPECT_EQ("", log.out + log.err);
}

// ---------------------------------------------------------------------------
// Robustness

TEST_F(ServerTest, GarbageDatagramsLeaveAKnownDeviceWorking) {
    SimDevice dev("srv-fuzz"), other("srv-fuzz-other");
    ClientProxy* proxy = join(dev);
    ASSERT_NE(nullptr, proxy);
    const ClientDBRec before = proxy->record();
    const PacketID ids[] = {1, 3, 10, 16, 20, 31, 32, 33, 34, 2, 4, 15, 19, 0, 255};
    std::mt19937 rng(1234);
    outputOf([&] {
        for (int i = 0; i < 3000; ++i) {
            Bytes d(1 + rng() % 400);
            for (uint8_t& b : d) b = static_cast<uint8_t>(rng());
            d[0] = ids[rng() % (sizeof ids)];
            if (d.size() > 3 && i % 2 == 0) {  // half of them aimed at the known node
                d[2] = static_cast<uint8_t>(dev.nodeId >> 8);
                d[3] = static_cast<uint8_t>(dev.nodeId);
            }
            if (d.size() > 8) d[8] = static_cast<uint8_t>(rng() % 4);
            deliverBytes(d, other.address());
        }
    });
    EXPECT_EQ(before.sessionKey, proxy->record().sessionKey);
    EXPECT_EQ(before.id, proxy->record().id);
    // Drain whatever the garbage provoked, then the device is served as before.
    for (int i = 0; i < 200 && !dev.receiveRaw(5).empty(); ++i) {
    }
    ConfigSummaryPack summary = dev.configSummary(1);
    deliverSigned(dev, summary, HMAC_SHA1_TYPE);
    EXPECT_TRUE(askedForObject(dev));
}

// ---------------------------------------------------------------------------
// Flush interval test hook

TEST(FlushIntervalSetting, OnlyAWholeNumberUpToTheDesignedIntervalIsTaken) {
    const char* const name = "VELTO_FLUSH_INTERVAL_MS";
    unsetenv(name);
    EXPECT_EQ(FlushInterval, flushIntervalFromEnvironment());
    const std::pair<const char*, uint32_t> cases[] = {
        {"1", 1}, {"40", 40}, {"15050", 15050},
        // refused: the designed interval stays
        {"0", FlushInterval}, {"15051", FlushInterval}, {"", FlushInterval}, {"25ms", FlushInterval},
        {"-5", FlushInterval}, {" 7", FlushInterval}, {"99999999999999999999999", FlushInterval},
    };
    for (const auto& c : cases) {
        setenv(name, c.first, 1);
        EXPECT_EQ(c.second, flushIntervalFromEnvironment()) << '"' << c.first << '"';
    }
    unsetenv(name);
}
