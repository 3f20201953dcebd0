// Minimal "--name value" / "--flag" command-line reading for the benchmark tools.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

class CliArgs {
public:
    CliArgs(int argc, char** argv);

    // The first argument when it does not start with "--" (a sub-command), else "".
    const std::string& command() const { return cmd; }
    bool has(const std::string& name) const;
    // The value after --name, or `fallback` when absent.
    std::string text(const std::string& name, const std::string& fallback) const;
    // The value as an integer, or `fallback` when absent or not a number.
    long long number(const std::string& name, long long fallback) const;
    // A comma-separated list of integers ("1,8,32"); `fallback` when absent.
    std::vector<int> numberList(const std::string& name, const std::vector<int>& fallback) const;

private:
    std::string cmd;
    std::vector<std::string> args;
    int find(const std::string& name) const;
};

}  // namespace bench
