#include "Device/HubLink.h"

#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/device_sim.h"

using namespace device;

namespace {

// A socket on 127.0.0.1 standing in for the hub.
struct Peer {
    UdpSocket sock;
    SockAddress addr;
    Peer() {
        sock.bind(SockAddress("127.0.0.1", 0), false);
        addr = SockAddress("127.0.0.1", testsupport::boundPort(sock));
    }
};

ByteArray<32> key() {
    ByteArray<32> k;
    for (size_t i = 0; i < 32; ++i) k[i] = static_cast<uint8_t>(i * 3 + 1);
    k.setSize(32);
    return k;
}

}  // namespace

TEST(HubLink, StampsNumbersIdsAndSignsWhenAsked) {
    Peer hub;
    HubLink link;
    ASSERT_TRUE(link.open());
    EXPECT_NE(0, link.localPort());
    link.setHub(hub.addr);
    link.setDeviceId(1234);
    link.setHubId(17);
    PingPongPack p;
    ASSERT_TRUE(link.send(p));
    link.setSigning(HMAC_SHA1_TYPE, key());
    ASSERT_TRUE(link.send(p));
    uint8_t buf[MAX_PACKET_SIZE];
    SockAddress from;
    for (uint32_t expectNo : {0u, 1u}) {
        int n = hub.sock.recvWithTo(buf, sizeof(buf), &from, 2000);
        ASSERT_GT(n, 0);
        PingPongPack got;
        ByteArray<32> k = key();
        got.signature.setKey(HMAC_SHA1_TYPE, k.data(), k.size());
        ASSERT_GT(got.deserialize(buf, static_cast<size_t>(n), true), 0);
        EXPECT_EQ(expectNo, got.packetNo);
        EXPECT_EQ(1234, got.devId);
        EXPECT_EQ(17, got.hubId);
        EXPECT_EQ(expectNo == 0 ? NO_SIGNATURE_TYPE : HMAC_SHA1_TYPE, got.signature.signatureType());
        EXPECT_TRUE(got.signature.verified());
        EXPECT_EQ(link.localPort(), from.port());
    }
    EXPECT_EQ(2u, link.nextPacketNo());
}

TEST(HubLink, RefusesToSendWithoutHubOrSocketAndTimesOut) {
    HubLink link;
    PingPongPack p;
    EXPECT_FALSE(link.send(p));
    uint8_t buf[16];
    SockAddress from;
    EXPECT_EQ(-1, link.receive(buf, sizeof(buf), from, 0));
    ASSERT_TRUE(link.open());
    EXPECT_FALSE(link.send(p)) << "no hub yet";
    EXPECT_EQ(0, link.receive(buf, sizeof(buf), from, 20));
    uint8_t self[4];
    ASSERT_TRUE(HubLink::localAddressToward(SockAddress("127.0.0.1", 1881), self));
    EXPECT_EQ(127, self[0]);
}
