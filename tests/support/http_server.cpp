#include "tests/support/http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <utility>

namespace testsupport {

namespace {

const int POLL_SLICE_MS = 100;
const int REQUEST_DEADLINE_MS = 2000;
const size_t MAX_REQUEST_BYTES = 16384;
const int MAX_CONNECTIONS = 10000;
const std::chrono::minutes MAX_LIFETIME(10);

// Reads the request head into `request` until the blank line, a non-HTTP
// start, the size limit or the deadline.
void readRequestHead(int fd, std::string& request) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(REQUEST_DEADLINE_MS);
    char buf[2048];
    while (request.size() < MAX_REQUEST_BYTES && std::chrono::steady_clock::now() < deadline) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, POLL_SLICE_MS) <= 0) continue;
        const ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n <= 0) return;
        request.append(buf, static_cast<size_t>(n));
        if (request.size() >= 4 && request.compare(0, 4, "GET ") != 0) return;
        if (request.find("\r\n\r\n") != std::string::npos) return;
    }
}

void sendAll(int fd, const std::string& data) {
    size_t sent = 0;
    for (int tries = 0; sent < data.size() && tries < 1000; ++tries) {
        const ssize_t n = send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return;
        sent += static_cast<size_t>(n);
    }
}

std::string response(int status, const std::string& body) {
    std::ostringstream out;
    out << "HTTP/1.0 " << status << (status == 200 ? " OK" : " Not Found") << "\r\n"
        << "Content-Length: " << body.size() << "\r\n"
        << "Connection: close\r\n\r\n"
        << body;
    return out.str();
}

}  // namespace

HttpServer::HttpServer(Routes bodies, Mode mode)
    : bodies(std::move(bodies)), mode(mode) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return;
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fd, 16) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        close(fd);
        return;
    }
    listenFd = fd;
    boundPort = ntohs(addr.sin_port);
    worker = std::thread(&HttpServer::run, this);
}

HttpServer::~HttpServer() {
    stopping = true;
    // The worker polls in slices of POLL_SLICE_MS, so this join is bounded.
    if (worker.joinable()) worker.join();
    if (listenFd >= 0) close(listenFd);
}

std::vector<std::string> HttpServer::connections() const {
    std::lock_guard<std::mutex> guard(lock);
    return seen;
}

void HttpServer::setBody(const std::string& path, const std::string& body) {
    std::lock_guard<std::mutex> guard(lock);
    bodies[path] = body;
}

void HttpServer::run() {
    const auto end = std::chrono::steady_clock::now() + MAX_LIFETIME;
    int served = 0;
    while (!stopping && served < MAX_CONNECTIONS && std::chrono::steady_clock::now() < end) {
        if (mode == HANG) {
            std::this_thread::sleep_for(std::chrono::milliseconds(POLL_SLICE_MS));
            continue;
        }
        pollfd p{listenFd, POLLIN, 0};
        if (poll(&p, 1, POLL_SLICE_MS) <= 0) continue;
        const int fd = accept(listenFd, nullptr, nullptr);
        if (fd < 0) continue;
        serve(fd);
        close(fd);
        ++served;
    }
}

void HttpServer::serve(int fd) {
    std::string request;
    readRequestHead(fd, request);
    if (request.compare(0, 4, "GET ") != 0) {
        std::lock_guard<std::mutex> guard(lock);
        seen.push_back("NOT-HTTP");
        return;
    }
    const size_t pathEnd = request.find(' ', 4);
    const std::string path = request.substr(4, pathEnd == std::string::npos ? std::string::npos : pathEnd - 4);
    std::unique_lock<std::mutex> guard(lock);
    seen.push_back("GET " + path);
    if (mode == DRIP || mode == HUGE) {
        guard.unlock();
        return misbehave(fd);
    }
    const auto it = bodies.find(path);
    const std::string answer = mode == EMPTY_BODY ? response(200, "")
                               : it == bodies.end() ? response(404, "") : response(200, it->second);
    guard.unlock();
    sendAll(fd, answer);
}

// Bounded: the drip stops with the server or the client (at most 10 minutes),
// the huge body when the client stops reading.
void HttpServer::misbehave(int fd) {
    sendAll(fd, std::string("HTTP/1.0 200 OK\r\n") + (mode == DRIP ? "Content-Length: 1000\r\n" : "") + "\r\n");
    if (mode == HUGE) return sendAll(fd, std::string(10 << 20, 'x'));
    for (int i = 0; i < 600 && !stopping; ++i) {
        if (send(fd, "x", 1, MSG_NOSIGNAL) != 1) return;
        for (int t = 0; t < 1000 / POLL_SLICE_MS && !stopping; ++t)
            std::this_thread::sleep_for(std::chrono::milliseconds(POLL_SLICE_MS));
    }
}

}  // namespace testsupport
