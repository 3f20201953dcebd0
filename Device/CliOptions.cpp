// Argument parsing of the device simulator.
#include "Device/CliOptions.h"

#include <arpa/inet.h>

namespace device {

namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Sets why and returns false, for one-line refusals.
bool refuse(std::string& why, const std::string& text) {
    why = text;
    return false;
}

bool isOption(const std::string& a) { return a.size() > 2 && a.compare(0, 2, "--") == 0; }

bool parseObject(const std::string& text, DeviceObject& out) {
    size_t colon = text.find(':');
    DeviceObject o;
    o.name = text.substr(0, colon);
    if (colon != std::string::npos) o.interface = text.substr(colon + 1);
    if (o.name.empty()) return false;
    out = o;
    return true;
}

// Takes the value of option args[i]; false when it is missing.
bool takeValue(const std::vector<std::string>& args, size_t& i, std::string& value, std::string& why) {
    if (i + 1 >= args.size()) {
        why = args[i] + " needs a value";
        return false;
    }
    value = args[++i];
    return true;
}

bool applyOption(const std::vector<std::string>& args, size_t& i, CliOptions& o, std::string& why) {
    const std::string& a = args[i];
    DeviceConfig& d = o.device;
    std::string v;
    if (a == "--sign") {
        d.sign = true;
        return true;
    }
    if (a == "--help" || a == "-h") {
        o.mode = CliOptions::Mode::HELP;
        return true;
    }
    if (a != "--duid" && a != "--hub" && a != "--domain" && a != "--main-key" && a != "--specs" &&
        a != "--object" && a != "--name" && a != "--timeout") {
        why = "unknown option " + a;
        return false;
    }
    if (!takeValue(args, i, v, why)) return false;
    if (a == "--duid") {
        d.duid = v;
    } else if (a == "--hub") {
        if (!parseHubAddress(v, d.hub)) return refuse(why, "bad hub address \"" + v + "\" (give a.b.c.d[:port])");
        d.discover = false;
    } else if (a == "--domain") {
        d.domain = v;
    } else if (a == "--main-key") {
        if (!parseHex(v, d.mainKey) || d.mainKey.empty())
            return refuse(why, "bad main key \"" + v + "\" (give 2 to 64 hex digits)");
    } else if (a == "--specs") {
        d.specs = v;
    } else if (a == "--name") {
        d.name = v;
    } else if (a == "--timeout") {
        uint32_t ms = 0;
        if (!parseNumber(v, 3600000, ms) || ms == 0) return refuse(why, "bad time-out \"" + v + "\"");
        o.joinTimeoutMs = static_cast<int>(ms);
    } else {
        // --object NAME:INTERFACE, and more of them up to the next option.
        for (;;) {
            DeviceObject obj;
            if (!parseObject(v, obj)) return refuse(why, "bad object \"" + v + "\" (give NAME:INTERFACE)");
            d.objects.push_back(obj);
            if (i + 1 >= args.size() || isOption(args[i + 1])) break;
            v = args[++i];
        }
    }
    return true;
}

}  // namespace

bool parseHex(const std::string& text, std::vector<uint8_t>& out) {
    if (text.size() % 2 != 0) return false;
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < text.size(); i += 2) {
        int hi = hexDigit(text[i]), lo = hexDigit(text[i + 1]);
        if (hi < 0 || lo < 0) return false;
        bytes.push_back(static_cast<uint8_t>(hi * 16 + lo));
    }
    out = bytes;
    return true;
}

bool parseNumber(const std::string& text, uint32_t max, uint32_t& out) {
    if (text.empty() || text.size() > 10) return false;
    uint64_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + static_cast<uint64_t>(c - '0');
    }
    if (v > max) return false;
    out = static_cast<uint32_t>(v);
    return true;
}

bool parseHubAddress(const std::string& text, SockAddress& out) {
    std::string host = text, port;
    if (!host.empty() && host[0] == '[') {
        size_t close = host.find(']');
        if (close == std::string::npos) return false;
        std::string rest = host.substr(close + 1);
        host = host.substr(1, close - 1);
        if (!rest.empty()) {
            if (rest[0] != ':') return false;
            port = rest.substr(1);
            if (port.empty()) return false;
        }
    } else {
        size_t colon = host.find(':');
        if (colon != std::string::npos) {
            port = host.substr(colon + 1);
            host = host.substr(0, colon);
            if (port.empty()) return false;
        }
    }
    if (host == "localhost") host = "127.0.0.1";
    in_addr a;
    if (inet_pton(AF_INET, host.c_str(), &a) != 1) return false;
    uint32_t p = HUB_PORT;
    if (!port.empty() && (!parseNumber(port, 65535, p) || p == 0)) return false;
    out = SockAddress(host.c_str(), static_cast<uint16_t>(p));
    return true;
}

bool parseCliOptions(const std::vector<std::string>& args, CliOptions& out, std::string& why) {
    CliOptions o;
    size_t i = 0;
    if (!args.empty() && args[0] == "list") {
        o.mode = CliOptions::Mode::LIST;
        i = 1;
    }
    for (; i < args.size(); ++i) {
        if (!isOption(args[i]) && args[i] != "-h") {
            why = "unexpected argument \"" + args[i] + "\"";
            return false;
        }
        if (!applyOption(args, i, o, why)) return false;
    }
    if (o.mode == CliOptions::Mode::HELP) {
        out = o;
        return true;
    }
    if (o.mode == CliOptions::Mode::LIST) {
        if (o.device.duid.empty()) o.device.duid = "velto-device-list";
        if (o.device.objects.empty()) o.device.objects.push_back(DeviceObject{"lister", "", 0, 0});
    } else {
        if (o.device.duid.empty()) {
            why = "--duid is required";
            return false;
        }
        if (o.device.objects.empty()) o.device.objects.push_back(DeviceObject{"main", "", 0, 0});
    }
    if (!validateConfig(o.device, why)) return false;
    out = o;
    return true;
}

std::string cliUsage() {
    return "Usage:\n"
           "  velto-device --duid DUID [options]   join a hub and act as a device\n"
           "  velto-device list [options]         print the hub's device list\n"
           "  velto-device --help                 this text\n"
           "\n"
           "Options:\n"
           "  --duid DUID            the device's unique identifier (letters, digits, - _ . :)\n"
           "  --hub ADDRESS          the hub as a.b.c.d[:port] (port 1881 by default);\n"
           "                         without it the device announces itself to the group\n"
           "                         224.68.12.8:1881 and takes the address of the hub that answers\n"
           "  --domain D             domain to join (default TestDomain_KVZ1)\n"
           "  --name N               node name to ask for (default: the name the hub offers)\n"
           "  --main-key HEX         the device's main key, 2 to 64 hex digits\n"
           "  --specs ID             identifier of the device's specification document\n"
           "  --object NAME:INTERFACE ...\n"
           "                         the device's objects, numbered 0, 1, ... in order\n"
           "                         (default: one object \"main\")\n"
           "  --sign                 sign every pack with the session key (HMAC-SHA1)\n"
           "  --timeout MS           how long to wait for the join (default 5000)\n"
           "\n"
           "Once joined, commands are read from standard input, one per line:\n"
           "  send NODE/OBJECT MSGID DATA     direct message from object 0 to object OBJECT of NODE\n"
           "  notify OBJECT EVENT DATA        notification EVENT from our object OBJECT (number or name)\n"
           "  subscribe NODE OBJECT EVENT     receive notification EVENT of OBJECT of NODE\n"
           "  unsubscribe NODE OBJECT EVENT   stop receiving it\n"
           "  list                            print the hub's device list\n"
           "  quit                            wait for messages in flight, then leave\n"
           "NODE is a node id or a device's DUID (looked up in the device list). DATA is\n"
           "text (the rest of the line) or hex:HEXDIGITS. Incoming messages, notifications,\n"
           "errors and delivery outcomes are printed one per line:\n"
           "  message from NODE/OBJECT to NODE/OBJECT id MSGID no N size S: DATA\n"
           "  notification from NODE/OBJECT event EVENT no N size S: DATA\n"
           "  error NAME (code C) category K from NODE/OBJECT id MSGID to NODE/OBJECT: TEXT\n"
           "  delivered no N  |  not delivered no N: REASON\n"
           "Data that is not printable text is shown as hex:HEXDIGITS.\n"
           "When the hub is lost the device rejoins by itself, printing one line each way:\n"
           "  lost the hub: REASON; rejoining  |  rejoined hub ... as node N ...\n"
           "Messages sent meanwhile (to a node id) wait for the rejoin.\n"
           "\n"
           "Exit status: 0 after quit or end of input, 1 when the hub does not answer or\n"
           "refuses the first join, 2 on bad arguments.\n";
}

}  // namespace device
