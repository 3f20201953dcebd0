#include "Device/CliOptions.h"

#include <gtest/gtest.h>

using namespace device;

namespace {

bool parse(std::vector<std::string> args, CliOptions& o, std::string& why) { return parseCliOptions(args, o, why); }

}  // namespace

TEST(CliOptions, FullRunModeCommandLine) {
    CliOptions o;
    std::string why;
    ASSERT_TRUE(parse({"--duid", "lamp-01", "--hub", "127.0.0.1:5000", "--domain", "Home", "--main-key",
                       "00A1ff10", "--specs", "t1", "--object", "light:sw.1", "dim:localhost:8080/x", "--sign",
                       "--timeout", "1500", "--name", "Lamp"},
                      o, why))
        << why;
    EXPECT_EQ(CliOptions::Mode::RUN, o.mode);
    EXPECT_EQ("lamp-01", o.device.duid);
    EXPECT_FALSE(o.device.discover);
    EXPECT_EQ(5000, o.device.hub.port());
    EXPECT_EQ("Home", o.device.domain);
    EXPECT_EQ((std::vector<uint8_t>{0x00, 0xa1, 0xff, 0x10}), o.device.mainKey);
    EXPECT_EQ("t1", o.device.specs);
    ASSERT_EQ(2u, o.device.objects.size());
    EXPECT_EQ("light", o.device.objects[0].name);
    EXPECT_EQ("sw.1", o.device.objects[0].interface);
    EXPECT_EQ("localhost:8080/x", o.device.objects[1].interface) << "split at the first colon only";
    EXPECT_TRUE(o.device.sign);
    EXPECT_EQ(1500, o.joinTimeoutMs);
    EXPECT_EQ("Lamp", o.device.name);
}

TEST(CliOptions, DefaultsOfRunAndListModes) {
    CliOptions o;
    std::string why;
    ASSERT_TRUE(parse({"--duid", "d1"}, o, why)) << why;
    EXPECT_TRUE(o.device.discover);
    EXPECT_EQ("TestDomain_KVZ1", o.device.domain);
    ASSERT_EQ(1u, o.device.objects.size());
    EXPECT_FALSE(o.device.sign);
    ASSERT_TRUE(parse({"list", "--hub", "10.1.2.3"}, o, why)) << why;
    EXPECT_EQ(CliOptions::Mode::LIST, o.mode);
    EXPECT_FALSE(o.device.duid.empty());
    EXPECT_EQ(1881, o.device.hub.port());
    EXPECT_STREQ("10.1.2.3", o.device.hub.ipAddr());
    ASSERT_TRUE(parse({"--help"}, o, why));
    EXPECT_EQ(CliOptions::Mode::HELP, o.mode);
}

TEST(CliOptions, BadArgumentsAreRefusedWithAReason) {
    const std::vector<std::vector<std::string>> bad = {
        {},                                        // no duid
        {"--duid"},                                // missing value
        {"--duid", "a", "--bogus"},                // unknown option
        {"--duid", "a", "stray"},                  // stray word
        {"--duid", "a", "--main-key", "abc"},      // odd hex
        {"--duid", "a", "--main-key", "zz"},       // not hex
        {"--duid", "a", "--hub", "hub.example"},   // a name, not an address
        {"--duid", "a", "--hub", "1.2.3.4:0"},     // port 0
        {"--duid", "a", "--object", ":iface"},     // no name
        {"--duid", "a", "--timeout", "0"},         // no time
        {"--duid", "a/b"},                         // unsafe duid
        {"list", "list"},
    };
    for (const auto& args : bad) {
        CliOptions o;
        std::string why;
        EXPECT_FALSE(parse(args, o, why)) << (args.empty() ? "(none)" : args.back());
        EXPECT_FALSE(why.empty());
    }
}

TEST(CliOptions, HubAddressForms) {
    SockAddress a;
    ASSERT_TRUE(parseHubAddress("[192.168.1.20]:1900", a));
    EXPECT_STREQ("192.168.1.20", a.ipAddr());
    EXPECT_EQ(1900, a.port());
    ASSERT_TRUE(parseHubAddress("localhost", a));
    EXPECT_STREQ("127.0.0.1", a.ipAddr());
    EXPECT_EQ(1881, a.port());
    SockAddress keep("1.1.1.1", 7);
    for (const char* bad : {"", "[1.2.3.4", "1.2.3.4:", "1.2.3.4:70000", "1.2.3", "[1.2.3.4]x", "::1"})
        EXPECT_FALSE(parseHubAddress(bad, keep)) << bad;
    EXPECT_EQ(7, keep.port());
}

TEST(CliOptions, NumbersAndHex) {
    uint32_t v = 5;
    EXPECT_TRUE(parseNumber("65535", 65535, v));
    EXPECT_EQ(65535u, v);
    EXPECT_FALSE(parseNumber("65536", 65535, v));
    EXPECT_FALSE(parseNumber("-1", 65535, v));
    EXPECT_FALSE(parseNumber("99999999999", 0xffffffffu, v));
    EXPECT_EQ(65535u, v);
    std::vector<uint8_t> h;
    EXPECT_TRUE(parseHex("", h));
    EXPECT_TRUE(h.empty());
    EXPECT_TRUE(parseHex("0aFF", h));
    EXPECT_EQ((std::vector<uint8_t>{0x0a, 0xff}), h);
}

