// Clock, random values and hardware identity: the only place the rest of the
// system touches the operating system for these.
//
// Timestamp is milliseconds of the system (wall) clock since the Unix epoch.
// Random values come from "/dev/urandom", opened anew on every call; nothing is
// cached. Nothing here prints.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Velto/data_packing.h"

typedef uint64_t Timestamp;

// The system clock in milliseconds since the epoch (truncated), plus the test
// offset.
Timestamp currentTime();

// Tests move the clock forward without sleeping; 0 restores the real clock.
void setClockOffsetForTesting(int64_t milliseconds);

// Fill `out` from the random device; true on success, false when the device
// cannot be opened or yields too few bytes.
bool randomNumber(uint32_t& out);
bool randomNumber(uint64_t& out);
// False when out is null or the random device cannot be opened or falls short;
// otherwise n bytes are written to out and the result is true (n = 0 reads
// nothing and is true).
bool generateRandomData(size_t n, uint8_t* out);

// n = 0 means N. On success only, the array's size becomes min(n, N); on
// failure (false) the size is unchanged.
template <size_t N>
bool generateRandomData(ByteArray<N>& arr, size_t n) {
    if (n == 0 || n > N) n = N;
    if (!generateRandomData(n, arr.data())) return false;
    arr.setSize(n);
    return true;
}

// Hardware address of the first non-loopback interface as lower-case hex text in
// which only the first byte is padded to two digits (00:1A:0B:22:03:FF gives
// "001ab223ff"), or "" when there is none or the query fails. Uses a static
// buffer: not reentrant.
std::string firstActiveMACAddr();
