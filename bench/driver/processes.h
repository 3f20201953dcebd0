// Child processes of the benchmark driver: start with standard output and error
// going to files, stop (TERM, then KILL after a grace period), run to completion
// within a time limit, and wait for a process to become ready. Children are
// killed by the kernel if the driver dies (parent-death signal), so nothing
// outlives a run. Every wait is bounded.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

struct ChildSpec {
    std::vector<std::string> argv;  // argv[0] is the program path
    std::string cwd;                // working directory ("" = the driver's)
    std::string outFile;            // standard output ("" = /dev/null)
    std::string errFile;            // standard error ("" = /dev/null)
};

// Starts the child. Returns its pid, or -1 when fork fails (an exec failure
// shows as exit status 127).
int startChild(const ChildSpec& spec);

// True while pid has not exited (reaps it when it has).
bool childRunning(int pid);

// Sends SIGTERM, waits up to graceMs, then SIGKILL and reaps. Returns the exit
// status when the child exited by itself, -1 when it was killed by a signal.
int stopChild(int pid, int graceMs);

// Starts the child and waits for it at most timeoutMs (then kills it). Returns
// its exit status, or -1 when it timed out or died of a signal.
int runChild(const ChildSpec& spec, int timeoutMs);

// Polls `path` until it contains `text`. Returns false after timeoutMs or when
// pid (if > 0) exits first.
bool waitForText(const std::string& path, const std::string& text, int timeoutMs, int pid);

// Polls until a TCP connection to 127.0.0.1:port succeeds. False after timeoutMs
// or when pid (if > 0) exits first.
bool waitForTcpPort(uint16_t port, int timeoutMs, int pid);

// A TCP port on 127.0.0.1 that is free now, or 0.
uint16_t freeTcpPort();

// The whole content of a file ("" when it cannot be read).
std::string readFile(const std::string& path);

// Writes `text` to path, replacing it. Returns false on failure.
bool writeFile(const std::string& path, const std::string& text);

// Creates the directory (and missing parents). Returns false on failure.
bool makeDirs(const std::string& path);

// Removes a directory tree. Returns false when something could not be removed.
bool removeTree(const std::string& path);

// Number of lines of `text` containing `needle`.
size_t countLines(const std::string& text, const std::string& needle);

// Sleeps ms milliseconds.
void sleepMs(int ms);

}  // namespace bench
