#include "Hub/hub_utilities.h"

#include <dirent.h>

#include <cerrno>
#include <iostream>
#include <sstream>

namespace {

const char hexDigits[] = "0123456789abcdef";

void appendHex(unsigned char byte, std::string& out) {
    out += hexDigits[byte >> 4];
    out += hexDigits[byte & 0x0F];
}

// Reads the two characters at hex[pos] as a hexadecimal integer with formatted
// stream input and keeps the low 8 bits; 0 when no number can be read.
unsigned char readPair(const std::string& hex, size_t pos, std::istringstream& in) {
    in.clear();
    in.str(hex.substr(pos, 2));
    int value = 0;
    in >> std::hex >> value;
    if (in.fail()) value = 0;
    return static_cast<unsigned char>(value & 0xFF);
}

}  // namespace

bool bin2hex(const unsigned char* data, size_t len, std::string& out) {
    if (len == 0) return true;
    if (data == nullptr) return false;
    std::string text;
    text.reserve(len * 2);
    for (size_t i = 0; i < len; ++i) appendHex(data[i], text);
    out.swap(text);
    return true;
}

bool bin2hex(const std::vector<unsigned char>& data, std::string& out) {
    out.clear();
    out.reserve(data.size() * 2);
    for (unsigned char byte : data) appendHex(byte, out);
    return true;
}

size_t hex2bin(const std::string& hex, unsigned char* out, size_t capacity) {
    if (out == nullptr) return 0;
    size_t count = hex.size() / 2;
    if (count > capacity) count = capacity;
    std::istringstream in;
    for (size_t i = 0; i < count; ++i) out[i] = readPair(hex, i * 2, in);
    return count;
}

size_t hex2bin(const std::string& hex, std::vector<unsigned char>& out) {
    const size_t count = hex.size() / 2;
    out.reserve(out.size() + count);
    std::istringstream in;
    for (size_t i = 0; i < count; ++i) out.push_back(readPair(hex, i * 2, in));
    return count;
}

void binXOR(const unsigned char* a, const unsigned char* b, unsigned char* out, size_t len) {
    if (a == nullptr || b == nullptr || out == nullptr || len == 0) return;
    for (size_t i = 0; i < len; ++i) out[i] = a[i] ^ b[i];
}

void binXOR(std::vector<unsigned char>& a, std::vector<unsigned char>& b, std::vector<unsigned char>& out) {
    if (a.empty() || b.empty()) {
        out.clear();
        return;
    }
    const size_t na = a.size(), nb = b.size();
    const size_t n = na > nb ? na : nb;
    // Computed into a scratch vector first, so that out may alias a or b.
    std::vector<unsigned char> result(n);
    for (size_t i = 0; i < n; ++i) result[i] = a[i % na] ^ b[i % nb];
    out.swap(result);
}

int getdir(std::string dir, std::vector<std::string>& files) {
    DIR* dp = opendir(dir.c_str());
    if (dp == nullptr) {
        const int err = errno;
        std::cout << "Error(" << err << ") opening " << dir << '\n';
        return err;
    }
    while (const dirent* entry = readdir(dp)) files.push_back(entry->d_name);
    closedir(dp);
    return 0;
}
