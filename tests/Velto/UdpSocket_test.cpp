#include "Velto/UdpSocket.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string text(const SockAddress& a) {
    std::ostringstream os;
    os << a;
    return os.str();
}

// Binds `s` to a loopback address on a free port and returns that address.
SockAddress bindLoopback(UdpSocket& s, const char* host = "127.0.0.1") {
    EXPECT_TRUE(s.bind(SockAddress(host, 0), false));
    sockaddr_in sa{};
    socklen_t len = sizeof(sa);
    EXPECT_EQ(0, getsockname(s.handle(), reinterpret_cast<sockaddr*>(&sa), &len));
    SockAddress a;
    a.setSockAddr(sa);
    return a;
}

}  // namespace

TEST(SockAddressTest, AnyAddressForNullEmptyAndStar) {
    for (const char* host : {static_cast<const char*>(nullptr), "", "*"}) {
        SockAddress a(host, 1881, nullptr);
        sockaddr_in sa{};
        ASSERT_TRUE(a.getSockAddr(sa));
        EXPECT_EQ(htonl(INADDR_ANY), sa.sin_addr.s_addr);
        EXPECT_EQ(AF_INET, sa.sin_family);
        EXPECT_EQ(htons(1881), sa.sin_port);
        EXPECT_EQ(1881, a.port());
        EXPECT_EQ(SockAddress::IPV4, a.type());
        EXPECT_EQ("[0.0.0.0]:1881", text(a));
    }
    EXPECT_EQ(SockAddress("*", 7), SockAddress("", 7));
    EXPECT_EQ("[0.0.0.0]:0", text(SockAddress()));
    // Only the exact one-character "*" means any; anything unparsable is all-ones.
    EXPECT_STREQ("255.255.255.255", SockAddress("**", 1).ipAddr());
    EXPECT_STREQ("255.255.255.255", SockAddress("no.such.host", 1).ipAddr());
}

TEST(SockAddressTest, TextFormRoundTrips) {
    SockAddress a("192.168.1.20", 1881);
    EXPECT_EQ("[192.168.1.20]:1881", text(a));
    EXPECT_STREQ("192.168.1.20", a.hostName());

    std::istringstream in(text(a) + " " + text(SockAddress("10.0.0.1", 65535)));
    SockAddress b, c;
    ASSERT_TRUE(static_cast<bool>(in >> b >> c));
    EXPECT_EQ(a, b);
    EXPECT_EQ(SockAddress("10.0.0.1", 65535), c);
}

TEST(SockAddressTest, InputRules) {
    SockAddress a;
    // Extra "]" and ":" after the host are skipped; the bracket is optional.
    std::istringstream in1("[10.1.2.3]]::80");
    EXPECT_TRUE(static_cast<bool>(in1 >> a));
    EXPECT_EQ(SockAddress("10.1.2.3", 80), a);
    std::istringstream in2("10.1.2.4]:81");
    EXPECT_TRUE(static_cast<bool>(in2 >> a));
    EXPECT_EQ(SockAddress("10.1.2.4", 81), a);
    // Empty host is the any-address.
    std::istringstream in3("[]:5");
    EXPECT_TRUE(static_cast<bool>(in3 >> a));
    EXPECT_EQ(SockAddress("", 5), a);

    // No "]": not valid, the target is left as it was.
    const SockAddress before("1.2.3.4", 9);
    a = before;
    std::istringstream in4("1.2.3.4:80");
    EXPECT_FALSE(static_cast<bool>(in4 >> a));
    EXPECT_EQ(before, a);
    // Nothing to read at all.
    std::istringstream in5("   ");
    EXPECT_FALSE(static_cast<bool>(in5 >> a));
    EXPECT_EQ(before, a);
    // Unreadable port: the host is taken, the port becomes 0, the stream fails.
    std::istringstream in6("[5.6.7.8]:x");
    EXPECT_FALSE(static_cast<bool>(in6 >> a));
    EXPECT_EQ(SockAddress("5.6.7.8", 0), a);
    // The port is read from at most seven characters.
    std::istringstream in7("[5.6.7.8]:0000012345");
    in7 >> a;
    EXPECT_EQ(12, a.port());
}

TEST(SockAddressTest, OrderingAndEquality) {
    const SockAddress lowPort("10.0.0.1", 1000), highPort("10.0.0.1", 2000);
    EXPECT_NE(lowPort, highPort);
    EXPECT_TRUE(lowPort < highPort);
    EXPECT_FALSE(highPort < lowPort);
    EXPECT_FALSE(lowPort < lowPort);

    // Different addresses compare by the stored (network order) word first,
    // whatever the ports.
    const SockAddress x("10.0.0.1", 9000), y("10.0.0.2", 1);
    sockaddr_in sx{}, sy{};
    x.getSockAddr(sx);
    y.getSockAddr(sy);
    EXPECT_EQ(sx.sin_addr.s_addr < sy.sin_addr.s_addr, x < y);
    EXPECT_EQ(!(sx.sin_addr.s_addr < sy.sin_addr.s_addr), y < x);

    std::map<SockAddress, int> m;
    m[lowPort] = 1;
    m[highPort] = 2;
    m[SockAddress("10.0.0.1", 1000)] = 3;
    EXPECT_EQ(2u, m.size());
    EXPECT_EQ(3, m[lowPort]);
}

TEST(SockAddressTest, SetSockAddrTakesPortFromNetworkOrder) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(4242);
    sa.sin_addr.s_addr = inet_addr("127.0.0.1");
    SockAddress a;
    a.setSockAddr(sa);
    EXPECT_EQ(4242, a.port());
    EXPECT_EQ(SockAddress("127.0.0.1", 4242), a);
}

TEST(UdpSocketTest, ClosedSocketRefusesEverything) {
    UdpSocket s;
    EXPECT_FALSE(s.ok());
    uint8_t buf[8] = {1, 2, 3};
    EXPECT_EQ(-1, s.sendTo(SockAddress("127.0.0.1", 9), buf, sizeof(buf)));
    EXPECT_EQ(-1, s.recv(buf, sizeof(buf), nullptr));
    EXPECT_EQ(-1, s.recvWithTo(buf, sizeof(buf), nullptr, 0));
    EXPECT_FALSE(s.joinMCastGroup(SockAddress("224.68.12.8", 1881)));
    s.close();
    EXPECT_FALSE(s.ok());
}

TEST(UdpSocketTest, BindFailureLeavesSocketClosed) {
    UdpSocket first, second;
    const SockAddress taken = bindLoopback(first);
    ASSERT_TRUE(second.bind(SockAddress("127.0.0.1", 0), false));
    EXPECT_FALSE(second.bind(taken, false));
    EXPECT_FALSE(second.ok());
    uint8_t b = 0;
    EXPECT_EQ(-1, second.sendTo(taken, &b, 1));
}

TEST(UdpSocketTest, PollWithNothingWaitingReturnsZero) {
    UdpSocket s;
    bindLoopback(s);
    uint8_t buf[16];
    EXPECT_EQ(0, s.recvWithTo(buf, sizeof(buf), nullptr, 0));
    EXPECT_EQ(0, s.recvWithTo(buf, sizeof(buf), nullptr, 20));
}

TEST(UdpSocketTest, SendAndReceiveWithSenderAddress) {
    UdpSocket rx, tx;
    const SockAddress rxAddr = bindLoopback(rx);
    const SockAddress txAddr = bindLoopback(tx);

    uint8_t msg[5] = {'h', 'e', 'l', 'l', 'o'};
    EXPECT_EQ(-1, tx.sendTo(rxAddr, nullptr, 5));
    ASSERT_EQ(5, tx.sendTo(rxAddr, msg, sizeof(msg)));

    uint8_t buf[32] = {};
    SockAddress from;
    ASSERT_EQ(5, rx.recvWithTo(buf, sizeof(buf), &from, 2000));
    EXPECT_EQ(0, memcmp(buf, msg, 5));
    EXPECT_EQ(txAddr, from);

    // recv without a sender slot and with a null buffer.
    ASSERT_EQ(5, tx.sendTo(rxAddr, msg, sizeof(msg)));
    EXPECT_EQ(-1, rx.recv(nullptr, 10, nullptr));
    EXPECT_EQ(5, rx.recvWithTo(buf, sizeof(buf), nullptr, 2000));
}

TEST(UdpSocketTest, LongDatagramIsCutToCapacity) {
    UdpSocket rx, tx;
    const SockAddress rxAddr = bindLoopback(rx);
    bindLoopback(tx);

    std::vector<uint8_t> big(500);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i);
    ASSERT_EQ(500, tx.sendTo(rxAddr, big.data(), big.size()));

    uint8_t buf[401];
    memset(buf, 0xEE, sizeof(buf));
    ASSERT_EQ(400, rx.recvWithTo(buf, 400, nullptr, 2000));
    EXPECT_EQ(0, memcmp(buf, big.data(), 400));
    EXPECT_EQ(0xEE, buf[400]);
    // The rest of the datagram is gone; nothing else waits.
    EXPECT_EQ(0, rx.recvWithTo(buf, 400, nullptr, 0));
}

TEST(UdpSocketTest, RebindClosesThePreviousSocket) {
    UdpSocket s;
    const SockAddress first = bindLoopback(s);
    // Another loopback address, so the new port cannot be the old one.
    const SockAddress second = bindLoopback(s, "127.0.0.2");
    EXPECT_STREQ("127.0.0.2", second.ipAddr());
    // The first port is free again.
    UdpSocket other;
    EXPECT_TRUE(other.bind(first, false));
}
