#include "Hub/Services/DeviceManagementServices.h"

#include <gtest/gtest.h>

#include "Hub/DeviceManager.h"
#include "tests/support/hub_harness.h"

using namespace testsupport;

namespace {

class DeviceManagementServicesTest : public HubFixture {
protected:
    DeviceManagementServices service;
};

}  // namespace

TEST_F(DeviceManagementServicesTest, ErrorReplyGoesThroughTheFromNodesProxy) {
    SimDevice a("dms-err");
    ASSERT_NE(nullptr, connect(a));
    service.replyWithError(DIRECT_MSGCAT, a.nodeId, 3, 1, 1, 1, MessageErrorPack::DESERIALIZATION_ERROR, "");
    Bytes d = a.receiveRaw(2000);
    ASSERT_FALSE(d.empty());
    EXPECT_EQ(MessageErrorPack::PACK_ID, d[0]);
    // The bytes are checked directly: a pack read back skips toObjectNo (kept).
    EXPECT_EQ(10u + 4 + 1 + 2 + 1 + 2 + 2 + 1 + 1, d.size());
    EXPECT_EQ(1, d[13]);              // errorCode low byte
    EXPECT_EQ(DIRECT_MSGCAT, d[14]);  // category
    EXPECT_EQ(3, d[17]);              // fromObjectNo
}
