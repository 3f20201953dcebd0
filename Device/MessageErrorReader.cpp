// MessageErrorPack read in the order its fields are written.
#include "Device/MessageErrorReader.h"

#include "Velto/data_packing.h"

namespace device {

bool readMessageError(const uint8_t* data, size_t size, MessageError& out) {
    if (data == nullptr) return false;
    VeltoPacket header;
    const uint8_t* cursor = data;
    size_t left = size;
    if (!header.getFromBuffer(cursor, left) || header.id != MessageErrorPack::PACK_ID) return false;
    MessageError e;
    FString<32> text;
    bool ok = getFromBuffer(cursor, left, e.errorCode);
    ok = getFromBuffer(cursor, left, e.category) && ok;
    ok = getFromBuffer(cursor, left, e.fromNodeId) && ok;
    ok = getFromBuffer(cursor, left, e.fromObjectNo) && ok;
    ok = getFromBuffer(cursor, left, e.msgId) && ok;
    ok = getFromBuffer(cursor, left, e.toNodeId) && ok;
    ok = getFromBuffer(cursor, left, e.toObjectNo) && ok;
    const size_t beforeText = left;
    ok = getFromBuffer(cursor, left, text) && ok;
    // The text must end with its NUL within the datagram and the cap.
    if (!ok || text.size() >= beforeText - left) return false;
    e.text = text.str();
    out = e;
    return true;
}

std::string errorCodeName(uint32_t code) {
    switch (code) {
        case MessageErrorPack::DESERIALIZATION_ERROR:
            return "deserialization error";
        case MessageErrorPack::NOTCONNECTED_ERROR:
            return "not connected";
        case MessageErrorPack::PERMISSION_DENIED:
            return "permission denied";
        case MessageErrorPack::UNKNOWN_MESSAGE_ERROR:
            return "unknown message";
        default:
            return "error " + std::to_string(code);
    }
}

}  // namespace device
