// CPUID check and the process-wide choice of compression engine.
#include "Velto/Sha/sha_engine.h"

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace {

bool detectShaExtensions() {
#if defined(__x86_64__) || defined(__i386__)
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (__get_cpuid(1, &a, &b, &c, &d) == 0) return false;
    const bool ssse3 = (c & (1u << 9)) != 0;
    const bool sse41 = (c & (1u << 19)) != 0;
    if (__get_cpuid_count(7, 0, &a, &b, &c, &d) == 0) return false;
    const bool sha = (b & (1u << 29)) != 0;
    return ssse3 && sse41 && sha;
#else
    return false;
#endif
}

// -1 until first use, then the ShaEngine value.
int chosen = -1;

}  // namespace

bool shaExtensionsAvailable() {
    static const bool available = detectShaExtensions();
    return available;
}

ShaEngine activeShaEngine() {
    if (chosen < 0) chosen = static_cast<int>(shaExtensionsAvailable() ? ShaEngine::SHA_EXTENSIONS : ShaEngine::PORTABLE);
    return static_cast<ShaEngine>(chosen);
}

ShaEngine selectShaEngine(ShaEngine wanted) {
    const bool usable = wanted == ShaEngine::PORTABLE || shaExtensionsAvailable();
    chosen = static_cast<int>(usable ? wanted : ShaEngine::PORTABLE);
    return activeShaEngine();
}
