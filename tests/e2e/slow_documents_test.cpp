// Devices whose specification documents come from servers that hang, drip a
// byte a second or send 10 MiB: the hub keeps serving everyone else while
// their downloads run, configures them without rights within the bounds, rests
// the failed documents, and stops at once on SIGTERM. Also the order of a new
// device's synced record against its join acceptance (under strace). Runs the
// real hub inside a private network namespace (tests/netns.sh).
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/device_scenario.h"
#include "tests/support/http_server.h"

using namespace device;
using namespace testsupport;

namespace {

class SlowDocuments : public DeviceScenarioFixture {
protected:
    void SetUp() override {
        setenv("no_proxy", "*", 1);  // the hub inherits it: no proxy takes the traffic
        DeviceScenarioFixture::SetUp();
    }
    static std::string specsOn(const HttpServer& s, const char* path) {
        return "localhost:" + std::to_string(s.port()) + path;
    }
    DeviceSession& slowDevice(const std::string& duid, const std::string& specs) {
        DeviceConfig c = config(duid);
        c.specs = specs;
        DeviceSession& d = device(c);
        d.start();
        return d;
    }
    bool hubSaid(const std::string& text) const { return hub.out().find(text) != std::string::npos; }
    // Device-list round trips of asker until every session is READY or
    // timeoutMs passed; the longest one, ms (a list that never came: timeout).
    Timestamp longestRoundTripUntilAllReady(DeviceSession& asker, int timeoutMs) {
        const Timestamp end = currentTime() + static_cast<Timestamp>(timeoutMs);
        Timestamp worst = 0;
        while (!allReady() && currentTime() < end) {
            const Timestamp sent = currentTime();
            BasicDeviceListMsg list;
            if (!asker.requestDeviceList(list, 1000)) return 1000;
            worst = std::max(worst, currentTime() - sent);
            pumpFor(20);
        }
        return worst;
    }
};

}  // namespace

// Bounds: 30 s per document over its four addresses, 5 s to connect, 1 MiB.
TEST_F(SlowDocuments, MisbehavingServersHoldUpOnlyTheirOwnDevices) {
    HttpServer hang({}, HttpServer::HANG), drip({}, HttpServer::DRIP), huge({}, HttpServer::HUGE);
    ASSERT_TRUE(hang.ok() && drip.ok() && huge.ok());
    startHub();
    DeviceSession& asker = device(config("asker-01"));
    ASSERT_TRUE(joinAll()) << hub.err();

    // failure: the line of the address at which the bound stopped the download.
    struct Case { HttpServer& server; const char* duid; std::string failure; } cases[] = {
        // 5 s for each TLS handshake that never ends, the rest of the 30 s on the plain request.
        {hang, "hang-01", "Downloading http://" + specsOn(hang, "/a") + "/device.spec ... Failed. Error data size=0\n"
                          "Downloading stopped: 30 s spent on this document, 1 address(es) not tried\n"},
        {drip, "drip-01", "Downloading http://" + specsOn(drip, "/a") + "/device.spec ... Failed. Timed out with "},
        {huge, "huge-01",
         "Downloading http://" + specsOn(huge, "/a") + "/device.spec ... Failed. Document larger than 1048576 bytes"},
    };
    for (Case& c : cases) slowDevice(c.duid, specsOn(c.server, "/a"));

    const Timestamp worst = longestRoundTripUntilAllReady(asker, 40000);
    ASSERT_TRUE(allReady()) << "configured within the 30 s bound\n" << hub.out();
    EXPECT_LT(worst, 50u) << "the other device was served throughout";
    for (Case& c : cases) {
        EXPECT_TRUE(hubSaid(c.failure)) << c.duid << "\n" << hub.out();
        EXPECT_TRUE(hubSaid("Failed to Load Rights for dev: " + specsOn(c.server, "/a") + " iface: \n")) << c.duid;
    }

    // A rejoin within 10 minutes takes the failure at once, without a connection.
    const size_t hugeConnections = huge.connections().size();
    sessions.clear();
    DeviceSession& again = device(config("asker-02"));
    again.start();
    slowDevice("huge-01", specsOn(huge, "/a"));
    ASSERT_TRUE(pumpUntil([&] { return allReady(); }, 8000)) << hub.out();
    EXPECT_TRUE(hubSaid("Downloading " + specsOn(huge, "/a") + " skipped: it failed "));
    EXPECT_EQ(hugeConnections, huge.connections().size());

    // SIGTERM while a download hangs: the hub exits without waiting for it.
    slowDevice("hang-02", specsOn(hang, "/b"));
    ASSERT_TRUE(pumpUntil([&] { return hubSaid("Received ObjectInfo for objectNo: 1 "); }, 5000));
    pumpFor(300);
    const Timestamp stopAsked = currentTime();
    EXPECT_EQ(0, stopHub());
    EXPECT_LT(currentTime() - stopAsked, 5000u);
}

// The record of a new device is synced (file, rename, directory) between its
// adoption offer and its join acceptance: the first record is renamed into
// place twice, the second time between two fsyncs, and only then does the
// acceptance go to the device's port.
TEST_F(SlowDocuments, JoinAcceptanceLeavesAfterTheRecordIsSynced) {
    if (access("/usr/bin/strace", X_OK) != 0) GTEST_SKIP() << "strace is not installed";
    const std::string trace = work.file("trace");
    // A leak check cannot run in a traced process (sanitizer builds).
    const char* asan = getenv("ASAN_OPTIONS");
    const std::string noLeakCheck = std::string("ASAN_OPTIONS=") + (asan ? asan : "") + ":detect_leaks=0";
    ASSERT_TRUE(hub.start({"/usr/bin/strace", "-f", "-qq", "-o", trace, "-e", "trace=fsync,rename,sendto,sendmmsg",
                           VELTO_HUB_BIN},
                          work.path(), "hub", {noLeakCheck}));
    ASSERT_TRUE(hub.waitForOutput("Successfully bind", 5000)) << hub.err();
    DeviceSession& d = device(config("sync-01"));
    ASSERT_TRUE(joinAll()) << hub.err();
    sockaddr_in self{};
    socklen_t len = sizeof(self);
    ASSERT_EQ(0, getsockname(d.handle(), reinterpret_cast<sockaddr*>(&self), &len));
    const std::string toDevice = "htons(" + std::to_string(ntohs(self.sin_port)) + ")";
    // The hub itself gets the SIGTERM (strace would only detach from it); strace ends with it.
    std::ifstream children("/proc/" + std::to_string(hub.id()) + "/task/" + std::to_string(hub.id()) + "/children");
    pid_t hubPid = 0;
    ASSERT_TRUE(children >> hubPid);
    kill(hubPid, SIGTERM);
    EXPECT_EQ(0, hub.waitExit(5000));

    std::vector<std::string> lines;
    std::ifstream in(trace);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    std::vector<size_t> sends, syncedRenames;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].find(toDevice) != std::string::npos) sends.push_back(i);
        const bool renamed = lines[i].find("rename(\"DB/sync-01.dev.tmp\", \"DB/sync-01.dev\") = 0") != std::string::npos;
        if (renamed && i > 0 && i + 1 < lines.size() && lines[i - 1].find("fsync(") != std::string::npos &&
            lines[i + 1].find("fsync(") != std::string::npos)
            syncedRenames.push_back(i);
    }
    ASSERT_EQ(1u, syncedRenames.size()) << readFile(trace);
    ASSERT_GE(sends.size(), 2u) << "offer and acceptance";
    EXPECT_LT(sends.front(), syncedRenames[0]) << "the offer left before";
    EXPECT_GT(sends.back(), syncedRenames[0]) << "the acceptance left after";
}
