#include "Hub/HubConsoleConnector.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/test_support.h"

namespace {

// A service object that writes down what reaches it.
class Recorder : public VirtualClientObjectInterface {
public:
    Recorder(const std::string& name_, std::vector<std::string>& log_) : name(name_), log(log_) {}
    void deliverMessage(const MsgSelector& ms, std::shared_ptr<unsigned char>&, unsigned int) override {
        log.push_back(name + " " + std::to_string(ms.msgId));
    }
    bool subscribeToNotification(unsigned short, unsigned short, bool) override { return false; }
    void deviceHadBeenRemoved(unsigned short) override {}

private:
    std::string name;
    std::vector<std::string>& log;
};

class InstrumentedHub : public HubMainServices {
public:
    using HubMainServices::replaceObject;
};

}  // namespace

// Direct messages must be for node 1 and are routed by object number;
// notifications are routed by object number whatever their destination.
TEST(HubConsoleConnectorTest, RoutingByObjectNumber) {
    InstrumentedHub hub;
    std::vector<std::string> log;
    ASSERT_TRUE(hub.replaceObject(0, new Recorder("anonymous", log)));
    ASSERT_TRUE(hub.replaceObject(1, new Recorder("devmgmt", log)));
    const struct {
        uint8_t cat;
        uint16_t toDevice;
        uint8_t toObject;
        const char* out;
        const char* err;
    } cases[] = {
        {DIRECT_MSGCAT, 1, 0, "", ""},
        {DIRECT_MSGCAT, 1, 1, "", ""},
        {DIRECT_MSGCAT, 1, 2, "", "ERROR: HubConsoleConnector::deliverMessage Object Number out of range=2\n"},
        {DIRECT_MSGCAT, 5, 1, "DBG: ms.msgCat==DIRECT_MSGCAT && ms.toDeviceId != 1\n", ""},
        {NOTIFICATION_MSGCAT, 5000, 1, "", ""},
    };
    uint16_t msgId = 10;
    for (const auto& c : cases) {
        MsgSelector ms;
        ms.msgCat = c.cat;
        ms.toDeviceId = c.toDevice;
        ms.toObjectNo = c.toObject;
        ms.msgId = msgId++;
        std::shared_ptr<unsigned char> body(new unsigned char[4](), std::default_delete<unsigned char[]>());
        testsupport::CapturedOutput o = testsupport::outputOf([&] { hub.deliverMessage(ms, body, 4); });
        EXPECT_EQ(c.out, o.out) << ms.msgId;
        EXPECT_EQ(c.err, o.err) << ms.msgId;
    }
    EXPECT_EQ((std::vector<std::string>{"anonymous 10", "devmgmt 11", "devmgmt 14"}), log);
}
