#include "platform/qel/journal.h"

#include <algorithm>

namespace ryx::platform {
namespace {

void unlink(JournalNode& n) {
  n.prev->next = n.next;
  n.next->prev = n.prev;
  n.prev = n.next = nullptr;
}

void linkBefore(JournalNode& n, JournalNode& before) {
  n.prev = before.prev;
  n.next = &before;
  before.prev->next = &n;
  before.prev = &n;
}

// A cursor's aim: an entity, or the mark that stands for the root.
bool isItem(const JournalNode* n) {
  return n->typeId >= JournalNode::kSelf;
}

bool isTombstone(const JournalNode* n) {
  return n->typeId >= JournalNode::kFirstType && static_cast<const Entity*>(n)->dead();
}

}  // namespace

uint64_t Writer::lastNumber = 0;

// --- Journal ------------------------------------------------------------------------------------

Journal::Journal() {
  end_.typeId = JournalNode::kEnd;
  end_.prev = end_.next = &end_;
  self_.typeId = JournalNode::kSelf;
}

void Journal::detachAll() {
  while (oldest_) oldest_->detach();
  sweepTo(0);
}

Journal::~Journal() {
  detachAll();  // and with the last cursor the tombstones went
  while (end_.next != &end_) unlink(*end_.next);
}

void Journal::bind(StoreClock* clock, Entity* root) {
  clock_ = clock;
  root_ = root;
}

void Journal::append(JournalNode& e) {
  e.version = lastVersion_ = ++clock_->version;
  if (e.next == &end_) return;  // all cursors are before it, and told
  if (e.prev) unlink(e);
  // Cursors that stand at the end are at the tail of the list, behind every item.
  for (JournalNode* n = end_.prev; n->typeId == JournalNode::kCursor; n = n->prev) {
    auto& cursor = static_cast<Cursor&>(*n);
    if (cursor.active_) continue;
    cursor.active_ = true;
    cursor.activated();
  }
  linkBefore(e, end_);
}

void Journal::touched(Entity& e) {
  if (clock_->origins) noteOrigin(e, e.version);
  append(e);
}

void Journal::rootTouched() {
  if (!clock_) return;
  if (clock_->origins) noteOrigin(*root_, self_.version);
  append(self_);
}

// A change by the connection that made the last one too, or that has been sent the last one, is
// nothing new to it. Whatever else it is, everyone has to be told.
void Journal::noteOrigin(Entity& e, uint64_t before) {
  uint32_t who = clock_->origin;
  bool nothingNew = before == 0 || e.dirty() == who || clock_->origins->caughtUp(*this, before);
  e.dirtyIs(nothingNew ? who : 0);
}

void Journal::died(Entity& e) {
  // Nobody comes back to what is gone: its own tombstones, which keep it, are not kept.
  if (uint16_t own = e.type().journalOffset) static_cast<Journal*>(e.at(own))->sweep();
  if (clock_->origins) e.dirtyIs(clock_->origin);
  bool wanted = kept() != 0 || (oldest_ && (forgetfulCursors_ != 0 || e.seen != 0));
  if (!wanted) {
    if (e.prev) unlink(e);
    lastForgotten_ = clock_->version;
    return;
  }
  append(e);
  ++e.refs;
  ++tombstones_;
  if (tombstones_ == 2 * kKeptTombstones) sweep();
  if (tombstones_ > boundAt_) boundTombstones();
}

bool Journal::judge(const Entity& e, const Entity* parent) {
  Writer::Admission verdict = clock_->writer->admits(*this, e, parent);
  if (verdict == Writer::Admission::all) admitted_ = clock_->writer->number();
  return verdict != Writer::Admission::refused;
}

void Journal::dropTombstone(Entity& e) {
  unlink(e);
  lastForgotten_ = std::max(lastForgotten_, e.version);
  if (--tombstones_ == 0) boundAt_ = kMaxTombstones;
  Ref<Entity> last(&e);
  --e.refs;
}

void Journal::sweepTo(uint32_t keep) {
  for (JournalNode* n = end_.next; tombstones_ > keep && n != &end_;) {
    if (n->typeId == JournalNode::kCursor) return;
    JournalNode* following = n->next;
    if (isTombstone(n)) dropTombstone(static_cast<Entity&>(*n));
    n = following;
  }
}

// The bounded followers that hold tombstones back are sent to the head, to compare. What others
// wait for stays, and is not gone through again until as much has come on top of it.
void Journal::boundTombstones() {
  for (Cursor* c = oldest_; c;) {
    Cursor* newer = c->newer_;
    if (c->isBounded() && !c->remembers_ && !c->atEnd()) {
      ++overruns_;
      c->moveToHead();
      c->overrun();
    }
    c = newer;
  }
  bool isWanted = false;      // by an unbounded cursor that has no notes
  bool isRemembered = false;  // by one that has
  for (JournalNode* n = end_.next; n != &end_;) {
    JournalNode* following = n->next;
    if (n->typeId == JournalNode::kCursor) {
      auto& cursor = static_cast<Cursor&>(*n);
      isRemembered |= cursor.remembers_;
      isWanted |= !cursor.remembers_ && !cursor.isBounded();
    } else if (isTombstone(n)) {
      auto& e = static_cast<Entity&>(*n);
      if (!isWanted && !(isRemembered && e.seen != 0)) dropTombstone(e);
    }
    n = following;
  }
  boundAt_ = tombstones_ + kMaxTombstones;
}

// --- Cursor -------------------------------------------------------------------------------------

Cursor::~Cursor() {
  detach();
}

void Cursor::link(Journal& journal, JournalNode* before, bool remembers) {
  check(!journal_, "a cursor follows one journal at a time");
  journal_ = &journal;
  remembers_ = remembers;
  if (!remembers) ++journal.forgetfulCursors_;
  linkBefore(*this, *before);
}

void Cursor::attachAtHead(Journal& journal, bool remembers) {
  link(journal, journal.end_.next, remembers);
  version = 0;
  older_ = nullptr;
  newer_ = journal.oldest_;
  (newer_ ? newer_->older_ : journal.newest_) = this;
  journal.oldest_ = this;
  active_ = !atEnd();
  if (active_) activated();
}

void Cursor::attachAtEnd(Journal& journal, bool remembers) {
  link(journal, &journal.end_, remembers);
  version = journal.lastVersion_;
  newer_ = nullptr;
  older_ = journal.newest_;
  (older_ ? older_->newer_ : journal.oldest_) = this;
  journal.newest_ = this;
  active_ = false;
}

void Cursor::attachAfter(Journal& journal, uint64_t after, bool remembers) {
  JournalNode* n = journal.end_.prev;
  Cursor* older = journal.newest_;
  for (; n != &journal.end_ && (n->typeId == kCursor || n->version > after); n = n->prev)
    if (n->typeId == kCursor) older = older->older_;
  version = n == &journal.end_ ? 0 : n->version;
  link(journal, n->next, remembers);
  older_ = older;
  newer_ = older ? older->newer_ : journal.oldest_;
  (older_ ? older_->newer_ : journal.oldest_) = this;
  (newer_ ? newer_->older_ : journal.newest_) = this;
  active_ = !atEnd();
  if (active_) activated();
}

void Cursor::detach() {
  if (!journal_) return;
  Journal& j = *journal_;
  bool wasOldest = j.oldest_ == this;
  (older_ ? older_->newer_ : j.oldest_) = newer_;
  (newer_ ? newer_->older_ : j.newest_) = older_;
  older_ = newer_ = nullptr;
  unlink(*this);
  if (!remembers_) --j.forgetfulCursors_;
  journal_ = nullptr;
  active_ = false;
  if (wasOldest) j.sweep();
}

bool Cursor::atEnd() const {
  if (version >= journal_->lastVersion_) return true;
  const JournalNode* n = JournalNode::next;
  while (n->typeId == kCursor) n = n->next;
  return !isItem(n);
}

// `other` is the next cursor behind this one in the order of age: they change places.
void Cursor::passCursor(Cursor* other) {
  Journal& j = *journal_;
  (older_ ? older_->newer_ : j.oldest_) = other;
  other->older_ = older_;
  newer_ = other->newer_;
  (newer_ ? newer_->older_ : j.newest_) = this;
  other->newer_ = this;
  older_ = other;
}

void Cursor::moveToHead() {
  Journal& j = *journal_;
  (older_ ? older_->newer_ : j.oldest_) = newer_;
  (newer_ ? newer_->older_ : j.newest_) = older_;
  unlink(*this);
  linkBefore(*this, *j.end_.next);
  older_ = nullptr;
  newer_ = j.oldest_;
  (newer_ ? newer_->older_ : j.newest_) = this;
  j.oldest_ = this;
  version = 0;
}

Ref<Entity> Cursor::next() {
  if (!journal_) return {};
  if (atEnd()) {
    // It stays where it is, with cursors alone behind it.
    version = journal_->lastVersion_;
    active_ = false;
    return {};
  }
  JournalNode* n = JournalNode::next;
  for (; n->typeId == kCursor; n = n->next) passCursor(static_cast<Cursor*>(n));
  unlink(*this);
  linkBefore(*this, *n->next);
  version = n->version;
  if (n->typeId == kSelf) return Ref<Entity>(journal_->root_);
  auto& e = static_cast<Entity&>(*n);
  Ref<Entity> found(&e);
  if (e.dead() && journal_->oldest_ == this && journal_->tombstones_ > journal_->kept())
    journal_->dropTombstone(e);
  return found;
}

}  // namespace ryx::platform
