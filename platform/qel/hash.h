// The one hash of the store: fast on short keys, seeded once a process so that nobody outside can
// choose colliding keys. What several processes look up in one memory has a seed of its own.
//
// A key's hash has a *line* and a *place*: the place, three bits, is where among its neighbours the
// key stands, the line is what the neighbours have in common, well mixed. Eight numbers or networks
// in a row share a line, and a table keeps its slots by lines of one cache line each: filled or
// gone through in the order of its keys, as a routing table arrives, it misses the cache once for
// eight keys. Keys without neighbours have what the mixing gives them as a place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/base/api.h"

namespace ryx::platform {

RYX_PRIVATE extern uint64_t hashSeed;  // set at load, before every other static

inline uint64_t hashMix(uint64_t a, uint64_t b, uint64_t seed = hashSeed) {
  __extension__ using Product = unsigned __int128;
  auto product = static_cast<Product>(a ^ seed) * (b ^ 0x9e3779b97f4a7c15ull);
  return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

inline uint64_t hashNumber(uint64_t v, uint64_t seed = hashSeed) {
  return hashMix(v, 0xe7037ed1a0b428dbull, seed);
}

inline constexpr unsigned kHashPlaces = 8;
inline constexpr uint64_t kHashPlaceMask = uint64_t{7} << 32 | uint64_t{7} << 61;

// The place stands in the lowest bits of the upper half, which choose the slot, and once more in
// the highest bits, which tell apart the keys of one line.
inline uint64_t hashPlaced(uint64_t line, uint64_t place) {
  return (line & ~kHashPlaceMask) | place << 32 | place << 61;
}
inline uint64_t hashLine(uint64_t hash) {
  return hash & ~kHashPlaceMask;
}
inline uint64_t hashPlace(uint64_t hash) {
  return hash >> 32 & (kHashPlaces - 1);
}

// A number that has neighbours.
inline uint64_t hashInRow(uint64_t v, uint64_t seed = hashSeed) {
  return hashPlaced(hashNumber(v / kHashPlaces, seed), v % kHashPlaces);
}

inline uint64_t hashBytes(const void* data, size_t size, uint64_t seed = hashSeed) {
  auto* p = static_cast<const char*>(data);
  uint64_t h = size;
  uint64_t word;
  for (; size >= 8; size -= 8, p += 8) {
    std::memcpy(&word, p, 8);
    h = hashNumber(h ^ word, seed);
  }
  if (size != 0) {
    word = 0;
    std::memcpy(&word, p, size);
    h = hashNumber(h ^ word, seed);
  }
  return hashNumber(h, seed);
}

}  // namespace ryx::platform
