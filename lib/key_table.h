// A map from platform values to whatever a manager keeps for them: the store's own table, without a
// tree. It is the one to take where keys may be a million: neighbouring keys stand beside each
// other, entries come from slabs, and iterators survive every change.
//
//   KeyTable<DirtyKey, SmallSet<Via>> declared;
//   declared[key].insert(via);
#pragma once

#include <cstdint>
#include <string>

#include "platform/qel/collection.h"

namespace ryx {

// Of this process alone, and never sent: two sources may each have a key of their own that is
// called the same, so what tells the types apart is where their names are.
inline std::string keyTableName(const void* place) {
  return "KeyTable " + std::to_string(reinterpret_cast<uintptr_t>(place));
}

template <class K, class V>
struct KeyTableEntry : platform::EntityType<KeyTableEntry<K, V>> {
  static const char* typeName() {
    static const std::string name = keyTableName(&name);
    return name.c_str();
  }
  platform::KeyOf<KeyTableEntry, K> key;
  V value{};
};

template <class K, class V>
class KeyTable {
 public:
  using Entry = KeyTableEntry<K, V>;
  using Iterator = platform::TypedIterator<Entry>;

  // Null when there is none.
  Entry* find(const K& key) const { return entries_->entry.find(key); }
  bool contains(const K& key) const { return find(key) != nullptr; }
  V& operator[](const K& key) { return entries_->entry.create(key)->value; }
  bool erase(const K& key) { return entries_->entry.erase(key); }
  void erase(Entry& entry) { entries_->entry.remove(entry); }
  // Iterators are at the end then.
  void clear() { entries_ = platform::make<Entries>(); }
  size_t size() const { return entries_->entry.size(); }
  bool empty() const { return size() == 0; }
  Iterator iterator() const { return entries_->entry.iterator(); }

 private:
  struct Entries : platform::EntityType<Entries> {
    static const char* typeName() {
      static const std::string name = keyTableName(&name);
      return name.c_str();
    }
    platform::CollectionOf<Entries, "entry", Entry, platform::kLocal> entry;
  };
  platform::Ref<Entries> entries_ = platform::make<Entries>();
};

}  // namespace ryx
