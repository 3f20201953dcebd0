// Fuzzes the hub's datagram dispatch: an input is a sequence of datagrams
// (fuzz/datagram_input.h) handed to handleDatagram as if from four fixed
// 127.0.0.1 peers, the clock moved on before each and the loop's timed events,
// clean-up and flush run on its schedule. The stores work in a scratch "DB";
// two devices (the lamp, node 1000, signing with type 1; the switch, node
// 1001, unsigned) are joined through the real handlers, and join again before
// an input that speaks as them once lost. The hub is reset every 1000 inputs,
// past 8 devices or 512 announcements, or when a device cannot join again.
// No transfer ever starts. Checks beyond the sanitizers: at most five queued
// messages a device, 256 events, no newcomer or replaced proxy left unfreed.
#include <curl/curl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <new>
#include <streambuf>
#include <string>
#include <vector>

#include "Hub/Clients.h"
#include "Hub/DeviceManager.h"
#include "Hub/HubConsoleConnector.h"
#include "Hub/server.h"
#include "Velto/platform.h"
#include "fuzz/datagram_input.h"
#include "fuzz/fuzz_support.h"
#include "tests/support/device_sim.h"

using fuzzdatagram::DeviceProfile;
using testsupport::SimDevice;

// No transfer ever starts: the store's fetch gets no handle and gives up
// before any connection is made, and the library is never set up.
extern "C" CURLcode curl_global_init(long) { return CURLE_OK; }
extern "C" void curl_global_cleanup(void) {}
extern "C" CURL* curl_easy_init(void) { return nullptr; }

namespace {

constexpr int kMaxDatagramsPerInput = 64;
constexpr unsigned kInputsPerReset = 1000;
constexpr size_t kMaxDevices = 8;
constexpr unsigned kMaxAnnouncementsPerReset = 512;  // each may add a record file
constexpr Timestamp kFarFuture = UINT64_MAX / 2;
constexpr int kMaxDrain = 4096;

// Takes everything written and keeps nothing; the formatting still runs.
class DiscardBuf : public std::streambuf {
public:
    DiscardBuf() { setp(area, area + sizeof area); }

protected:
    int_type overflow(int_type ch) override {
        setp(area, area + sizeof area);
        return traits_type::not_eof(ch);
    }
    std::streamsize xsputn(const char*, std::streamsize n) override { return n; }

private:
    char area[256];
};

// The record a pre-joined device has before it first joins.
ClientDBRec profileRecord(const DeviceProfile& p, const SockAddress& addr) {
    ClientDBRec rec;
    rec.id = p.id;
    rec.duid = p.duid;
    rec.specs = "sp";  // too short to be looked up: activation stays local
    rec.version = 3;
    rec.assignedName = p.duid;
    rec.firstAddress = addr;
    rec.lastAddress = addr;
    rec.sessionKey = ByteArray<32>(p.sessionKey, sizeof p.sessionKey);
    rec.mainKey = ByteArray<32>(p.mainKey, p.mainKeyLen);
    rec.trust = p.mainKeyLen ? 2 : 0;
    rec.sigType = p.sigType;
    return rec;
}

// Everything the harness keeps between inputs; made once, freed at exit.
class DatagramHub {
public:
    DatagramHub();

    void runInput(const uint8_t* data, size_t size);
    // Frees what the hub holds, so that nothing is left to report at exit.
    void shutDown();

private:
    struct Device {
        const DeviceProfile* profile;
        SimDevice sim;
    };

    void reset();
    void restoreDevices();
    bool healthy(const Device& d);
    bool join(Device& d);
    void dropEverything();
    void step(const fuzzdatagram::Datagram& d);
    void periodicWork(Timestamp now);
    void checkInvariants();
    bool resetDue() const;

    fuzzsupport::ScratchDir scratch;
    std::string dbDir;
    UdpSocket hubSock;
    Device devices[2];
    UdpSocket spares[fuzzdatagram::kPeerCount - 2];
    SockAddress peers[fuzzdatagram::kPeerCount];
    EventBatch events;
    Timestamp nextCleanup = 0;
    Timestamp nextFlush = 0;
    int64_t clockOffset = 0;
    unsigned inputsSinceReset = 0;
    unsigned announcementsSinceReset = 0;
};

// Node 1, owned by the client manager, which never frees its virtual clients:
// kept here too so that it is not taken for a leak at exit.
HubMainServices* mainServices = nullptr;

DatagramHub::DatagramHub()
    : devices{{&fuzzdatagram::kLamp, SimDevice(fuzzdatagram::kLamp.duid)},
              {&fuzzdatagram::kSwitch, SimDevice(fuzzdatagram::kSwitch.duid)}} {
    dbDir = scratch.file("DB");
    if (mkdir(dbDir.c_str(), 0755) != 0) {
        perror("fuzz_datagram: scratch DB");
        abort();
    }
    specDb.~SpecsDB();
    new (&specDb) SpecsDB(dbDir);
    FUZZ_CHECK(hubSock.bind(SockAddress("127.0.0.1", 0), false));
    for (Device& d : devices) {
        FUZZ_CHECK(d.sim.ok());
        peers[d.profile->peer] = d.sim.address();
    }
    for (size_t i = 0; i < fuzzdatagram::kPeerCount - 2; ++i) {
        FUZZ_CHECK(spares[i].bind(SockAddress("127.0.0.1", 0), false));
        peers[fuzzdatagram::SPARE_PEER + i] = SockAddress("127.0.0.1", testsupport::boundPort(spares[i]));
    }
    FUZZ_CHECK(myDomain == fuzzdatagram::kDomain);
    reset();
}

// Destroys every device and newcomer and drops every pending event.
void DatagramHub::dropEverything() {
    std::vector<uint16_t> ids;
    for (const auto& entry : clientMgr.allDevices()) ids.push_back(entry.first);
    for (uint16_t id : ids) clientMgr.destroyClient(id);
    clientMgr.doCleanUp(kFarFuture);
    std::vector<EventEntry> drained;
    clientMgr.retrievePendingEventsUpTo(drained, UINT64_MAX);
    events = EventBatch();
}

void DatagramHub::reset() {
    dropEverything();
    clockOffset = 0;
    setClockOffsetForTesting(0);
    // The database object is built anew on the emptied directory: its cache of
    // DUIDs and ids only ever grows otherwise. The manager and the security
    // rules refer to it by address, which stays the same.
    fuzzsupport::emptyDirectory(dbDir);
    clientsDb.~ClientsDatabase();
    new (&clientsDb) ClientsDatabase(dbDir);
    for (Device& d : devices) clientsDb.updateRecord(profileRecord(*d.profile, peers[d.profile->peer]));
    clientsDb.preloadCache();  // the next free id follows the two records
    mainServices = new HubMainServices();
    FUZZ_CHECK(clientMgr.addVirtualClient(fuzzdatagram::kHubNode, mainServices));
    for (Device& d : devices) {
        if (!join(d)) {
            fprintf(stderr, "fuzz_datagram: %s does not join a fresh hub\n", d.profile->duid);
            abort();
        }
    }
    const Timestamp now = currentTime();
    nextCleanup = now + MaxCleanupInterval;
    nextFlush = now + FlushInterval;
    inputsSinceReset = 0;
    announcementsSinceReset = 0;
}

bool DatagramHub::healthy(const Device& d) {
    ClientProxy* proxy = clientMgr.getClient(d.profile->id);
    return proxy != nullptr && proxy->status().state == NodeStatusInfo::CONNECTED &&
           proxy->record().lastAddress == peers[d.profile->peer] && proxy->noOfObjects() >= d.profile->objects &&
           proxy->record().sessionKey == ByteArray<32>(d.profile->sessionKey, sizeof d.profile->sessionKey);
}

// A device the inputs lost (given up, replaced, moved to another address)
// joins again; when that fails the whole hub is reset.
void DatagramHub::restoreDevices() {
    for (Device& d : devices) {
        if (healthy(d)) continue;
        if (!join(d)) {
            reset();
            return;
        }
    }
}

// Announcement, join and configuration through the dispatch (drained
// beforehand of what the hub sent earlier); true when the device ends
// CONNECTED under its own id with its session key.
bool DatagramHub::join(Device& d) {
    for (int i = 0; i < kMaxDrain && !d.sim.receiveRaw(0).empty(); ++i) {
    }
    const SimDevice::ToHub toHub = [&](VeltoPacket& pack) {
        const testsupport::Bytes bytes = d.sim.encode(pack);
        handleDatagram(bytes.data(), bytes.size(), d.sim.address(), hubSock);
    };
    const ByteArray<32> mainKey = d.profile->mainKeyLen ? ByteArray<32>(d.profile->mainKey, d.profile->mainKeyLen)
                                                        : packkit::keyBytes(20, 0);
    return d.sim.join(toHub, fuzzdatagram::kDomain, mainKey, 0x0123456789abcdefULL, 0) &&
           d.sim.nodeId == d.profile->id && d.sim.configure(toHub, d.profile->objects, d.profile->sigType, 0) &&
           healthy(d);
}

bool DatagramHub::resetDue() const {
    return inputsSinceReset >= kInputsPerReset || clientMgr.allDevices().size() > kMaxDevices ||
           announcementsSinceReset > kMaxAnnouncementsPerReset;
}

// The loop's periodic work, judged against the pass's own now.
void DatagramHub::periodicWork(Timestamp now) {
    if (now >= nextFlush) {
        clientMgr.doFlush(now);
        nextFlush = currentTime() + FlushInterval;
    }
    if (now >= nextCleanup) {
        clientMgr.doCleanUp(now);
        FUZZ_CHECK(clientMgr.unheldNewComers() == 0 && clientMgr.replacedDevices() == 0);
        nextCleanup = currentTime() + MaxCleanupInterval;
    }
}

// One pass of the loop with d as the datagram received. The bytes are copied
// to a buffer of their exact size, so that reading past them is caught.
void DatagramHub::step(const fuzzdatagram::Datagram& d) {
    clockOffset += d.advanceMs;
    setClockOffsetForTesting(clockOffset);
    const Timestamp now = events.runDue(currentTime());
    if (d.size > 0) {
        std::unique_ptr<uint8_t[]> bytes(new uint8_t[d.size]);
        memcpy(bytes.get(), d.data, d.size);
        if (bytes[0] == NewBornDevicePack::PACK_ID) ++announcementsSinceReset;
        handleDatagram(bytes.get(), d.size, peers[d.peer], hubSock);
    }
    periodicWork(now);
}

void DatagramHub::checkInvariants() {
    FUZZ_CHECK(clientMgr.pendingEvents() <= ClientManager::MAX_EVENTS);
    for (const auto& entry : clientMgr.allDevices()) {
        FUZZ_CHECK(entry.second != nullptr);
        FUZZ_CHECK(entry.second->queuedMessages() <= ClientProxy::MAX_QUEUED_MESSAGES);
    }
}

// True when a datagram of the input names a pre-joined device as its sender
// (the node id at bytes 2-3 of the envelope, big-endian).
bool speaksAsDevice(const uint8_t* data, size_t size) {
    fuzzdatagram::Datagram d;
    for (int i = 0; i < kMaxDatagramsPerInput && fuzzdatagram::nextDatagram(data, size, d); ++i) {
        if (d.size < 4) continue;
        const uint16_t node = static_cast<uint16_t>(d.data[2] << 8 | d.data[3]);
        if (node == fuzzdatagram::kLamp.id || node == fuzzdatagram::kSwitch.id) return true;
    }
    return false;
}

void DatagramHub::runInput(const uint8_t* data, size_t size) {
    if (resetDue())
        reset();
    else if (speaksAsDevice(data, size))
        restoreDevices();
    fuzzdatagram::Datagram d;
    for (int i = 0; i < kMaxDatagramsPerInput && fuzzdatagram::nextDatagram(data, size, d); ++i) step(d);
    checkInvariants();
    ++inputsSinceReset;
}

void DatagramHub::shutDown() {
    dropEverything();
    fuzzsupport::emptyDirectory(dbDir);
    rmdir(dbDir.c_str());
}

DatagramHub* hub = nullptr;

// Frees the devices and the scratch directory before the hub's globals go.
void shutDownHub() {
    if (hub == nullptr) return;
    hub->shutDown();
    delete hub;
    hub = nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The hub's lines are kept only when VELTO_FUZZ_HUB_LOG is set (to look at
    // what an input does). Never freed: the streams may still be written to
    // while the process ends.
    if (getenv("VELTO_FUZZ_HUB_LOG") == nullptr) {
        static DiscardBuf* discard = new DiscardBuf();
        std::cout.rdbuf(discard);
        std::cerr.rdbuf(discard);
    }
    hub = new DatagramHub();
    atexit(shutDownHub);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    hub->runInput(data, size);
    return 0;
}
