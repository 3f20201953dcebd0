#include "Device/DeviceConfig.h"

#include <gtest/gtest.h>

#include <functional>

using namespace device;

// Each field beyond what a file name or its wire field can hold is refused
// with a reason; the default configuration with a DUID and one object passes.
TEST(DeviceConfig, DuidAndFieldsBeyondTheirWireCapsAreRefused) {
    const std::vector<std::function<void(DeviceConfig&)>> bad = {
        [](DeviceConfig& c) { c.duid = ".."; },
        [](DeviceConfig& c) { c.duid = "a/b"; },
        [](DeviceConfig& c) { c.duid = std::string(33, 'd'); },
        [](DeviceConfig& c) { c.objects.clear(); },
        [](DeviceConfig& c) { c.objects.assign(256, DeviceObject{"o", "i", 0, 0}); },
        [](DeviceConfig& c) { c.mainKey.assign(33, 1); },
        [](DeviceConfig& c) { c.specs = "has blank"; },
        [](DeviceConfig& c) { c.objects[0].interface = std::string(33, 'i'); },
    };
    for (size_t i = 0; i <= bad.size(); ++i) {
        DeviceConfig c;
        c.duid = std::string(32, 'd');
        c.objects.push_back(DeviceObject{"main", "iface", 0, 0});
        if (i < bad.size()) bad[i](c);
        std::string why;
        EXPECT_EQ(i == bad.size(), validateConfig(c, why)) << "case " << i << ": " << why;
        if (i < bad.size()) {
            EXPECT_FALSE(why.empty()) << "case " << i;
        }
    }
}
