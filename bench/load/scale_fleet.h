// Many devices connected to one hub from one process: each device has its own
// UDP socket on 127.0.0.1 and goes through adoption, join and the configuration
// exchange (one object) with the protocol's packs, several at a time; once in,
// it answers the hub's pings so that the hub keeps it. Device 0 can also ping
// the hub in a closed loop to time how long the hub's loop takes to answer.
//
// This does not use the device library's sessions: they wait with select(),
// which cannot watch descriptors above 1024, and this fleet holds thousands.
// Single-threaded, epoll-driven; every wait and retry is bounded.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Velto/Velto.h"

namespace bench {

struct FleetStats {
    uint64_t pingsAnswered = 0;  // hub pings answered with a pong
    uint64_t retries = 0;        // handshake steps sent again
    uint64_t failed = 0;         // devices given up during the handshake
};

struct ProbeResult {
    std::vector<uint64_t> rttNs;     // one per answered probe ping
    uint64_t lost = 0;               // probe pings never answered
    uint64_t stray = 0;              // answers that matched no probe ping
    uint64_t worstAtMs = 0;          // when the longest round trip ended, ms after start
    std::vector<uint64_t> slowAtMs;  // when stalls (round trips of 50 ms or more) ended (at most 20)
};

class ScaleFleet {
public:
    ScaleFleet(uint16_t hubPort, std::string duidPrefix);
    ~ScaleFleet();
    ScaleFleet(const ScaleFleet&) = delete;
    ScaleFleet& operator=(const ScaleFleet&) = delete;

    // Adds devices until `total` are connected, at most `window` in handshake at
    // once. Returns true when `total` were reached within timeoutMs; false with
    // why set otherwise (sockets, time, or failed handshakes).
    bool growTo(int total, int window, uint64_t timeoutMs, std::string& why);
    int connected() const { return readyCount; }
    // Answers pings (and finishes nothing new) for ms milliseconds.
    bool serve(uint64_t ms);
    // Pings the hub from every connected device (a few hundred at a time) and
    // counts the devices it answers, i.e. those it still holds. Waits at most
    // timeoutMs. Returns that count.
    int rollCall(uint64_t timeoutMs);
    // Device 0 pings the hub back to back for ms milliseconds while every device
    // keeps answering the hub. Returns false when no device is connected.
    bool probe(uint64_t ms, ProbeResult& out);
    const FleetStats& stats() const { return counters; }

private:
    enum class Stage { ANNOUNCED, JOIN_SENT, CONFIGURING, READY, FAILED };
    struct Device {
        int fd = -1;
        std::string duid;
        DeviceID id = 0;
        Stage stage = Stage::ANNOUNCED;
        uint64_t lastSendNs = 0;
        int tries = 0;
        uint64_t clientRand = 0;
        uint32_t packetNo = 0;
        std::string offeredName;
    };

    bool addDevice(std::string& why);
    bool pump(uint64_t deadlineNs, int growTarget, int window);
    void handleReadable(size_t index);
    void onOffer(Device& d, const uint8_t* data, int n);
    void onAccepted(Device& d, const uint8_t* data, int n);
    void onGetObjectInfo(Device& d, const uint8_t* data, int n);
    void onConfigComplete(Device& d);
    void onPing(Device& d, const uint8_t* data, int n);
    void sendStep(Device& d);
    void sendPack(Device& d, VeltoPacket& p);
    void checkRetries(uint64_t now);
    int inHandshake() const { return static_cast<int>(devices.size()) - readyCount - failedCount; }

    uint16_t hubPort;
    std::string prefix;
    int epollFd = -1;
    std::vector<Device> devices;
    int readyCount = 0;
    int failedCount = 0;
    FleetStats counters;

    void probeStep(uint64_t now);
    void onProbeAnswer(uint64_t key, uint64_t now);

    // Probe state (device 0). A ping unanswered for 100 ms is followed by a
    // new one, but a late answer still counts with its own send time, so a
    // long stall is measured in full.
    bool probing = false;
    uint64_t probeKey = 0;
    std::map<uint64_t, uint64_t> probeOutstanding;  // key -> send time
    uint64_t probeLastSendNs = 0;
    uint64_t probeStartNs = 0;
    uint64_t probeMaxNs = 0;
    ProbeResult* probeOut = nullptr;

    // Roll-call state.
    std::vector<bool> rollAnswered;
};

}  // namespace bench
