// Parsing of velto-mqtt's options.
#include "Bridge/BridgeOptions.h"

#include <unistd.h>

#include <fstream>

#include "Device/CliOptions.h"
#include "Velto/platform.h"

namespace bridge {

namespace {

bool refuse(std::string& why, const std::string& text) {
    why = text;
    return false;
}

// A topic prefix: not empty, no wildcard, no leading or trailing '/'.
bool goodPrefix(const std::string& t) {
    return !t.empty() && t.find_first_of("+#") == std::string::npos && t.front() != '/' && t.back() != '/';
}

bool parseBroker(const std::string& text, MqttSettings& m) {
    size_t colon = text.rfind(':');
    std::string host = text.substr(0, colon);
    if (host.empty()) return false;
    if (colon != std::string::npos) {
        uint32_t port = 0;
        if (!device::parseNumber(text.substr(colon + 1), 65535, port) || port == 0) return false;
        m.port = static_cast<int>(port);
    }
    m.host = host;
    return true;
}

bool readPassword(const std::string& path, std::string& out) {
    std::ifstream in(path);
    if (!in) return false;
    std::getline(in, out);
    if (!out.empty() && out.back() == '\r') out.pop_back();
    return true;
}

bool applyOption(const std::string& a, const std::string& v, BridgeOptions& o, std::string& why) {
    uint32_t n = 0;
    if (a == "--hub") {
        if (!device::parseHubAddress(v, o.device.hub)) return refuse(why, "bad hub address \"" + v + "\"");
        o.device.discover = false;
    } else if (a == "--duid")
        o.device.duid = v;
    else if (a == "--broker") {
        if (!parseBroker(v, o.mqtt)) return refuse(why, "bad broker \"" + v + "\" (give HOST[:PORT])");
    } else if (a == "--base-topic")
        o.baseTopic = v;
    else if (a == "--discovery-prefix")
        o.discoveryPrefix = v;
    else if (a == "--store")
        o.storeDir = v;
    else if (a == "--username")
        o.mqtt.username = v;
    else if (a == "--password-file")
        o.passwordFile = v;
    else if (a == "--tls-ca")
        o.mqtt.tlsCa = v;
    else if (a == "--client-id")
        o.mqtt.clientId = v;
    else if (a == "--poll-ms") {
        if (!device::parseNumber(v, 3600000, n) || n < 100) return refuse(why, "bad --poll-ms \"" + v + "\"");
        o.pollMs = static_cast<int>(n);
    } else
        return refuse(why, "unknown option " + a);
    return true;
}

}  // namespace

bool parseBridgeOptions(const std::vector<std::string>& args, BridgeOptions& o, std::string& why) {
    o.device.duid = "velto-mqtt";
    o.device.objects = {device::DeviceObject{"bridge", "bridge", 0, 0}};
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--help" || args[i] == "-h") {
            o.help = true;
            return true;
        }
        if (i + 1 >= args.size()) return refuse(why, args[i] + " needs a value");
        if (!applyOption(args[i], args[i + 1], o, why)) return false;
        ++i;
    }
    if (!goodPrefix(o.baseTopic) || !goodPrefix(o.discoveryPrefix) || o.baseTopic == o.discoveryPrefix)
        return refuse(why,
                      "the base topic and the discovery prefix must differ, be non-empty, and hold no + # or "
                      "leading or trailing /");
    if (!o.passwordFile.empty() && !readPassword(o.passwordFile, o.mqtt.password))
        return refuse(why, "cannot read the password file " + o.passwordFile);
    if (!o.mqtt.tlsCa.empty() && !std::ifstream(o.mqtt.tlsCa))
        return refuse(why, "cannot read the TLS CA file " + o.mqtt.tlsCa);
    if (o.mqtt.clientId.empty())
        o.mqtt.clientId = "velto-mqtt-" + std::to_string(getpid()) + "-" + std::to_string(currentTime() % 100000);
    o.mqtt.willTopic = o.baseTopic + "/bridge/state";
    o.mqtt.willPayload = "offline";
    std::string bad;
    if (!device::validateConfig(o.device, bad)) return refuse(why, bad);
    return true;
}

std::string bridgeUsage() {
    return "Usage: velto-mqtt [options]\n"
           "Joins a Velto hub as a device and shows every device on an MQTT broker.\n\n"
           "Options:\n"
           "  --hub ADDRESS            the hub as a.b.c.d[:port]; without it, discovery\n"
           "  --duid DUID              the bridge's own DUID (default velto-mqtt)\n"
           "  --broker HOST[:PORT]     the MQTT broker (default 127.0.0.1:1883)\n"
           "  --base-topic T           topic prefix (default velto)\n"
           "  --discovery-prefix P     Home Assistant discovery prefix (default homeassistant)\n"
           "  --store DIR              where interface documents are looked up and filed (default DB)\n"
           "  --username U             MQTT user name\n"
           "  --password-file F        file whose first line is the MQTT password\n"
           "  --tls-ca FILE            connect with TLS, trusting this CA file\n"
           "  --client-id ID           MQTT client id (default: velto-mqtt-PID-N, unique)\n"
           "  --poll-ms MS             how often the device list is read (default 5000)\n\n"
           "Exit status: 0 after SIGINT or SIGTERM, 2 on bad options.\n";
}

}  // namespace bridge
