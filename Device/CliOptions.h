// Command-line options of the device simulator: parsing of the arguments into
// a device configuration and a mode, and the help text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Device/DeviceConfig.h"
#include "Velto/UdpSocket.h"

namespace device {

struct CliOptions {
    enum class Mode { RUN, LIST, HELP };
    Mode mode = Mode::RUN;
    DeviceConfig device;
    int joinTimeoutMs = 5000;
};

// Parses the arguments after the program name. Returns true with out filled
// (defaults applied); false with why set to one line on any bad argument.
bool parseCliOptions(const std::vector<std::string>& args, CliOptions& out, std::string& why);

// The help text, several lines, ending with a line end.
std::string cliUsage();

// "a.b.c.d", "a.b.c.d:port", "[a.b.c.d]:port" or "localhost[:port]"; the port
// defaults to 1881. No name is looked up. Returns false (out untouched) on
// anything else.
bool parseHubAddress(const std::string& text, SockAddress& out);

// Hexadecimal digits, two per byte, either case. Returns false (out untouched)
// on an odd count or a non-hex character.
bool parseHex(const std::string& text, std::vector<uint8_t>& out);

// A decimal number within [0, max]. Returns false (out untouched) otherwise.
bool parseNumber(const std::string& text, uint32_t max, uint32_t& out);

}  // namespace device
