// Loopback UDP: address text forms, receive with cutting, and batch receive.
#include "Velto/UdpSocket.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
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

TEST(SockAddressTest, TextFormAndInputRules) {
    EXPECT_EQ("[0.0.0.0]:1881", text(SockAddress("*", 1881, nullptr)));
    EXPECT_STREQ("255.255.255.255", SockAddress("**", 1).ipAddr());  // only "*" means any
    SockAddress a;
    EXPECT_TRUE(parse(text(SockAddress("192.168.1.20", 1881)), a));
    EXPECT_EQ(SockAddress("192.168.1.20", 1881), a);
    EXPECT_TRUE(parse("10.1.2.4]]::81", a));  // "[" optional, extra "]" and ":" skipped
    EXPECT_EQ(SockAddress("10.1.2.4", 81), a);
    parse("[5.6.7.8]:0000012345", a);  // at most seven port characters
    EXPECT_EQ(12, a.port());
    const SockAddress before("1.2.3.4", 9);
    a = before;
    EXPECT_FALSE(parse("1.2.3.4:80", a));  // no "]": invalid, target unchanged
    EXPECT_EQ(before, a);
}

TEST(UdpSocketTest, SendReceiveCut) {
    UdpSocket rx, tx;
    const SockAddress rxAddr = bindLoopback(rx);
    const SockAddress txAddr = bindLoopback(tx, "127.0.0.2");
    uint8_t buf[401];
    EXPECT_EQ(0, rx.recvWithTo(buf, 400, nullptr, 0));  // nothing waiting
    std::vector<uint8_t> big(500);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i);
    ASSERT_EQ(500, tx.sendTo(rxAddr, big.data(), big.size()));
    memset(buf, 0xEE, sizeof(buf));
    SockAddress from;
    ASSERT_EQ(400, rx.recvWithTo(buf, 400, &from, 2000));
    EXPECT_EQ(0, memcmp(buf, big.data(), 400));
    EXPECT_EQ(0xEE, buf[400]);
    EXPECT_EQ(txAddr, from);
    EXPECT_EQ(0, rx.recvNoWait(buf, 400, nullptr));  // the rest is gone
}

TEST(UdpSocketTest, BatchReceiveKeepsOrderSizesAndSenders) {
    UdpSocket rx, a, b;
    const SockAddress rxAddr = bindLoopback(rx);
    const SockAddress aAddr = bindLoopback(a, "127.0.0.2");
    const SockAddress bAddr = bindLoopback(b, "127.0.0.3");
    uint8_t buffers[3 * 8];
    int sizes[3] = {-5, -5, -5};
    SockAddress froms[3];
    uint8_t one[3] = {1, 1, 1}, two[10] = {2, 2, 2, 2, 2, 2, 2, 2, 2, 2}, three[1] = {3};
    ASSERT_EQ(3, a.sendTo(rxAddr, one, sizeof(one)));
    ASSERT_EQ(10, b.sendTo(rxAddr, two, sizeof(two)));
    ASSERT_EQ(1, a.sendTo(rxAddr, three, sizeof(three)));
    ASSERT_EQ(2, rx.recvBatchNoWait(buffers, 8, 2, sizes, froms));
    EXPECT_EQ(3, sizes[0]);
    EXPECT_EQ(aAddr, froms[0]);
    EXPECT_EQ(8, sizes[1]);  // cut to the capacity
    EXPECT_EQ(0, memcmp(buffers + 8, two, 8));
    EXPECT_EQ(bAddr, froms[1]);
    EXPECT_EQ(-5, sizes[2]);
    ASSERT_EQ(1, rx.recvBatchNoWait(buffers, 8, 3, sizes, froms));
    EXPECT_EQ(3, buffers[0]);
    EXPECT_EQ(0, rx.recvBatchWait(buffers, 8, 3, sizes, froms, 1000));  // time-out: 0
}

// The waits use poll(): a socket numbered above select()'s limit still works.
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
