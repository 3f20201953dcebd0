// Specification store: local copies of device specification documents
// (".spec") and interface definition documents (".intf") in one directory.
//
// A document missing on disk is downloaded (HTTPS first, then HTTP), saved
// byte for byte as a nine-digit zero-filled number plus extension, and noted
// in an index file ("/specs.idx" or "/interfaces.idx") as the line
// "identifier\tnumber". The two kinds are numbered independently, from
// 000000001. Index files only grow; nothing is cached in memory: every lookup
// rereads the index; the one thing kept in memory is when a document last
// failed to download: it is not tried again for 10 minutes. Downloads are
// bounded (5 s to connect, 30 s per document over all its addresses, 1 MiB).
// The download operations below wait for their transfer; the start...Download
// operations do not, and are moved on by driveDownloads() from the caller's
// loop. Nothing throws; failures are empty strings or false, with progress
// lines on standard output. Single-threaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Hub/Database/DocumentFetch.h"

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

    // How long a document that failed to download is not tried again, ms.
    static constexpr long FAILED_DOCUMENT_PAUSE_MS = 600000;

    // Start the download of a missing document without waiting for it, or
    // join the one already under way for the same document. Null when there
    // is nothing to wait for: an identifier shorter than 3 characters, or a
    // document that failed within the last 10 minutes (said in one line). The
    // caller looks the document up again once the fetch is finished().
    std::shared_ptr<DocumentFetch> startSpecDownload(const std::string& specId);
    std::shared_ptr<DocumentFetch> startIntfDownload(const std::string& intfId);
    // Moves every download on without waiting; remembers the failures.
    void driveDownloads();
    // True while a download is under way.
    bool downloading() const { return !inFlight.empty(); }
    // Waits up to micros for download traffic or for extraFd to become
    // readable (see HttpTransfers::wait): 1 when extraFd is, 0, -1 on error.
    int waitForDownloads(int extraFd, uint64_t micros) { return transfers.wait(extraFd, micros); }
    // Abandons the downloads under way, for good (see HttpTransfers::stop).
    void stopDownloads() { transfers.stop(); }

    // The parsing halves of interfaceString and loadRightsForInterface, on a
    // document already on disk (a path that does not open fails the parse).
    std::string interfaceStringIn(const std::string& specPath, const std::string& interfaceName);
    bool loadRightsFrom(const std::string& intfPath, std::map<unsigned short, unsigned char>& typeTwoRights,
                        std::map<unsigned short, unsigned char>& typeOneRights);

private:
    struct Kind;
    static const Kind SPEC_DOCS;
    static const Kind INTF_DOCS;
    // Shared body of the two download operations.
    std::string downloadDocument(const std::string& id, const Kind& kind);
    std::shared_ptr<DocumentFetch> startDownload(const std::string& id, const Kind& kind);
    // Writes body as the next document of its kind and notes it in the index.
    bool fileDocument(const std::string& id, const Kind& kind, const std::vector<char>& body, std::string& outcome);
    // True (with its line) when id failed within the pause.
    bool failedRecently(const std::string& key, const std::string& id);
    // dirName + "/" + number + extension when indexName has id, otherwise "".
    std::string findDocument(const std::string& id, const std::string& indexName,
                             const std::string& extension);

    std::string dirName;
    HttpTransfers transfers;
    std::map<std::string, std::shared_ptr<DocumentFetch>> inFlight;  // index name + id -> fetch
    std::map<std::string, std::chrono::steady_clock::time_point> failedAt;
};

// The number recorded for id in idxFile, as written; "" when the file does
// not open or has no line whose first word is id. The first match wins.
std::string findIdxInIdxFile(std::string idxFile, std::string id);

// The largest number in idxFile; 0 when the file is missing or holds none.
// Lines without two words or with a non-numeric second word are skipped.
uint64_t maxIdxinIdxFile(std::string idxFile);

// Fetches url into target (truncated), within the bounds above. Prints
// "Downloading <url> ... <outcome>" on standard output when it ends. Returns false when no byte arrived or the
// target cannot be opened, true otherwise (an error page with a body counts).
bool downloadFile(const std::string& url, const std::string& target);

// Transfer sink: appends size * nmemb bytes at ptr to the std::vector<char>
// at userdata. Returns size * nmemb (0 when userdata is null).
size_t WriteMemoryCallback(void* ptr, size_t size, size_t nmemb, void* userdata);
