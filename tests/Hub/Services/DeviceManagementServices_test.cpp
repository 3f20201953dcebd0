#include "Hub/Services/DeviceManagementServices.h"

#include <gtest/gtest.h>

#include <string>

#include "Hub/DeviceManager.h"
#include "Hub/server.h"
#include "tests/support/hub_harness.h"

using namespace testsupport;

namespace {

class DeviceManagementServicesTest : public HubFixture {
protected:
    void SetUp() override {
        HubFixture::SetUp();
        clientMgr.addVirtualClient(1, new HubMainServices());
    }

    // A request body from dev's object 0 to node 1 object 1, handed to the service.
    CapturedOutput request(const SimDevice& dev, uint16_t msgId, const Bytes& body) {
        MsgSelector ms;
        ms.msgCat = DIRECT_MSGCAT;
        ms.fromDeviceId = dev.nodeId;
        ms.fromObjectNo = 0;
        ms.toDeviceId = 1;
        ms.toObjectNo = 1;
        ms.msgId = msgId;
        ms.msgNo = 5;
        std::shared_ptr<unsigned char> data;
        if (!body.empty()) {
            data.reset(new unsigned char[body.size()], std::default_delete<unsigned char[]>());
            std::copy(body.begin(), body.end(), data.get());
        }
        return outputOf([&] { service.deliverMessage(ms, data, static_cast<unsigned int>(body.size())); });
    }

    static Bytes listRequest() {
        RequestBasicDeviceListMsg req;
        req.matchSpecs = "no/such/specs";  // filters are not applied
        uint8_t buf[256];
        uint8_t* cursor = buf;
        size_t left = sizeof buf;
        req.addToBuffer(cursor, left);
        return Bytes(buf, cursor);
    }

    // The reply sent down to dev, decoded; false when none came.
    bool reply(SimDevice& dev, MsgSelector& ms, BasicDeviceListMsg& list) {
        Bytes body;
        if (!takeMessage(dev, ms, body)) return false;
        const uint8_t* cursor = body.data();
        size_t left = body.size();
        return list.getFromBuffer(cursor, left) && left == 0;
    }

    DeviceManagementServices service;
};

}  // namespace

TEST_F(DeviceManagementServicesTest, ListsDevicesInIdOrderThenVirtualClientsInNumberedReplies) {
    SimDevice a("dms-a"), b("dms-b");
    ASSERT_NE(nullptr, connect(a));
    ASSERT_NE(nullptr, join(b));
    CapturedOutput log = request(a, RequestBasicDeviceListMsg::MSG_ID, listRequest());
    EXPECT_NE(std::string::npos, log.out.find("DeviceManagementServices::deliverMessage() RequestBasicDeviceListMsg from " +
                                              std::to_string(a.nodeId) + "/0\n"));

    MsgSelector ms;
    BasicDeviceListMsg list;
    ASSERT_TRUE(reply(a, ms, list));
    EXPECT_EQ(DIRECT_MSGCAT, ms.msgCat);
    EXPECT_EQ(1, ms.fromDeviceId);
    EXPECT_EQ(1, ms.fromObjectNo);
    EXPECT_EQ(2, ms.msgId);
    EXPECT_EQ(a.nodeId, ms.toDeviceId);
    EXPECT_EQ(0, ms.toObjectNo);
    EXPECT_EQ(1u, ms.msgNo);

    ASSERT_EQ(3u, list.devList.size());
    EXPECT_EQ(a.nodeId, list.devList[0].id);
    EXPECT_EQ(b.nodeId, list.devList[1].id);
    EXPECT_LT(list.devList[0].id, list.devList[1].id);
    EXPECT_EQ(std::string("dms-a"), list.devList[0].duid.str());
    EXPECT_EQ(std::string("sp"), list.devList[0].specs.str());
    EXPECT_EQ(std::string("dms-a"), list.devList[0].nname.str());
    EXPECT_EQ(3, list.devList[0].intVer);
    EXPECT_EQ(NodeStatusInfo::CONNECTED, list.devList[0].status);
    EXPECT_EQ(NodeStatusInfo::INITIALIZING, list.devList[1].status);
    EXPECT_EQ(17, list.devList[0].hubId);
    EXPECT_EQ(std::string("TestDomain_KVZ1"), list.devList[0].domain.str());
    EXPECT_EQ(0, list.devList[0].noOfObjects);

    const BasicDeviceInfo& hub = list.devList[2];
    EXPECT_EQ(1, hub.id);
    EXPECT_EQ(std::string("VHubMainServices"), hub.duid.str());
    EXPECT_EQ(std::string("HubMainServices"), hub.nname.str());
    EXPECT_EQ(1, hub.intVer);

    // Replies are numbered from one.
    request(a, RequestBasicDeviceListMsg::MSG_ID, listRequest());
    ASSERT_TRUE(reply(a, ms, list));
    EXPECT_EQ(2u, ms.msgNo);
    EXPECT_EQ(3u, service.nextReplyNumber());
}

TEST_F(DeviceManagementServicesTest, EmptyBodyTakesTheErrorPathAndSendsNothing) {
    SimDevice a("dms-empty");
    ASSERT_NE(nullptr, connect(a));
    CapturedOutput log = request(a, RequestBasicDeviceListMsg::MSG_ID, Bytes());
    EXPECT_EQ(0u, log.err.find("Failed to deserialize RequestBasicDeviceListMsg. ptr="));
    EXPECT_NE(std::string::npos, log.err.find(" sz=0\n"));
    EXPECT_TRUE(a.receiveRaw(200).empty());  // the error goes to node 1, which has no device proxy
    EXPECT_EQ(1u, service.nextReplyNumber());
}

TEST_F(DeviceManagementServicesTest, RequesterWithoutProxyGetsNoReply) {
    SimDevice ghost("dms-ghost");
    ghost.nodeId = 4444;
    CapturedOutput log = request(ghost, RequestBasicDeviceListMsg::MSG_ID, listRequest());
    EXPECT_EQ("", log.err);
    EXPECT_EQ(1u, service.nextReplyNumber());
}

TEST_F(DeviceManagementServicesTest, ObjectInfoRequestOnlyLogsAndOthersAreUnknown) {
    SimDevice a("dms-obj");
    ASSERT_NE(nullptr, connect(a));
    CapturedOutput info = request(a, REQUEST_BASIC_OBJECT_INFO_MSG_ID, listRequest());
    EXPECT_EQ("DeviceManagementServices::deliverMessage() RequestBasicObjectInfoMsg from " +
                  std::to_string(a.nodeId) + "/0\n",
              info.out);
    EXPECT_EQ("", info.err);
    CapturedOutput other = request(a, 9, listRequest());
    EXPECT_EQ("DeviceManagementServices::deliverMessage() Unknown Message from " + std::to_string(a.nodeId) + "/0\n",
              other.out);
    EXPECT_TRUE(a.receiveRaw(200).empty());
}

TEST_F(DeviceManagementServicesTest, ErrorReplyGoesThroughTheFromNodesProxy) {
    SimDevice a("dms-err");
    ASSERT_NE(nullptr, connect(a));
    service.replyWithError(DIRECT_MSGCAT, a.nodeId, 3, 1, 1, 1, MessageErrorPack::DESERIALIZATION_ERROR, "");
    Bytes d = a.receiveRaw(2000);
    ASSERT_FALSE(d.empty());
    EXPECT_EQ(MessageErrorPack::PACK_ID, d[0]);
    // The bytes are checked directly: a pack read back skips toObjectNo (kept).
    EXPECT_EQ(10u + 4 + 1 + 2 + 1 + 2 + 2 + 1 + 1, d.size());
    EXPECT_EQ(1, d[13]);             // errorCode low byte
    EXPECT_EQ(DIRECT_MSGCAT, d[14]);  // category
    EXPECT_EQ(3, d[17]);             // fromObjectNo
}
