#include "Device/CliCommands.h"

#include <gtest/gtest.h>

using namespace device;

TEST(CliCommands, SendKeepsTheRestOfTheLineAsDataAndBadLinesSayWhy) {
    Command c;
    std::string why;
    ASSERT_TRUE(parseCommand("send 1001/2 40  two  spaces ", c, why)) << why;
    EXPECT_EQ(Command::Kind::SEND, c.kind);
    EXPECT_EQ("1001", c.node);
    EXPECT_EQ(2, c.objectNo);
    EXPECT_EQ(40, c.id);
    EXPECT_EQ(" two  spaces ", std::string(c.data.begin(), c.data.end()));
    for (const char* bad : {"jump", "send 1001 1 x", "send 1001/256 1 x", "send 1001/0 70000 x",
                            "send 1001/0 1 hex:abc", "subscribe 1000 1"}) {
        c.kind = Command::Kind::LIST;
        EXPECT_FALSE(parseCommand(bad, c, why)) << bad;
        EXPECT_FALSE(why.empty()) << bad;
        EXPECT_EQ(Command::Kind::LIST, c.kind) << "left untouched";
    }
}

TEST(CliCommands, DataIsShownAsTextOnlyWhenThatIsUnambiguous) {
    EXPECT_EQ("hello", formatData({'h', 'e', 'l', 'l', 'o'}));
    EXPECT_EQ("hex:680a", formatData({'h', '\n'}));
    for (std::vector<uint8_t> d : {std::vector<uint8_t>{0, 1, 255}, std::vector<uint8_t>{'h', 'e', 'x', ':'}}) {
        std::vector<uint8_t> back;
        std::string why;
        ASSERT_TRUE(parseData(formatData(d), back, why));
        EXPECT_EQ(d, back) << "what is printed parses back to the same bytes";
    }
}
