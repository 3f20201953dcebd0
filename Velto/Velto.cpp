// The packet envelope (header, signature area, sign on send / check on receive)
// and the wire order of every pack's fields.
#include "Velto/Velto.h"

namespace {

// Writes every field in order; each is attempted even after one fails.
template <typename... Fields>
bool putFields(uint8_t*& cursor, size_t& left, const Fields&... fields) {
    bool ok = true;
    ((ok = ::addToBuffer(fields, cursor, left) && ok), ...);
    return ok;
}

// Reads every field in order; each is attempted even after one fails.
template <typename... Fields>
bool getFields(const uint8_t*& cursor, size_t& left, Fields&... fields) {
    bool ok = true;
    ((ok = ::getFromBuffer(cursor, left, fields) && ok), ...);
    return ok;
}

}  // namespace

// ---- envelope ----

VeltoPacket::VeltoPacket() : id(0), hubId(0), devId(0), packetNo(0), encType(NO_ENCRYPTION_TYPE) {}

VeltoPacket::~VeltoPacket() {}

bool VeltoPacket::addToBuffer(uint8_t*& cursor, size_t& left) {
    bool ok = putFields(cursor, left, id, hubId, devId, packetNo, signature.signatureType(), encType);
    ok = signature.addToBuffer(cursor, left) && ok;
    return ok;
}

bool VeltoPacket::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    uint8_t sigType = NO_SIGNATURE_TYPE;
    bool ok = getFields(cursor, left, id, hubId, devId, packetNo, sigType, encType);
    ok = signature.getFromBuffer(cursor, left, sigType) && ok;
    return ok;
}

int VeltoPacket::serialize(uint8_t* buffer, size_t capacity) {
    signature.initialize();
    uint8_t* cursor = buffer;
    size_t left = capacity;
    if (!addToBuffer(cursor, left)) return -1;
    size_t n = capacity - left;
    signature.calculateAndUpdate(buffer, n);
    return static_cast<int>(n);
}

int VeltoPacket::deserialize(const uint8_t* data, size_t size, bool verify) {
    const uint8_t* cursor = data;
    size_t left = size;
    if (!getFromBuffer(cursor, left)) return -1;
    size_t n = size - left;
    if (verify) signature.verify(data, n);
    return static_cast<int>(n);
}

// ---- packs ----

NewBornDevicePack::NewBornDevicePack() { id = PACK_ID; encType = NO_ENCRYPTION_TYPE; }
NewBornDevicePack::~NewBornDevicePack() {}

bool NewBornDevicePack::addToBuffer(uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::addToBuffer(cursor, left);
    return putFields(cursor, left, duid, specs, intVer, prevn, prevdom) && ok;
}

bool NewBornDevicePack::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::getFromBuffer(cursor, left);
    return getFields(cursor, left, duid, specs, intVer, prevn, prevdom) && ok;
}

AdoptionOfferPack::AdoptionOfferPack() { id = PACK_ID; encType = NO_ENCRYPTION_TYPE; }
AdoptionOfferPack::~AdoptionOfferPack() {}

bool AdoptionOfferPack::addToBuffer(uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::addToBuffer(cursor, left);
    return putFields(cursor, left, offer, svrNodeId, duid, nname, domain) && ok;
}

bool AdoptionOfferPack::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::getFromBuffer(cursor, left);
    return getFields(cursor, left, offer, svrNodeId, duid, nname, domain) && ok;
}

NetworkJoinPack::NetworkJoinPack() { id = PACK_ID; encType = NO_ENCRYPTION_TYPE; }
NetworkJoinPack::~NetworkJoinPack() {}

bool NetworkJoinPack::addToBuffer(uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::addToBuffer(cursor, left);
    return putFields(cursor, left, duid, nname, domain, generalFlags, clientRand, addrType, hubPortNo, addrValue) &&
           ok;
}

bool NetworkJoinPack::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::getFromBuffer(cursor, left);
    return getFields(cursor, left, duid, nname, domain, generalFlags, clientRand, addrType, hubPortNo, addrValue) &&
           ok;
}

JoinAcceptedPack::JoinAcceptedPack() { id = PACK_ID; encType = NO_ENCRYPTION_TYPE; }
JoinAcceptedPack::~JoinAcceptedPack() {}

bool JoinAcceptedPack::addToBuffer(uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::addToBuffer(cursor, left);
    return putFields(cursor, left, duid, nodeId, flags, svrRand, encAlg, sessionKey) && ok;
}

bool JoinAcceptedPack::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::getFromBuffer(cursor, left);
    return getFields(cursor, left, duid, nodeId, flags, svrRand, encAlg, sessionKey) && ok;
}

ConfigSummaryPack::ConfigSummaryPack() { id = PACK_ID; encType = NO_ENCRYPTION_TYPE; }
ConfigSummaryPack::~ConfigSummaryPack() {}

bool ConfigSummaryPack::addToBuffer(uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::addToBuffer(cursor, left);
    return putFields(cursor, left, duid, noOfObjects, maxNoOfObjects, maxPacketSize, maxMessageSize,
                     maxNoOfDirectUsers, random) &&
           ok;
}

bool ConfigSummaryPack::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::getFromBuffer(cursor, left);
    return getFields(cursor, left, duid, noOfObjects, maxNoOfObjects, maxPacketSize, maxMessageSize,
                     maxNoOfDirectUsers, random) &&
           ok;
}

GetObjectInfoPack::GetObjectInfoPack() { id = PACK_ID; encType = NO_ENCRYPTION_TYPE; }
GetObjectInfoPack::~GetObjectInfoPack() {}

bool GetObjectInfoPack::addToBuffer(uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::addToBuffer(cursor, left);
    return putFields(cursor, left, objectNo) && ok;
}

bool GetObjectInfoPack::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::getFromBuffer(cursor, left);
    return getFields(cursor, left, objectNo) && ok;
}

ObjectInfoPack::ObjectInfoPack() { id = PACK_ID; encType = NO_ENCRYPTION_TYPE; }
ObjectInfoPack::~ObjectInfoPack() {}

bool ObjectInfoPack::addToBuffer(uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::addToBuffer(cursor, left);
    return putFields(cursor, left, objectNo, groupNo, ifaceType, name, interface, nParam1, nParam2, sParam1, sParam2,
                     lnParam) &&
           ok;
}

bool ObjectInfoPack::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::getFromBuffer(cursor, left);
    return getFields(cursor, left, objectNo, groupNo, ifaceType, name, interface, nParam1, nParam2, sParam1, sParam2,
                     lnParam) &&
           ok;
}

ConfigurationCompletePack::ConfigurationCompletePack() { id = PACK_ID; encType = NO_ENCRYPTION_TYPE; }
ConfigurationCompletePack::~ConfigurationCompletePack() {}

bool ConfigurationCompletePack::addToBuffer(uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::addToBuffer(cursor, left);
    return putFields(cursor, left, serverTimestamp, dev2HubSequence, hub2DevSequence) && ok;
}

bool ConfigurationCompletePack::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::getFromBuffer(cursor, left);
    return getFields(cursor, left, serverTimestamp, dev2HubSequence, hub2DevSequence) && ok;
}

PingPongPack::PingPongPack() { id = PACK_ID; encType = NO_ENCRYPTION_TYPE; }
PingPongPack::~PingPongPack() {}

bool PingPongPack::addToBuffer(uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::addToBuffer(cursor, left);
    return putFields(cursor, left, pingOrPong, replyKey, random) && ok;
}

bool PingPongPack::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::getFromBuffer(cursor, left);
    return getFields(cursor, left, pingOrPong, replyKey, random) && ok;
}

MessageCarrierPack::MessageCarrierPack() {
    id = PACK_ID;
    encType = NO_ENCRYPTION_TYPE;
    msgCat = 0;
    msgNo = 0;
    commands = 0;
    checksum = 0;
}
MessageCarrierPack::~MessageCarrierPack() {}

bool MessageCarrierPack::addToBuffer(uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::addToBuffer(cursor, left);
    return putFields(cursor, left, msgCat, fromDeviceId, fromObjectNo, msgId, toDeviceId, toObjectNo, msgNo,
                     packetStart, msgSize, commands, checksum, payload) &&
           ok;
}

bool MessageCarrierPack::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::getFromBuffer(cursor, left);
    return getFields(cursor, left, msgCat, fromDeviceId, fromObjectNo, msgId, toDeviceId, toObjectNo, msgNo,
                     packetStart, msgSize, commands, checksum, payload) &&
           ok;
}

MessageCarrierACKPack::MessageCarrierACKPack() { id = PACK_ID; encType = NO_ENCRYPTION_TYPE; }
MessageCarrierACKPack::~MessageCarrierACKPack() {}

bool MessageCarrierACKPack::addToBuffer(uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::addToBuffer(cursor, left);
    return putFields(cursor, left, msgCat, fromDeviceId, fromObjectNo, msgId, toDeviceId, toObjectNo, msgNo,
                     lastSeqNo) &&
           ok;
}

bool MessageCarrierACKPack::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::getFromBuffer(cursor, left);
    return getFields(cursor, left, msgCat, fromDeviceId, fromObjectNo, msgId, toDeviceId, toObjectNo, msgNo,
                     lastSeqNo) &&
           ok;
}

NotificationSubscriptionPack::NotificationSubscriptionPack() { id = PACK_ID; encType = NO_ENCRYPTION_TYPE; }
NotificationSubscriptionPack::~NotificationSubscriptionPack() {}

bool NotificationSubscriptionPack::addToBuffer(uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::addToBuffer(cursor, left);
    return putFields(cursor, left, nodeId, objectNo, eventId, subscribe) && ok;
}

bool NotificationSubscriptionPack::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::getFromBuffer(cursor, left);
    return getFields(cursor, left, nodeId, objectNo, eventId, subscribe) && ok;
}

MessageErrorPack::MessageErrorPack() { id = PACK_ID; encType = NO_ENCRYPTION_TYPE; }
MessageErrorPack::~MessageErrorPack() {}

bool MessageErrorPack::addToBuffer(uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::addToBuffer(cursor, left);
    return putFields(cursor, left, errorCode, category, fromNodeId, fromObjectNo, msgId, toNodeId, toObjectNo,
                     optErorMsg) &&
           ok;
}

bool MessageErrorPack::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    bool ok = VeltoPacket::getFromBuffer(cursor, left);
    // kept: toObjectNo is never read; the text is read twice instead, the second
    // read replacing the first (the hub only sends this pack).
    return getFields(cursor, left, errorCode, category, fromNodeId, fromObjectNo, msgId, toNodeId, optErorMsg,
                     optErorMsg) &&
           ok;
}
