// The owner of every party the hub talks to, and of the hub's timed events.
//
// ClientManager holds newcomers (devices that have not finished joining, keyed
// by address), active devices (one ClientProxy per node id, 256 and up) and
// in-hub virtual clients (node ids below 256), and owns all of them. It also
// owns the single bounded min-heap of timed events (256 entries) that the main
// loop drains, and does the periodic clean-up and flush. Times are milliseconds
// from currentTime(). Single-threaded: everything runs on the main loop.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Hub/Clients.h"
#include "Hub/Database/ClientsDB.h"
#include "Velto/UdpSocket.h"
#include "Velto/platform.h"

class VirtualClient;

// A timed event; built zero-filled, then type, dev and t are set.
struct EventEntry {
    enum Type : int32_t { DELAYED_SND = 0, CHECK_SND_TO = 1, CHECK_RCV_TO = 2, CLEANUP = 3, DESTROY_DEVICE = 4 };

    Type type = DELAYED_SND;
    DeviceID dev = 0;
    uint8_t obj = 0;
    Timestamp t = 0;  // due time

    EventEntry() = default;
    EventEntry(Type type_, DeviceID dev_, Timestamp t_) : type(type_), dev(dev_), t(t_) {}
};

// Orders by due time only; equal times have no defined order (no tie-break).
inline bool operator<(const EventEntry& a, const EventEntry& b) { return a.t < b.t; }

// Fixed-capacity binary min-heap over a caller-supplied array (not owned).
template <typename T>
class MinHeap {
public:
    MinHeap(T* data_, size_t arraySize_) : data(data_), heapSize(0), arraySize(arraySize_) {}

    const T& front() const { return data[0]; }
    bool empty() const { return heapSize == 0; }
    size_t size() const { return heapSize; }

    // False (entry dropped) when full.
    bool push(const T& e) {
        if (heapSize >= arraySize) return false;
        data[heapSize] = e;
        siftUp(heapSize++);
        return true;
    }

    void pop() {
        if (heapSize == 0) return;
        data[0] = data[heapSize - 1];
        --heapSize;
        if (heapSize > 0) siftDown(0);
    }

    static size_t getLeftChildIndex(size_t i) { return 2 * i + 1; }
    static size_t getRightChildIndex(size_t i) { return 2 * i + 2; }
    static size_t getParentIndex(size_t i) { return (i - 1) / 2; }

private:
    void siftUp(size_t i) {
        while (i != 0 && data[i] < data[getParentIndex(i)]) {
            std::swap(data[i], data[getParentIndex(i)]);
            i = getParentIndex(i);
        }
    }

    void siftDown(size_t i) {
        for (;;) {
            size_t l = getLeftChildIndex(i), r = getRightChildIndex(i), child;
            if (r < heapSize)
                child = data[r] < data[l] ? r : l;  // on equal times the left child wins
            else if (l < heapSize)
                child = l;
            else
                return;
            if (!(data[child] < data[i])) return;
            std::swap(data[i], data[child]);
            i = child;
        }
    }

    T* data;
    size_t heapSize;
    size_t arraySize;
};

// What is known of a device while it joins.
struct ClientInfo {
    ClientDBRec record;
    NodeStatusInfo status;  // state UNKNOW, maxIddleTimeSeconds 5
    std::vector<ObjectInfo> objects;
};

class ClientManager {
public:
    static constexpr size_t MAX_EVENTS = 256;
    static constexpr uint32_t MaxNewCommerIddleTime = 45000;  // ms a newcomer may stay silent
    // Node ids below this are virtual clients; devices are looked up from here on.
    static constexpr uint16_t FIRST_DEVICE_ID = 256;
    // Longest stretch of record writing per flush step, ms.
    static constexpr unsigned FLUSH_SLICE_MS = 5;
    // While datagrams keep the loop busy, a flush step runs at most once per
    // this many ms (from the end of the last step): traffic keeps most of the loop.
    static constexpr unsigned FLUSH_BUSY_GAP_MS = 20;

    explicit ClientManager(ClientsDatabase& db);
    // Frees the heap and every party it still holds: newcomers (kept or
    // unheld), proxies (active or replaced) and virtual clients.
    ~ClientManager();
    ClientManager(const ClientManager&) = delete;
    ClientManager& operator=(const ClientManager&) = delete;

    // The newcomer at addr when duid is empty or matches it; for another duid
    // that the database knows, a freshly loaded ClientInfo that the map does NOT
    // hold (kept asymmetry); null otherwise (a failed load also drops the
    // address's entry). Refreshes the held entry's lastRecvTime on success.
    // A ClientInfo the map does not hold stays the manager's: it is valid until
    // the next doCleanUp pass, which frees it.
    ClientInfo* getNewComer(const SockAddress& addr, const std::string& duid);
    // Registers a newcomer (an entry already held for addr is kept) and writes
    // its record: loaded and re-stamped for a known duid, a new id otherwise.
    // Returns the fresh ClientInfo (state INITIALIZED); never null. When the map
    // kept an older entry for addr, the result is valid until the next doCleanUp
    // pass, as for getNewComer.
    ClientInfo* createNewComer(const SockAddress& addr, const std::string& duid, const std::string& specs,
                               uint8_t version, Timestamp now);
    // Turns a newcomer into a device session; null (with a line on standard
    // error) when info is null, has id 0, or is not a newcomer of this manager.
    // A proxy already registered under the id is replaced without a word (kept)
    // and freed by the next doCleanUp pass.
    ClientProxy* makeDeviceActive(ClientInfo* info, UdpSocket* socket);
    // 255 for a device that has been here before (firstConnect < lastConnect), else 200.
    uint8_t offerScoreForDevice(const ClientInfo& info);
    // Always false: no device is avoided.
    bool avoidDevice(const SockAddress& addr, const std::string& duid, const std::string& specs, uint8_t version);

    // The device's proxy or null.
    ClientProxy* getClient(uint16_t id);
    // Takes ownership; false when vc is null or id >= 256. Replaces (deletes)
    // a virtual client already registered under id.
    bool addVirtualClient(uint16_t id, VirtualClient* vc);
    // id < 256: the virtual client or null; otherwise getClient(id).
    MessageTargetInterface* getMessageTarget(uint16_t id);

    // False (event lost) when the heap is full.
    bool requestTimedEvent(const EventEntry& e);
    // Appends (earliest first) and removes every event due at or before limit.
    // Returns the smallest due time retrieved, or limit.
    Timestamp retrievePendingEventsUpTo(std::vector<EventEntry>& out, Timestamp limit);

    // Starts a flush round: every device's record is to be written to the
    // database, in id order. A record equal to what this manager last wrote
    // successfully to its file is skipped (the file holds it already; a file
    // changed or removed behind the hub's back is not noticed). Writing is
    // spread over the passes of the loop so that it never holds the loop for
    // long: this call and each continueFlush() write for at most
    // FLUSH_SLICE_MS, and each record is taken with its content at the moment
    // it is written. A round still under way when the next one starts is
    // taken over by it, which goes on after the last device handled.
    void doFlush(Timestamp now);
    // True while a flush round has records left to look at.
    bool flushPending() const { return flushNext < flushQueue.size(); }
    // Writes the next records of the round under way, for at most
    // FLUSH_SLICE_MS; nothing when none is under way. With busy (the loop
    // handled a datagram in this pass) nothing either when the last step ended
    // less than FLUSH_BUSY_GAP_MS ago.
    void continueFlush(bool busy = false);
    // Writes every device's changed record now, in one go (shutdown); ends any
    // round under way.
    void flushAll();
    // Sets the longest stretch of writing per flush step and the gap between
    // steps while busy, ms (FLUSH_SLICE_MS and FLUSH_BUSY_GAP_MS unless set); a
    // slice of 0 writes one record per step.
    void setFlushPacing(unsigned sliceMs, unsigned busyGapMs) {
        flushSliceMs = sliceMs;
        flushBusyGapMs = busyGapMs;
    }
    // Frees the ClientInfos handed out but not held (see getNewComer) and the
    // proxies replaced by makeDeviceActive; drops newcomers silent for more than
    // 45000 ms; asks (CHECK_RCV_TO, due now) for a probe of every device silent
    // beyond its maxIddleTimeSeconds.
    void doCleanUp(Timestamp now);
    // Deactivates the proxy, tells every proxy and virtual client, deletes it.
    // Nothing for an unknown id.
    void destroyClient(uint16_t id);

    // Inspection, for the services and the tests.
    const std::map<uint16_t, ClientProxy*>& allDevices() const { return devices; }
    const std::map<uint16_t, VirtualClient*>& allVirtualClients() const { return virtualClients; }
    const std::map<SockAddress, ClientInfo*>& allNewComers() const { return newComers; }
    size_t pendingEvents() const { return events ? events->size() : 0; }
    // ClientInfos handed out but not held by the newcomer map, and proxies
    // replaced under their id, not yet freed.
    size_t unheldNewComers() const { return unheld.size(); }
    size_t replacedDevices() const { return replaced.size(); }

private:
    ClientInfo* loadOtherNewComer(const SockAddress& addr, const std::string& duid);
    void index(uint16_t id, ClientProxy* proxy);
    typedef std::array<uint8_t, 16> RecordDigest;
    void writeRecord(const ClientDBRec& rec);
    // The same, with rec's digest already computed by the caller.
    void writeRecord(const ClientDBRec& rec, const RecordDigest& digest);
    void flushRecord(const ClientDBRec& rec);
    void flushSlice();
    void keepIfUnheld(const SockAddress& addr, ClientInfo* info);
    void freeLeftBehind();
    void dropIdleNewComers(Timestamp now);
    void probeSilentDevices(Timestamp now);

    ClientsDatabase& db;
    std::map<SockAddress, ClientInfo*> newComers;
    std::map<uint16_t, ClientProxy*> devices;
    // The same proxies indexed by id (null where none), for the per-datagram
    // lookup: a vector as long as the highest id seen.
    std::vector<ClientProxy*> byId;
    std::map<uint16_t, VirtualClient*> virtualClients;
    EventEntry* eventArray;
    MinHeap<EventEntry>* events;
    // duid -> digest of the file image this manager last wrote successfully
    // to that duid's file (16 bytes of its SHA-256).
    std::map<std::string, RecordDigest> lastWritten;
    // The flush round under way: device ids still to look at from flushNext on.
    std::vector<uint16_t> flushQueue;
    size_t flushNext = 0;
    unsigned flushSliceMs = FLUSH_SLICE_MS;
    unsigned flushBusyGapMs = FLUSH_BUSY_GAP_MS;
    std::chrono::steady_clock::time_point lastSliceEnd;
    // ClientInfos returned to a caller that the newcomer map did not take (it
    // kept the older entry of the address). Callers use them only until their
    // handler returns; the next clean-up pass frees them.
    std::vector<ClientInfo*> unheld;
    // Proxies that a new session of the same id replaced in `devices`; nothing
    // reaches them any more. Freed by the next clean-up pass.
    std::vector<ClientProxy*> replaced;
};
