// Device scenarios against the real hub. Every test starts velto-hub in a
// fresh temporary working directory with its own DB and talks to it over
// 127.0.0.1, with the device library in this process or with velto-device
// processes. The hub joins a multicast group, so this binary refuses to run
// outside a private network namespace (CTest starts it through tests/netns.sh).
#include <fcntl.h>
#include <net/if.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <thread>

#include "Device/CliOptions.h"
#include "Device/DeviceSession.h"
#include "tests/support/test_support.h"

using namespace device;
using testsupport::TempDir;

namespace {

// True when the only network interface is the loopback: we are inside a
// private namespace and the hub's multicast join reaches nothing real.
bool insidePrivateNetwork() {
    struct if_nameindex* list = if_nameindex();
    if (!list) return false;
    bool onlyLo = true;
    for (struct if_nameindex* i = list; i->if_index != 0; ++i)
        if (std::string(i->if_name) != "lo") onlyLo = false;
    if_freenameindex(list);
    return onlyLo;
}

void sleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// A child process with its standard input on a pipe and its output in files.
class Process {
public:
    ~Process() { stop(); }

    bool start(const std::vector<std::string>& argv, const std::string& dir, const std::string& name) {
        outPath = dir + "/" + name + ".out";
        errPath = dir + "/" + name + ".err";
        int in[2];
        if (pipe(in) != 0) return false;
        pid = fork();
        if (pid < 0) return false;
        if (pid == 0) {
            dup2(in[0], 0);
            int o = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            int e = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(o, 1);
            dup2(e, 2);
            close(in[0]);
            close(in[1]);
            if (chdir(dir.c_str()) != 0) _exit(126);
            std::vector<char*> args;
            for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
            args.push_back(nullptr);
            execv(args[0], args.data());
            _exit(127);
        }
        close(in[0]);
        stdinFd = in[1];
        return true;
    }

    void writeLine(const std::string& line) {
        std::string l = line + "\n";
        if (stdinFd >= 0 && write(stdinFd, l.data(), l.size()) < 0) closeInput();
    }
    void closeInput() {
        if (stdinFd >= 0) close(stdinFd);
        stdinFd = -1;
    }
    std::string out() const { return testsupport::readFile(outPath); }
    std::string err() const { return testsupport::readFile(errPath); }

    // Waits until the output holds text; false after timeoutMs.
    bool waitForOutput(const std::string& text, int timeoutMs) const {
        for (int waited = 0; waited <= timeoutMs; waited += 20) {
            if (out().find(text) != std::string::npos) return true;
            sleepMs(20);
        }
        return false;
    }
    // The exit status, or -1 when it did not end within timeoutMs.
    int waitExit(int timeoutMs) {
        for (int waited = 0; pid > 0 && waited <= timeoutMs; waited += 20) {
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            sleepMs(20);
        }
        return -1;
    }
    void stop() {
        closeInput();
        if (pid <= 0) return;
        kill(pid, SIGTERM);
        if (waitExit(2000) < 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        pid = -1;
    }

private:
    pid_t pid = -1;
    int stdinFd = -1;
    std::string outPath, errPath;
};

std::vector<uint8_t> pattern(size_t n, uint8_t seed) {
    std::vector<uint8_t> d(n);
    for (size_t i = 0; i < n; ++i) d[i] = static_cast<uint8_t>(seed + i * 37 + (i >> 8));
    return d;
}

class DeviceScenarios : public ::testing::Test {
protected:
    void SetUp() override {
        if (!insidePrivateNetwork()) GTEST_SKIP() << "run inside a private network namespace (tests/netns.sh)";
        ASSERT_EQ(0, mkdir(work.file("DB").c_str(), 0755));
    }
    void TearDown() override {
        sessions.clear();
        hub.stop();
    }

    void startHub() {
        ASSERT_TRUE(hub.start({VELTO_HUB_BIN}, work.path(), "hub"));
        ASSERT_TRUE(hub.waitForOutput("Successfully bind", 5000)) << hub.err();
    }

    // A device session on the hub at 127.0.0.1, or found by discovery.
    DeviceSession& device(const std::string& duid, bool discover = false, const std::string& domain = DEFAULT_DOMAIN,
                          bool sign = false, std::vector<uint8_t> mainKey = {}) {
        DeviceConfig c;
        c.duid = duid;
        c.specs = "t1";
        c.domain = domain;
        c.discover = discover;
        c.hub = SockAddress("127.0.0.1", HUB_PORT);
        c.sign = sign;
        c.mainKey = std::move(mainKey);
        c.objects = {DeviceObject{"obj0", "", 0, 0}, DeviceObject{"obj1", "", 0, 0}};
        sessions.emplace_back(new Recorder(c));
        return sessions.back()->session;
    }
    struct Recorder {
        DeviceSession session;
        std::vector<IncomingMessage> messages;
        std::vector<MessageError> errors;
        std::string diags;
        explicit Recorder(const DeviceConfig& c) : session(c) {
            session.onMessage([this](const IncomingMessage& m) { messages.push_back(m); });
            session.onError([this](const MessageError& e) { errors.push_back(e); });
            session.onDiagnostic([this](const std::string& d) { diags += d + "\n"; });
        }
    };
    Recorder& rec(size_t i) { return *sessions[i]; }

    // Polls every session until pred holds; false after timeoutMs.
    template <class Pred>
    bool pumpUntil(Pred pred, int timeoutMs) {
        Timestamp end = currentTime() + static_cast<Timestamp>(timeoutMs);
        while (!pred()) {
            if (currentTime() >= end) return false;
            for (auto& r : sessions)
                if (r->session.state() != DeviceSession::State::IDLE) r->session.poll(2);
        }
        return true;
    }
    void pumpFor(int ms) {
        pumpUntil([] { return false; }, ms);
    }
    bool joinAll(int timeoutMs = 8000) {
        for (auto& r : sessions)
            if (!r->session.start()) return false;
        return pumpUntil(
            [&] {
                for (auto& r : sessions)
                    if (r->session.state() != DeviceSession::State::READY) return false;
                return true;
            },
            timeoutMs);
    }
    std::string cli() const { return VELTO_DEVICE_BIN; }

    TempDir work;
    Process hub;
    std::vector<std::unique_ptr<Recorder>> sessions;
};

}  // namespace

TEST_F(DeviceScenarios, DirectMessagesOfEverySizeTravelBothWays) {
    startHub();
    DeviceSession& a = device("dev-a");
    DeviceSession& b = device("dev-b");
    ASSERT_TRUE(joinAll()) << rec(0).session.lastError() << rec(1).session.lastError() << hub.err();
    ASSERT_NE(a.nodeId(), b.nodeId());
    uint8_t seed = 1;
    for (size_t size : {1u, 326u, 327u, 5000u}) {
        for (int dir = 0; dir < 2; ++dir) {
            DeviceSession& from = dir == 0 ? a : b;
            Recorder& to = rec(dir == 0 ? 1 : 0);
            std::vector<uint8_t> msg = pattern(size, seed++);
            size_t before = to.messages.size();
            int64_t no = from.sendDirect(to.session.nodeId(), 1, 40 + dir, msg, 1);
            ASSERT_GE(no, 1) << from.lastError();
            ASSERT_TRUE(pumpUntil([&] { return to.messages.size() > before; }, 8000))
                << "size " << size << " dir " << dir << "\n" << to.diags << hub.err();
            const IncomingMessage& m = to.messages.back();
            EXPECT_EQ(msg, m.data) << "size " << size;
            EXPECT_EQ(DIRECT_MSGCAT, m.selector.msgCat);
            EXPECT_EQ(from.nodeId(), m.selector.fromDeviceId);
            EXPECT_EQ(1, m.selector.fromObjectNo);
            EXPECT_EQ(1, m.selector.toObjectNo);
            EXPECT_EQ(40 + dir, m.selector.msgId);
            EXPECT_TRUE(from.waitForDelivery(static_cast<MessageNo>(no), 3000)) << from.lastError();
        }
    }
    pumpFor(300);
    EXPECT_EQ(4u, rec(0).messages.size()) << "nothing delivered twice";
    EXPECT_EQ(4u, rec(1).messages.size());
}

TEST_F(DeviceScenarios, SignedDevicesExchangeMessages) {
    startHub();
    DeviceSession& a = device("sig-a", false, DEFAULT_DOMAIN, true);
    DeviceSession& b = device("sig-b", false, DEFAULT_DOMAIN, true);
    ASSERT_TRUE(joinAll()) << hub.err();
    std::vector<uint8_t> msg = pattern(700, 9);
    ASSERT_GE(a.sendDirect(b.nodeId(), 0, 3, msg), 1);
    ASSERT_TRUE(pumpUntil([&] { return !rec(1).messages.empty(); }, 8000)) << hub.err();
    EXPECT_EQ(msg, rec(1).messages[0].data);
    EXPECT_EQ(std::string::npos, hub.err().find("Failed to verify")) << hub.err();
}

TEST_F(DeviceScenarios, NotificationsReachSubscribersUntilTheyUnsubscribe) {
    startHub();
    DeviceSession& pub = device("pub");
    DeviceSession& s1 = device("sub-1");
    DeviceSession& s2 = device("sub-2");
    ASSERT_TRUE(joinAll()) << hub.err();
    ASSERT_TRUE(s1.subscribe(pub.nodeId(), 1, 7, true));
    ASSERT_TRUE(s2.subscribe(pub.nodeId(), 1, 7, true));
    pumpFor(300);
    std::vector<uint8_t> first = pattern(400, 3);
    ASSERT_GE(pub.notify(1, 7, first), 1);
    ASSERT_TRUE(pumpUntil([&] { return !rec(1).messages.empty() && !rec(2).messages.empty(); }, 8000))
        << hub.err();
    for (size_t i : {1u, 2u}) {
        const IncomingMessage& m = rec(i).messages[0];
        EXPECT_EQ(first, m.data);
        EXPECT_EQ(NOTIFICATION_MSGCAT, m.selector.msgCat);
        EXPECT_EQ(pub.nodeId(), m.selector.fromDeviceId);
        EXPECT_EQ(1, m.selector.fromObjectNo);
        EXPECT_EQ(7, m.selector.msgId);
    }
    ASSERT_TRUE(s2.subscribe(pub.nodeId(), 1, 7, false));
    pumpFor(300);
    std::vector<uint8_t> second = pattern(20, 4);
    ASSERT_GE(pub.notify(1, 7, second), 1);
    ASSERT_TRUE(pumpUntil([&] { return rec(1).messages.size() == 2; }, 8000));
    pumpFor(500);
    EXPECT_EQ(second, rec(1).messages[1].data);
    EXPECT_EQ(1u, rec(2).messages.size()) << "unsubscribed";
    // An event nobody subscribed to reaches nobody.
    ASSERT_GE(pub.notify(1, 8, second), 1);
    pumpFor(500);
    EXPECT_EQ(2u, rec(1).messages.size());
}

TEST_F(DeviceScenarios, DeviceListShowsEveryConnectedDeviceAndTheHubNode) {
    startHub();
    DeviceSession& a = device("list-a");
    DeviceSession& b = device("list-b");
    ASSERT_TRUE(joinAll()) << hub.err();
    BasicDeviceListMsg list;
    ASSERT_TRUE(b.requestDeviceList(list, 5000)) << b.lastError() << hub.err();
    std::map<std::string, BasicDeviceInfo> byDuid;
    for (const BasicDeviceInfo& d : list.devList) byDuid[d.duid.str()] = d;
    ASSERT_EQ(1u, byDuid.count("list-a"));
    ASSERT_EQ(1u, byDuid.count("list-b"));
    ASSERT_EQ(1u, byDuid.count("VHubMainServices"));
    EXPECT_EQ(a.nodeId(), byDuid["list-a"].id);
    EXPECT_EQ(6, byDuid["list-a"].status) << "connected";
    EXPECT_EQ("t1", byDuid["list-b"].specs.str());
    EXPECT_EQ(1, byDuid["VHubMainServices"].id);
    EXPECT_TRUE(rec(1).messages.empty()) << "the reply is consumed by the request";
}

TEST_F(DeviceScenarios, AWrongDomainIsRefusedAndTheJoinTimesOut) {
    startHub();
    DeviceSession& d = device("wrong-dom", false, "NotMyDomain");
    EXPECT_FALSE(d.join(3000));
    EXPECT_NE(std::string::npos, d.lastError().find("domain")) << d.lastError();
    EXPECT_NE(std::string::npos, d.lastError().find("TestDomain_KVZ1")) << "names the offered domain";
    EXPECT_NE(std::string::npos, hub.err().find("Refuse join request missmatch domains")) << hub.err();

    Process p;
    ASSERT_TRUE(p.start({cli(), "--duid", "wrong-cli", "--hub", "127.0.0.1", "--domain", "Nope", "--timeout", "2000"},
                        work.path(), "wrong-cli"));
    EXPECT_EQ(1, p.waitExit(10000));
    EXPECT_NE(std::string::npos, p.err().find("domain")) << p.err();
}

TEST_F(DeviceScenarios, AMainKeyKnownToTheHubSignsTheHandshake) {
    std::vector<uint8_t> key = pattern(20, 77);
    std::string hex;
    for (uint8_t b : key) {
        char h[3];
        snprintf(h, sizeof(h), "%02x", b);
        hex += h;
    }
    ASSERT_TRUE(testsupport::writeFile(work.file("DB/keyed-01.dev"),
                                       "DUID=keyed-01\nMAIN_KEY=" + hex + "\nID=1500\nNAME=keyed\nSIG_TYPE=1\nENC_TYPE=1\n"));
    startHub();
    DeviceSession& good = device("keyed-01", false, DEFAULT_DOMAIN, true, key);
    ASSERT_TRUE(good.join(5000)) << good.lastError() << rec(0).diags << hub.err();
    EXPECT_EQ(1500, good.nodeId());
    EXPECT_TRUE(rec(0).diags.empty()) << rec(0).diags;
    sessions.clear();
    pumpFor(100);

    std::vector<uint8_t> wrong = pattern(20, 78);
    DeviceSession& bad = device("keyed-01", false, DEFAULT_DOMAIN, false, wrong);
    EXPECT_FALSE(bad.join(2500));
    EXPECT_NE(std::string::npos, bad.lastError().find("does not verify")) << bad.lastError();
}

TEST_F(DeviceScenarios, DiscoveryFindsTheHubThroughItsGroup) {
    startHub();
    DeviceSession& d = device("disc-01", true);
    ASSERT_TRUE(d.join(6000)) << d.lastError() << hub.err();
    EXPECT_EQ(HUB_PORT, d.hubAddress().port());
    Process list;
    ASSERT_TRUE(list.start({cli(), "list"}, work.path(), "list-disc"));
    EXPECT_TRUE(pumpUntil([&] { return list.out().find("disc-01") != std::string::npos; }, 8000))
        << list.out() << list.err();
    EXPECT_EQ(0, list.waitExit(5000)) << list.err();
}

TEST_F(DeviceScenarios, QuickStartTwoSimulatorsOneSendsTheOtherPrints) {
    startHub();
    Process lamp, sw;
    ASSERT_TRUE(lamp.start({cli(), "--duid", "lamp-01", "--hub", "127.0.0.1", "--object", "light:switchable.1"},
                           work.path(), "lamp"));
    ASSERT_TRUE(lamp.waitForOutput("joined hub", 8000)) << lamp.err() << hub.err();
    ASSERT_TRUE(sw.start({cli(), "--duid", "switch-01", "--hub", "127.0.0.1"}, work.path(), "switch"));
    ASSERT_TRUE(sw.waitForOutput("joined hub", 8000)) << sw.err();
    sw.writeLine("send lamp-01/0 5 turn on, please");
    sw.writeLine("send lamp-01/0 6 hex:00ff");
    sw.writeLine("bogus command");
    sw.writeLine("quit");
    EXPECT_EQ(0, sw.waitExit(15000)) << sw.err();
    EXPECT_NE(std::string::npos, sw.out().find("delivered no")) << sw.out();
    EXPECT_NE(std::string::npos, sw.err().find("unknown command")) << sw.err();
    ASSERT_TRUE(lamp.waitForOutput("hex:00ff", 8000)) << lamp.out() << lamp.err();
    std::string out = lamp.out();
    EXPECT_NE(std::string::npos, out.find(" id 5 no ")) << out;
    EXPECT_NE(std::string::npos, out.find(" size 15: turn on, please")) << out;
    EXPECT_NE(std::string::npos, out.find("message from ")) << out;

    Process list;
    ASSERT_TRUE(list.start({cli(), "list", "--hub", "127.0.0.1"}, work.path(), "list"));
    EXPECT_EQ(0, list.waitExit(10000)) << list.err();
    std::string table = list.out();
    EXPECT_EQ(0u, table.find("ID")) << table;
    EXPECT_NE(std::string::npos, table.find("lamp-01")) << table;
    EXPECT_NE(std::string::npos, table.find("connected")) << table;

    lamp.writeLine("quit");
    EXPECT_EQ(0, lamp.waitExit(10000)) << lamp.err();
}

TEST_F(DeviceScenarios, TheSimulatorFailsClearlyWithoutAHub) {
    Process p;
    ASSERT_TRUE(p.start({cli(), "--duid", "alone", "--hub", "127.0.0.1", "--timeout", "800"}, work.path(), "alone"));
    EXPECT_EQ(1, p.waitExit(8000));
    EXPECT_NE(std::string::npos, p.err().find("no answer from the hub")) << p.err();
    Process bad;
    ASSERT_TRUE(bad.start({cli(), "--hub", "127.0.0.1"}, work.path(), "bad"));
    EXPECT_EQ(2, bad.waitExit(5000));
    EXPECT_NE(std::string::npos, bad.err().find("--duid")) << bad.err();
}
