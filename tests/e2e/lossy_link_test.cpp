// Long messages between two velto-device simulators, each behind its own
// velto-link that drops 2 %, duplicates 1 % and holds back 1 % of the
// datagrams both ways: they arrive intact and once. The real hub, links and
// simulators run as processes inside a private network namespace.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "tests/support/device_scenario.h"

using namespace testsupport;

namespace {

size_t occurrences(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) ++n;
    return n;
}

class LossyLink : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(insidePrivateNetwork()) << "run through tests/netns.sh";
        ASSERT_EQ(0, mkdir(work.file("DB").c_str(), 0755));
        ASSERT_TRUE(hub.start({VELTO_HUB_BIN}, work.path(), "hub"));
        ASSERT_TRUE(hub.waitForOutput("Successfully bind", 5000)) << hub.out();
        const char* port[2] = {"19101", "19102"};
        const char* duid[2] = {"lossy-a", "lossy-b"};
        for (int i = 0; i < 2; ++i) {
            ASSERT_TRUE(link[i].start({VELTO_LINK_BIN, "--listen", port[i], "--drop", "0.02", "--duplicate",
                                       "0.01", "--reorder", "0.01", "--seed", std::to_string(40 + i)},
                                      work.path(), std::string("link-") + duid[i]));
            ASSERT_TRUE(link[i].waitForOutput("relaying", 5000)) << link[i].err();
            ASSERT_TRUE(dev[i].start({VELTO_DEVICE_BIN, "--duid", duid[i], "--specs", "ab", "--hub",
                                      std::string("127.0.0.1:") + port[i], "--timeout", "10000"},
                                     work.path(), duid[i]));
            ASSERT_TRUE(dev[i].waitForOutput(" objects 1\n", 12000)) << dev[i].err();
        }
        const std::string joined = dev[1].out();
        const size_t at = joined.find(" as node ") + 9;
        nodeB = joined.substr(at, joined.find(' ', at) - at);
    }

    TempDir work;
    ChildProcess hub, link[2], dev[2];
    std::string nodeB;
};

}  // namespace

TEST_F(LossyLink, LongMessagesArriveIntactWithinTheirBounds) {
    const struct Case { size_t size; int withinMs; } cases[] = {{65536, 5000}, {1000000, 30000}};
    uint8_t seed = 1;
    for (const Case& c : cases) {
        const std::string hex = hexOf(pattern(c.size, seed++));  // not all printable: shown as hex
        dev[0].writeLine("send " + nodeB + "/0 5 hex:" + hex);
        EXPECT_TRUE(dev[1].waitForOutput("size " + std::to_string(c.size) + ": hex:" + hex + "\n", c.withinMs))
            << c.size << " bytes\n" << dev[1].err().substr(0, 2000) << dev[0].err().substr(0, 2000);
    }
    // The hub acknowledges a whole message once and stays silent to repeats of
    // its last piece, so when the link drops that acknowledgement the sender
    // cannot tell and reports the message not delivered after its resends.
    // That may happen to one of the two, not (but once in thousands) to both.
    ASSERT_TRUE(dev[0].waitForOutput("delivered no 2", 8000)) << dev[0].err().substr(0, 2000);
    const std::string outcomes = dev[0].out(), unsure = ": no acknowledgement after 11 resends\n";
    const bool ok1 = outcomes.find("\ndelivered no 1\n") != std::string::npos,
               ok2 = outcomes.find("\ndelivered no 2\n") != std::string::npos;
    EXPECT_TRUE((ok1 || ok2) && (ok1 || outcomes.find("not delivered no 1" + unsure) != std::string::npos) &&
                (ok2 || outcomes.find("not delivered no 2" + unsure) != std::string::npos))
        << outcomes.substr(0, 2000);
    sleepMs(300);
    EXPECT_EQ(2u, occurrences(dev[1].out(), "message from ")) << "each message delivered once";
    // The faults did happen on both legs of the sender's link.
    ASSERT_EQ(0, link[0].terminate());
    for (const char* leg : {"up ", "down "}) {
        const std::string out = link[0].out();
        const std::string line = out.substr(out.find(leg), out.find('\n', out.find(leg)) - out.find(leg));
        for (const char* fault : {" 0 dropped", " 0 duplicated", " 0 held back"})
            EXPECT_EQ(std::string::npos, line.find(fault)) << line;
    }
}
