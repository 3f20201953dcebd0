// Hexadecimal text, XOR of byte strings and directory listing, shared by the
// hub's stores and the join handshake.
//
// Hex text is two lower-case digits per byte, no separators, in byte order.
// Buffer forms never read or write past the counts they are given. Only getdir
// prints (its error line on standard output); everything is reentrant.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

// Replaces out with the hex text of len bytes and returns true. len 0: true,
// out left as it was. data null with len not 0: false, out left as it was.
bool bin2hex(const unsigned char* data, size_t len, std::string& out);
// Always replaces out (an empty vector gives "") and returns true. Kept: unlike
// the buffer form, empty input clears out.
bool bin2hex(const std::vector<unsigned char>& data, std::string& out);

// Reads min(hex.size() / 2, capacity) pairs into out and returns that count; a
// last odd character is ignored. Each pair is read by formatted stream input as
// a hex integer (blanks skipped, sign accepted) and its low 8 bits stored; a pair
// that does not start with a hex digit stores 0. out null: 0, nothing written.
size_t hex2bin(const std::string& hex, unsigned char* out, size_t capacity);
// The same reading without a limit; appends hex.size() / 2 bytes to out (not
// cleared first) and returns that count.
size_t hex2bin(const std::string& hex, std::vector<unsigned char>& out);

// out[i] = a[i] ^ b[i] for i < len when all three are non-null and len is not 0;
// otherwise nothing. out may be a or b.
void binXOR(const unsigned char* a, const unsigned char* b, unsigned char* out, size_t len);
// out gets max(|a|, |b|) bytes, out[i] = a[i % |a|] ^ b[i % |b|]: the shorter
// operand repeats. Two empty operands give an empty out; exactly one empty
// operand also leaves out empty (guarded instead of dividing by zero). out may
// be a or b.
void binXOR(std::vector<unsigned char>& a, std::vector<unsigned char>& b, std::vector<unsigned char>& out);

// Appends every entry name of dir ("." and ".." included, system order) to
// files and returns 0. When dir cannot be opened: prints "Error(" errno
// ") opening " dir on standard output, leaves files untouched and returns errno.
int getdir(std::string dir, std::vector<std::string>& files);
