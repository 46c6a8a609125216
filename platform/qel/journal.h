// One journal, many cursors: how everybody who follows state learns of changes, without a queue.
//
// Every change gets a version from the store's one counter, and the changed entity moves to the end
// of its journal: an intrusive list in the order of last changes, each entity in it once, a deleted
// one as its own tombstone. A cursor is a node of the same list, so entities may move and die
// around it; what lies behind it is what its follower has not seen. A cursor at the head sees
// everything there is: a snapshot and the changes after it are one walk. A follower that is up to
// date costs nothing; it is told once when something new is appended behind it.
//
// A tombstone leaves the list when no cursor is before it. Followers that may fall far behind (a
// client's connection) are bounded: when kMaxTombstones have gathered they are told to compare
// instead (overrun()). Reactors are not: the loop runs them.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/qel/entity.h"

namespace ryx::platform {

class Cursor;
class Journal;

// Who writes, as far as the store cares: the rules are the Statehub's (statehub/authority.h).
class Writer {
 public:
  enum class Admission : uint8_t { refused, thisOne, all };
  Writer() : number_(++lastNumber) {}
  Writer(const Writer&) = delete;
  virtual ~Writer() = default;
  // May it write `entity`, which stands or is to stand below `parent` in this journal? `all`: it
  // may write everything there. A refusal is the writer's to trace and count.
  virtual Admission admits(const Journal& journal, const Entity& entity, const Entity* parent) = 0;
  // Its own for good: another writer may come to stand at the same address.
  uint64_t number() const { return number_; }

 private:
  RYX_PRIVATE static uint64_t lastNumber;
  const uint64_t number_;
};

// Where state came from, for a hub that must not send a client's own writes back to it.
class Origins {
 public:
  virtual ~Origins() = default;
  // The connection whose bytes are being applied has been sent all of this journal up to `version`.
  virtual bool caughtUp(const Journal& journal, uint64_t version) = 0;
};

class Reactor;

// What the journals of one tree share.
struct StoreClock {
  uint64_t version = 0;
  Writer* writer = nullptr;    // null: the store's own side, which may do everything
  Origins* origins = nullptr;  // set at a hub: an entity's dirty() then says who wrote it
  uint32_t origin = 0;         // the connection whose bytes are being applied, 0 for none
  // State that stands between two cuts is applied, but no reactor sees it: those that were to run
  // wait here until the gate opens.
  bool gated = false;
  std::vector<Reactor*> parked;
  RYX_PRIVATE void openGate();
};

class Journal {
 public:
  // Named bound: tombstones kept for connections that do not read.
  static constexpr uint32_t kMaxTombstones = 65536;
  // At a hub so many are kept for connections that come back (attachAfter()); twice as many, for a
  // while.
  static constexpr uint32_t kKeptTombstones = 1024;

  RYX_PRIVATE Journal();
  RYX_PRIVATE ~Journal();
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  // `root` is the entity whose children it enters; it keeps the journal alive.
  RYX_PRIVATE void bind(StoreClock* clock, Entity* root);
  // Lets all its followers go: its tree ends.
  RYX_PRIVATE void detachAll();
  StoreClock* clock() const { return clock_; }
  Entity* root() const { return root_; }
  uint32_t tombstones() const { return tombstones_; }
  uint64_t overruns() const { return overruns_; }
  // Whether all that happened here after that version is still here to be seen: no deletion of it
  // was forgotten.
  bool remembersSince(uint64_t version) const { return lastForgotten_ <= version; }

  RYX_PRIVATE void touched(Entity& e);
  // An attribute of the root itself was written. Its creation and deletion are its directory's.
  RYX_PRIVATE void rootTouched();
  RYX_PRIVATE void died(Entity& e);
  // Whether the present writer may write `e` here, below `parent`. What holds for all of the
  // journal is judged once a writer, then remembered.
  bool admits(const Entity& e, const Entity* parent) {
    return clock_ == nullptr || clock_->writer == nullptr ||
           clock_->writer->number() == admitted_ || judge(e, parent);
  }
  // The rules changed: judge again.
  void forgetAdmitted() { admitted_ = 0; }

 private:
  friend class Cursor;
  friend class JournalReactor;
  void append(JournalNode& e);
  void noteOrigin(Entity& e, uint64_t before);
  RYX_PRIVATE bool judge(const Entity& e, const Entity* parent);
  void dropTombstone(Entity& e);
  // Frees the tombstones that no cursor is before, the oldest first, but those that are kept.
  void sweep() { sweepTo(kept()); }
  void sweepTo(uint32_t keep);
  uint32_t kept() const {
    return clock_ && clock_->origins && !root_->dead() ? kKeptTombstones : 0;
  }
  void boundTombstones();

  JournalNode end_;
  JournalNode self_;
  StoreClock* clock_ = nullptr;
  uint64_t admitted_ = 0;       // the number of the writer that may write everything here
  uint64_t lastVersion_ = 0;    // no item has a later one
  uint64_t lastForgotten_ = 0;  // no deletion that was forgotten had a later one
  Entity* root_ = nullptr;
  Cursor* oldest_ = nullptr;
  Cursor* newest_ = nullptr;
  uint64_t overruns_ = 0;
  uint32_t tombstones_ = 0;
  uint32_t boundAt_ = kMaxTombstones;  // tombstones at which they are bounded
  uint32_t forgetfulCursors_ = 0;      // cursors that keep no note of what they have seen
  uint8_t seenBitsUsed_ = 0;           // bits of JournalNode::seen that are given out
  uint8_t seenBitsStale_ = 0;          // bits that were given back and still stand in entities
};

// A follower's place in one journal. Movable nowhere; detaches when destroyed.
class RYX_PRIVATE Cursor : public JournalNode {
 public:
  Cursor() = default;
  virtual ~Cursor();
  Cursor(const Cursor&) = delete;

  bool attached() const { return journal_; }
  Journal* journal() const { return journal_; }
  // Before everything there is, or behind it. `remembers`: the follower marks what it has seen in
  // the entities (JournalNode::seen), so tombstones of what nobody saw need not be kept for it.
  void attachAtHead(Journal& journal, bool remembers);
  void attachAtEnd(Journal& journal, bool remembers);
  // Before all that happened after that version, which the journal remembers.
  void attachAfter(Journal& journal, uint64_t after, bool remembers);
  void detach();

  // The next entity behind the cursor, which moves past it; null at the end, and from then on
  // activated() tells when there is more. A dead one is a deletion.
  Ref<Entity> next();
  bool atEnd() const;

 protected:
  // Something was appended behind a cursor that stood at the end. No state may change in here, and
  // no cursor move.
  virtual void activated() = 0;
  // Whether it may be sent back to compare.
  virtual bool isBounded() const { return true; }
  // Too many tombstones are kept for this follower. It has been moved to the head, from where it
  // will see all that lives and, of what died, only what dies from now on: it has to compare. No
  // state may change in here either.
  virtual void overrun() {}

 private:
  friend class Journal;
  void link(Journal& journal, JournalNode* before, bool remembers);
  void passCursor(Cursor* other);
  void moveToHead();

  Journal* journal_ = nullptr;
  Cursor* older_ = nullptr;
  Cursor* newer_ = nullptr;
  bool remembers_ = false;
  bool active_ = false;
};

// The base of a type whose children have a journal of their own: a directory, an agent's own input.
template <class Self, class Base = Entity>
struct JournalRootType : EntityType<Self, Base> {
  JournalRootType() {
    if (TypeBuilder::current) [[unlikely]]
      TypeBuilder::current->journal(&journal);
  }
  Journal journal;
};

}  // namespace ryx::platform
