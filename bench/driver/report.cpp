// Tables, Markdown, CSV and the plot of a benchmark run.
#include "bench/driver/report.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <fstream>
#include <sstream>

#include "bench/common/latency_stats.h"
#include "bench/common/result_line.h"
#include "bench/driver/processes.h"

namespace bench {

namespace {

struct Summary {
    double rate = NAN, p50 = NAN, p99 = NAN, cpu = NAN;
    double rateX = NAN, p50X = NAN, p99X = NAN, cpuX = NAN;  // ratios to the ceiling
    int rounds = 0;
};

double ratio(double a, double b) { return (std::isfinite(a) && std::isfinite(b) && b > 0) ? a / b : NAN; }

Summary summarize(const ThroughputData& t, const std::string& system, int p) {
    std::vector<double> rate, p50, p99, cpu, rateX, p50X, p99X, cpuX;
    Summary s;
    for (int r = 0; r < t.rounds; ++r) {
        auto it = t.runs.find({system, r, p});
        if (it == t.runs.end() || !it->second.valid) continue;
        const Measurement& m = it->second;
        ++s.rounds;
        rate.push_back(m.rate);
        p50.push_back(m.p50Us);
        p99.push_back(m.p99Us);
        cpu.push_back(m.cpuPerMsgUs);
        auto c = t.runs.find({"ceiling", r, p});
        if (c == t.runs.end() || !c->second.valid) continue;
        rateX.push_back(ratio(m.rate, c->second.rate));
        p50X.push_back(ratio(m.p50Us, c->second.p50Us));
        p99X.push_back(ratio(m.p99Us, c->second.p99Us));
        cpuX.push_back(ratio(m.cpuPerMsgUs, c->second.cpuPerMsgUs));
    }
    s.rate = median(rate);
    s.p50 = median(p50);
    s.p99 = median(p99);
    s.cpu = median(cpu);
    s.rateX = median(rateX);
    s.p50X = median(p50X);
    s.p99X = median(p99X);
    s.cpuX = median(cpuX);
    return s;
}

std::string num(double v, int decimals) { return std::isfinite(v) ? fixed(v, decimals) : "n/a"; }
std::string times(double v) { return std::isfinite(v) ? fixed(v, 2) + "x" : "n/a"; }

std::string withThousands(double v) {
    if (!std::isfinite(v)) return "n/a";
    std::string digits = fixed(v, 0);
    std::string out;
    int n = 0;
    for (auto it = digits.rbegin(); it != digits.rend(); ++it) {
        if (n > 0 && n % 3 == 0 && *it != '-') out.insert(out.begin(), ',');
        out.insert(out.begin(), *it);
        ++n;
    }
    return out;
}

std::string firstLineOf(const std::string& text) {
    size_t end = text.find('\n');
    return end == std::string::npos ? text : text.substr(0, end);
}

std::string cpuModel() {
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, 10, "model name") == 0) {
            size_t colon = line.find(':');
            return colon == std::string::npos ? line : line.substr(colon + 2);
        }
    return "unknown CPU";
}

std::string memTotal() {
    std::ifstream in("/proc/meminfo");
    std::string key;
    long kb = 0;
    std::string unit;
    while (in >> key >> kb >> unit)
        if (key == "MemTotal:") return fixed(static_cast<double>(kb) / 1024.0 / 1024.0, 1) + " GiB";
    return "unknown memory";
}

std::string versionOf(const BenchConfig& cfg, const std::vector<std::string>& argv, const std::string& name) {
    std::string out = cfg.workDir + "/version-" + name + ".txt";
    runChild({argv, cfg.workDir, out, out}, 5000);
    std::string v = firstLineOf(readFile(out));
    return v.empty() ? name + " (version unknown)" : v;
}

std::string throughputTable(const ThroughputData& t) {
    std::ostringstream o;
    o << "| System | P | msg/s | vs ceiling | p50 us | vs ceiling | p99 us | vs ceiling | server CPU us/msg | vs ceiling |\n";
    o << "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n";
    for (const std::string& sys : SYSTEMS)
        for (int p : t.plist) {
            Summary s = summarize(t, sys, p);
            o << "| " << systemLabel(sys) << " | " << p << " | " << withThousands(s.rate) << " | " << times(s.rateX)
              << " | " << num(s.p50, 1) << " | " << times(s.p50X) << " | " << num(s.p99, 1) << " | " << times(s.p99X)
              << " | " << num(s.cpu, 2) << " | " << times(s.cpuX) << " |\n";
        }
    return o.str();
}

std::string perDevice(const ScaleData& s, const ScaleStep& st, int before) {
    if (st.rssKb < 0 || s.baselineKb < 0 || st.alive <= 0) return "n/a";
    double bytes = static_cast<double>(st.rssKb - s.baselineKb) * 1024.0 / st.alive;
    std::string held = st.alive == st.devices ? "all held" : withThousands(st.alive) + " still held by the hub";
    return fixed(bytes / 1024.0, 2) + " KiB per device (" + fixed(static_cast<double>(st.rssKb) / 1024.0, 1) +
           " MiB resident; " + held + "; " + withThousands(st.devices - before) + " joined in " +
           fixed(st.joinSecs, 1) + " s" +
           (st.failed > 0 ? ", " + std::to_string(st.failed) + " handshakes given up" : "") + ")";
}

std::string scaleTable(const ScaleData& s, const HmacData& h) {
    std::ostringstream o;
    o << "| Figure | Value |\n|---|---|\n";
    if (s.ran) {
        o << "| velto-hub resident memory, idle | "
          << (s.baselineKb >= 0 ? fixed(static_cast<double>(s.baselineKb) / 1024.0, 1) + " MiB" : "n/a") << " |\n";
        int before = 0;
        for (const ScaleStep& st : s.steps) {
            o << "| ... above idle with " << withThousands(st.devices) << " connected devices | "
              << perDevice(s, st, before) << " |\n";
            before = st.devices;
        }
        if (s.stallRan)
            o << "| longest loop stall with " << withThousands(s.stallDevices)
              << " devices: longest ping round trip in a " << num(s.stallSecs, 0)
              << " s window (a flush starts 15.05 s after the previous one ended) | " << num(s.stallMaxMs, 1)
              << " ms (typical round trip: p50 " << num(s.stallP50Us, 0) << " us, p99 " << num(s.stallP99Us, 0)
              << " us; " << s.stallPings << " pings, " << s.stallLost << " unanswered; stalls of 50 ms or more ended at "
              << (s.stallSlowAtMs.empty() ? "none" : s.stallSlowAtMs + " ms") << ") |\n";
        else
            o << "| longest loop stall during a flush | not measured in this mode |\n";
        o << "| devices removed by the hub during the scale run (though every device answers pings) | " << s.removals
          << " |\n";
        o << "| UDP datagrams dropped for a full receive buffer during the scale run | "
          << (s.udpDrops >= 0 ? std::to_string(s.udpDrops) : "n/a") << " |\n";
        o << "| start-up to first answer, empty DB | " << num(s.startupEmptyMs, 1) << " ms |\n";
        o << "| start-up to first answer, " << withThousands(static_cast<double>(s.recordFiles))
          << " record files in DB | " << num(s.startupFullMs, 1) << " ms |\n";
    }
    o << "| HMAC-SHA1, 400-byte packet: own classes / openssl speed | " << withThousands(h.oursSha1) << " / "
      << withThousands(h.opensslSha1) << " per s (" << times(ratio(h.oursSha1, h.opensslSha1)) << ") |\n";
    o << "| HMAC-SHA256, 400-byte packet: own classes / openssl speed | " << withThousands(h.oursSha256) << " / "
      << withThousands(h.opensslSha256) << " per s (" << times(ratio(h.oursSha256, h.opensslSha256)) << ") |\n";
    return o.str();
}

std::string methodNotes(const BenchConfig& cfg) {
    std::ostringstream o;
    o << "- Workload: P pairs of devices, A sends 64-byte direct messages to B through the server, closed loop "
         "(A sends the next only when it holds its acknowledgement and B has received and acknowledged the previous "
         "one). One generator process; every server in its own temporary directory, output to files; everything on "
         "127.0.0.1 inside a private network namespace.\n";
    o << "- " << cfg.rounds << " round(s), systems alternating within each round (order rotated per round); "
      << cfg.warmupMs << " ms warm-up and " << cfg.measureMs
      << " ms measured per P. Figures are medians over rounds; \"vs ceiling\" is the median of the per-round ratios to "
         "the ceiling relay of the same round (for msg/s higher is better, for latency and CPU lower is better).\n";
    o << "- Latency: A's send to B's receipt. Server CPU: user + system time of the server process from /proc over "
         "the measured window, divided by the messages delivered.\n";
    o << "- Ceiling relay: receives A's piece, acknowledges it to A, passes it to B, receives B's acknowledgement; "
         "nothing else. mosquitto: Debian's broker, persistence off, Nagle off on both sides; at QoS 0 A waits only "
         "for B's receipt, at QoS 1 also for the broker's PUBACK.\n";
    o << "- Velto packs travel unsigned (signature type 0), as devices send them when not asked to sign.\n";
    o << "- The generator's own CPU time per message is in latest.csv. At the ceiling relay's rates it needs about as "
         "much CPU as the relay, so on a 2-core machine the ceiling figures at larger P are bounded by both "
         "processes.\n";
    o << "- Scale: devices join through the full handshake, each from its own socket, and answer every ping of the "
         "hub. Memory is the hub's VmRSS above its idle figure, divided by the devices it still answers. Just before "
         "the stall probe every device exchanges a ping with the hub, so the flush inside the probe window has every "
         "record to write, as with a fleet in which every device talks. Start-up time runs from the start of the "
         "process to its first answer to an announcing device.\n";
    o << "- HMAC: the project's Sha1Class / Sha256Class keyed over one 400-byte buffer per operation, timed by CPU "
         "time; `openssl speed -hmac ALG -bytes 400` also divides by CPU time.\n";
    return o.str();
}

const char* colorOf(const std::string& system) {
    if (system == "hub") return "#1f77b4";
    if (system == "ceiling") return "#7f7f7f";
    if (system == "mqtt0") return "#2ca02c";
    return "#d62728";
}

}  // namespace

RunInfo describeMachine(const BenchConfig& cfg) {
    RunInfo info;
    std::time_t now = std::time(nullptr);
    char buf[64];
    std::strftime(buf, sizeof(buf), "%Y-%m-%d %H:%M UTC", std::gmtime(&now));
    info.date = buf;
    utsname u;
    std::string kernel = ::uname(&u) == 0 ? std::string(u.sysname) + " " + u.release : "unknown kernel";
    info.machine = cpuModel() + ", " + std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) + " cores, " + memTotal() +
                   ", " + kernel;
    std::string mosq = versionOf(cfg, {cfg.mosquittoPath, "-h"}, "mosquitto");
    std::string ssl = versionOf(cfg, {"/usr/bin/openssl", "version"}, "openssl");
    info.software = std::string("g++ ") + __VERSION__ + " (Release), " + mosq + ", " + ssl;
    return info;
}

std::string markdownReport(const BenchConfig& cfg, const RunInfo& info, const ThroughputData& t, const ScaleData& s,
                           const HmacData& h, const std::string& plotName) {
    std::ostringstream o;
    o << "# Benchmark results" << (cfg.quick ? " (quick smoke run: short windows, one round, small fleet)" : "")
      << "\n\n";
    o << "Run " << info.date << " in " << fixed(info.elapsedSecs, 0) << " s.  \n";
    o << "Machine: " << info.machine << ".  \n";
    o << "Software: " << info.software << ".\n\n";
    o << "## Pair workload\n\n" << throughputTable(t) << "\n";
    o << "![throughput and latency against P](" << plotName << ")\n\n";
    o << "## Scale and hashing\n\n" << scaleTable(s, h) << "\n";
    o << "## Method\n\n" << methodNotes(cfg) << "\n";
    std::vector<std::string> problems = t.problems;
    problems.insert(problems.end(), s.problems.begin(), s.problems.end());
    problems.insert(problems.end(), h.problems.begin(), h.problems.end());
    o << "## Problems seen in this run\n\n";
    if (problems.empty()) o << "None.\n";
    for (const std::string& p : problems) o << "- " << p << "\n";
    return o.str();
}

std::string roundsCsv(const ThroughputData& t) {
    std::ostringstream o;
    o << "system,round,p,msg_per_s,p50_us,p99_us,server_cpu_us_per_msg,generator_cpu_us_per_msg,timeouts,errors\n";
    for (const auto& kv : t.runs) {
        const Measurement& m = kv.second;
        o << std::get<0>(kv.first) << "," << std::get<1>(kv.first) + 1 << "," << std::get<2>(kv.first) << ","
          << fixed(m.rate, 1) << "," << fixed(m.p50Us, 1) << "," << fixed(m.p99Us, 1) << ","
          << num(m.cpuPerMsgUs, 3) << "," << num(m.genCpuPerMsgUs, 3) << "," << fixed(m.timeouts, 0) << ","
          << fixed(m.errors, 0) << "\n";
    }
    return o.str();
}

bool plotThroughput(const BenchConfig& cfg, const ThroughputData& t, const std::string& pngPath, std::string& why) {
    const char* candidates[] = {"/usr/bin/gnuplot", "/usr/local/bin/gnuplot"};
    std::string gnuplot;
    for (const char* c : candidates)
        if (::access(c, X_OK) == 0) gnuplot = c;
    if (gnuplot.empty()) return why = "gnuplot not found", false;

    // One data block per system that has figures: P, msg/s, p50, p99 (medians).
    std::ostringstream data;
    std::vector<std::string> shown;
    for (const std::string& sys : SYSTEMS) {
        std::ostringstream block;
        for (int p : t.plist) {
            Summary s = summarize(t, sys, p);
            if (!std::isfinite(s.rate)) continue;
            block << p << " " << fixed(s.rate, 1) << " " << fixed(s.p50, 1) << " " << fixed(s.p99, 1) << "\n";
        }
        if (block.str().empty()) continue;
        shown.push_back(sys);
        data << "# " << systemLabel(sys) << "\n" << block.str() << "\n\n";
    }
    if (shown.empty()) return why = "no figures to plot", false;
    std::string dat = cfg.workDir + "/plot.dat";
    std::string gp = cfg.workDir + "/plot.gp";
    if (!writeFile(dat, data.str())) return why = "cannot write " + dat, false;

    std::string xtics;
    int maxP = 1;
    for (int p : t.plist) {
        xtics += (xtics.empty() ? "" : ",") + std::to_string(p);
        maxP = std::max(maxP, p);
    }
    std::ostringstream s;
    s << "set terminal pngcairo size 1200,480 font 'sans,10'\n"
      << "set output '" << pngPath << "'\n"
      << "set multiplot layout 1,2 title 'Pair workload, 64-byte direct messages, closed loop (medians)'\n"
      << "set logscale x 2\nset xtics (" << xtics << ")\nset xrange [0.8:" << maxP * 1.25
      << "]\nset xlabel 'pairs (P)'\nset grid\nset key top left\n"
      << "set title 'Throughput'\nset ylabel 'messages per second'\nset yrange [0:*]\n"
      << "plot ";
    for (size_t i = 0; i < shown.size(); ++i)
        s << (i ? ", " : "") << "'" << dat << "' index " << i << " using 1:2 with linespoints lw 2 lc rgb '"
          << colorOf(shown[i]) << "' title '" << systemLabel(shown[i]) << "'";
    s << "\nset title 'Latency, A send to B receipt (solid p50, dashed p99)'\nset ylabel 'microseconds'\n"
      << "set logscale y\nset yrange [*:*]\nplot ";
    for (size_t i = 0; i < shown.size(); ++i)
        s << (i ? ", " : "") << "'" << dat << "' index " << i << " using 1:3 with linespoints lw 2 lc rgb '"
          << colorOf(shown[i]) << "' title '" << systemLabel(shown[i]) << " p50', '" << dat << "' index " << i
          << " using 1:4 with linespoints lw 1 dt 2 lc rgb '" << colorOf(shown[i]) << "' notitle";
    s << "\nunset multiplot\n";
    if (!writeFile(gp, s.str())) return why = "cannot write " + gp, false;
    std::string err = cfg.workDir + "/gnuplot.err";
    int status = runChild({{gnuplot, gp}, cfg.workDir, cfg.workDir + "/gnuplot.out", err}, 30000);
    if (status != 0) return why = "gnuplot exit " + std::to_string(status) + ": " + readFile(err), false;
    return true;
}

}  // namespace bench
