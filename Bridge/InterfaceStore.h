// Interface documents for the bridge, read from a store directory in the
// store's own layout (index files and numbered documents, through SpecsDB).
//
// Lookup only: a document that is not in the store is not downloaded (the
// hub files every document it fetches; point --store at its "DB" or copy
// them). A document that is missing, does not parse or is unreasonably large
// yields null and one log line per identifier. Parsed documents are cached
// until forget().
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

#include "Hub/Database/SpecsDB.h"
#include "Velto/Parsing/InterfaceFileParser.h"

namespace bridge {

class InterfaceStore {
public:
    // Caps on what one document may declare; beyond them it counts as broken.
    static constexpr size_t MAX_MESSAGES = 256;
    static constexpr size_t MAX_FIELDS = 64;

    explicit InterfaceStore(const std::string& dir);

    // The parsed document of intfId, or null (see above).
    std::shared_ptr<const InterfaceInformations> find(const std::string& intfId);
    // Drops the cache and the memory of failures, so documents are read again.
    void forget();

private:
    std::shared_ptr<const InterfaceInformations> load(const std::string& intfId);

    SpecsDB store;
    std::map<std::string, std::shared_ptr<const InterfaceInformations>> cache;
    std::set<std::string> failed;  // identifiers already logged
};

}  // namespace bridge
