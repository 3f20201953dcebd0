// Checks of a device's configuration.
#include "Device/DeviceConfig.h"

namespace device {

const char* const DEFAULT_DOMAIN = "TestDomain_KVZ1";
const char* const DISCOVERY_GROUP = "224.68.12.8";

namespace {

// The hub files each device under its DUID, so only characters safe in a file
// name are taken.
bool safeDuid(const std::string& duid) {
    if (duid.empty() || duid == "." || duid == "..") return false;
    for (char c : duid) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                  c == '_' || c == '.' || c == ':';
        if (!ok) return false;
    }
    return true;
}

bool fits(const std::string& s, size_t cap, const char* what, std::string& why) {
    if (s.size() <= cap) return true;
    why = std::string(what) + " is longer than " + std::to_string(cap) + " characters";
    return false;
}

bool noBlank(const std::string& s, const char* what, std::string& why) {
    for (char c : s) {
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\0') {
            why = std::string(what) + " must not contain blanks";
            return false;
        }
    }
    return true;
}

}  // namespace

bool validateConfig(const DeviceConfig& cfg, std::string& why) {
    if (!safeDuid(cfg.duid)) {
        why = "duid must be 1 to 32 of the characters A-Z a-z 0-9 - _ . :";
        return false;
    }
    if (!fits(cfg.duid, 32, "duid", why) || !fits(cfg.specs, 128, "specs", why) ||
        !noBlank(cfg.specs, "specs", why) || !fits(cfg.name, 32, "name", why) ||
        !fits(cfg.domain, 32, "domain", why))
        return false;
    if (cfg.domain.empty()) {
        why = "domain must not be empty";
        return false;
    }
    if (cfg.mainKey.size() > 32) {
        why = "main key is longer than 32 bytes";
        return false;
    }
    if (cfg.objects.empty() || cfg.objects.size() > 255) {
        why = "a device needs 1 to 255 objects";
        return false;
    }
    for (const DeviceObject& o : cfg.objects)
        if (!fits(o.name, 32, "object name", why) || !fits(o.interface, 32, "object interface", why))
            return false;
    if (cfg.maxMessageSize == 0) {
        why = "largest message size must not be 0";
        return false;
    }
    return true;
}

SockAddress discoveryAddress() { return SockAddress(DISCOVERY_GROUP, HUB_PORT); }

}  // namespace device
