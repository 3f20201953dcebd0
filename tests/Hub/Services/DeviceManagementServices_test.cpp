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

// The objects of a node come back with the interface identifiers its stored
// specification exports; an unknown node and an unknown interface give none.
// Identifiers of two characters: nothing is ever downloaded for them.
TEST_F(DeviceManagementServicesTest, ObjectInfoListsObjectsWithStoredInterfaceIds) {
    writeFile("DB/specs.idx", "sp\t000000001\n");
    writeFile("DB/000000001.spec",
              "<Velto-spec><interfaces><interface name=\"if\" intf=\"I1\"/></interfaces></Velto-spec>\n");
    SimDevice a("dms-obj");
    ASSERT_NE(nullptr, connect(a, 2));
    struct Case {
        DeviceID asked;
        size_t objects;
    } cases[] = {{a.nodeId, 2}, {4321, 0}};
    for (const Case& c : cases) {
        RequestBasicObjectInfoMsg req;
        req.nodeId = c.asked;
        auto body = makeMessageBuffer(2);
        uint8_t* cur = body.get();
        size_t left = 2;
        ASSERT_TRUE(req.addToBuffer(cur, left));
        MsgSelector in;
        in.msgCat = DIRECT_MSGCAT, in.fromDeviceId = a.nodeId, in.fromObjectNo = 1, in.msgId = 3;
        in.toDeviceId = 1, in.toObjectNo = 1;
        service.deliverMessage(in, body, 2);
        MsgSelector ms;
        Bytes reply;
        ASSERT_TRUE(takeMessage(a, ms, reply));
        EXPECT_EQ(BasicObjectInfoMsg::MSG_ID, ms.msgId);
        EXPECT_EQ(1, ms.toObjectNo);
        BasicObjectInfoMsg m;
        const uint8_t* rc = reply.data();
        size_t rl = reply.size();
        ASSERT_TRUE(m.getFromBuffer(rc, rl));
        EXPECT_EQ(c.asked, m.nodeId);
        ASSERT_EQ(c.objects, m.objects.size());
        for (size_t n = 0; n < c.objects; ++n) {
            EXPECT_EQ("obj" + std::to_string(n), m.objects[n].name.str());
            EXPECT_EQ("I1", m.objects[n].interfaceId.str());
        }
    }
    EXPECT_EQ(3u, service.nextReplyNumber());
}
