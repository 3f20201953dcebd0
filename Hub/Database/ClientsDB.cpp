#include "Hub/Database/ClientsDB.h"
#include "Hub/log_line.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <limits>
#include <sstream>
#include <vector>

namespace {

const char recordSuffix[] = ".dev";
const size_t recordSuffixLen = 4;

// A DUID can name a record file only if it is a plain name inside the directory:
// not empty, no "/" or NUL, not starting with "." (no ".", "..", hidden files).
bool isPlainFileName(const std::string& duid) {
    if (duid.empty() || duid[0] == '.') return false;
    return duid.find('/') == std::string::npos && duid.find('\0') == std::string::npos;
}

// The DUID as it may appear in a one-line diagnostic.
std::string printable(const std::string& text) {
    std::string out = text;
    for (char& c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
    return out;
}

bool refuseName(const char* operation, const std::string& duid) {
    std::cerr << "ERROR " << operation << ": DUID \"" << printable(duid)
              << "\" is not a plain file name; record refused\n";
    return false;
}

// A text field that would split its line in the record file, letting what
// follows the break pass for a line of its own (a forged "ID=" or "MAIN_KEY=").
bool holdsLineBreak(const ClientDBRec& rec) {
    return rec.duid.find('\n') != std::string::npos || rec.specs.find('\n') != std::string::npos ||
           rec.assignedName.find('\n') != std::string::npos;
}

bool refuseLineBreak(const std::string& duid) {
    std::cerr << "ERROR updateRecord: record of DUID \"" << printable(duid)
              << "\" has a line break in a text field; record refused\n";
    return false;
}

// atoi without its undefined overflow: what glibc's atoi does.
int toInt(const std::string& value) {
    return static_cast<int>(std::strtol(value.c_str(), nullptr, 10));
}

// Decimal digits of v appended to out.
void appendNumber(std::string& out, uint64_t v) {
    char digits[20];
    size_t n = 0;
    do {
        digits[sizeof(digits) - 1 - n++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    out.append(digits + sizeof(digits) - n, n);
}

// Two lower-case hex digits per byte in use.
void appendHex(std::string& out, const ByteArray<32>& arr) {
    static const char digits[] = "0123456789abcdef";
    for (size_t i = 0; i < arr.size(); ++i) {
        out += digits[arr[i] >> 4];
        out += digits[arr[i] & 0x0f];
    }
}

void appendAddress(std::string& out, const SockAddress& a) {
    out += '[';
    out += a.ipAddr();
    out += "]:";
    appendNumber(out, a.port());
}

void appendLine(std::string& out, const char* key, const std::string& value) {
    out += key;
    out += value;
    out += '\n';
}

void appendLine(std::string& out, const char* key, uint64_t value) {
    out += key;
    appendNumber(out, value);
    out += '\n';
}

void appendLine(std::string& out, const char* key, const ByteArray<32>& value) {
    out += key;
    appendHex(out, value);
    out += '\n';
}

void appendLine(std::string& out, const char* key, const SockAddress& value) {
    out += key;
    appendAddress(out, value);
    out += '\n';
}

// Writes all of text to fd; false on any short or failed write.
bool writeAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// Creates path afresh (an old file or link of that name is removed first, and a
// link is never followed), owner-only since records hold keys. -1 on failure.
int createFresh(const std::string& path) {
    ::unlink(path.c_str());
    return ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
}

// Writes text to the open temporary file, syncs it when asked, and closes it;
// true when all of that succeeded. Unsynced, the rename that follows still
// makes the switch from the old record to the new one atomic for every reader
// and against a killed process; only a power loss may lose the latest writes
// (the file then holds an older whole record, or none for a new device).
bool finishTemp(int fd, const std::string& text, bool synced) {
    const bool written = writeAll(fd, text) && (!synced || ::fsync(fd) == 0);
    const bool closed = ::close(fd) == 0;
    return written && closed;
}

// Makes a rename inside dir durable.
bool syncDirectory(const std::string& dir) {
    const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool ok = ::fsync(fd) == 0;
    ::close(fd);
    return ok;
}

bool parseStringKey(const std::string& key, const std::string& value, ClientDBRec& rec) {
    if (key == "DUID") rec.duid = value;
    else if (key == "SPECS") rec.specs = value;
    else if (key == "NAME") rec.assignedName = value;
    else return false;
    return true;
}

bool parseKeyKey(const std::string& key, const std::string& value, ClientDBRec& rec) {
    if (key == "MAIN_KEY") hex2bin<32>(value, rec.mainKey);
    else if (key == "SESSION_KEY") hex2bin<32>(value, rec.sessionKey);
    else return false;
    return true;
}

bool parseSmallNumberKey(const std::string& key, const std::string& value, ClientDBRec& rec) {
    if (key == "ID") rec.id = static_cast<DeviceID>(toInt(value));
    else if (key == "VERSION") rec.version = static_cast<uint8_t>(toInt(value));
    else if (key == "TRUST") rec.trust = static_cast<uint8_t>(toInt(value));
    else if (key == "SIG_TYPE") rec.sigType = static_cast<uint8_t>(toInt(value));
    else if (key == "ENC_TYPE") rec.encType = static_cast<uint8_t>(toInt(value));
    else return false;
    return true;
}

// True, with the value, when text[0, n) is nothing but decimal digits that fit
// in T: then a stream would read exactly that value (and nothing else can be
// in the way). False for anything else, which is left to the stream.
template <typename T>
bool plainDecimal(const char* text, size_t n, T& out) {
    if (n == 0 || n > 20) return false;
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        const unsigned digit = static_cast<unsigned>(text[i] - '0');
        if (v > (static_cast<uint64_t>(std::numeric_limits<T>::max()) - digit) / 10) return false;
        v = v * 10 + digit;
    }
    out = static_cast<T>(v);
    return true;
}

// A time read as the stream would: plain digits directly (the common case),
// anything else through the stream.
void readTime(const std::string& value, Timestamp& field) {
    if (plainDecimal(value.data(), value.size(), field)) return;
    std::istringstream in(value);
    in >> field;
}

// "N M" of plain digits directly, anything else through the stream.
void readSequences(const std::string& value, ClientDBRec& rec) {
    const size_t blank = value.find(' ');
    uint32_t to = 0, from = 0;
    if (blank != std::string::npos && plainDecimal(value.data(), blank, to) &&
        plainDecimal(value.data() + blank + 1, value.size() - blank - 1, from)) {
        rec.toDeviceSequence = to;
        rec.fromDeviceSequence = from;
        return;
    }
    std::istringstream in(value);
    in >> rec.toDeviceSequence >> rec.fromDeviceSequence;
}

// Stream conversions: a failed conversion still counts as the key's match and
// leaves in the field whatever the stream put there.
bool parseStreamKey(const std::string& key, const std::string& value, ClientDBRec& rec) {
    if (key == "FIRST_TIME") readTime(value, rec.firstConnect);
    else if (key == "LAST_TIME") readTime(value, rec.lastConnect);
    else if (key == "KEY_TIME") readTime(value, rec.keyTime);
    else if (key == "SEQUENCES") readSequences(value, rec);
    else if (key == "FIRST_ADDR") { std::istringstream in(value); in >> rec.firstAddress; }
    else if (key == "LAST_ADDR") { std::istringstream in(value); in >> rec.lastAddress; }
    else return false;
    return true;
}

// The first blank-delimited word of text[0, end), as `istream >> string` reads
// it in the classic locale.
std::string firstWord(const std::string& text, size_t end) {
    auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; };
    size_t b = 0;
    while (b < end && blank(text[b])) ++b;
    size_t e = b;
    while (e < end && !blank(text[e])) ++e;
    return text.substr(b, e - b);
}

}  // namespace

// ------------------------------------------------------------- free functions

std::ostream& operator<<(std::ostream& os, const ByteArray<32>& arr) {
    const std::ios::fmtflags flags = os.flags();
    const char fill = os.fill();
    os << std::hex << std::setfill('0');
    for (size_t i = 0; i < arr.size(); ++i) os << std::setw(2) << static_cast<unsigned>(arr[i]);
    os.flags(flags);
    os.fill(fill);
    return os;
}

std::string recordText(const ClientDBRec& rec) {
    std::string out;
    out.reserve(384);
    appendLine(out, "DUID=", rec.duid);
    appendLine(out, "MAIN_KEY=", rec.mainKey);
    appendLine(out, "ID=", rec.id);
    appendLine(out, "SPECS=", rec.specs);
    appendLine(out, "VERSION=", rec.version);
    appendLine(out, "NAME=", rec.assignedName);
    appendLine(out, "FIRST_ADDR=", rec.firstAddress);
    appendLine(out, "LAST_ADDR=", rec.lastAddress);
    appendLine(out, "FIRST_TIME=", rec.firstConnect);
    appendLine(out, "LAST_TIME=", rec.lastConnect);
    appendLine(out, "KEY_TIME=", rec.keyTime);
    appendLine(out, "SESSION_KEY=", rec.sessionKey);
    appendLine(out, "TRUST=", rec.trust);
    appendLine(out, "SIG_TYPE=", rec.sigType);
    appendLine(out, "ENC_TYPE=", rec.encType);
    out += "SEQUENCES=";
    appendNumber(out, rec.toDeviceSequence);
    out += ' ';
    appendNumber(out, rec.fromDeviceSequence);
    out += '\n';
    return out;
}

bool parseRecordLine(const std::string& line, ClientDBRec& rec) {
    if (line.size() < 3) return false;
    const size_t eq = line.find('=');
    if (eq == std::string::npos) return false;
    const std::string key = firstWord(line, eq);
    const std::string value = line.substr(eq + 1);
    if (key.empty() || value.empty()) return false;
    return parseStringKey(key, value, rec) || parseKeyKey(key, value, rec) ||
           parseSmallNumberKey(key, value, rec) || parseStreamKey(key, value, rec);
}

// ------------------------------------------------------------ ClientsDatabase

ClientsDatabase::ClientsDatabase(const std::string& dir) : dirName(dir), nextNodeId(1000) {
    if (!preloadCache())
        std::cerr << "Failed to preload Cache information. Database may be inconsistent\n";
}

ClientsDatabase::~ClientsDatabase() = default;

DeviceID ClientsDatabase::getNextFreeId() {
    return nextNodeId++;
}

DeviceID ClientsDatabase::objectIdFor(const std::string& duid) const {
    const auto it = duid2node.find(duid);
    return it == duid2node.end() ? 0 : it->second;
}

std::string ClientsDatabase::recordPath(const std::string& duid) const {
    return dirName + "/" + duid + recordSuffix;
}

void ClientsDatabase::cacheRecord(const std::string& duid, DeviceID id) {
    duid2node[duid] = id;
    node2duid[id] = duid;
}

bool ClientsDatabase::loadRecord(const std::string& duid, ClientDBRec& rec) {
    if (!isPlainFileName(duid)) return refuseName("loadRecord", duid);
    std::ifstream in(recordPath(duid));
    ClientDBRec scratch;
    bool found = false;
    std::string line;
    while (std::getline(in, line))
        if (parseRecordLine(line, scratch) && scratch.duid == duid) found = true;
    if (found) rec = scratch;
    return found;
}

bool ClientsDatabase::loadRecord(unsigned int id, ClientDBRec& rec) {
    const auto it = node2duid.find(static_cast<DeviceID>(id));
    if (it == node2duid.end()) return false;
    return loadRecord(it->second, rec);
}

// Kept: the old backup is removed and the directory itself is asked to move
// onto the backup name, which the system refuses (a directory cannot move into
// itself), so no backup is ever made. The attempt is skipped when the directory
// path is a symbolic link: renaming the link would succeed and move it.
void ClientsDatabase::attemptBackup(const std::string& backupPath) const {
    ::unlink(backupPath.c_str());
    struct stat st;
    if (::lstat(dirName.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        (void)::rename(dirName.c_str(), backupPath.c_str());
}

bool ClientsDatabase::updateRecord(const ClientDBRec& rec) {
    const bool status = false;  // kept: the result is false on success too
    storeRecord(rec);
    return status;
}

bool ClientsDatabase::storeRecord(const ClientDBRec& rec, bool synced) {
    if (!isPlainFileName(rec.duid)) return refuseName("updateRecord", rec.duid);
    if (holdsLineBreak(rec)) return refuseLineBreak(rec.duid);
    if (dirName.empty()) return false;  // "/<duid>.dev" would be outside any database
    const std::string path = recordPath(rec.duid);
    attemptBackup(path + "~");

    const std::string tempPath = path + ".tmp";
    const int fd = createFresh(tempPath);
    if (fd < 0) return false;
    cacheRecord(rec.duid, rec.id);
    if (finishTemp(fd, recordText(rec), synced) && ::rename(tempPath.c_str(), path.c_str()) == 0)
        return !synced || syncDirectory(dirName);
    ::unlink(tempPath.c_str());
    return false;
}

bool ClientsDatabase::preloadCache() {
    std::vector<std::string> files;
    getdir(dirName, files);
    if (files.empty()) return false;
    for (const std::string& name : files) {
        // Names shorter than the suffix (".", "..", stray short files) are skipped.
        if (name.size() < recordSuffixLen) continue;
        if (name.compare(name.size() - recordSuffixLen, recordSuffixLen, recordSuffix) != 0) continue;
        const std::string duid = name.substr(0, name.size() - recordSuffixLen);
        // Hidden or otherwise unusable names were never written by the hub.
        if (!isPlainFileName(duid)) continue;
        ClientDBRec rec;
        if (!loadRecord(duid, rec) || rec.id == 0) continue;
        cacheRecord(rec.duid, rec.id);
        if (rec.id >= nextNodeId) nextNodeId = static_cast<DeviceID>(rec.id + 1);
        LogLine(std::cout) << "add to map " << duid << " -- " << rec.id << " next=" << nextNodeId << '\n';
    }
    return true;
}
