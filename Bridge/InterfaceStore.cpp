// Cached lookups of interface documents, and their downloads off the loop.
#include "Bridge/InterfaceStore.h"

#include <iostream>

namespace bridge {

InterfaceStore::InterfaceStore(const std::string& dir) : dirName(dir), store(dir) {}

InterfaceStore::~InterfaceStore() {
    {
        std::lock_guard<std::mutex> lock(mu);
        quitting = true;
        wanted.clear();
    }
    wake.notify_all();
    if (helper.joinable()) helper.join();
}

std::shared_ptr<const InterfaceInformations> InterfaceStore::find(const std::string& intfId) {
    if (intfId.empty()) return nullptr;
    auto it = cache.find(intfId);
    if (it != cache.end()) return it->second;
    if (failed.count(intfId) != 0) return nullptr;
    std::string path = store.findIntfFile(intfId);
    if (path.empty() && requested.count(intfId) == 0) {
        requestDownload(intfId);
        return nullptr;
    }
    if (path.empty()) {
        std::cerr << "velto-mqtt: interface " << intfId << " is not in the store and could not be downloaded\n";
        failed.insert(intfId);
        return nullptr;
    }
    std::shared_ptr<const InterfaceInformations> doc = load(intfId, path);
    if (doc)
        cache[intfId] = doc;
    else
        failed.insert(intfId);
    return doc;
}

std::vector<std::string> InterfaceStore::takeDownloaded() {
    std::lock_guard<std::mutex> lock(mu);
    std::vector<std::string> out;
    out.swap(finished);
    return out;
}

void InterfaceStore::forget() {
    cache.clear();
    failed.clear();
    requested.clear();
}

std::shared_ptr<const InterfaceInformations> InterfaceStore::load(const std::string& intfId, const std::string& path) {
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

void InterfaceStore::requestDownload(const std::string& intfId) {
    requested.insert(intfId);
    {
        std::lock_guard<std::mutex> lock(mu);
        wanted.push_back(intfId);
    }
    if (!helper.joinable()) helper = std::thread([this] { downloadLoop(); });
    wake.notify_one();
}

// The helper: one download at a time, with a store object of its own (the
// store keeps no state in memory; the index is appended only from here).
void InterfaceStore::downloadLoop() {
    SpecsDB own(dirName);
    std::unique_lock<std::mutex> lock(mu);
    for (;;) {
        wake.wait(lock, [this] { return quitting || !wanted.empty(); });
        if (quitting) return;
        std::string id = wanted.front();
        wanted.pop_front();
        lock.unlock();
        own.downloadIntfFile(id);  // an identifier shorter than 3 characters is never fetched
        lock.lock();
        finished.push_back(id);
    }
}

}  // namespace bridge
