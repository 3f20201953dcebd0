#include "Hub/DeviceManager.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tests/support/session_story.h"
#include "tests/support/test_support.h"

using sessionstory::LoopbackPeer;
using sessionstory::RecordingClient;
using testsupport::stderrOf;
using testsupport::stdoutOf;
using testsupport::TempDir;

namespace {

SockAddress at(uint16_t port) { return SockAddress("127.0.0.1", port); }

// A manager of its own over a database in a temporary directory.
class ManagerTest : public ::testing::Test {
protected:
    ~ManagerTest() override {
        std::vector<uint16_t> ids;
        for (const auto& d : mgr.allDevices()) ids.push_back(d.first);
        for (uint16_t id : ids) mgr.destroyClient(id);
    }

    // Deletion flags of recording clients; they outlive the manager's parties.
    bool firstGone = false, secondGone = false, refusedGone = false;

    ClientInfo* newcomer(const std::string& duid, uint16_t port, Timestamp now) {
        return mgr.createNewComer(at(port), duid, "spec.example", 3, now);
    }

    // A device whose id may be forced before it becomes active.
    ClientProxy* device(const std::string& duid, uint16_t port, uint16_t forcedId = 0) {
        ClientInfo* info = newcomer(duid, port, 1000);
        if (forcedId) info->record.id = forcedId;
        return mgr.makeDeviceActive(info, &hub.sock);
    }

    void push(Timestamp t, DeviceID dev = 1000) {
        EXPECT_TRUE(mgr.requestTimedEvent(EventEntry(EventEntry::DELAYED_SND, dev, t)));
    }

    std::string recordText(const std::string& duid) { return testsupport::readFile(dir.file(duid + ".dev")); }

    TempDir dir;
    ClientsDatabase db{dir.path()};
    ClientManager mgr{db};
    LoopbackPeer hub;
};

// ---------------------------------------------------------------------------
// Timed events

TEST_F(ManagerTest, EventsComeOutByDueTimeAndThe257thIsRefused) {
    for (unsigned i = 0; i < ClientManager::MAX_EVENTS; ++i) push(5000 + (i * 7919) % 1000);
    EXPECT_FALSE(mgr.requestTimedEvent(EventEntry(EventEntry::CLEANUP, 1000, 1)));
    EXPECT_EQ(256u, mgr.pendingEvents());

    std::vector<EventEntry> out;
    EXPECT_EQ(5000u, mgr.retrievePendingEventsUpTo(out, UINT64_MAX));
    ASSERT_EQ(256u, out.size());
    for (size_t i = 1; i < out.size(); ++i) EXPECT_LE(out[i - 1].t, out[i].t) << "at " << i;
    EXPECT_EQ(0u, mgr.pendingEvents());
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

TEST_F(ManagerTest, RetrievalAppendsWhatIsDueAndReportsTheEarliestOrTheLimit) {
    std::vector<EventEntry> out(1, EventEntry(EventEntry::CLEANUP, 42, 1));
    push(300);
    push(100);
    push(200);
    EXPECT_EQ(99u, mgr.retrievePendingEventsUpTo(out, 99));  // nothing due
    EXPECT_EQ(1u, out.size());
    EXPECT_EQ(100u, mgr.retrievePendingEventsUpTo(out, 200));
    ASSERT_EQ(3u, out.size());
    EXPECT_EQ(42, out[0].dev);  // not cleared
    EXPECT_EQ(100u, out[1].t);
    EXPECT_EQ(200u, out[2].t);
    EXPECT_EQ(1u, mgr.pendingEvents());
}

// ---------------------------------------------------------------------------
// Newcomers

TEST_F(ManagerTest, NewDeviceGetsAFreshRecordOnDisk) {
    ClientInfo* info = newcomer("lamp", 40001, 5000);
    ASSERT_NE(nullptr, info);
    EXPECT_EQ(1000, info->record.id);
    EXPECT_EQ("lamp", info->record.assignedName);
    EXPECT_EQ(at(40001), info->record.lastAddress);
    EXPECT_EQ(5000u, info->record.firstConnect);
    EXPECT_EQ(5000u, info->status.lastRecvTime);
    EXPECT_EQ(NodeStatusInfo::INITIALIZED, info->status.state);
    EXPECT_EQ(200, mgr.offerScoreForDevice(*info));
    EXPECT_NE(std::string::npos, recordText("lamp").find("ID=1000\n"));
}

TEST_F(ManagerTest, KnownDeviceIsReloadedRestampedAndDroppedAtTheNextCleanUp) {
    newcomer("lamp", 40001, 1000);
    ClientInfo* again = mgr.createNewComer(at(40002), "lamp", "other.spec", 9, 100000);
    EXPECT_EQ(1000, again->record.id);
    EXPECT_EQ(1000u, again->record.firstConnect);
    EXPECT_EQ(100000u, again->record.lastConnect);
    EXPECT_EQ("spec.example", again->record.specs);
    EXPECT_EQ(255, mgr.offerScoreForDevice(*again));
    EXPECT_NE(std::string::npos, recordText("lamp").find("LAST_TIME=100000\n"));

    EXPECT_EQ(0u, again->status.lastRecvTime);  // intended: not refreshed
    mgr.doCleanUp(100000);
    EXPECT_EQ(0u, mgr.allNewComers().count(at(40002)));
}

TEST_F(ManagerTest, GetNewComerFindsByAddressAndRefreshesTheEntry) {
    ClientInfo* info = newcomer("lamp", 40001, 1000);
    EXPECT_EQ(nullptr, mgr.getNewComer(at(40009), "lamp"));
    EXPECT_EQ(nullptr, mgr.getNewComer(at(40001), "unknown-duid"));  // entry kept
    Timestamp before = currentTime();
    EXPECT_EQ(info, mgr.getNewComer(at(40001), "lamp"));
    EXPECT_GE(info->status.lastRecvTime, before);
    EXPECT_EQ(info, mgr.getNewComer(at(40001), ""));
}

TEST_F(ManagerTest, AnotherKnownDuidAtAnAddressGivesAnObjectTheMapDoesNotHold) {
    ClientInfo* a = newcomer("lamp", 40001, 1000);
    newcomer("switch", 40002, 1000);
    ClientInfo* found = mgr.getNewComer(at(40001), "switch");
    ASSERT_NE(nullptr, found);
    EXPECT_NE(a, found);
    EXPECT_EQ("switch", found->record.duid);
    EXPECT_EQ(a, mgr.allNewComers().at(at(40001)));

    EXPECT_EQ(" failed to make device because no newcommers match the passed parameter\n",
              stderrOf([&] { EXPECT_EQ(nullptr, mgr.makeDeviceActive(found, &hub.sock)); }));
}

TEST_F(ManagerTest, InfosTheMapDidNotTakeStayValidUntilTheNextCleanUpFreesThem) {
    ClientInfo* held = newcomer("lamp", 40001, 1000);
    newcomer("switch", 40002, 1000);
    // One address announcing ever new DUIDs, and another known DUID from it.
    std::vector<ClientInfo*> unheld;
    for (int i = 0; i < 40; ++i) unheld.push_back(newcomer("new-" + std::to_string(i), 40001, 2000));
    unheld.push_back(mgr.getNewComer(at(40001), "switch"));
    EXPECT_EQ(41u, mgr.unheldNewComers());
    EXPECT_EQ(held, mgr.allNewComers().at(at(40001)));  // kept: the map keeps the older entry
    EXPECT_EQ(2u, mgr.allNewComers().size());

    stderrOf([&] { EXPECT_EQ(nullptr, mgr.makeDeviceActive(unheld[0], &hub.sock)); });
    for (int i = 0; i < 40; ++i) {  // still whole; each new DUID has its record, by design
        EXPECT_EQ("new-" + std::to_string(i), unheld[i]->record.duid);
        EXPECT_EQ(1002 + i, unheld[i]->record.id);
        EXPECT_NE(std::string::npos, recordText(unheld[i]->record.duid).find("ID=" + std::to_string(1002 + i)));
    }
    EXPECT_EQ("switch", unheld.back()->record.duid);

    mgr.doCleanUp(2000);
    EXPECT_EQ(0u, mgr.unheldNewComers());
    EXPECT_EQ(held, mgr.allNewComers().at(at(40001)));  // what the map holds stays
    EXPECT_EQ("lamp", held->record.duid);
    EXPECT_EQ(2u, mgr.allNewComers().size());
    EXPECT_EQ(1002 + 40, db.getNextFreeId());  // freeing gives no id back
}

TEST_F(ManagerTest, AnotherDuidWhoseRecordIsGoneDropsTheAddress) {
    newcomer("lamp", 40001, 1000);
    newcomer("switch", 40002, 1000);
    ASSERT_EQ(0, std::remove(dir.file("switch.dev").c_str()));
    EXPECT_EQ(nullptr, mgr.getNewComer(at(40001), "switch"));
    EXPECT_EQ(0u, mgr.allNewComers().count(at(40001)));
    EXPECT_EQ(1u, mgr.allNewComers().count(at(40002)));
}

TEST_F(ManagerTest, MakeDeviceActiveTakesOnlyItsOwnNewcomers) {
    ClientInfo stranger;
    stranger.record.id = 1500;
    ClientInfo idless;
    EXPECT_EQ(stderrOf([&] {
                  EXPECT_EQ(nullptr, mgr.makeDeviceActive(nullptr, &hub.sock));
                  EXPECT_EQ(nullptr, mgr.makeDeviceActive(&idless, &hub.sock));
                  EXPECT_EQ(nullptr, mgr.makeDeviceActive(&stranger, &hub.sock));
              }),
              " failed to make device because ClientInfo==NULL\n"
              " failed to make device because dbRecord.id==0\n"
              " failed to make device because no newcommers match the passed parameter\n");

    ClientInfo* info = newcomer("lamp", 40001, 1000);
    info->status.prevn = "old-name";
    ClientProxy* proxy = mgr.makeDeviceActive(info, &hub.sock);
    ASSERT_NE(nullptr, proxy);
    EXPECT_EQ(proxy, mgr.getClient(1000));
    EXPECT_EQ("old-name", proxy->status().prevn);
    EXPECT_TRUE(mgr.allNewComers().empty());
}

TEST_F(ManagerTest, ARejoinReplacesTheProxySilentlyAndTheNextCleanUpFreesIt) {
    RecordingClient* vc = new RecordingClient();
    mgr.addVirtualClient(1, vc);
    ClientProxy* first = device("lamp", 40001);
    ClientProxy* second = device("lamp", 40002);  // the same device joins again
    ASSERT_NE(nullptr, second);
    EXPECT_EQ(second, mgr.getClient(1000));
    EXPECT_EQ(1u, mgr.allDevices().size());
    EXPECT_EQ(1u, mgr.replacedDevices());
    EXPECT_EQ(1000, first->record().id);  // still whole until the clean-up

    const std::string out = stdoutOf([&] { mgr.doCleanUp(1000); });
    EXPECT_EQ(0u, mgr.replacedDevices());
    EXPECT_EQ(second, mgr.getClient(1000));
    EXPECT_EQ(std::string::npos, out.find("Will destroy"));  // kept: nobody is told
    EXPECT_TRUE(vc->removed.empty());
}

// ---------------------------------------------------------------------------
// Clean-up

TEST_F(ManagerTest, NewcomerSilentExactly45000MsSurvivesOneMoreIsDropped) {
    newcomer("lamp", 40001, 10000);
    mgr.doCleanUp(55000);
    EXPECT_EQ(1u, mgr.allNewComers().size());
    EXPECT_EQ("ClientManager::doCleanUp: Delete newcommer id=1000 duid=lamp\n", stdoutOf([&] { mgr.doCleanUp(55001); }));
    EXPECT_TRUE(mgr.allNewComers().empty());
}

TEST_F(ManagerTest, DeviceSilentFor5000MsIsNotProbedAt5001ItIs) {
    ClientProxy* proxy = device("lamp", 40001);
    proxy->setLastPackTime(20000);
    std::vector<EventEntry> out;
    mgr.doCleanUp(25000);
    EXPECT_EQ(0u, mgr.pendingEvents());
    mgr.doCleanUp(25001);
    mgr.retrievePendingEventsUpTo(out, UINT64_MAX);
    ASSERT_EQ(1u, out.size());
    EXPECT_EQ(EventEntry::CHECK_RCV_TO, out[0].type);
    EXPECT_EQ(proxy->record().id, out[0].dev);
    EXPECT_EQ(25001u, out[0].t);
    EXPECT_NE(nullptr, mgr.getClient(proxy->record().id));  // probed, not removed
}

// ---------------------------------------------------------------------------
// Destinations

TEST_F(ManagerTest, IdsBelow256AreVirtualClientsOnly) {
    RecordingClient* vc = new RecordingClient();
    ASSERT_TRUE(mgr.addVirtualClient(255, vc));
    ClientProxy* dev255 = device("low", 40001, 255);
    ClientProxy* dev256 = device("high", 40002, 256);
    EXPECT_EQ(dev255, mgr.getClient(255));
    EXPECT_EQ(vc, mgr.getMessageTarget(255));
    EXPECT_EQ(dev256, mgr.getMessageTarget(256));
    EXPECT_EQ(nullptr, mgr.getMessageTarget(254));
    EXPECT_EQ(nullptr, mgr.getMessageTarget(300));
}

TEST_F(ManagerTest, AddVirtualClientRefusesAndReplaces) {
    RecordingClient* refused = new RecordingClient(&refusedGone);
    EXPECT_FALSE(mgr.addVirtualClient(256, refused));
    EXPECT_FALSE(mgr.addVirtualClient(7, nullptr));
    EXPECT_EQ(nullptr, mgr.getMessageTarget(256));
    EXPECT_FALSE(refusedGone);  // not taken, so not deleted either
    delete refused;

    RecordingClient* first = new RecordingClient(&firstGone);
    RecordingClient* second = new RecordingClient(&secondGone);
    ASSERT_TRUE(mgr.addVirtualClient(7, first));
    ASSERT_TRUE(mgr.addVirtualClient(7, second));
    EXPECT_TRUE(firstGone);
    EXPECT_FALSE(secondGone);
    EXPECT_EQ(second, mgr.getMessageTarget(7));
}

TEST_F(ManagerTest, DestroyClientTellsEveryPartyOnce) {
    RecordingClient* vc1 = new RecordingClient();
    RecordingClient* vc2 = new RecordingClient();
    mgr.addVirtualClient(1, vc1);
    mgr.addVirtualClient(2, vc2);
    ClientProxy* a = device("a", 40001);
    ClientProxy* b = device("b", 40002);
    DeviceID idA = a->record().id;

    EXPECT_EQ("Will destroy proxy for Device: " + std::to_string(idA) + "\n", stdoutOf([&] { mgr.destroyClient(idA); }));
    EXPECT_EQ(std::vector<DeviceID>{idA}, vc1->removed);
    EXPECT_EQ(std::vector<DeviceID>{idA}, vc2->removed);
    EXPECT_EQ(nullptr, mgr.getClient(idA));
    EXPECT_EQ(b, mgr.getClient(b->record().id));

    mgr.destroyClient(idA);  // unknown now: nothing happens
    mgr.destroyClient(4321);
    EXPECT_EQ(1u, vc1->removed.size());
}

// ---------------------------------------------------------------------------
// Flush

TEST_F(ManagerTest, FlushWritesTheCurrentRecordAndRetriesAFailedWrite) {
    ClientProxy* proxy = device("lamp", 40001);
    proxy->record().toDeviceSequence = 12;
    proxy->record().fromDeviceSequence = 7;
    mgr.doFlush(0);
    EXPECT_FALSE(mgr.flushPending());
    EXPECT_NE(std::string::npos, recordText("lamp").find("SEQUENCES=12 7\n"));

    // The directory is gone while the record changes: the write fails...
    const std::string away = dir.path() + ".away";
    ASSERT_EQ(0, std::rename(dir.path().c_str(), away.c_str()));
    proxy->record().toDeviceSequence = 13;
    mgr.doFlush(0);
    ASSERT_EQ(0, std::rename(away.c_str(), dir.path().c_str()));
    EXPECT_NE(std::string::npos, recordText("lamp").find("SEQUENCES=12 7\n"));
    // ...so the next flush writes it, although it has not changed since.
    mgr.doFlush(0);
    EXPECT_NE(std::string::npos, recordText("lamp").find("SEQUENCES=13 7\n"));

    // Kept as designed: a file removed behind the hub's back is not noticed
    // while its record stays as last written; the next change writes it.
    ASSERT_EQ(0, std::remove(dir.file("lamp.dev").c_str()));
    mgr.doFlush(0);
    EXPECT_FALSE(testsupport::fileExists(dir.file("lamp.dev")));
    proxy->record().fromDeviceSequence = 8;
    mgr.flushAll();
    EXPECT_NE(std::string::npos, recordText("lamp").find("SEQUENCES=13 8\n"));
}

TEST_F(ManagerTest, FlushGoesOnStepByStepWithEachRecordAsItIsWhenWritten) {
    mgr.setFlushPacing(0, 0);  // one record per step
    ClientProxy* a = device("a", 40001);
    ClientProxy* b = device("b", 40002);
    ClientProxy* c = device("c", 40003);
    for (ClientProxy* p : {a, b, c}) p->record().toDeviceSequence = 1;
    mgr.doFlush(0);
    EXPECT_TRUE(mgr.flushPending());
    EXPECT_NE(std::string::npos, recordText("a").find("SEQUENCES=1 0\n"));
    EXPECT_NE(std::string::npos, recordText("b").find("SEQUENCES=0 0\n"));

    b->record().toDeviceSequence = 2;  // changed before its turn: written as it is then
    mgr.continueFlush();
    EXPECT_NE(std::string::npos, recordText("b").find("SEQUENCES=2 0\n"));
    EXPECT_NE(std::string::npos, recordText("c").find("SEQUENCES=0 0\n"));

    // A new round while one is under way goes on after the last device handled
    // (c first), then takes the others in turn.
    a->record().toDeviceSequence = 3;
    c->record().toDeviceSequence = 3;
    mgr.doFlush(0);
    EXPECT_NE(std::string::npos, recordText("c").find("SEQUENCES=3 0\n"));
    EXPECT_NE(std::string::npos, recordText("a").find("SEQUENCES=1 0\n"));
    for (int i = 0; i < 10 && mgr.flushPending(); ++i) mgr.continueFlush();
    EXPECT_FALSE(mgr.flushPending());
    EXPECT_NE(std::string::npos, recordText("a").find("SEQUENCES=3 0\n"));

    // A device destroyed while queued is passed over.
    b->record().toDeviceSequence = 4;
    c->record().toDeviceSequence = 4;
    mgr.doFlush(0);  // a: unchanged, skipped
    mgr.continueFlush();
    EXPECT_NE(std::string::npos, recordText("b").find("SEQUENCES=4 0\n"));
    mgr.destroyClient(c->record().id);
    mgr.continueFlush();
    EXPECT_FALSE(mgr.flushPending());
    EXPECT_NE(std::string::npos, recordText("c").find("SEQUENCES=3 0\n"));
}

TEST_F(ManagerTest, WhileBusyAFlushStepWaitsForItsGap) {
    mgr.setFlushPacing(0, 60000);  // one record per step; busy steps a minute apart
    ClientProxy* a = device("a", 40001);
    ClientProxy* b = device("b", 40002);
    ClientProxy* c = device("c", 40003);
    for (ClientProxy* p : {a, b, c}) p->record().toDeviceSequence = 5;
    mgr.doFlush(0);  // a
    mgr.continueFlush(true);  // busy, right after a step: nothing
    EXPECT_EQ(std::string::npos, recordText("b").find("SEQUENCES=5 0\n"));
    mgr.continueFlush(false);  // idle: b
    EXPECT_NE(std::string::npos, recordText("b").find("SEQUENCES=5 0\n"));
    mgr.continueFlush(true);
    EXPECT_TRUE(mgr.flushPending());
    mgr.setFlushPacing(0, 0);  // the gap has passed
    mgr.continueFlush(true);  // c
    EXPECT_FALSE(mgr.flushPending());
    EXPECT_NE(std::string::npos, recordText("c").find("SEQUENCES=5 0\n"));
}

TEST_F(ManagerTest, FlushSkipsARecordWhoseFileAlreadyHoldsIt) {
    ClientProxy* proxy = device("lamp", 40001);
    mgr.doFlush(0);
    // An extra line the reader ignores: the file still reads back equal, so an
    // unchanged record leaves it alone...
    std::string written = recordText("lamp");
    ASSERT_TRUE(testsupport::writeFile(dir.file("lamp.dev"), written + "NOTE=kept\n"));
    mgr.doFlush(0);
    EXPECT_EQ(written + "NOTE=kept\n", recordText("lamp"));
    // ...and a changed one replaces it whole.
    proxy->record().toDeviceSequence = 99;
    mgr.doFlush(0);
    EXPECT_EQ(std::string::npos, recordText("lamp").find("NOTE=kept"));
    EXPECT_NE(std::string::npos, recordText("lamp").find("SEQUENCES=99 0\n"));
}

}  // namespace
