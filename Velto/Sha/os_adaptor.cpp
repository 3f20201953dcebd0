// Default forms of the byte sink, all built on write(uint8_t).
#include "Velto/Sha/os_adaptor.h"

#include <cstring>

size_t Print::write(const char* text) {
    if (text == nullptr) return 0;
    return write(reinterpret_cast<const uint8_t*>(text), strlen(text));
}

size_t Print::write(const uint8_t* data, size_t n) {
    if (data == nullptr || n == 0) return 0;
    for (size_t i = 0; i < n; ++i) write(data[i]);
    return n;
}

size_t Print::write(const uint8_t* begin, const uint8_t* end) {
    if (begin == nullptr || end == nullptr || begin > end) return 0;
    return write(begin, static_cast<size_t>(end - begin));
}
