// Figures of another process read from /proc: CPU time used and resident memory;
// and the namespace's count of UDP datagrams dropped for a full receive buffer.
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

// Datagrams this network namespace dropped because a socket's receive buffer
// was full (RcvbufErrors of the Udp line in /proc/net/snmp), or -1.
int64_t udpReceiveBufferDrops();

}  // namespace bench
