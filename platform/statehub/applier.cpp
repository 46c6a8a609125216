#include "platform/statehub/applier.h"

#include <utility>

namespace ryx::platform {

bool Applier::frame(std::string_view payload) {
  Decoder d(payload);
  bool good = true;
  while (good && !d.done()) {
    auto code = static_cast<Op>(d.u8());
    if (code != Op::item) good = flush();
    if (good && !op(code, d)) good = broken("operation " + std::to_string(static_cast<int>(code)));
    if (good && d.failed())
      good = broken("operation " + std::to_string(static_cast<int>(code)) + " is cut short");
  }
  return flush() && good;
}

void Applier::reset() {
  batchType_ = nullptr;
  batchSize_ = 0;
  types_.clear();
  peerOf_.clear();
  numbers_.clear();
  error_.clear();
}

bool Applier::op(Op code, Decoder& d) {
  switch (code) {
    case Op::type:
      return declareType(d);
    case Op::item:
      return item(d);
    case Op::remove:
      return removal(d);
    case Op::root:
      return rootFields(d);
    case Op::compare:
    case Op::sweep: {
      Entity* e = numbered(d.varint());
      uint8_t reach = d.u8();
      if (d.failed() || reach > static_cast<uint8_t>(Reach::tree)) return false;
      if (e && !e->dead()) {
        if (code == Op::compare)
          markStale(*e, static_cast<Reach>(reach));
        else
          sweepStale(*e, static_cast<Reach>(reach));
      }
      return true;
    }
    case Op::same:
      if (Entity* e = numbered(d.varint()); e && !e->dead()) markMet(*e);
      return !d.failed();
    case Op::forget:
      if (uint64_t handle = d.varint(); handle < numbers_.size()) numbers_[handle] = nullptr;
      return true;
    default:
      return control(code, d);
  }
}

bool Applier::numberIs(uint64_t handle, Entity* e) {
  if (handle == 0 || handle >= kMaxHandles) return broken("a container's number is out of range");
  if (handle >= numbers_.size()) {
    if (handle > numbers_.size() + 65536) return broken("a container's number is far ahead");
    numbers_.resize(handle + 1);
  }
  numbers_[handle] = Ref<Entity>(e);
  return true;
}

Entity* Applier::numbered(uint64_t handle) const {
  return handle < numbers_.size() ? numbers_[handle].get() : nullptr;
}

bool Applier::declareType(Decoder& d) {
  uint64_t id = d.varint();
  if (id >= kMaxTypes) return broken("a type's number is out of range");
  PeerType t;
  std::string_view name = d.text();
  auto keyWire = static_cast<Wire>(d.u8());
  t.keyWire = keyWire == Wire::varint ? Wire::varint : Wire::bytes;
  t.mine = TypeInfo::named(name);
  if (t.mine && t.mine->keyKind && t.mine->keyKind->wire != keyWire) t.mine = nullptr;
  uint64_t count = d.varint();
  if (count > Entity::kMaxFields) return broken("a type with too many attributes");
  for (uint64_t i = 0; i < count && !d.failed(); ++i) {
    std::string_view field = d.text();
    std::string_view kind = d.text();
    auto wire = static_cast<Wire>(d.u8());
    const FieldInfo* mine = t.mine ? t.mine->field(field) : nullptr;
    bool same =
        mine && mine->kind->wire == wire && kind == mine->kind->name && !(mine->marks & kLocal);
    t.fields.push_back(same ? mine : nullptr);
  }
  count = d.varint();
  if (count > 255) return broken("a type with too many collections");
  for (uint64_t i = 0; i < count && !d.failed(); ++i) {
    std::string_view collection = d.text();
    const CollectionInfo* mine = nullptr;
    if (t.mine)
      for (const CollectionInfo& c : t.mine->collections)
        if (collection == c.name && !(c.marks & kLocal)) mine = &c;
    t.collections.push_back(mine);
  }
  if (d.failed()) return false;
  if (id >= types_.size()) types_.resize(id + 1);
  if (t.mine) {
    if (t.mine->id >= peerOf_.size()) peerOf_.resize(t.mine->id + 1u);
    peerOf_[t.mine->id] = static_cast<uint16_t>(id + 1);
  }
  types_[id] = std::move(t);
  return true;
}

bool Applier::place(Decoder& d, Item* item, uint64_t* handle, PeerType** type, bool* skip,
                    bool withHandle) {
  item->flags = d.u8();
  uint64_t containerNumber = d.varint();
  uint8_t collectionIndex = d.u8();
  PeerType* t = *type = peerType(d.varint());
  *handle = withHandle && (item->flags & kItemHandle) ? d.varint() : 0;
  item->generation = d.varint();
  if (d.failed() || !t) return broken("an item of a type that was not declared");
  *skip = true;
  if (!t->mine) {
    ++unknown_;
    kinds::skipValue(d, t->keyWire);
    return true;
  }
  item->type = t->mine;
  if (t != batchType_) {
    if (!flush()) return false;
    batchType_ = t;
  }
  Entity& like = slot(batchSize_);
  item->like = &like;
  item->key = like.keyData();
  if (!t->mine->keyKind || !t->mine->keyKind->decode(d, like.at(t->mine->keyOffset)))
    return broken("an item's key is malformed");

  // A container may be gone here already, or be of a type that is not known here.
  Entity* container = item->container = numbered(containerNumber);
  if (!container) return true;
  if (container->dead() || !container->childJournal()) return below(*container, item->flags), true;
  const TypeInfo& containerType = container->type();
  // The sender's index of the collection, through its own declaration of the container's type.
  const CollectionInfo* info = nullptr;
  if (PeerType* p = declared(containerType)) {
    if (collectionIndex < p->collections.size()) info = p->collections[collectionIndex];
  } else if (collectionIndex < containerType.collections.size())
    info = &containerType.collections[collectionIndex];
  if (!info) return ++unknown_, true;
  bool fits = info->child ? item->type->is(info->child())
                          : item->type->keyKind == &kindOf<Name>() ||
                                std::string_view(item->type->keyKind->name) == "name";
  if (!fits) return broken("an item of type " + item->type->name + " in a collection of another");
  item->collection = &container->collection(*info);
  item->hash = item->type->keyKind->hash(item->key);
  *skip = false;
  return true;
}

bool Applier::skipFields(Decoder& d) {
  for (uint64_t tag = d.varint(); tag != 0 && !d.failed(); tag = d.varint())
    kinds::skipValue(d, static_cast<Wire>(tag & 1));
  return !d.failed();
}

// Where the next item is decoded: an entity of the batch's type with its defaults.
Entity& Applier::slot(size_t n) {
  Ref<Entity>& e = batchType_->slots[n].entity;
  if (!e) e = EntityOps::make(*batchType_->mine);
  return *e;
}

// Into an entity that has its defaults and stands in no tree. `present`: which of its attributes
// were there. False: malformed.
bool Applier::decodeFields(Decoder& d, const PeerType& type, Entity& to, uint32_t* present) {
  for (uint64_t tag = d.varint(); tag != 0; tag = d.varint()) {
    if (d.failed()) return false;
    uint64_t index = (tag >> 1) - 1;
    const FieldInfo* f = index < type.fields.size() ? type.fields[index] : nullptr;
    if (!f || static_cast<uint64_t>(f->kind->wire) != (tag & 1)) {
      ++unknown_;
      kinds::skipValue(d, static_cast<Wire>(tag & 1));
      continue;
    }
    *present |= 1u << f->index;
    if (!f->kind->decode(d, to.at(f->offset))) return false;
  }
  return !d.failed();
}

void Applier::clearFields(Entity& e, uint32_t present) {
  for (const FieldInfo& f : e.type().fields)
    if (present >> f.index & 1) f.kind->reset(e.at(f.offset));
}

// Writes what differs; false when the writer may not.
bool Applier::assignFields(Entity& to, const Entity& from, uint32_t which) {
  for (const FieldInfo& f : to.type().fields) {
    if (!(which >> f.index & 1) || (f.marks & (kConstructor | kLocal))) continue;
    const void* value = from.at(f.offset);
    if (f.kind->equal(to.at(f.offset), value)) continue;
    if (!to.mayChange()) return ++refusals_, false;
    f.kind->assign(to.at(f.offset), value);
    to.changed(f.index);
  }
  return true;
}

// Items are decoded some at a time, then applied: what their keys lead to in memory is on its way
// meanwhile.
bool Applier::item(Decoder& d) {
  Item item{};
  uint64_t handle = 0;
  PeerType* type = nullptr;
  bool skip = false;
  if (!place(d, &item, &handle, &type, &skip, true)) return false;
  ++items_;
  if (skip) {
    if (!flush()) return false;
    if (handle != 0 && !numberIs(handle, nullptr)) return false;
    return skipFields(d);
  }
  if (batchSize_ != 0 && item.collection != batchCollection_) {
    size_t at = batchSize_;
    if (!flush()) return false;
    std::swap(type->slots[0], type->slots[at]);
  }
  batchCollection_ = item.collection;
  Slot& s = type->slots[batchSize_];
  s.flags = item.flags;
  s.generation = item.generation;
  s.hash = item.hash;
  s.present = 0;
  if (!decodeFields(d, *type, *s.entity, &s.present)) {
    clearFields(*s.entity, s.present);
    return false;
  }
  ++batchSize_;
  item.collection->prefetch(item.hash);
  // What may hold others is there before they come.
  if (handle == 0 && item.type->collections.empty() && batchSize_ < kBatch) return true;
  Entity* last = nullptr;
  return flush(&last) && (handle == 0 || numberIs(handle, last));
}

bool Applier::flush(Entity** last) {
  size_t size = std::exchange(batchSize_, 0);
  for (size_t i = 0; i < size; ++i) batchCollection_->prefetchFound(batchType_->slots[i].hash);
  bool good = true;
  for (size_t i = 0; i < size; ++i) {
    Slot& s = batchType_->slots[i];
    Entity* target = nullptr;
    good = good && apply(s, &target);
    if (last) *last = target;
    if (s.entity) clearFields(*s.entity, s.present);
  }
  return good;
}

// `target`: what the peer's number for it, if there is one, means.
bool Applier::apply(Slot& s, Entity** target) {
  const Entity& like = *s.entity;
  Item item{batchCollection_->owner(),
            batchCollection_,
            batchType_->mine,
            s.flags,
            s.generation,
            like.keyData(),
            s.hash,
            &like};
  Entity* there = item.collection->findHashed(item.hash, item.key);
  Verdict verdict = judge(item, there);
  *target = verdict.target;
  if (verdict.skip) {
    if (there) there->flags &= static_cast<uint8_t>(~kStale);
    return true;
  }
  if (Entity* to = verdict.target) {
    if (&to->type() != item.type) return broken("an item changes its type");
    uint32_t which = s.flags & kItemWhole ? ~0u : s.present;
    bool may = assignFields(*to, like, which & ~verdict.keep);
    to->flags &= static_cast<uint8_t>(~kStale);
    applied(*to, item, false);
    if (!may) refused(item, to, false);
    return true;
  }
  Ref<Entity> made = s.entity;
  if (Entity* added = item.collection->addHashed(made, item.hash)) {
    s.entity = nullptr;
    *target = added;
    applied(*added, item, true);
  } else {
    ++refusals_;
    refused(item, nullptr, false);
  }
  return true;
}

bool Applier::removal(Decoder& d) {
  Item item{};
  uint64_t handle = 0;
  PeerType* type = nullptr;
  bool skip = false;
  if (!place(d, &item, &handle, &type, &skip, false)) return false;
  ++items_;
  if (!skip) remove(item, item.collection->findHashed(item.hash, item.key));
  return true;
}

bool Applier::rootFields(Decoder& d) {
  uint8_t flags = d.u8();
  Entity* root = numbered(d.varint());
  PeerType* type = root ? declared(root->type()) : nullptr;
  if (root && root->dead()) below(*root, flags);
  if (!type || root->dead()) return skipFields(d);
  batchType_ = type;
  Entity& from = slot(0);
  uint32_t dirty = root->dirty(), present = 0;
  bool good = decodeFields(d, *type, from, &present);
  if (good) {
    uint32_t which = flags & kItemWhole ? ~0u : present;
    if (!assignFields(*root, from, which & ~rootKeep(*root))) rootRefused(*root);
    rootApplied(*root, dirty, flags);
  }
  clearFields(from, present);
  return good;
}

void Applier::markStale(Entity& e, Reach reach) {
  for (const CollectionInfo& c : e.type().collections)
    for (CollectionIterator it(e.collection(c)); it; it.next()) {
      Entity& child = *it.get();
      if (sweepable(child)) child.flags |= kStale;
      if (reach == Reach::tree || child.type().journalOffset == 0) markStale(child, reach);
    }
}

void Applier::markMet(Entity& e) {
  for (const CollectionInfo& c : e.type().collections)
    for (CollectionIterator it(e.collection(c)); it; it.next()) {
      Entity& child = *it.get();
      child.flags &= static_cast<uint8_t>(~kStale);
      if (child.type().journalOffset == 0) markMet(child);
    }
}

void Applier::sweepStale(Entity& e, Reach reach) {
  for (const CollectionInfo& c : e.type().collections)
    for (CollectionIterator it(e.collection(c)); it; it.next()) {
      Entity& child = *it.get();
      if (child.flags & kStale)
        sweep(child);
      else if (reach == Reach::tree || child.type().journalOffset == 0)
        sweepStale(child, reach);
    }
}

}  // namespace ryx::platform
