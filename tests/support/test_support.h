// Small helpers shared by the tests: a temporary directory that removes itself
// and whole-file reads and writes.
#pragma once

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

}  // namespace testsupport
