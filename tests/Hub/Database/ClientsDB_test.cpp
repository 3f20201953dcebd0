#include "Hub/Database/ClientsDB.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <vector>

#include "tests/support/test_support.h"

using testsupport::CapturedOutput;
using testsupport::outputOf;
using testsupport::TempDir;
using testsupport::readFile;
using testsupport::writeFile;

namespace {

std::vector<std::string> listing(const std::string& dir) {
    std::vector<std::string> names;
    getdir(dir, names);
    names.erase(std::remove_if(names.begin(), names.end(),
                               [](const std::string& n) { return n == "." || n == ".."; }),
                names.end());
    std::sort(names.begin(), names.end());
    return names;
}

ByteArray<32> bytes(std::vector<uint8_t> v) {
    return ByteArray<32>(v.data(), v.size());
}

const char sampleText[] =
    "DUID=lamp-01\nMAIN_KEY=dead01\nID=1042\nSPECS=acme/lamp v2\nVERSION=200\n"
    "NAME=Kitchen = left\nFIRST_ADDR=[192.168.1.20]:1881\nLAST_ADDR=[10.0.0.7]:40000\n"
    "FIRST_TIME=1700000000123\nLAST_TIME=18446744073709551615\nKEY_TIME=42\n"
    "SESSION_KEY=000aff10\nTRUST=3\nSIG_TYPE=2\nENC_TYPE=1\nSEQUENCES=4294967295 7\n";

ClientDBRec sampleRecord() {
    ClientDBRec r;
    r.id = 1042;
    r.duid = "lamp-01";
    r.specs = "acme/lamp v2";
    r.version = 200;
    r.assignedName = "Kitchen = left";
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

}  // namespace

TEST(ClientsDBTest, AllSixteenKeysRoundTrip) {
    TempDir dir;
    ClientsDatabase db(dir.path());
    writeFile(dir.file("lamp-01.dev~"), "old backup");
    EXPECT_FALSE(db.updateRecord(sampleRecord()));  // kept: false even on success
    EXPECT_EQ(sampleText, readFile(dir.file("lamp-01.dev")));
    EXPECT_EQ(std::vector<std::string>{"lamp-01.dev"}, listing(dir.path()));  // no backup, no temp
    EXPECT_EQ(1042, db.objectIdFor("lamp-01"));
    EXPECT_EQ(1000, db.getNextFreeId());  // ids come only from getNextFreeId

    // Read back by id and written again: every field survives.
    ClientDBRec back;
    ASSERT_TRUE(db.loadRecord(1042u, back));
    EXPECT_EQ(2, back.signatureToUse());
    EXPECT_EQ(1, back.encryptionToUse());
    writeFile(dir.file("lamp-01.dev"), "");
    db.updateRecord(back);
    EXPECT_EQ(sampleText, readFile(dir.file("lamp-01.dev")));

    // A shorter record replaces the whole file; empty keys stay empty.
    ClientDBRec bare;
    bare.duid = "lamp-01";
    bare.id = 1050;
    db.updateRecord(bare);
    ASSERT_TRUE(db.loadRecord(1042u, back));  // the old id's entry is left
    EXPECT_EQ(1050, back.id);
    EXPECT_EQ(0u, back.mainKey.size() + back.sessionKey.size());
    EXPECT_EQ(std::string::npos, readFile(dir.file("lamp-01.dev")).find("acme"));
}

TEST(ClientsDBTest, ParseLineEdgeCases) {
    ClientDBRec r;
    EXPECT_TRUE(parseRecordLine("NAME = x", r));
    EXPECT_EQ(" x", r.assignedName);
    EXPECT_TRUE(parseRecordLine("NAME==x", r));
    EXPECT_FALSE(parseRecordLine("NAME=", r));
    EXPECT_EQ("=x", r.assignedName);
    for (const char* bad : {"", "ab", "no equals", "=value", "   =v", "UNKNOWN=1", "duid=lower"})
        EXPECT_FALSE(parseRecordLine(bad, r)) << bad;

    EXPECT_TRUE(parseRecordLine("SEQUENCES=5", r));
    EXPECT_EQ(5u, r.toDeviceSequence);
    EXPECT_EQ(0u, r.fromDeviceSequence);
    EXPECT_TRUE(parseRecordLine("  ID junk=70000", r));  // first word is the key; 16 bits
    EXPECT_EQ(static_cast<DeviceID>(70000), r.id);
    EXPECT_TRUE(parseRecordLine("TRUST=abc", r));  // a match, value 0
    EXPECT_TRUE(parseRecordLine("ID=99999999999999999999", r));
    EXPECT_TRUE(parseRecordLine("LAST_ADDR=[1.2.3.4]:5", r));
    EXPECT_TRUE(parseRecordLine("LAST_ADDR=garbage", r));  // no "]": left as it was
    EXPECT_EQ(SockAddress("1.2.3.4", 5), r.lastAddress);

    EXPECT_TRUE(parseRecordLine("MAIN_KEY=abc", r));  // odd last digit ignored
    EXPECT_EQ(bytes({0xab}), r.mainKey);
    EXPECT_TRUE(parseRecordLine("SESSION_KEY=" + std::string(70, 'f'), r));
    EXPECT_EQ(32u, r.sessionKey.size());

    std::ostringstream os;  // key output leaves the stream's format as it was
    os << std::setfill('*') << bytes({0x00, 0x7f}) << '|' << std::setw(4) << 255;
    EXPECT_EQ("007f|*255", os.str());
}

// Times and sequence counters are read without a stream when they are plain
// digits; every value must come out as the stream reads it.
TEST(ClientsDBTest, NumbersReadAsTheStreamReadsThem) {
    const char* times[] = {"0", "0042", "1763730000000", "18446744073709551615", "18446744073709551616",
                           " 12", "12x", "-1", "+7", "abc", "12\r", "99999999999999999999999"};
    for (const char* t : times) {
        ClientDBRec r;
        r.keyTime = 777;
        ASSERT_TRUE(parseRecordLine(std::string("KEY_TIME=") + t, r)) << t;
        Timestamp expected = 777;
        std::istringstream(t) >> expected;
        EXPECT_EQ(expected, r.keyTime) << t;
    }
    const char* sequences[] = {"12 7", "5", "5 ", "5  7", "5 x", "x 5", "4294967295 0", "4294967296 1", " 3 4",
                               "3 4 5", "007 008", "1\t2"};
    for (const char* q : sequences) {
        ClientDBRec r;
        r.toDeviceSequence = 11;
        r.fromDeviceSequence = 22;
        ASSERT_TRUE(parseRecordLine(std::string("SEQUENCES=") + q, r)) << q;
        uint32_t to = 11, from = 22;
        std::istringstream(q) >> to >> from;
        EXPECT_EQ(to, r.toDeviceSequence) << q;
        EXPECT_EQ(from, r.fromDeviceSequence) << q;
    }
    ClientDBRec r;
    EXPECT_TRUE(parseRecordLine("\t KEY_TIME\v=5", r));  // blanks around the key
    EXPECT_EQ(5u, r.keyTime);
}

TEST(ClientsDBTest, StartupCacheAndIdNumbering) {
    TempDir dir;
    writeFile(dir.file("a.dev"), "DUID=a\nID=1005\n");
    writeFile(dir.file("low.dev"), "DUID=low\nID=999\n");
    writeFile(dir.file("zero.dev"), "DUID=zero\n");           // id 0: not cached
    writeFile(dir.file("b.dev"), "DUID=c\nID=1100\n");        // names another device
    writeFile(dir.file("q.dev.tmp"), "DUID=q\nID=1200\n");    // a left-over temporary
    writeFile(dir.file("x.dev"), "DUID=x\nID=1009\n");
    writeFile(dir.file("y.dev"), "DUID=y\nID=1009\n");        // duplicate id
    writeFile(dir.file(".h.dev"), "DUID=.h\nID=1202\n");
    for (const char* shortName : {"ab", "abc", "z"}) writeFile(dir.file(shortName), "");

    std::vector<std::string> order;
    getdir(dir.path(), order);
    const bool xFirst = std::find(order.begin(), order.end(), "x.dev") <
                        std::find(order.begin(), order.end(), "y.dev");
    CapturedOutput p = outputOf([&] {
        ClientsDatabase db(dir.path());
        EXPECT_EQ(1005, db.objectIdFor("a"));
        EXPECT_EQ(999, db.objectIdFor("low"));
        EXPECT_EQ(1009, db.objectIdFor("x"));
        EXPECT_EQ(1009, db.objectIdFor("y"));
        for (const char* unknown : {"zero", "b", "c", "q", ".h"}) EXPECT_EQ(0, db.objectIdFor(unknown));
        ClientDBRec rec;
        EXPECT_FALSE(db.loadRecord("b", rec));
        ASSERT_TRUE(db.loadRecord(1009u, rec));
        EXPECT_EQ(xFirst ? "y" : "x", rec.duid);  // the later file wins
        EXPECT_EQ(1010, db.getNextFreeId());
        EXPECT_EQ(1011, db.getNextFreeId());
    });
    EXPECT_NE(std::string::npos, p.out.find("add to map a -- 1005 next="));
    EXPECT_EQ(4, std::count(p.out.begin(), p.out.end(), '\n'));
    EXPECT_EQ("", p.err);

    TempDir lowOnly;
    writeFile(lowOnly.file("low.dev"), "DUID=low\nID=999\n");
    p = outputOf([&] { EXPECT_EQ(1000, ClientsDatabase(lowOnly.path()).getNextFreeId()); });
    EXPECT_EQ("add to map low -- 999 next=1000\n", p.out);
}

TEST(ClientsDBTest, MissingAndEmptyDirectory) {
    TempDir dir;
    const std::string missing = dir.file("DB");
    CapturedOutput p = outputOf([&] {
        ClientsDatabase db(missing);
        EXPECT_EQ(1000, db.getNextFreeId());
        EXPECT_FALSE(db.updateRecord(sampleRecord()));
        EXPECT_EQ(0, db.objectIdFor("lamp-01"));  // not written: cache untouched
    });
    EXPECT_EQ("Error(2) opening " + missing + "\n", p.out);
    EXPECT_EQ("Failed to preload Cache information. Database may be inconsistent\n", p.err);
    EXPECT_TRUE(listing(dir.path()).empty());

    p = outputOf([&] { ClientsDatabase db(dir.path()); });
    EXPECT_EQ("", p.out + p.err);
}

TEST(ClientsDBTest, DamagedRecordFiles) {
    TempDir dir;
    ClientsDatabase db(dir.path());
    ClientDBRec rec;
    rec.assignedName = "untouched";
    writeFile(dir.file("early.dev"), "DUI");  // cut inside the DUID line
    EXPECT_FALSE(db.loadRecord("early", rec));
    writeFile(dir.file("crlf.dev"), "DUID=crlf\r\nID=5\r\n");  // the DUID keeps its "\r"
    EXPECT_FALSE(db.loadRecord("crlf", rec));
    EXPECT_FALSE(db.loadRecord("absent", rec));
    EXPECT_FALSE(db.loadRecord(4242u, rec));
    EXPECT_EQ("untouched", rec.assignedName);

    // Cut in the middle of the last line; junk and lines before DUID count.
    const char cut[] = "ID=1001\n\x01\x02=\xff\n=\n\0\0\nDUID=cut\nMAIN_KEY=0102\nTRUST=1";
    writeFile(dir.file("cut.dev"), std::string(cut, sizeof(cut) - 1));
    ASSERT_TRUE(db.loadRecord("cut", rec));
    EXPECT_EQ(1001, rec.id);
    EXPECT_EQ(bytes({1, 2}), rec.mainKey);
    EXPECT_EQ(1, rec.trust);
    EXPECT_EQ("", rec.assignedName);  // the whole record was replaced
}

TEST(ClientsDBTest, NothingWrittenOutsideTheDirectory) {
    TempDir root;
    const std::string dbDir = root.file("real"), link = root.file("DB");
    ASSERT_EQ(0, mkdir(dbDir.c_str(), 0700));
    ASSERT_EQ(0, symlink(dbDir.c_str(), link.c_str()));  // the directory moves not
    writeFile(dbDir + "/specs.idx", "index");
    writeFile(root.file("outside.dev"), "DUID=../outside\nID=1300\n");
    ClientsDatabase db(link);

    for (const std::string& name : {std::string(), std::string("../outside"), std::string("a/b"),
                                    std::string(".hidden"), std::string(".."),
                                    std::string("specs.idx\0x", 11)}) {
        ClientDBRec r = sampleRecord();
        r.duid = name;
        CapturedOutput p = outputOf([&] {
            EXPECT_FALSE(db.updateRecord(r));
            EXPECT_FALSE(db.loadRecord(name, r));
        });
        EXPECT_EQ(0u, p.err.rfind("ERROR", 0)) << p.err;
        EXPECT_EQ(2, std::count(p.err.begin(), p.err.end(), '\n')) << p.err;
        EXPECT_EQ(0, db.objectIdFor(name));
    }
    db.updateRecord(sampleRecord());
    EXPECT_EQ((std::vector<std::string>{"DB", "outside.dev", "real"}), listing(root.path()));
    EXPECT_EQ((std::vector<std::string>{"lamp-01.dev", "specs.idx"}), listing(dbDir));
    EXPECT_EQ("index", readFile(dbDir + "/specs.idx"));
}

TEST(ClientsDBTest, TextWithALineBreakNeverReachesTheDisk) {
    TempDir dir;
    ClientsDatabase db(dir.path());
    db.updateRecord(sampleRecord());  // lamp-01, id 1042
    const std::string forged = "x\nID=1042";
    for (int field = 0; field < 3; ++field) {
        ClientDBRec r = sampleRecord();
        r.id = 1500;
        r.duid = field == 0 ? "intruder" + forged : "intruder";
        if (field == 1) r.specs = forged;
        if (field == 2) r.assignedName = forged;
        CapturedOutput p = outputOf([&] { EXPECT_FALSE(db.updateRecord(r)); });
        EXPECT_EQ(0u, p.err.rfind("ERROR updateRecord: record of DUID \"intruder", 0)) << p.err;
        EXPECT_EQ(1, std::count(p.err.begin(), p.err.end(), '\n')) << p.err;  // one line: the break is shown as '?'
        EXPECT_EQ(0, db.objectIdFor(r.duid));
    }
    EXPECT_EQ(std::vector<std::string>{"lamp-01.dev"}, listing(dir.path()));
    ClientsDatabase reread(dir.path());
    EXPECT_EQ(1042, reread.objectIdFor("lamp-01"));

    ClientDBRec cr = sampleRecord();  // a carriage return splits no line: kept as it is
    cr.specs = "spec\r";
    db.updateRecord(cr);
    ClientDBRec back;
    ASSERT_TRUE(db.loadRecord("lamp-01", back));
    EXPECT_EQ("spec\r", back.specs);
}
