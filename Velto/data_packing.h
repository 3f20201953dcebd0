// Primitive wire encodings shared by every pack and by the stored records.
//
// All integers travel in network byte order (big-endian). Texts travel as their
// characters followed by one NUL; byte arrays as a VLQ size followed by the bytes.
// Every primitive works on a cursor pair: a pointer that advances and a count of
// bytes left that decreases, both passed by reference. A primitive that lacks
// room fails (false) without moving the cursor and never touches a byte past the
// count it was given. Nothing here allocates except the std::string forms.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

// Fixed-capacity byte buffer: N bytes of storage and the count in use (never above N).
template <size_t N>
class ByteArray {
public:
    uint8_t arr[N];
    size_t sz;

    ByteArray() : sz(0) { memset(arr, 0, N); }
    ByteArray(const uint8_t* p, size_t len) : sz(0) {
        memset(arr, 0, N);
        if (p) {
            sz = len < N ? len : N;
            memcpy(arr, p, sz);
        }
    }

    void setSize(size_t n) { sz = n < N ? n : N; }
    size_t size() const { return sz; }
    static constexpr size_t capacity() { return N; }
    uint8_t* data() { return arr; }
    const uint8_t* data() const { return arr; }
    uint8_t& operator[](size_t i) { return arr[i]; }
    const uint8_t& operator[](size_t i) const { return arr[i]; }
    bool operator==(const ByteArray& o) const { return sz == o.sz && memcmp(arr, o.arr, sz) == 0; }
    bool operator!=(const ByteArray& o) const { return !(*this == o); }
};

// Fixed-capacity NUL-terminated text of at most N characters. The storage has two
// spare bytes: a sender that exceeds the cap makes the reader keep N + 1
// characters, and the terminating NUL then lands one byte further.
template <size_t N>
class FString {
public:
    char arr[N + 2];
    size_t sz;

    FString() : sz(0) { memset(arr, 0, sizeof(arr)); }
    FString(const char* s) : sz(0) { assign(s, s ? strlen(s) : 0); }
    FString(const std::string& s) : sz(0) { assign(s.data(), s.size()); }

    FString& operator=(const char* s) { assign(s, s ? strlen(s) : 0); return *this; }
    FString& operator=(const std::string& s) { assign(s.data(), s.size()); return *this; }

    const char* c_str() const { return arr; }
    char* data() { return arr; }
    const char* data() const { return arr; }
    size_t size() const { return sz; }
    static constexpr size_t capacity() { return N; }
    size_t calculateSize() { sz = strnlen(arr, sizeof(arr) - 1); return sz; }
    std::string str() const { return std::string(arr, sz); }
    operator std::string() const { return str(); }
    bool operator==(const std::string& s) const { return s.size() == sz && memcmp(arr, s.data(), sz) == 0; }
    bool operator!=(const std::string& s) const { return !(*this == s); }

private:
    void assign(const char* s, size_t len) {
        memset(arr, 0, sizeof(arr));
        sz = len < N ? len : N;
        if (s && sz) memcpy(arr, s, sz);
    }
};

// Integers, big-endian. True on success; false when buf is null or fewer bytes
// than the width are left, the cursor then untouched. 64-bit values go as the
// high then the low 32-bit half; both halves are attempted and the result is
// their AND (so a failed 64-bit value may have moved the cursor by 4). Inline:
// every field of every pack goes through these.
namespace packing_detail {

template <typename U>
inline bool putBigEndian(U v, uint8_t*& buf, size_t& left) {
    if (buf == nullptr || left < sizeof(U)) return false;
    for (size_t i = 0; i < sizeof(U); ++i) buf[i] = static_cast<uint8_t>(v >> (8 * (sizeof(U) - 1 - i)));
    buf += sizeof(U);
    left -= sizeof(U);
    return true;
}

template <typename U>
inline bool getBigEndian(const uint8_t*& buf, size_t& left, U& v) {
    if (buf == nullptr || left < sizeof(U)) return false;
    U r = 0;
    for (size_t i = 0; i < sizeof(U); ++i) r = static_cast<U>((r << 8) | buf[i]);
    v = r;
    buf += sizeof(U);
    left -= sizeof(U);
    return true;
}

// 64-bit values: the high half, then the low half; both are attempted.
inline bool putU64(uint64_t v, uint8_t*& buf, size_t& left) {
    bool ok = putBigEndian(static_cast<uint32_t>(v >> 32), buf, left);
    ok = putBigEndian(static_cast<uint32_t>(v), buf, left) && ok;
    return ok;
}

inline bool getU64(const uint8_t*& buf, size_t& left, uint64_t& v) {
    uint32_t hi = 0;
    uint32_t lo = 0;
    bool ok = getBigEndian(buf, left, hi);
    ok = getBigEndian(buf, left, lo) && ok;
    v = (static_cast<uint64_t>(hi) << 32) | lo;
    return ok;
}

// A signed value read as its unsigned pattern; v untouched on failure.
template <typename U, typename S>
inline bool getSigned(const uint8_t*& buf, size_t& left, S& v) {
    U u = 0;
    if (!getBigEndian(buf, left, u)) return false;
    v = static_cast<S>(u);
    return true;
}

}  // namespace packing_detail

inline bool addToBuffer(uint8_t v, uint8_t*& buf, size_t& left) { return packing_detail::putBigEndian(v, buf, left); }
inline bool addToBuffer(int8_t v, uint8_t*& buf, size_t& left) {
    return packing_detail::putBigEndian(static_cast<uint8_t>(v), buf, left);
}
inline bool addToBuffer(uint16_t v, uint8_t*& buf, size_t& left) { return packing_detail::putBigEndian(v, buf, left); }
inline bool addToBuffer(int16_t v, uint8_t*& buf, size_t& left) {
    return packing_detail::putBigEndian(static_cast<uint16_t>(v), buf, left);
}
inline bool addToBuffer(uint32_t v, uint8_t*& buf, size_t& left) { return packing_detail::putBigEndian(v, buf, left); }
inline bool addToBuffer(int32_t v, uint8_t*& buf, size_t& left) {
    return packing_detail::putBigEndian(static_cast<uint32_t>(v), buf, left);
}
inline bool addToBuffer(uint64_t v, uint8_t*& buf, size_t& left) { return packing_detail::putU64(v, buf, left); }
inline bool addToBuffer(int64_t v, uint8_t*& buf, size_t& left) {
    return packing_detail::putU64(static_cast<uint64_t>(v), buf, left);
}

inline bool getFromBuffer(const uint8_t*& buf, size_t& left, uint8_t& v) {
    return packing_detail::getBigEndian(buf, left, v);
}
inline bool getFromBuffer(const uint8_t*& buf, size_t& left, int8_t& v) {
    return packing_detail::getSigned<uint8_t>(buf, left, v);
}
inline bool getFromBuffer(const uint8_t*& buf, size_t& left, uint16_t& v) {
    return packing_detail::getBigEndian(buf, left, v);
}
inline bool getFromBuffer(const uint8_t*& buf, size_t& left, int16_t& v) {
    return packing_detail::getSigned<uint16_t>(buf, left, v);
}
inline bool getFromBuffer(const uint8_t*& buf, size_t& left, uint32_t& v) {
    return packing_detail::getBigEndian(buf, left, v);
}
inline bool getFromBuffer(const uint8_t*& buf, size_t& left, int32_t& v) {
    return packing_detail::getSigned<uint32_t>(buf, left, v);
}
inline bool getFromBuffer(const uint8_t*& buf, size_t& left, uint64_t& v) {
    return packing_detail::getU64(buf, left, v);
}
inline bool getFromBuffer(const uint8_t*& buf, size_t& left, int64_t& v) {
    uint64_t u = 0;
    bool ok = packing_detail::getU64(buf, left, u);
    v = static_cast<int64_t>(u);
    return ok;
}

// Texts: min(strlen(s), maxLen) characters and a NUL. True on success; false
// (nothing written) when s or buf is null or fewer than that count + 1 bytes are
// left.
bool addToBuffer(const char* s, size_t maxLen, uint8_t*& buf, size_t& left);
bool addToBuffer(const std::string& s, size_t maxLen, uint8_t*& buf, size_t& left);

// Reads a NUL-terminated text into dst, which must hold maxLen + 2 bytes: copies
// n = min(L + 1, maxLen + 1, left) bytes (L = the text's length), stores a NUL at
// dst[n] and advances by n. A text longer than maxLen is not skipped: the rest of
// it is read as the following fields (senders never exceed the caps); a text
// cut by the end of the bytes is taken as it is. True after any read; false
// (nothing read) when dst or buf is null or nothing is left.
bool getFromBuffer(const uint8_t*& buf, size_t& left, char* dst, size_t maxLen);
// Reads a NUL-terminated text. True on success; false (cursor untouched) when
// buf is null, nothing is left or no NUL lies within the bytes left.
bool getFromBuffer(const uint8_t*& buf, size_t& left, std::string& s);

// VLQ sizes: 7-bit groups, most significant first, bit 7 set on every byte but
// the last; 1 to 5 bytes. encodeSizeVLQ fails (nothing written) when buf is null
// or the encoded length does not fit. decodeVLQSize fails only when buf is null
// or nothing is left; it has no cap on the byte count (the value keeps its low 32
// bits), and reaching the end of the bytes with bit 7 still set counts as success
// with the missing group read as 0 (kept as it is; nothing past the count is read).
bool encodeSizeVLQ(uint32_t value, uint8_t*& buf, size_t& left);
bool decodeVLQSize(const uint8_t*& buf, size_t& left, uint32_t& value);

// The text's size() characters and a NUL; true/false as for a C string.
template <size_t N>
bool addToBuffer(const FString<N>& s, uint8_t*& buf, size_t& left) {
    return addToBuffer(s.c_str(), s.size(), buf, left);
}

// A text read with maxLen = N, then the cached size recomputed; true/false as
// for a char array (an over-cap sender leaves N + 1 characters here).
template <size_t N>
bool getFromBuffer(const uint8_t*& buf, size_t& left, FString<N>& s) {
    if (!getFromBuffer(buf, left, s.data(), N)) return false;
    s.calculateSize();
    return true;
}

// A VLQ size, then size() raw bytes. True when all of it fits; false when the
// size does not fit (nothing written) or when the bytes run out (the size and the
// bytes that fitted stay written, the cursor past them).
template <size_t N>
bool addToBuffer(const ByteArray<N>& a, uint8_t*& buf, size_t& left) {
    if (!encodeSizeVLQ(static_cast<uint32_t>(a.size()), buf, left)) return false;
    size_t fit = a.size() <= left ? a.size() : left;
    memcpy(buf, a.arr, fit);
    buf += fit;
    left -= fit;
    return fit == a.size();
}

// A VLQ size n, then n bytes: the first min(n, N) are kept, the rest are read and
// dropped so that the cursor stays in step with the sender. Fails when the size
// cannot be read or any of the n bytes is missing; the cursor is then untouched.
template <size_t N>
bool getFromBuffer(const uint8_t*& buf, size_t& left, ByteArray<N>& a) {
    const uint8_t* start = buf;
    size_t startLeft = left;
    uint32_t n = 0;
    if (!decodeVLQSize(buf, left, n)) return false;
    if (n > left) {
        buf = start;
        left = startLeft;
        return false;
    }
    size_t keep = n < N ? n : N;
    memcpy(a.arr, buf, keep);
    a.setSize(keep);
    buf += n;
    left -= n;
    return true;
}
