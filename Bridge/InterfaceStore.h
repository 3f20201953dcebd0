// Interface documents for the bridge, read from a store directory in the
// store's own layout (index files and numbered documents, through SpecsDB).
//
// A document that is not in the store is downloaded and filed by one helper
// thread, so the bridge's loop never waits for a server: find() returns null
// meanwhile, and takeDownloaded() hands back the identifiers whose download
// ended, to be looked up again. A document that cannot be had, does not parse
// or is unreasonably large yields null and one log line per identifier.
// Parsed documents are cached until forget(). Every call but the helper's own
// work happens on the owner's thread.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Hub/Database/SpecsDB.h"
#include "Velto/Parsing/InterfaceFileParser.h"

namespace bridge {

class InterfaceStore {
public:
    // Caps on what one document may declare; beyond them it counts as broken.
    static constexpr size_t MAX_MESSAGES = 256;
    static constexpr size_t MAX_FIELDS = 64;

    explicit InterfaceStore(const std::string& dir);
    // Waits for a download in progress to end.
    ~InterfaceStore();
    InterfaceStore(const InterfaceStore&) = delete;
    InterfaceStore& operator=(const InterfaceStore&) = delete;

    // The parsed document of intfId, or null (see above).
    std::shared_ptr<const InterfaceInformations> find(const std::string& intfId);
    // Identifiers whose download ended since the last call.
    std::vector<std::string> takeDownloaded();
    // Drops the cache and the memory of failures, so documents are read again.
    void forget();

private:
    std::shared_ptr<const InterfaceInformations> load(const std::string& intfId, const std::string& path);
    void requestDownload(const std::string& intfId);
    void downloadLoop();

    std::string dirName;
    SpecsDB store;
    std::map<std::string, std::shared_ptr<const InterfaceInformations>> cache;
    std::set<std::string> failed;     // identifiers already logged
    std::set<std::string> requested;  // identifiers handed to the helper once

    std::mutex mu;  // guards the three members below
    std::condition_variable wake;
    std::deque<std::string> wanted;
    std::vector<std::string> finished;
    bool quitting = false;
    std::thread helper;  // started at the first download
};

}  // namespace bridge
