#include "Hub/Database/SpecsDB.h"

#include <charconv>
#include <cstdio>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>
#include <vector>

#include "Velto/Parsing/InterfaceFileParser.h"
#include "Velto/Parsing/SpecFileParser.h"

namespace {

const char* const SPECS_INDEX = "/specs.idx";
const char* const INTERFACES_INDEX = "/interfaces.idx";
const char* const SPEC_EXT = ".spec";
const char* const INTF_EXT = ".intf";
const char* const SPEC_URL_SUFFIX = "/device.spec";

struct FileCloser {
    void operator()(FILE* f) const {
        if (f) fclose(f);
    }
};
typedef std::unique_ptr<FILE, FileCloser> FilePtr;

// Splits one index line into its two words; false when it holds fewer.
bool readIndexLine(const std::string& line, std::string& id, std::string& number) {
    std::istringstream words(line);
    return static_cast<bool>(words >> id >> number);
}

// Decimal, zero-filled to width 9.
std::string formatNumber(uint64_t number) {
    std::ostringstream ss;
    ss << std::setw(9) << std::setfill('0') << number;
    return ss.str();
}

// Waits for fetch, moving db's downloads on meanwhile.
void waitFor(SpecsDB& db, const std::shared_ptr<DocumentFetch>& fetch) {
    while (fetch && !fetch->finished()) {
        db.waitForDownloads(-1, 100000);
        db.driveDownloads();
    }
    db.driveDownloads();  // settles a fetch that finished when it started
}

// Writes body to target (truncated); the outcome text of the attempt's line.
bool writeBody(const std::vector<char>& body, const std::string& target, std::string& outcome) {
    FilePtr out(fopen(target.c_str(), "wb"));
    if (!out) {
        outcome = "Failed. Error opening target file " + target;
        return false;
    }
    fwrite(body.data(), 1, body.size(), out.get());
    outcome = "OK as file " + target;
    return true;
}

bool appendIndexLine(const std::string& indexFile, const std::string& id, const std::string& number) {
    std::ofstream out(indexFile, std::ios::app);
    if (!out) return false;
    out << id << '\t' << number << '\n';
    return static_cast<bool>(out);
}

}  // namespace

struct SpecsDB::Kind {
    const char* indexName;
    const char* extension;
    const char* urlSuffix;
};

const SpecsDB::Kind SpecsDB::SPEC_DOCS = {SPECS_INDEX, SPEC_EXT, SPEC_URL_SUFFIX};
const SpecsDB::Kind SpecsDB::INTF_DOCS = {INTERFACES_INDEX, INTF_EXT, ""};

SpecsDB::SpecsDB(const std::string& dirName) : dirName(dirName) {}

SpecsDB::~SpecsDB() {}

std::string SpecsDB::findSpecFile(std::string specId) {
    return findDocument(specId, SPECS_INDEX, SPEC_EXT);
}

std::string SpecsDB::downloadSpecFile(std::string specId) { return downloadDocument(specId, SPEC_DOCS); }

std::string SpecsDB::findIntfFile(std::string intfId) {
    return findDocument(intfId, INTERFACES_INDEX, INTF_EXT);
}

std::string SpecsDB::downloadIntfFile(std::string intfId) { return downloadDocument(intfId, INTF_DOCS); }

std::shared_ptr<DocumentFetch> SpecsDB::startSpecDownload(const std::string& specId) {
    return startDownload(specId, SPEC_DOCS);
}

std::shared_ptr<DocumentFetch> SpecsDB::startIntfDownload(const std::string& intfId) {
    return startDownload(intfId, INTF_DOCS);
}

std::string SpecsDB::findDocument(const std::string& id, const std::string& indexName,
                                  const std::string& extension) {
    const std::string number = findIdxInIdxFile(dirName + indexName, id);
    if (number.empty()) return std::string();
    return dirName + "/" + number + extension;
}

// The document's number is taken when its body is filed, not when the
// download starts: downloads of several documents may run side by side.
std::string SpecsDB::downloadDocument(const std::string& id, const Kind& kind) {
    if (id.size() < 3) return std::string();
    const std::shared_ptr<DocumentFetch> fetch = startDownload(id, kind);
    waitFor(*this, fetch);
    if (fetch && fetch->succeeded()) {
        const std::string path = findDocument(id, kind.indexName, kind.extension);
        if (!path.empty()) return path;
    }
    // After failed tries: a path where no file is, the number a later attempt takes.
    const std::string number = formatNumber(maxIdxinIdxFile(dirName + kind.indexName) + 1);
    return dirName + "/" + number + kind.extension;
}

std::shared_ptr<DocumentFetch> SpecsDB::startDownload(const std::string& id, const Kind& kind) {
    if (id.size() < 3) return nullptr;
    const std::string key = std::string(kind.indexName) + id;
    auto running = inFlight.find(key);
    if (running != inFlight.end()) return running->second;
    if (failedRecently(key, id)) return nullptr;
    const std::vector<std::string> urls = {
        "https://" + id + kind.urlSuffix,
        "https://www." + id + kind.urlSuffix,
        "http://" + id + kind.urlSuffix,
        "http://www." + id + kind.urlSuffix,
    };
    const Kind* k = &kind;
    auto fetch = std::make_shared<DocumentFetch>(
        transfers, urls,
        [this, id, k](const std::vector<char>& body, std::string& outcome) { return fileDocument(id, *k, body, outcome); });
    inFlight[key] = fetch;
    return fetch;
}

bool SpecsDB::fileDocument(const std::string& id, const Kind& kind, const std::vector<char>& body,
                           std::string& outcome) {
    const std::string indexFile = dirName + kind.indexName;
    const std::string number = formatNumber(maxIdxinIdxFile(indexFile) + 1);
    if (!writeBody(body, dirName + "/" + number + kind.extension, outcome)) return false;
    appendIndexLine(indexFile, id, number);
    return true;
}

bool SpecsDB::failedRecently(const std::string& key, const std::string& id) {
    auto it = failedAt.find(key);
    if (it == failedAt.end()) return false;
    const auto ago = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - it->second);
    if (ago.count() >= FAILED_DOCUMENT_PAUSE_MS) {
        failedAt.erase(it);
        return false;
    }
    std::cout << ("Downloading " + id + " skipped: it failed " + std::to_string(ago.count() / 1000) +
                  " s ago; not tried again within " + std::to_string(FAILED_DOCUMENT_PAUSE_MS / 1000) + " s\n")
              << std::flush;
    return true;
}

void SpecsDB::driveDownloads() {
    if (inFlight.empty()) return;
    transfers.perform();
    for (auto it = inFlight.begin(); it != inFlight.end();) {
        if (!it->second->finished()) {
            ++it;
            continue;
        }
        if (!it->second->succeeded()) failedAt[it->first] = std::chrono::steady_clock::now();
        it = inFlight.erase(it);
    }
}

bool SpecsDB::loadRightsForInterface(const std::string& intfId,
                                     std::map<unsigned short, unsigned char>& typeTwoRights,
                                     std::map<unsigned short, unsigned char>& typeOneRights) {
    std::string path = findIntfFile(intfId);
    if (path.empty()) path = downloadIntfFile(intfId);
    return loadRightsFrom(path, typeTwoRights, typeOneRights);
}

bool SpecsDB::loadRightsFrom(const std::string& path, std::map<unsigned short, unsigned char>& typeTwoRights,
                             std::map<unsigned short, unsigned char>& typeOneRights) {
    InterfaceFileParser parser("en", "ro");
    if (!parser.parse(path, false)) return false;

    for (const VeltoMessageInfo& msg : parser.data().messages) {
        const unsigned short id = static_cast<unsigned short>(msg.id);
        if (msg.type == 2) {
            typeTwoRights[id] = msg.security;
        } else if (msg.type == 1) {
            typeOneRights[id] = msg.security;
        }
    }
    return true;
}

std::string SpecsDB::interfaceString(const std::string& specId, const std::string& interfaceName) {
    std::string path = findSpecFile(specId);
    if (path.empty()) path = downloadSpecFile(specId);
    if (path.empty()) return std::string();
    return interfaceStringIn(path, interfaceName);
}

std::string SpecsDB::interfaceStringIn(const std::string& path, const std::string& interfaceName) {
    SpecFileParser parser("en", "en");
    if (!parser.parse(path, false)) return std::string();

    const std::map<std::string, std::string>& exported = parser.data().expInterfaces;
    const auto it = exported.find(interfaceName);
    return it == exported.end() ? std::string() : it->second;
}

std::string findIdxInIdxFile(std::string idxFile, std::string id) {
    std::ifstream in(idxFile);
    if (!in) return std::string();
    std::string line;
    std::string first;
    std::string number;
    while (std::getline(in, line)) {
        if (readIndexLine(line, first, number) && first == id) return number;
    }
    return std::string();
}

uint64_t maxIdxinIdxFile(std::string idxFile) {
    std::ifstream in(idxFile);
    if (!in) return 0;
    uint64_t best = 0;
    std::string line;
    std::string id;
    std::string number;
    while (std::getline(in, line)) {
        if (!readIndexLine(line, id, number)) continue;
        uint64_t value = 0;
        const auto res = std::from_chars(number.data(), number.data() + number.size(), value);
        if (res.ec != std::errc() || res.ptr != number.data() + number.size()) continue;
        if (value > best) best = value;
    }
    return best;
}

bool downloadFile(const std::string& url, const std::string& target) {
    HttpTransfers transfers;
    DocumentFetch fetch(transfers, {url}, [&target](const std::vector<char>& body, std::string& outcome) {
        return writeBody(body, target, outcome);
    });
    while (!fetch.finished()) {
        transfers.wait(-1, 100000);
        transfers.perform();
    }
    return fetch.succeeded();
}

size_t WriteMemoryCallback(void* ptr, size_t size, size_t nmemb, void* userdata) {
    const size_t count = size * nmemb;
    if (userdata == nullptr || (ptr == nullptr && count != 0)) return 0;
    std::vector<char>* body = static_cast<std::vector<char>*>(userdata);
    const char* bytes = static_cast<const char*>(ptr);
    body->insert(body->end(), bytes, bytes + count);
    return count;
}
