// Topic levels and the bridge's topic layout.
#include "Bridge/TopicNames.h"

namespace bridge {

namespace {

std::string keepOnly(const std::string& name, bool keepDot) {
    if (name.empty()) return "_";
    std::string out = name;
    for (char& c : out) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
                  (keepDot && c == '.');
        if (!ok) c = '_';
    }
    return out;
}

}  // namespace

std::string topicLevel(const std::string& name) { return keepOnly(name, true); }

std::string discoveryId(const std::string& name) { return keepOnly(name, false); }

TopicNames::TopicNames(std::string b, std::string p) : base(std::move(b)), prefix(std::move(p)) {}

std::string TopicNames::availability(const std::string& duid) const {
    return base + "/" + topicLevel(duid) + "/availability";
}

std::string TopicNames::message(const std::string& duid, const std::string& object, const std::string& msg) const {
    return base + "/" + topicLevel(duid) + "/" + topicLevel(object) + "/" + topicLevel(msg);
}

std::string TopicNames::set(const std::string& duid, const std::string& object, const std::string& msg) const {
    return message(duid, object, msg) + "/set";
}

std::string TopicNames::config(const std::string& component, const std::string& duid, const std::string& object,
                               const std::string& msg) const {
    return prefix + "/" + component + "/velto_" + discoveryId(duid) + "/" + discoveryId(object) + "_" +
           discoveryId(msg) + "/config";
}

}  // namespace bridge
