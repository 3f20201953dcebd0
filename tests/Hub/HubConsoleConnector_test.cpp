#include "Hub/HubConsoleConnector.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Velto/Interfaces/DeviceManagementInterface.h"
#include "tests/support/test_support.h"

namespace {

// A service object that writes down what reaches it.
class Recorder : public VirtualClientObjectInterface {
public:
    Recorder(const std::string& name_, std::vector<std::string>& log_) : name(name_), log(log_) {}
    void deliverMessage(const MsgSelector& ms, std::shared_ptr<unsigned char>&, unsigned int size) override {
        log.push_back(name + " msg " + std::to_string(ms.msgId) + " sz " + std::to_string(size));
    }
    bool subscribeToNotification(unsigned short, unsigned short, bool) override { return false; }
    void deviceHadBeenRemoved(unsigned short id) override { log.push_back(name + " removed " + std::to_string(id)); }

private:
    std::string name;
    std::vector<std::string>& log;
};

class InstrumentedHub : public HubMainServices {
public:
    using HubMainServices::replaceObject;
};

class HubConsoleConnectorTest : public ::testing::Test {
protected:
    // The hub's own node with recorders in place of its two objects.
    void instrument() {
        ASSERT_TRUE(hub.replaceObject(0, new Recorder("anonymous", log)));
        ASSERT_TRUE(hub.replaceObject(1, new Recorder("devmgmt", log)));
    }

    static MsgSelector message(uint8_t cat, uint16_t toDevice, uint8_t toObject, uint16_t msgId) {
        MsgSelector ms;
        ms.msgCat = cat;
        ms.fromDeviceId = 1000;
        ms.fromObjectNo = 2;
        ms.toDeviceId = toDevice;
        ms.toObjectNo = toObject;
        ms.msgId = msgId;
        return ms;
    }

    testsupport::CapturedOutput deliver(const MsgSelector& ms, uint32_t size = 4) {
        std::shared_ptr<unsigned char> body(new unsigned char[size](), std::default_delete<unsigned char[]>());
        return testsupport::outputOf([&] { hub.deliverMessage(ms, body, size); });
    }

    InstrumentedHub hub;
    std::vector<std::string> log;
};

}  // namespace

TEST_F(HubConsoleConnectorTest, DirectMessagesAreRoutedByObjectNumber) {
    instrument();
    deliver(message(DIRECT_MSGCAT, 1, 0, 11));
    deliver(message(DIRECT_MSGCAT, 1, 1, 12), 9);
    EXPECT_EQ((std::vector<std::string>{"anonymous msg 11 sz 4", "devmgmt msg 12 sz 9"}), log);
}

TEST_F(HubConsoleConnectorTest, ObjectOutOfRangeIsLoggedAndDropped) {
    instrument();
    auto o = deliver(message(DIRECT_MSGCAT, 1, 2, 1));
    EXPECT_EQ("ERROR: HubConsoleConnector::deliverMessage Object Number out of range=2\n", o.err);
    EXPECT_TRUE(log.empty());
}

TEST_F(HubConsoleConnectorTest, DirectMessageForAnotherNodeIsDropped) {
    instrument();
    auto o = deliver(message(DIRECT_MSGCAT, 5, 1, 1));
    EXPECT_EQ("DBG: ms.msgCat==DIRECT_MSGCAT && ms.toDeviceId != 1\n", o.out);
    EXPECT_TRUE(log.empty());
}

TEST_F(HubConsoleConnectorTest, NotificationIsRoutedByObjectNumberWhateverItsDestination) {
    instrument();
    deliver(message(NOTIFICATION_MSGCAT, 5000, 1, 21));
    deliver(message(NOTIFICATION_MSGCAT, 0, 0, 22));
    EXPECT_EQ((std::vector<std::string>{"devmgmt msg 21 sz 4", "anonymous msg 22 sz 4"}), log);
}

TEST_F(HubConsoleConnectorTest, NullObjectEntryIsLoggedAndDropped) {
    ASSERT_TRUE(hub.replaceObject(1, nullptr));
    auto o = deliver(message(DIRECT_MSGCAT, 1, 1, 1));
    EXPECT_EQ("ERROR: HubConsoleConnector::deliverMessage NULL object pointer for objNo1\n", o.err);
}

TEST_F(HubConsoleConnectorTest, RealObjectsSwallowObjectZeroAndServeObjectOne) {
    auto zero = deliver(message(DIRECT_MSGCAT, 1, 0, 1));
    EXPECT_EQ("", zero.out + zero.err);

    auto one = deliver(message(DIRECT_MSGCAT, 1, 1, RequestBasicDeviceListMsg::MSG_ID));
    EXPECT_NE(std::string::npos,
              one.out.find("DeviceManagementServices::deliverMessage() RequestBasicDeviceListMsg from 1000/2\n"));
}

TEST_F(HubConsoleConnectorTest, RemovalReachesBothObjectsInOrder) {
    instrument();
    hub.deviceHadBeenRemoved(5);
    EXPECT_EQ((std::vector<std::string>{"anonymous removed 5", "devmgmt removed 5"}), log);
}

TEST_F(HubConsoleConnectorTest, SubscriptionIsRefusedWithAWarning) {
    EXPECT_EQ("WARNING: HubConsoleConnector is not suppose to subscribe to any notificvation\n",
              testsupport::stderrOf([&] { EXPECT_FALSE(hub.subscribeToNotification(1, 3, 1000, true)); }));
    EXPECT_FALSE(hub.replaceObject(2, nullptr));
}
