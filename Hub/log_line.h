// One diagnostic line built in a fixed buffer and handed to its stream in one
// write, instead of one formatted insertion (sentry, locale and number facets)
// per field.
//
// Output is what `os << a << b ...` gives with the stream's default flags:
// integers in decimal, the three char types as raw characters, bool as 1 or 0,
// texts as they are, a SockAddress in its "[a.b.c.d]:port" form. Nothing is
// allocated; text beyond the buffer is written ahead in pieces, so lines of
// any length come out whole and in order. The line goes out at end() or on
// destruction, whichever comes first. The common steps are inline: a line of
// literals and numbers costs little more than copying its bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>

#include "Velto/UdpSocket.h"

class LogLine {
public:
    explicit LogLine(std::ostream& os) : out(os) {}
    ~LogLine() { end(); }
    LogLine(const LogLine&) = delete;
    LogLine& operator=(const LogLine&) = delete;

    // A null text writes nothing (the stream would set failbit instead).
    LogLine& operator<<(const char* text) { return text ? append(text, strlen(text)) : *this; }
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
    LogLine& append(const char* text, size_t n) {
        if (n > CAPACITY - used) return appendInPieces(text, n);
        memcpy(buffer + used, text, n);
        used += n;
        return *this;
    }
    // Hands what is buffered to the stream (one write); later insertions start
    // a new piece. Returns nothing.
    void end();

private:
    static constexpr size_t CAPACITY = 256;
    static constexpr size_t MAX_DIGITS = 20;  // of an unsigned 64-bit value

    LogLine& put(char c) {
        if (used == CAPACITY) end();
        buffer[used++] = c;
        return *this;
    }
    LogLine& unsignedNumber(unsigned long long v) {
        if (CAPACITY - used < MAX_DIGITS) end();
        used += writeDecimal(buffer + used, v);
        return *this;
    }
    LogLine& signedNumber(long long v) {
        if (v >= 0) return unsignedNumber(static_cast<unsigned long long>(v));
        put('-');
        // The magnitude in unsigned arithmetic: right for the most negative value too.
        return unsignedNumber(0ull - static_cast<unsigned long long>(v));
    }
    LogLine& appendInPieces(const char* text, size_t n);
    // Writes the decimal digits of v at out; returns their count (1 to 20).
    static size_t writeDecimal(char* out, unsigned long long v);

    std::ostream& out;
    size_t used = 0;
    char buffer[CAPACITY];
};

inline size_t LogLine::writeDecimal(char* out, unsigned long long v) {
    static const char pairs[] =
        "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
        "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
        "8081828384858687888990919293949596979899";
    if (v < 10) {
        out[0] = static_cast<char>('0' + v);
        return 1;
    }
    size_t n = 2;
    for (unsigned long long rest = v / 100; rest != 0; rest /= 10) ++n;
    char* p = out + n;
    while (v >= 100) {
        const unsigned pair = static_cast<unsigned>(v % 100) * 2;
        v /= 100;
        *--p = pairs[pair + 1];
        *--p = pairs[pair];
    }
    if (v >= 10) {
        *--p = pairs[v * 2 + 1];
        *--p = pairs[v * 2];
    } else {
        *--p = static_cast<char>('0' + v);
    }
    return n;
}
