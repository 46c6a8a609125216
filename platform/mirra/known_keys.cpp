#include "platform/mirra/known_keys.h"

#include <algorithm>
#include <cstring>

#include "platform/base/check.h"

namespace ryx::platform::mirra {

// Where the key is, or the empty slot where it would be.
uint64_t KnownKeys::slotOf(const void* key) const {
  uint64_t i = home(key);
  while (slots_[i] != 0 && !type_->sameKey(key, this->key(slots_[i] - 1))) i = (i + 1) & mask();
  return i;
}

uint32_t KnownKeys::find(const void* key) const {
  return slots_.empty() ? kNone : slots_[slotOf(key)] - 1;  // 0 is none
}

void KnownKeys::set(uint32_t row, uint64_t version, const void* key) {
  if (has(row) && type_->sameKey(key, this->key(row))) {
    versions_[row] = version;
    return;
  }
  check(!has(row), "a row has one key");
  if (const uint32_t before = find(key); before != kNone) clear(before);
  if (row >= rows()) {
    // By steps of its own: a vector would copy its spare room as well.
    const size_t room = std::max<size_t>(size_t{row} + 1, versions_.capacity());
    if (room > versions_.capacity()) {
      versions_.reserve(room + room / 2);
      keys_.reserve((room + room / 2) * type_->keyBytes);
    }
    versions_.resize(size_t{row} + 1, kFree);
    keys_.resize(versions_.size() * type_->keyBytes);
  }
  versions_[row] = version;
  std::memcpy(keys_.data() + size_t{row} * type_->keyBytes, key, type_->keyBytes);
  if ((size_ + 1) * 2 > slots_.size()) {
    const std::vector<uint32_t> old = std::move(slots_);
    slots_.assign(std::max<size_t>(64, old.size() * 2), 0);
    for (const uint32_t slot : old)
      if (slot != 0) enter(slot - 1);
  }
  enter(row);
  ++size_;
}

void KnownKeys::enter(uint32_t row) {
  slots_[slotOf(key(row))] = row + 1;
}

std::vector<std::byte> KnownKeys::take(uint32_t row) {
  const auto* at = static_cast<const std::byte*>(key(row));
  std::vector<std::byte> taken(at, at + type_->keyBytes);
  clear(row);
  return taken;
}

// What stands behind the gap and could stand in it moves there.
void KnownKeys::clear(uint32_t row) {
  uint64_t gap = slotOf(key(row));
  for (uint64_t i = (gap + 1) & mask(); slots_[i] != 0; i = (i + 1) & mask()) {
    const uint64_t wanted = home(key(slots_[i] - 1));
    if (((i - wanted) & mask()) < ((i - gap) & mask())) continue;
    slots_[gap] = slots_[i];
    gap = i;
  }
  slots_[gap] = 0;
  versions_[row] = kFree;
  --size_;
}

}  // namespace ryx::platform::mirra
