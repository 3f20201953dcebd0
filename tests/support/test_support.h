// Small helpers shared by the tests: a temporary directory that removes itself,
// whole-file reads and writes, and the output of a piece of work.
#pragma once

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace testsupport {

// A fresh directory under /tmp, removed with everything in it on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return dir; }
    // path() + "/" + name
    std::string file(const std::string& name) const { return dir + "/" + name; }

private:
    std::string dir;
};

bool writeFile(const std::string& path, const std::string& content);
// The whole file, or "" when it cannot be read.
std::string readFile(const std::string& path);
bool fileExists(const std::string& path);
// Names in a directory; empty when it cannot be read.
std::set<std::string> listDir(const std::string& dir);

// What `work` wrote to standard output and standard error.
struct CapturedOutput {
    std::string out;
    std::string err;
};
template <typename F>
CapturedOutput outputOf(F work) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    work();
    CapturedOutput o;
    o.out = testing::internal::GetCapturedStdout();
    o.err = testing::internal::GetCapturedStderr();
    return o;
}

// What `work` wrote to standard output / standard error.
template <typename F>
std::string stdoutOf(F work) {
    testing::internal::CaptureStdout();
    work();
    return testing::internal::GetCapturedStdout();
}
template <typename F>
std::string stderrOf(F work) {
    testing::internal::CaptureStderr();
    work();
    return testing::internal::GetCapturedStderr();
}

}  // namespace testsupport
