// The hub under a service manager: this test binds the notify socket, starts
// velto-hub with NOTIFY_SOCKET and a short WATCHDOG_USEC, and expects READY=1
// once the start-up lines are out, keep-alives while the loop runs and
// STOPPING=1 on SIGTERM; without the variable the hub's output is the same,
// byte for byte. CTest runs it inside a private network namespace.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/child_process.h"
#include "tests/support/notify_listener.h"
#include "tests/support/test_support.h"

using namespace testsupport;

namespace {

const char* const STARTUP_LINES = "Successfully bind\nSuccessfully joined group\n";

TEST(HubService, ReadyKeepAlivesAndStoppingWithoutChangingTheOutput) {
    if (!insidePrivateNetwork()) GTEST_SKIP() << "run inside a private network namespace (tests/netns.sh)";
    TempDir dir;
    ASSERT_EQ(0, mkdir(dir.file("DB").c_str(), 0755));
    NotifyListener manager(dir.file("notify"));
    ASSERT_TRUE(manager.ok());
    ChildProcess hub;
    ASSERT_TRUE(hub.start({VELTO_HUB_BIN}, dir.path(), "managed",
                          {"NOTIFY_SOCKET=" + dir.file("notify"), "WATCHDOG_USEC=1000000"}));
    ASSERT_EQ("READY=1", manager.next(5000));
    EXPECT_EQ(STARTUP_LINES, hub.out()) << "written before the readiness";
    // Half a second apart, but the idle loop passes once a second.
    for (int i = 0; i < 3; ++i) EXPECT_EQ("WATCHDOG=1", manager.next(2500)) << i;
    EXPECT_EQ(0, hub.terminate());
    std::string last, d;
    while (!(d = manager.next(0)).empty()) last = d;
    EXPECT_EQ("STOPPING=1", last);
    const std::string managedOut = hub.out(), managedErr = hub.err();

    unsetenv("NOTIFY_SOCKET");
    ChildProcess plain;
    ASSERT_TRUE(plain.start({VELTO_HUB_BIN}, dir.path(), "plain", {"WATCHDOG_USEC=1000000"}));
    ASSERT_TRUE(plain.waitForOutput("Successfully joined group\n", 5000));
    sleepMs(1500);
    EXPECT_EQ(0, plain.terminate());
    EXPECT_EQ(STARTUP_LINES, plain.out());
    EXPECT_EQ(managedOut, plain.out());
    EXPECT_EQ("", managedErr + plain.err());
    EXPECT_EQ("", manager.next(0));
}

}  // namespace
