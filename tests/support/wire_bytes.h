// Byte helpers for the wire-format tests: exactly sized heap copies (so that a
// read past the end is caught by a sanitizer) and hexadecimal text of bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace testsupport {

// A heap block of exactly the given bytes, nothing more.
class ExactBytes {
public:
    explicit ExactBytes(const std::vector<uint8_t>& v) : n(v.size()), p(new uint8_t[v.size()]) {
        if (n) memcpy(p.get(), v.data(), n);
    }
    ExactBytes(const uint8_t* src, size_t len) : n(len), p(new uint8_t[len]) {
        if (n) memcpy(p.get(), src, n);
    }
    const uint8_t* data() const { return p.get(); }
    uint8_t* data() { return p.get(); }
    size_t size() const { return n; }

private:
    size_t n;
    std::unique_ptr<uint8_t[]> p;
};

// An exact heap copy of some bytes and a decoder's cursor pair over it.
struct ReadCursor {
    explicit ReadCursor(const std::vector<uint8_t>& v) : bytes(v), cur(bytes.data()), left(bytes.size()) {}
    const uint8_t* begin() const { return bytes.data(); }
    ExactBytes bytes;
    const uint8_t* cur;
    size_t left;
};

// Lower-case hex, two digits a byte, no separators.
inline std::string toHex(const uint8_t* p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}

inline std::string toHex(const std::vector<uint8_t>& v) { return toHex(v.data(), v.size()); }

// Bytes of a hex text; spaces are skipped so that expected layouts can be grouped.
inline std::vector<uint8_t> fromHex(const std::string& s) {
    std::vector<uint8_t> out;
    int hi = -1;
    for (char c : s) {
        int d;
        if (c >= '0' && c <= '9') d = c - '0';
        else if (c >= 'a' && c <= 'f') d = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F') d = c - 'A' + 10;
        else continue;
        if (hi < 0) {
            hi = d;
        } else {
            out.push_back(static_cast<uint8_t>(hi * 16 + d));
            hi = -1;
        }
    }
    return out;
}

}  // namespace testsupport
