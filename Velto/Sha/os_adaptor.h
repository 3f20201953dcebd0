// Byte sink used by the hash classes.
//
// Print has one primitive, write(uint8_t), supplied by each concrete sink; the
// other forms feed it byte by byte unless a sink overrides them with a faster
// bulk path. Every form returns the number of bytes taken.
#pragma once

#include <cstddef>
#include <cstdint>

class Print {
public:
    // Takes one byte; returns 1.
    virtual size_t write(uint8_t b) = 0;
    // Every byte of text up to its NUL; 0 (nothing taken) for null.
    virtual size_t write(const char* text);
    // n bytes of data; 0 (nothing taken) for null data or n = 0.
    virtual size_t write(const uint8_t* data, size_t n);
    // The bytes of [begin, end); 0 (nothing taken) when either is null or begin
    // is after end.
    virtual size_t write(const uint8_t* begin, const uint8_t* end);

protected:
    ~Print() = default;
};
