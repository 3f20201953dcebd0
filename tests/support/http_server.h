// A tiny HTTP/1.0 server for tests: one thread accepting on 127.0.0.1 at a
// free port, answering GET requests from a map of path -> body and closing
// the connection after each response. Unknown paths get a 404 with no body;
// in empty-body mode every request gets a 200 with no body. Misbehaving
// servers: HANG never accepts (the kernel completes the connection, nothing
// is ever read or answered), DRIP answers every request with a 200 whose body
// comes one byte a second, HUGE with a 10 MiB body and no length. A connection whose
// first bytes are not "GET " (a TLS handshake, for instance) is closed at once.
// The destructor stops the thread; every wait is bounded.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

class HttpServer {
public:
    enum Mode { SERVE_MAP, EMPTY_BODY, HANG, DRIP, HUGE };
    typedef std::map<std::string, std::string> Routes;  // path -> body

    explicit HttpServer(Routes bodies, Mode mode = SERVE_MAP);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // False when the socket could not be set up (port() is then 0).
    bool ok() const { return listenFd >= 0; }
    uint16_t port() const { return boundPort; }

    // Serves body under path from now on (for bodies that name the port).
    void setBody(const std::string& path, const std::string& body);

    // One entry per accepted connection, in order: "GET <path>" for an HTTP
    // request, "NOT-HTTP" for anything else.
    std::vector<std::string> connections() const;

private:
    void run();
    void serve(int fd);
    void misbehave(int fd);

    Routes bodies;
    Mode mode;
    int listenFd = -1;
    uint16_t boundPort = 0;
    std::atomic<bool> stopping{false};
    mutable std::mutex lock;
    std::vector<std::string> seen;
    std::thread worker;
};

}  // namespace testsupport
