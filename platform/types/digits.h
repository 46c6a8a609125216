// Decimal digits of the value types' texts: strict reading, fast writing.
#pragma once

#include <cstdint>

namespace ryx::platform {

// Reads a decimal number 0..max (max below 2^31) that starts at *at, without a sign and without
// leading zeros, and moves *at behind it. Returns false when there is none or it is too large.
inline bool readNumber(const char** at, const char* end, uint32_t max, uint32_t* result) {
  const char* p = *at;
  uint32_t value = 0;
  while (p != end && *p >= '0' && *p <= '9') {
    value = value * 10 + static_cast<uint32_t>(*p++ - '0');
    if (value > max) return false;
  }
  if (p == *at || (**at == '0' && p - *at > 1)) return false;
  *at = p;
  *result = value;
  return true;
}

// Writes the number and returns its end; at most 10 characters.
inline char* writeNumber(char* out, uint32_t value) {
  char reversed[10];
  int count = 0;
  do {
    reversed[count++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (count > 0) *out++ = reversed[--count];
  return out;
}

}  // namespace ryx::platform
