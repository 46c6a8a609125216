#include "platform/qel/entity.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>

#include "platform/qel/collection.h"
#include "platform/qel/journal.h"
#include "platform/qel/reactor.h"

namespace ryx::platform {
namespace {

struct Registry {
  std::map<std::string, TypeInfo*, std::less<>> byName;
  std::vector<TypeInfo*> byId = std::vector<TypeInfo*>(JournalNode::kFirstType);
};
Registry& registry() {
  static auto* r = new Registry;
  return *r;
}

bool sameKind(const Kind& a, const Kind& b) {
  return a.wire == b.wire && std::strcmp(a.name, b.name) == 0;
}

// Whether two modules' declarations of a type mean the same.
bool sameDeclaration(const TypeInfo& a, const TypeInfo& b) {
  if (a.size != b.size || a.base != b.base || a.keyOffset != b.keyOffset ||
      a.journalOffset != b.journalOffset || !a.keyKind != !b.keyKind ||
      (a.keyKind && !sameKind(*a.keyKind, *b.keyKind)))
    return false;
  auto sameField = [](const FieldInfo& x, const FieldInfo& y) {
    return x.offset == y.offset && x.marks == y.marks && std::strcmp(x.name, y.name) == 0 &&
           sameKind(*x.kind, *y.kind);
  };
  auto sameCollection = [](const CollectionInfo& x, const CollectionInfo& y) {
    return x.offset == y.offset && x.marks == y.marks && !x.child == !y.child &&
           std::strcmp(x.name, y.name) == 0;
  };
  return std::equal(a.fields.begin(), a.fields.end(), b.fields.begin(), b.fields.end(),
                    sameField) &&
         std::equal(a.collections.begin(), a.collections.end(), b.collections.begin(),
                    b.collections.end(), sameCollection);
}

// Whether it stands, at some height, in a collection that is secret.
bool inSecret(const Entity& e) {
  for (const Entity* at = &e; at && at->owner(); at = at->parent())
    if (at->owner()->info().marks & kSecret) return true;
  return false;
}

}  // namespace

// --- Slab ---------------------------------------------------------------------------------------

void Slab::grow() {
  constexpr size_t kHuge = size_t(2) << 20;
  size_t bytes = std::max(block_, size_ * 8);
  char* memory;
  if (bytes >= kHuge) {
    bytes = kHuge;
    memory = static_cast<char*>(std::aligned_alloc(kHuge, bytes));
    if (memory) madvise(memory, bytes, MADV_HUGEPAGE);
  } else {
    memory = static_cast<char*>(std::malloc(bytes));
    block_ = block_ * 2;
  }
  if (!memory) throw std::bad_alloc();
  at_ = memory;
  end_ = memory + bytes;
}

// --- types --------------------------------------------------------------------------------------

const FieldInfo* TypeInfo::field(std::string_view fieldName) const {
  for (const FieldInfo& f : fields)
    if (fieldName == f.name) return &f;
  return nullptr;
}

const TypeInfo* TypeInfo::named(std::string_view typeName) {
  auto at = registry().byName.find(typeName);
  return at == registry().byName.end() ? nullptr : at->second;
}

void TypeInfo::registerChildren() {
  auto& types = registry().byId;  // grows meanwhile
  for (size_t id = JournalNode::kFirstType; id < types.size(); ++id)
    for (const CollectionInfo& c : types[id]->collections)
      if (c.child) c.child();
}

const TypeInfo* const* TypeInfo::table = nullptr;

TypeBuilder::TypeBuilder(const char* name, size_t size, const TypeInfo* base,
                         void (*construct)(void*), void (*destroy)(Entity*))
    : type_(new TypeInfo{.name = name,
                         .size = size,
                         .base = base,
                         .construct = construct,
                         .destroy = destroy,
                         .slab = Slab(size)}) {
  check(size <= UINT16_MAX, "a type's members are within 64 KiB");
}

void TypeBuilder::nameIsNew(const char* name) const {
  for (const FieldInfo& f : type_->fields)
    check(std::strcmp(f.name, name) != 0, "a type's attributes have names of their own");
  for (const CollectionInfo& c : type_->collections)
    check(std::strcmp(c.name, name) != 0, "a type's collections have names of their own");
}

void TypeBuilder::attribute(const char* name, const Kind& kind, const void* at, uint8_t marks,
                            Meta* meta) {
  auto index = static_cast<uint8_t>(type_->fields.size());
  check(index < Entity::kMaxFields, "a type has at most 31 attributes");
  nameIsNew(name);
  *meta = {offsetOf(at), index};
  type_->fields.push_back({name, &kind, offsetOf(at), index, marks});
  if (marks & kSecret) type_->secretFields |= 1u << index;
  if (marks & kPersistent) type_->persistentFields |= 1u << index;
}

void TypeBuilder::key(const Kind& kind, const void* at) {
  check(!type_->keyKind, "a type has one key");
  type_->keyKind = &kind;
  type_->keyedByName = std::strcmp(kind.name, kindOf<Name>().name) == 0;
  type_->keyOffset = offsetOf(at);
}

void TypeBuilder::collection(const char* name, const TypeInfo& (*child)(), const void* at,
                             uint8_t marks) {
  check(type_->collections.size() < UINT8_MAX, "a type has at most 255 collections");
  auto index = static_cast<uint8_t>(type_->collections.size());
  nameIsNew(name);
  type_->collections.push_back({name, child, offsetOf(at), index, marks});
}

void TypeBuilder::journal(const void* at) {
  type_->journalOffset = offsetOf(at);
}

const TypeInfo& TypeBuilder::finish() {
  prototype_ = static_cast<char*>(std::malloc(type_->size));
  type_->construct(prototype_);
  current = nullptr;
  type_->destroy(reinterpret_cast<Entity*>(prototype_));
  std::free(prototype_);

  Registry& r = registry();
  auto [at, isNew] = r.byName.emplace(type_->name, type_);
  if (!isNew) {
    // Another module of this build declares it too; both must mean the same.
    const TypeInfo& there = *at->second;
    check(sameDeclaration(there, *type_),
          "two modules declare one type differently: they are not of the same build");
    delete type_;
    return there;
  }
  type_->id = static_cast<uint16_t>(r.byId.size());
  r.byId.push_back(type_);
  TypeInfo::table = r.byId.data();
  return *type_;
}

// --- entities -----------------------------------------------------------------------------------

Entity* Entity::parent() const {
  return owner_ ? owner_->owner() : nullptr;
}

Journal* Entity::childJournal() {
  if (uint16_t offset = type().journalOffset) return static_cast<Journal*>(at(offset));
  return owner_ ? owner_->journal() : nullptr;
}

void Entity::changed(unsigned field) {
  Journal* journal = childJournal();
  if (!journal || !journal->clock() || !journal->clock()->origins) dirty_ |= 1u << field;
  if (uint16_t own = type().journalOffset)
    static_cast<Journal*>(at(own))->rootTouched();
  else if (alive() && owner_->journal())
    owner_->journal()->touched(*this);
  if (reactors_) EntityReactor::attributeChanged(*this, field);
}

bool Entity::admitted() {
  return !owner_->journal() || owner_->journal()->admits(*this, owner_->owner());
}

std::string Entity::path() const {
  std::string text;
  for (const Entity* e = this; e; e = e->parent()) {
    std::string step;
    if (e->type().keyKind) {
      JsonWriter w;
      e->type().keyKind->dump(w, e->keyData());
      step = w.text();
      if (step.size() >= 2 && step.front() == '"') step = step.substr(1, step.size() - 2);
    }
    if (e->parent() && e->parent()->type().collections.size() > 1)
      step = std::string(e->owner()->info().name) + "/" + step;
    if (!step.empty()) text = "/" + step + text;
  }
  return text.empty() ? "/" : text;
}

void Entity::dump(JsonWriter& w) const {
  const TypeInfo& t = type();
  w.beginObject();
  w.key("@type");
  w.string(t.name);
  if (inSecret(*this)) return w.endObject();
  if (t.keyKind) {
    w.key("@key");
    t.keyKind->dump(w, keyData());
  }
  for (const FieldInfo& f : t.fields) {
    if (f.marks & kSecret) continue;
    w.key(f.name);
    f.kind->dump(w, at(f.offset));
  }
  for (const CollectionInfo& c : t.collections) {
    if (c.marks & kSecret) continue;
    w.key(c.name);
    w.beginArray();
    auto& collection = *static_cast<const CollectionBase*>(at(c.offset));
    for (CollectionIterator it(collection); it; it.next()) it.get()->dump(w);
    w.endArray();
  }
  w.endObject();
}

void EntityOps::bindCollections(Entity& e) {
  for (const CollectionInfo& c : e.type().collections) e.collection(c).bind(&e, &c);
}

Ref<Entity> EntityOps::make(const TypeInfo& type) {
  void* memory = type.slab.allocate();
  type.construct(memory);
  auto* e = static_cast<Entity*>(memory);
  e->typeId = type.id;
  bindCollections(*e);
  return Ref<Entity>(e);
}

void EntityOps::destroy(Entity* e) {
  const TypeInfo& type = e->type();
  check(!e->prev, "what is in a journal is in a tree");
  Ref<Entity> parent;
  if (e->dead() && (parent = Ref<Entity>(e->parent()))) --parent->refs;
  type.destroy(e);
  type.slab.release(e);
}

bool EntityOps::copyAttributes(Entity& to, const Entity& from) {
  check(to.type().is(from.type()), "attributes are copied to the same type");
  if (!to.mayChange()) return false;
  for (const FieldInfo& f : from.type().fields) {
    if (f.marks & kConstructor) continue;
    if (f.kind->equal(to.at(f.offset), from.at(f.offset))) continue;
    f.kind->assign(to.at(f.offset), from.at(f.offset));
    to.changed(f.index);
  }
  return true;
}

bool EntityOps::equalAttributes(const Entity& a, const Entity& b) {
  if (a.typeId != b.typeId) return false;
  for (const FieldInfo& f : a.type().fields)
    if (!f.kind->equal(a.at(f.offset), b.at(f.offset))) return false;
  return true;
}

bool EntityOps::remove(Entity& e) {
  if (!e.alive()) return true;
  return e.owner()->remove(e);
}

}  // namespace ryx::platform
