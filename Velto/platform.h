// Clock, random values and hardware identity: the only place the rest of the
// system touches the operating system for these.
//
// Timestamp is milliseconds of the system (wall) clock since the Unix epoch.
// Random values come from "/dev/urandom", opened anew on every call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Velto/data_packing.h"

typedef uint64_t Timestamp;

// The system clock in milliseconds since the epoch, plus the test offset.
Timestamp currentTime();

// Tests move the clock forward without sleeping; 0 restores the real clock.
void setClockOffsetForTesting(int64_t milliseconds);

bool randomNumber(uint32_t& out);
bool randomNumber(uint64_t& out);
// False when out is null or the random device falls short; n = 0 reads nothing.
bool generateRandomData(size_t n, uint8_t* out);

// n = 0 means N. On success only, the array's size becomes min(n, N).
template <size_t N>
bool generateRandomData(ByteArray<N>& arr, size_t n) {
    if (n == 0 || n > N) n = N;
    if (!generateRandomData(n, arr.data())) return false;
    arr.setSize(n);
    return true;
}

// Hardware address of the first non-loopback interface as hex text in which only
// the first byte is padded to two digits, or "" when there is none.
std::string firstActiveMACAddr();
