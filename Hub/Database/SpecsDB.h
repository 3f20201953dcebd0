// Specification store: local copies of device specification documents
// (".spec") and interface definition documents (".intf") in one directory.
//
// A document missing on disk is downloaded (HTTPS first, then HTTP), saved
// byte for byte as a nine-digit zero-filled number plus extension, and noted
// in an index file ("/specs.idx" or "/interfaces.idx") as the line
// "identifier\tnumber". The two kinds are numbered independently, from
// 000000001. Index files only grow; nothing is cached in memory: every lookup
// rereads the index. Downloads block the caller. Nothing throws; failures are
// empty strings or false, with progress lines on standard output.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

class SpecsDB {
public:
    // dirName is the store directory; it is not created or checked here.
    explicit SpecsDB(const std::string& dirName);
    virtual ~SpecsDB();

    // dirName + "/" + number + ".spec" when specs.idx has an entry for specId,
    // otherwise "". The file itself is not checked.
    std::string findSpecFile(std::string specId);
    // Downloads the document of specId and files it. Returns "" for an
    // identifier shorter than 3 characters; otherwise the target path, also
    // when every try failed (then no file is there and the index is unchanged).
    std::string downloadSpecFile(std::string specId);

    // As findSpecFile, with "/interfaces.idx" and ".intf".
    std::string findIntfFile(std::string intfId);
    // As downloadSpecFile, with "/interfaces.idx", ".intf", and the URL built
    // from the identifier alone (it already holds the path).
    std::string downloadIntfFile(std::string intfId);

    // Finds (or downloads) and parses the interface document of intfId; on a
    // successful parse sets typeTwoRights[id] (direct messages) and
    // typeOneRights[id] (notifications) to each message's security level,
    // overwriting existing entries. Returns true exactly when the parse
    // succeeded; the maps are untouched otherwise.
    bool loadRightsForInterface(const std::string& intfId,
                                std::map<unsigned short, unsigned char>& typeTwoRights,
                                std::map<unsigned short, unsigned char>& typeOneRights);

    // The interface identifier that the specification specId exports under
    // interfaceName; "" when the document cannot be had, does not parse, or
    // has no such entry. Nothing is cached between calls.
    std::string interfaceString(const std::string& specId, const std::string& interfaceName);

private:
    // Shared body of the two download operations.
    std::string downloadDocument(const std::string& id, const std::string& indexName,
                                 const std::string& extension, const std::string& urlSuffix);
    // dirName + "/" + number + extension when indexName has id, otherwise "".
    std::string findDocument(const std::string& id, const std::string& indexName,
                             const std::string& extension);

    std::string dirName;
};

// The number recorded for id in idxFile, as written; "" when the file does
// not open or has no line whose first word is id. The first match wins.
std::string findIdxInIdxFile(std::string idxFile, std::string id);

// The largest number in idxFile; 0 when the file is missing or holds none.
// Lines without two words or with a non-numeric second word are skipped.
uint64_t maxIdxinIdxFile(std::string idxFile);

// Fetches url into target (truncated). Prints "Downloading <url> ... " then
// the outcome on standard output. Returns false when no byte arrived or the
// target cannot be opened, true otherwise (an error page with a body counts).
bool downloadFile(const std::string& url, const std::string& target);

// Transfer sink: appends size * nmemb bytes at ptr to the std::vector<char>
// at userdata. Returns size * nmemb (0 when userdata is null).
size_t WriteMemoryCallback(void* ptr, size_t size, size_t nmemb, void* userdata);
