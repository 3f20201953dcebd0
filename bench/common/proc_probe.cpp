// Reading CPU time and resident memory of a process from /proc.
#include "bench/common/proc_probe.h"

#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace bench {

namespace {

std::string procPath(int pid, const char* file) { return "/proc/" + std::to_string(pid) + "/" + file; }

int64_t schedstatNs(int pid) {
    std::ifstream in(procPath(pid, "schedstat"));
    long long runNs = -1;
    if (!(in >> runNs)) return -1;
    return runNs;
}

int64_t statTicksNs(int pid) {
    std::ifstream in(procPath(pid, "stat"));
    std::string line;
    if (!std::getline(in, line)) return -1;
    // The command name may hold blanks; fields are counted after its ')'.
    size_t close = line.rfind(')');
    if (close == std::string::npos) return -1;
    std::istringstream rest(line.substr(close + 1));
    std::string field;
    long long utime = -1, stime = -1;
    for (int i = 3; i <= 15 && rest >> field; ++i) {
        if (i == 14) utime = std::stoll(field);
        if (i == 15) stime = std::stoll(field);
    }
    if (utime < 0 || stime < 0) return -1;
    long tick = sysconf(_SC_CLK_TCK);
    if (tick <= 0) return -1;
    return (utime + stime) * (1000000000LL / tick);
}

}  // namespace

int64_t processCpuNs(int pid) {
    if (pid <= 0) return -1;
    int64_t ns = schedstatNs(pid);
    if (ns > 0) return ns;
    return statTicksNs(pid);
}

int64_t processRssKb(int pid) {
    if (pid <= 0) return -1;
    std::ifstream in(procPath(pid, "status"));
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, 6, "VmRSS:") != 0) continue;
        std::istringstream fields(line.substr(6));
        long long kb = -1;
        if (fields >> kb) return kb;
        return -1;
    }
    return -1;
}

int64_t udpReceiveBufferDrops() {
    // Two "Udp:" lines: field names, then values.
    std::ifstream in("/proc/net/snmp");
    std::string line, names;
    while (std::getline(in, line)) {
        if (line.compare(0, 4, "Udp:") != 0) continue;
        if (names.empty()) {
            names = line;
            continue;
        }
        std::istringstream n(names), v(line);
        std::string name, value;
        while (n >> name && v >> value)
            if (name == "RcvbufErrors") return std::stoll(value);
        return -1;
    }
    return -1;
}

}  // namespace bench
