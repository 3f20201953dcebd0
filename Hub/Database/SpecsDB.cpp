#include "Hub/Database/SpecsDB.h"

#include <curl/curl.h>

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

// Not in the original set of transfer options: without them a server that
// accepts and then stays silent would block the hub's only thread for ever.
const long CONNECT_TIMEOUT_MS = 5000;
const long TRANSFER_TIMEOUT_MS = 30000;

struct FileCloser {
    void operator()(FILE* f) const {
        if (f) fclose(f);
    }
};
typedef std::unique_ptr<FILE, FileCloser> FilePtr;

struct CurlCleaner {
    void operator()(CURL* handle) const {
        if (handle) curl_easy_cleanup(handle);
    }
};
typedef std::unique_ptr<CURL, CurlCleaner> CurlPtr;

// Global initialisation of the transfer library for the lifetime of one fetch.
class CurlGlobal {
public:
    CurlGlobal() { curl_global_init(CURL_GLOBAL_ALL); }
    ~CurlGlobal() { curl_global_cleanup(); }
    CurlGlobal(const CurlGlobal&) = delete;
    CurlGlobal& operator=(const CurlGlobal&) = delete;
};

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

// Performs one GET of url into body; the transfer result is not looked at,
// only the bytes that arrived count.
void fetchInto(const std::string& url, std::vector<char>& body) {
    CurlGlobal global;
    CurlPtr handle(curl_easy_init());
    if (!handle) return;
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, &WriteMemoryCallback);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, static_cast<void*>(&body));
    curl_easy_setopt(handle.get(), CURLOPT_USERAGENT, "libcurl-agent/1.0");
    curl_easy_setopt(handle.get(), CURLOPT_CONNECTTIMEOUT_MS, CONNECT_TIMEOUT_MS);
    curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT_MS, TRANSFER_TIMEOUT_MS);
    curl_easy_perform(handle.get());
}

bool appendIndexLine(const std::string& indexFile, const std::string& id, const std::string& number) {
    std::ofstream out(indexFile, std::ios::app);
    if (!out) return false;
    out << id << '\t' << number << '\n';
    return static_cast<bool>(out);
}

}  // namespace

SpecsDB::SpecsDB(const std::string& dirName) : dirName(dirName) {}

SpecsDB::~SpecsDB() {}

std::string SpecsDB::findSpecFile(std::string specId) {
    return findDocument(specId, SPECS_INDEX, SPEC_EXT);
}

std::string SpecsDB::downloadSpecFile(std::string specId) {
    return downloadDocument(specId, SPECS_INDEX, SPEC_EXT, SPEC_URL_SUFFIX);
}

std::string SpecsDB::findIntfFile(std::string intfId) {
    return findDocument(intfId, INTERFACES_INDEX, INTF_EXT);
}

std::string SpecsDB::downloadIntfFile(std::string intfId) {
    return downloadDocument(intfId, INTERFACES_INDEX, INTF_EXT, "");
}

std::string SpecsDB::findDocument(const std::string& id, const std::string& indexName,
                                  const std::string& extension) {
    const std::string number = findIdxInIdxFile(dirName + indexName, id);
    if (number.empty()) return std::string();
    return dirName + "/" + number + extension;
}

std::string SpecsDB::downloadDocument(const std::string& id, const std::string& indexName,
                                      const std::string& extension, const std::string& urlSuffix) {
    if (id.size() < 3) return std::string();
    const std::string indexFile = dirName + indexName;
    const std::string number = formatNumber(maxIdxinIdxFile(indexFile) + 1);
    const std::string target = dirName + "/" + number + extension;
    const std::string urls[] = {
        "https://" + id + urlSuffix,
        "https://www." + id + urlSuffix,
        "http://" + id + urlSuffix,
        "http://www." + id + urlSuffix,
    };
    for (const std::string& url : urls) {
        if (downloadFile(url, target)) {
            appendIndexLine(indexFile, id, number);
            break;
        }
    }
    // Also after four failed tries: the caller then finds no file there, and
    // a later attempt reuses the same number.
    return target;
}

bool SpecsDB::loadRightsForInterface(const std::string& intfId,
                                     std::map<unsigned short, unsigned char>& typeTwoRights,
                                     std::map<unsigned short, unsigned char>& typeOneRights) {
    std::string path = findIntfFile(intfId);
    if (path.empty()) path = downloadIntfFile(intfId);

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
    std::cout << "Downloading " << url << " ... " << std::flush;

    std::vector<char> body;
    fetchInto(url, body);
    if (body.empty()) {
        std::cout << "Failed. Error data size=0\n";
        return false;
    }

    FilePtr out(fopen(target.c_str(), "wb"));
    if (!out) {
        std::cout << "Failed. Error opening target file " << target << '\n';
        return false;
    }
    fwrite(body.data(), 1, body.size(), out.get());
    std::cout << "OK as file " << target << '\n';
    return true;
}

size_t WriteMemoryCallback(void* ptr, size_t size, size_t nmemb, void* userdata) {
    const size_t count = size * nmemb;
    if (userdata == nullptr || (ptr == nullptr && count != 0)) return 0;
    std::vector<char>* body = static_cast<std::vector<char>*>(userdata);
    const char* bytes = static_cast<const char*>(ptr);
    body->insert(body->end(), bytes, bytes + count);
    return count;
}
