// Monotonic clock of the benchmarks: nanoseconds since an arbitrary start,
// comparable between processes on the same machine.
#pragma once

#include <cstdint>
#include <ctime>

namespace bench {

inline uint64_t nowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

inline uint64_t msToNs(uint64_t ms) { return ms * 1000000ull; }

// CPU time (user + system) of the calling process, in nanoseconds.
inline uint64_t selfCpuNs() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

}  // namespace bench
