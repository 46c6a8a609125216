#include "platform/statehub/client.h"

#include <algorithm>

#include "platform/base/clock.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/authority.h"
#include "platform/trace/trace.h"

namespace ryx::platform {
namespace {

TraceFacility& trace() {
  static TraceFacility& facility = TraceFacility::named("RyxStatehub");
  return facility;
}

}  // namespace

// Some mounts, and whom to tell when they are there.
class Client::Group final : public MountGroup, private Task {
 public:
  explicit Group(Client& client) : Task("MountGroup"), client_(&client) {
    client.groups_.push_back(this);
  }
  ~Group() override {
    if (!client_) return;
    for (Mount& m : client_->mounts_)
      if (m.group == this) m.group = nullptr;
    std::erase(client_->groups_, this);
  }
  void clientGone() { client_ = nullptr; }

  void close(std::function<void(MountStatus)> done) override {
    done_ = std::move(done);
    waiting_ = requests().size();
    if (!client_) return settled(MountStatus::linkLost);
    closed_ = true;
    // Immediate ones first: the hub serves in the order of asking.
    for (bool immediate : {true, false})
      for (const MountRequest& m : requests())
        if ((m.mode.find('i') != std::string::npos) == immediate)
          client_->mounts_.push_back({.request = m,
                                      .group = this,
                                      .writable = m.mode.find_first_of("wc") != std::string::npos});
    client_->unsynced_ += requests().size();
    client_->sendMounts(client_->controls_);
    client_->wake();
    if (waiting_ == 0) settled(MountStatus::success);
  }
  void ended(MountStatus status) {
    if (status != MountStatus::success && status_ == MountStatus::success) status_ = status;
    if (waiting_ != 0) --waiting_;
  }
  // At a cut: everything that was mounted can be read.
  void cut() {
    if (closed_ && waiting_ == 0) settled(status_);
  }

 private:
  void settled(MountStatus status) {
    closed_ = false;
    status_ = status;
    wake();
  }
  bool run(Slice&) override {
    if (auto done = std::exchange(done_, nullptr)) done(status_);
    return false;
  }

  Client* client_;
  MountStatus status_ = MountStatus::success;
  size_t waiting_ = 0;
  bool closed_ = false;  // and not settled
  std::function<void(MountStatus)> done_;
};

Client::Client(int fd, const Participant& who, double heartbeat)
    : EntityManager(who), Applier(replica_), Task("StatehubClient"), beats_(heartbeat) {
  registerModel();
  replica_.tablesAre(tables_);
  if (beats_ > 0) heartbeat_.armAt(clock().now() + beats_);
  if (fd < 0) return;
  connection_ = std::make_unique<Connection>(fd, static_cast<Connection::Peer&>(*this));
  hello();
}

Client::~Client() {
  for (Group* g : groups_) g->clientGone();
}

std::unique_ptr<EntityManager> EntityManager::overSocket(int fd, const Participant& who,
                                                         double heartbeat) {
  return std::make_unique<Client>(fd, who, heartbeat);
}

std::unique_ptr<MountGroup> Client::mountGroup() {
  return std::make_unique<Group>(*this);
}

bool Client::drained() const {
  return controls_.size() == 0 && !(connected() && tables_.owes()) && caughtUp() &&
         lostRemovals_.empty() && unsentBytes() == 0 && (connected() || onTheWay_.empty());
}

std::vector<int> Client::connections() const {
  return connected() ? std::vector<int>{connection_->fd()} : std::vector<int>{};
}

void Client::hello() {
  tables_.restart();
  outFiles_.clear();
  connection_->mostFilesIs(2 * kMaxFilesOfFrame);
  controls_.u8(static_cast<uint8_t>(Op::hello));
  controls_.varint(kWireMagic);
  controls_.varint(kWireVersion);
  controls_.varint(static_cast<uint64_t>(who().role));
  controls_.text(who().name);
  controls_.varint(static_cast<uint64_t>(beats_ * 1000));
  controls_.varint(incarnation_);
  wake();
}

// What waits to be sent is a sign of life of its own.
void Client::beat() {
  heartbeat_.armAt(clock().now() + beats_);
  if (!connected() || controls_.size() != 0) return;
  controls_.u8(static_cast<uint8_t>(Op::heartbeat));
  wake();
}

void Client::sendMounts(Encoder& out) {
  for (; mountsSent_ < mounts_.size(); ++mountsSent_) {
    Mount& m = mounts_[mountsSent_];
    out.u8(static_cast<uint8_t>(Op::mount));
    out.varint(mountsSent_);
    // The number that this side will use for the mount's root; 0: it writes nothing there.
    m.handle = m.writable ? newHandle() : 0;
    if (m.root && m.writable) publish(*m.root, m.handle, true);
    out.varint(m.handle);
    out.text(m.request.path);
    out.text(m.request.typeName);
    out.text(m.request.mode);
    out.u8(resending_ && m.complete);
    out.varint(resending_ && m.complete && !answersDue_ ? lastCut_ : 0);
  }
}

// --- what arrives -------------------------------------------------------------------------------

bool Client::onFrame(std::string_view payload) {
  // What was written here and is not encoded yet counts as on its way: it is taken up first.
  for (bool all = false; !all && !caughtUp() && connected() && unsentBytes() < kSendAhead;)
    encodeSome(&all);
  // It may be an agent's callback that runs the loop: what arrives is not the agent's writing.
  Writer* outer = std::exchange(replica_.clock().writer, nullptr);
  bool good = frame(payload);
  replica_.clock().writer = outer;
  if (good) return true;
  RYX_TRACE(trace(), 0, "the hub broke the protocol: " << error());
  return false;
}

void Client::onClosed() {
  RYX_TRACE(trace(), 0, "the connection to Statehub is lost");
  replica_.clock().openGate();
  if (lost_) lost_();
}

bool Client::control(Op op, Decoder& d) {
  switch (op) {
    case Op::hello: {
      uint64_t magic = d.varint(), version = d.varint(), incarnation = d.varint();
      if (magic != kWireMagic || version != kWireVersion) return broken("another protocol");
      // The generations of another life mean nothing: what was written is written to what has the
      // same key.
      if (incarnation_ != 0 && incarnation != incarnation_) {
        gatherLost(rewind());
        for (Mount& m : mounts_)
          if (m.root) forgetGenerations(*m.root);
        for (Ref<Entity>& e : lostRemovals_) e->generationIs(kProvisional);
        lastCut_ = 0;
      }
      incarnation_ = incarnation;
      tables_.greeted();
      return true;
    }
    case Op::mounted:
      return mounted(d);
    case Op::synced: {
      uint64_t id = d.varint();
      if (id >= mounts_.size()) return broken("a mount that was not asked for");
      Mount& m = mounts_[id];
      if (m.root && resync_) sweepStale(*m.root, Reach::tree);
      ended(m, MountStatus::success);
      return true;
    }
    case Op::applied:
      settle(d.varint());
      return true;
    case Op::ack:
      acknowledged_ = d.varint();
      return true;
    case Op::farewell:
      d.varint();
      farewell_ = d.text();
      RYX_TRACE(trace(), 0, "the hub ends the connection: " << farewell_);
      return true;
    case Op::cut:
      if (const uint64_t version = d.varint(); version != 0) {
        lastCut_ = version;
        answersDue_ = false;
      }
      replica_.clock().openGate();
      checkGroups();
      return true;
    case Op::refused:
      RYX_TRACE(trace(), 0, "the hub refused a write of " << agentName());
      return true;
    case Op::table:
    case Op::rang:
      if (const std::string fault = tables_.take(op, d, [this] { return connection_->takeFile(); });
          !fault.empty())
        return broken(fault);
      return true;
    default:
      return broken("an unknown operation");
  }
}

bool Client::mounted(Decoder& d) {
  uint64_t id = d.varint();
  auto status = static_cast<MountStatus>(d.varint());
  if (id >= mounts_.size() || d.failed()) return broken("a mount that was not asked for");
  Mount& m = mounts_[id];
  m.answered = true;
  wake();
  if (status != MountStatus::success) {
    RYX_TRACE(trace(), 0,
              "cannot mount " << m.request.path << " of type " << m.request.typeName << " in mode "
                              << m.request.mode << ": status " << static_cast<int>(status));
    if (m.root && m.writable) unpublish(*m.root);
    ended(m, status);
    return true;
  }
  uint64_t handle = d.varint();
  uint64_t generation = d.varint();
  const TypeInfo* type = TypeInfo::named(d.text());
  Entity* root = type ? replica_.make(m.request.path, *type) : nullptr;
  if (!root) return broken("a mount of a type that is not known here");
  root->generationIs(generation);
  root->flags |= kUpstream;
  m.root = Ref<Entity>(root);
  if (resending_ && !m.complete) fresh_.push_back(m.root);
  if (!numberIs(handle, root)) return false;
  if (m.writable) publish(*root, m.handle, true);
  return true;
}

void Client::ended(Mount& m, MountStatus status) {
  if (m.group) m.group->ended(status);
  m.group = nullptr;
  if (std::exchange(m.ended, true)) return;
  m.complete |= status == MountStatus::success;
  if (--unsynced_ == 0) resync_ = false;
}

void Client::checkGroups() {
  for (Group* g : std::vector<Group*>(groups_)) g->cut();
}

uint64_t Client::placeOf(const Entity& e) {
  const TypeInfo& type = e.type();
  return type.keyKind ? placeOf(e.owner(), type.keyKind->hash(e.keyData()))
                      : reinterpret_cast<uintptr_t>(&e);
}

bool Client::ownTop(Entity& e) {
  Entity* parent = e.parent();
  return parent && parent->as<Dir>() && ownAlone(e) && !ownAlone(*parent);
}

bool Client::tracked(Entity& e) {
  return !ownAlone(e) || (unsynced_ != 0 && (!resync_ || fresh(e))) || ownTop(e);
}

bool Client::fresh(const Entity& e) const {
  if (fresh_.empty()) return false;
  for (const Entity* at = &e; at; at = at->parent())
    for (const Ref<Entity>& root : fresh_)
      if (root.get() == at) return true;
  return false;
}

// Its generation is known from now on. What the hub took its number for may have been another.
void Client::adopt(Entity& e, uint64_t generation) {
  e.generationIs(generation);
  renumber(controls_, e);
  if (controls_.size() != 0) wake();
}

void Client::forgetGenerations(Entity& below) {
  for (const CollectionInfo& c : below.type().collections)
    for (CollectionIterator it(below.collection(c)); it; it.next()) {
      Entity& e = *it.get();
      if (e.flags & kUpstream) e.generationIs(kProvisional | e.generation());
      forgetGenerations(e);
    }
}

Applier::Verdict Client::judge(const Item& item, Entity* there) {
  replica_.clock().gated = true;
  // What is its own alone the hub has from here, and gets again.
  if (returning() && owned_.of(who(), *item.like, item.container) == Ownership::own &&
      !fresh(*item.container))
    return {there, true, 0};
  const Pending* pending = pendingAt(placeOf(item.collection, item.hash));
  if (pending && pending->identity()) return {there, true, 0};
  dirtyBefore_ = 0;
  if (!there) return {};
  if (!(there->flags & kUpstream)) return {there, true, 0};
  bool same = &there->type() == item.type;
  if (same && (there->generation() & kProvisional)) {
    adopt(*there, item.generation);
  } else if (!same || there->generation() != item.generation) {
    removeHere(*there);
    return {};
  }
  dirtyBefore_ = there->dirty();
  return {there, false, dirtyBefore_ | (pending ? pending->fields() : 0)};
}

void Client::applied(Entity& e, const Item& item, bool made) {
  if (made) e.generationIs(item.generation);
  e.dirtyIs(dirtyBefore_);
  e.flags |= kUpstream;
}

void Client::remove(const Item& item, Entity* there) {
  replica_.clock().gated = true;
  if (!there || !(there->flags & kUpstream)) return;
  if (returning() && ownAlone(*there) && !fresh(*there)) return;
  const Pending* pending = pendingAt(placeOf(item.collection, item.hash));
  if (pending && pending->identity()) return;
  // Of what is its own it may have never been told the generation.
  if (item.generation != 0 && there->generation() != item.generation && !ownAlone(*there)) return;
  removeHere(*there);
}

void Client::removeHere(Entity& e) {
  e.flags |= kGone;
  for (const CollectionInfo& c : e.type().collections)
    for (CollectionIterator it(e.collection(c)); it; it.next()) removeHere(*it.get());
  EntityOps::remove(e);
}

uint32_t Client::rootKeep(Entity& e) {
  replica_.clock().gated = true;
  if (returning() && ownAlone(e) && !fresh(e)) return ~0u;
  const Pending* pending = pendingAt(placeOf(e));
  return e.dirty() | (pending ? pending->fields() : 0);
}

// What is this participant's own stays, whatever the hub has of it; so does what it has yet to
// send, and what the hub has yet to take.
bool Client::sweepable(Entity& e) {
  return (e.flags & kUpstream) && (!ownAlone(e) || fresh(e)) && !pendingAt(placeOf(e));
}

// The hub has applied every batch up to that one.
void Client::settle(uint64_t batch) {
  while (!onTheWay_.empty() && onTheWay_.front().batch <= batch) {
    ends(onTheWay_.front().place, 0, batch);
    onTheWay_.pop_front();
    answersDue_ = true;
  }
}

void Client::wrote(Entity& e, uint32_t fields, WriteKind kind) {
  uint64_t place = placeOf(e);
  onTheWay_.push_back({Ref<Entity>(&e), place, batch_ + 1, fields, kind});
  pending_[place].writes.push_back({batch_ + 1, fields, kind != WriteKind::attributes});
}

void Client::ends(uint64_t place, uint64_t firstBatch, uint64_t lastBatch) {
  auto at = pending_.find(place);
  if (at == pending_.end()) return;
  std::erase_if(at->second.writes, [&](const Pending::One& one) {
    return one.batch >= firstBatch && one.batch <= lastBatch;
  });
  if (at->second.writes.empty()) pending_.erase(at);
}

// --- what goes ----------------------------------------------------------------------------------

bool Client::wants(Entity& e) {
  if (e.dirty() != 0 || !(e.flags & kUpstream)) return true;
  return resends(e);
}

uint8_t Client::itemFlags(Entity& e) {
  uint8_t tell = tracked(e) ? kItemTell : 0;
  if (resends(e)) return tell | kItemWhole | kItemCreate;
  return e.flags & kUpstream ? tell : tell | kItemCreate;
}

void Client::sent(Entity& e, uint32_t fields) {
  bool creation = !(e.flags & kUpstream);
  e.flags |= kUpstream;
  e.dirtyIs(e.dirty() & ~fields);
  if (creation) e.generationIs(kProvisional | e.generation());
  if (resends(e) && (e.type().journalOffset || ownTop(e)) &&
      std::find(ownRoots_.begin(), ownRoots_.end(), Ref<Entity>(&e)) == ownRoots_.end()) {
    // What the hub has below it and is not sent again now is gone.
    uint32_t handle = containerHandle(out_, e);
    encodeReach(out_, Op::compare, handle, Reach::journal);
    ownRoots_.push_back(Ref<Entity>(&e));
  }
  if (tracked(e)) wrote(e, fields, creation ? WriteKind::creation : WriteKind::attributes);
}

void Client::removalSent(Entity& e) {
  if (wantsRemoval(e) && tracked(e)) wrote(e, 0, WriteKind::removal);
}

void Client::sweep(Entity& e) {
  replica_.clock().gated = true;
  removeHere(e);
}

bool Client::run(Slice& slice) {
  while (connected() && unsentBytes() < kSendAhead) {
    bool all = false;
    encodeSome(&all);
    if (all) return false;
    if (slice.spent()) return true;
  }
  return false;
}

// One frame. `all`: nothing is left to encode.
void Client::encodeSome(bool* all) {
  out_.clear();
  out_.swap(controls_);
  tables_.encode(out_, &outFiles_);
  size_t start = out_.size();
  out_.u8(static_cast<uint8_t>(Op::batch));
  out_.varint(batch_ + 1);
  size_t header = out_.size();
  // After a loss nothing goes before every mount is answered; then the deletions that may not have
  // arrived, since their keys may have been used again.
  bool ready = !resending_ || std::all_of(mounts_.begin(), mounts_.end(),
                                          [](const Mount& m) { return m.answered; });
  if (ready) encodeLostRemovals();
  *all = !ready || encode(out_, kFrameOfParticipant);
  bool resent = ready && *all && resending_;
  if (resent) encodeSweeps();
  // The end of a return is a batch in any case, since the last one may never be acknowledged.
  if (out_.size() == header && !resent) {
    out_.truncate(start);
  } else {
    ++batch_;
    cutOwed_ = true;
  }
  if (*all && std::exchange(cutOwed_, false)) out_.u8(static_cast<uint8_t>(Op::cut));
  if (out_.size() != 0) connection_->send(out_.view(), std::exchange(outFiles_, {}));
  if (tables_.owes()) *all = false;
}

// Those of containers come before those in them: what has to be sent for the latter may use a key
// of the former.
void Client::encodeLostRemovals() {
  if (lostRemovals_.empty()) return;
  auto depth = [](const Ref<Entity>& e) {
    int n = 0;
    for (const Entity* at = e->parent(); at; at = at->parent()) ++n;
    return n;
  };
  std::vector<Ref<Entity>> lost = std::exchange(lostRemovals_, {});
  std::stable_sort(lost.begin(), lost.end(), [&](auto& a, auto& b) { return depth(a) < depth(b); });
  for (Ref<Entity>& e : lost) {
    ends(placeOf(*e), kNotSent, kNotSent);
    if (e->parent()->dead()) continue;
    encodeRemoval(out_, *e->parent(), e->owner()->info(), e->type(), e->keyData(),
                  itemGeneration(*e), removalFlags(*e));
    removalSent(*e);
  }
}

// All that is its own was sent again: what the hub has besides is gone.
void Client::encodeSweeps() {
  for (Ref<Entity>& root : std::exchange(ownRoots_, {})) {
    if (root->dead()) continue;
    encodeReach(out_, Op::sweep, containerHandle(out_, *root), Reach::journal);
  }
  resending_ = false;
}

// --- loss and return ----------------------------------------------------------------------------

// Deletions that the hub has not heard of, or perhaps not.
void Client::gatherLost(std::vector<Ref<Entity>> removals) {
  for (Ref<Entity>& e : removals) {
    if (e->parent()->dead()) continue;
    pending_[placeOf(*e)].writes.push_back({kNotSent, 0, true});
    lostRemovals_.push_back(std::move(e));
  }
}

void Client::reconnected(int fd) {
  // What was on its way may or may not have arrived: it counts as not sent.
  for (Write& w : std::exchange(onTheWay_, {})) {
    ends(w.place, 0, w.batch);
    if (w.kind == WriteKind::removal) gatherLost({w.entity});
    if (w.entity->dead()) continue;
    w.entity->dirtyIs(w.entity->dirty() | w.fields);
    if (w.kind == WriteKind::creation)
      w.entity->flags = static_cast<uint8_t>((w.entity->flags & ~kUpstream) | kPerhaps);
  }
  gatherLost(rewind());
  Publisher::reset();
  ownRoots_.clear();
  resending_ = resync_ = true;
  Applier::reset();
  controls_.clear();
  farewell_.clear();
  fresh_.clear();
  connection_ = std::make_unique<Connection>(fd, static_cast<Connection::Peer&>(*this));
  for (Mount& m : mounts_) {
    m.answered = m.ended = false;
    if (!m.root) continue;
    if (!m.complete) fresh_.push_back(m.root);
    markStale(*m.root, Reach::tree);
  }
  unsynced_ = mounts_.size();
  mountsSent_ = 0;
  hello();
  sendMounts(controls_);
}

}  // namespace ryx::platform
