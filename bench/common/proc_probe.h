// Figures of another process read from /proc: CPU time used and resident memory.
// Meant for single-threaded servers (the scheduler figure is that of the main
// thread). Every function returns -1 when the process is gone or the file
// cannot be read.
#pragma once

#include <cstdint>

namespace bench {

// CPU time (user + system) consumed so far, in nanoseconds: the scheduler's run
// time from /proc/PID/schedstat when it is kept, otherwise utime + stime from
// /proc/PID/stat (clock-tick resolution).
int64_t processCpuNs(int pid);

// Resident set size (VmRSS of /proc/PID/status), in KiB.
int64_t processRssKb(int pid);

}  // namespace bench
