// Story helpers for the device-session tests: a loopback socket that plays a
// device (or the hub), packs read back from what it receives, a working
// directory of its own for the record files, and a device joined into the
// global client manager. Everything stays on 127.0.0.1; every wait is bounded.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <memory>
#include <string>
#include <vector>

#include "Hub/DeviceManager.h"
#include "Hub/HubConsoleConnector.h"
#include "Hub/server.h"
#include "Velto/UdpSocket.h"
#include "Velto/Velto.h"
#include "tests/support/device_sim.h"
#include "tests/support/test_support.h"

namespace sessionstory {

// A UDP socket bound on 127.0.0.1, port chosen by the system.
class LoopbackPeer {
public:
    LoopbackPeer() {
        EXPECT_TRUE(sock.bind(SockAddress("127.0.0.1", 0), false));
        addr = SockAddress("127.0.0.1", testsupport::boundPort(sock));
    }

    // One datagram within timeoutMs, or an empty vector.
    std::vector<uint8_t> receive(uint32_t timeoutMs = 500) {
        uint8_t buf[MAX_PACKET_SIZE];
        SockAddress from;
        int n = sock.recvWithTo(buf, sizeof(buf), &from, timeoutMs);
        if (n <= 0) return {};
        return std::vector<uint8_t>(buf, buf + n);
    }

    // The next datagram decoded as P; false when none arrives or it is another pack.
    template <typename P>
    bool receivePack(P& pack, uint32_t timeoutMs = 500) {
        std::vector<uint8_t> d = receive(timeoutMs);
        if (d.empty()) return false;
        VeltoPacket header;
        if (header.deserialize(d.data(), d.size(), false) < 1 || header.id != P::PACK_ID) {
            ADD_FAILURE() << "expected pack " << unsigned(P::PACK_ID) << ", got " << unsigned(header.id);
            return false;
        }
        return pack.deserialize(d.data(), d.size(), false) > 0;
    }

    // True when nothing arrives within waitMs.
    bool silent(uint32_t waitMs = 50) { return receive(waitMs).empty(); }

    UdpSocket sock;
    SockAddress addr;
};

// Makes the test binary work in a fresh directory holding "DB", so that the
// global client database writes its record files there (relative paths are
// resolved at each open). Register once per binary with
// ::testing::AddGlobalTestEnvironment(new ScratchWorkDir).
class ScratchWorkDir : public ::testing::Environment {
public:
    void SetUp() override {
        char buf[PATH_MAX];
        old = getcwd(buf, sizeof(buf)) ? buf : ".";
        tmp.reset(new testsupport::TempDir());
        ASSERT_EQ(0, mkdir(tmp->file("DB").c_str(), 0700));
        ASSERT_EQ(0, chdir(tmp->path().c_str()));
    }
    void TearDown() override {
        EXPECT_EQ(0, chdir(old.c_str()));
        tmp.reset();
    }

private:
    std::unique_ptr<testsupport::TempDir> tmp;
    std::string old;
};

// Every event queued in the global heap, taken out of it.
inline std::vector<EventEntry> takeAllEvents() {
    std::vector<EventEntry> out;
    clientMgr.retrievePendingEventsUpTo(out, UINT64_MAX);
    return out;
}

// A unique duid per call, so that every test joins a device never seen before.
inline std::string freshDuid(const std::string& stem) {
    static int counter = 0;
    return stem + "-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
}

// Joins a device living at `device` into the global manager, talking through
// `hub`; its proxy is destroyed by the destructor.
class JoinedDevice {
public:
    JoinedDevice(LoopbackPeer& device, LoopbackPeer& hub, const std::string& stem = "dev") {
        ClientInfo* info = clientMgr.createNewComer(device.addr, freshDuid(stem), "x", 1, currentTime());
        proxy = clientMgr.makeDeviceActive(info, &hub.sock);
        EXPECT_NE(nullptr, proxy);
        if (proxy) id = proxy->record().id;
    }
    ~JoinedDevice() { clientMgr.destroyClient(id); }
    JoinedDevice(const JoinedDevice&) = delete;
    JoinedDevice& operator=(const JoinedDevice&) = delete;

    // Gives the device objects 0..n-1 and makes it CONNECTED (no rights lookup).
    void connectWithObjects(uint8_t n) {
        for (uint8_t i = 0; i < n; ++i) {
            ObjectInfo oi;
            oi.objectNo = i;
            EXPECT_TRUE(proxy->setObjectInfo(oi));
        }
        proxy->status().state = NodeStatusInfo::CONNECTED;
    }

    ClientProxy* operator->() { return proxy; }
    ClientProxy& operator*() { return *proxy; }

    ClientProxy* proxy = nullptr;
    DeviceID id = 0;
};

}  // namespace sessionstory
