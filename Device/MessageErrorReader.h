// Reading of the hub's MessageErrorPack on the device.
//
// The pack class's own reader skips toObjectNo and reads the text twice (a
// behaviour the protocol library keeps), so it misreads every error about an
// object other than 0. The device reads the fields in the order the hub writes
// them: errorCode, category, fromNodeId, fromObjectNo, msgId, toNodeId,
// toObjectNo, optErorMsg.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Velto/Velto.h"

namespace device {

struct MessageError {
    uint32_t errorCode = 0;
    uint8_t category = 0;
    DeviceID fromNodeId = 0;
    uint8_t fromObjectNo = 0;
    MessageID msgId = 0;
    DeviceID toNodeId = 0;
    uint8_t toObjectNo = 0;
    std::string text;
};

// Decodes a whole datagram holding a MessageErrorPack (header included).
// Returns true with out filled; false (out untouched) when the datagram is not
// an error pack or is cut short.
bool readMessageError(const uint8_t* data, size_t size, MessageError& out);

// "permission denied", "deserialization error", "not connected",
// "unknown message", or "error N".
std::string errorCodeName(uint32_t code);

}  // namespace device
