#include "Hub/MessageSecurity.h"

#include <gtest/gtest.h>

#include "Velto/msg_sequencers.h"
#include "tests/support/test_support.h"

using testsupport::TempDir;
using testsupport::writeFile;

typedef MessageSecurityMgr::RuleMap RuleMap;
typedef std::pair<DeviceID, DeviceID> Pair;

// Valid rules are kept (the later one for a pair wins), malformed ones and
// unknown devices skipped silently, an unknown kind reported; queries grant
// level 2 whatever the rules say.
TEST(MessageSecurityTest, LoadsRulesButQueriesGrantLevelTwo) {
    TempDir dir;
    writeFile(dir.file("lamp-01.dev"), "DUID=lamp-01\nID=1001\n");
    writeFile(dir.file("switch-07.dev"), "DUID=switch-07\nID=1002\n");
    writeFile(dir.file("rules"),
              "D 2 lamp-01 switch-07\nN 3 switch-07 lamp-01\nD 4 lamp-01 switch-07\n"
              "D 2 lamp-01 unknown-9\nD two lamp-01 switch-07\ngarbage\n"
              "d 1 lamp-01 switch-07\nD 3 lamp-01 switch-07\n");
    ClientsDatabase db(dir.path());
    MessageSecurityMgr mgr(&db);
    EXPECT_EQ("Invalid record: d 1 lamp-01 switch-07\n",
              testsupport::stderrOf([&] { EXPECT_TRUE(mgr.loadSecurityRules(dir.file("rules"))); }));
    EXPECT_EQ((RuleMap{{Pair(1001, 1002), 3}}), mgr.directRules());
    EXPECT_EQ((RuleMap{{Pair(1002, 1001), 3}}), mgr.notificationRules());

    MsgSelector sel;
    sel.msgCat = DIRECT_MSGCAT;
    sel.fromDeviceId = 1001;
    sel.toDeviceId = 1002;
    EXPECT_EQ(2, mgr.accessRightsForMessage(sel, 0));
    EXPECT_EQ(2, mgr.accessRightsForNotiSubscription(1002, 3, 7, 1001, 255));
}
