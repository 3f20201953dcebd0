// Child processes for end-to-end tests: a program started in a given working
// directory with its standard input on a pipe and its standard output and
// error in files there, with bounded waits on its output and its exit. Also
// the check that the test runs inside a private network namespace.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace testsupport {

// True when the only network interface is the loopback: we are inside a
// private namespace and nothing sent (multicast included) reaches a real
// network.
bool insidePrivateNetwork();

void sleepMs(int ms);

class ChildProcess {
public:
    ChildProcess() = default;
    ~ChildProcess() { stop(); }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Starts argv[0] (a path) with its arguments in dir, with extra
    // environment entries ("NAME=value"); output goes to dir/NAME.out and
    // dir/NAME.err, both emptied before the start (an earlier run's output is
    // never taken for this one's). Returns false when it could not be started
    // or one is still running.
    bool start(const std::vector<std::string>& argv, const std::string& dir, const std::string& name,
               const std::vector<std::string>& env = {});
    bool running() const { return pid > 0; }
    // True while the process runs (it is reaped when it has ended).
    bool alive();
    pid_t id() const { return pid; }

    // Writes line and a line end to its standard input (closed on failure).
    void writeLine(const std::string& line);
    void closeInput();
    // Everything written so far ("" before start).
    std::string out() const;
    std::string err() const;

    // Waits until out() (err() when inErr) holds text. Returns false after timeoutMs.
    bool waitForOutput(const std::string& text, int timeoutMs, bool inErr = false) const;
    // Waits for the end. Returns the exit status (128 + signal when killed),
    // or -1 when it did not end within timeoutMs (it keeps running).
    int waitExit(int timeoutMs);
    // SIGTERM, then waits. Returns the exit status, or -1 when it had to be
    // killed after timeoutMs or was not running.
    int terminate(int timeoutMs = 3000);
    // terminate(2000), and SIGKILL if that was not enough.
    void stop();
    // SIGKILL at once, and reaped.
    void kill9();

private:
    pid_t pid = -1;
    int stdinFd = -1;
    std::string outPath, errPath;
};

}  // namespace testsupport
