// Entities: the typed, keyed, reference-counted items that all state consists of.
//
// A type is declared once, one line an attribute, and needs nothing else (no list, no generator):
//
//   struct IntfStatus : EntityType<IntfStatus> {
//     static constexpr const char* kTypeName = "Interface::IntfStatus";
//     Key<IntfId> key;
//     Attr<"operStatus", uint8_t> operStatus;
//     Attr<"deviceName", std::string> deviceName;
//   };
//
// Reading is `status.operStatus()`: a plain member read. Writing is `status.operStatus.set(1)`: it
// compares, stores, and, if the entity stands in a tree, appends it to the journal of its directory
// and marks its reactors. Writing the value that is already there does nothing at all. A type
// registers itself on first use, by building one prototype whose members report their names, places
// and kinds.
//
// All of this is state: it is touched under the activity lock alone.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "platform/base/api.h"
#include "platform/base/check.h"
#include "platform/qel/kind.h"

namespace ryx::platform {

class CollectionBase;
class Entity;
class EntityReactor;
class Journal;
struct TypeInfo;

// A node of a journal: an entity, a cursor, or the journal's own end mark.
struct JournalNode {
  static constexpr uint16_t kCursor = 0;
  static constexpr uint16_t kEnd = 1;
  static constexpr uint16_t kSelf = 2;  // stands for the attributes of the journal's own root
  static constexpr uint16_t kFirstType = 3;

  JournalNode* prev = nullptr;
  JournalNode* next = nullptr;
  uint64_t version =
      0;  // of an entity: its last change; of a cursor: that of the last entity it passed
  uint32_t refs = 0;
  uint16_t typeId = kCursor;
  uint8_t flags = 0;
  uint8_t seen = 0;  // one bit for each of a journal's reactors: it knows this entity
};

// --- references --------------------------------------------------------------------------------

template <class T>
class Ref {
 public:
  Ref() = default;
  Ref(T* p) : p_(p) { retain(); }
  Ref(const Ref& o) : p_(o.p_) { retain(); }
  Ref(Ref&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
  template <class U>
  Ref(const Ref<U>& o) : p_(o.get()) {
    retain();
  }
  ~Ref() { release(); }
  Ref& operator=(Ref o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }
  T* get() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_; }
  bool operator==(const Ref& o) const { return p_ == o.p_; }

 private:
  void retain();
  void release();
  T* p_ = nullptr;
};

// --- descriptions ------------------------------------------------------------------------------

// What is said of an attribute or collection besides its name and type.
enum Mark : uint8_t {
  kPlain = 0,
  kConstructor = 1,  // fixed at creation, skipped by copying
  kSecret = 2,      // in no dump and no trace, sent only to its owner and the services that need it
  kPersistent = 4,  // outlives the hub
  kLocal = 8,       // of this process alone: never sent
};

struct FieldInfo {
  const char* name;
  const Kind* kind;
  uint16_t offset;
  uint8_t index;
  uint8_t marks;
};

struct CollectionInfo {
  const char* name;
  const TypeInfo& (*child)();  // null: entities of any type, keyed by name
  uint16_t offset;
  uint8_t index;
  uint8_t marks;
};

#if defined(__SANITIZE_ADDRESS__)
#define RYX_SLABS 0  // the sanitizer sees a use after the end only of what malloc gave
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define RYX_SLABS 0
#endif
#endif
#ifndef RYX_SLABS
#define RYX_SLABS 1
#endif

// A slab allocator for entities of one size: blocks that grow, a free list, no header an item.
class Slab {
 public:
  explicit Slab(size_t size) : size_((size + 7) & ~size_t(7)) {}
  void* allocate() {
    if constexpr (!RYX_SLABS) return ::operator new(size_);
    if (free_) {
      void* p = free_;
      free_ = *static_cast<void**>(p);
      return p;
    }
    if (static_cast<size_t>(end_ - at_) < size_) grow();
    void* p = at_;
    at_ += size_;
    return p;
  }
  void release(void* p) {
    if constexpr (!RYX_SLABS) return ::operator delete(p);
    *static_cast<void**>(p) = free_;
    free_ = p;
  }

 private:
  RYX_PRIVATE void grow();
  size_t size_;
  size_t block_ = 4096;
  void* free_ = nullptr;
  char* at_ = nullptr;
  char* end_ = nullptr;
};

struct TypeInfo {
  std::string name;
  uint16_t id = 0;
  size_t size;
  const TypeInfo* base;  // the type that this one extends, or null
  void (*construct)(void*);
  void (*destroy)(Entity*);
  std::vector<FieldInfo> fields{};
  std::vector<CollectionInfo> collections{};
  uint16_t keyOffset = 0;
  const Kind* keyKind = nullptr;
  uint16_t journalOffset = 0;     // 0: the type has no journal of its own
  bool keyedByName = false;       // the key is a Name: it may stand in a directory
  uint32_t secretFields = 0;      // a bit for each, as kSecret
  uint32_t persistentFields = 0;  // the same for kPersistent
  mutable Slab slab;

  bool is(const TypeInfo& other) const {
    for (const TypeInfo* t = this; t; t = t->base)
      if (t == &other) return true;
    return false;
  }
  RYX_PRIVATE const FieldInfo* field(std::string_view fieldName) const;

  // All registered types, by name and by id. Null when there is none.
  RYX_PRIVATE static const TypeInfo* named(std::string_view typeName);
  static const TypeInfo& byId(uint16_t id) { return *table[id]; }
  RYX_PRIVATE static const TypeInfo* const* table;  // by id
  // Registers what stands in the collections of registered types: a peer may name it before anyone
  // here has made one.
  RYX_PRIVATE static void registerChildren();
};

// What a prototype's members report to while it is built.
class TypeBuilder {
 public:
  struct Meta {
    uint16_t offset = 0;
    uint8_t index = 0;
  };
  static inline TypeBuilder* current = nullptr;

  RYX_PRIVATE TypeBuilder(const char* name, size_t size, const TypeInfo* base,
                          void (*construct)(void*), void (*destroy)(Entity*));
  RYX_PRIVATE void attribute(const char* name, const Kind& kind, const void* at, uint8_t marks,
                             Meta* meta);
  RYX_PRIVATE void key(const Kind& kind, const void* at);
  RYX_PRIVATE void collection(const char* name, const TypeInfo& (*child)(), const void* at,
                              uint8_t marks);
  RYX_PRIVATE void journal(const void* at);
  // Builds the prototype through `construct` and gives the registered type: the one that stands
  // under that name if it is the same, layout and all.
  RYX_PRIVATE const TypeInfo& finish();

 private:
  RYX_PRIVATE void nameIsNew(const char* name) const;
  uint16_t offsetOf(const void* at) const {
    return static_cast<uint16_t>(static_cast<const char*>(at) - prototype_);
  }
  TypeInfo* type_;
  char* prototype_ = nullptr;
};

template <class T>
const TypeInfo& typeOf();

// --- entities ----------------------------------------------------------------------------------

class RYX_PRIVATE Entity : public JournalNode {
 public:
  static constexpr unsigned kMaxFields = 31;
  static constexpr uint8_t kDead = 1;

  Entity(const Entity&) = delete;
  Entity& operator=(const Entity&) = delete;

  const TypeInfo& type() const { return TypeInfo::byId(typeId); }
  // It stands in a tree. False of a working copy and of what was deleted.
  bool alive() const { return owner_ != nullptr && !dead(); }
  bool dead() const { return flags & kDead; }
  // The collection it is in; of a dead one, the one that it was in (whose entity it keeps).
  CollectionBase* owner() const { return owner_; }
  Entity* parent() const;
  // Tells apart two entities that had one key after each other.
  uint64_t generation() const { return generation_; }

  template <class T>
  T* as() {
    return type().is(typeOf<T>()) ? static_cast<T*>(this) : nullptr;
  }

  void* at(size_t offset) { return reinterpret_cast<char*>(this) + offset; }
  const void* at(size_t offset) const { return reinterpret_cast<const char*>(this) + offset; }
  const void* keyData() const { return at(type().keyOffset); }
  CollectionBase& collection(const CollectionInfo& info) {
    return *static_cast<CollectionBase*>(at(info.offset));
  }
  // The journal that its children are entered in: its own, or that of its directory.
  Journal* childJournal();

  // "/a/b/key": for people, traces and tools.
  std::string path() const;
  // {"@type": ..., "@key": ..., and by name the attributes and collections}; nothing secret.
  void dump(JsonWriter& w) const;

  // The attributes changed since the link took them last (a process that works on a replica).
  uint32_t dirty() const { return dirty_; }
  void dirtyIs(uint32_t mask) { dirty_ = mask; }
  void generationIs(uint64_t g) { generation_ = g; }

  // An attribute was written: journal and reactors hear of it.
  void changed(unsigned field);
  // Whether whoever writes now may write here; false is traced and counted.
  bool mayChange() { return !alive() || admitted(); }

 protected:
  Entity() = default;
  ~Entity() = default;

 private:
  friend class CollectionBase;
  friend class Journal;
  friend class EntityReactor;
  friend struct EntityOps;
  bool admitted();

  CollectionBase* owner_ = nullptr;
  EntityReactor* reactors_ = nullptr;
  uint64_t generation_ = 0;
  uint32_t dirty_ = 0;
  uint32_t slot_ = 0;  // its place in the owner's table
};
static_assert(sizeof(Entity) == 64, "the design's bound on what an entity costs");

// Creation, copying and destruction, by description alone.
struct RYX_PRIVATE EntityOps {
  static Ref<Entity> make(const TypeInfo& type);
  static void destroy(Entity* e);
  // Copies every attribute but key and constructor ones, as writes of `to`. False when a write was
  // refused.
  static bool copyAttributes(Entity& to, const Entity& from);
  static bool equalAttributes(const Entity& a, const Entity& b);
  // Takes it, and all below it, out of its tree. False when the writer may not.
  static bool remove(Entity& e);
  static void bindCollections(Entity& e);
};

template <class T>
void Ref<T>::retain() {
  if (p_) ++p_->refs;
}
template <class T>
void Ref<T>::release() {
  if (p_ && --p_->refs == 0) EntityOps::destroy(const_cast<std::remove_const_t<T>*>(p_));
}

// --- attributes --------------------------------------------------------------------------------

template <size_t N>
struct FixedString {
  char text[N]{};
  constexpr FixedString(const char (&t)[N]) { std::copy_n(t, N, text); }
};

template <class Self, FixedString N, class T, uint8_t Marks>
class AttrOf {
 public:
  using Value = T;

  AttrOf() {
    if (TypeBuilder::current) [[unlikely]]
      TypeBuilder::current->attribute(N.text, kindOf<T>(), this, Marks, &meta_);
  }

  const T& operator()() const { return value_; }

  // True when the value is now `v`; false when the writer may not.
  bool set(const T& v) requires((Marks & kConstructor) == 0) {
    if (kinds::equalValue(value_, v)) return true;
    Entity& e = entity();
    if (!e.mayChange()) return false;
    value_ = v;
    e.changed(meta_.index);
    return true;
  }
  // Changes a container in place; `edit` says whether it changed anything.
  template <class F>
  bool edit(F&& edit) requires((Marks & kConstructor) == 0) {
    Entity& e = entity();
    if (!e.mayChange()) return false;
    if (edit(value_)) e.changed(meta_.index);
    return true;
  }
  // Before the entity stands in a tree.
  void init(T v) { value_ = std::move(v); }

  // This attribute's bit in an EntityReactor's interest.
  uint32_t bit() const {
    entity();
    return 1u << meta_.index;
  }

 private:
  Entity& entity() const {
    if (meta_.offset == 0) [[unlikely]]
      typeOf<Self>();
    auto* at = reinterpret_cast<const char*>(this) - meta_.offset;
    return *const_cast<Entity*>(reinterpret_cast<const Entity*>(at));
  }

  static inline TypeBuilder::Meta meta_;
  T value_{};
};

template <class Self, class T>
class KeyOf {
 public:
  using Value = T;
  KeyOf() {
    if (TypeBuilder::current) [[unlikely]]
      TypeBuilder::current->key(kindOf<T>(), &value_);
  }
  const T& operator()() const { return value_; }
  void init(T v) { value_ = std::move(v); }

 private:
  T value_{};
};

template <class Self, FixedString N, class Child, uint8_t Marks>
class CollectionOf;
template <class Self, FixedString N, class K, class V, uint8_t Marks>
class TableOf;

// The base of a type's declaration. `Base` is the type that it extends.
template <class Self, class Base = Entity>
struct EntityType : Base {
  using Extends = Base;
  template <FixedString N, class T, uint8_t Marks = kPlain>
  using Attr = AttrOf<Self, N, T, Marks>;
  template <class T>
  using Key = KeyOf<Self, T>;
  template <FixedString N, class Child, uint8_t Marks = kPlain>
  using Collection = CollectionOf<Self, N, Child, Marks>;
  template <FixedString N, class K, class V, uint8_t Marks = kPlain>
  using Table = TableOf<Self, N, K, V, Marks>;
};

namespace detail {
template <class T>
const TypeInfo* baseOf() {
  if constexpr (std::is_same_v<T, Entity> || std::is_same_v<typename T::Extends, Entity>)
    return nullptr;
  else
    return &typeOf<typename T::Extends>();
}
template <class T>
const char* typeNameOf() {
  if constexpr (requires { T::typeName(); })
    return T::typeName();
  else
    return T::kTypeName;
}
}  // namespace detail

template <class T>
const TypeInfo& typeOf() {
  static const TypeInfo& type = [&]() -> const TypeInfo& {
    const TypeInfo* base = detail::baseOf<T>();
    TypeBuilder builder(
        detail::typeNameOf<T>(), sizeof(T), base, [](void* p) { new (p) T; },
        [](Entity* e) { static_cast<T*>(e)->~T(); });
    TypeBuilder* outer = TypeBuilder::current;
    TypeBuilder::current = &builder;
    const TypeInfo& made = builder.finish();
    TypeBuilder::current = outer;
    return made;
  }();
  return type;
}

// A working copy or a child to be: an entity that stands in no tree.
template <class T>
Ref<T> make() {
  const TypeInfo& type = typeOf<T>();
  T* e = new (type.slab.allocate()) T;
  e->typeId = type.id;
  if (!type.collections.empty()) EntityOps::bindCollections(*e);
  return Ref<T>(e);
}
template <class T, class K>
Ref<T> make(const K& key) {
  Ref<T> e = make<T>();
  e->key.init(key);
  return e;
}

}  // namespace ryx::platform
