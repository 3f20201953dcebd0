// Bringing benchmark devices into a hub with the device library: adoption,
// join and configuration exchange, one device after the other, each with one
// object. The sessions are kept (they own the sockets) but are not polled
// afterwards: the pair traffic uses their sockets directly.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Device/DeviceSession.h"

namespace bench {

// Joins `count` devices named prefix + number to the hub at hubPort on
// 127.0.0.1. Returns true when all joined; false with why set (the sessions
// joined so far stay in `out`).
bool joinWithLibrary(int count, const std::string& prefix, uint16_t hubPort,
                     std::vector<std::unique_ptr<device::DeviceSession>>& out, std::string& why);

}  // namespace bench
