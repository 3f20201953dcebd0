#include "Velto/UdpSocket.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <map>
#include <sstream>
#include <thread>
#include <vector>

#include "tests/support/device_sim.h"

namespace {

std::string text(const SockAddress& a) {
    std::ostringstream os;
    os << a;
    return os.str();
}

// Reads one address from `in`; the stream state tells whether it was valid.
bool parse(const std::string& in, SockAddress& a) {
    std::istringstream is(in);
    return static_cast<bool>(is >> a);
}

// Binds `s` to a loopback address on a free port and returns that address.
SockAddress bindLoopback(UdpSocket& s, const char* host = "127.0.0.1") {
    EXPECT_TRUE(s.bind(SockAddress(host, 0), false));
    return SockAddress(host, testsupport::boundPort(s));
}

}  // namespace

TEST(SockAddressTest, AnyAddressAndTextForm) {
    for (const char* host : {static_cast<const char*>(nullptr), "", "*"})
        EXPECT_EQ("[0.0.0.0]:1881", text(SockAddress(host, 1881, nullptr)));
    EXPECT_EQ("[0.0.0.0]:0", text(SockAddress()));
    EXPECT_STREQ("255.255.255.255", SockAddress("**", 1).ipAddr());  // only "*" means any
    EXPECT_EQ("[192.168.1.20]:1881", text(SockAddress("192.168.1.20", 1881)));

    SockAddress a, b;
    std::istringstream in(text(SockAddress("192.168.1.20", 1881)) + " [10.0.0.1]:65535");
    ASSERT_TRUE(static_cast<bool>(in >> a >> b));
    EXPECT_EQ(SockAddress("192.168.1.20", 1881), a);
    EXPECT_EQ(SockAddress("10.0.0.1", 65535), b);
}

TEST(SockAddressTest, InputRules) {
    SockAddress a;
    EXPECT_TRUE(parse("[10.1.2.3]]::80", a));  // extra "]" and ":" skipped
    EXPECT_EQ(SockAddress("10.1.2.3", 80), a);
    EXPECT_TRUE(parse("10.1.2.4]:81", a));  // the "[" is optional
    EXPECT_EQ(SockAddress("10.1.2.4", 81), a);
    EXPECT_TRUE(parse("[]:5", a));
    EXPECT_EQ(SockAddress("", 5), a);
    parse("[5.6.7.8]:0000012345", a);  // at most seven port characters
    EXPECT_EQ(12, a.port());

    // No "]" or nothing at all: invalid, target unchanged.
    const SockAddress before("1.2.3.4", 9);
    a = before;
    EXPECT_FALSE(parse("1.2.3.4:80", a));
    EXPECT_FALSE(parse("  ", a));
    EXPECT_EQ(before, a);
    EXPECT_FALSE(parse("[5.6.7.8]:x", a));  // host taken, port 0
    EXPECT_EQ(SockAddress("5.6.7.8", 0), a);
}

TEST(SockAddressTest, OrderingAndEquality) {
    const SockAddress low("10.0.0.1", 1000), high("10.0.0.1", 2000);
    EXPECT_TRUE(low < high);
    EXPECT_FALSE(high < low);
    EXPECT_FALSE(low < low);
    // Addresses compare first, by the stored network-order word.
    const SockAddress x("10.0.0.1", 9000), y("10.0.0.2", 1);
    sockaddr_in sx{}, sy{};
    x.getSockAddr(sx);
    y.getSockAddr(sy);
    EXPECT_EQ(sx.sin_addr.s_addr < sy.sin_addr.s_addr, x < y);

    std::map<SockAddress, int> m{{low, 1}, {high, 2}};
    m[SockAddress("10.0.0.1", 1000)] = 3;
    EXPECT_EQ(2u, m.size());
    EXPECT_EQ(3, m[low]);
}

TEST(UdpSocketTest, ClosedOrFailedSocketRefusesEverything) {
    UdpSocket s;
    uint8_t buf[8] = {1, 2, 3};
    EXPECT_EQ(-1, s.sendTo(SockAddress("127.0.0.1", 9), buf, sizeof(buf)));
    EXPECT_EQ(-1, s.recv(buf, sizeof(buf), nullptr));
    EXPECT_EQ(-1, s.recvWithTo(buf, sizeof(buf), nullptr, 0));
    EXPECT_FALSE(s.joinMCastGroup(SockAddress("224.68.12.8", 1881)));

    UdpSocket first;
    const SockAddress taken = bindLoopback(first);
    bindLoopback(s);
    EXPECT_FALSE(s.bind(taken, false));  // a failed bind leaves it closed
    EXPECT_FALSE(s.ok());
    EXPECT_EQ(-1, s.sendTo(taken, buf, 1));
}

TEST(UdpSocketTest, SendReceiveCutAndPoll) {
    UdpSocket rx, tx;
    const SockAddress rxAddr = bindLoopback(rx);
    const SockAddress txAddr = bindLoopback(tx, "127.0.0.2");
    uint8_t buf[401];
    EXPECT_EQ(0, rx.recvWithTo(buf, 400, nullptr, 0));  // nothing waiting

    uint8_t msg[5] = {'h', 'e', 'l', 'l', 'o'};
    EXPECT_EQ(-1, tx.sendTo(rxAddr, nullptr, 5));
    ASSERT_EQ(5, tx.sendTo(rxAddr, msg, sizeof(msg)));
    SockAddress from;
    ASSERT_EQ(5, rx.recvWithTo(buf, 400, &from, 2000));
    EXPECT_EQ(0, memcmp(buf, msg, 5));
    EXPECT_EQ(txAddr, from);

    std::vector<uint8_t> big(500);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i);
    ASSERT_EQ(500, tx.sendTo(rxAddr, big.data(), big.size()));
    memset(buf, 0xEE, sizeof(buf));
    ASSERT_EQ(400, rx.recvWithTo(buf, 400, nullptr, 2000));
    EXPECT_EQ(0, memcmp(buf, big.data(), 400));
    EXPECT_EQ(0xEE, buf[400]);
    EXPECT_EQ(0, rx.recvWithTo(buf, 400, nullptr, 0));  // the rest is gone
}

TEST(UdpSocketTest, ReceiveWithoutWaitAndShortWaits) {
    UdpSocket rx, tx;
    const SockAddress rxAddr = bindLoopback(rx);
    const SockAddress txAddr = bindLoopback(tx, "127.0.0.2");
    uint8_t buf[400];
    EXPECT_EQ(0, rx.recvNoWait(buf, sizeof(buf), nullptr));  // nothing queued: 0 at once
    EXPECT_EQ(0, rx.waitReadable(200));
    EXPECT_EQ(-1, rx.recvNoWait(nullptr, sizeof(buf), nullptr));

    uint8_t msg[3] = {7, 8, 9};
    ASSERT_EQ(3, tx.sendTo(rxAddr, msg, sizeof(msg)));
    ASSERT_EQ(3, tx.sendTo(rxAddr, msg, sizeof(msg)));
    EXPECT_EQ(1, rx.waitReadable(2000000));
    EXPECT_EQ(1, rx.waitReadable(0));  // the datagram is still there
    SockAddress from;
    ASSERT_EQ(3, rx.recvNoWait(buf, sizeof(buf), &from));
    EXPECT_EQ(txAddr, from);
    from = SockAddress();
    ASSERT_EQ(2, rx.recvNoWait(buf, 2, &from));  // cut to the capacity
    EXPECT_EQ(txAddr, from);
    EXPECT_EQ(0, rx.recvNoWait(buf, sizeof(buf), nullptr));

    UdpSocket closed;
    EXPECT_EQ(-1, closed.recvNoWait(buf, sizeof(buf), nullptr));
    EXPECT_EQ(-1, closed.waitReadable(0));
}

// select() cannot watch a descriptor of 1024 or more; the waits must still work there.
TEST(UdpSocketTest, WaitsWorkOnDescriptorsAbove1024) {
    rlimit lim{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &lim));
    if (lim.rlim_cur < 1100) {
        rlimit raised = lim;
        raised.rlim_cur = lim.rlim_max < 1100 ? lim.rlim_max : 1100;
        if (raised.rlim_cur < 1100 || setrlimit(RLIMIT_NOFILE, &raised) != 0)
            GTEST_SKIP() << "cannot open 1100 descriptors here";
    }
    std::vector<int> filler;
    for (int i = 0; i < 1030; ++i) {
        const int fd = dup(0);
        if (fd < 0) break;
        filler.push_back(fd);
    }
    UdpSocket rx, tx;
    const SockAddress rxAddr = bindLoopback(rx);
    bindLoopback(tx);
    EXPECT_GE(rx.handle(), 1024);
    uint8_t buf[16];
    EXPECT_EQ(0, rx.recvWithTo(buf, sizeof(buf), nullptr, 0));
    uint8_t msg[4] = {1, 2, 3, 4};
    ASSERT_EQ(4, tx.sendTo(rxAddr, msg, sizeof(msg)));
    EXPECT_EQ(4, rx.recvWithTo(buf, sizeof(buf), nullptr, 2000));
    for (int fd : filler) close(fd);
    setrlimit(RLIMIT_NOFILE, &lim);
}

TEST(UdpSocketTest, BatchReceiveKeepsOrderSizesAndSenders) {
    UdpSocket rx, a, b;
    const SockAddress rxAddr = bindLoopback(rx);
    const SockAddress aAddr = bindLoopback(a, "127.0.0.2");
    const SockAddress bAddr = bindLoopback(b, "127.0.0.3");
    uint8_t buffers[3 * 8];
    int sizes[3] = {-5, -5, -5};
    SockAddress froms[3];
    EXPECT_EQ(0, rx.recvBatchNoWait(buffers, 8, 3, sizes, froms));  // nothing queued
    EXPECT_EQ(-1, rx.recvBatchNoWait(nullptr, 8, 3, sizes, froms));
    EXPECT_EQ(-1, UdpSocket().recvBatchNoWait(buffers, 8, 3, sizes, froms));

    const uint8_t one[3] = {1, 1, 1}, two[10] = {2, 2, 2, 2, 2, 2, 2, 2, 2, 2}, three[1] = {3};
    ASSERT_EQ(3, a.sendTo(rxAddr, const_cast<uint8_t*>(one), sizeof(one)));
    ASSERT_EQ(10, b.sendTo(rxAddr, const_cast<uint8_t*>(two), sizeof(two)));
    ASSERT_EQ(1, a.sendTo(rxAddr, const_cast<uint8_t*>(three), sizeof(three)));
    // Loopback delivers within sendTo: all three are queued now.
    ASSERT_EQ(2, rx.recvBatchNoWait(buffers, 8, 2, sizes, froms));
    EXPECT_EQ(3, sizes[0]);
    EXPECT_EQ(0, memcmp(buffers, one, 3));
    EXPECT_EQ(aAddr, froms[0]);
    EXPECT_EQ(8, sizes[1]);  // cut to the capacity
    EXPECT_EQ(0, memcmp(buffers + 8, two, 8));
    EXPECT_EQ(bAddr, froms[1]);
    EXPECT_EQ(-5, sizes[2]);
    ASSERT_EQ(1, rx.recvBatchNoWait(buffers, 8, 3, sizes, froms));
    EXPECT_EQ(1, sizes[0]);
    EXPECT_EQ(3, buffers[0]);
    EXPECT_EQ(aAddr, froms[0]);
    EXPECT_EQ(0, rx.recvBatchNoWait(buffers, 8, 3, sizes, froms));
}

// The waiting batch receive: a time-out gives 0 after roughly the asked time
// (rounded up to a clock tick, never more than a few), a queued datagram comes
// at once, and one sent during the wait ends it.
TEST(UdpSocketTest, WaitingBatchReceive) {
    UdpSocket rx, tx;
    const SockAddress rxAddr = bindLoopback(rx);
    bindLoopback(tx, "127.0.0.2");
    uint8_t buffers[4 * 8];
    int sizes[4];
    SockAddress froms[4];
    using Clock = std::chrono::steady_clock;
    const auto t0 = Clock::now();
    EXPECT_EQ(0, rx.recvBatchWait(buffers, 8, 4, sizes, froms, 1000));
    const auto waited = Clock::now() - t0;
    EXPECT_GE(waited, std::chrono::microseconds(500));
    EXPECT_LT(waited, std::chrono::milliseconds(500));
    EXPECT_EQ(0, rx.recvBatchWait(buffers, 8, 4, sizes, froms, 0));  // 0: no wait at all

    uint8_t msg[2] = {4, 5};
    ASSERT_EQ(2, tx.sendTo(rxAddr, msg, sizeof(msg)));
    ASSERT_EQ(2, tx.sendTo(rxAddr, msg, sizeof(msg)));
    EXPECT_EQ(2, rx.recvBatchWait(buffers, 8, 4, sizes, froms, 1000000));  // both, at once
    EXPECT_EQ(2, sizes[1]);

    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        tx.sendTo(rxAddr, msg, sizeof(msg));
    });
    EXPECT_EQ(1, rx.recvBatchWait(buffers, 8, 4, sizes, froms, 5000000));
    late.join();
    EXPECT_EQ(-1, UdpSocket().recvBatchWait(buffers, 8, 4, sizes, froms, 1000));
}

TEST(UdpSocketTest, HeldSendsGoOutTogetherInTheirOrder) {
    UdpSocket rx, tx;
    const SockAddress rxAddr = bindLoopback(rx);
    bindLoopback(tx);
    EXPECT_EQ(0, tx.releaseSends());  // nothing held: nothing to do
    tx.holdSends();
    uint8_t msg[3] = {1, 2, 3};
    for (uint8_t i = 0; i < 3; ++i) {
        msg[0] = i;
        EXPECT_EQ(3, tx.sendTo(rxAddr, msg, sizeof(msg)));
    }
    uint8_t buf[600];
    EXPECT_EQ(0, rx.recvNoWait(buf, sizeof(buf), nullptr)) << "held datagrams went out early";
    EXPECT_EQ(-1, tx.sendTo(rxAddr, nullptr, 3));
    std::vector<uint8_t> big(UdpSocket::MAX_HELD_SIZE + 1, 9);  // too big to hold: the held ones go first
    EXPECT_EQ(static_cast<int>(big.size()), tx.sendTo(rxAddr, big.data(), big.size()));
    msg[0] = 7;
    EXPECT_EQ(3, tx.sendTo(rxAddr, msg, sizeof(msg)));
    EXPECT_EQ(1, tx.releaseSends());
    for (uint8_t i = 0; i < 3; ++i) {
        ASSERT_EQ(3, rx.recvWithTo(buf, sizeof(buf), nullptr, 2000));
        EXPECT_EQ(i, buf[0]);
    }
    ASSERT_EQ(static_cast<int>(big.size()), rx.recvWithTo(buf, sizeof(buf), nullptr, 2000));
    ASSERT_EQ(3, rx.recvWithTo(buf, sizeof(buf), nullptr, 2000));
    EXPECT_EQ(7, buf[0]);

    // After the release sends go straight out again; a full hold is sent to make room.
    EXPECT_EQ(3, tx.sendTo(rxAddr, msg, sizeof(msg)));
    EXPECT_EQ(3, rx.recvWithTo(buf, sizeof(buf), nullptr, 2000));
    tx.holdSends();
    for (size_t i = 0; i <= UdpSocket::MAX_BATCH; ++i) EXPECT_EQ(3, tx.sendTo(rxAddr, msg, sizeof(msg)));
    EXPECT_EQ(1, tx.releaseSends());
    int got = 0;
    while (got < 100 && rx.recvNoWait(buf, sizeof(buf), nullptr) == 3) ++got;
    EXPECT_EQ(static_cast<int>(UdpSocket::MAX_BATCH) + 1, got);

    // Holds nest: an inner release sends nothing, the outer one everything.
    tx.holdSends();
    EXPECT_EQ(3, tx.sendTo(rxAddr, msg, sizeof(msg)));
    tx.holdSends();
    EXPECT_EQ(3, tx.sendTo(rxAddr, msg, sizeof(msg)));
    EXPECT_EQ(0, tx.releaseSends());
    EXPECT_EQ(0, rx.recvNoWait(buf, sizeof(buf), nullptr)) << "an inner release sent";
    EXPECT_EQ(2, tx.releaseSends());
    EXPECT_EQ(3, rx.recvWithTo(buf, sizeof(buf), nullptr, 2000));
    EXPECT_EQ(3, rx.recvWithTo(buf, sizeof(buf), nullptr, 2000));
    EXPECT_EQ(0, tx.releaseSends());
}

TEST(UdpSocketTest, ReceiveBufferGrows) {
    UdpSocket s;
    EXPECT_FALSE(s.setReceiveBuffer(1 << 20));  // not open
    bindLoopback(s);
    int before = 0;
    socklen_t len = sizeof(before);
    ASSERT_EQ(0, getsockopt(s.handle(), SOL_SOCKET, SO_RCVBUF, &before, &len));
    ASSERT_TRUE(s.setReceiveBuffer(4 << 20));
    int after = 0;
    ASSERT_EQ(0, getsockopt(s.handle(), SOL_SOCKET, SO_RCVBUF, &after, &len));
    if (geteuid() == 0) {
        EXPECT_GE(after, 4 << 20);  // beyond the system's cap only for a privileged process
    }
    EXPECT_GE(after, before);
    EXPECT_FALSE(s.setReceiveBuffer(0));
}
