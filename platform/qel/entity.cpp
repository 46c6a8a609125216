#include "platform/qel/entity.h"

#include <sys/mman.h>

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

void dumpKey(JsonWriter& w, const Entity& e) {
  if (e.type().keyKind) {
    w.key("key");
    e.type().keyKind->dump(w, e.keyData());
  }
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

const TypeInfo& TypeInfo::byId(uint16_t id) {
  return *registry().byId[id];
}

TypeBuilder::TypeBuilder(const char* name, size_t size, const TypeInfo* base,
                         void (*construct)(void*), void (*destroy)(Entity*))
    : type_(new TypeInfo{
          name, 0, size, base, construct, destroy, {}, {}, 0, nullptr, 0, Slab(size)}) {}

void TypeBuilder::attribute(const char* name, const Kind& kind, const void* at, uint8_t marks,
                            Meta* meta) {
  auto index = static_cast<uint8_t>(type_->fields.size());
  check(index < Entity::kMaxFields, "a type has at most 32 attributes");
  *meta = {offsetOf(at), index};
  type_->fields.push_back({name, &kind, offsetOf(at), index, marks});
}

void TypeBuilder::key(const Kind& kind, const void* at) {
  check(!type_->keyKind, "a type has one key");
  type_->keyKind = &kind;
  type_->keyOffset = offsetOf(at);
}

void TypeBuilder::collection(const char* name, const TypeInfo& (*child)(), const void* at,
                             uint8_t marks) {
  auto index = static_cast<uint8_t>(type_->collections.size());
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
    bool same = there.size == type_->size && there.fields.size() == type_->fields.size() &&
                there.collections.size() == type_->collections.size();
    for (size_t i = 0; same && i < type_->fields.size(); ++i)
      same = there.fields[i].offset == type_->fields[i].offset &&
             std::strcmp(there.fields[i].name, type_->fields[i].name) == 0;
    check(same, "two modules declare one type differently: they are not of the same build");
    delete type_;
    return there;
  }
  type_->id = static_cast<uint16_t>(r.byId.size());
  r.byId.push_back(type_);
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
  w.key("type");
  w.string(t.name);
  dumpKey(w, *this);
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
  if (e->prev) {  // its tree goes as a whole
    e->prev->next = e->next;
    e->next->prev = e->prev;
  }
  Ref<Entity> parent;
  if (e->dead() && (parent = Ref<Entity>(e->parent()))) --parent->refs;
  type.destroy(e);
  type.slab.release(e);
}

bool EntityOps::copyAttributes(Entity& to, const Entity& from) {
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
