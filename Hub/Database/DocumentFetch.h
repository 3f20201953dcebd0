// Downloads of documents that never block their caller. One helper thread
// runs every transfer (libcurl's multi interface: connections, TLS, bodies);
// the caller's thread starts them and takes their ends with
// HttpTransfers::perform(), and HttpTransfers::wait() watches for those ends
// together with one descriptor of the caller's (the hub's UDP socket). So a
// slow server, a TLS handshake or a large body costs the caller's loop nothing.
//
// A DocumentFetch tries a document's addresses in order until one gives a body.
// Bounds: a connection attempt gives up after 5 s, the whole document (all its
// addresses together) after 30 s, a body above 1 MiB is refused. Each attempt
// writes its "Downloading <url> ... <outcome>" line whole on standard output
// when it ends. Every call and every callback (Filer) runs on the thread that
// calls perform(); only the body bytes are taken on the helper thread.
#pragma once

#include <curl/curl.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>


class DocumentFetch;

// Owner of the transfers under way. Must outlive every fetch started on it.
class HttpTransfers {
public:
    HttpTransfers();
    ~HttpTransfers();
    HttpTransfers(const HttpTransfers&) = delete;
    HttpTransfers& operator=(const HttpTransfers&) = delete;

    // Hands every attempt that ended to its fetch (which may start its next
    // address). Does not wait.
    void perform();
    // Waits up to micros for an attempt to end or for extraFd (ignored when
    // negative) to become readable. Returns 1 when extraFd is readable, 0
    // otherwise (time-out, an attempt ended, a signal), -1 on error.
    int wait(int extraFd, uint64_t micros);
    // Number of transfers under way.
    size_t active() const { return running; }
    // Abandons every transfer and ends the helper thread (at once: it only
    // waits inside the library's non-blocking calls). Call before the process
    // exits, so the TLS library is not torn down under a running transfer.
    // Nothing can be fetched afterwards.
    void stop();

private:
    friend class DocumentFetch;
    bool add(CURL* handle);
    // Takes handle off the helper thread (waits until it is, briefly).
    void remove(CURL* handle);
    void run();
    void startQueued();
    void collectEnded();

    CURLM* multi = nullptr;
    int wakeFd = -1;  // readable while ended attempts wait for perform()
    size_t running = 0;
    std::mutex lock;
    std::condition_variable removedCv;
    std::vector<CURL*> toAdd, toRemove;
    std::vector<std::pair<CURL*, int>> ended;
    std::atomic<bool> stopping{false};
    std::thread worker;
};

class DocumentFetch {
public:
    // Files a body that arrived: returns true and sets outcome to the text that
    // ends the attempt's line ("OK as file ..."); false (with outcome the
    // failure text) lets the next address be tried.
    typedef std::function<bool(const std::vector<char>& body, std::string& outcome)> Filer;

    static constexpr long CONNECT_TIMEOUT_MS = 5000;
    static constexpr long DOCUMENT_TIMEOUT_MS = 30000;
    static constexpr size_t MAX_DOCUMENT_BYTES = 1024 * 1024;

    // Starts on the first of urls at once. transfers must outlive the fetch.
    DocumentFetch(HttpTransfers& transfers, std::vector<std::string> urls, Filer filer);
    ~DocumentFetch();
    DocumentFetch(const DocumentFetch&) = delete;
    DocumentFetch& operator=(const DocumentFetch&) = delete;

    // True once an address gave a filed body or every try is spent.
    bool finished() const { return done; }
    // True when a body was filed.
    bool succeeded() const { return filed; }

    // Called by HttpTransfers when the current attempt ended (result is the
    // transfer's CURLcode).
    void attemptEnded(int result);
    // Receives body bytes of the current attempt; returns the count taken
    // (short when the document grew too large, which ends the attempt).
    size_t take(const char* bytes, size_t n);

private:
    void startNext();
    void finish();
    long millisecondsLeft() const;
    std::string failureText(int result) const;

    HttpTransfers& transfers;
    std::vector<std::string> urls;
    Filer filer;
    size_t next = 0;
    CURL* handle = nullptr;
    std::vector<char> body;
    bool tooLarge = false;
    bool done = false;
    bool filed = false;
    std::chrono::steady_clock::time_point deadline;
};
