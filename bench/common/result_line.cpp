// Writing and reading the generators' result lines.
#include "bench/common/result_line.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace bench {

std::string formatResult(const std::string& tag, const std::vector<std::pair<std::string, std::string>>& fields) {
    std::string line = tag;
    for (const auto& kv : fields) line += " " + kv.first + "=" + kv.second;
    return line;
}

std::vector<ResultFields> parseResults(const std::string& text, const std::string& tag) {
    std::vector<ResultFields> out;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.compare(0, tag.size() + 1, tag + " ") != 0) continue;
        std::istringstream words(line.substr(tag.size() + 1));
        ResultFields f;
        std::string w;
        while (words >> w) {
            size_t eq = w.find('=');
            if (eq == std::string::npos || eq == 0) continue;
            f[w.substr(0, eq)] = w.substr(eq + 1);
        }
        out.push_back(f);
    }
    return out;
}

double fieldNumber(const ResultFields& f, const std::string& key, double fallback) {
    auto it = f.find(key);
    if (it == f.end() || it->second.empty()) return fallback;
    char* end = nullptr;
    double v = std::strtod(it->second.c_str(), &end);
    if (end == it->second.c_str()) return fallback;
    return v;
}

std::string fixed(double v, int decimals) {
    char buf[64];
    std::snprintf(buf, sizeof(buf), "%.*f", decimals, v);
    return buf;
}

}  // namespace bench
