// Fuzzes client record files: the input is the text of one record file.
//
// 1. Every line goes through parseRecordLine into one record, as a load does.
// 2. The input is written as "fuzzdev.dev" into a scratch directory, a fresh
//    ClientsDatabase scans it (preloadCache) and loadRecord reads it. The file
//    must load exactly when a line "DUID=fuzzdev" was accepted, and then give
//    the record of step 1; the cache must hold its id under its DUID.
// 3. A loaded record is written back with updateRecord and read again, by
//    DUID and by node id: nothing stored may be lost or changed by the round
//    trip.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "Hub/Database/ClientsDB.h"
#include "fuzz/fuzz_support.h"

namespace {

const char* const kDuid = "fuzzdev";

bool sameRecord(const ClientDBRec& a, const ClientDBRec& b) {
    return a.id == b.id && a.duid == b.duid && a.specs == b.specs && a.version == b.version &&
           a.assignedName == b.assignedName && a.firstAddress == b.firstAddress &&
           a.lastAddress == b.lastAddress && a.firstConnect == b.firstConnect &&
           a.lastConnect == b.lastConnect && a.keyTime == b.keyTime && a.sessionKey == b.sessionKey &&
           a.mainKey == b.mainKey && a.trust == b.trust && a.sigType == b.sigType &&
           a.encType == b.encType && a.toDeviceSequence == b.toDeviceSequence &&
           a.fromDeviceSequence == b.fromDeviceSequence;
}

// What loadRecord should make of the text: the record of all its lines, and
// whether some accepted line left the DUID equal to kDuid.
bool parseLikeLoad(const std::string& text, ClientDBRec& rec) {
    std::istringstream in(text);
    std::string line;
    bool found = false;
    while (std::getline(in, line)) {
        if (parseRecordLine(line, rec) && rec.duid == kDuid) found = true;
        FUZZ_CHECK(rec.sessionKey.size() <= rec.sessionKey.capacity());
        FUZZ_CHECK(rec.mainKey.size() <= rec.mainKey.capacity());
    }
    return found;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzzsupport::ScratchDir dir;
    const std::string text(reinterpret_cast<const char*>(data), size);

    ClientDBRec expected;
    const bool expectFound = parseLikeLoad(text, expected);

    const std::string path = dir.file(std::string(kDuid) + ".dev");
    FUZZ_CHECK(fuzzsupport::writeWhole(path, data, size));

    ClientsDatabase db(dir.path());
    ClientDBRec loaded;
    const bool found = db.loadRecord(kDuid, loaded);
    FUZZ_CHECK(found == expectFound);
    if (!found) {
        FUZZ_CHECK(db.objectIdFor(kDuid) == 0);
        return 0;
    }
    FUZZ_CHECK(sameRecord(loaded, expected));
    // The cache is keyed by the DUID the record holds at its end, which a
    // later "DUID=" line may have changed (kept); id 0 is not cached.
    FUZZ_CHECK(db.objectIdFor(loaded.duid) == loaded.id);
    // Such a record would be written under its other name: only the record
    // that names this file is written back.
    if (loaded.duid != kDuid) return 0;

    db.updateRecord(loaded);  // kept: false even on success, so not tested
    ClientDBRec reread;
    FUZZ_CHECK(db.loadRecord(kDuid, reread));
    FUZZ_CHECK(sameRecord(reread, loaded));
    // By node id: a written record is cached under its id, even id 0.
    FUZZ_CHECK(db.objectIdFor(kDuid) == loaded.id);
    ClientDBRec byId;
    FUZZ_CHECK(db.loadRecord(static_cast<unsigned>(loaded.id), byId));
    FUZZ_CHECK(sameRecord(byId, loaded));
    return 0;
}
