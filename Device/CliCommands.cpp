// Command lines and output lines of the device simulator.
#include "Device/CliCommands.h"

#include <algorithm>
#include <sstream>

#include "Device/CliOptions.h"

namespace device {

namespace {

// Splits off the next blank-separated word of line starting at pos.
std::string nextWord(const std::string& line, size_t& pos) {
    while (pos < line.size() && (line[pos] == ' ' || line[pos] == '\t')) ++pos;
    size_t start = pos;
    while (pos < line.size() && line[pos] != ' ' && line[pos] != '\t') ++pos;
    return line.substr(start, pos - start);
}

// What follows the single blank after the word just read.
std::string restOfLine(const std::string& line, size_t pos) {
    if (pos < line.size()) ++pos;
    return pos < line.size() ? line.substr(pos) : std::string();
}

bool parseId(const std::string& text, const char* what, uint16_t& out, std::string& why) {
    uint32_t v = 0;
    if (!parseNumber(text, 65535, v)) {
        why = std::string("bad ") + what + " \"" + text + "\" (give 0 to 65535)";
        return false;
    }
    out = static_cast<uint16_t>(v);
    return true;
}

bool parseObjectNo(const std::string& text, uint8_t& out, std::string& why) {
    uint32_t v = 0;
    if (!parseNumber(text, 255, v)) {
        why = "bad object number \"" + text + "\" (give 0 to 255)";
        return false;
    }
    out = static_cast<uint8_t>(v);
    return true;
}

bool needData(const std::string& text, Command& c, std::string& why) {
    if (text.empty()) {
        why = "DATA is missing";
        return false;
    }
    return parseData(text, c.data, why);
}

bool parseSend(const std::string& line, size_t pos, Command& c, std::string& why) {
    std::string target = nextWord(line, pos);
    size_t slash = target.rfind('/');
    if (slash == std::string::npos || slash == 0) {
        why = "send needs NODE/OBJECT MSGID DATA";
        return false;
    }
    c.node = target.substr(0, slash);
    if (!parseObjectNo(target.substr(slash + 1), c.objectNo, why)) return false;
    if (!parseId(nextWord(line, pos), "message id", c.id, why)) return false;
    return needData(restOfLine(line, pos), c, why);
}

bool parseSubscription(const std::string& line, size_t pos, Command& c, std::string& why) {
    c.node = nextWord(line, pos);
    std::string obj = nextWord(line, pos), ev = nextWord(line, pos);
    if (c.node.empty() || obj.empty() || ev.empty() || !nextWord(line, pos).empty()) {
        why = "subscribe and unsubscribe need NODE OBJECT EVENT";
        return false;
    }
    return parseObjectNo(obj, c.objectNo, why) && parseId(ev, "event id", c.id, why);
}

std::string nodeObject(DeviceID node, uint8_t obj) {
    return std::to_string(node) + "/" + std::to_string(obj);
}

}  // namespace

bool parseData(const std::string& text, std::vector<uint8_t>& out, std::string& why) {
    if (text.compare(0, 4, "hex:") != 0) {
        out.assign(text.begin(), text.end());
        return true;
    }
    std::vector<uint8_t> bytes;
    if (!parseHex(text.substr(4), bytes)) {
        why = "bad hex data (give hex: and pairs of hex digits)";
        return false;
    }
    out = bytes;
    return true;
}

bool parseCommand(const std::string& line, Command& out, std::string& why) {
    Command c;
    size_t pos = 0;
    std::string verb = nextWord(line, pos);
    bool ok = true;
    if (verb.empty()) {
        c.kind = Command::Kind::EMPTY;
    } else if (verb == "send") {
        c.kind = Command::Kind::SEND;
        ok = parseSend(line, pos, c, why);
    } else if (verb == "notify") {
        c.kind = Command::Kind::NOTIFY;
        c.object = nextWord(line, pos);
        ok = !c.object.empty() && parseId(nextWord(line, pos), "event id", c.id, why) &&
             needData(restOfLine(line, pos), c, why);
        if (!ok && why.empty()) why = "notify needs OBJECT EVENT DATA";
    } else if (verb == "subscribe" || verb == "unsubscribe") {
        c.kind = verb == "subscribe" ? Command::Kind::SUBSCRIBE : Command::Kind::UNSUBSCRIBE;
        ok = parseSubscription(line, pos, c, why);
    } else if (verb == "list" || verb == "quit" || verb == "help") {
        c.kind = verb == "list" ? Command::Kind::LIST : verb == "quit" ? Command::Kind::QUIT : Command::Kind::HELP;
        if (!nextWord(line, pos).empty()) {
            why = verb + " takes no arguments";
            ok = false;
        }
    } else {
        why = "unknown command \"" + verb + "\" (send, notify, subscribe, unsubscribe, list, quit, help)";
        ok = false;
    }
    if (ok) out = c;
    return ok;
}

std::string formatData(const std::vector<uint8_t>& data) {
    bool printable = std::all_of(data.begin(), data.end(), [](uint8_t b) { return b >= 0x20 && b < 0x7f; });
    std::string text(data.begin(), data.end());
    if (printable && text.compare(0, 4, "hex:") != 0) return text;
    static const char digits[] = "0123456789abcdef";
    std::string hex = "hex:";
    for (uint8_t b : data) {
        hex += digits[b >> 4];
        hex += digits[b & 15];
    }
    return hex;
}

std::string formatMessage(const IncomingMessage& m) {
    const MsgSelector& s = m.selector;
    std::ostringstream os;
    if (s.msgCat == NOTIFICATION_MSGCAT)
        os << "notification from " << nodeObject(s.fromDeviceId, s.fromObjectNo) << " event " << s.msgId;
    else
        os << "message from " << nodeObject(s.fromDeviceId, s.fromObjectNo) << " to "
           << nodeObject(s.toDeviceId, s.toObjectNo) << " id " << s.msgId;
    os << " no " << s.msgNo << " size " << m.data.size() << ": " << formatData(m.data);
    return os.str();
}

std::string formatError(const MessageError& e) {
    std::ostringstream os;
    os << "error " << errorCodeName(e.errorCode) << " (code " << e.errorCode << ") category "
       << unsigned(e.category) << " from " << nodeObject(e.fromNodeId, e.fromObjectNo) << " id " << e.msgId
       << " to " << nodeObject(e.toNodeId, e.toObjectNo) << ": " << e.text;
    return os.str();
}

std::string formatDelivery(const DeliveryResult& r) {
    if (r.delivered) return "delivered no " + std::to_string(r.msgNo);
    return "not delivered no " + std::to_string(r.msgNo) + ": " + r.reason;
}

std::string nodeStateName(uint8_t state) {
    static const char* const names[] = {"unknown",      "ignore",      "uninit",    "adoption-sent",
                                        "initializing", "initialized", "connected", "disconnected"};
    if (state < sizeof(names) / sizeof(names[0])) return names[state];
    return std::to_string(state);
}

std::string formatDeviceTable(const BasicDeviceListMsg& list) {
    std::vector<std::vector<std::string>> rows;
    rows.push_back({"ID", "DUID", "NAME", "STATE", "SPECS"});
    for (const BasicDeviceInfo& d : list.devList)
        rows.push_back({std::to_string(d.id), d.duid.str(), d.nname.str(), nodeStateName(d.status), d.specs.str()});
    std::vector<size_t> width(5, 0);
    for (const auto& r : rows)
        for (size_t i = 0; i < r.size(); ++i) width[i] = std::max(width[i], r[i].size());
    std::string out;
    for (const auto& r : rows) {
        std::string line;
        for (size_t i = 0; i < r.size(); ++i) {
            line += r[i];
            if (i + 1 < r.size()) line += std::string(width[i] - r[i].size() + 2, ' ');
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        out += line + "\n";
    }
    return out;
}

}  // namespace device
