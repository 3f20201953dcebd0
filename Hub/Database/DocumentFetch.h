// Downloads of documents that never block their caller: libcurl's multi
// interface, driven by HttpTransfers::perform() from the caller's own loop and
// waited on with HttpTransfers::wait(), which also watches one descriptor of
// the caller's (the hub's UDP socket).
//
// A DocumentFetch tries a document's addresses in order until one gives a body.
// Bounds: a connection attempt gives up after 5 s, the whole document (all its
// addresses together) after 30 s, a body above 1 MiB is refused. Each attempt
// writes its "Downloading <url> ... <outcome>" line whole on standard output
// when it ends. Single-threaded: every call, and every callback, runs on the
// thread that calls perform().
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>


class DocumentFetch;

// Owner of the transfers under way. Must outlive every fetch started on it.
class HttpTransfers {
public:
    HttpTransfers();
    ~HttpTransfers();
    HttpTransfers(const HttpTransfers&) = delete;
    HttpTransfers& operator=(const HttpTransfers&) = delete;

    // Moves every transfer on as far as it goes without waiting; attempts that
    // ended are handed to their fetch (which may start its next address).
    void perform();
    // Waits up to micros for transfer traffic, or for extraFd (ignored when
    // negative) to become readable. Returns 1 when extraFd is readable, 0
    // otherwise, -1 on error. With no transfer under way it polls extraFd only.
    int wait(int extraFd, uint64_t micros);
    // Number of transfers under way.
    size_t active() const { return running; }

private:
    friend class DocumentFetch;
    bool add(CURL* handle);
    void remove(CURL* handle);

    CURLM* multi = nullptr;
    size_t running = 0;
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
