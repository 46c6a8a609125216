// Directories: named places in the tree that hold entities of any type, each with its name as key,
// and have a journal of their own. And the tree itself: a root directory and the one version
// counter.
#pragma once

#include <memory>
#include <string_view>

#include "platform/qel/collection.h"

namespace ryx::platform {

namespace mirra {
class Exchange;
class LocalExchange;
}  // namespace mirra
struct Dir;

// The children of a directory: entities of any type, by name.
class RYX_PRIVATE DirEntries : public CollectionBase {
 public:
  DirEntries() {
    if (TypeBuilder::current) [[unlikely]]
      TypeBuilder::current->collection("entry", nullptr, this, kPlain);
  }
  Entity* find(const Name& name) const { return findHashed(name.hash(), &name); }
  // The one there is if it is of that type, or a new one; null when it is of another type, the type
  // is not keyed by a name, or the writer may not create it.
  Entity* create(const TypeInfo& type, const Name& name);
  template <class T>
  T* create(const Name& name) {
    return static_cast<T*>(create(typeOf<T>(), name));
  }
  template <class T>
  T* find(const Name& name) const {
    Entity* e = find(name);
    return e ? e->as<T>() : nullptr;
  }
  bool erase(const Name& name) {
    Entity* e = find(name);
    return e && remove(*e);
  }
};

struct Dir : JournalRootType<Dir> {
  static constexpr const char* kTypeName = "Qel::Dir";
  Key<Name> key;
  DirEntries entry;
};

class RYX_PRIVATE Tree {
 public:
  Tree();
  ~Tree();
  Tree(const Tree&) = delete;

  Dir& root() { return *root_; }
  StoreClock& clock() { return clock_; }
  // Where the Mirra tables beside this state are to be had: here, unless told.
  mirra::Exchange& tables() { return *tables_; }
  mirra::LocalExchange& ownTables() { return *ownTables_; }
  void tablesAre(mirra::Exchange& exchange) { tables_ = &exchange; }
  // A switch that is only played may say that connections on this tree take no more.
  bool isClogged() const { return isClogged_; }
  void cloggedIs(bool isClogged) { isClogged_ = isClogged; }

  // What stands at "a/b/c", or null. Slashes at the ends and double ones do not matter.
  Entity* find(std::string_view path);
  template <class T>
  T* find(std::string_view path) {
    Entity* e = find(path);
    return e ? e->as<T>() : nullptr;
  }
  // The same, made of directories and, last, an entity of `type` as far as it is missing. Null when
  // something on the way is no directory, the last is of another type or of one that is not keyed
  // by a name, or the writer may not.
  Entity* make(std::string_view path, const TypeInfo& type);
  template <class T>
  T* make(std::string_view path) {
    return static_cast<T*>(make(path, typeOf<T>()));
  }

 private:
  StoreClock clock_;
  Ref<Dir> root_;
  std::unique_ptr<mirra::LocalExchange> ownTables_;
  mirra::Exchange* tables_;
  bool isClogged_ = false;
};

}  // namespace ryx::platform
