#include "Hub/MessageSecurity.h"

#include <gtest/gtest.h>

#include <memory>

#include "Velto/msg_sequencers.h"
#include "tests/support/test_support.h"

using testsupport::TempDir;
using testsupport::writeFile;

namespace {

// A client database that knows lamp-01 (1001), switch-07 (1002), abc (1003) and
// the two-character ab (1004).
class MessageSecurityTest : public testing::Test {
protected:
    void SetUp() override {
        writeFile(dir.file("lamp-01.dev"), "DUID=lamp-01\nID=1001\n");
        writeFile(dir.file("switch-07.dev"), "DUID=switch-07\nID=1002\n");
        writeFile(dir.file("abc.dev"), "DUID=abc\nID=1003\n");
        writeFile(dir.file("ab.dev"), "DUID=ab\nID=1004\n");
        testing::internal::CaptureStdout();
        db = std::make_unique<ClientsDatabase>(dir.path());
        testing::internal::GetCapturedStdout();
        ASSERT_EQ(1004, db->objectIdFor("ab"));
    }

    std::string rules(const std::string& name, const std::string& content) {
        const std::string path = dir.file(name);
        writeFile(path, content);
        return path;
    }

    TempDir dir;
    std::unique_ptr<ClientsDatabase> db;
};

typedef MessageSecurityMgr::RuleMap RuleMap;
typedef std::pair<DeviceID, DeviceID> Pair;

}  // namespace

TEST_F(MessageSecurityTest, LoadsValidRulesAndSkipsTheRest) {
    MessageSecurityMgr mgr(db.get());
    const std::string file = rules("rules.txt",
                                   "D 2 lamp-01 switch-07\n"
                                   "N 3 switch-07 lamp-01\n"
                                   "  D\t 1   abc lamp-01 anything after\n"
                                   "D 0 abc switch-07\n"
                                   "D 4 abc switch-07\n"
                                   "D -1 abc switch-07\n"
                                   "D 2 ab lamp-01\n"
                                   "N 2 lamp-01 ab\n"
                                   "D 2 lamp-01 unknown-9\n"
                                   "D two lamp-01 switch-07\n"
                                   "D 2 lamp-01\n"
                                   "\n"
                                   "garbage\n"
                                   "D 3 lamp-01 switch-07\n");
    testing::internal::CaptureStderr();
    EXPECT_TRUE(mgr.loadSecurityRules(file));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ(file, mgr.rulesFile());
    // The later rule for lamp-01 -> switch-07 wins; pairs are ordered.
    EXPECT_EQ((RuleMap{{Pair(1001, 1002), 3}, {Pair(1003, 1001), 1}}), mgr.directRules());
    EXPECT_EQ((RuleMap{{Pair(1002, 1001), 3}}), mgr.notificationRules());
}

TEST_F(MessageSecurityTest, UnknownKindIsReported) {
    MessageSecurityMgr mgr(db.get());
    const std::string file = rules("kinds.txt",
                                   "X 2 lamp-01 switch-07\n"
                                   "X 0 lamp-01 switch-07\n"      // malformed first: silent
                                   "d 1 lamp-01 switch-07\n"      // kinds are case-sensitive
                                   "X 2 lamp-01 unknown-9\n");    // unknown device first: silent
    testing::internal::CaptureStderr();
    EXPECT_TRUE(mgr.loadSecurityRules(file));
    EXPECT_EQ("Invalid record: X 2 lamp-01 switch-07\n"
              "Invalid record: d 1 lamp-01 switch-07\n",
              testing::internal::GetCapturedStderr());
    EXPECT_TRUE(mgr.directRules().empty());
    EXPECT_TRUE(mgr.notificationRules().empty());
}

TEST_F(MessageSecurityTest, FilesAddUpAndMissingFileChangesNothing) {
    MessageSecurityMgr mgr(db.get());
    EXPECT_EQ("", mgr.rulesFile());
    EXPECT_TRUE(mgr.loadSecurityRules(rules("one.txt", "D 1 lamp-01 switch-07\n")));
    EXPECT_TRUE(mgr.loadSecurityRules(rules("two.txt", "D 2 switch-07 lamp-01\nN 1 abc abc\n")));
    const RuleMap expected{{Pair(1001, 1002), 1}, {Pair(1002, 1001), 2}};
    EXPECT_EQ(expected, mgr.directRules());
    EXPECT_EQ((RuleMap{{Pair(1003, 1003), 1}}), mgr.notificationRules());

    const std::string missing = dir.file("missing.txt");
    EXPECT_FALSE(mgr.loadSecurityRules(missing));
    EXPECT_EQ(missing, mgr.rulesFile());
    EXPECT_EQ(expected, mgr.directRules());
}

TEST_F(MessageSecurityTest, QueriesGrantLevelTwoWhateverTheRules) {
    MessageSecurityMgr mgr(db.get());
    MsgSelector sel;
    sel.msgCat = DIRECT_MSGCAT;
    sel.fromDeviceId = 1001;
    sel.toDeviceId = 1002;
    EXPECT_EQ(2, mgr.accessRightsForMessage(sel, 0));
    EXPECT_EQ(2, mgr.accessRightsForNotiSubscription(1002, 0, 1, 1001, 0));

    ASSERT_TRUE(mgr.loadSecurityRules(rules("r.txt", "D 3 lamp-01 switch-07\nN 1 switch-07 lamp-01\n")));
    ASSERT_FALSE(mgr.directRules().empty());
    for (unsigned trust : {0u, 1u, 3u, 255u}) {
        EXPECT_EQ(2, mgr.accessRightsForMessage(sel, static_cast<unsigned char>(trust)));
        EXPECT_EQ(2, mgr.accessRightsForNotiSubscription(1002, 3, 7, 1001, static_cast<unsigned char>(trust)));
        EXPECT_EQ(2, mgr.accessRightsForNotiSubscription(0, 255, 65535, 65535, static_cast<unsigned char>(trust)));
    }
}
