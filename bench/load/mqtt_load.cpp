// The MQTT load generator: the pair workload of velto-load against an MQTT
// broker, through libmosquitto, single-threaded with its own poll loop.
//
//   mqtt-load --port N --qos 0|1 [--pairs 32] [--plist 1,8,32] [--warmup-ms 300]
//             [--measure-ms 3000] [--size 64] [--server-pid PID]
//
// Pair i is two clients: A publishes 64-byte messages on topic bench/i, B is
// subscribed to it with the same QoS. A publishes the next message only when B
// has received the previous one and, at QoS 1, A holds the broker's PUBACK (B's
// PUBACK to the broker is sent by the library on receipt). So each pair keeps
// exactly one message in flight, as in the Velto workload. Latency is A's
// publish to B's receipt. One RESULT line per pair count, in velto-load's form.
#include <mosquitto.h>
#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench/common/bench_clock.h"
#include "bench/common/cli_args.h"
#include "bench/common/latency_stats.h"
#include "bench/common/proc_probe.h"
#include "bench/common/result_line.h"

namespace {

using bench::fixed;

constexpr uint64_t GIVE_UP_NS = 1000000000ull;

struct Client;

struct PairState {
    uint32_t seq = 0;
    uint64_t sentNs = 0;
    bool inFlight = false;
    bool gotAck = false;
    bool gotMessage = false;
};

struct Load {
    int qos = 1;
    std::vector<Client*> clients;  // 2i is A, 2i+1 is B
    std::vector<PairState> pairs;
    std::vector<uint8_t> payload;
    int activePairs = 0;
    bool sending = false;
    bool measuring = false;
    std::vector<uint64_t> latencies;
    uint64_t timeouts = 0;
    uint64_t errors = 0;
    int connected = 0;
    int subscribed = 0;
    std::vector<pollfd> fds;  // reused by every pass of the loop

    void startMessage(size_t pair);
    void finishIfComplete(size_t pair);
};

struct Client {
    Load* load = nullptr;
    mosquitto* m = nullptr;
    size_t pair = 0;
    bool isA = false;
    std::string topic;
};

void Load::startMessage(size_t pair) {
    PairState& st = pairs[pair];
    ++st.seq;
    std::memcpy(payload.data(), &st.seq, sizeof(st.seq));
    st.inFlight = true;
    st.gotAck = qos == 0;  // QoS 0 has no acknowledgement to wait for
    st.gotMessage = false;
    st.sentNs = bench::nowNs();
    Client* a = clients[2 * pair];
    if (mosquitto_publish(a->m, nullptr, a->topic.c_str(), static_cast<int>(payload.size()), payload.data(), qos,
                          false) != MOSQ_ERR_SUCCESS)
        ++errors;
}

void Load::finishIfComplete(size_t pair) {
    PairState& st = pairs[pair];
    if (!st.inFlight || !st.gotAck || !st.gotMessage) return;
    st.inFlight = false;
    if (sending && static_cast<int>(pair) < activePairs) startMessage(pair);
}

void onConnect(mosquitto*, void* obj, int rc) {
    Client* c = static_cast<Client*>(obj);
    if (rc != 0) {
        ++c->load->errors;
        return;
    }
    ++c->load->connected;
    if (!c->isA && mosquitto_subscribe(c->m, nullptr, c->topic.c_str(), c->load->qos) != MOSQ_ERR_SUCCESS)
        ++c->load->errors;
}

void onSubscribe(mosquitto*, void* obj, int, int, const int*) { ++static_cast<Client*>(obj)->load->subscribed; }

void onPublish(mosquitto*, void* obj, int) {
    Client* c = static_cast<Client*>(obj);
    Load& l = *c->load;
    // At QoS 1 this is the broker's PUBACK; at QoS 0 the publish has been written.
    PairState& st = l.pairs[c->pair];
    if (!st.inFlight) return;
    st.gotAck = true;
    l.finishIfComplete(c->pair);
}

void onMessage(mosquitto*, void* obj, const mosquitto_message* msg) {
    Client* c = static_cast<Client*>(obj);
    Load& l = *c->load;
    PairState& st = l.pairs[c->pair];
    uint32_t seq = 0;
    if (msg->payloadlen >= 4) std::memcpy(&seq, msg->payload, sizeof(seq));
    if (!st.inFlight || st.gotMessage || seq != st.seq) return;
    st.gotMessage = true;
    if (l.measuring) l.latencies.push_back(bench::nowNs() - st.sentNs);
    l.finishIfComplete(c->pair);
}

// One pass of the event loop: waits at most waitMs for any socket, reads what is
// readable and writes what is pending. Returns false when a connection failed.
bool pumpOnce(Load& l, int waitMs) {
    std::vector<pollfd>& fds = l.fds;
    fds.resize(l.clients.size());
    for (size_t i = 0; i < l.clients.size(); ++i) {
        mosquitto* m = l.clients[i]->m;
        fds[i].fd = mosquitto_socket(m);
        fds[i].events = static_cast<short>(POLLIN | (mosquitto_want_write(m) ? POLLOUT : 0));
        fds[i].revents = 0;
    }
    if (::poll(fds.data(), fds.size(), waitMs) < 0) return true;
    for (size_t i = 0; i < fds.size(); ++i) {
        mosquitto* m = l.clients[i]->m;
        if (fds[i].revents & (POLLIN | POLLERR | POLLHUP))
            if (mosquitto_loop_read(m, 1) != MOSQ_ERR_SUCCESS) return false;
        if (fds[i].revents & POLLOUT)
            if (mosquitto_loop_write(m, 1) != MOSQ_ERR_SUCCESS) return false;
    }
    // Publishes queued inside callbacks go out now rather than after another poll.
    for (Client* c : l.clients)
        if (mosquitto_want_write(c->m) && mosquitto_loop_write(c->m, 1) != MOSQ_ERR_SUCCESS) return false;
    return true;
}

void checkTimeouts(Load& l, uint64_t now) {
    for (size_t i = 0; i < l.pairs.size(); ++i) {
        PairState& st = l.pairs[i];
        if (!st.inFlight || now <= st.sentNs || now - st.sentNs < GIVE_UP_NS) continue;
        ++l.timeouts;
        st.inFlight = false;
        if (l.sending && static_cast<int>(i) < l.activePairs) l.startMessage(i);
    }
}

bool pumpUntil(Load& l, uint64_t deadlineNs, bool untilDrained) {
    uint64_t nextMisc = 0;
    for (;;) {
        uint64_t now = bench::nowNs();
        if (now >= deadlineNs) return true;
        if (untilDrained &&
            std::none_of(l.pairs.begin(), l.pairs.end(), [](const PairState& s) { return s.inFlight; }))
            return true;
        if (now >= nextMisc) {
            for (Client* c : l.clients) mosquitto_loop_misc(c->m);
            checkTimeouts(l, now);
            nextMisc = now + bench::msToNs(50);
        }
        if (!pumpOnce(l, 20)) return false;
    }
}

bool connectAll(Load& l, int port, int pairs, std::string& why) {
    for (int i = 0; i < 2 * pairs; ++i) {
        Client* c = new Client();
        c->load = &l;
        c->pair = static_cast<size_t>(i / 2);
        c->isA = i % 2 == 0;
        c->topic = "bench/" + std::to_string(i / 2);
        std::string id = std::string(c->isA ? "bench-a-" : "bench-b-") + std::to_string(i / 2);
        c->m = mosquitto_new(id.c_str(), true, c);
        l.clients.push_back(c);
        if (!c->m) return why = "mosquitto_new failed", false;
        mosquitto_int_option(c->m, MOSQ_OPT_TCP_NODELAY, 1);
        mosquitto_connect_callback_set(c->m, onConnect);
        mosquitto_subscribe_callback_set(c->m, onSubscribe);
        mosquitto_publish_callback_set(c->m, onPublish);
        mosquitto_message_callback_set(c->m, onMessage);
        if (mosquitto_connect(c->m, "127.0.0.1", port, 60) != MOSQ_ERR_SUCCESS)
            return why = "cannot connect to 127.0.0.1:" + std::to_string(port), false;
    }
    uint64_t deadline = bench::nowNs() + bench::msToNs(5000);
    while ((l.connected < 2 * pairs || l.subscribed < pairs) && bench::nowNs() < deadline)
        if (!pumpOnce(l, 20)) return why = "a connection failed during set-up", false;
    if (l.connected < 2 * pairs || l.subscribed < pairs)
        return why = "connected " + std::to_string(l.connected) + ", subscribed " + std::to_string(l.subscribed), false;
    return true;
}

std::string runPhase(Load& l, int p, uint64_t warmupMs, uint64_t measureMs, int pid, bool& ok) {
    l.activePairs = p;
    l.sending = true;
    l.measuring = false;
    for (int i = 0; i < p; ++i)
        if (!l.pairs[static_cast<size_t>(i)].inFlight) l.startMessage(static_cast<size_t>(i));
    ok = pumpUntil(l, bench::nowNs() + bench::msToNs(warmupMs), false);
    l.latencies.clear();
    l.latencies.reserve(1 << 20);
    l.timeouts = 0;
    l.errors = 0;
    int64_t cpu0 = pid > 0 ? bench::processCpuNs(pid) : -1;
    uint64_t gen0 = bench::selfCpuNs();
    uint64_t t0 = bench::nowNs();
    l.measuring = true;
    ok = ok && pumpUntil(l, t0 + bench::msToNs(measureMs), false);
    l.measuring = false;
    uint64_t t1 = bench::nowNs();
    uint64_t gen1 = bench::selfCpuNs();
    int64_t cpu1 = pid > 0 ? bench::processCpuNs(pid) : -1;
    double secs = static_cast<double>(t1 - t0) / 1e9;
    std::vector<uint64_t>& lat = l.latencies;
    uint64_t msgs = lat.size();
    double p50 = static_cast<double>(bench::percentile(lat, 0.5)) / 1e3;
    double p99 = static_cast<double>(bench::percentile(lat, 0.99)) / 1e3;
    std::string line = bench::formatResult(
        "RESULT", {{"p", std::to_string(p)},
                   {"msgs", std::to_string(msgs)},
                   {"secs", fixed(secs, 3)},
                   {"rate", fixed(secs > 0 ? static_cast<double>(msgs) / secs : 0, 1)},
                   {"p50_us", fixed(p50, 1)},
                   {"p99_us", fixed(p99, 1)},
                   {"server_cpu_ms",
                    cpu0 >= 0 && cpu1 >= cpu0 ? fixed(static_cast<double>(cpu1 - cpu0) / 1e6, 2) : "nan"},
                   {"gen_cpu_ms", fixed(static_cast<double>(gen1 - gen0) / 1e6, 2)},
                   {"timeouts", std::to_string(l.timeouts)},
                   {"errors", std::to_string(l.errors)}});
    l.sending = false;
    ok = pumpUntil(l, bench::nowNs() + bench::msToNs(1000), true) && ok;
    return line;
}

}  // namespace

int main(int argc, char** argv) {
    bench::CliArgs args(argc, argv);
    int port = static_cast<int>(args.number("port", 18830));
    int pairs = static_cast<int>(args.number("pairs", 32));
    std::vector<int> plist = args.numberList("plist", {1, 8, 32});
    uint64_t warmupMs = static_cast<uint64_t>(args.number("warmup-ms", 300));
    uint64_t measureMs = static_cast<uint64_t>(args.number("measure-ms", 3000));
    int pid = static_cast<int>(args.number("server-pid", 0));
    long size = args.number("size", 64);
    Load l;
    l.qos = static_cast<int>(args.number("qos", 1));
    if (l.qos != 0 && l.qos != 1) return std::fprintf(stderr, "mqtt-load: --qos must be 0 or 1\n"), 1;
    if (pairs < 1 || pairs > 500 || size < 4 || size > 65536)
        return std::fprintf(stderr, "mqtt-load: bad --pairs or --size\n"), 1;
    l.pairs.resize(static_cast<size_t>(pairs));
    l.payload.assign(static_cast<size_t>(size), 0x5a);

    mosquitto_lib_init();
    std::string why;
    int status = 0;
    uint64_t t0 = bench::nowNs();
    if (!connectAll(l, port, pairs, why)) {
        std::fprintf(stderr, "mqtt-load: %s\n", why.c_str());
        status = 1;
    } else {
        std::printf("JOINED n=%d secs=%s\n", 2 * pairs, fixed(static_cast<double>(bench::nowNs() - t0) / 1e9, 3).c_str());
        for (int p : plist) {
            if (p > pairs) continue;
            bool ok = true;
            std::string line = runPhase(l, p, warmupMs, measureMs, pid, ok);
            std::printf("%s\n", line.c_str());
            std::fflush(stdout);
            if (!ok) {
                std::fprintf(stderr, "mqtt-load: a connection failed in phase p=%d\n", p);
                status = 1;
                break;
            }
        }
    }
    for (Client* c : l.clients) {
        if (c->m) {
            mosquitto_disconnect(c->m);
            mosquitto_destroy(c->m);
        }
        delete c;
    }
    mosquitto_lib_cleanup();
    return status;
}
