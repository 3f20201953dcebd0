#include "tests/support/child_process.h"

#include <fcntl.h>
#include <net/if.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "tests/support/test_support.h"

namespace testsupport {

namespace {

constexpr int WAIT_SLICE_MS = 20;

// In the child: standard input from the pipe, output to the two files, then
// the program. Never returns.
[[noreturn]] void execChild(const std::vector<std::string>& argv, const std::string& dir,
                            const std::vector<std::string>& env, int in[2], const std::string& outPath,
                            const std::string& errPath) {
    dup2(in[0], 0);
    int o = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int e = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (o < 0 || e < 0) _exit(126);
    dup2(o, 1);
    dup2(e, 2);
    close(in[0]);
    close(in[1]);
    if (chdir(dir.c_str()) != 0) _exit(126);
    for (const std::string& kv : env) putenv(const_cast<char*>(kv.c_str()));
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
}

}  // namespace

bool insidePrivateNetwork() {
    struct if_nameindex* list = if_nameindex();
    if (!list) return false;
    bool onlyLo = true;
    for (struct if_nameindex* i = list; i->if_index != 0; ++i)
        if (std::string(i->if_name) != "lo") onlyLo = false;
    if_freenameindex(list);
    return onlyLo;
}

void sleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

bool ChildProcess::start(const std::vector<std::string>& argv, const std::string& dir, const std::string& name,
                         const std::vector<std::string>& env) {
    if (pid > 0 || argv.empty()) return false;
    closeInput();
    outPath = dir + "/" + name + ".out";
    errPath = dir + "/" + name + ".err";
    if (!writeFile(outPath, "") || !writeFile(errPath, "")) return false;
    int in[2];
    // Close-on-exec: children started later must not hold this one's input open.
    if (pipe2(in, O_CLOEXEC) != 0) return false;
    pid = fork();
    if (pid < 0) {
        close(in[0]);
        close(in[1]);
        return false;
    }
    if (pid == 0) execChild(argv, dir, env, in, outPath, errPath);
    close(in[0]);
    stdinFd = in[1];
    return true;
}

void ChildProcess::writeLine(const std::string& line) {
    std::string l = line + "\n";
    if (stdinFd >= 0 && write(stdinFd, l.data(), l.size()) < 0) closeInput();
}

void ChildProcess::closeInput() {
    if (stdinFd >= 0) close(stdinFd);
    stdinFd = -1;
}

std::string ChildProcess::out() const { return outPath.empty() ? "" : readFile(outPath); }

std::string ChildProcess::err() const { return errPath.empty() ? "" : readFile(errPath); }

bool ChildProcess::waitForOutput(const std::string& text, int timeoutMs, bool inErr) const {
    for (int waited = 0; waited <= timeoutMs; waited += WAIT_SLICE_MS) {
        if ((inErr ? err() : out()).find(text) != std::string::npos) return true;
        sleepMs(WAIT_SLICE_MS);
    }
    return false;
}

int ChildProcess::waitExit(int timeoutMs) {
    for (int waited = 0; pid > 0 && waited <= timeoutMs; waited += WAIT_SLICE_MS) {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid) {
            pid = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        sleepMs(WAIT_SLICE_MS);
    }
    return -1;
}

int ChildProcess::terminate(int timeoutMs) {
    if (pid <= 0) return -1;
    kill(pid, SIGTERM);
    return waitExit(timeoutMs);
}

bool ChildProcess::alive() {
    if (pid > 0 && waitpid(pid, nullptr, WNOHANG) == pid) pid = -1;
    return pid > 0;
}

void ChildProcess::stop() {
    closeInput();
    if (pid > 0 && terminate(2000) < 0) kill9();
}

void ChildProcess::kill9() {
    if (pid <= 0) return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    pid = -1;
}

}  // namespace testsupport
