// Decimal formatting and buffering of LogLine.
#include "Hub/log_line.h"

#include <cstring>

LogLine& LogLine::operator<<(const char* text) {
    if (text == nullptr) return *this;
    return append(text, strlen(text));
}

LogLine& LogLine::operator<<(const SockAddress& a) {
    return *this << '[' << a.ipAddr() << "]:" << static_cast<unsigned>(a.port());
}

LogLine& LogLine::append(const char* text, size_t n) {
    while (n > 0) {
        if (used == CAPACITY) end();
        size_t take = CAPACITY - used < n ? CAPACITY - used : n;
        memcpy(buffer + used, text, take);
        used += take;
        text += take;
        n -= take;
    }
    return *this;
}

LogLine& LogLine::unsignedNumber(unsigned long long v) {
    char digits[20];
    size_t n = 0;
    do {
        digits[sizeof(digits) - 1 - n++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    return append(digits + sizeof(digits) - n, n);
}

LogLine& LogLine::signedNumber(long long v) {
    if (v >= 0) return unsignedNumber(static_cast<unsigned long long>(v));
    put('-');
    // The magnitude in unsigned arithmetic: right for the most negative value too.
    return unsignedNumber(0ull - static_cast<unsigned long long>(v));
}

void LogLine::end() {
    if (used == 0) return;
    out.write(buffer, static_cast<std::streamsize>(used));
    used = 0;
}
