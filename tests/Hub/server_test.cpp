#include "Hub/server.h"

#include <gtest/gtest.h>

#include <string>

#include "Hub/DeviceManager.h"
#include "tests/support/hub_harness.h"

using namespace testsupport;

namespace {

class ServerTest : public HubFixture {
protected:
    // The pack signed by dev with sigType under key (the session key by default).
    void deliverSigned(SimDevice& dev, VeltoPacket& pack, uint8_t sigType, const ByteArray<32>* key = nullptr) {
        const ByteArray<32>& k = key ? *key : dev.sessionKey;
        pack.signature.setKey(sigType, k.data(), k.size());
        deliver(dev, pack);
    }

    const ByteArray<32> wrongKey = ByteArray<32>(reinterpret_cast<const uint8_t*>("not the session key"), 19);
};

}  // namespace

TEST_F(ServerTest, NewBornWithAWrongSignatureIsStillAdopted) {
    SimDevice dev("srv-badsig-born");
    NewBornDevicePack born = dev.newBorn("sp");
    deliverSigned(dev, born, HMAC_SHA1_TYPE, &wrongKey);
    AdoptionOfferPack offer;
    EXPECT_TRUE(dev.receive(offer));
}

// Unsigned or HMAC-SHA1 with the session key: taken (the next object is asked
// for). A wrong HMAC, or HMAC-SHA256 even with the right key: dropped with one
// line on standard error.
TEST_F(ServerTest, ConfigSummarySignaturePolicy) {
    const struct { const char* duid; uint8_t sigType; bool wrong; const char* err; } cases[] = {
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
        ASSERT_NE(nullptr, join(dev));
        ConfigSummaryPack summary = dev.configSummary(2);
        CapturedOutput log = outputOf([&] { deliverSigned(dev, summary, c.sigType, c.wrong ? &wrongKey : nullptr); });
        GetObjectInfoPack ask;
        EXPECT_EQ(*c.err == 0, dev.receive(ask, 300));
        EXPECT_EQ(c.err, log.err);
    }
}

// On the carrier path a failed check is only logged: the piece is handled.
TEST_F(ServerTest, CarrierWithAWrongHmacIsLoggedAndStillDelivered) {
    SimDevice a("srv-car-a"), b("srv-car-b");
    ASSERT_NE(nullptr, connect(a));
    ASSERT_NE(nullptr, connect(b));
    MessageCarrierPack p;
    p.msgCat = DIRECT_MSGCAT;
    p.fromDeviceId = a.nodeId;
    p.toDeviceId = b.nodeId;
    p.msgId = 7;
    p.msgSize = 7;
    p.payload = ByteArray<326>(reinterpret_cast<const uint8_t*>("hello b"), 7);
    CapturedOutput log = outputOf([&] { deliverSigned(a, p, HMAC_SHA1_TYPE, &wrongKey); });
    EXPECT_NE(std::string::npos,
              log.err.find("ERROR ! Failed to verify signature for Packet ID 31 have signature type: 1\n"));
    MsgSelector ms;
    Bytes body;
    ASSERT_TRUE(takeMessage(b, ms, body));
    EXPECT_EQ("hello b", std::string(body.begin(), body.end()));
}

// Events are taken from the manager early and run when due; only the first
// pending one decides when the batch is walked.
TEST_F(ServerTest, OnlyTheFirstPendingEventDecidesWhenTheBatchIsWalked) {
    SimDevice x("srv-ev-x"), y("srv-ev-y");
    ASSERT_NE(nullptr, join(x));
    ASSERT_NE(nullptr, join(y));
    EventBatch batch;
    Timestamp now = currentTime();
    clientMgr.requestTimedEvent(EventEntry(EventEntry::DESTROY_DEVICE, x.nodeId, now + 800));
    batch.runDue(now);
    EXPECT_EQ(0u, clientMgr.pendingEvents());
    EXPECT_EQ(now + 800, batch.nextEventTime(now));
    clientMgr.requestTimedEvent(EventEntry(EventEntry::DESTROY_DEVICE, y.nodeId, now + 100));
    batch.runDue(now + 1);  // y's event is appended behind x's
    ASSERT_EQ(2u, batch.pending().size());

    batch.runDue(now + 100);
    EXPECT_NE(nullptr, clientMgr.getClient(y.nodeId));  // due, but not first
    batch.runDue(now + 800);
    EXPECT_EQ(nullptr, clientMgr.getClient(x.nodeId));
    EXPECT_EQ(nullptr, clientMgr.getClient(y.nodeId));
    EXPECT_EQ(now + 800 + MaxCleanupInterval, batch.nextEventTime(now + 800));
}
