// Command-line reading for the benchmark tools.
#include "bench/common/cli_args.h"

#include <cstdlib>
#include <sstream>

namespace bench {

CliArgs::CliArgs(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) args.emplace_back(argv[i]);
    if (!args.empty() && args[0].compare(0, 2, "--") != 0) cmd = args[0];
}

int CliArgs::find(const std::string& name) const {
    for (size_t i = 0; i < args.size(); ++i)
        if (args[i] == "--" + name) return static_cast<int>(i);
    return -1;
}

bool CliArgs::has(const std::string& name) const { return find(name) >= 0; }

std::string CliArgs::text(const std::string& name, const std::string& fallback) const {
    int i = find(name);
    if (i < 0 || static_cast<size_t>(i) + 1 >= args.size()) return fallback;
    return args[static_cast<size_t>(i) + 1];
}

long long CliArgs::number(const std::string& name, long long fallback) const {
    std::string v = text(name, "");
    if (v.empty()) return fallback;
    char* end = nullptr;
    long long n = std::strtoll(v.c_str(), &end, 10);
    return (end && *end == '\0') ? n : fallback;
}

std::vector<int> CliArgs::numberList(const std::string& name, const std::vector<int>& fallback) const {
    std::string v = text(name, "");
    if (v.empty()) return fallback;
    std::vector<int> out;
    std::istringstream parts(v);
    std::string item;
    while (std::getline(parts, item, ',')) {
        char* end = nullptr;
        long n = std::strtol(item.c_str(), &end, 10);
        if (end && *end == '\0' && n > 0) out.push_back(static_cast<int>(n));
    }
    return out.empty() ? fallback : out;
}

}  // namespace bench
