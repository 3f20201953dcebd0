#include "Hub/Database/DocumentFetch.h"

#include <curl/curl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
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

}  // namespace

// ------------------------------------------------------------ HttpTransfers

// Nothing is set up before the first transfer: the hub's start-up does not
// pay for the library's initialisation.
HttpTransfers::HttpTransfers() {}

HttpTransfers::~HttpTransfers() {
    stop();
    if (wakeFd >= 0) ::close(wakeFd);
}

void HttpTransfers::stop() {
    stopping = true;
    if (worker.joinable()) {
        curl_multi_wakeup(multi);
        worker.join();
    }
    if (multi) curl_multi_cleanup(multi);  // detaches what is left and closes its connections
    multi = nullptr;
    removedCv.notify_all();
}

// The helper thread starts with the first transfer: programs that never
// download never have it.
bool HttpTransfers::add(CURL* handle) {
    if (stopping) return false;
    if (multi == nullptr) multi = curl_multi_init();
    if (wakeFd < 0) wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (multi == nullptr || wakeFd < 0 || stopping) return false;
    if (!worker.joinable()) worker = std::thread(&HttpTransfers::run, this);
    {
        std::lock_guard<std::mutex> g(lock);
        toAdd.push_back(handle);
    }
    curl_multi_wakeup(multi);
    ++running;
    return true;
}

void HttpTransfers::remove(CURL* handle) {
    std::unique_lock<std::mutex> g(lock);
    --running;
    auto queued = std::find(toAdd.begin(), toAdd.end(), handle);
    if (queued != toAdd.end()) {
        toAdd.erase(queued);
        return;
    }
    for (auto it = ended.begin(); it != ended.end(); ++it) {
        if (it->first != handle) continue;
        ended.erase(it);
        return;
    }
    toRemove.push_back(handle);
    curl_multi_wakeup(multi);
    removedCv.wait_for(g, std::chrono::seconds(5), [&] {
        return stopping || std::find(toRemove.begin(), toRemove.end(), handle) == toRemove.end();
    });
}

void HttpTransfers::run() {
    while (!stopping) {
        startQueued();
        int stillRunning = 0;
        curl_multi_perform(multi, &stillRunning);
        collectEnded();
        int ready = 0;
        curl_multi_poll(multi, nullptr, 0, 1000, &ready);
    }
}

// Helper thread: what the caller's thread asked for since the last round.
void HttpTransfers::startQueued() {
    std::lock_guard<std::mutex> g(lock);
    for (CURL* h : toAdd) curl_multi_add_handle(multi, h);
    toAdd.clear();
    if (toRemove.empty()) return;
    for (CURL* h : toRemove) {
        curl_multi_remove_handle(multi, h);
        ended.erase(std::remove_if(ended.begin(), ended.end(),
                                   [h](const std::pair<CURL*, int>& e) { return e.first == h; }),
                    ended.end());
    }
    toRemove.clear();
    removedCv.notify_all();
}

// Helper thread: attempts that ended leave the multi handle and wait for perform().
void HttpTransfers::collectEnded() {
    int left = 0;
    bool any = false;
    while (CURLMsg* m = curl_multi_info_read(multi, &left)) {
        if (m->msg != CURLMSG_DONE) continue;
        CURL* h = m->easy_handle;
        const int result = m->data.result;  // m is gone once the handle is removed
        curl_multi_remove_handle(multi, h);
        std::lock_guard<std::mutex> g(lock);
        ended.emplace_back(h, result);
        any = true;
    }
    if (!any) return;
    const uint64_t one = 1;
    (void)!::write(wakeFd, &one, sizeof one);
}

void HttpTransfers::perform() {
    if (wakeFd < 0) return;
    uint64_t count = 0;
    (void)!::read(wakeFd, &count, sizeof count);  // also a wake-up left by a cancelled attempt
    std::vector<std::pair<CURL*, int>> done;
    {
        std::lock_guard<std::mutex> g(lock);
        done.swap(ended);
    }
    for (const auto& e : done) {
        --running;
        char* owner = nullptr;
        curl_easy_getinfo(e.first, CURLINFO_PRIVATE, &owner);
        if (owner) reinterpret_cast<DocumentFetch*>(owner)->attemptEnded(e.second);
    }
}

int HttpTransfers::wait(int extraFd, uint64_t micros) {
    struct pollfd p[2] = {{wakeFd, POLLIN, 0}, {extraFd, POLLIN, 0}};
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(micros / 1000000);
    ts.tv_nsec = static_cast<long>(micros % 1000000) * 1000;
    struct pollfd* first = wakeFd >= 0 ? p : p + 1;  // before the first transfer: extraFd alone
    const int r = ppoll(first, static_cast<nfds_t>((wakeFd >= 0 ? 1 : 0) + (extraFd >= 0 ? 1 : 0)), &ts, nullptr);
    if (r < 0) return errno == EINTR ? 0 : -1;
    return extraFd >= 0 && (p[1].revents & POLLIN) ? 1 : 0;
}

// ------------------------------------------------------------ DocumentFetch

DocumentFetch::DocumentFetch(HttpTransfers& t, std::vector<std::string> u, Filer f)
    : transfers(t), urls(std::move(u)), filer(std::move(f)),
      deadline(std::chrono::steady_clock::now() + std::chrono::milliseconds(DOCUMENT_TIMEOUT_MS)) {
    initialiseLibraryOnce();
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

// An attempt is not started with less time than this, ms.
constexpr long MIN_ATTEMPT_MS = 100;

// The next address with the time the document has left; when that is spent,
// the addresses not yet tried are given up in one line.
void DocumentFetch::startNext() {
    while (next < urls.size()) {
        const long left = millisecondsLeft();
        if (left < MIN_ATTEMPT_MS) {
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
    curl_easy_cleanup(handle);  // already off the helper thread
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
