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
  Follow(JournalReactor& reactor, Journal& journal, bool deep, Follow* outer)
      : reactor_(reactor), root_(journal.root()), followed_(journal), outer_(outer), deep_(deep) {
    for (const Entity* e = journal.root(); e && e->parent(); e = e->parent()) ++depth_;
    takeBit(journal);
    if (outer_) ++outer_->inner_;
  }
  ~Follow() override {
    leaveQueue();
    if (outer_) --outer_->inner_;
    if (Journal* j = journal(); j && bit_ != 0) {
      j->seenBitsUsed_ &= static_cast<uint8_t>(~bit_);
      j->seenBitsStale_ |= bit_;
    }
    detach();
  }
  // Tells whether the entity was known, and knows it from now on, or no longer if it is dead.
  bool learn(Entity& e) {
    if (bit_ == 0) return e.dead() ? set_.erase(&e) != 0 : !set_.insert(&e).second;
    bool known = (e.seen & bit_) != 0;
    e.seen = static_cast<uint8_t>(e.dead() ? e.seen & ~bit_ : e.seen | bit_);
    return known;
  }
  void start(Journal& journal) { attachAtHead(journal, bit_ != 0); }
  Journal& followed() const { return followed_; }
  const Entity* root() const { return root_.get(); }
  const Follow* outer() const { return outer_; }
  bool deep() const { return deep_; }
  bool hasInner() const { return inner_ != 0; }
  size_t depth() const { return depth_; }
  const Follow* following() const { return after_; }

  void enterQueue() {
    if (queued_) return;
    queued_ = true;
    Level& level = reactor_.levels_[depth_];
    before_ = level.last;
    after_ = nullptr;
    (before_ ? before_->after_ : level.first) = this;
    level.last = this;
  }
  void leaveQueue() {
    if (!queued_) return;
    queued_ = false;
    Level& level = reactor_.levels_[depth_];
    (before_ ? before_->after_ : level.first) = after_;
    (after_ ? after_->before_ : level.last) = before_;
  }

 protected:
  void activated() override {
    enterQueue();
    reactor_.wake();
  }
  // The loop runs it, and what it has no notes of it must not miss.
  bool isBounded() const override { return false; }

 private:
  void takeBit(Journal& journal) {
    auto free = static_cast<uint8_t>(~journal.seenBitsUsed_);
    bit_ = static_cast<uint8_t>(free & -free);
    journal.seenBitsUsed_ |= bit_;
    if (!(journal.seenBitsStale_ & bit_)) return;
    for (JournalNode* n = journal.end_.next; n != &journal.end_; n = n->next)
      n->seen &= static_cast<uint8_t>(~bit_);
    journal.seenBitsStale_ &= static_cast<uint8_t>(~bit_);
  }

  JournalReactor& reactor_;
  Ref<Entity> root_;  // keeps the journal alive
  Journal& followed_;
  Follow* outer_;  // the one in whose journal the root was found, or null
  Follow* before_ = nullptr;
  Follow* after_ = nullptr;
  uint32_t inner_ = 0;  // those that were found in this journal
  uint32_t depth_ = 0;
  uint8_t bit_ = 0;
  bool deep_;
  bool queued_ = false;
  std::unordered_set<const Entity*> set_;  // the living alone, and the dead still to be reported
};

JournalReactor::JournalReactor(const char* name, Order order) : Reactor(name, order) {}

JournalReactor::~JournalReactor() {
  if (destroyed_) *destroyed_ = true;
  while (!follows_.empty()) unfollow(follows_.begin()->second->followed());
}

void JournalReactor::follow(Journal& journal, bool deep) {
  follow(journal, deep, nullptr);
}

void JournalReactor::follow(Journal& journal, bool deep, Follow* outer) {
  auto [at, isNew] = follows_.try_emplace(&journal);
  if (!isNew) return;
  at->second = std::make_unique<Follow>(*this, journal, deep, outer);
  Follow& f = *at->second;
  if (levels_.size() <= f.depth()) levels_.resize(f.depth() + 1);
  f.start(journal);
}

void JournalReactor::unfollow(Journal& journal) {
  auto at = follows_.find(&journal);
  if (at == follows_.end()) return;
  std::unique_ptr<Follow> f = std::move(at->second);
  follows_.erase(at);
  if (!f->hasInner()) return;
  std::vector<Journal*> inner;
  for (auto& [followed, follow] : follows_)
    if (follow->outer() == f.get()) inner.push_back(&follow->followed());
  for (Journal* j : inner) unfollow(*j);
}

// Between two cuts of the tree that one of them is in, all wait. (A journal that is cut off from
// its tree does not know; what it died with stands in another, which does.)
bool JournalReactor::isGated() {
  StoreClock* gated = nullptr;
  for (const Level& level : levels_)
    for (const Follow* f = level.first; f && !gated; f = f->following())
      if (Journal* j = f->journal(); j && j->clock() && j->clock()->gated) gated = j->clock();
  return parkedAt(gated);
}

void JournalReactor::hearAll() {
  // On every way out the gates are as they were.
  struct Gates {
    std::vector<std::pair<StoreClock*, bool>> were;
    ~Gates() {
      for (auto gate = were.rbegin(); gate != were.rend(); ++gate)
        gate->first->gated = gate->second;
    }
  } gates;
  for (const auto& [journal, follow] : follows_)
    if (StoreClock* clock = journal->clock())
      gates.were.emplace_back(clock, std::exchange(clock->gated, false));
  for (bool more = true; more;) {
    Slice slice;
    more = run(slice);
  }
}

JournalReactor::Follow* JournalReactor::deepest() const {
  for (size_t depth = levels_.size(); depth-- > 0;)
    if (levels_[depth].first) return levels_[depth].first;
  return nullptr;
}

bool JournalReactor::run(Slice& slice) {
  if (isGated()) return false;
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
      if (reactor->deepest()) reactor->wake();
    }
  } leave{this, outer, &destroyed};

  while (Follow* f = deepest()) {
    // A loop that a callback ran may have closed the gate.
    if (Journal* j = f->journal(); j && j->clock() && j->clock()->gated) return !isGated();
    if (Ref<Entity> e = f->next()) {
      report(*f, *e);
      if (destroyed) return false;
    } else {
      f->leaveQueue();
    }
    if (slice.spent()) break;
  }
  if (Follow* f = deepest()) {  // the next one's turn
    f->leaveQueue();
    f->enterQueue();
  }
  return deepest() != nullptr;
}

void JournalReactor::report(Follow& f, Entity& e) {
  if (&e == f.root()) return onRootChanged(e);
  bool known = f.learn(e);
  if (e.dead() && !known) return;
  if (f.deep() && e.type().journalOffset != 0) {
    if (e.dead())
      unfollow(*e.childJournal());
    else if (!known)
      follow(*e.childJournal(), true, &f);
  }
  onEntity(e, e.dead() ? Change::deleted : known ? Change::changed : Change::created);
}

}  // namespace ryx::platform
