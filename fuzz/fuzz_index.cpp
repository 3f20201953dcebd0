// Fuzzes the hub's two small line files: the input is the text of one file,
// read once as a document index and once as a security rules file.
//
// 1. Index: findIdxInIdxFile for the first word of each of the first lines and
//    for an id no line can hold, and maxIdxinIdxFile, checked against a
//    separate reading of the lines (an index line is two blank-separated
//    words; the first line naming an id wins; the highest all-digit number
//    that fits in 64 bits is the maximum).
// 2. Rules: loadSecurityRules with a client database that knows two devices.
//    A rule may only join known devices and carry a level from 1 to 3; the
//    file can add at most one rule per line.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Hub/Database/ClientsDB.h"
#include "Hub/Database/SpecsDB.h"
#include "Hub/MessageSecurity.h"
#include "fuzz/fuzz_support.h"

namespace {

struct IndexLine {
    std::string id;
    std::string number;
};

bool blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

// The next blank-delimited word of line from pos on; empty when none is left.
std::string nextWord(const std::string& line, size_t& pos) {
    while (pos < line.size() && blank(line[pos])) ++pos;
    const size_t start = pos;
    while (pos < line.size() && !blank(line[pos])) ++pos;
    return line.substr(start, pos - start);
}

// Every line of text (split at '\n'; a last line without one counts) with its
// two first words, when it has two.
std::vector<IndexLine> readLines(const std::string& text, size_t& lineCount) {
    std::vector<IndexLine> lines;
    lineCount = 0;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(start, end - start);
        ++lineCount;
        size_t pos = 0;
        IndexLine l;
        l.id = nextWord(line, pos);
        l.number = nextWord(line, pos);
        if (!l.number.empty()) lines.push_back(l);
        start = end + 1;
    }
    return lines;
}

// The number when text is all digits and fits in 64 bits.
bool plainNumber(const std::string& text, uint64_t& value) {
    if (text.empty()) return false;
    value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        const uint64_t digit = static_cast<uint64_t>(c - '0');
        if (value > (UINT64_MAX - digit) / 10) return false;
        value = value * 10 + digit;
    }
    return true;
}

void checkIndex(const std::string& path, const std::vector<IndexLine>& lines) {
    uint64_t best = 0;
    for (const IndexLine& l : lines) {
        uint64_t v = 0;
        if (plainNumber(l.number, v) && v > best) best = v;
    }
    FUZZ_CHECK(maxIdxinIdxFile(path) == best);
    for (size_t i = 0; i < lines.size() && i < 8; ++i) {
        std::string first;
        for (const IndexLine& l : lines) {
            if (l.id == lines[i].id) {
                first = l.number;
                break;
            }
        }
        FUZZ_CHECK(findIdxInIdxFile(path, lines[i].id) == first);
    }
    FUZZ_CHECK(findIdxInIdxFile(path, "no such id").empty());  // a blank splits every word
}

void checkRules(const MessageSecurityMgr::RuleMap& rules, DeviceID a, DeviceID b) {
    for (const auto& rule : rules) {
        FUZZ_CHECK(rule.first.first == a || rule.first.first == b);
        FUZZ_CHECK(rule.first.second == a || rule.first.second == b);
        FUZZ_CHECK(rule.second >= 1 && rule.second <= 3);
    }
}

// A database in dir that knows "lampdev" and "switchdev".
ClientsDatabase& knownDevices(const std::string& dir, DeviceID& a, DeviceID& b) {
    static ClientsDatabase db(dir);
    if (db.objectIdFor("lampdev") == 0) {
        ClientDBRec rec;
        rec.id = 1000;
        rec.duid = "lampdev";
        FUZZ_CHECK(db.updateRecord(rec) || db.objectIdFor("lampdev") == 1000);
        rec.id = 1001;
        rec.duid = "switchdev";
        FUZZ_CHECK(db.updateRecord(rec) || db.objectIdFor("switchdev") == 1001);
    }
    a = db.objectIdFor("lampdev");
    b = db.objectIdFor("switchdev");
    FUZZ_CHECK(a == 1000 && b == 1001);
    return db;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzzsupport::ScratchDir dir;
    static fuzzsupport::ScratchDir dbDir;
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::string path = dir.file("index.idx");
    FUZZ_CHECK(fuzzsupport::writeWhole(path, data, size));

    size_t lineCount = 0;
    checkIndex(path, readLines(text, lineCount));

    DeviceID a = 0, b = 0;
    ClientsDatabase& db = knownDevices(dbDir.path(), a, b);
    MessageSecurityMgr rules(&db);
    FUZZ_CHECK(rules.loadSecurityRules(path));
    FUZZ_CHECK(rules.directRules().size() + rules.notificationRules().size() <= lineCount);
    checkRules(rules.directRules(), a, b);
    checkRules(rules.notificationRules(), a, b);
    return 0;
}
