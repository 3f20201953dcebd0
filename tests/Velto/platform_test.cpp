// The clock with its test offset, and the hardware identity text.
#include "Velto/platform.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

TEST(PlatformTest, ClockIsEpochMillisecondsWithTestOffset) {
    const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                         std::chrono::system_clock::now().time_since_epoch()).count();
    const Timestamp t = currentTime();
    EXPECT_LT(std::llabs(static_cast<long long>(t) - now), 1000);
    setClockOffsetForTesting(3600 * 1000);
    const Timestamp moved = currentTime();
    setClockOffsetForTesting(0);
    EXPECT_GE(moved, t + 3600 * 1000);
    EXPECT_LT(moved, t + 3600 * 1000 + 60000);
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
