#include "Hub/Database/ClientsDB.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <vector>

#include "tests/support/test_support.h"

using testsupport::CapturedOutput;
using testsupport::outputOf;
using testsupport::readFile;
using testsupport::TempDir;
using testsupport::writeFile;

namespace {

ByteArray<32> bytes(std::vector<uint8_t> v) { return ByteArray<32>(v.data(), v.size()); }

const char sampleText[] =
    "DUID=lamp-01\nMAIN_KEY=dead01\nID=1042\nSPECS=acme/lamp v2\nVERSION=200\n"
    "NAME=Kitchen = left\nFIRST_ADDR=[192.168.1.20]:1881\nLAST_ADDR=[10.0.0.7]:40000\n"
    "FIRST_TIME=1700000000123\nLAST_TIME=18446744073709551615\nKEY_TIME=42\n"
    "SESSION_KEY=000aff10\nTRUST=3\nSIG_TYPE=2\nENC_TYPE=1\nSEQUENCES=4294967295 7\n";

// The record described by sampleText, read line by line.
ClientDBRec sampleRecord() {
    ClientDBRec r;
    std::istringstream in(sampleText);
    for (std::string line; std::getline(in, line);) EXPECT_TRUE(parseRecordLine(line, r)) << line;
    return r;
}

}  // namespace

// The exact file layout, the atomic replace (no backup or temporary left) and
// a lossless read back.
TEST(ClientsDBTest, AllSixteenKeysRoundTrip) {
    TempDir dir;
    ClientsDatabase db(dir.path());
    writeFile(dir.file("lamp-01.dev~"), "old backup");
    EXPECT_FALSE(db.updateRecord(sampleRecord()));  // kept: false even on success
    EXPECT_EQ(sampleText, readFile(dir.file("lamp-01.dev")));
    EXPECT_EQ(std::set<std::string>{"lamp-01.dev"}, testsupport::listDir(dir.path()));
    EXPECT_EQ(1042, db.objectIdFor("lamp-01"));
    EXPECT_EQ(1000, db.getNextFreeId());  // ids come only from getNextFreeId

    ClientDBRec back;
    ASSERT_TRUE(db.loadRecord(1042u, back));
    EXPECT_EQ(SockAddress("10.0.0.7", 40000), back.lastAddress);
    EXPECT_EQ(18446744073709551615ULL, back.lastConnect);
    EXPECT_EQ(bytes({0x00, 0x0a, 0xff, 0x10}), back.sessionKey);
    EXPECT_EQ(4294967295u, back.toDeviceSequence);
    EXPECT_EQ("Kitchen = left", back.assignedName);
}

TEST(ClientsDBTest, ParseLineQuirks) {
    ClientDBRec r;
    EXPECT_TRUE(parseRecordLine("NAME==x", r));  // only the first '=' splits
    EXPECT_EQ("=x", r.assignedName);
    for (const char* bad : {"", "no equals", "=value", "UNKNOWN=1", "duid=lower", "NAME="})
        EXPECT_FALSE(parseRecordLine(bad, r)) << bad;
    EXPECT_TRUE(parseRecordLine("  ID junk=70000", r));  // first word is the key; 16 bits
    EXPECT_EQ(static_cast<DeviceID>(70000), r.id);
    EXPECT_TRUE(parseRecordLine("LAST_ADDR=[1.2.3.4]:5", r));
    EXPECT_TRUE(parseRecordLine("LAST_ADDR=garbage", r));  // no "]": left as it was
    EXPECT_EQ(SockAddress("1.2.3.4", 5), r.lastAddress);
    EXPECT_TRUE(parseRecordLine("MAIN_KEY=abc", r));  // odd last digit ignored
    EXPECT_EQ(bytes({0xab}), r.mainKey);
    EXPECT_TRUE(parseRecordLine("SESSION_KEY=" + std::string(70, 'f'), r));
    EXPECT_EQ(32u, r.sessionKey.size());
}

// Times and sequence counters have a fast path for plain digits; every value
// must come out as the stream reads it.
TEST(ClientsDBTest, NumbersReadAsTheStreamReadsThem) {
    for (const char* v : {"0042", "18446744073709551615", "18446744073709551616", " 12", "12x", "-1", "abc", "12 7",
                          "5 x", "x 5", "4294967296 1", "1\t2"}) {
        ClientDBRec r;
        r.keyTime = 777, r.toDeviceSequence = 11, r.fromDeviceSequence = 22;
        ASSERT_TRUE(parseRecordLine(std::string("KEY_TIME=") + v, r)) << v;
        ASSERT_TRUE(parseRecordLine(std::string("SEQUENCES=") + v, r)) << v;
        Timestamp time = 777;
        uint32_t to = 11, from = 22;
        std::istringstream(v) >> time;
        std::istringstream(v) >> to >> from;
        EXPECT_EQ(time, r.keyTime) << v;
        EXPECT_EQ(to, r.toDeviceSequence) << v;
        EXPECT_EQ(from, r.fromDeviceSequence) << v;
    }
}

TEST(ClientsDBTest, StartupCacheAndIdNumbering) {
    TempDir dir;
    writeFile(dir.file("a.dev"), "DUID=a\nID=1005\n");
    writeFile(dir.file("low.dev"), "DUID=low\nID=999\n");
    writeFile(dir.file("zero.dev"), "DUID=zero\n");         // id 0: not cached
    writeFile(dir.file("b.dev"), "DUID=c\nID=1100\n");      // names another device
    writeFile(dir.file("q.dev.tmp"), "DUID=q\nID=1200\n");  // a left-over temporary
    writeFile(dir.file("x.dev"), "DUID=x\nID=1009\n");
    CapturedOutput p = outputOf([&] {
        ClientsDatabase db(dir.path());
        EXPECT_EQ(1005, db.objectIdFor("a"));
        EXPECT_EQ(999, db.objectIdFor("low"));
        for (const char* unknown : {"zero", "b", "c", "q"}) EXPECT_EQ(0, db.objectIdFor(unknown));
        EXPECT_EQ(1010, db.getNextFreeId());
        EXPECT_EQ(1011, db.getNextFreeId());
    });
    EXPECT_NE(std::string::npos, p.out.find("add to map low -- 999 next="));
}

TEST(ClientsDBTest, TextWithALineBreakNeverReachesTheDisk) {
    TempDir dir;
    ClientsDatabase db(dir.path());
    ClientDBRec r = sampleRecord();
    r.assignedName = "x\nID=1";
    CapturedOutput p = outputOf([&] { EXPECT_FALSE(db.updateRecord(r)); });
    EXPECT_EQ(0u, p.err.rfind("ERROR updateRecord: record of DUID \"lamp-01", 0)) << p.err;
    EXPECT_EQ(1, std::count(p.err.begin(), p.err.end(), '\n')) << p.err;
    EXPECT_TRUE(testsupport::listDir(dir.path()).empty());
}
