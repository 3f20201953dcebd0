// The fixture of the device scenarios: velto-hub started as a child process in
// a fresh temporary working directory with its own DB, device sessions of the
// device library in this process polled together, and readers of the hub's
// record files. A binary using it is built with VELTO_HUB_BIN and
// VELTO_DEVICE_BIN (paths of the two programs); its tests skip themselves
// outside a private network namespace, because the hub joins a multicast group.
#pragma once

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Device/DeviceSession.h"
#include "Device/PackKit.h"
#include "Velto/platform.h"
#include "tests/support/child_process.h"
#include "tests/support/test_support.h"
#include "tests/support/wire_bytes.h"

namespace testsupport {

using packkit::pattern;

// Two lower-case digits per byte, as the hub writes keys into its records.
inline std::string hexOf(const std::vector<uint8_t>& d) { return toHex(d.data(), d.size()); }
inline std::string hexOf(const ByteArray<32>& k) { return toHex(k.data(), k.size()); }

class DeviceScenarioFixture : public ::testing::Test {
protected:
    // A session and everything it reported. A muted session is not polled:
    // the device falls silent while its socket stays open.
    struct Recorder {
        device::DeviceSession session;
        std::vector<device::IncomingMessage> messages;
        std::vector<device::MessageError> errors;
        std::string diags;
        bool muted = false;
        Recorder(const device::DeviceConfig& c, device::SessionTiming t) : session(c, t) {
            session.onMessage([this](const device::IncomingMessage& m) { messages.push_back(m); });
            session.onError([this](const device::MessageError& e) { errors.push_back(e); });
            session.onDiagnostic([this](const std::string& d) { diags += d + "\n"; });
        }
    };

    void SetUp() override {
        if (!insidePrivateNetwork()) GTEST_SKIP() << "run inside a private network namespace (tests/netns.sh)";
        ASSERT_EQ(0, mkdir(work.file("DB").c_str(), 0755));
    }
    void TearDown() override {
        sessions.clear();
        hub.stop();
    }

    // Starts the hub in the working directory, its output in LOGNAME.out/.err.
    void startHub(const std::string& logName = "hub") {
        ASSERT_TRUE(hub.start({VELTO_HUB_BIN}, work.path(), logName));
        ASSERT_TRUE(hub.waitForOutput("Successfully bind", 5000)) << hub.err();
    }
    // Stops the hub with SIGTERM. Returns its exit status (-1: it had to be killed).
    int stopHub() { return hub.terminate(5000); }

    // Two objects, specification "t1" (too short to be downloaded), the hub at
    // 127.0.0.1.
    device::DeviceConfig config(const std::string& duid) const {
        device::DeviceConfig c;
        c.duid = duid;
        c.specs = "t1";
        c.discover = false;
        c.hub = SockAddress("127.0.0.1", device::HUB_PORT);
        c.objects = {device::DeviceObject{"obj0", "", 0, 0}, device::DeviceObject{"obj1", "", 0, 0}};
        return c;
    }
    device::DeviceSession& device(const device::DeviceConfig& c,
                                  device::SessionTiming t = device::SessionTiming()) {
        sessions.emplace_back(new Recorder(c, t));
        return sessions.back()->session;
    }
    device::DeviceSession& device(const std::string& duid, bool discover = false,
                                  const std::string& domain = device::DEFAULT_DOMAIN, bool sign = false,
                                  std::vector<uint8_t> mainKey = {}) {
        device::DeviceConfig c = config(duid);
        c.discover = discover;
        c.domain = domain;
        c.sign = sign;
        c.mainKey = std::move(mainKey);
        return device(c);
    }
    Recorder& rec(size_t i) { return *sessions[i]; }

    // Polls every started, unmuted session until pred holds. Returns false
    // after timeoutMs.
    template <class Pred>
    bool pumpUntil(Pred pred, int timeoutMs) {
        Timestamp end = currentTime() + static_cast<Timestamp>(timeoutMs);
        while (!pred()) {
            if (currentTime() >= end) return false;
            bool polled = false;
            for (auto& r : sessions) {
                if (r->muted || r->session.state() == device::DeviceSession::State::IDLE) continue;
                r->session.poll(2);
                polled = true;
            }
            if (!polled) sleepMs(2);
        }
        return true;
    }
    void pumpFor(int ms) {
        pumpUntil([] { return false; }, ms);
    }
    // Starts every session not yet started and polls until all are READY.
    bool joinAll(int timeoutMs = 8000) {
        for (auto& r : sessions)
            if (r->session.state() == device::DeviceSession::State::IDLE && !r->session.start()) return false;
        return pumpUntil([&] { return allReady(); }, timeoutMs);
    }
    bool allReady() const {
        for (auto& r : sessions)
            if (r->session.state() != device::DeviceSession::State::READY) return false;
        return true;
    }
    std::string cli() const { return VELTO_DEVICE_BIN; }

    std::string recordPath(const std::string& duid) const { return work.file("DB/" + duid + ".dev"); }
    // The value of KEY in the hub's record of duid, "" when absent.
    std::string recordValue(const std::string& duid, const std::string& key) const {
        std::istringstream lines(readFile(recordPath(duid)));
        std::string line;
        while (std::getline(lines, line))
            if (line.compare(0, key.size() + 1, key + "=") == 0) return line.substr(key.size() + 1);
        return "";
    }

    TempDir work;
    ChildProcess hub;
    std::vector<std::unique_ptr<Recorder>> sessions;
};

}  // namespace testsupport
