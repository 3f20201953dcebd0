// Topic names of the MQTT bridge: one level per name, made safe to publish.
//
// A level keeps letters, digits, '-', '_' and '.'; every other byte becomes
// '_' (so '/', '+', '#', blanks and control bytes never reach a topic) and an
// empty name becomes "_". Discovery ids keep only letters, digits, '-' and '_'.
#pragma once

#include <string>

namespace bridge {

// name with every byte outside [A-Za-z0-9._-] replaced by '_'; "_" when empty.
std::string topicLevel(const std::string& name);
// As topicLevel, with '.' replaced as well (Home Assistant's id alphabet).
std::string discoveryId(const std::string& name);

// The topics under one base topic and one discovery prefix.
class TopicNames {
public:
    TopicNames(std::string base, std::string discoveryPrefix);

    std::string bridge(const std::string& leaf) const { return base + "/bridge/" + leaf; }
    std::string availability(const std::string& duid) const;
    std::string message(const std::string& duid, const std::string& object, const std::string& msg) const;
    std::string set(const std::string& duid, const std::string& object, const std::string& msg) const;
    // <prefix>/<component>/velto_<duid>/<object>_<message>/config
    std::string config(const std::string& component, const std::string& duid, const std::string& object,
                       const std::string& msg) const;
    std::string haStatus() const { return prefix + "/status"; }
    // The subscription that catches every set topic.
    std::string setFilter() const { return base + "/+/+/+/set"; }
    const std::string& baseTopic() const { return base; }

private:
    std::string base;
    std::string prefix;
};

}  // namespace bridge
