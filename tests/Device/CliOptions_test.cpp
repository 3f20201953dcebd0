#include "Device/CliOptions.h"

#include <gtest/gtest.h>

using namespace device;

TEST(CliOptions, FullRunModeCommandLine) {
    CliOptions o;
    std::string why;
    ASSERT_TRUE(parseCliOptions({"--duid", "lamp-01", "--hub", "[127.0.0.1]:5000", "--domain", "Home", "--main-key",
                                 "00A1ff10", "--object", "light:sw.1", "dim:localhost:8080/x", "--sign", "--timeout",
                                 "1500"},
                                o, why))
        << why;
    EXPECT_EQ(CliOptions::Mode::RUN, o.mode);
    EXPECT_FALSE(o.device.discover);
    EXPECT_EQ(5000, o.device.hub.port());
    EXPECT_EQ((std::vector<uint8_t>{0x00, 0xa1, 0xff, 0x10}), o.device.mainKey);
    ASSERT_EQ(2u, o.device.objects.size());
    EXPECT_EQ("sw.1", o.device.objects[0].interface);
    EXPECT_EQ("localhost:8080/x", o.device.objects[1].interface) << "split at the first colon only";
    EXPECT_TRUE(o.device.sign);
    EXPECT_EQ(1500, o.joinTimeoutMs);
}

TEST(CliOptions, BadArgumentsAreRefusedWithAReason) {
    const std::vector<std::vector<std::string>> bad = {
        {}, {"--duid"}, {"--duid", "a", "--bogus"}, {"--duid", "a", "--main-key", "abc"},
        {"--duid", "a", "--hub", "hub.example"}, {"--duid", "a", "--hub", "1.2.3.4:70000"},
        {"--duid", "a", "--object", ":iface"}, {"--duid", "a", "--timeout", "0"}, {"--duid", "a/b"},
    };
    for (const auto& args : bad) {
        CliOptions o;
        std::string why;
        EXPECT_FALSE(parseCliOptions(args, o, why)) << (args.empty() ? "(none)" : args.back());
        EXPECT_FALSE(why.empty());
    }
}
