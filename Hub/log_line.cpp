// The out-of-line parts of LogLine: long texts, addresses and the write.
#include "Hub/log_line.h"

LogLine& LogLine::operator<<(const SockAddress& a) {
    return *this << '[' << a.ipAddr() << "]:" << static_cast<unsigned>(a.port());
}

LogLine& LogLine::appendInPieces(const char* text, size_t n) {
    while (n > 0) {
        if (used == CAPACITY) end();
        const size_t take = CAPACITY - used < n ? CAPACITY - used : n;
        memcpy(buffer + used, text, take);
        used += take;
        text += take;
        n -= take;
    }
    return *this;
}

// What ostream::write does, without its sentry when the sentry has nothing to
// do (no tied stream to flush, no unitbuf, stream good).
void LogLine::end() {
    if (used == 0) return;
    const std::streamsize n = static_cast<std::streamsize>(used);
    used = 0;
    std::streambuf* sink = out.rdbuf();
    if (sink == nullptr || out.tie() != nullptr || (out.flags() & std::ios::unitbuf) || !out.good()) {
        out.write(buffer, n);
        return;
    }
    if (sink->sputn(buffer, n) != n) out.setstate(std::ios::badbit);
}
