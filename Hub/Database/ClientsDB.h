// The client database: one small text file per device that ever joined, in one
// directory, named "<duid>.dev" and holding sixteen KEY=VALUE lines, plus an
// in-memory cache translating between a device's DUID and the node id the hub
// gave it.
//
// Node ids are handed out from 1000 upward and never reused. The cache is built
// once from the directory at construction and afterwards only grows through
// updateRecord; lookups between DUID and id never touch the disk. A record is
// written whole to a temporary file and renamed over the old one, so a crash
// of the process never leaves a torn record. Writes asked to be synced (a new
// device, new keys) reach the disk before storeRecord returns; the others may
// be lost to a power cut. Nothing is ever written outside the directory.
// Main thread only; no locks. Times are Timestamp milliseconds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>

#include "Hub/hub_utilities.h"
#include "Velto/UdpSocket.h"
#include "Velto/Velto.h"
#include "Velto/data_packing.h"
#include "Velto/platform.h"

// The persistent record of one device; a plain value type.
class ClientDBRec {
public:
    DeviceID id = 0;
    std::string duid;          // also the record's file name
    std::string specs;         // identifier of the device's specification document
    uint8_t version = 0;       // version of that specification
    std::string assignedName;
    SockAddress firstAddress;
    SockAddress lastAddress;
    Timestamp firstConnect = 0;
    Timestamp lastConnect = 0;
    Timestamp keyTime = 0;
    ByteArray<32> sessionKey;
    ByteArray<32> mainKey;
    uint8_t trust = 0;
    uint8_t sigType = 0;       // signature type code to use with this device
    uint8_t encType = 0;       // payload encryption type code to use
    uint32_t toDeviceSequence = 0;
    uint32_t fromDeviceSequence = 0;

    // Returns encType.
    uint8_t encryptionToUse() const { return encType; }
    // Returns sigType.
    uint8_t signatureToUse() const { return sigType; }
};

class ClientsDatabase {
public:
    // Builds the cache from dirName. When that fails (directory unreadable)
    // prints "Failed to preload Cache information. Database may be inconsistent"
    // on standard error; the object stays usable with an empty cache.
    explicit ClientsDatabase(const std::string& dirName);
    ~ClientsDatabase();
    ClientsDatabase(const ClientsDatabase&) = delete;
    ClientsDatabase& operator=(const ClientsDatabase&) = delete;

    // Returns the next node id and advances it by one (16-bit arithmetic).
    DeviceID getNextFreeId();
    // The cached node id of duid, or 0 when unknown. Never reads the disk.
    DeviceID objectIdFor(const std::string& duid) const;
    // Reads "<dirName>/<duid>.dev". True when a line "DUID=<duid>" was read; rec
    // then gets the whole record (fields no line gave keep their defaults).
    // False otherwise, rec untouched. A duid that is not a plain file name
    // (empty, containing "/" or NUL, beginning with ".") is refused with an
    // "ERROR" line on standard error and nothing is read.
    bool loadRecord(const std::string& duid, ClientDBRec& rec);
    // The record of a cached node id (taken as 16 bits); false without reading
    // the disk when the id is unknown, else loadRecord(duid, rec).
    bool loadRecord(unsigned int id, ClientDBRec& rec);
    // Writes the whole record to "<dirName>/<duid>.dev" (through a temporary
    // "<duid>.dev.tmp" renamed over it), removes any "<duid>.dev~" and, once the
    // temporary file is open, caches duid <-> id. Kept: returns false on every
    // path, success included; callers do not test it. Refuses a duid that is not
    // a plain file name as loadRecord does, writing nothing; likewise a record
    // whose duid, specs or assignedName holds a line break (its file would not
    // read back as the record: the text after the break would be taken for a
    // line of its own, an "ID=" line included). Does not move the next free id.
    bool updateRecord(const ClientDBRec& rec);
    // The work of updateRecord with its real outcome: true when the record's
    // file now holds rec (temporary file written, closed and renamed over the
    // old one); false on every refusal or failure. A killed process never
    // leaves a torn record (the rename is atomic). With synced, the temporary
    // file is synced before the rename and the directory after it, so the
    // record survives a power cut once this returns true (costs a few disk
    // flushes); without, a power loss may lose the latest writes.
    bool storeRecord(const ClientDBRec& rec, bool synced = false);
    // Fills the cache from the directory; false only when it cannot be listed.
    // Called by the constructor.
    bool preloadCache();

private:
    std::string dirName;
    DeviceID nextNodeId;
    std::map<std::string, DeviceID> duid2node;
    std::map<DeviceID, std::string> node2duid;

    std::string recordPath(const std::string& duid) const;
    void cacheRecord(const std::string& duid, DeviceID id);
    void attemptBackup(const std::string& backupPath) const;
};

// The hub's one instance, on the directory "DB"; defined with the hub's other
// process-wide objects.
extern ClientsDatabase clientsDb;

// The sixteen lines of rec in their fixed order: the exact content of its file.
std::string recordText(const ClientDBRec& rec);

// Parses one KEY=VALUE record line into rec. True when the line carried one of
// the sixteen keys (even if its value did not convert); false, rec unchanged,
// for short lines, lines without "=", empty keys or values and unknown keys.
bool parseRecordLine(const std::string& line, ClientDBRec& rec);

// Decodes hex text into the array (at most N bytes, as the buffer hex2bin does),
// sets its size to the count decoded and returns true when that is not 0.
template <size_t N>
bool hex2bin(const std::string& hex, ByteArray<N>& arr) {
    const size_t n = hex2bin(hex, arr.data(), N);
    arr.setSize(n);
    return n != 0;
}

// Writes the bytes in use as two lower-case hex digits each, no separators;
// the stream's format flags and fill are restored afterwards. Returns os.
std::ostream& operator<<(std::ostream& os, const ByteArray<32>& arr);
