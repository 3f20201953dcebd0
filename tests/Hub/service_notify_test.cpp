// Notify datagrams: the socket names that reach a listener and those that
// disable the notifier, the keep-alive cadence, the environment it reads, and
// the one warning a failing socket earns.
#include "Hub/service_notify.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "tests/support/notify_listener.h"
#include "tests/support/test_support.h"

using namespace testsupport;

TEST(ServiceNotifier, PathsAndAbstractNamesReachTheListenerOtherNamesDisable) {
    TempDir dir;
    const std::string abstractName = "@velto-notify-test-" + std::to_string(getpid());
    for (const std::string& name : {dir.file("notify"), abstractName}) {
        NotifyListener manager(name);
        ASSERT_TRUE(manager.ok()) << name;
        ServiceNotifier n(name, 0);
        EXPECT_TRUE(n.notify("READY=1")) << name;
        EXPECT_EQ("READY=1", manager.next(1000)) << name;
    }
    for (const std::string& name : {std::string(""), std::string("@"), std::string("rel/n"), "/" + std::string(107, 'x')}) {
        ServiceNotifier n(name, 1000000);
        EXPECT_FALSE(n.enabled() || n.notify("READY=1") || n.keepAliveIntervalMs() != 0) << name;
    }
}

TEST(ServiceNotifier, KeepAlivesGoOutAtHalfTheWatchdogPeriod) {
    TempDir dir;
    NotifyListener manager(dir.file("notify"));
    ServiceNotifier n(dir.file("notify"), 2000000);
    const struct { Timestamp now; bool sent; } passes[] = {
        {5000, true}, {5999, false}, {6000, true}, {6001, false}, {9000, true}};
    for (const auto& p : passes) {
        n.keepAlive(p.now);
        EXPECT_EQ(p.sent ? "WATCHDOG=1" : "", manager.next(p.sent ? 1000 : 0)) << p.now;
    }
    ServiceNotifier(dir.file("notify"), 0).keepAlive(5000);
    EXPECT_EQ("", manager.next(0)) << "no watchdog asked for";
}

TEST(ServiceNotifier, EnvironmentAndFailingSocket) {
    TempDir dir;
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ("", stderrOf([] { EXPECT_FALSE(ServiceNotifier::fromEnvironment().enabled()); }));
    setenv("NOTIFY_SOCKET", dir.file("absent").c_str(), 1);
    setenv("WATCHDOG_USEC", "3000000", 1);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    ServiceNotifier ours = ServiceNotifier::fromEnvironment();
    EXPECT_EQ(1500u, ours.keepAliveIntervalMs());
    setenv("WATCHDOG_PID", "1", 1);
    EXPECT_EQ(0u, ServiceNotifier::fromEnvironment().keepAliveIntervalMs()) << "meant for another process";
    const std::string err = stderrOf([&] { EXPECT_FALSE(ours.notify("READY=1") || ours.notify("STOPPING=1")); });
    EXPECT_EQ(0u, err.find("WARNING: cannot notify the service manager: "));
    EXPECT_EQ(1, std::count(err.begin(), err.end(), '\n')) << err;
}
