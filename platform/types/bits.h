// Loads and stores of words in network order.
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

}  // namespace ryx::platform
