// Byte-order loads and the one hash mix that the value types share.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace ryx::platform {

inline uint64_t loadBe64(const uint8_t* from) {
  uint64_t word;
  std::memcpy(&word, from, sizeof word);
  if constexpr (std::endian::native == std::endian::little) word = __builtin_bswap64(word);
  return word;
}

inline void storeBe64(uint8_t* to, uint64_t word) {
  if constexpr (std::endian::native == std::endian::little) word = __builtin_bswap64(word);
  std::memcpy(to, &word, sizeof word);
}

// Folds the 128-bit product of two words: every input bit reaches every output bit, so that tables
// may take either end of the result as their index.
constexpr uint64_t mix64(uint64_t a, uint64_t b) {
  __extension__ using Wide = unsigned __int128;
  Wide product = Wide{a ^ 0x9e3779b97f4a7c15u} * Wide{b ^ 0xe7037ed1a0b428dbu};
  return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

}  // namespace ryx::platform
