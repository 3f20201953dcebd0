// Timing of the project's own HMAC-SHA1 and HMAC-SHA256 over one 400-byte
// packet (the largest datagram), as the signature code computes them: a fresh
// keyed hasher per packet. Time is this process's CPU time, so other load on
// the machine slows the figure less than wall-clock time would.
//
//   hmac-bench [--ms 1000]
// Prints one HMAC line per algorithm: ops per second and MB per second.
#include <cstdio>
#include <string>

#include "Velto/Sha/sha1.h"
#include "Velto/Sha/sha256.h"
#include "bench/common/bench_clock.h"
#include "bench/common/cli_args.h"
#include "bench/common/result_line.h"

namespace {

constexpr size_t PACKET = 400;

template <typename Hasher>
uint8_t hmacOnce(const uint8_t* key, int keyLen, const uint8_t* data) {
    Hasher h;
    h.initHmac(key, keyLen);
    h.write(data, PACKET);
    return h.resultHmac()[0];
}

// Runs batches for at least `ms` of CPU time; returns operations per second.
template <typename Hasher>
double measure(int keyLen, uint64_t ms, uint64_t& ops) {
    uint8_t key[32];
    uint8_t data[PACKET];
    for (size_t i = 0; i < sizeof(key); ++i) key[i] = static_cast<uint8_t>(i * 7 + 1);
    for (size_t i = 0; i < PACKET; ++i) data[i] = static_cast<uint8_t>(i * 31 + 3);
    uint8_t sink = 0;
    ops = 0;
    uint64_t c0 = bench::selfCpuNs();
    uint64_t limit = bench::msToNs(ms);
    uint64_t used = 0;
    while (used < limit) {
        for (int i = 0; i < 256; ++i) {
            data[0] = static_cast<uint8_t>(data[0] + sink);  // each result feeds the next packet
            sink = hmacOnce<Hasher>(key, keyLen, data);
        }
        ops += 256;
        used = bench::selfCpuNs() - c0;
    }
    return static_cast<double>(ops) / (static_cast<double>(used) / 1e9);
}

void report(const char* name, double opsPerSec, uint64_t ops) {
    std::printf("%s\n", bench::formatResult("HMAC", {{"alg", name},
                                                     {"bytes", std::to_string(PACKET)},
                                                     {"ops", std::to_string(ops)},
                                                     {"ops_per_s", bench::fixed(opsPerSec, 0)},
                                                     {"mb_per_s", bench::fixed(opsPerSec * PACKET / 1e6, 1)}})
                            .c_str());
}

}  // namespace

int main(int argc, char** argv) {
    bench::CliArgs args(argc, argv);
    uint64_t ms = static_cast<uint64_t>(args.number("ms", 1000));
    uint64_t ops = 0;
    double sha1 = measure<Sha1Class>(20, ms, ops);
    report("sha1", sha1, ops);
    double sha256 = measure<Sha256Class>(32, ms, ops);
    report("sha256", sha256, ops);
    return 0;
}
