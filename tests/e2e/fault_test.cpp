// Fault tests of the hub daemon. Every test starts the built velto-hub in a
// fresh temporary working directory with its own DB and hurts it: SIGKILL while
// it writes device records, a database directory that cannot be written, a
// flood of garbage and random packs, hostile DUIDs. The hub must stay up, keep
// serving well-behaved devices, keep every record it wrote whole, write nothing
// outside DB, and keep its memory bounded.
//
// The hub joins a multicast group, so the binary refuses to run outside a
// private network namespace (CTest starts it through tests/netns.sh). main()
// also moves the process into a private mount namespace, where the read-only
// bind mount of one test stays invisible to the rest of the system. Every loop
// and wait is bounded.
#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Device/DeviceSession.h"
#include "Velto/platform.h"
#include "tests/support/device_sim.h"
#include "tests/support/test_support.h"

using namespace testsupport;
using device::DeviceSession;

namespace {

const SockAddress HUB_ADDR("127.0.0.1", 1881);
const char* const DOMAIN = "TestDomain_KVZ1";
bool privateMounts = false;  // main() made a private mount namespace

void sleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// True when the only network interface is the loopback.
bool insidePrivateNetwork() {
    struct if_nameindex* list = if_nameindex();
    if (!list) return false;
    bool onlyLo = true;
    for (struct if_nameindex* i = list; i->if_index != 0; ++i)
        if (std::string(i->if_name) != "lo") onlyLo = false;
    if_freenameindex(list);
    return onlyLo;
}

// Names in a directory, "." and ".." left out; empty when it cannot be read.
std::set<std::string> listDir(const std::string& dir) {
    std::set<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* e = readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != "..") names.insert(n);
        }
        closedir(d);
    }
    return names;
}

// ---------------------------------------------------------------------------
// The hub as a child process

class HubProcess {
public:
    ~HubProcess() { kill9(); }

    // Starts velto-hub in dir with extra environment entries ("NAME=value").
    bool start(const std::string& dir, const std::vector<std::string>& env = {}) {
        outPath = dir + "/hub.out";
        errPath = dir + "/hub.err";
        pid = fork();
        if (pid == 0) {
            int o = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            int e = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (o < 0 || e < 0 || chdir(dir.c_str()) != 0) _exit(126);
            dup2(o, 1);
            dup2(e, 2);
            for (const std::string& kv : env) putenv(const_cast<char*>(kv.c_str()));
            execl(VELTO_HUB_BIN, VELTO_HUB_BIN, static_cast<char*>(nullptr));
            _exit(127);
        }
        return pid > 0;
    }

    // Whether the hub has bound its port and joined its group within timeoutMs.
    bool waitReady(int timeoutMs) const {
        for (int waited = 0; waited <= timeoutMs; waited += 2) {
            if (out().find("Successfully joined group\n") != std::string::npos) return true;
            sleepMs(2);
        }
        return false;
    }

    // True while the process runs (it is reaped when it has ended).
    bool alive() {
        if (pid <= 0) return false;
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid) {
            pid = -1;
            return false;
        }
        return true;
    }

    void kill9() {
        if (pid <= 0) return;
        ::kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }

    // SIGTERM; the exit status, or -1 when it did not exit normally in time.
    int stop(int timeoutMs) {
        if (pid <= 0) return -1;
        ::kill(pid, SIGTERM);
        for (int waited = 0; waited <= timeoutMs; waited += 5) {
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            sleepMs(5);
        }
        return -1;
    }

    // A "Vm..." figure of /proc/<pid>/status in kB, -1 when unreadable.
    long vmKb(const std::string& field) const {
        std::istringstream in(readFile("/proc/" + std::to_string(pid) + "/status"));
        std::string line;
        while (std::getline(in, line))
            if (line.compare(0, field.size() + 1, field + ":") == 0) return std::stol(line.substr(field.size() + 1));
        return -1;
    }

    std::string out() const { return readFile(outPath); }
    std::string err() const { return readFile(errPath); }

private:
    pid_t pid = -1;
    std::string outPath, errPath;
};

// ---------------------------------------------------------------------------
// Record files

const char* const RECORD_KEYS[] = {"DUID",      "MAIN_KEY",  "ID",       "SPECS",       "VERSION",  "NAME",
                                   "FIRST_ADDR", "LAST_ADDR", "FIRST_TIME", "LAST_TIME", "KEY_TIME", "SESSION_KEY",
                                   "TRUST",     "SIG_TYPE",  "ENC_TYPE", "SEQUENCES"};

typedef std::map<std::string, std::string> Fields;

// True when text is a whole record: the sixteen KEY=VALUE lines, each key once,
// every line ended, nothing else. fields then holds them.
bool parseFullRecord(const std::string& text, Fields& fields) {
    fields.clear();
    if (text.empty() || text.back() != '\n') return false;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        size_t eq = line.find('=');
        if (eq == std::string::npos || !fields.emplace(line.substr(0, eq), line.substr(eq + 1)).second) return false;
    }
    if (fields.size() != 16) return false;
    for (const char* k : RECORD_KEYS)
        if (!fields.count(k)) return false;
    return true;
}

std::string recordText(const std::string& duid, DeviceID id, const std::string& lastTime = "1") {
    return "DUID=" + duid + "\nMAIN_KEY=" + std::string(32, 'a') + "\nID=" + std::to_string(id) +
           "\nSPECS=k\nVERSION=3\nNAME=" + duid +
           "\nFIRST_ADDR=[127.0.0.1]:1\nLAST_ADDR=[127.0.0.1]:1\nFIRST_TIME=1\nLAST_TIME=" + lastTime +
           "\nKEY_TIME=0\nSESSION_KEY=" + std::string(64, '1') + "\nTRUST=4\nSIG_TYPE=0\nENC_TYPE=0\nSEQUENCES=0 0\n";
}

// ---------------------------------------------------------------------------
// Well-behaved devices: device library sessions, all pumped by one loop

class Fleet {
public:
    struct Member {
        DeviceSession session;
        std::vector<std::vector<uint8_t>> received;
        explicit Member(const device::DeviceConfig& c, const device::SessionTiming& t) : session(c, t) {
            session.onMessage([this](const device::IncomingMessage& m) { received.push_back(m.data); });
        }
    };

    // A device with two objects and a short specification identifier (nothing
    // is downloaded for it). It pings a hub silent for 300 ms and gives the
    // session up after 4000 ms without an answer.
    DeviceSession& add(const std::string& duid) {
        device::DeviceConfig c;
        c.duid = duid;
        c.specs = "t1";
        c.discover = false;
        c.hub = HUB_ADDR;
        c.objects = {device::DeviceObject{"obj0", "", 0, 0}, device::DeviceObject{"obj1", "", 0, 0}};
        device::SessionTiming t;
        t.pingAfterMs = 300;
        t.lostAfterMs = 4000;
        members.emplace_back(new Member(c, t));
        return members.back()->session;
    }
    Member& operator[](size_t i) { return *members[i]; }

    template <class Pred>
    bool pumpUntil(Pred pred, int timeoutMs) {
        const Timestamp end = currentTime() + static_cast<Timestamp>(timeoutMs);
        while (!pred()) {
            if (currentTime() >= end) return false;
            for (auto& m : members)
                if (m->session.state() != DeviceSession::State::IDLE) m->session.poll(2);
        }
        return true;
    }
    void pumpFor(int ms) { pumpUntil([] { return false; }, ms); }

    bool joinAll(int timeoutMs) {
        for (auto& m : members)
            if (!m->session.start()) return false;
        return pumpUntil([this] { return allReady(); }, timeoutMs);
    }
    bool allReady() const {
        for (auto& m : members)
            if (m->session.state() != DeviceSession::State::READY) return false;
        return true;
    }

    // A direct message from device `from` (object 1) to object 0 of device
    // `to`; true when it arrived intact and its delivery was confirmed.
    bool relay(size_t from, size_t to, size_t size, int timeoutMs = 5000) {
        std::vector<uint8_t> body(size);
        for (size_t i = 0; i < size; ++i) body[i] = static_cast<uint8_t>(i * 13 + relays);
        ++relays;
        Member& dst = *members[to];
        const size_t before = dst.received.size();
        int64_t no = members[from]->session.sendDirect(dst.session.nodeId(), 0, 9, body, 1);
        bool delivered = false;
        if (no < 0) return false;
        members[from]->session.onDelivery([&](const device::DeliveryResult& r) {
            if (r.msgNo == static_cast<MessageNo>(no)) delivered = r.delivered;
        });
        bool ok = pumpUntil([&] { return delivered && dst.received.size() > before; }, timeoutMs);
        members[from]->session.onDelivery(nullptr);
        return ok && dst.received.back() == body;
    }

private:
    std::vector<std::unique_ptr<Member>> members;
    int relays = 0;
};

// ---------------------------------------------------------------------------
// The fixture: a working directory with DB, and the hub

class FaultTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!insidePrivateNetwork()) GTEST_SKIP() << "run inside a private network namespace (tests/netns.sh)";
        ASSERT_EQ(0, mkdir(db().c_str(), 0755));
    }

    void startHub(const std::vector<std::string>& env = {}) {
        ASSERT_TRUE(hub.start(work.path(), env));
        ASSERT_TRUE(hub.waitReady(5000)) << hub.out() << hub.err();
    }

    std::string db() const { return work.file("DB"); }
    std::string recordPath(const std::string& duid) const { return db() + "/" + duid + ".dev"; }

    // Every file of DB with its content.
    std::map<std::string, std::string> snapshot(const std::string& dir) const {
        std::map<std::string, std::string> s;
        for (const std::string& n : listDir(dir)) s[n] = readFile(dir + "/" + n);
        return s;
    }

    TempDir work;
    HubProcess hub;
};

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Mounts made by a test stay in this process's own namespace (and its
    // children's); without one, the test that needs them is skipped.
    privateMounts = unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    return RUN_ALL_TESTS();
}

// ---------------------------------------------------------------------------
// SIGKILL while records are written

namespace {

const int KILL_DEVICES = 300;
const int KILLS = 200;
const int MAX_KILL_DELAY_MS = 400;

std::string killDuid(int i) {
    char b[16];
    snprintf(b, sizeof b, "kr-%03d", i);
    return b;
}

// One life of the hub between start and SIGKILL, and the address each device
// spoke from in it.
struct HubLife {
    Timestamp start = 0, end = 0;
    std::map<std::string, std::string> addrOf;
};

// Empty when `now` may follow `before` across a kill: unchanged, or the same
// record rewritten in this life (LAST_TIME stamped within it, LAST_ADDR the
// address the device used in it); otherwise what is wrong.
std::string judgeRecord(const std::string& duid, const std::string& before, const std::string& now,
                        const HubLife& life) {
    Fields b, n;
    if (!parseFullRecord(now, n)) return "not a whole record: [" + now + "]";
    if (now == before || !parseFullRecord(before, b)) return "";
    for (const char* k : RECORD_KEYS) {
        const std::string key = k;
        if (key != "LAST_TIME" && key != "LAST_ADDR" && n[key] != b[key])
            return key + " changed from " + b[key] + " to " + n[key];
    }
    if (n["LAST_TIME"] != b["LAST_TIME"]) {
        const Timestamp t = std::strtoull(n["LAST_TIME"].c_str(), nullptr, 10);
        if (t < life.start || t > life.end) return "LAST_TIME " + n["LAST_TIME"] + " is not of this life";
    }
    auto used = life.addrOf.find(duid);
    if (n["LAST_ADDR"] != b["LAST_ADDR"] && (used == life.addrOf.end() || used->second != n["LAST_ADDR"]))
        return "LAST_ADDR " + n["LAST_ADDR"] + " was never used by the device";
    return "";
}

// Announces and joins each of duids from a socket of its own, `perMs` devices a
// millisecond, until all are sent or `until` has come. Returns the sockets
// (kept open: their addresses stay unique while the hub lives).
std::vector<std::unique_ptr<SimDevice>> announceAndJoin(const std::vector<std::string>& duids, HubLife& life,
                                                        Timestamp until, size_t perMs, std::mt19937& rng) {
    std::vector<std::unique_ptr<SimDevice>> devices;
    for (size_t i = 0; i < duids.size() && currentTime() < until; ++i) {
        devices.emplace_back(new SimDevice(duids[i]));
        SimDevice& d = *devices.back();
        NewBornDevicePack born = d.newBorn("k");
        NetworkJoinPack join = d.joinRequest(DOMAIN, rng());
        d.send(HUB_ADDR, born);
        d.send(HUB_ADDR, join);
        life.addrOf[duids[i]] = "[127.0.0.1]:" + std::to_string(d.address().port());
        if (i % perMs == perMs - 1) sleepMs(1);
    }
    return devices;
}

// What the kills found.
struct KillStats {
    int midWrite = 0;        // kills that left a temporary file of their own life
    int checked = 0;         // record files judged
    int byAnnouncement = 0;  // ...rewritten by an announcement only (LAST_TIME)
    int byFlush = 0;         // ...rewritten by a flush too (LAST_ADDR of the join)

    void count(const std::string& before, const std::string& now) {
        ++checked;
        if (now == before) return;
        Fields b, n;
        parseFullRecord(before, b);
        parseFullRecord(now, n);
        ++(n["LAST_ADDR"] != b["LAST_ADDR"] ? byFlush : byAnnouncement);
    }
};

}  // namespace

TEST_F(FaultTest, KilledWhileWritingRecordsEveryFileStaysWhole) {
    std::map<std::string, std::string> current;  // duid -> what its file holds
    std::vector<std::string> duids;
    for (int i = 0; i < KILL_DEVICES; ++i) {
        duids.push_back(killDuid(i));
        current[duids.back()] = recordText(duids.back(), static_cast<DeviceID>(2000 + i));
        ASSERT_TRUE(writeFile(recordPath(duids.back()), current[duids.back()]));
    }
    // Left by an earlier crash: half written, naming an id no record has.
    ASSERT_TRUE(writeFile(recordPath("kr-007") + ".tmp", "DUID=kr-007\nID=9999\nSPE"));

    const unsigned seed = static_cast<unsigned>(currentTime());
    SCOPED_TRACE("random seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    KillStats stats;
    for (int kill = 0; kill < KILLS; ++kill) {
        startHub({"VELTO_FLUSH_INTERVAL_MS=20"});
        if (HasFatalFailure()) return;
        HubLife life;
        life.start = currentTime();
        std::shuffle(duids.begin(), duids.end(), rng);
        const Timestamp killAt = life.start + rng() % MAX_KILL_DELAY_MS;
        auto devices = announceAndJoin(duids, life, killAt, 10, rng);
        while (currentTime() < killAt) sleepMs(1);
        hub.kill9();
        life.end = currentTime();

        // DB holds the records and at most a temporary file of some of them.
        bool midWrite = false;
        for (const std::string& name : listDir(db())) {
            const bool tmp = name.size() > 8 && name.compare(name.size() - 8, 8, ".dev.tmp") == 0;
            const std::string duid = name.substr(0, name.size() - (tmp ? 8 : 4));
            ASSERT_TRUE(current.count(duid)) << "unexpected file " << name << " after kill " << kill;
            struct stat st;
            if (tmp && stat((db() + "/" + name).c_str(), &st) == 0 && static_cast<Timestamp>(st.st_mtime) * 1000 + 999 >= life.start)
                midWrite = true;
        }
        stats.midWrite += midWrite;
        for (auto& r : current) {
            const std::string now = readFile(recordPath(r.first));
            ASSERT_EQ("", judgeRecord(r.first, r.second, now, life)) << r.first << " after kill " << kill;
            stats.count(r.second, now);
            r.second = now;
        }
    }
    printf("kills %d (%d interrupted a write), records checked %d: %d rewritten by announcements, %d by flushes\n",
           KILLS, stats.midWrite, stats.checked, stats.byAnnouncement, stats.byFlush);

    // A last life, left alone until every device was announced, joined and
    // flushed: the stray temporary files are overwritten and gone, nothing was
    // read from them, and a SIGTERM ends the hub cleanly.
    startHub({"VELTO_FLUSH_INTERVAL_MS=20"});
    if (HasFatalFailure()) return;
    const std::string out = hub.out();
    EXPECT_EQ(std::string::npos, out.find("9999"));
    size_t loaded = 0;
    for (size_t at = out.find("add to map kr-"); at != std::string::npos; at = out.find("add to map kr-", at + 1))
        ++loaded;
    EXPECT_EQ(static_cast<size_t>(KILL_DEVICES), loaded);
    HubLife last;
    std::map<std::string, std::set<std::string>> usedAddrs;  // every address a device spoke from in this life
    std::vector<std::unique_ptr<SimDevice>> devices;
    auto notWritten = [&] {
        std::vector<std::string> pending;
        Fields f;
        for (const std::string& duid : duids)
            if (!parseFullRecord(readFile(recordPath(duid)), f) || !usedAddrs[duid].count(f["LAST_ADDR"]))
                pending.push_back(duid);
        return pending;
    };
    auto strayTemporaries = [&] {
        size_t n = 0;
        for (const std::string& name : listDir(db())) n += name.find(".tmp") != std::string::npos;
        return n;
    };
    std::vector<std::string> pending = duids;
    for (int round = 0; round < 5 && !pending.empty(); ++round) {  // what the hub dropped is sent again
        for (auto& d : announceAndJoin(pending, last, UINT64_MAX, 2, rng)) devices.push_back(std::move(d));
        for (const auto& a : last.addrOf) usedAddrs[a.first].insert(a.second);
        for (int waited = 0; waited < 3000 && !pending.empty(); waited += 20) {
            sleepMs(20);
            pending = notWritten();
        }
    }
    EXPECT_TRUE(pending.empty()) << pending.size() << " records not written, " << pending.front();
    EXPECT_EQ(0u, strayTemporaries());
    EXPECT_EQ(0, hub.stop(3000));
    for (const std::string& duid : duids) {
        Fields f;
        EXPECT_TRUE(parseFullRecord(readFile(recordPath(duid)), f)) << duid;
    }
}
