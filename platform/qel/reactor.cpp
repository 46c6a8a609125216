#include "platform/qel/reactor.h"

#include <algorithm>

namespace ryx::platform {

void StoreClock::openGate() {
  gated = false;
  for (Reactor* r : std::exchange(parked, {})) {
    r->parkedAt_ = nullptr;
    r->wake();
  }
}

// --- Reactor ------------------------------------------------------------------------------------

Reactor::~Reactor() {
  if (parkedAt_) std::erase(parkedAt_->parked, this);
}

bool Reactor::parkedAt(StoreClock* clock) {
  if (parkedAt_) std::erase(parkedAt_->parked, this);
  parkedAt_ = nullptr;
  if (!clock || !clock->gated) return false;
  parkedAt_ = clock;
  clock->parked.push_back(this);
  return true;
}

// --- EntityReactor ------------------------------------------------------------------------------

EntityReactor::~EntityReactor() {
  unfollow();
}

void EntityReactor::follow(Entity& entity, uint32_t interest) {
  unfollow();
  entity_ = Ref<Entity>(&entity);
  interest_ = interest;
  next_ = entity.reactors_;
  entity.reactors_ = this;
}

void EntityReactor::unfollow() {
  if (!entity_) return;
  EntityReactor** at = &entity_->reactors_;
  while (*at != this) at = &(*at)->next_;
  *at = next_;
  next_ = nullptr;
  pending_ = 0;
  entity_ = nullptr;
}

void EntityReactor::attributeChanged(Entity& entity, unsigned field) {
  uint32_t bit = 1u << field;
  for (EntityReactor* r = entity.reactors_; r; r = r->next_) {
    if (!(r->interest_ & bit)) continue;
    r->pending_ |= bit;
    r->wake();
  }
}

bool EntityReactor::run(Slice&) {
  Journal* journal = entity_ ? entity_->childJournal() : nullptr;
  if (parkedAt(journal ? journal->clock() : nullptr)) return false;
  uint32_t pending = std::exchange(pending_, 0);
  if (pending != 0) onAttributes(pending);
  return false;
}

// --- JournalReactor -----------------------------------------------------------------------------

// A cursor on one journal, and what this reactor knows of that journal's entities: one bit in each
// entity, or, where a journal has given all its bits out, a set.
class JournalReactor::Follow final : public Cursor {
 public:
  Follow(JournalReactor& reactor, Journal& journal, bool deep)
      : reactor_(reactor), root_(journal.root()), deep_(deep) {
    uint8_t free = static_cast<uint8_t>(~journal.seenBitsUsed_);
    bit_ = static_cast<uint8_t>(free & -free);
    journal.seenBitsUsed_ |= bit_;
    if (journal.seenBitsStale_ & bit_) {
      for (JournalNode* n = journal.end_.next; n != &journal.end_; n = n->next)
        n->seen &= static_cast<uint8_t>(~bit_);
      journal.seenBitsStale_ &= static_cast<uint8_t>(~bit_);
    }
  }
  ~Follow() override {
    if (Journal* j = journal()) {
      j->seenBitsUsed_ &= static_cast<uint8_t>(~bit_);
      j->seenBitsStale_ |= bit_;
    }
    detach();
  }
  // Tells whether the entity was known, and knows it from now on, or no longer if it is dead.
  bool learn(Entity& e) {
    bool known = bit_ ? (e.seen & bit_) != 0 : set_.count(&e) != 0;
    if (bit_) {
      e.seen = static_cast<uint8_t>(e.dead() ? e.seen & ~bit_ : e.seen | bit_);
    } else if (e.dead()) {
      set_.erase(&e);
    } else {
      set_.insert(&e);
    }
    return known;
  }
  void start(Journal& journal) { attachAtHead(journal, bit_ != 0); }
  bool deep() const { return deep_; }
  const Entity* root() const { return root_.get(); }
  bool queued = false;
  Ref<Entity> deadRoot;  // its journal's root, deleted, to be told when all that died in it was

 protected:
  void activated() override {
    if (!queued) {
      queued = true;
      reactor_.active_.push_back(this);
    }
    reactor_.wake();
  }

 private:
  JournalReactor& reactor_;
  Ref<Entity> root_;  // keeps the journal alive
  uint8_t bit_ = 0;
  bool deep_;
  std::unordered_set<const Entity*> set_;
};

JournalReactor::JournalReactor(const char* name, Order order) : Reactor(name, order) {}

JournalReactor::~JournalReactor() {
  if (destroyed_) *destroyed_ = true;
}

void JournalReactor::follow(Journal& journal, bool deep) {
  if (followOf(journal)) return;
  follows_.push_back(std::make_unique<Follow>(*this, journal, deep));
  active_.reserve(follows_.size());
  follows_.back()->start(journal);
}

void JournalReactor::unfollow(Journal& journal) {
  auto at = std::find_if(follows_.begin(), follows_.end(),
                         [&](auto& f) { return f->journal() == &journal; });
  if (at == follows_.end()) return;
  active_.erase(std::remove(active_.begin(), active_.end(), at->get()), active_.end());
  follows_.erase(at);
}

bool JournalReactor::run(Slice& slice) {
  Journal* journal = active_.empty() ? nullptr : active_.back()->journal();
  if (parkedAt(journal ? journal->clock() : nullptr)) return false;
  bool destroyed = false;
  bool* outer = std::exchange(destroyed_, &destroyed);
  // On every way out: the flag of an outer run of this reactor is put back, and told; what an
  // exception left behind stays queued.
  struct Leave {
    JournalReactor* reactor;
    bool* outer;
    bool* destroyed;
    ~Leave() {
      if (*destroyed) {
        if (outer) *outer = true;
        return;
      }
      reactor->destroyed_ = outer;
      if (!reactor->active_.empty()) reactor->wake();
    }
  } leave{this, outer, &destroyed};

  while (!active_.empty()) {
    Follow* f = active_.back();
    if (Ref<Entity> e = f->next()) {
      report(*f, *e);
    } else {
      f->queued = false;
      active_.erase(std::remove(active_.begin(), active_.end(), f), active_.end());
      if (Ref<Entity> root = std::exchange(f->deadRoot, {})) {
        unfollow(*root->childJournal());
        onEntity(*root, Change::deleted);
      }
    }
    if (destroyed) return false;
    if (slice.spent()) break;
  }
  return !active_.empty();
}

void JournalReactor::report(Follow& f, Entity& e) {
  if (&e == f.root()) {
    onRootChanged(e);
    return;
  }
  bool known = f.learn(e);
  if (e.dead() && !known) return;
  if (f.deep() && e.type().journalOffset != 0) {
    Journal& own = *e.childJournal();
    if (!e.dead()) {
      if (!known) follow(own, true);
    } else if (Follow* inner = followOf(own)) {
      // What died in it is told before its own deletion is.
      if (inner->queued) {
        inner->deadRoot = Ref<Entity>(&e);
        return;
      }
      unfollow(own);
    }
  }
  onEntity(e, e.dead() ? Change::deleted : known ? Change::changed : Change::created);
}

JournalReactor::Follow* JournalReactor::followOf(Journal& journal) {
  for (auto& f : follows_)
    if (f->journal() == &journal) return f.get();
  return nullptr;
}

}  // namespace ryx::platform
