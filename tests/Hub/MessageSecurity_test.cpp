#include "Hub/MessageSecurity.h"

#include <gtest/gtest.h>

#include <memory>

#include "Velto/msg_sequencers.h"
#include "tests/support/test_support.h"

using testsupport::TempDir;
using testsupport::writeFile;

namespace {

typedef MessageSecurityMgr::RuleMap RuleMap;
typedef std::pair<DeviceID, DeviceID> Pair;

// A client database that knows lamp-01 (1001), switch-07 (1002), abc (1003) and
// the two-character ab (1004).
class MessageSecurityTest : public testing::Test {
protected:
    void SetUp() override {
        writeFile(dir.file("lamp-01.dev"), "DUID=lamp-01\nID=1001\n");
        writeFile(dir.file("switch-07.dev"), "DUID=switch-07\nID=1002\n");
        writeFile(dir.file("abc.dev"), "DUID=abc\nID=1003\n");
        writeFile(dir.file("ab.dev"), "DUID=ab\nID=1004\n");
        testsupport::stdoutOf([&] { db = std::make_unique<ClientsDatabase>(dir.path()); });
    }

    // Loads `content` as a rules file and returns what it printed on stderr.
    std::string load(MessageSecurityMgr& mgr, const std::string& content) {
        writeFile(dir.file("rules"), content);
        return testsupport::stderrOf([&] { EXPECT_TRUE(mgr.loadSecurityRules(dir.file("rules"))); });
    }

    TempDir dir;
    std::unique_ptr<ClientsDatabase> db;
};

}  // namespace

TEST_F(MessageSecurityTest, LoadsValidRulesAndSkipsTheRest) {
    MessageSecurityMgr mgr(db.get());
    EXPECT_EQ("", load(mgr,
                       "D 2 lamp-01 switch-07\n"
                       "N 3 switch-07 lamp-01\n"
                       "  D\t 1   abc lamp-01 anything after\n"
                       "D 0 abc switch-07\nD 4 abc switch-07\nD -1 abc switch-07\n"
                       "D 2 ab lamp-01\nN 2 lamp-01 ab\n"
                       "D 2 lamp-01 unknown-9\n"
                       "D two lamp-01 switch-07\nD 2 lamp-01\n\ngarbage\n"
                       "D 3 lamp-01 switch-07\n"));
    // The later rule for the same ordered pair wins.
    EXPECT_EQ((RuleMap{{Pair(1001, 1002), 3}, {Pair(1003, 1001), 1}}), mgr.directRules());
    EXPECT_EQ((RuleMap{{Pair(1002, 1001), 3}}), mgr.notificationRules());

    // A second file adds to the rules; a missing one changes nothing.
    EXPECT_EQ("", load(mgr, "D 1 switch-07 lamp-01\n"));
    EXPECT_EQ(3u, mgr.directRules().size());
    EXPECT_FALSE(mgr.loadSecurityRules(dir.file("missing")));
    EXPECT_EQ(dir.file("missing"), mgr.rulesFile());
    EXPECT_EQ(3u, mgr.directRules().size());
}

TEST_F(MessageSecurityTest, UnknownKindIsReported) {
    MessageSecurityMgr mgr(db.get());
    EXPECT_EQ("Invalid record: X 2 lamp-01 switch-07\nInvalid record: d 1 lamp-01 switch-07\n",
              load(mgr,
                   "X 2 lamp-01 switch-07\n"
                   "X 0 lamp-01 switch-07\n"     // malformed first: silent
                   "d 1 lamp-01 switch-07\n"     // kinds are case-sensitive
                   "X 2 lamp-01 unknown-9\n"));  // unknown device first: silent
    EXPECT_TRUE(mgr.directRules().empty() && mgr.notificationRules().empty());
}

TEST_F(MessageSecurityTest, QueriesGrantLevelTwoWhateverTheRules) {
    MessageSecurityMgr mgr(db.get());
    MsgSelector sel;
    sel.msgCat = DIRECT_MSGCAT;
    sel.fromDeviceId = 1001;
    sel.toDeviceId = 1002;
    EXPECT_EQ(2, mgr.accessRightsForMessage(sel, 0));
    load(mgr, "D 3 lamp-01 switch-07\nN 1 switch-07 lamp-01\n");
    ASSERT_FALSE(mgr.directRules().empty());
    for (unsigned char trust : {0, 1, 3, 255}) {
        EXPECT_EQ(2, mgr.accessRightsForMessage(sel, trust));
        EXPECT_EQ(2, mgr.accessRightsForNotiSubscription(1002, 3, 7, 1001, trust));
    }
}
