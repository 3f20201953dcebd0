// Joining benchmark devices through the device library.
#include "bench/load/hub_join.h"

namespace bench {

namespace {

constexpr int JOIN_TIMEOUT_MS = 5000;

device::DeviceConfig benchDevice(const std::string& duid, uint16_t hubPort) {
    device::DeviceConfig cfg;
    cfg.duid = duid;
    // A two-letter specification id: the hub neither stores nor fetches
    // documents for it, so no download is attempted during the benchmark.
    cfg.specs = "bn";
    cfg.discover = false;
    cfg.hub = SockAddress("127.0.0.1", hubPort);
    device::DeviceObject obj;
    obj.name = "load";
    obj.interface = "bench.1";
    cfg.objects.push_back(obj);
    return cfg;
}

device::SessionTiming quietTiming() {
    // The sessions are not polled after the join, so their own timers never run;
    // these values only matter during the join itself.
    device::SessionTiming t;
    t.pingAfterMs = 3600 * 1000;
    t.lostAfterMs = 3600 * 1000;
    return t;
}

}  // namespace

bool joinWithLibrary(int count, const std::string& prefix, uint16_t hubPort,
                     std::vector<std::unique_ptr<device::DeviceSession>>& out, std::string& why) {
    for (int i = 0; i < count; ++i) {
        std::string duid = prefix + std::to_string(i);
        auto session = std::make_unique<device::DeviceSession>(benchDevice(duid, hubPort), quietTiming());
        if (!session->join(JOIN_TIMEOUT_MS)) {
            why = duid + ": " + session->lastError();
            return false;
        }
        out.push_back(std::move(session));
    }
    return true;
}

}  // namespace bench
