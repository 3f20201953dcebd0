// Wire forms of the device-management message bodies.
#include "Velto/Interfaces/DeviceManagementInterface.h"

bool RequestBasicDeviceListMsg::addToBuffer(uint8_t*& cursor, size_t& left) const {
    return ::addToBuffer(flags, cursor, left) && ::addToBuffer(matchSpecs, cursor, left) &&
           ::addToBuffer(withName, cursor, left) && ::addToBuffer(haveObjectWithIface, cursor, left);
}

bool RequestBasicDeviceListMsg::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    // Every read is made whatever the earlier ones returned.
    bool ok = ::getFromBuffer(cursor, left, flags);
    ok = ::getFromBuffer(cursor, left, matchSpecs) && ok;
    ok = ::getFromBuffer(cursor, left, withName) && ok;
    ok = ::getFromBuffer(cursor, left, haveObjectWithIface) && ok;
    return ok;
}

bool BasicDeviceInfo::addToBuffer(uint8_t*& cursor, size_t& left) const {
    return ::addToBuffer(id, cursor, left) && ::addToBuffer(duid, cursor, left) &&
           ::addToBuffer(specs, cursor, left) && ::addToBuffer(intVer, cursor, left) &&
           ::addToBuffer(status, cursor, left) && ::addToBuffer(hubId, cursor, left) &&
           ::addToBuffer(nname, cursor, left) && ::addToBuffer(domain, cursor, left) &&
           ::addToBuffer(noOfObjects, cursor, left);
}

bool BasicDeviceInfo::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    return ::getFromBuffer(cursor, left, id) && ::getFromBuffer(cursor, left, duid) &&
           ::getFromBuffer(cursor, left, specs) && ::getFromBuffer(cursor, left, intVer) &&
           ::getFromBuffer(cursor, left, status) && ::getFromBuffer(cursor, left, hubId) &&
           ::getFromBuffer(cursor, left, nname) && ::getFromBuffer(cursor, left, domain) &&
           ::getFromBuffer(cursor, left, noOfObjects);
}

bool BasicDeviceListMsg::addToBuffer(uint8_t*& cursor, size_t& left) const {
    if (!encodeSizeVLQ(static_cast<uint32_t>(devList.size()), cursor, left)) return false;
    bool ok = true;
    for (const BasicDeviceInfo& info : devList) ok = info.addToBuffer(cursor, left) && ok;
    return ok;
}

bool BasicDeviceListMsg::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    uint32_t count = 0;
    if (!decodeVLQSize(cursor, left, count)) return false;
    // No reservation by the declared count: every entry read consumes bytes, so
    // the first one that finds none left ends the loop.
    for (uint32_t i = 0; i < count; ++i) {
        BasicDeviceInfo info;
        if (!info.getFromBuffer(cursor, left)) return false;
        devList.push_back(info);
    }
    return true;
}

size_t BasicDeviceListMsg::estimateRequiredSize() const {
    if (devList.empty()) return 8;
    return 8 + devList.size() * devList.front().estimateRequiredSize();
}

bool RequestBasicObjectInfoMsg::addToBuffer(uint8_t*& cursor, size_t& left) const {
    return ::addToBuffer(nodeId, cursor, left);
}

bool RequestBasicObjectInfoMsg::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    return ::getFromBuffer(cursor, left, nodeId);
}

bool BasicObjectInfo::addToBuffer(uint8_t*& cursor, size_t& left) const {
    return ::addToBuffer(objectNo, cursor, left) && ::addToBuffer(groupNo, cursor, left) &&
           ::addToBuffer(ifaceType, cursor, left) && ::addToBuffer(name, cursor, left) &&
           ::addToBuffer(interface, cursor, left) && ::addToBuffer(interfaceId, cursor, left);
}

bool BasicObjectInfo::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    return ::getFromBuffer(cursor, left, objectNo) && ::getFromBuffer(cursor, left, groupNo) &&
           ::getFromBuffer(cursor, left, ifaceType) && ::getFromBuffer(cursor, left, name) &&
           ::getFromBuffer(cursor, left, interface) && ::getFromBuffer(cursor, left, interfaceId);
}

bool BasicObjectInfoMsg::addToBuffer(uint8_t*& cursor, size_t& left) const {
    if (!::addToBuffer(nodeId, cursor, left)) return false;
    if (!encodeSizeVLQ(static_cast<uint32_t>(objects.size()), cursor, left)) return false;
    for (const BasicObjectInfo& o : objects)
        if (!o.addToBuffer(cursor, left)) return false;
    return true;
}

bool BasicObjectInfoMsg::getFromBuffer(const uint8_t*& cursor, size_t& left) {
    uint32_t count = 0;
    if (!::getFromBuffer(cursor, left, nodeId) || !decodeVLQSize(cursor, left, count)) return false;
    for (uint32_t i = 0; i < count; ++i) {
        BasicObjectInfo o;
        if (!o.getFromBuffer(cursor, left)) return false;
        objects.push_back(o);
    }
    return true;
}
