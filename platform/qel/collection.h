// Keyed collections: hash tables of child entities. `Collection` holds entities of one type (or, in
// a directory, of any type, by name); `Table` holds plain values, each in a small entity of its
// own, so that followers hear of single entries and one mechanism serves both.
//
// Iterators survive any change of the table: an element may be seen or missed, never invalid, and
// what stays in the table is seen at most once. Element order is that of insertion, not to be
// relied on.
#pragma once

#include <string_view>

#include "platform/qel/entity.h"
#include "platform/qel/journal.h"

namespace ryx::platform {

class CollectionIterator;

class RYX_PRIVATE CollectionBase {
 public:
  CollectionBase() = default;
  ~CollectionBase();
  CollectionBase(const CollectionBase&) = delete;
  CollectionBase& operator=(const CollectionBase&) = delete;

  size_t size() const { return table_ ? table_->live : 0; }
  bool empty() const { return size() == 0; }
  Entity* owner() const { return owner_; }
  const CollectionInfo& info() const { return *info_; }
  Journal* journal() const { return journal_; }

  Entity* findHashed(uint64_t hash, const void* key) const;
  Entity* findErased(const void* key, const Kind& kind) const {
    return findHashed(kind.hash(key), key);
  }
  // What findHashed() is going to read: first where the key is in the table, then, when that has
  // arrived, the entity.
  void prefetch(uint64_t hash) const {
    if (table_) __builtin_prefetch(&table_->slots[(hash >> 32) & table_->slotMask]);
  }
  void prefetchFound(uint64_t hash) const {
    if (!table_ || table_->live == 0) return;
    auto* at = reinterpret_cast<const char*>(table_->slots[(hash >> 32) & table_->slotMask] &
                                             0xffffffffffffu);
    __builtin_prefetch(at);
    __builtin_prefetch(at + 64);
    __builtin_prefetch(at + 128);
  }
  // Puts it in, with its key set and whatever is in its own collections; null when the key is taken
  // or the writer may not. It has stood in no tree before.
  Entity* add(const Ref<Entity>& child);
  Entity* addHashed(const Ref<Entity>& child, uint64_t hash);
  // Takes it out with all below it. False when the writer may not.
  bool remove(Entity& child);

  // All of it out of the table, no writer asked: its owner is dying.
  void removeAll();
  void bind(Entity* owner, const CollectionInfo* info) {
    owner_ = owner;
    info_ = info;
  }
  void enterJournal(Journal* journal) { journal_ = journal; }

 private:
  friend class CollectionIterator;
  struct Table {
    Entity** entries = nullptr;  // in order of insertion, null where one was taken out
    uint32_t* hashes = nullptr;
    uint64_t* slots = nullptr;  // open addressing: 0 empty, kGone, or 16 bits of hash and entity
    uint32_t capacity = 0;      // of entries
    uint32_t first = 0;         // before it there are holes alone
    uint32_t used = 0;          // entries appended, holes included
    uint32_t live = 0;
    uint32_t slotMask = 0;
    // A large table that has grown moves its slots a few at a time: those of the first `moved` of
    // the `toMove` entries that it had are in `slots`, and all of them still in `oldSlots`.
    uint64_t* oldSlots = nullptr;
    uint32_t oldMask = 0;
    uint32_t toMove = 0;
    uint32_t moved = 0;
    CollectionIterator* iterators = nullptr;
  };
  static constexpr uint64_t kGone = 1;
  // From so many entries on a table grows in parts, so many entries with each that is added.
  static constexpr uint32_t kGrowsInParts = 16384;
  static constexpr uint32_t kMovedAtOnce = 16;
  // User addresses have 47 bits; the hash's upper bits, which do not choose the slot, fill the
  // rest.
  static uint64_t slotFor(uint32_t hash, const Entity* e) {
    return uint64_t{hash >> 16} << 48 | reinterpret_cast<uintptr_t>(e);
  }

  static Entity* findIn(const uint64_t* slots, uint32_t mask, uint32_t hash, const void* key);
  static void takeSlot(uint64_t* slots, uint32_t mask, uint32_t hash, const Entity* e);
  static void enter(Entity& e, Journal* journal);
  static void leave(Entity& e);
  void grow();
  void rebuild(uint32_t capacity);
  void widen();
  void moveSome();
  void dropOldSlots();
  void clear();
  void insertSlot(uint32_t hash, const Entity* e);
  void takeOut(Entity& child);
  void markDead(Entity& child);

  Entity* owner_ = nullptr;
  const CollectionInfo* info_ = nullptr;
  Journal* journal_ = nullptr;
  Table* table_ = nullptr;
};

// A place in a collection, kept right by the collection whatever happens to it.
class RYX_PRIVATE CollectionIterator {
 public:
  CollectionIterator() = default;
  explicit CollectionIterator(const CollectionBase& collection);
  CollectionIterator(const CollectionIterator& o);
  CollectionIterator& operator=(const CollectionIterator& o);
  ~CollectionIterator() { leave(); }

  // At an element. The element lives as long as it is the current one, even when it was deleted.
  explicit operator bool() const { return static_cast<bool>(current_); }
  void next();
  Entity* get() const { return current_.get(); }
  bool operator==(const CollectionIterator& o) const {
    return collection_ == o.collection_ && current_ == o.current_;
  }

 private:
  friend class CollectionBase;
  void enter();
  void leave();
  void settle();

  const CollectionBase* collection_ = nullptr;
  CollectionIterator* nextIterator_ = nullptr;
  CollectionIterator** link_ = nullptr;
  uint32_t place_ = 0;
  Ref<Entity> current_;
};

// A typed view of an iterator: key() and the element.
template <class Child>
class TypedIterator : public CollectionIterator {
 public:
  using CollectionIterator::CollectionIterator;
  Child* operator->() const { return static_cast<Child*>(get()); }
  Child& operator*() const { return *static_cast<Child*>(get()); }
  const auto& key() const { return static_cast<Child*>(get())->key(); }
};

template <class Self, FixedString N, class Child, uint8_t Marks>
class CollectionOf : public CollectionBase {
 public:
  using Key = typename decltype(Child::key)::Value;
  using Iterator = TypedIterator<Child>;

  CollectionOf() {
    if (TypeBuilder::current) [[unlikely]]
      TypeBuilder::current->collection(N.text, &typeOf<Child>, this, Marks);
  }

  Child* find(const Key& key) const {
    return static_cast<Child*>(findHashed(kinds::hashValue(key), &key));
  }
  // The one there is, or a new one; null when the writer may not create it. `init` sets constructor
  // attributes before anyone sees it.
  template <class F>
  Child* create(const Key& key, F&& init) {
    uint64_t hash = kinds::hashValue(key);
    if (Entity* there = findHashed(hash, &key)) return static_cast<Child*>(there);
    Ref<Child> child = make<Child>(key);
    init(*child);
    return static_cast<Child*>(addHashed(Ref<Entity>(child), hash));
  }
  Child* create(const Key& key) {
    return create(key, [](Child&) {});
  }
  bool erase(const Key& key) {
    Child* child = find(key);
    return child && remove(*child);
  }
  Iterator iterator() const { return Iterator(*this); }
};

// One value of a Table.
template <class Owner, FixedString N, class K, class V>
struct TableEntry : EntityType<TableEntry<Owner, N, K, V>> {
  static const char* typeName() {
    static const std::string name = std::string(Owner::kTypeName) + "." + N.text;
    return name.c_str();
  }
  KeyOf<TableEntry, K> key;
  AttrOf<TableEntry, "value", V, kPlain> value;
};

template <class Self, FixedString N, class K, class V, uint8_t Marks>
class TableOf : public CollectionOf<Self, N, TableEntry<Self, N, K, V>, Marks> {
 public:
  using Entry = TableEntry<Self, N, K, V>;
  const V* get(const K& key) const {
    Entry* e = this->find(key);
    return e ? &e->value() : nullptr;
  }
  // False when the writer may not.
  bool set(const K& key, const V& value) {
    if (Entry* e = this->find(key)) return e->value.set(value);
    return this->create(key, [&](Entry& e) { e.value.init(value); }) != nullptr;
  }
};

}  // namespace ryx::platform
