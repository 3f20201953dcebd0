#include "Device/HubLink.h"

#include <gtest/gtest.h>

#include "tests/support/device_sim.h"

using namespace device;

// Packet numbers count up from 0, ids are stamped, and packs are signed once
// signing is set; without a hub nothing is sent.
TEST(HubLink, StampsNumbersIdsAndSignsWhenAsked) {
    UdpSocket hub;
    ASSERT_TRUE(hub.bind(SockAddress("127.0.0.1", 0), false));
    const ByteArray<32> key = testsupport::keyBytes(32, 1, 3);
    HubLink link;
    PingPongPack p;
    EXPECT_FALSE(link.send(p)) << "no socket";
    ASSERT_TRUE(link.open());
    EXPECT_FALSE(link.send(p)) << "no hub";
    link.setHub(SockAddress("127.0.0.1", testsupport::boundPort(hub)));
    link.setDeviceId(1234);
    link.setHubId(17);
    ASSERT_TRUE(link.send(p));
    link.setSigning(HMAC_SHA1_TYPE, key);
    ASSERT_TRUE(link.send(p));
    for (uint32_t no : {0u, 1u}) {
        uint8_t buf[MAX_PACKET_SIZE];
        SockAddress from;
        int n = hub.recvWithTo(buf, sizeof(buf), &from, 2000);
        PingPongPack got;
        got.signature.setKey(HMAC_SHA1_TYPE, key.data(), key.size());
        ASSERT_GT(got.deserialize(buf, static_cast<size_t>(n > 0 ? n : 0), true), 0);
        EXPECT_EQ(no, got.packetNo);
        EXPECT_EQ(1234, got.devId);
        EXPECT_EQ(17, got.hubId);
        EXPECT_EQ(no == 0 ? NO_SIGNATURE_TYPE : HMAC_SHA1_TYPE, got.signature.signatureType());
        EXPECT_TRUE(got.signature.verified());
        EXPECT_EQ(link.localPort(), from.port());
    }
}
