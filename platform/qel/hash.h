// The one hash of the store: fast on short keys, well mixed in its low and high bits, seeded once a
// process so that nobody outside can choose colliding keys.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/base/api.h"

namespace ryx::platform {

RYX_PRIVATE extern uint64_t hashSeed;  // set at load, before every other static

inline uint64_t hashMix(uint64_t a, uint64_t b) {
  __extension__ using Product = unsigned __int128;
  auto product = static_cast<Product>(a ^ hashSeed) * (b ^ 0x9e3779b97f4a7c15ull);
  return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

inline uint64_t hashNumber(uint64_t v) {
  return hashMix(v, 0xe7037ed1a0b428dbull);
}

inline uint64_t hashBytes(const void* data, size_t size) {
  auto* p = static_cast<const char*>(data);
  uint64_t h = size;
  uint64_t word;
  for (; size >= 8; size -= 8, p += 8) {
    std::memcpy(&word, p, 8);
    h = hashNumber(h ^ word);
  }
  if (size != 0) {
    word = 0;
    std::memcpy(&word, p, size);
    h = hashNumber(h ^ word);
  }
  return hashNumber(h);
}

}  // namespace ryx::platform
