// Message bodies of the hub's device-management service (node 1, object 1).
//
// They travel as the payload of sequenced direct messages and use the primitive
// encodings: integers big-endian, texts as characters and a NUL, list sizes as
// VLQ. Message ids within the service: 1 request device list, 2 device list,
// 3 request object information, 4 object information.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Velto/Velto.h"
#include "Velto/data_packing.h"

class RequestBasicDeviceListMsg {
public:
    static constexpr MessageID MSG_ID = 1;

    uint8_t flags = 0;
    FString<128> matchSpecs;
    FString<32> withName;
    FString<32> haveObjectWithIface;

    // True when every field fitted (stops at the first that does not).
    bool addToBuffer(uint8_t*& cursor, size_t& left) const;
    // All four reads are made; the result is their AND. (A last text cut short
    // by the end of the bytes reads as the shorter text, as texts do.)
    bool getFromBuffer(const uint8_t*& cursor, size_t& left);
    // 101: less than the largest encoding (196); senders keep the texts short.
    size_t estimateRequiredSize() const { return 101; }
};

class BasicDeviceInfo {
public:
    DeviceID id = 0;
    FString<32> duid;
    FString<128> specs;
    uint8_t intVer = 0;
    uint8_t status = 0;
    HubID hubId = 0;
    FString<32> nname;
    FString<32> domain;
    uint8_t noOfObjects = 0;

    // True when every field fitted / was read; stops at the first that fails.
    bool addToBuffer(uint8_t*& cursor, size_t& left) const;
    bool getFromBuffer(const uint8_t*& cursor, size_t& left);
    // 234: the largest encoding.
    size_t estimateRequiredSize() const { return 234; }
};

class BasicDeviceListMsg {
public:
    static constexpr MessageID MSG_ID = 2;

    std::vector<BasicDeviceInfo> devList;

    // Stops at once when the count does not fit; otherwise the AND of all entries.
    bool addToBuffer(uint8_t*& cursor, size_t& left) const;
    // Appends the decoded entries to devList; false when the count or an entry
    // does not decode (the entries before it stay). Never reserves room by the
    // declared count: every entry consumes bytes, so a huge count ends at the
    // first entry that finds none.
    bool getFromBuffer(const uint8_t*& cursor, size_t& left);
    // 8 + entries x the first entry's estimate (8 when empty).
    size_t estimateRequiredSize() const;
};

constexpr MessageID REQUEST_BASIC_OBJECT_INFO_MSG_ID = 3;

// Asks for the objects of one node: its id, big-endian. Anything after the id
// is ignored.
class RequestBasicObjectInfoMsg {
public:
    static constexpr MessageID MSG_ID = REQUEST_BASIC_OBJECT_INFO_MSG_ID;

    DeviceID nodeId = 0;

    bool addToBuffer(uint8_t*& cursor, size_t& left) const;
    // False when fewer than two bytes are left.
    bool getFromBuffer(const uint8_t*& cursor, size_t& left);
    size_t estimateRequiredSize() const { return 2; }
};

// One object of a node, as the configuration exchange reported it, with the
// interface identifier the hub resolved through the node's specification
// (empty when unknown).
class BasicObjectInfo {
public:
    uint8_t objectNo = 0;
    uint8_t groupNo = 0;
    uint8_t ifaceType = 0;
    FString<32> name;
    FString<32> interface;
    FString<128> interfaceId;

    // True when every field fitted / was read; stops at the first that fails.
    bool addToBuffer(uint8_t*& cursor, size_t& left) const;
    bool getFromBuffer(const uint8_t*& cursor, size_t& left);
    // 198: the largest encoding.
    size_t estimateRequiredSize() const { return 198; }
};

// The reply: the node id, a VLQ count, then the objects in order. An unknown
// node is answered with no objects.
class BasicObjectInfoMsg {
public:
    static constexpr MessageID MSG_ID = 4;

    DeviceID nodeId = 0;
    std::vector<BasicObjectInfo> objects;

    bool addToBuffer(uint8_t*& cursor, size_t& left) const;
    // Appends the decoded objects; false when the id, the count or an object
    // does not decode (the objects before it stay). Reserves nothing by the
    // declared count.
    bool getFromBuffer(const uint8_t*& cursor, size_t& left);
    // 7 + objects x 198: never less than the encoding.
    size_t estimateRequiredSize() const { return 7 + objects.size() * 198; }
};
