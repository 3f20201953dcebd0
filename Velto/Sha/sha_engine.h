// Which block compression the SHA-1 and SHA-256 classes use.
//
// On x86 processors with the SHA extensions the hashers compress blocks with
// those instructions; elsewhere, and whenever PORTABLE is selected, with plain
// C++. Both give the same digests. The choice is made once, on first use, from
// the processor's CPUID flags; selectShaEngine overrides it (for tests and
// benchmarks). Process-wide; select before hashing starts, not while another
// thread hashes.
#pragma once

enum class ShaEngine { PORTABLE = 0, SHA_EXTENSIONS = 1 };

// True when the processor has the SHA extensions (and SSSE3 and SSE4.1,
// which the compression code also uses) and this build can use them.
bool shaExtensionsAvailable();
// The engine the hashers use now.
ShaEngine activeShaEngine();
// Makes the hashers use `wanted` when it is available (PORTABLE always is);
// returns the engine in use afterwards.
ShaEngine selectShaEngine(ShaEngine wanted);
