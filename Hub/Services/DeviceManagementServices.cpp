// Object 1 of the hub's own node: the device list, sent back as one direct message.
#include "Hub/Services/DeviceManagementServices.h"

#include <iostream>

#include "Hub/DeviceManager.h"
#include "Hub/server.h"
#include "Velto/Parsing/SpecFileParser.h"

namespace {

constexpr MessageID REPLY_BASIC_DEVICE_LIST_MSG_ID = BasicDeviceListMsg::MSG_ID;

void logRequest(const char* what, const MsgSelector& ms) {
    std::cout << "DeviceManagementServices::deliverMessage() " << what << " from " << ms.fromDeviceId << "/"
              << unsigned(ms.fromObjectNo) << '\n';
}

// One list entry for the client with this id; texts are cut to their capacity.
BasicDeviceInfo describeClient(uint16_t id, const ClientDBRec& rec, const NodeStatusInfo& status) {
    BasicDeviceInfo info;
    info.id = id;
    info.duid = rec.duid;
    info.specs = rec.specs;
    info.nname = rec.assignedName;
    info.intVer = rec.version;
    info.status = static_cast<uint8_t>(status.state);
    info.hubId = serverNodeId;
    info.domain = myDomain;
    return info;
}

// The interfaces a stored specification exports (name -> identifier). Looked
// up and parsed only: nothing is downloaded here, the hub's loop must not wait.
std::map<std::string, std::string> storedExports(const std::string& specId) {
    std::string path = specDb.findSpecFile(specId);
    if (path.empty()) return {};
    SpecFileParser parser("en", "en");
    if (!parser.parse(path, false)) return {};
    return parser.data().expInterfaces;
}

// The objects of one device proxy (none for an unknown node or a virtual client).
BasicObjectInfoMsg describeObjects(DeviceID nodeId) {
    BasicObjectInfoMsg msg;
    msg.nodeId = nodeId;
    ClientProxy* proxy = clientMgr.getClient(nodeId);
    if (proxy == nullptr) return msg;
    std::map<std::string, std::string> exports = storedExports(proxy->record().specs);
    for (size_t n = 0; n < proxy->noOfObjects(); ++n) {
        const ObjectInfo* obj = proxy->object(static_cast<uint8_t>(n));
        if (obj == nullptr) continue;
        BasicObjectInfo info;
        info.objectNo = obj->objectNo;
        info.groupNo = obj->groupNo;
        info.ifaceType = obj->ifaceType;
        info.name = obj->givenName.size() != 0 ? obj->givenName.str() : obj->hardName.str();
        info.interface = obj->interface;
        auto it = exports.find(obj->interface.str());
        if (it != exports.end()) info.interfaceId = it->second;
        msg.objects.push_back(info);
    }
    return msg;
}

}  // namespace

void DeviceManagementServices::deliverMessage(const MsgSelector& ms, std::shared_ptr<unsigned char>& data,
                                              unsigned int size) {
    switch (ms.msgId) {
        case RequestBasicDeviceListMsg::MSG_ID:
            getDevList(ms.fromDeviceId, ms.fromObjectNo, ms.msgId, ms.toDeviceId, ms.toObjectNo, data, size);
            logRequest("RequestBasicDeviceListMsg", ms);
            break;
        case REQUEST_BASIC_OBJECT_INFO_MSG_ID:
            getObjList(ms.fromDeviceId, ms.fromObjectNo, ms.msgId, ms.toDeviceId, ms.toObjectNo, data, size);
            logRequest("RequestBasicObjectInfoMsg", ms);
            break;
        default:
            logRequest("Unknown Message", ms);
            break;
    }
}

bool DeviceManagementServices::subscribeToNotification(unsigned short, unsigned short, bool) { return false; }

void DeviceManagementServices::deviceHadBeenRemoved(unsigned short) {}

void DeviceManagementServices::getDevList(uint16_t fromDeviceId, uint8_t fromObjectNo, uint16_t msgId,
                                          uint16_t toDeviceId, uint8_t toObjectNo,
                                          std::shared_ptr<unsigned char>& data, unsigned int size) {
    RequestBasicDeviceListMsg req;
    const uint8_t* cursor = data.get();
    size_t left = size;
    if (!req.getFromBuffer(cursor, left)) {
        std::cerr << "Failed to deserialize RequestBasicDeviceListMsg. ptr=" << static_cast<const void*>(data.get())
                  << " sz=" << size << '\n';
        // kept: the error goes to the proxy of the request's destination (the hub's own id)
        replyWithError(DIRECT_MSGCAT, toDeviceId, toObjectNo, msgId, fromDeviceId, fromObjectNo,
                       MessageErrorPack::DESERIALIZATION_ERROR, "");
        return;
    }

    BasicDeviceListMsg list;
    for (const auto& entry : clientMgr.allDevices())
        if (entry.second && matchRequest(entry.second->record(), entry.second->status(), req))
            list.devList.push_back(describeClient(entry.first, entry.second->record(), entry.second->status()));
    for (const auto& entry : clientMgr.allVirtualClients())
        if (entry.second && matchRequest(entry.second->record(), entry.second->status(), req))
            list.devList.push_back(describeClient(entry.first, entry.second->record(), entry.second->status()));

    ClientProxy* requester = clientMgr.getClient(fromDeviceId);
    if (requester == nullptr) return;

    queueReply(list, REPLY_BASIC_DEVICE_LIST_MSG_ID, fromDeviceId, fromObjectNo, toDeviceId, toObjectNo,
               *requester);
}

void DeviceManagementServices::getObjList(uint16_t fromDeviceId, uint8_t fromObjectNo, uint16_t msgId,
                                          uint16_t toDeviceId, uint8_t toObjectNo,
                                          std::shared_ptr<unsigned char>& data, unsigned int size) {
    RequestBasicObjectInfoMsg req;
    const uint8_t* cursor = data.get();
    size_t left = size;
    if (!req.getFromBuffer(cursor, left)) {
        std::cerr << "Failed to deserialize RequestBasicObjectInfoMsg. sz=" << size << '\n';
        replyWithError(DIRECT_MSGCAT, toDeviceId, toObjectNo, msgId, fromDeviceId, fromObjectNo,
                       MessageErrorPack::DESERIALIZATION_ERROR, "");
        return;
    }
    ClientProxy* requester = clientMgr.getClient(fromDeviceId);
    if (requester == nullptr) return;
    BasicObjectInfoMsg reply = describeObjects(req.nodeId);
    queueReply(reply, BasicObjectInfoMsg::MSG_ID, fromDeviceId, fromObjectNo, toDeviceId, toObjectNo, *requester);
}

template <typename Msg>
void DeviceManagementServices::queueReply(const Msg& body, MessageID replyId, uint16_t fromDeviceId,
                                          uint8_t fromObjectNo, uint16_t toDeviceId, uint8_t toObjectNo,
                                          ClientProxy& requester) {
    // Sized once from the estimate, so encoding never reallocates.
    const size_t capacity = body.estimateRequiredSize();
    std::shared_ptr<unsigned char> buffer = makeMessageBuffer(static_cast<uint32_t>(capacity));
    uint8_t* cursor = buffer.get();
    size_t room = capacity;
    if (!body.addToBuffer(cursor, room)) return;
    const uint32_t written = static_cast<uint32_t>(capacity - room);

    MsgSelector ms;
    ms.msgCat = DIRECT_MSGCAT;
    ms.fromDeviceId = toDeviceId;
    ms.fromObjectNo = toObjectNo;
    ms.msgId = replyId;
    ms.toDeviceId = fromDeviceId;
    ms.toObjectNo = fromObjectNo;
    ms.msgNo = messageCounter++;
    ms.msgSize = written;
    requester.deliverMessage(ms, buffer, written);
}

bool DeviceManagementServices::matchRequest(const ClientDBRec&, const NodeStatusInfo&,
                                            const RequestBasicDeviceListMsg&) {
    return true;
}

void DeviceManagementServices::replyWithError(uint8_t category, uint16_t fromNodeId, uint8_t fromObjectNo,
                                              uint16_t msgId, uint16_t toNodeId, uint8_t toObjectNo,
                                              uint32_t errorCode, const std::string& text) {
    MessageErrorPack pack;
    pack.errorCode = errorCode;
    pack.category = category;
    pack.fromNodeId = fromNodeId;
    pack.fromObjectNo = fromObjectNo;
    pack.msgId = msgId;
    pack.toNodeId = toNodeId;
    pack.toObjectNo = toObjectNo;
    pack.optErorMsg = text;
    ClientProxy* proxy = clientMgr.getClient(fromNodeId);  // kept: the from-node argument, not the to-node one
    if (proxy != nullptr) proxy->sendPacketToDevice(pack);
}
