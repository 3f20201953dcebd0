// velto-device: a device simulator. It joins a hub as a device with the
// objects given on the command line and then turns command lines from standard
// input into messages, notifications and subscriptions, printing what arrives
// one line at a time; or, with "list", prints the hub's device list. A lost
// hub is rejoined by the session; the simulator keeps reading commands.
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "Device/CliCommands.h"
#include "Device/CliOptions.h"
#include "Device/DeviceSession.h"

using namespace device;

namespace {

constexpr int LIST_TIMEOUT_MS = 3000;
constexpr int QUIT_FLUSH_MS = 10000;

void say(const std::string& line) {
    std::cout << line << '\n' << std::flush;
}

void warn(const std::string& line) {
    std::cerr << "velto-device: " << line << '\n' << std::flush;
}

std::string joinedLine(const DeviceSession& s) {
    std::ostringstream os;
    os << "joined hub " << s.hubAddress() << " as node " << s.nodeId() << " name " << s.assignedName()
       << " domain " << s.config().domain << " objects " << s.config().objects.size();
    return os.str();
}

// Resolves NODE: a number is taken as it is, anything else is a DUID looked up
// in the hub's device list. Returns -1 (after a warning) when not found.
int resolveNode(DeviceSession& s, const std::string& node) {
    uint32_t id = 0;
    if (parseNumber(node, 65535, id)) return static_cast<int>(id);
    BasicDeviceListMsg list;
    if (!s.requestDeviceList(list, LIST_TIMEOUT_MS)) {
        warn("ERROR cannot look up \"" + node + "\": " + s.lastError());
        return -1;
    }
    for (const BasicDeviceInfo& d : list.devList)
        if (d.duid == node) return d.id;
    warn("ERROR no device \"" + node + "\" in the hub's device list");
    return -1;
}

// Our object by number or name; -1 (after a warning) when there is none.
int resolveOwnObject(const DeviceSession& s, const std::string& ref) {
    const auto& objs = s.config().objects;
    uint32_t n = 0;
    if (parseNumber(ref, 255, n) && n < objs.size()) return static_cast<int>(n);
    for (size_t i = 0; i < objs.size(); ++i)
        if (objs[i].name == ref) return static_cast<int>(i);
    warn("ERROR the device has no object \"" + ref + "\"");
    return -1;
}

void printList(DeviceSession& s) {
    BasicDeviceListMsg list;
    if (!s.requestDeviceList(list, LIST_TIMEOUT_MS)) return warn("ERROR " + s.lastError());
    std::cout << formatDeviceTable(list) << std::flush;
}

// Carries out one command. Returns false when it was quit.
bool runCommand(DeviceSession& s, const Command& c) {
    switch (c.kind) {
        case Command::Kind::EMPTY:
            return true;
        case Command::Kind::QUIT:
            return false;
        case Command::Kind::HELP:
            std::cout << cliUsage() << std::flush;
            return true;
        case Command::Kind::LIST:
            printList(s);
            return true;
        case Command::Kind::SEND: {
            int node = resolveNode(s, c.node);
            if (node < 0) return true;
            int64_t no = s.sendDirect(static_cast<DeviceID>(node), c.objectNo, c.id, c.data);
            if (no < 0) warn("ERROR " + s.lastError());
            return true;
        }
        case Command::Kind::NOTIFY: {
            int obj = resolveOwnObject(s, c.object);
            if (obj < 0) return true;
            if (s.notify(static_cast<uint8_t>(obj), c.id, c.data) < 0) warn("ERROR " + s.lastError());
            return true;
        }
        case Command::Kind::SUBSCRIBE:
        case Command::Kind::UNSUBSCRIBE: {
            int node = resolveNode(s, c.node);
            if (node < 0) return true;
            bool on = c.kind == Command::Kind::SUBSCRIBE;
            if (!s.subscribe(static_cast<DeviceID>(node), c.objectNo, c.id, on))
                warn("ERROR " + s.lastError());
            else
                say(std::string(on ? "subscribed" : "unsubscribed") + " " + std::to_string(node) + "/" + std::to_string(c.objectNo) +
                    " event " + std::to_string(c.id));
            return true;
        }
    }
    return true;
}

// Reads what standard input has and runs the complete lines. Returns false at
// quit or end of input.
bool readCommands(DeviceSession& s, std::string& pending) {
    char buf[4096];
    ssize_t n = read(STDIN_FILENO, buf, sizeof(buf));
    if (n <= 0) return false;
    pending.append(buf, static_cast<size_t>(n));
    size_t nl;
    while ((nl = pending.find('\n')) != std::string::npos) {
        std::string line = pending.substr(0, nl);
        pending.erase(0, nl + 1);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        Command c;
        std::string why;
        if (!parseCommand(line, c, why)) {
            warn("ERROR " + why);
            continue;
        }
        if (!runCommand(s, c)) return false;
    }
    return true;
}

int runDevice(DeviceSession& s) {
    std::string pending;
    bool inputOpen = true;
    while (inputOpen) {
        fd_set fds;
        FD_ZERO(&fds);
        FD_SET(STDIN_FILENO, &fds);
        FD_SET(s.handle(), &fds);
        timeval tv{0, std::min(s.pollSliceMs(), 25) * 1000};
        int ready = select(std::max(STDIN_FILENO, s.handle()) + 1, &fds, nullptr, nullptr, &tv);
        if (s.poll(0) < 0) {
            warn("ERROR " + s.lastError());
            return 1;
        }
        if (ready > 0 && FD_ISSET(STDIN_FILENO, &fds)) inputOpen = readCommands(s, pending);
    }
    if (!s.flush(QUIT_FLUSH_MS)) warn("ERROR " + s.lastError());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    CliOptions opts;
    std::string why;
    if (!parseCliOptions(args, opts, why)) {
        std::cerr << "velto-device: ERROR " << why << "\nTry velto-device --help\n";
        return 2;
    }
    if (opts.mode == CliOptions::Mode::HELP) {
        std::cout << cliUsage();
        return 0;
    }
    DeviceSession session(opts.device);
    session.onDiagnostic([](const std::string& line) { warn(line); });
    session.onMessage([](const IncomingMessage& m) { say(formatMessage(m)); });
    session.onError([](const MessageError& e) { say(formatError(e)); });
    session.onDelivery([](const DeliveryResult& r) { say(formatDelivery(r)); });
    // The session rejoins by itself; we only say so and go on reading commands.
    session.onSessionChange([&session](bool up) {
        say(up ? "re" + joinedLine(session) : "lost the hub: " + session.lastError() + "; rejoining");
    });
    if (!session.join(opts.joinTimeoutMs)) {
        warn("ERROR " + session.lastError());
        return 1;
    }
    if (opts.mode == CliOptions::Mode::LIST) {
        BasicDeviceListMsg list;
        if (!session.requestDeviceList(list, LIST_TIMEOUT_MS)) {
            warn("ERROR " + session.lastError());
            return 1;
        }
        std::cout << formatDeviceTable(list) << std::flush;
        return 0;
    }
    say(joinedLine(session));
    return runDevice(session);
}
