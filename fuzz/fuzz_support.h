// Helpers shared by the libFuzzer harnesses: a scratch directory made once per
// process (by default in /dev/shm when it exists, so that the many small writes
// stay in memory) and removed at exit, whole-file writes, silencing of the
// diagnostic lines of the code under test, and FUZZ_CHECK, which turns a broken
// promise of the code under test into a crash that libFuzzer records.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

// Aborts with the failed condition and its place when cond is false.
#define FUZZ_CHECK(cond)                                                                   \
    do {                                                                                   \
        if (!(cond)) {                                                                     \
            fprintf(stderr, "FUZZ_CHECK failed: %s at %s:%d\n", #cond, __FILE__, __LINE__); \
            abort();                                                                       \
        }                                                                                  \
    } while (0)

namespace fuzzsupport {

// Removes every plain entry of dir (one level).
inline void emptyDirectory(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (const dirent* e = readdir(d))
            if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") names.push_back(e->d_name);
        closedir(d);
    }
    for (const std::string& n : names) unlink((dir + "/" + n).c_str());
}

// A fresh directory, emptied (one level) and removed on destruction.
class ScratchDir {
public:
    // Under $VELTO_FUZZ_TMP when set (fuzz/run.sh points it at a directory it
    // removes, so that a crashed run leaves nothing behind), else /dev/shm or /tmp.
    ScratchDir() {
        const char* base = getenv("VELTO_FUZZ_TMP");
        if (base == nullptr || *base == '\0') base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::string tmpl = std::string(base) + "/velto-fuzz-XXXXXX";
        std::vector<char> name(tmpl.begin(), tmpl.end());
        name.push_back('\0');
        if (mkdtemp(name.data()) == nullptr) {
            perror("mkdtemp");
            abort();
        }
        dir = name.data();
    }
    ~ScratchDir() {
        emptyDirectory(dir);
        rmdir(dir.c_str());
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    const std::string& path() const { return dir; }
    std::string file(const std::string& name) const { return dir + "/" + name; }

private:
    std::string dir;
};

// Drops what the code under test writes to std::cout and std::cerr: its
// diagnostic lines are not what a harness checks, and at thousands of inputs a
// second they would flood the log. FUZZ_CHECK and the sanitizers write with C
// stdio and are not affected.
inline void silenceDiagnostics() {
    std::cout.rdbuf(nullptr);
    std::cerr.rdbuf(nullptr);
}

// Replaces the file with exactly size bytes; true when all were written.
inline bool writeWhole(const std::string& path, const void* data, size_t size) {
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) return false;
    const bool ok = size == 0 || fwrite(data, 1, size, f) == size;
    return fclose(f) == 0 && ok;
}

}  // namespace fuzzsupport
