#include "Hub/Database/DocumentFetch.h"

#include <curl/curl.h>
#include <poll.h>
#include <time.h>

#include <cerrno>
#include <iostream>
#include <mutex>

namespace {

// The library's global state is set up once for the process and never torn
// down: transfers may still be under way when the process ends.
void initialiseLibraryOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_ALL); });
}

size_t writeToFetch(char* ptr, size_t size, size_t nmemb, void* userdata) {
    return static_cast<DocumentFetch*>(userdata)->take(ptr, size * nmemb);
}

// Milliseconds for a wait of micros, rounded up so that a short wait still waits.
int waitMilliseconds(uint64_t micros) {
    const uint64_t ms = (micros + 999) / 1000;
    return ms > 1000000 ? 1000000 : static_cast<int>(ms);
}

// Waits for fd alone; 1 readable, 0 time-out or interrupted, -1 error.
int pollOne(int fd, uint64_t micros) {
    struct pollfd p = {fd, POLLIN, 0};
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(micros / 1000000);
    ts.tv_nsec = static_cast<long>(micros % 1000000) * 1000;
    const int r = ppoll(&p, fd >= 0 ? 1 : 0, &ts, nullptr);
    if (r < 0) return errno == EINTR ? 0 : -1;
    return r > 0 && (p.revents & POLLIN) ? 1 : 0;
}

}  // namespace

// ------------------------------------------------------------ HttpTransfers

HttpTransfers::HttpTransfers() {
    initialiseLibraryOnce();
    multi = curl_multi_init();
}

HttpTransfers::~HttpTransfers() {
    if (multi) curl_multi_cleanup(multi);
}

bool HttpTransfers::add(CURL* handle) {
    if (multi == nullptr || curl_multi_add_handle(multi, handle) != CURLM_OK) return false;
    ++running;
    return true;
}

void HttpTransfers::remove(CURL* handle) {
    if (curl_multi_remove_handle(multi, handle) == CURLM_OK && running > 0) --running;
}

void HttpTransfers::perform() {
    if (running == 0) return;
    int stillRunning = 0;
    curl_multi_perform(multi, &stillRunning);
    int left = 0;
    while (CURLMsg* m = curl_multi_info_read(multi, &left)) {
        if (m->msg != CURLMSG_DONE) continue;
        const CURLcode result = m->data.result;  // m is gone once the handle is removed
        char* owner = nullptr;
        curl_easy_getinfo(m->easy_handle, CURLINFO_PRIVATE, &owner);
        if (owner) reinterpret_cast<DocumentFetch*>(owner)->attemptEnded(result);
    }
}

int HttpTransfers::wait(int extraFd, uint64_t micros) {
    if (running == 0) return pollOne(extraFd, micros);
    struct curl_waitfd extra = {extraFd, CURL_WAIT_POLLIN, 0};
    int ready = 0;
    if (curl_multi_poll(multi, &extra, extraFd >= 0 ? 1 : 0, waitMilliseconds(micros), &ready) != CURLM_OK)
        return -1;
    return extraFd >= 0 && (extra.revents & CURL_WAIT_POLLIN) ? 1 : 0;
}

// ------------------------------------------------------------ DocumentFetch

DocumentFetch::DocumentFetch(HttpTransfers& t, std::vector<std::string> u, Filer f)
    : transfers(t), urls(std::move(u)), filer(std::move(f)),
      deadline(std::chrono::steady_clock::now() + std::chrono::milliseconds(DOCUMENT_TIMEOUT_MS)) {
    startNext();
}

DocumentFetch::~DocumentFetch() {
    if (handle == nullptr) return;
    transfers.remove(handle);
    curl_easy_cleanup(handle);
}

long DocumentFetch::millisecondsLeft() const {
    using namespace std::chrono;
    return static_cast<long>(duration_cast<milliseconds>(deadline - steady_clock::now()).count());
}

// The next address with the time the document has left; when that is spent,
// the addresses not yet tried are given up in one line.
void DocumentFetch::startNext() {
    while (next < urls.size()) {
        const long left = millisecondsLeft();
        if (left <= 0) {
            std::cout << ("Downloading stopped: " + std::to_string(DOCUMENT_TIMEOUT_MS / 1000) +
                          " s spent on this document, " + std::to_string(urls.size() - next) +
                          " address(es) not tried\n")
                      << std::flush;
            break;
        }
        const std::string& url = urls[next++];
        CURL* h = curl_easy_init();
        if (h != nullptr) {
            curl_easy_setopt(h, CURLOPT_URL, url.c_str());
            curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &writeToFetch);
            curl_easy_setopt(h, CURLOPT_WRITEDATA, static_cast<void*>(this));
            curl_easy_setopt(h, CURLOPT_PRIVATE, reinterpret_cast<char*>(this));
            curl_easy_setopt(h, CURLOPT_USERAGENT, "libcurl-agent/1.0");
            curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
#if LIBCURL_VERSION_NUM >= 0x075700
            curl_easy_setopt(h, CURLOPT_QUICK_EXIT, 1L);  // an unfinished name look-up never holds up the exit
#endif
            curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, left < CONNECT_TIMEOUT_MS ? left : CONNECT_TIMEOUT_MS);
            curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, left);
            curl_easy_setopt(h, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(MAX_DOCUMENT_BYTES));
            if (transfers.add(h)) {
                handle = h;
                return;
            }
            curl_easy_cleanup(h);
        }
        std::cout << ("Downloading " + url + " ... Failed. Error data size=0\n") << std::flush;
    }
    finish();
}

void DocumentFetch::finish() { done = true; }

size_t DocumentFetch::take(const char* bytes, size_t n) {
    if (body.size() + n > MAX_DOCUMENT_BYTES) {
        tooLarge = true;
        return 0;  // ends the transfer
    }
    body.insert(body.end(), bytes, bytes + n);
    return n;
}

std::string DocumentFetch::failureText(int result) const {
    if (tooLarge || result == CURLE_FILESIZE_EXCEEDED)
        return "Failed. Document larger than " + std::to_string(MAX_DOCUMENT_BYTES) + " bytes refused";
    if (body.empty()) return "Failed. Error data size=0";
    if (result == CURLE_OPERATION_TIMEDOUT)
        return "Failed. Timed out with " + std::to_string(body.size()) + " bytes of the document";
    return std::string();
}

// Any body counts (an error page too), unless a bound cut it short.
void DocumentFetch::attemptEnded(int result) {
    transfers.remove(handle);
    curl_easy_cleanup(handle);
    handle = nullptr;
    std::string outcome = failureText(result);
    const bool ok = outcome.empty() && filer(body, outcome);
    std::cout << ("Downloading " + urls[next - 1] + " ... " + outcome + "\n") << std::flush;
    body.clear();
    tooLarge = false;
    if (ok) {
        filed = true;
        finish();
    } else {
        startNext();
    }
}
