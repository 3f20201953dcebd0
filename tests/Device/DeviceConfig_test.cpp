#include "Device/DeviceConfig.h"

#include <gtest/gtest.h>

using namespace device;

namespace {

DeviceConfig valid() {
    DeviceConfig c;
    c.duid = "lamp-01";
    c.objects.push_back(DeviceObject{"main", "iface", 0, 0});
    return c;
}

}  // namespace

TEST(DeviceConfig, DefaultsAndAValidDevicePass) {
    DeviceConfig c = valid();
    std::string why;
    EXPECT_TRUE(validateConfig(c, why)) << why;
    EXPECT_EQ("TestDomain_KVZ1", c.domain);
    EXPECT_TRUE(c.discover);
    SockAddress g = discoveryAddress();
    EXPECT_EQ(1881, g.port());
    EXPECT_STREQ("224.68.12.8", g.ipAddr());
}

TEST(DeviceConfig, DuidMustBeUsableAsAFileName) {
    for (const char* bad : {"", ".", "..", "a/b", "a b", "x\\y", "123456789012345678901234567890123"}) {
        DeviceConfig c = valid();
        c.duid = bad;
        std::string why;
        EXPECT_FALSE(validateConfig(c, why)) << bad;
        EXPECT_FALSE(why.empty());
    }
}

TEST(DeviceConfig, FieldsBeyondTheirWireCapsAreRefused) {
    std::string why;
    DeviceConfig c = valid();
    c.objects.clear();
    EXPECT_FALSE(validateConfig(c, why));
    c = valid();
    c.objects.assign(256, DeviceObject{"o", "i", 0, 0});
    EXPECT_FALSE(validateConfig(c, why));
    c = valid();
    c.mainKey.assign(33, 1);
    EXPECT_FALSE(validateConfig(c, why));
    c = valid();
    c.domain = std::string(33, 'd');
    EXPECT_FALSE(validateConfig(c, why));
    c = valid();
    c.specs = "has blank";
    EXPECT_FALSE(validateConfig(c, why));
    c = valid();
    c.objects[0].interface = std::string(33, 'i');
    EXPECT_FALSE(validateConfig(c, why));
    EXPECT_NE(std::string::npos, why.find("interface"));
}
