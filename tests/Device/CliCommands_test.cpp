#include "Device/CliCommands.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace device;

TEST(CliCommands, SendKeepsTheRestOfTheLineAsData) {
    Command c;
    std::string why;
    ASSERT_TRUE(parseCommand("send 1001/2 40  two  spaces ", c, why)) << why;
    EXPECT_EQ(Command::Kind::SEND, c.kind);
    EXPECT_EQ("1001", c.node);
    EXPECT_EQ(2, c.objectNo);
    EXPECT_EQ(40, c.id);
    std::string data(c.data.begin(), c.data.end());
    EXPECT_EQ(" two  spaces ", data);
    ASSERT_TRUE(parseCommand("send lamp-01/0 1 hex:00ff10", c, why)) << why;
    EXPECT_EQ("lamp-01", c.node);
    EXPECT_EQ((std::vector<uint8_t>{0x00, 0xff, 0x10}), c.data);
}

TEST(CliCommands, OtherCommands) {
    Command c;
    std::string why;
    ASSERT_TRUE(parseCommand("notify light 7 on", c, why)) << why;
    EXPECT_EQ(Command::Kind::NOTIFY, c.kind);
    EXPECT_EQ("light", c.object);
    EXPECT_EQ(7, c.id);
    ASSERT_TRUE(parseCommand("unsubscribe 1000 3 9", c, why)) << why;
    EXPECT_EQ(Command::Kind::UNSUBSCRIBE, c.kind);
    EXPECT_EQ("1000", c.node);
    EXPECT_EQ(3, c.objectNo);
    EXPECT_EQ(9, c.id);
    ASSERT_TRUE(parseCommand("  ", c, why));
    EXPECT_EQ(Command::Kind::EMPTY, c.kind);
    ASSERT_TRUE(parseCommand("quit", c, why));
    EXPECT_EQ(Command::Kind::QUIT, c.kind);
}

TEST(CliCommands, BadLinesSayWhy) {
    for (const char* bad : {"jump", "send 1001 1 x", "send 1001/256 1 x", "send 1001/0 70000 x",
                            "send 1001/0 1", "send 1001/0 1 hex:abc", "notify 0 1", "subscribe 1000 1",
                            "subscribe 1000 1 2 3", "list now", "/0 1 x"}) {
        Command c;
        c.kind = Command::Kind::LIST;
        std::string why;
        EXPECT_FALSE(parseCommand(bad, c, why)) << bad;
        EXPECT_FALSE(why.empty()) << bad;
        EXPECT_EQ(Command::Kind::LIST, c.kind) << "left untouched";
    }
}

TEST(CliCommands, DataIsShownAsTextOnlyWhenThatIsUnambiguous) {
    EXPECT_EQ("hello world", formatData({'h', 'e', 'l', 'l', 'o', ' ', 'w', 'o', 'r', 'l', 'd'}));
    EXPECT_EQ("hex:680a", formatData({'h', '\n'}));
    EXPECT_EQ("hex:6865783a41", formatData({'h', 'e', 'x', ':', 'A'}));
    // What is printed parses back to the same bytes.
    for (std::vector<uint8_t> d : {std::vector<uint8_t>{0, 1, 255}, std::vector<uint8_t>{'h', 'e', 'x', ':'}}) {
        std::vector<uint8_t> back;
        std::string why;
        ASSERT_TRUE(parseData(formatData(d), back, why));
        EXPECT_EQ(d, back);
    }
}

TEST(CliCommands, MessageAndErrorLines) {
    IncomingMessage m;
    m.selector.msgCat = DIRECT_MSGCAT;
    m.selector.fromDeviceId = 1000;
    m.selector.fromObjectNo = 1;
    m.selector.toDeviceId = 1001;
    m.selector.msgId = 5;
    m.selector.msgNo = 3;
    m.data = {'h', 'i'};
    EXPECT_EQ("message from 1000/1 to 1001/0 id 5 no 3 size 2: hi", formatMessage(m));
    m.selector.msgCat = NOTIFICATION_MSGCAT;
    EXPECT_EQ("notification from 1000/1 event 5 no 3 size 2: hi", formatMessage(m));
    MessageError e;
    e.errorCode = 10;
    e.category = 2;
    e.fromNodeId = 1000;
    e.msgId = 5;
    e.toNodeId = 1001;
    e.toObjectNo = 4;
    EXPECT_EQ("error permission denied (code 10) category 2 from 1000/0 id 5 to 1001/4: ", formatError(e));
    EXPECT_EQ("not delivered no 4: gone", formatDelivery(DeliveryResult{4, false, "gone"}));
}

TEST(CliCommands, DeviceTableColumnsLineUp) {
    BasicDeviceListMsg list;
    BasicDeviceInfo a;
    a.id = 1000;
    a.duid = "lamp-01";
    a.nname = "Lamp";
    a.status = 6;
    a.specs = "t1";
    BasicDeviceInfo b;
    b.id = 1;
    b.duid = "VHubMainServices";
    b.nname = "HubMainServices";
    b.status = 42;
    list.devList = {a, b};
    std::istringstream in(formatDeviceTable(list));
    std::vector<std::string> lines;
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ(0u, lines[0].find("ID"));
    size_t col = lines[0].find("DUID");
    EXPECT_EQ(col, lines[1].find("lamp-01"));
    EXPECT_EQ(col, lines[2].find("VHubMainServices"));
    size_t state = lines[0].find("STATE");
    EXPECT_EQ(state, lines[1].find("connected"));
    EXPECT_EQ(state, lines[2].find("42"));
    EXPECT_EQ(lines[0].find("SPECS"), lines[1].find("t1"));
}
