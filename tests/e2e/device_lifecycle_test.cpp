// The hub's life as its devices see it: the liveness probe that removes a
// silent device, a restart on the same DB, and the stop with SIGTERM that
// writes the records out. Every test starts velto-hub in a fresh temporary
// working directory with its own DB; CTest runs this binary inside a private
// network namespace (tests/netns.sh).
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tests/support/device_scenario.h"

using namespace device;
using namespace testsupport;

namespace {

class DeviceLifecycle : public DeviceScenarioFixture {
protected:
    // Sessions that never ping the hub by themselves: only the hub's probes
    // and the devices' answers keep them alive.
    static SessionTiming quiet() {
        SessionTiming t;
        t.pingAfterMs = 60000;
        t.lostAfterMs = 60000;
        return t;
    }
    // The entry of duid in the device list asked by `asker`; id 0 when absent.
    BasicDeviceInfo listed(DeviceSession& asker, const std::string& duid) {
        BasicDeviceListMsg list;
        EXPECT_TRUE(asker.requestDeviceList(list, 3000)) << asker.lastError();
        for (const BasicDeviceInfo& d : list.devList)
            if (d.duid == duid) return d;
        BasicDeviceInfo none;
        none.id = 0;
        return none;
    }
    bool hubSaid(const std::string& line) const { return hub.out().find(line) != std::string::npos; }
};

}  // namespace

TEST_F(DeviceLifecycle, ASilentDeviceIsProbedAndRemovedWhileOneThatAnswersPingsStays) {
    startHub();
    DeviceSession& silent = device(config("silent-01"), quiet());
    DeviceSession& awake = device(config("awake-01"), quiet());
    ASSERT_TRUE(joinAll()) << hub.err();
    rec(0).muted = true;
    const std::string silentGone = "Will destroy proxy for Device: " + std::to_string(silent.nodeId()) + "\n";
    // Probed after 5 s of silence, given up 3.5 s after the first ping; the
    // clean-up that drives both comes every one to two seconds on an idle hub,
    // so the removal takes 9 to 12 s.
    ASSERT_TRUE(pumpUntil([&] { return hubSaid(silentGone); }, 14000)) << hub.out();
    EXPECT_TRUE(hubSaid("ClientProxy::checkReceiverTimeout(): Node=" + std::to_string(awake.nodeId()) + " "))
        << "the awake device was probed too";
    EXPECT_FALSE(hubSaid("Will destroy proxy for Device: " + std::to_string(awake.nodeId()) + "\n"));
    EXPECT_EQ(awake.nodeId(), listed(awake, "awake-01").id);
    EXPECT_EQ(6, listed(awake, "awake-01").status) << "connected";
    EXPECT_EQ(0, listed(awake, "silent-01").id) << "removed from the list";
    EXPECT_EQ(DeviceSession::State::READY, awake.state());
}

// A SIGTERM writes the sequence counters into the records; after the restart
// the known devices keep their ids and session keys, and ids are never reused.
TEST_F(DeviceLifecycle, SigtermWritesTheCountersAndARestartKeepsIdsAndKeys) {
    // A known device whose counters do not start at 0.
    ASSERT_TRUE(writeFile(recordPath("seq-01"), "DUID=seq-01\nID=1200\nSEQUENCES=100 7\n"));
    startHub();
    const Timestamp hubStarted = currentTime();
    DeviceSession& a = device(config("seq-01"));
    DeviceSession& b = device(config("seq-02"));
    ASSERT_TRUE(joinAll()) << hub.err();
    EXPECT_EQ(1200, a.nodeId());
    const DeviceID idB = b.nodeId();
    const std::string keyA = hexOf(a.sessionKey());
    ASSERT_EQ(keyA, recordValue("seq-01", "SESSION_KEY"));
    int64_t ab = a.sendDirect(b.nodeId(), 0, 9, pattern(1500, 5));
    int64_t ba = b.sendDirect(a.nodeId(), 1, 9, pattern(40, 6));
    ASSERT_TRUE(ab > 0 && ba > 0);
    ASSERT_TRUE(a.waitForDelivery(static_cast<MessageNo>(ab), 5000)) << a.lastError();
    ASSERT_TRUE(b.waitForDelivery(static_cast<MessageNo>(ba), 5000)) << b.lastError();
    ASSERT_TRUE(pumpUntil([&] { return !rec(0).messages.empty() && !rec(1).messages.empty(); }, 5000));
    const std::string before = recordValue("seq-01", "SEQUENCES");

    ASSERT_EQ(0, stopHub()) << hub.err();
    pumpFor(200);  // read whatever the hub sent last
    if (currentTime() - hubStarted < 14000) {
        EXPECT_EQ("100 7", before) << "no periodic flush yet: the stop is what wrote the counters";
    }
    EXPECT_GE(a.lastHubPacketNo(), 100) << "numbering went on from the stored counter";
    // The hub does not track the numbers of the packs it receives, so the
    // second counter stays as it was.
    EXPECT_EQ(std::to_string(a.lastHubPacketNo() + 1) + " 7", recordValue("seq-01", "SEQUENCES"));
    EXPECT_EQ(std::to_string(b.lastHubPacketNo() + 1) + " 0", recordValue("seq-02", "SEQUENCES"));

    sessions.clear();
    startHub("hub2");
    EXPECT_TRUE(hub.waitForOutput("add to map seq-01 -- 1200 ", 2000)) << hub.out();
    DeviceSession& again = device(config("seq-01"));
    DeviceSession& fresh = device(config("seq-03"));
    ASSERT_TRUE(joinAll()) << hub.err();
    EXPECT_EQ(1200, again.nodeId());
    EXPECT_EQ(keyA, hexOf(again.sessionKey())) << "the stored session key is handed over again";
    EXPECT_GT(fresh.nodeId(), std::max<DeviceID>(1200, idB)) << "ids are never reused";
}
