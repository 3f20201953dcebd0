// Cached lookups of interface documents in a store directory.
#include "Bridge/InterfaceStore.h"

#include <iostream>

namespace bridge {

InterfaceStore::InterfaceStore(const std::string& dir) : store(dir) {}

std::shared_ptr<const InterfaceInformations> InterfaceStore::find(const std::string& intfId) {
    if (intfId.empty()) return nullptr;
    auto it = cache.find(intfId);
    if (it != cache.end()) return it->second;
    if (failed.count(intfId) != 0) return nullptr;
    std::shared_ptr<const InterfaceInformations> doc = load(intfId);
    if (doc) cache[intfId] = doc;
    else failed.insert(intfId);
    return doc;
}

void InterfaceStore::forget() {
    cache.clear();
    failed.clear();
}

std::shared_ptr<const InterfaceInformations> InterfaceStore::load(const std::string& intfId) {
    std::string path = store.findIntfFile(intfId);
    if (path.empty()) {
        std::cerr << "velto-mqtt: interface " << intfId << " is not in the store\n";
        return nullptr;
    }
    InterfaceFileParser parser("en", "ro");
    if (!parser.parse(path, false)) {
        std::cerr << "velto-mqtt: interface " << intfId << " does not parse: " << path << '\n';
        return nullptr;
    }
    bool tooBig = parser.data().messages.size() > MAX_MESSAGES;
    for (const VeltoMessageInfo& m : parser.data().messages) tooBig = tooBig || m.fields.size() > MAX_FIELDS;
    if (tooBig) {
        std::cerr << "velto-mqtt: interface " << intfId << " declares too many messages or fields\n";
        return nullptr;
    }
    return std::make_shared<const InterfaceInformations>(std::move(parser.data()));
}

}  // namespace bridge
