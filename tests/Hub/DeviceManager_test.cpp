#include "Hub/DeviceManager.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/session_story.h"
#include "tests/support/test_support.h"

using sessionstory::LoopbackPeer;
using testsupport::stdoutOf;
using testsupport::TempDir;

namespace {

SockAddress at(uint16_t port) { return SockAddress("127.0.0.1", port); }

// An in-hub client that counts the removals it is told of.
struct RemovalWatcher : VirtualClient {
    void deliverMessage(const MsgSelector&, std::shared_ptr<unsigned char>&, uint32_t) override {}
    bool subscribeToNotification(uint8_t, uint16_t, DeviceID, bool) override { return true; }
    void deviceHadBeenRemoved(DeviceID) override { ++removed; }
    int removed = 0;
};

// A manager of its own over a database in a temporary directory.
class ManagerTest : public ::testing::Test {
protected:
    ~ManagerTest() override {
        std::vector<uint16_t> ids;
        for (const auto& d : mgr.allDevices()) ids.push_back(d.first);
        for (uint16_t id : ids) mgr.destroyClient(id);
    }

    ClientInfo* newcomer(const std::string& duid, uint16_t port, Timestamp now) {
        return mgr.createNewComer(at(port), duid, "spec.example", 3, now);
    }

    ClientProxy* device(const std::string& duid, uint16_t port) {
        return mgr.makeDeviceActive(newcomer(duid, port, 1000), &hub.sock);
    }

    void push(Timestamp t, DeviceID dev = 1000) {
        EXPECT_TRUE(mgr.requestTimedEvent(EventEntry(EventEntry::DELAYED_SND, dev, t)));
    }

    bool recordHas(const std::string& duid, const std::string& line) {
        return testsupport::readFile(dir.file(duid + ".dev")).find(line) != std::string::npos;
    }

    TempDir dir;
    ClientsDatabase db{dir.path()};
    ClientManager mgr{db};
    LoopbackPeer hub;
};

TEST_F(ManagerTest, EventsComeOutByDueTimeAndThe257thIsRefused) {
    for (unsigned i = 0; i < ClientManager::MAX_EVENTS; ++i) push(5000 + (i * 7919) % 1000);
    EXPECT_FALSE(mgr.requestTimedEvent(EventEntry(EventEntry::CLEANUP, 1000, 1)));

    std::vector<EventEntry> out(1, EventEntry(EventEntry::CLEANUP, 42, 1));
    EXPECT_EQ(4999u, mgr.retrievePendingEventsUpTo(out, 4999));  // nothing due: the limit
    EXPECT_EQ(5000u, mgr.retrievePendingEventsUpTo(out, UINT64_MAX));
    ASSERT_EQ(257u, out.size());
    EXPECT_EQ(42, out[0].dev);  // appended, not cleared
    for (size_t i = 2; i < out.size(); ++i) EXPECT_LE(out[i - 1].t, out[i].t) << "at " << i;
    EXPECT_TRUE(mgr.requestTimedEvent(EventEntry(EventEntry::CLEANUP, 1000, 1)));  // room again
}

TEST_F(ManagerTest, EqualDueTimesComeOutInHeapOrderWithoutTieBreak) {
    push(7, 1);
    push(7, 2);
    push(7, 3);
    std::vector<EventEntry> out;
    mgr.retrievePendingEventsUpTo(out, 7);
    // After the first pop the last entry (3) is moved to the root and stays
    // there, since the left child (2) is not less than it.
    ASSERT_EQ(3u, out.size());
    EXPECT_EQ(1, out[0].dev);
    EXPECT_EQ(3, out[1].dev);
    EXPECT_EQ(2, out[2].dev);
}

TEST_F(ManagerTest, ARejoinReplacesTheProxySilentlyAndTheNextCleanUpFreesIt) {
    RemovalWatcher* vc = new RemovalWatcher();
    mgr.addVirtualClient(1, vc);
    ClientProxy* first = device("lamp", 40001);
    ClientProxy* second = device("lamp", 40002);
    ASSERT_NE(nullptr, second);
    EXPECT_EQ(second, mgr.getClient(1000));
    EXPECT_EQ(1u, mgr.replacedDevices());
    EXPECT_EQ(1000, first->record().id);  // still whole until the clean-up

    const std::string out = stdoutOf([&] { mgr.doCleanUp(1000); });
    EXPECT_EQ(0u, mgr.replacedDevices());
    EXPECT_EQ(std::string::npos, out.find("Will destroy"));  // kept: nobody is told
    EXPECT_EQ(0, vc->removed);
}

TEST_F(ManagerTest, NewcomerSilentExactly45000MsSurvivesOneMoreIsDropped) {
    newcomer("lamp", 40001, 10000);
    mgr.doCleanUp(55000);
    EXPECT_EQ(1u, mgr.allNewComers().size());
    EXPECT_EQ("ClientManager::doCleanUp: Delete newcommer id=1000 duid=lamp\n", stdoutOf([&] { mgr.doCleanUp(55001); }));
    EXPECT_TRUE(mgr.allNewComers().empty());
}

TEST_F(ManagerTest, FlushGoesOnStepByStepWithEachRecordAsItIsWhenWritten) {
    mgr.setFlushPacing(0, 0);  // one record per step
    ClientProxy* a = device("a", 40001);
    ClientProxy* b = device("b", 40002);
    ClientProxy* c = device("c", 40003);
    for (ClientProxy* p : {a, b, c}) p->record().toDeviceSequence = 1;
    mgr.doFlush(0);
    EXPECT_TRUE(mgr.flushPending());
    EXPECT_TRUE(recordHas("a", "SEQUENCES=1 0\n"));
    EXPECT_TRUE(recordHas("b", "SEQUENCES=0 0\n"));

    b->record().toDeviceSequence = 2;  // changed before its turn: written as it is then
    mgr.continueFlush();
    EXPECT_TRUE(recordHas("b", "SEQUENCES=2 0\n"));

    // A device destroyed while queued is passed over.
    mgr.destroyClient(c->record().id);
    mgr.continueFlush();
    EXPECT_FALSE(mgr.flushPending());
    EXPECT_TRUE(recordHas("c", "SEQUENCES=0 0\n"));
}

TEST_F(ManagerTest, FlushSkipsARecordWhoseFileAlreadyHoldsIt) {
    ClientProxy* proxy = device("lamp", 40001);
    mgr.doFlush(0);
    // An extra line the reader ignores: the file still reads back equal, so an
    // unchanged record leaves it alone...
    const std::string written = testsupport::readFile(dir.file("lamp.dev"));
    ASSERT_TRUE(testsupport::writeFile(dir.file("lamp.dev"), written + "NOTE=kept\n"));
    mgr.doFlush(0);
    EXPECT_TRUE(recordHas("lamp", "NOTE=kept"));
    // ...and a changed one replaces it whole.
    proxy->record().toDeviceSequence = 99;
    mgr.doFlush(0);
    EXPECT_FALSE(recordHas("lamp", "NOTE=kept"));
    EXPECT_TRUE(recordHas("lamp", "SEQUENCES=99 0\n"));
}

}  // namespace
