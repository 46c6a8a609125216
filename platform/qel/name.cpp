#include "platform/qel/name.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "platform/qel/hash.h"

namespace ryx::platform {

class NameTable {
 public:
  static NameTable& table() {
    static NameTable* t = new NameTable;  // outlives every static that holds a name
    return *t;
  }

  Name::Entry* intern(std::string_view text) {
    uint64_t hash = hashBytes(text.data(), text.size()) | 1;  // 0 is the empty name's
    for (auto* e = buckets_[hash & mask()]; e; e = e->next)
      if (e->hash == hash && std::string_view(e->text, e->size) == text) {
        ++e->refs;
        return e;
      }
    if (count_ >= buckets_.size()) grow();
    void* memory = std::malloc(offsetof(Name::Entry, text) + text.size() + 1);
    if (!memory) throw std::bad_alloc();
    auto* e = static_cast<Name::Entry*>(memory);
    e->hash = hash;
    e->refs = 1;
    e->size = static_cast<uint32_t>(text.size());
    std::memcpy(e->text, text.data(), text.size());
    e->text[text.size()] = '\0';
    e->next = buckets_[hash & mask()];
    buckets_[hash & mask()] = e;
    ++count_;
    return e;
  }

  void drop(Name::Entry* entry) {
    auto** at = &buckets_[entry->hash & mask()];
    while (*at != entry) at = &(*at)->next;
    *at = entry->next;
    --count_;
    std::free(entry);
  }

  size_t count() const { return count_; }

 private:
  size_t mask() const { return buckets_.size() - 1; }
  void grow() {
    std::vector<Name::Entry*> old(buckets_.size() * 2);
    old.swap(buckets_);
    for (auto* e : old)
      while (e) {
        auto* next = e->next;
        e->next = buckets_[e->hash & mask()];
        buckets_[e->hash & mask()] = e;
        e = next;
      }
  }

  std::vector<Name::Entry*> buckets_ = std::vector<Name::Entry*>(256);
  size_t count_ = 0;
};

Name::Entry* Name::intern(std::string_view text) {
  return NameTable::table().intern(text);
}
void Name::drop(Entry* entry) {
  NameTable::table().drop(entry);
}
size_t Name::interned() {
  return NameTable::table().count();
}

}  // namespace ryx::platform
