// The keys that a follower has told, each once: in which row it last stood, and of which version of
// that row the telling was. By row and by key.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/mirra/row.h"

namespace ryx::platform::mirra {

class RYX_PRIVATE KnownKeys {
 public:
  static constexpr uint32_t kNone = ~0u;
  // A version that no row has: it was told from elsewhere.
  static constexpr uint64_t kOther = 0;

  explicit KnownKeys(const RowType& type) : type_(&type) {}

  // One more than the highest row with a key.
  uint32_t rows() const { return static_cast<uint32_t>(versions_.size()); }
  bool has(uint32_t row) const { return row < rows() && versions_[row] != kFree; }
  const void* key(uint32_t row) const { return keys_.data() + size_t{row} * type_->keyBytes; }
  uint64_t version(uint32_t row) const { return versions_[row]; }
  // The row of that key, or kNone.
  uint32_t find(const void* key) const;

  // The key stands there, and nowhere else. Another key that stood there has to be taken out first.
  void set(uint32_t row, uint64_t version, const void* key);
  // Takes the key of that row out, and gives it.
  std::vector<std::byte> take(uint32_t row);
  void clear(uint32_t row);

 private:
  static constexpr uint64_t kFree = ~uint64_t{0};

  uint64_t home(const void* key) const { return (type_->hash(key, hashSeed) >> 32) & mask(); }
  uint64_t mask() const { return slots_.size() - 1; }
  uint64_t slotOf(const void* key) const;
  void enter(uint32_t row);

  const RowType* type_;
  std::vector<uint64_t> versions_;  // by row
  std::vector<std::byte> keys_;     // by row
  std::vector<uint32_t> slots_;     // rows by the hash of their key, from 1; 0: empty
  size_t size_ = 0;
};

}  // namespace ryx::platform::mirra
