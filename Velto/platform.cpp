#include "Velto/platform.h"

#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iomanip>
#include <sstream>

namespace {

std::atomic<int64_t> clockOffset{0};

// Reads exactly n bytes of "/dev/urandom" into out; false when the device does
// not open or falls short. The device is opened and closed on every call, with
// plain system calls: a file stream would allocate its buffer and set up its
// locale each time, which costs more than the read (pings take a value each).
bool readRandomDevice(void* out, size_t n) {
    const int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    uint8_t* p = static_cast<uint8_t*>(out);
    size_t left = n;
    while (left > 0) {
        const ssize_t got = ::read(fd, p, left);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        p += got;
        left -= static_cast<size_t>(got);
    }
    ::close(fd);
    return left == 0;
}

// The interface list is read into this buffer.
char ifListBuffer[1024];

// The six hardware address bytes in the kept identity form: fill "0" and width 2
// are set once, so only the first byte is padded.
std::string formatMac(const unsigned char* mac) {
    std::ostringstream os;
    os << std::hex << std::setfill('0') << std::setw(2);
    for (int i = 0; i < 6; ++i) os << static_cast<unsigned>(mac[i]);
    return os.str();
}

// The hardware address of the first non-loopback entry of the list, or "".
std::string firstNonLoopbackMac(int sock, const ifconf& conf) {
    const size_t count = static_cast<size_t>(conf.ifc_len) / sizeof(ifreq);
    for (size_t i = 0; i < count; ++i) {
        ifreq req;
        memcpy(&req, &conf.ifc_req[i], sizeof(req));
        if (ioctl(sock, SIOCGIFFLAGS, &req) != 0) continue;
        if (req.ifr_flags & IFF_LOOPBACK) continue;
        if (ioctl(sock, SIOCGIFHWADDR, &req) != 0) continue;
        return formatMac(reinterpret_cast<const unsigned char*>(req.ifr_hwaddr.sa_data));
    }
    return "";
}

}  // namespace

Timestamp currentTime() {
    using namespace std::chrono;
    const auto ms = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    return static_cast<Timestamp>(static_cast<int64_t>(ms) + clockOffset.load());
}

void setClockOffsetForTesting(int64_t milliseconds) {
    clockOffset.store(milliseconds);
}

bool randomNumber(uint32_t& out) {
    return readRandomDevice(&out, sizeof(out));
}

bool randomNumber(uint64_t& out) {
    return readRandomDevice(&out, sizeof(out));
}

bool generateRandomData(size_t n, uint8_t* out) {
    if (out == nullptr) return false;
    return readRandomDevice(out, n);
}

std::string firstActiveMACAddr() {
    const int sock = socket(AF_INET, SOCK_DGRAM, 0);
    if (sock < 0) return "";
    ifconf conf;
    conf.ifc_len = sizeof(ifListBuffer);
    conf.ifc_buf = ifListBuffer;
    std::string mac;
    if (ioctl(sock, SIOCGIFCONF, &conf) == 0) mac = firstNonLoopbackMac(sock, conf);
    close(sock);
    return mac;
}
