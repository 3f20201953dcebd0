#include "Hub/DeviceManager.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <iostream>

#include "Hub/HubConsoleConnector.h"
#include "Hub/log_line.h"
#include "Velto/Sha/sha256.h"

namespace {

// The first bytes of the SHA-256 of a record's file image: equal records give
// equal digests, and two different images do not share one in practice.
template <typename Digest>
Digest digestOf(const ClientDBRec& rec) {
    const std::string text = recordText(rec);
    Sha256Class h;
    h.write(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    Digest d;
    memcpy(d.data(), h.result(), d.size());
    return d;
}

}  // namespace

ClientManager::ClientManager(ClientsDatabase& db_)
    : db(db_), eventArray(new EventEntry[MAX_EVENTS]), events(new MinHeap<EventEntry>(eventArray, MAX_EVENTS)) {}

// The parties still held go with the manager, so that a hub leaving in order
// (or a test) releases everything it owns.
ClientManager::~ClientManager() {
    freeLeftBehind();
    for (auto& n : newComers) delete n.second;
    for (auto& d : devices) delete d.second;
    for (auto& v : virtualClients) delete v.second;
    delete events;
    delete[] eventArray;
}

ClientInfo* ClientManager::getNewComer(const SockAddress& addr, const std::string& duid) {
    auto it = newComers.find(addr);
    if (it == newComers.end()) {
        std::cout << "ClientManager::getNewComer newComers.find(" << addr << ")= end. duid=" << duid << '\n';
        return nullptr;
    }
    ClientInfo* result = nullptr;
    if (duid.empty() || (it->second && duid == it->second->record.duid)) {
        result = it->second;
        std::cout << "ClientManager::getNewComer client=cIt->second for duid=" << duid
                  << " CI=" << static_cast<const void*>(result) << '\n';
    } else {
        result = loadOtherNewComer(addr, duid);
        it = newComers.find(addr);  // the entry may be gone after a failed load
    }
    if (result && it != newComers.end() && it->second) it->second->status.lastRecvTime = currentTime();
    return result;
}

// A different device speaks from an address that a newcomer already holds.
// Kept: the fresh ClientInfo is offered to the map, which keeps the old entry,
// so on success the result is an object the map does not hold (the join that
// follows then fails in makeDeviceActive). On a failed load the address's
// entry is dropped.
ClientInfo* ClientManager::loadOtherNewComer(const SockAddress& addr, const std::string& duid) {
    DeviceID id = db.objectIdFor(duid);
    std::cout << "ClientManager::getNewComer db.objectIdFor(" << duid << ")=" << id << '\n';
    if (id == 0) return nullptr;
    ClientInfo* fresh = new ClientInfo();
    newComers.insert(std::make_pair(addr, fresh));  // never replaces the existing entry
    if (db.loadRecord(duid, fresh->record)) {
        keepIfUnheld(addr, fresh);
        return fresh;
    }
    auto it = newComers.find(addr);
    if (it != newComers.end()) {
        // The old newcomer leaves the map here; the manager owns it, so it goes.
        if (it->second != fresh) delete it->second;
        newComers.erase(it);
    }
    delete fresh;
    return nullptr;
}

ClientInfo* ClientManager::createNewComer(const SockAddress& addr, const std::string& duid, const std::string& specs,
                                          uint8_t version, Timestamp now) {
    DeviceID id = db.objectIdFor(duid);
    ClientInfo* info = new ClientInfo();
    // Kept: an entry already held for addr stays in the map; the fresh one is
    // returned all the same.
    newComers.insert(std::make_pair(addr, info));
    keepIfUnheld(addr, info);
    ClientDBRec& rec = info->record;
    if (id != 0 && db.loadRecord(duid, rec)) {
        rec.lastConnect = now;  // lastRecvTime stays 0: the next clean-up drops it unless refreshed
    } else {
        rec.id = db.getNextFreeId();
        rec.assignedName = duid;
        rec.duid = rec.assignedName;
        rec.firstAddress = addr;
        rec.lastAddress = rec.firstAddress;
        rec.lastConnect = now;
        rec.firstConnect = rec.lastConnect;
        info->status.lastRecvTime = now;
        rec.specs = specs;
        rec.version = version;
        rec.keyTime = 0;
    }
    writeRecord(rec);
    info->status.state = NodeStatusInfo::INITIALIZED;
    return info;
}

ClientProxy* ClientManager::makeDeviceActive(ClientInfo* info, UdpSocket* socket) {
    if (info == nullptr) {
        std::cerr << " failed to make device because ClientInfo==NULL\n";
        return nullptr;
    }
    if (info->record.id == 0) {
        std::cerr << " failed to make device because dbRecord.id==0\n";
        return nullptr;
    }
    auto it = newComers.begin();
    while (it != newComers.end() && it->second != info) ++it;
    if (it == newComers.end()) {
        std::cerr << " failed to make device because no newcommers match the passed parameter\n";
        return nullptr;
    }
    ClientProxy* proxy = new ClientProxy(*info, socket);
    // Kept: a proxy already registered under this id is overwritten without any
    // notice; only its memory is reclaimed, at the next clean-up.
    ClientProxy*& slot = devices[info->record.id];
    if (slot != nullptr) replaced.push_back(slot);
    slot = proxy;
    index(info->record.id, proxy);
    newComers.erase(it);
    delete info;
    return proxy;
}

uint8_t ClientManager::offerScoreForDevice(const ClientInfo& info) {
    return info.record.firstConnect < info.record.lastConnect ? 255 : 200;
}

bool ClientManager::avoidDevice(const SockAddress&, const std::string&, const std::string&, uint8_t) { return false; }

ClientProxy* ClientManager::getClient(uint16_t id) {
    return id < byId.size() ? byId[id] : nullptr;
}

bool ClientManager::addVirtualClient(uint16_t id, VirtualClient* vc) {
    if (vc == nullptr || id >= FIRST_DEVICE_ID) return false;
    auto it = virtualClients.find(id);
    if (it != virtualClients.end()) {
        if (it->second != vc) delete it->second;
        it->second = vc;
    } else {
        virtualClients[id] = vc;
    }
    return true;
}

MessageTargetInterface* ClientManager::getMessageTarget(uint16_t id) {
    if (id >= FIRST_DEVICE_ID) return getClient(id);
    auto it = virtualClients.find(id);
    return it == virtualClients.end() ? nullptr : it->second;
}

bool ClientManager::requestTimedEvent(const EventEntry& e) { return events != nullptr && events->push(e); }

Timestamp ClientManager::retrievePendingEventsUpTo(std::vector<EventEntry>& out, Timestamp limit) {
    if (events == nullptr) return limit;
    Timestamp earliest = limit;
    while (!events->empty() && events->front().t <= limit) {
        const EventEntry& e = events->front();
        if (e.t < earliest) earliest = e.t;
        out.push_back(e);
        events->pop();
    }
    return earliest;
}

void ClientManager::doFlush(Timestamp) {
    // A round still under way resumes after the last device it handled, so
    // that every device gets its turn however often rounds start.
    const bool resume = flushPending() && flushNext > 0;
    const uint16_t after = resume ? flushQueue[flushNext - 1] : 0;
    flushQueue.clear();
    flushNext = 0;
    for (const auto& entry : devices)
        if (entry.second != nullptr) flushQueue.push_back(entry.first);
    if (resume) {
        auto first = std::upper_bound(flushQueue.begin(), flushQueue.end(), after);
        std::rotate(flushQueue.begin(), first, flushQueue.end());
    }
    flushSlice();
}

void ClientManager::continueFlush(bool busy) {
    if (!flushPending()) return;
    if (busy && std::chrono::steady_clock::now() - lastSliceEnd < std::chrono::milliseconds(flushBusyGapMs)) return;
    flushSlice();
}

void ClientManager::flushAll() {
    flushQueue.clear();
    flushNext = 0;
    for (auto& entry : devices)
        if (entry.second != nullptr) flushRecord(entry.second->record());
}

// Writes queued records until the queue is done or the slice time is used up;
// the queue's storage is kept for the next round.
void ClientManager::flushSlice() {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point until = Clock::now() + std::chrono::milliseconds(flushSliceMs);
    while (flushNext < flushQueue.size()) {
        ClientProxy* proxy = getClient(flushQueue[flushNext++]);
        if (proxy != nullptr) flushRecord(proxy->record());
        if (Clock::now() >= until) break;
    }
    if (flushNext >= flushQueue.size()) {
        flushQueue.clear();
        flushNext = 0;
    }
    lastSliceEnd = Clock::now();
}

// Writes rec unless its file is known to hold it already.
void ClientManager::flushRecord(const ClientDBRec& rec) {
    const RecordDigest digest = digestOf<RecordDigest>(rec);
    auto last = lastWritten.find(rec.duid);
    if (last != lastWritten.end() && last->second == digest) return;
    writeRecord(rec, digest);
}

// Every record write of the manager goes through here so that the digest of
// the last record written per DUID stays true to the file: a write that did
// not happen (refused, failed) leaves no digest, and the next flush tries again.
void ClientManager::writeRecord(const ClientDBRec& rec) { writeRecord(rec, digestOf<RecordDigest>(rec)); }

void ClientManager::writeRecord(const ClientDBRec& rec, const RecordDigest& digest) {
    if (db.storeRecord(rec))
        lastWritten[rec.duid] = digest;
    else
        lastWritten.erase(rec.duid);
}

// Keeps byId in step with `devices`; it grows to the highest id seen.
void ClientManager::index(uint16_t id, ClientProxy* proxy) {
    if (id >= byId.size()) {
        if (proxy == nullptr) return;
        byId.resize(static_cast<size_t>(id) + 1, nullptr);
    }
    byId[id] = proxy;
}

void ClientManager::doCleanUp(Timestamp now) {
    freeLeftBehind();
    dropIdleNewComers(now);
    probeSilentDevices(now);
}

// A ClientInfo that the map did not take under addr is remembered so that the
// next clean-up frees it; otherwise every such one would be lost.
void ClientManager::keepIfUnheld(const SockAddress& addr, ClientInfo* info) {
    auto it = newComers.find(addr);
    if (it == newComers.end() || it->second != info) unheld.push_back(info);
}

// The handlers that received these have long returned, and nothing refers to
// a replaced proxy (every lookup goes by id). The copy of the record written
// for an unheld newcomer goes too (at worst the flush writes an unchanged
// record once more, as after a dropped newcomer).
void ClientManager::freeLeftBehind() {
    for (ClientInfo* info : unheld) {
        lastWritten.erase(info->record.duid);
        delete info;
    }
    unheld.clear();
    for (ClientProxy* proxy : replaced) delete proxy;
    replaced.clear();
}

void ClientManager::dropIdleNewComers(Timestamp now) {
    for (auto it = newComers.begin(); it != newComers.end();) {
        ClientInfo* info = it->second;
        if (info != nullptr && info->status.lastRecvTime + MaxNewCommerIddleTime >= now) {
            ++it;
            continue;
        }
        DeviceID id = info ? info->record.id : 0;
        std::string duid = info ? info->record.duid : std::string();
        delete info;
        lastWritten.erase(duid);  // bounds the copies; at worst one extra write later
        std::cout << "ClientManager::doCleanUp: Delete newcommer id=" << id << " duid=" << duid << '\n';
        it = newComers.erase(it);
    }
}

void ClientManager::probeSilentDevices(Timestamp now) {
    for (auto& entry : devices) {
        if (entry.second == nullptr) continue;
        const NodeStatusInfo& st = entry.second->status();
        if (st.lastRecvTime + static_cast<Timestamp>(st.maxIddleTimeSeconds) * 1000 >= now) continue;
        requestTimedEvent(EventEntry(EventEntry::CHECK_RCV_TO, entry.first, now));
        LogLine(std::cout) << "ClientManager::doCleanUp: Request CHECK_RCV_TO devId=" << entry.first << '\n';
    }
}

void ClientManager::destroyClient(uint16_t id) {
    auto it = devices.find(id);
    if (it == devices.end()) return;
    ClientProxy* proxy = it->second;
    std::cout << "Will destroy proxy for Device: " << id << '\n';
    if (proxy) proxy->deactivate();
    for (auto& entry : devices)
        if (entry.second) entry.second->deviceHadBeenRemoved(id);
    for (auto& entry : virtualClients)
        if (entry.second) entry.second->deviceHadBeenRemoved(id);
    devices.erase(id);
    index(id, nullptr);
    if (proxy) lastWritten.erase(proxy->record().duid);
    delete proxy;
}
