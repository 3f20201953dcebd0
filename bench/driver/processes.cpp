// Starting, stopping and waiting for the driver's children.
#include "bench/driver/processes.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "bench/common/bench_clock.h"

namespace bench {

namespace {

void redirect(const std::string& path, int target) {
    int fd = ::open(path.empty() ? "/dev/null" : path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) return;
    ::dup2(fd, target);
    ::close(fd);
}

int statusOf(int raw) { return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1; }

}  // namespace

int startChild(const ChildSpec& spec) {
    if (spec.argv.empty()) return -1;
    std::vector<char*> argv;
    for (const std::string& a : spec.argv) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t parent = ::getpid();
    pid_t pid = ::fork();
    if (pid != 0) return pid < 0 ? -1 : pid;
    // Child: die with the driver, run in its own directory, output to files.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(126);
    if (!spec.cwd.empty() && ::chdir(spec.cwd.c_str()) != 0) ::_exit(126);
    int devnull = ::open("/dev/null", O_RDONLY);
    if (devnull >= 0) ::dup2(devnull, 0);
    redirect(spec.outFile, 1);
    redirect(spec.errFile, 2);
    ::execv(argv[0], argv.data());
    ::_exit(127);
}

bool childRunning(int pid) {
    if (pid <= 0) return false;
    int raw = 0;
    return ::waitpid(pid, &raw, WNOHANG) == 0;
}

int stopChild(int pid, int graceMs) {
    if (pid <= 0) return -1;
    int raw = 0;
    if (::waitpid(pid, &raw, WNOHANG) == pid) return statusOf(raw);
    ::kill(pid, SIGTERM);
    uint64_t deadline = nowNs() + msToNs(static_cast<uint64_t>(graceMs));
    while (nowNs() < deadline) {
        if (::waitpid(pid, &raw, WNOHANG) == pid) return statusOf(raw);
        sleepMs(5);
    }
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &raw, 0);
    return -1;
}

int runChild(const ChildSpec& spec, int timeoutMs) {
    int pid = startChild(spec);
    if (pid < 0) return -1;
    uint64_t deadline = nowNs() + msToNs(static_cast<uint64_t>(timeoutMs));
    int raw = 0;
    while (nowNs() < deadline) {
        if (::waitpid(pid, &raw, WNOHANG) == pid) return statusOf(raw);
        sleepMs(10);
    }
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &raw, 0);
    return -1;
}

bool waitForText(const std::string& path, const std::string& text, int timeoutMs, int pid) {
    uint64_t deadline = nowNs() + msToNs(static_cast<uint64_t>(timeoutMs));
    while (nowNs() < deadline) {
        if (readFile(path).find(text) != std::string::npos) return true;
        if (pid > 0 && !childRunning(pid)) return false;
        sleepMs(10);
    }
    return false;
}

bool waitForTcpPort(uint16_t port, int timeoutMs, int pid) {
    uint64_t deadline = nowNs() + msToNs(static_cast<uint64_t>(timeoutMs));
    sockaddr_in a;
    std::memset(&a, 0, sizeof(a));
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    while (nowNs() < deadline) {
        int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd >= 0) {
            bool up = ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0;
            ::close(fd);
            if (up) return true;
        }
        if (pid > 0 && !childRunning(pid)) return false;
        sleepMs(10);
    }
    return false;
}

uint16_t freeTcpPort() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return 0;
    sockaddr_in a;
    std::memset(&a, 0, sizeof(a));
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(a);
    uint16_t port = 0;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    ::close(fd);
    return port;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

bool writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

bool makeDirs(const std::string& path) {
    std::error_code ec;
    std::filesystem::create_directories(path, ec);
    return !ec && std::filesystem::is_directory(path, ec);
}

bool removeTree(const std::string& path) {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
    return !ec;
}

size_t countLines(const std::string& text, const std::string& needle) {
    size_t n = 0;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line))
        if (line.find(needle) != std::string::npos) ++n;
    return n;
}

void sleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

}  // namespace bench
