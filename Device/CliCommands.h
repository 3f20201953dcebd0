// The device simulator's line protocol on standard input and output: parsing
// of command lines, the DATA notation (text or hex:...), and the one-line
// renderings of incoming messages, errors, delivery outcomes and the device
// list table.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Device/MessageErrorReader.h"
#include "Device/MessageInbox.h"
#include "Device/MessageOutbox.h"
#include "Velto/Interfaces/DeviceManagementInterface.h"

namespace device {

struct Command {
    enum class Kind { EMPTY, SEND, NOTIFY, SUBSCRIBE, UNSUBSCRIBE, LIST, QUIT, HELP };
    Kind kind = Kind::EMPTY;
    std::string node;    // send/subscribe: a node id or a DUID
    std::string object;  // notify: our object's number or name
    uint8_t objectNo = 0;  // send/subscribe: the target object
    uint16_t id = 0;     // message id or event id
    std::vector<uint8_t> data;
};

// Parses one line (without its line end). Returns true with out filled (an
// empty or blank line gives Kind::EMPTY); false with why set to one line.
bool parseCommand(const std::string& line, Command& out, std::string& why);

// "hex:" followed by hex digits gives those bytes; anything else is the text
// itself. Returns false (out untouched) on bad hex digits.
bool parseData(const std::string& text, std::vector<uint8_t>& out, std::string& why);

// The text itself when every byte is printable ASCII and it does not start
// with "hex:"; "hex:" and lower-case hex digits otherwise.
std::string formatData(const std::vector<uint8_t>& data);

// "message from A/a to B/b id M no N size S: DATA" or
// "notification from A/a event E no N size S: DATA".
std::string formatMessage(const IncomingMessage& m);
// "error NAME (code C) category K from A/a id M to B/b: TEXT".
std::string formatError(const MessageError& e);
// "delivered no N" or "not delivered no N: REASON".
std::string formatDelivery(const DeliveryResult& r);

// The name of a node state as the hub reports it ("connected", ...), or its
// number for an unknown value.
std::string nodeStateName(uint8_t state);
// An aligned table with the header ID DUID NAME STATE SPECS and one row per
// device, each line ended by a line end.
std::string formatDeviceTable(const BasicDeviceListMsg& list);

}  // namespace device
