// A home across hub restarts: two velto-device simulators stay running while
// the hub is stopped (SIGTERM, SIGKILL) and started again on the same DB, or
// stays away for a minute. CTest runs this binary inside a private network
// namespace (tests/netns.sh).
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/device_scenario.h"

using namespace device;
using namespace testsupport;

namespace {

size_t countOf(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
    return n;
}

class HubRestart : public DeviceScenarioFixture {
protected:
    // Starts a simulator with one object and returns its node id (0 when it
    // did not join).
    DeviceID startDevice(ChildProcess& p, const std::string& duid) {
        if (!p.start({cli(), "--duid", duid, "--hub", "127.0.0.1", "--object", "o:x"}, work.path(), duid) ||
            !p.waitForOutput("joined hub", 8000))
            return 0;
        std::string out = p.out();
        return static_cast<DeviceID>(std::stoi(out.substr(out.find(" as node ") + 9)));
    }
    // Waits until p's output holds `needle` n times.
    static bool waitCount(ChildProcess& p, const std::string& needle, size_t n, int timeoutMs) {
        for (Timestamp end = currentTime() + static_cast<Timestamp>(timeoutMs); currentTime() < end; sleepMs(50))
            if (countOf(p.out(), needle) >= n) return true;
        return false;
    }
    static std::string backLine(DeviceID id) {
        return "rejoined hub [127.0.0.1]:1881 as node " + std::to_string(id) + " ";
    }
};

}  // namespace

// Each restart: one line lost and one back per device, within 15 s with the
// same node id; the subscription made before it still delivers, and a message
// sent while the session was lost arrives after the rejoin.
TEST_F(HubRestart, DevicesRejoinAfterSigtermAndSigkillWithSubscriptionsAndQueuedMessages) {
    startHub();
    ChildProcess lamp, sw;
    const DeviceID lampId = startDevice(lamp, "lamp-01"), swId = startDevice(sw, "switch-01");
    ASSERT_TRUE(lampId != 0 && swId != 0) << lamp.err() << sw.err() << hub.err();
    const std::string lampNode = std::to_string(lampId);
    sw.writeLine("subscribe " + lampNode + " 0 7");
    ASSERT_TRUE(sw.waitForOutput("subscribed ", 3000)) << sw.err();
    lamp.writeLine("notify 0 7 before");
    ASSERT_TRUE(sw.waitForOutput(": before\n", 5000)) << sw.out() << sw.err();

    for (size_t round = 1; round <= 2; ++round) {
        const std::string tag = std::to_string(round);
        const Timestamp stopped = currentTime();
        if (round == 1) { ASSERT_EQ(0, stopHub()) << hub.err(); }
        if (round == 2) hub.kill9();
        startHub("hub" + tag);
        ASSERT_TRUE(waitCount(sw, "lost the hub: ", round, 8000)) << sw.out() << sw.err();
        sw.writeLine("send " + lampNode + "/0 5 queued-" + tag);
        for (auto dev : {std::make_pair(&lamp, lampId), std::make_pair(&sw, swId)}) {
            ChildProcess& p = *dev.first;
            EXPECT_TRUE(waitCount(p, backLine(dev.second), round, 15000 - static_cast<int>(currentTime() - stopped)))
                << p.out() << p.err();
            EXPECT_EQ(round, countOf(p.out(), "lost the hub: ")) << "one line per loss: " << p.out();
            EXPECT_EQ(round, countOf(p.out(), "rejoined hub ")) << "one line per return: " << p.out();
        }
        printf("%s: both devices back %u ms after the stop\n", round == 1 ? "SIGTERM" : "SIGKILL",
               static_cast<unsigned>(currentTime() - stopped));
        lamp.writeLine("notify 0 7 after-" + tag);
        EXPECT_TRUE(sw.waitForOutput(": after-" + tag + "\n", 8000)) << sw.out() << sw.err() << hub.err();
        EXPECT_TRUE(std::regex_search(
            sw.out(), std::regex("\nnotification from " + lampNode + "/0 event 7 [^\n]*: after-" + tag + "\n")));
        EXPECT_TRUE(lamp.waitForOutput(": queued-" + tag + "\n", 8000)) << lamp.out() << lamp.err();
        EXPECT_TRUE(std::regex_search(lamp.out(), std::regex("\nmessage from " + std::to_string(swId) + "/0 to " +
                                                             lampNode + "/0 id 5 [^\n]*: queued-" + tag + "\n")));
    }
    sw.writeLine("quit");
    lamp.closeInput();
    EXPECT_EQ(0, sw.waitExit(10000)) << sw.err();
    EXPECT_EQ(0, lamp.waitExit(10000)) << lamp.out() << lamp.err();
}

// While the hub is away (a silent socket in its place counts the
// announcements), the devices try again after growing pauses of at most 30 s,
// and join the hub when it is back.
TEST_F(HubRestart, DevicesKeepTryingWithGrowingPausesWhileTheHubIsAwayForAMinute) {
    startHub();
    ChildProcess a, b;
    const DeviceID idA = startDevice(a, "dev-a"), idB = startDevice(b, "dev-b");
    ASSERT_TRUE(idA != 0 && idB != 0) << a.err() << b.err() << hub.err();
    hub.kill9();
    UdpSocket stand;
    ASSERT_TRUE(stand.bind(SockAddress("127.0.0.1", HUB_PORT), false));
    std::map<uint16_t, std::vector<Timestamp>> announced;  // by the device's port
    uint8_t buf[MAX_PACKET_SIZE];
    for (Timestamp end = currentTime() + 60000; currentTime() < end;) {
        SockAddress from;
        int n = stand.recvWithTo(buf, sizeof(buf), &from, 100);
        if (n > 0 && buf[0] == NewBornDevicePack::PACK_ID) announced[from.port()].push_back(currentTime());
    }
    stand.close();
    startHub("hub2");
    EXPECT_TRUE(waitCount(a, backLine(idA), 1, 35000)) << a.out() << a.err();
    EXPECT_TRUE(waitCount(b, backLine(idB), 1, 35000)) << b.out() << b.err();

    ASSERT_EQ(2u, announced.size());
    for (const auto& dev : announced) {
        const std::vector<Timestamp>& at = dev.second;
        ASSERT_GE(at.size(), 4u) << "kept trying";
        EXPECT_LE(at.size(), 60u) << "at most one announcement a second";
        // Pauses double (with jitter) until they reach the cap of 30 s.
        for (size_t i = 1; i < at.size(); ++i) {
            EXPECT_LE(at[i] - at[i - 1], 30200u) << "pause " << i;
            if (i == 2 || i == 3) { EXPECT_GE(at[i] - at[i - 1] + 100, at[i - 1] - at[i - 2]) << "pause " << i; }
        }
        printf("device port %u: %zu announcements in a minute\n", dev.first, at.size());
    }
}
