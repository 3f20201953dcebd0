#include "Velto/platform.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>

namespace {

bool allZero(const uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (p[i] != 0) return false;
    return true;
}

}  // namespace

TEST(PlatformTest, ClockIsEpochMillisecondsWithTestOffset) {
    using namespace std::chrono;
    const auto before = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    const Timestamp t = currentTime();
    const auto after = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    EXPECT_GE(static_cast<int64_t>(t), before);
    EXPECT_LE(static_cast<int64_t>(t), after);

    const int64_t hour = 3600 * 1000;
    setClockOffsetForTesting(hour);
    const Timestamp moved = currentTime();
    setClockOffsetForTesting(0);
    EXPECT_GE(moved, t + hour);
    EXPECT_LT(moved, t + hour + 60000);
    EXPECT_LT(currentTime(), moved);
}

TEST(PlatformTest, RandomData) {
    uint8_t buf[64] = {};
    EXPECT_TRUE(generateRandomData(0, buf));
    EXPECT_TRUE(allZero(buf, sizeof(buf)));
    EXPECT_FALSE(generateRandomData(8, nullptr));
    ASSERT_TRUE(generateRandomData(32, buf));
    EXPECT_FALSE(allZero(buf, 32));
    EXPECT_TRUE(allZero(buf + 32, 32));  // nothing past the count

    ByteArray<32> full, part, capped;
    ASSERT_TRUE(generateRandomData(full, 0));
    EXPECT_EQ(32u, full.size());
    EXPECT_FALSE(allZero(full.data(), 32));
    ASSERT_TRUE(generateRandomData(part, 5));
    EXPECT_EQ(5u, part.size());
    EXPECT_TRUE(allZero(part.data() + 5, 27));
    ASSERT_TRUE(generateRandomData(capped, 100));
    EXPECT_EQ(32u, capped.size());

    uint64_t a = 0, b = 0;
    uint32_t c = 0, d = 0, e = 0;
    ASSERT_TRUE(randomNumber(a) && randomNumber(b));
    EXPECT_NE(a, b);
    ASSERT_TRUE(randomNumber(c) && randomNumber(d) && randomNumber(e));
    EXPECT_FALSE(c == d && d == e);
}

// In a private network namespace: loopback only gives "", and an interface with
// the address 00:1a:0b:22:03:ff gives the unpadded form. Needs root and veth.
TEST(PlatformTest, MacAddressInPrivateNamespace) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        alarm(20);
        if (unshare(CLONE_NEWNET) != 0) _exit(77);
        if (!firstActiveMACAddr().empty()) _exit(1);
        if (std::system("ip link add v0 type veth peer name v1 >/dev/null 2>&1 && "
                        "ip link set v0 address 00:1a:0b:22:03:ff >/dev/null 2>&1 && "
                        "ip addr add 10.9.9.9/32 dev v0 >/dev/null 2>&1") != 0)
            _exit(77);
        _exit(firstActiveMACAddr() == "001ab223ff" ? 0 : 2);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no private network namespace or veth here";
    EXPECT_NE(1, WEXITSTATUS(status)) << "loopback-only namespace did not give the empty text";
    EXPECT_EQ(0, WEXITSTATUS(status)) << "wrong identity text for 00:1a:0b:22:03:ff";
}
