#include "platform/qel/collection.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace ryx::platform {
namespace {

template <class T>
T* resized(T* old, size_t n) {
  void* p = std::realloc(old, n * sizeof(T));
  if (!p) throw std::bad_alloc();
  return static_cast<T*>(p);
}

constexpr size_t kHuge = size_t(2) << 20;

// Slots are read at random: huge pages spare a million-entry table most of its TLB misses. Zero
// pages come from the system when they are touched, not all at once.
uint64_t* newSlots(size_t n) {
  const size_t bytes = n * sizeof(uint64_t);
  if (bytes < kHuge) {
    void* p = std::calloc(n, sizeof(uint64_t));
    if (!p) throw std::bad_alloc();
    return static_cast<uint64_t*>(p);
  }
  void* mapped =
      mmap(nullptr, bytes + kHuge, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) throw std::bad_alloc();
  const auto start = reinterpret_cast<uintptr_t>(mapped);
  const uintptr_t aligned = (start + kHuge - 1) & ~(kHuge - 1);
  if (aligned != start) munmap(mapped, aligned - start);
  void* slots = reinterpret_cast<void*>(aligned);
  if (const size_t behind = start + kHuge - aligned; behind != 0)
    munmap(static_cast<char*>(slots) + bytes, behind);
  madvise(slots, bytes, MADV_HUGEPAGE);
  return static_cast<uint64_t*>(slots);
}

void freeSlots(uint64_t* slots, size_t n) {
  if (n * sizeof(uint64_t) < kHuge)
    std::free(slots);
  else
    munmap(slots, n * sizeof(uint64_t));
}

}  // namespace

CollectionBase::~CollectionBase() {
  if (!table_) return;
  for (CollectionIterator* it = table_->iterators; it;) {
    CollectionIterator* following = it->nextIterator_;
    it->leave();
    it->collection_ = nullptr;
    it->current_ = nullptr;
    it = following;
  }
  for (uint32_t i = 0; i < table_->used; ++i)
    if (Entity* e = table_->entries[i]) {
      check(!e->prev, "what stands in a tree is removed before its parent goes");
      e->owner_ = nullptr;
      Ref<Entity> last(e);
      --e->refs;
    }
  std::free(table_->entries);
  std::free(table_->hashes);
  dropOldSlots();
  freeSlots(table_->slots, size_t{table_->slotMask} + 1);
  delete table_;
}

Entity* CollectionBase::findIn(const uint64_t* slots, uint32_t mask, uint32_t hash,
                               const void* key) {
  const uint64_t tag = slotFor(hash, nullptr) >> 48;
  for (uint32_t at = hash & mask;; at = (at + 1) & mask) {
    const uint64_t slot = slots[at];
    if (slot == 0) return nullptr;
    if (slot >> 48 != tag || slot == kGone) continue;
    auto* e = reinterpret_cast<Entity*>(slot & 0xffffffffffffu);
    const TypeInfo& type = e->type();
    if (type.keyKind->equal(e->at(type.keyOffset), key)) return e;
  }
}

// A gone mark is needed only where a search may have to go on.
void CollectionBase::takeSlot(uint64_t* slots, uint32_t mask, uint32_t hash, const Entity* e) {
  const uint64_t slot = slotFor(hash, e);
  uint32_t at = hash & mask;
  while (slots[at] != slot) at = (at + 1) & mask;
  slots[at] = slots[(at + 1) & mask] == 0 ? 0 : kGone;
}

Entity* CollectionBase::findHashed(uint64_t hash, const void* key) const {
  if (!table_ || table_->live == 0) return nullptr;
  const Table& t = *table_;
  const auto hash32 = static_cast<uint32_t>(hash >> 32);
  Entity* e = findIn(t.slots, t.slotMask, hash32, key);
  return e || !t.oldSlots ? e : findIn(t.oldSlots, t.oldMask, hash32, key);
}

void CollectionBase::insertSlot(uint32_t hash, const Entity* e) {
  Table& t = *table_;
  uint32_t at = hash & t.slotMask;
  while (t.slots[at] > kGone) at = (at + 1) & t.slotMask;
  t.slots[at] = slotFor(hash, e);
}

// Moves the entries together, resizes, fills the slots anew; iterators keep their elements.
void CollectionBase::rebuild(uint32_t capacity) {
  Table& t = *table_;
  if (t.live != t.used) {
    for (CollectionIterator* it = t.iterators; it; it = it->nextIterator_) {
      uint32_t before = 0;
      for (uint32_t i = 0; i < it->place_ && i < t.used; ++i) before += t.entries[i] != nullptr;
      it->place_ = before;
    }
    uint32_t to = 0;
    for (uint32_t from = 0; from < t.used; ++from)
      if (Entity* e = t.entries[from]) {
        t.entries[to] = e;
        t.hashes[to] = t.hashes[from];
        e->slot_ = to++;
      }
    t.used = to;
  }
  t.first = 0;
  dropOldSlots();
  if (capacity != t.capacity) {
    t.entries = resized(t.entries, capacity);
    t.hashes = resized(t.hashes, capacity);
    t.capacity = capacity;
    if (t.slots) freeSlots(t.slots, size_t{t.slotMask} + 1);
    t.slotMask = capacity * 2 - 1;
    t.slots = newSlots(size_t{capacity} * 2);
  } else {
    std::memset(t.slots, 0, (size_t(t.slotMask) + 1) * sizeof(uint64_t));
  }
  for (uint32_t i = 0; i < t.used; ++i) insertSlot(t.hashes[i], t.entries[i]);
}

void CollectionBase::grow() {
  if (!table_) table_ = new Table;
  Table& t = *table_;
  if (t.oldSlots) moveSome();
  if (t.used < t.capacity) return;
  bool holes = t.live < t.used - t.used / 4;
  if (!holes && t.capacity >= kGrowsInParts) return widen();
  rebuild(t.capacity == 0 ? 4 : holes ? t.capacity : t.capacity * 2);
}

// Twice as large, where to do it at once would hold the loop for long.
void CollectionBase::widen() {
  Table& t = *table_;
  while (t.oldSlots) moveSome();
  t.entries = resized(t.entries, size_t{t.capacity} * 2);
  t.hashes = resized(t.hashes, size_t{t.capacity} * 2);
  t.capacity *= 2;
  t.oldSlots = t.slots;
  t.oldMask = t.slotMask;
  t.toMove = t.used;
  t.moved = 0;
  t.slotMask = t.capacity * 2 - 1;
  t.slots = newSlots(size_t{t.capacity} * 2);
}

void CollectionBase::moveSome() {
  Table& t = *table_;
  const uint32_t end = std::min(t.toMove, t.moved + kMovedAtOnce);
  for (; t.moved < end; ++t.moved)
    if (const Entity* e = t.entries[t.moved]) insertSlot(t.hashes[t.moved], e);
  if (t.moved == t.toMove) dropOldSlots();
}

void CollectionBase::dropOldSlots() {
  Table& t = *table_;
  if (!t.oldSlots) return;
  freeSlots(t.oldSlots, size_t{t.oldMask} + 1);
  t.oldSlots = nullptr;
}

Entity* CollectionBase::add(const Ref<Entity>& child) {
  const Kind& kind = *child->type().keyKind;
  uint64_t hash = kind.hash(child->keyData());
  return findHashed(hash, child->keyData()) ? nullptr : addHashed(child, hash);
}

Entity* CollectionBase::addHashed(const Ref<Entity>& child, uint64_t hash) {
  check(!child->owner_ && child->type().keyKind, "an entity stands in one place, once, by its key");
  if (journal_ && !journal_->admits(*child, owner_)) return nullptr;
  grow();
  Table& t = *table_;
  Entity& e = *child;
  auto hash32 = static_cast<uint32_t>(hash >> 32);
  uint32_t place = t.used++;
  t.entries[place] = &e;
  t.hashes[place] = hash32;
  insertSlot(hash32, &e);
  ++t.live;
  ++e.refs;
  e.owner_ = this;
  e.slot_ = place;
  if (journal_) enter(e, journal_);
  return &e;
}

// It stands in a tree now, in that journal, and so does what it holds already.
void CollectionBase::enter(Entity& e, Journal* journal) {
  journal->touched(e);
  if (e.generation_ == 0) e.generation_ = e.version;
  const TypeInfo& type = e.type();
  if (type.collections.empty()) return;
  Journal* inner = journal;
  if (type.journalOffset) {
    inner = static_cast<Journal*>(e.at(type.journalOffset));
    inner->bind(journal->clock(), &e);
  }
  for (const CollectionInfo& c : type.collections) {
    CollectionBase& collection = e.collection(c);
    collection.enterJournal(inner);
    if (!collection.table_) continue;
    for (uint32_t i = 0; i < collection.table_->used; ++i)
      if (Entity* below = collection.table_->entries[i]) enter(*below, inner);
  }
}

// It stands in no tree any more: all below it goes, and what is written to it from now on is
// nobody's business.
void CollectionBase::leave(Entity& e) {
  const TypeInfo& type = e.type();
  for (const CollectionInfo& c : type.collections) {
    e.collection(c).removeAll();
    e.collection(c).enterJournal(nullptr);
  }
  if (type.journalOffset) static_cast<Journal*>(e.at(type.journalOffset))->bind(nullptr, &e);
}

void CollectionBase::takeOut(Entity& child) {
  Table& t = *table_;
  uint32_t place = child.slot_;
  const uint32_t hash = t.hashes[place];
  const bool isOld = t.oldSlots && place < t.toMove;
  if (isOld) takeSlot(t.oldSlots, t.oldMask, hash, &child);
  if (!isOld || place < t.moved) takeSlot(t.slots, t.slotMask, hash, &child);
  t.entries[place] = nullptr;
  --t.live;
  if (t.live == 0) return clear();
  while (!t.entries[t.first]) ++t.first;
  // A table that shrank gives its memory back.
  if (t.capacity > 64 && t.live < t.capacity / 8) rebuild(t.capacity / 4);
}

// Nothing is left in it.
void CollectionBase::clear() {
  Table& t = *table_;
  for (CollectionIterator* it = t.iterators; it; it = it->nextIterator_) it->place_ = 0;
  t.used = 0;
  if (t.capacity > 64) return rebuild(4);
  t.first = 0;
  std::memset(t.slots, 0, (size_t(t.slotMask) + 1) * sizeof(uint64_t));
}

// From now on it keeps the entity that it was in: whoever hears of the deletion may ask where.
void CollectionBase::markDead(Entity& child) {
  child.flags |= Entity::kDead;
  ++owner_->refs;
}

bool CollectionBase::remove(Entity& child) {
  check(child.owner_ == this && !child.dead(), "an entity is removed from where it stands");
  if (journal_ && !journal_->admits(child, owner_)) return false;
  Ref<Entity> hold(&child);
  leave(child);
  takeOut(child);
  --child.refs;  // the table's; `hold` and, from now on, the journal keep it
  markDead(child);
  if (journal_) journal_->died(child);
  return true;
}

void CollectionBase::removeAll() {
  if (!table_) return;
  for (uint32_t i = 0; i < table_->used; ++i) {
    Entity* e = table_->entries[i];
    if (!e) continue;
    Ref<Entity> hold(e);
    leave(*e);
    table_->entries[i] = nullptr;
    --table_->live;
    --e->refs;
    markDead(*e);
    if (journal_) journal_->died(*e);
  }
  clear();
}

// --- iterators ----------------------------------------------------------------------------------

CollectionIterator::CollectionIterator(const CollectionBase& collection)
    : collection_(collection.table_ ? &collection : nullptr) {
  if (!collection_) return;  // nothing was ever in it
  enter();
  settle();
}

CollectionIterator::CollectionIterator(const CollectionIterator& o)
    : collection_(o.collection_), place_(o.place_), current_(o.current_) {
  enter();
}

CollectionIterator& CollectionIterator::operator=(const CollectionIterator& o) {
  if (this == &o) return *this;
  leave();
  collection_ = o.collection_;
  place_ = o.place_;
  current_ = o.current_;
  enter();
  return *this;
}

void CollectionIterator::enter() {
  if (!collection_) return;
  auto& head = collection_->table_->iterators;
  nextIterator_ = head;
  link_ = &head;
  if (head) head->link_ = &nextIterator_;
  head = this;
}

void CollectionIterator::leave() {
  if (!link_) return;
  *link_ = nextIterator_;
  if (nextIterator_) nextIterator_->link_ = link_;
  link_ = nullptr;
  nextIterator_ = nullptr;
}

void CollectionIterator::settle() {
  const auto& t = *collection_->table_;
  place_ = std::max(place_, t.first);
  while (place_ < t.used && !t.entries[place_]) ++place_;
  current_ = place_ < t.used ? Ref<Entity>(t.entries[place_]) : Ref<Entity>();
}

void CollectionIterator::next() {
  if (!collection_) return;
  // While its element is in the table the iterator stands on it; otherwise on the first place
  // behind.
  const auto& t = *collection_->table_;
  if (place_ < t.used && t.entries[place_] == current_.get()) ++place_;
  settle();
}

}  // namespace ryx::platform
