#include "Velto/platform.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

namespace {

int64_t systemMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

// "aa:bb:..." (as the kernel shows it) in the kept identity form: the first byte
// padded to two digits, the others unpadded, no separators.
std::string identityForm(const std::string& colonText) {
    std::string out;
    size_t pos = 0;
    for (int i = 0; i < 6 && pos < colonText.size(); ++i) {
        std::string part = colonText.substr(pos, 2);
        pos += 3;
        if (i > 0 && part[0] == '0') part = part.substr(1);
        out += part;
    }
    return out;
}

bool allZero(const uint8_t* p, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (p[i] != 0) return false;
    return true;
}

}  // namespace

TEST(PlatformClockTest, MillisecondsSinceEpochAndTestOffset) {
    const int64_t before = systemMs();
    const Timestamp t = currentTime();
    const int64_t after = systemMs();
    EXPECT_GE(static_cast<int64_t>(t), before);
    EXPECT_LE(static_cast<int64_t>(t), after);

    const int64_t hour = 3600 * 1000;
    setClockOffsetForTesting(hour);
    const Timestamp moved = currentTime();
    setClockOffsetForTesting(0);
    const Timestamp back = currentTime();
    EXPECT_GE(moved, t + hour);
    EXPECT_LT(moved, t + hour + 60000);
    EXPECT_LT(back, moved);
    EXPECT_GE(back, t);

    setClockOffsetForTesting(-hour);
    EXPECT_LT(currentTime(), back);
    setClockOffsetForTesting(0);
}

TEST(PlatformRandomTest, RawBuffer) {
    uint8_t buf[64] = {};
    EXPECT_TRUE(generateRandomData(0, buf));
    EXPECT_TRUE(allZero(buf, sizeof(buf)));
    EXPECT_FALSE(generateRandomData(8, nullptr));
    EXPECT_FALSE(generateRandomData(0, nullptr));

    ASSERT_TRUE(generateRandomData(32, buf));
    EXPECT_FALSE(allZero(buf, 32));
    EXPECT_TRUE(allZero(buf + 32, 32));  // nothing past the count
    uint8_t other[32];
    ASSERT_TRUE(generateRandomData(32, other));
    EXPECT_NE(0, memcmp(buf, other, 32));
}

TEST(PlatformRandomTest, ByteArraySizes) {
    ByteArray<32> full;
    ASSERT_TRUE(generateRandomData(full, 0));
    EXPECT_EQ(32u, full.size());
    EXPECT_FALSE(allZero(full.data(), 32));

    ByteArray<32> part;
    ASSERT_TRUE(generateRandomData(part, 5));
    EXPECT_EQ(5u, part.size());
    EXPECT_TRUE(allZero(part.data() + 5, 27));

    ByteArray<32> capped;
    ASSERT_TRUE(generateRandomData(capped, 100));
    EXPECT_EQ(32u, capped.size());
}

TEST(PlatformRandomTest, Numbers) {
    uint64_t a = 0, b = 0;
    ASSERT_TRUE(randomNumber(a));
    ASSERT_TRUE(randomNumber(b));
    EXPECT_NE(a, b);

    std::set<uint32_t> seen;
    for (int i = 0; i < 8; ++i) {
        uint32_t v = 0;
        ASSERT_TRUE(randomNumber(v));
        seen.insert(v);
    }
    EXPECT_GT(seen.size(), 1u);
}

TEST(PlatformMacTest, IsEmptyOrTheFormOfAHostInterface) {
    std::set<std::string> candidates;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator("/sys/class/net", ec)) {
        if (entry.path().filename() == "lo") continue;
        std::ifstream in(entry.path() / "address");
        std::string text;
        if (in >> text) candidates.insert(identityForm(text));
    }
    const std::string mac = firstActiveMACAddr();
    if (!mac.empty()) {
        EXPECT_EQ(1u, candidates.count(mac)) << mac;
    }
    EXPECT_EQ(mac, firstActiveMACAddr());  // repeatable
}

// In a private network namespace: loopback only gives "", and an interface with
// the address 00:1a:0b:22:03:ff gives the unpadded form. Needs root and veth.
TEST(PlatformMacTest, PrivateNamespace) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        alarm(20);
        if (unshare(CLONE_NEWNET) != 0) _exit(77);
        if (!firstActiveMACAddr().empty()) _exit(1);
        const int rc = std::system(
            "ip link add v0 type veth peer name v1 >/dev/null 2>&1 && "
            "ip link set v0 address 00:1a:0b:22:03:ff >/dev/null 2>&1 && "
            "ip addr add 10.9.9.9/32 dev v0 >/dev/null 2>&1");
        if (rc != 0) _exit(78);
        _exit(firstActiveMACAddr() == "001ab223ff" ? 0 : 2);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    const int code = WEXITSTATUS(status);
    if (code == 77 || code == 78) GTEST_SKIP() << "no private network namespace or veth here";
    EXPECT_NE(1, code) << "loopback-only namespace did not give the empty text";
    EXPECT_NE(2, code) << "wrong identity text for 00:1a:0b:22:03:ff";
    EXPECT_EQ(0, code);
}
