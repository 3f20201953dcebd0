// Primitive wire encodings: big-endian integers, capped NUL-terminated texts and
// VLQ sizes, all on a cursor pair that never goes past the count it was given.
#include "Velto/data_packing.h"

namespace {

// Bytes the VLQ form of value takes.
size_t vlqLength(uint32_t value) {
    if (value <= 0x7Fu) return 1;
    if (value <= 0x3FFFu) return 2;
    if (value <= 0x1FFFFFu) return 3;
    if (value <= 0xFFFFFFFu) return 4;
    return 5;
}

}  // namespace

bool addToBuffer(const char* s, size_t maxLen, uint8_t*& buf, size_t& left) {
    if (s == nullptr || buf == nullptr) return false;
    size_t len = strnlen(s, maxLen);
    if (left < len + 1) return false;
    memcpy(buf, s, len);
    buf[len] = 0;
    buf += len + 1;
    left -= len + 1;
    return true;
}

bool addToBuffer(const std::string& s, size_t maxLen, uint8_t*& buf, size_t& left) {
    return addToBuffer(s.c_str(), maxLen, buf, left);
}

bool getFromBuffer(const uint8_t*& buf, size_t& left, char* dst, size_t maxLen) {
    if (dst == nullptr || buf == nullptr || left == 0) return false;
    // n = min(L + 1, maxLen + 1, left), looking no further than the smaller cap.
    size_t cap = maxLen < left - 1 ? maxLen + 1 : left;
    const void* nul = memchr(buf, 0, cap);
    size_t n = nul ? static_cast<size_t>(static_cast<const uint8_t*>(nul) - buf) + 1 : cap;
    memcpy(dst, buf, n);
    dst[n] = 0;
    buf += n;
    left -= n;
    return true;
}

bool getFromBuffer(const uint8_t*& buf, size_t& left, std::string& s) {
    if (buf == nullptr || left == 0) return false;
    const void* nul = memchr(buf, 0, left);
    if (nul == nullptr) return false;
    size_t len = static_cast<size_t>(static_cast<const uint8_t*>(nul) - buf);
    s.assign(reinterpret_cast<const char*>(buf), len);
    buf += len + 1;
    left -= len + 1;
    return true;
}

bool encodeSizeVLQ(uint32_t value, uint8_t*& buf, size_t& left) {
    if (buf == nullptr || left == 0) return false;
    size_t n = vlqLength(value);
    if (left < n) return false;
    for (size_t i = 0; i < n; ++i) {
        uint8_t group = static_cast<uint8_t>((value >> (7 * (n - 1 - i))) & 0x7F);
        buf[i] = (i + 1 < n) ? static_cast<uint8_t>(group | 0x80) : group;
    }
    buf += n;
    left -= n;
    return true;
}

bool decodeVLQSize(const uint8_t*& buf, size_t& left, uint32_t& value) {
    if (buf == nullptr || left == 0) return false;
    uint32_t v = 0;
    for (;;) {
        if (left == 0) {
            // kept: success at the end of the bytes; the missing group reads as 0
            // instead of the byte past the end (the cursor stays, the count stays 0).
            v <<= 7;
            break;
        }
        uint8_t b = *buf++;
        --left;
        v = (v << 7) | (b & 0x7Fu);
        if ((b & 0x80) == 0) break;
    }
    value = v;
    return true;
}
