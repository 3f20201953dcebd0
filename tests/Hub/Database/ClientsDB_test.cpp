#include "Hub/Database/ClientsDB.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <vector>

#include "tests/support/test_support.h"

using testsupport::TempDir;
using testsupport::fileExists;
using testsupport::readFile;
using testsupport::writeFile;

namespace {

// Standard output and standard error of one piece of work.
struct Printed {
    std::string out, err;
};

template <typename F>
Printed capture(F work) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    work();
    Printed p;
    p.out = testing::internal::GetCapturedStdout();
    p.err = testing::internal::GetCapturedStderr();
    return p;
}

std::vector<std::string> listing(const std::string& dir) {
    std::vector<std::string> names;
    getdir(dir, names);
    names.erase(std::remove_if(names.begin(), names.end(),
                               [](const std::string& n) { return n == "." || n == ".."; }),
                names.end());
    std::sort(names.begin(), names.end());
    return names;
}

ByteArray<32> bytes(std::initializer_list<uint8_t> list) {
    std::vector<uint8_t> v(list);
    return ByteArray<32>(v.data(), v.size());
}

ClientDBRec sampleRecord() {
    ClientDBRec r;
    r.id = 1042;
    r.duid = "lamp-01";
    r.specs = "acme/lamp v2";
    r.version = 200;
    r.assignedName = "Kitchen lamp = left";
    r.firstAddress = SockAddress("192.168.1.20", 1881);
    r.lastAddress = SockAddress("10.0.0.7", 40000);
    r.firstConnect = 1700000000123ULL;
    r.lastConnect = 18446744073709551615ULL;
    r.keyTime = 42;
    r.sessionKey = bytes({0x00, 0x0a, 0xff, 0x10});
    r.mainKey = bytes({0xde, 0xad, 0x01});
    r.trust = 3;
    r.sigType = 2;
    r.encType = 1;
    r.toDeviceSequence = 4294967295u;
    r.fromDeviceSequence = 7;
    return r;
}

void expectSameRecord(const ClientDBRec& a, const ClientDBRec& b) {
    EXPECT_EQ(a.id, b.id);
    EXPECT_EQ(a.duid, b.duid);
    EXPECT_EQ(a.specs, b.specs);
    EXPECT_EQ(a.version, b.version);
    EXPECT_EQ(a.assignedName, b.assignedName);
    EXPECT_EQ(a.firstAddress, b.firstAddress);
    EXPECT_EQ(a.lastAddress, b.lastAddress);
    EXPECT_EQ(a.firstConnect, b.firstConnect);
    EXPECT_EQ(a.lastConnect, b.lastConnect);
    EXPECT_EQ(a.keyTime, b.keyTime);
    EXPECT_EQ(a.sessionKey, b.sessionKey);
    EXPECT_EQ(a.mainKey, b.mainKey);
    EXPECT_EQ(a.trust, b.trust);
    EXPECT_EQ(a.sigType, b.sigType);
    EXPECT_EQ(a.encType, b.encType);
    EXPECT_EQ(a.toDeviceSequence, b.toDeviceSequence);
    EXPECT_EQ(a.fromDeviceSequence, b.fromDeviceSequence);
}

}  // namespace

TEST(ClientDBRecTest, DefaultsAndAccessors) {
    ClientDBRec r;
    EXPECT_EQ(0, r.id);
    EXPECT_TRUE(r.duid.empty());
    EXPECT_EQ(0u, r.sessionKey.size());
    EXPECT_EQ(SockAddress(), r.firstAddress);
    EXPECT_EQ(0u, r.toDeviceSequence + r.fromDeviceSequence);
    r.sigType = 1;
    r.encType = 2;
    EXPECT_EQ(1, r.signatureToUse());
    EXPECT_EQ(2, r.encryptionToUse());
}

TEST(ClientsDBFormatTest, KeyHexOutputRestoresStreamState) {
    std::ostringstream os;
    os << std::uppercase << std::setfill('*') << bytes({0x00, 0x7f, 0x0a, 0xff}) << '|' << std::setw(4)
       << 255 << '|' << ByteArray<32>();
    // Upper case was the stream's own flag and stays; hex and the fill do not leak.
    EXPECT_EQ("007F0AFF|*255|", os.str());

    ByteArray<32> k;
    EXPECT_FALSE(hex2bin<32>("", k));
    EXPECT_FALSE(hex2bin<32>("a", k));
    EXPECT_EQ(0u, k.size());
    EXPECT_TRUE(hex2bin<32>(std::string(70, 'f'), k));
    EXPECT_EQ(32u, k.size());
    EXPECT_EQ(0xff, k[31]);
}

TEST(ClientsDBFormatTest, RecordFileRoundTrip) {
    TempDir dir;
    ClientsDatabase db(dir.path());
    const ClientDBRec r = sampleRecord();
    EXPECT_FALSE(db.updateRecord(r));  // kept: false even on success

    EXPECT_EQ("DUID=lamp-01\n"
              "MAIN_KEY=dead01\n"
              "ID=1042\n"
              "SPECS=acme/lamp v2\n"
              "VERSION=200\n"
              "NAME=Kitchen lamp = left\n"
              "FIRST_ADDR=[192.168.1.20]:1881\n"
              "LAST_ADDR=[10.0.0.7]:40000\n"
              "FIRST_TIME=1700000000123\n"
              "LAST_TIME=18446744073709551615\n"
              "KEY_TIME=42\n"
              "SESSION_KEY=000aff10\n"
              "TRUST=3\n"
              "SIG_TYPE=2\n"
              "ENC_TYPE=1\n"
              "SEQUENCES=4294967295 7\n",
              readFile(dir.file("lamp-01.dev")));

    ClientDBRec back;
    ASSERT_TRUE(db.loadRecord("lamp-01", back));
    expectSameRecord(r, back);
    ClientDBRec byId;
    ASSERT_TRUE(db.loadRecord(1042u, byId));
    expectSameRecord(r, byId);
    // A fresh instance finds it at start-up.
    Printed p;
    p = capture([&] {
        ClientsDatabase again(dir.path());
        EXPECT_EQ(1042, again.objectIdFor("lamp-01"));
        EXPECT_EQ(1043, again.getNextFreeId());
    });
    EXPECT_EQ("add to map lamp-01 -- 1042 next=1043\n", p.out);
    EXPECT_EQ("", p.err);
}

TEST(ClientsDBFormatTest, EmptyKeysStayEmpty) {
    TempDir dir;
    ClientsDatabase db(dir.path());
    ClientDBRec r;
    r.id = 1001;
    r.duid = "bare";
    db.updateRecord(r);
    const std::string text = readFile(dir.file("bare.dev"));
    EXPECT_NE(std::string::npos, text.find("\nMAIN_KEY=\n"));
    EXPECT_NE(std::string::npos, text.find("\nSESSION_KEY=\n"));
    EXPECT_NE(std::string::npos, text.find("\nFIRST_ADDR=[0.0.0.0]:0\n"));
    ClientDBRec back = sampleRecord();
    ASSERT_TRUE(db.loadRecord("bare", back));
    expectSameRecord(r, back);
}

TEST(ClientsDBParseTest, KeysAndValues) {
    ClientDBRec r;
    EXPECT_TRUE(parseRecordLine("NAME = x", r));
    EXPECT_EQ(" x", r.assignedName);
    EXPECT_TRUE(parseRecordLine("NAME==x", r));
    EXPECT_EQ("=x", r.assignedName);
    EXPECT_FALSE(parseRecordLine("NAME=", r));
    EXPECT_EQ("=x", r.assignedName);
    EXPECT_TRUE(parseRecordLine("  ID junk=7", r));  // key is the first word
    EXPECT_EQ(7, r.id);
    EXPECT_TRUE(parseRecordLine("DUID=a\r", r));  // value verbatim
    EXPECT_EQ("a\r", r.duid);

    for (const char* bad : {"", "ab", "no equals sign", "=value", "   =v", "UNKNOWN=1", "duid=lower"})
        EXPECT_FALSE(parseRecordLine(bad, r)) << bad;
    EXPECT_EQ("a\r", r.duid);
}

TEST(ClientsDBParseTest, NumbersAndStreamConversions) {
    ClientDBRec r;
    EXPECT_TRUE(parseRecordLine("SEQUENCES=5", r));
    EXPECT_EQ(5u, r.toDeviceSequence);
    EXPECT_EQ(0u, r.fromDeviceSequence);
    EXPECT_TRUE(parseRecordLine("SEQUENCES=12 7", r));
    EXPECT_EQ(12u, r.toDeviceSequence);
    EXPECT_EQ(7u, r.fromDeviceSequence);

    EXPECT_TRUE(parseRecordLine("ID=70000", r));  // cut to 16 bits
    EXPECT_EQ(static_cast<DeviceID>(70000), r.id);
    EXPECT_TRUE(parseRecordLine("VERSION=300", r));
    EXPECT_EQ(static_cast<uint8_t>(300), r.version);
    EXPECT_TRUE(parseRecordLine("TRUST=abc", r));  // a match, value 0
    EXPECT_EQ(0, r.trust);
    EXPECT_TRUE(parseRecordLine("ID=99999999999999999999", r));  // no overflow fault

    EXPECT_TRUE(parseRecordLine("FIRST_TIME=notanumber", r));  // a match all the same
    EXPECT_EQ(0u, r.firstConnect);
    EXPECT_TRUE(parseRecordLine("LAST_ADDR=[1.2.3.4]:5", r));
    EXPECT_EQ(SockAddress("1.2.3.4", 5), r.lastAddress);
    EXPECT_TRUE(parseRecordLine("LAST_ADDR=garbage", r));  // no "]": left as it was
    EXPECT_EQ(SockAddress("1.2.3.4", 5), r.lastAddress);
}

TEST(ClientsDBParseTest, HexKeys) {
    ClientDBRec r;
    EXPECT_TRUE(parseRecordLine("MAIN_KEY=abc", r));  // odd last digit ignored
    EXPECT_EQ(bytes({0xab}), r.mainKey);
    EXPECT_TRUE(parseRecordLine("SESSION_KEY=ABzz0", r));
    EXPECT_EQ(bytes({0xab, 0x00}), r.sessionKey);
    EXPECT_TRUE(parseRecordLine("MAIN_KEY=" + std::string(100, '1'), r));  // capacity
    EXPECT_EQ(32u, r.mainKey.size());
    EXPECT_TRUE(parseRecordLine("MAIN_KEY=f", r));  // a match, nothing decoded
    EXPECT_EQ(0u, r.mainKey.size());
}

TEST(ClientsDBStartupTest, CacheAndIdNumbering) {
    TempDir dir;
    writeFile(dir.file("a.dev"), "DUID=a\nID=1005\n");
    writeFile(dir.file("low.dev"), "DUID=low\nID=999\n");
    writeFile(dir.file("zero.dev"), "DUID=zero\nNAME=no id\n");
    writeFile(dir.file("b.dev"), "DUID=c\nID=1100\n");      // names another device
    writeFile(dir.file("q.dev.tmp"), "DUID=q\nID=1200\n");  // a left-over temporary
    writeFile(dir.file("r.dev~"), "DUID=r\nID=1201\n");
    writeFile(dir.file(".h.dev"), "DUID=.h\nID=1202\n");
    writeFile(dir.file("ab"), "x");
    writeFile(dir.file("abc"), "x");
    writeFile(dir.file("z"), "x");
    writeFile(dir.file(".dev"), "DUID=\nID=1203\n");

    Printed p = capture([&] {
        ClientsDatabase db(dir.path());
        EXPECT_EQ(1005, db.objectIdFor("a"));
        EXPECT_EQ(999, db.objectIdFor("low"));
        for (const char* unknown : {"zero", "b", "c", "q", "r", ".h", ""})
            EXPECT_EQ(0, db.objectIdFor(unknown)) << unknown;
        ClientDBRec rec;
        EXPECT_FALSE(db.loadRecord(1100u, rec));
        EXPECT_FALSE(db.loadRecord("b", rec));
        EXPECT_TRUE(db.loadRecord(999u, rec));
        EXPECT_EQ("low", rec.duid);
        EXPECT_EQ(1006, db.getNextFreeId());
        EXPECT_EQ(1007, db.getNextFreeId());
    });
    EXPECT_NE(std::string::npos, p.out.find("add to map a -- 1005 next=1006\n"));
    EXPECT_NE(std::string::npos, p.out.find("add to map low -- 999 next="));
    EXPECT_EQ(std::string::npos, p.out.find(" q "));
    EXPECT_EQ("", p.err);
}

TEST(ClientsDBStartupTest, LowIdsLeaveNumberingAt1000) {
    TempDir dir;
    writeFile(dir.file("low.dev"), "DUID=low\nID=999\n");
    ClientsDatabase db(dir.path());
    EXPECT_EQ(999, db.objectIdFor("low"));
    EXPECT_EQ(1000, db.getNextFreeId());
}

TEST(ClientsDBStartupTest, DuplicateIds) {
    TempDir dir;
    writeFile(dir.file("x.dev"), "DUID=x\nID=1200\n");
    writeFile(dir.file("y.dev"), "DUID=y\nID=1200\n");
    std::vector<std::string> order;
    getdir(dir.path(), order);
    const std::string later = std::find(order.begin(), order.end(), "x.dev") <
                                      std::find(order.begin(), order.end(), "y.dev")
                                  ? "y"
                                  : "x";
    ClientsDatabase db(dir.path());
    EXPECT_EQ(1200, db.objectIdFor("x"));
    EXPECT_EQ(1200, db.objectIdFor("y"));
    ClientDBRec rec;
    ASSERT_TRUE(db.loadRecord(1200u, rec));
    EXPECT_EQ(later, rec.duid);
    EXPECT_EQ(1201, db.getNextFreeId());
}

TEST(ClientsDBStartupTest, MissingAndEmptyDirectory) {
    TempDir dir;
    const std::string missing = dir.file("DB");
    Printed p = capture([&] {
        ClientsDatabase db(missing);
        EXPECT_EQ(1000, db.getNextFreeId());
        ClientDBRec r = sampleRecord();
        EXPECT_FALSE(db.updateRecord(r));  // cannot be written
        EXPECT_EQ(0, db.objectIdFor(r.duid));
    });
    EXPECT_EQ("Error(2) opening " + missing + "\n", p.out);
    EXPECT_EQ("Failed to preload Cache information. Database may be inconsistent\n", p.err);
    EXPECT_FALSE(fileExists(missing));

    p = capture([&] { ClientsDatabase db(dir.path()); });
    EXPECT_EQ("", p.out);
    EXPECT_EQ("", p.err);
}

TEST(ClientsDBLoadTest, PartialAndOddFiles) {
    TempDir dir;
    ClientsDatabase db(dir.path());
    ClientDBRec rec;
    rec.assignedName = "untouched";

    // Cut in the middle of a line by a crash: what is there is loaded.
    writeFile(dir.file("cut.dev"), "DUID=cut\nMAIN_KEY=0102\nID=10");
    ASSERT_TRUE(db.loadRecord("cut", rec));
    EXPECT_EQ(10, rec.id);
    EXPECT_EQ(bytes({1, 2}), rec.mainKey);
    EXPECT_EQ("", rec.assignedName);  // the whole record was replaced

    // Cut inside the DUID line: never found.
    rec.assignedName = "untouched";
    writeFile(dir.file("early.dev"), "DUI");
    EXPECT_FALSE(db.loadRecord("early", rec));
    writeFile(dir.file("empty.dev"), "");
    EXPECT_FALSE(db.loadRecord("empty", rec));
    EXPECT_FALSE(db.loadRecord("absent", rec));
    EXPECT_EQ("untouched", rec.assignedName);

    // Lines before the DUID line count too; binary junk is skipped.
    writeFile(dir.file("k.dev"), std::string("ID=1001\n\x01\x02=\xff\n=\n\0\0\0\nDUID=k\nTRUST", 30));
    ASSERT_TRUE(db.loadRecord("k", rec));
    EXPECT_EQ(1001, rec.id);

    // Windows line ends keep the carriage return in the DUID: not this device.
    writeFile(dir.file("crlf.dev"), "DUID=crlf\r\nID=5\r\n");
    EXPECT_FALSE(db.loadRecord("crlf", rec));
    EXPECT_FALSE(db.loadRecord(4242u, rec));
}

TEST(ClientsDBUpdateTest, WritesWholeRecordAndCaches) {
    TempDir dir;
    ClientsDatabase db(dir.path());
    writeFile(dir.file("lamp-01.dev~"), "old backup");
    ClientDBRec r = sampleRecord();
    r.assignedName = std::string(500, 'n');
    EXPECT_FALSE(db.updateRecord(r));
    EXPECT_EQ(1042, db.objectIdFor("lamp-01"));
    EXPECT_EQ(1000, db.getNextFreeId());  // ids only come from getNextFreeId

    // A second write replaces the whole file, keeps no backup or temporary.
    writeFile(dir.file("lamp-01.dev~"), "old backup");
    r.assignedName = "short";
    r.id = 1050;
    EXPECT_FALSE(db.updateRecord(r));
    EXPECT_EQ((std::vector<std::string>{"lamp-01.dev"}), listing(dir.path()));
    ClientDBRec back;
    ASSERT_TRUE(db.loadRecord("lamp-01", back));
    expectSameRecord(r, back);
    EXPECT_EQ(1050, db.objectIdFor("lamp-01"));
    // The entry for the old id is left in the id map.
    ASSERT_TRUE(db.loadRecord(1042u, back));
    EXPECT_EQ(1050, back.id);
    EXPECT_EQ(0, access(dir.path().c_str(), W_OK));  // the directory itself stays
}

TEST(ClientsDBUpdateTest, SymlinkedDirectoryStaysInPlace) {
    TempDir dir;
    const std::string real = dir.file("real"), link = dir.file("DB");
    ASSERT_EQ(0, mkdir(real.c_str(), 0700));
    ASSERT_EQ(0, symlink(real.c_str(), link.c_str()));
    ClientsDatabase db(link);
    db.updateRecord(sampleRecord());
    EXPECT_EQ((std::vector<std::string>{"DB", "real"}), listing(dir.path()));
    EXPECT_EQ((std::vector<std::string>{"lamp-01.dev"}), listing(real));
}

TEST(ClientsDBUpdateTest, RefusedNamesWriteAndReadNothing) {
    TempDir root;
    const std::string dbDir = root.file("DB");
    ASSERT_EQ(0, mkdir(dbDir.c_str(), 0700));
    writeFile(dbDir + "/specs.idx", "index");
    writeFile(root.file("outside.dev"), "DUID=../outside\nID=1300\n");
    ClientsDatabase db(dbDir);

    const std::vector<std::string> names{"", "../outside", "a/b", ".hidden", "..", ".",
                                         std::string("specs.idx\0x", 11)};
    for (const std::string& name : names) {
        ClientDBRec r = sampleRecord();
        r.duid = name;
        Printed p = capture([&] {
            EXPECT_FALSE(db.updateRecord(r));
            ClientDBRec got;
            EXPECT_FALSE(db.loadRecord(name, got));
        });
        EXPECT_EQ(0u, p.err.rfind("ERROR", 0)) << p.err;
        EXPECT_EQ(2, std::count(p.err.begin(), p.err.end(), '\n')) << p.err;
        EXPECT_EQ(0, db.objectIdFor(name));
    }
    EXPECT_EQ((std::vector<std::string>{"DB", "outside.dev"}), listing(root.path()));
    EXPECT_EQ((std::vector<std::string>{"specs.idx"}), listing(dbDir));
    EXPECT_EQ("index", readFile(dbDir + "/specs.idx"));
}
