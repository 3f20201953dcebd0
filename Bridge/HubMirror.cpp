// The mirror of the hub's devices: list and object requests and their replies.
#include "Bridge/HubMirror.h"

#include <algorithm>

#include "Bridge/FieldCodec.h"
#include "Bridge/TopicNames.h"

namespace bridge {

namespace {

constexpr uint8_t NODE_CONNECTED = 6;  // the hub's node state of a device that completed its configuration

template <typename Msg>
std::vector<uint8_t> encodeRequest(const Msg& req) {
    std::vector<uint8_t> body(req.estimateRequiredSize());
    uint8_t* cur = body.data();
    size_t left = body.size();
    if (!req.addToBuffer(cur, left)) return {};
    body.resize(body.size() - left);
    return body;
}

}  // namespace

HubMirror::HubMirror(device::DeviceSession& s, InterfaceStore& st, MirrorListener& l, int poll)
    : session(s), store(st), listener(l), pollMs(poll) {}

void HubMirror::service(Timestamp now) {
    if (session.state() != device::DeviceSession::State::READY) return;
    if (listSentAt != 0 && now >= listSentAt + REPLY_WAIT_MS) listSentAt = 0;  // lost: ask again
    if (listSentAt == 0 && now >= nextList) askList(now);
    askObjects(now);
}

void HubMirror::askList(Timestamp now) {
    RequestBasicDeviceListMsg req;
    if (session.sendDirect(1, 1, RequestBasicDeviceListMsg::MSG_ID, encodeRequest(req), 0) < 0) return;
    listSentAt = now;
    nextList = now + static_cast<Timestamp>(pollMs);
}

void HubMirror::askObjects(Timestamp now) {
    for (auto it = asking.begin(); it != asking.end();) {  // a lost reply is asked for again
        if (now >= it->second + REPLY_WAIT_MS) {
            toAsk.push_back(it->first);
            it = asking.erase(it);
        } else {
            ++it;
        }
    }
    while (asking.size() < WINDOW && !toAsk.empty()) {
        DeviceID id = toAsk.front();
        toAsk.pop_front();
        if (asking.count(id) != 0 || devs.count(id) == 0 || !devs[id].online) continue;
        RequestBasicObjectInfoMsg req;
        req.nodeId = id;
        if (session.sendDirect(1, 1, RequestBasicObjectInfoMsg::MSG_ID, encodeRequest(req), 0) < 0) {
            toAsk.push_front(id);  // the session's queue is full: next pass
            return;
        }
        asking[id] = now;
    }
}

void HubMirror::onHubMessage(const device::IncomingMessage& m) {
    const MsgSelector& s = m.selector;
    if (s.msgCat == DIRECT_MSGCAT && s.fromDeviceId == 1) {
        if (s.msgId == BasicDeviceListMsg::MSG_ID) takeList(m.data);
        if (s.msgId == BasicObjectInfoMsg::MSG_ID) takeObjects(m.data);
        return;
    }
    if (s.msgCat != NOTIFICATION_MSGCAT) return;  // direct messages to the bridge are not relayed
    auto it = devs.find(s.fromDeviceId);
    if (it == devs.end() || !it->second.described) return;
    const BridgeObject* obj = it->second.object(s.fromObjectNo);
    const VeltoMessageInfo* msg = obj ? obj->message(NOTIFICATION_MSGCAT, s.msgId) : nullptr;
    if (msg == nullptr) return;
    listener.notification(it->second, *obj, *msg, decodeBody(msg->fields, m.data.data(), m.data.size()));
}

void HubMirror::takeList(const std::vector<uint8_t>& body) {
    listSentAt = 0;
    BasicDeviceListMsg list;
    const uint8_t* cur = body.data();
    size_t left = body.size();
    if (!list.getFromBuffer(cur, left)) return;
    std::set<DeviceID> seen;
    for (const BasicDeviceInfo& info : list.devList)
        if (info.id >= 256 && info.id != session.nodeId()) updateEntry(info, seen);
    for (auto& entry : devs)
        if (seen.count(entry.first) == 0) setOnline(entry.second, false);
    std::set<std::string> stillIgnored;
    for (const BasicDeviceInfo& info : list.devList)
        if (ignored.count(info.duid.str()) != 0) stillIgnored.insert(info.duid.str());
    ignored.swap(stillIgnored);
}

void HubMirror::updateEntry(const BasicDeviceInfo& info, std::set<DeviceID>& seen) {
    if (ignored.count(info.duid.str()) != 0) return;
    seen.insert(info.id);
    BridgeDevice& dev = devs[info.id];
    if (dev.duid != info.duid.str()) {  // new, or the id now belongs to another device
        dev = BridgeDevice();
        dev.id = info.id;
        dev.duid = info.duid.str();
    }
    dev.name = info.nname.str();
    dev.specs = info.specs.str();
    dev.state = info.status;
    setOnline(dev, info.status == NODE_CONNECTED);
}

void HubMirror::setOnline(BridgeDevice& dev, bool online) {
    if (dev.online == online) return;
    dev.online = online;
    // A device that comes back has a fresh session at the hub: its objects are
    // read and its notifications subscribed again before it is said online
    // (takeObjects), so what it sends after that reaches its topics.
    if (online)
        toAsk.push_back(dev.id);
    else
        listener.availabilityChanged(dev);
}

void HubMirror::takeObjects(const std::vector<uint8_t>& body) {
    BasicObjectInfoMsg info;
    const uint8_t* cur = body.data();
    size_t left = body.size();
    if (!info.getFromBuffer(cur, left)) return;
    asking.erase(info.nodeId);
    auto it = devs.find(info.nodeId);
    if (it == devs.end()) return;
    BridgeDevice& dev = it->second;
    dev.objects.clear();
    for (const BasicObjectInfo& o : info.objects) {
        BridgeObject obj;
        obj.number = o.objectNo;
        obj.name = o.name.str();
        obj.interface = o.interface.str();
        obj.interfaceId = o.interfaceId.str();
        obj.doc = store.find(obj.interfaceId);
        dev.objects.push_back(obj);
    }
    dev.described = true;
    subscribeAll(dev);
    listener.deviceDescribed(dev);
    if (dev.online) listener.availabilityChanged(dev);
}

void HubMirror::subscribeAll(const BridgeDevice& dev) {
    for (const BridgeObject& o : dev.objects)
        if (o.doc)
            for (const VeltoMessageInfo& m : o.doc->messages)
                if (m.type == NOTIFICATION_MSGCAT)
                    session.subscribe(dev.id, o.number, static_cast<uint16_t>(m.id), true);
}

void HubMirror::documentsArrived() {
    std::vector<std::string> ids = store.takeDownloaded();
    if (ids.empty()) return;
    std::set<std::string> arrived(ids.begin(), ids.end());
    for (auto& entry : devs) {
        BridgeDevice& dev = entry.second;
        bool changed = false;
        for (BridgeObject& o : dev.objects)
            if (!o.doc && arrived.count(o.interfaceId) != 0) {
                o.doc = store.find(o.interfaceId);
                changed = changed || o.doc != nullptr;
            }
        if (!changed) continue;
        if (dev.online) subscribeAll(dev);
        listener.deviceDescribed(dev);
    }
}

void HubMirror::sessionLost() {
    for (auto& entry : devs) setOnline(entry.second, false);
    asking.clear();
    toAsk.clear();
    listSentAt = 0;
}

void HubMirror::sessionBack() { nextList = 0; }

void HubMirror::refresh() {
    store.forget();
    for (auto& entry : devs)
        if (entry.second.online) toAsk.push_back(entry.first);
    nextList = 0;
}

bool HubMirror::forget(const std::string& duid, BridgeDevice& removed) {
    for (auto it = devs.begin(); it != devs.end(); ++it) {
        if (it->second.duid != duid) continue;
        removed = it->second;
        ignored.insert(duid);
        asking.erase(it->first);
        devs.erase(it);
        return true;
    }
    return false;
}

const BridgeDevice* HubMirror::deviceByLevel(const std::string& level) const {
    for (const auto& entry : devs)
        if (topicLevel(entry.second.duid) == level) return &entry.second;
    return nullptr;
}

const BridgeDevice* HubMirror::device(DeviceID id) const {
    auto it = devs.find(id);
    return it == devs.end() ? nullptr : &it->second;
}

int64_t HubMirror::sendDirect(const BridgeDevice& dev, uint8_t objectNo, uint16_t msgId,
                              const std::vector<uint8_t>& body) {
    return session.sendDirect(dev.id, objectNo, msgId, body, 0);
}

}  // namespace bridge
