// One diagnostic line built in a fixed buffer and handed to its stream with
// one ostream::write, instead of one formatted insertion (sentry, locale and
// number facets) per field.
//
// Output is what `os << a << b ...` gives with the stream's default flags:
// integers in decimal, the three char types as raw characters, bool as 1 or 0,
// texts as they are, a SockAddress in its "[a.b.c.d]:port" form. Nothing is
// allocated; text beyond the buffer is written ahead in pieces, so lines of
// any length come out whole and in order. The line goes out at end() or on
// destruction, whichever comes first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>

#include "Velto/UdpSocket.h"

class LogLine {
public:
    explicit LogLine(std::ostream& os) : out(os) {}
    ~LogLine() { end(); }
    LogLine(const LogLine&) = delete;
    LogLine& operator=(const LogLine&) = delete;

    LogLine& operator<<(const char* text);  // null writes nothing (the stream would fail)
    LogLine& operator<<(const std::string& text) { return append(text.data(), text.size()); }
    LogLine& operator<<(char c) { return put(c); }
    LogLine& operator<<(unsigned char c) { return put(static_cast<char>(c)); }
    LogLine& operator<<(signed char c) { return put(static_cast<char>(c)); }
    LogLine& operator<<(bool b) { return put(b ? '1' : '0'); }
    LogLine& operator<<(short v) { return signedNumber(v); }
    LogLine& operator<<(int v) { return signedNumber(v); }
    LogLine& operator<<(long v) { return signedNumber(v); }
    LogLine& operator<<(long long v) { return signedNumber(v); }
    LogLine& operator<<(unsigned short v) { return unsignedNumber(v); }
    LogLine& operator<<(unsigned int v) { return unsignedNumber(v); }
    LogLine& operator<<(unsigned long v) { return unsignedNumber(v); }
    LogLine& operator<<(unsigned long long v) { return unsignedNumber(v); }
    LogLine& operator<<(const SockAddress& a);
    // Other pointers would silently pick the bool form; the stream writes an
    // address there, which no line of the hub wants.
    LogLine& operator<<(const void*) = delete;

    // Appends n bytes of text as they are.
    LogLine& append(const char* text, size_t n);
    // Hands what is buffered to the stream (one write); later insertions start
    // a new piece. Returns nothing.
    void end();

private:
    static constexpr size_t CAPACITY = 256;

    LogLine& put(char c) {
        if (used == CAPACITY) end();
        buffer[used++] = c;
        return *this;
    }
    LogLine& signedNumber(long long v);
    LogLine& unsignedNumber(unsigned long long v);

    std::ostream& out;
    size_t used = 0;
    char buffer[CAPACITY];
};
