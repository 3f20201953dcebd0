#include "bench/driver/hung_run.h"

#include <cstdio>

#include "bench/common/result_line.h"
#include "bench/driver/processes.h"
#include "bench/driver/servers.h"

namespace bench {

void runHungDownload(const BenchConfig& cfg, HungData& out) {
    const std::string dir = cfg.workDir + "/hung";
    std::string why;
    Server hub = startHub(cfg, dir, why);
    if (hub.pid < 0) return out.problems.push_back("hung download: " + why);
    const int probeMs = cfg.quick ? 3000 : 10000;
    const std::string file = dir + "/hung.out";
    const int status = runChild({{cfg.bin("velto-load"), "hung", "--port", std::to_string(HUB_PORT), "--probe-ms",
                                  std::to_string(probeMs)},
                                 dir, file, dir + "/hung.err"},
                                probeMs + 30000);
    stopChild(hub.pid, 2000);
    const std::vector<ResultFields> lines = parseResults(readFile(file), "HUNG");
    if (status != 0 || lines.empty())
        return out.problems.push_back("hung download: generator exit " + std::to_string(status) + ": " +
                                      tailLine(readFile(dir + "/hung.err"), 200));
    out.ran = true;
    out.secs = fieldNumber(lines[0], "secs", 0);
    out.pings = static_cast<long>(fieldNumber(lines[0], "pings", 0));
    out.lost = static_cast<long>(fieldNumber(lines[0], "lost", 0));
    out.p99Ms = fieldNumber(lines[0], "p99_ms", 0);
    out.maxMs = fieldNumber(lines[0], "max_ms", 0);
}

std::string hungMarkdown(const HungData& d) {
    std::string md = "\n## Another device during a hung document download\n\n";
    if (!d.ran) {
        for (const std::string& p : d.problems) md += "- " + p + "\n";
        return md;
    }
    char buf[256];
    std::snprintf(buf, sizeof buf,
                  "Back-to-back pings of one device for %.0f s while another device's specification server "
                  "accepts and never answers: %ld answered, %ld lost, p99 %.2f ms, longest %.2f ms.\n",
                  d.secs, d.pings, d.lost, d.p99Ms, d.maxMs);
    return md + buf;
}

}  // namespace bench
