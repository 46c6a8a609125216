#include "platform/statehub/client.h"

#include <algorithm>

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
          client_->mounts_.push_back(
              {m, this, m.mode.find_first_of("wc") != std::string::npos, false, 0, {}});
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

Client::Client(int fd, std::string_view agentName)
    : EntityManager(agentName), Applier(replica_), Task("StatehubClient") {
  registerModel();
  connection_ = std::make_unique<Connection>(fd, static_cast<Connection::Peer&>(*this));
  hello();
}

Client::~Client() {
  for (Group* g : groups_) g->clientGone();
}

std::unique_ptr<EntityManager> EntityManager::overSocket(int fd, std::string_view agentName) {
  return std::make_unique<Client>(fd, agentName);
}

std::unique_ptr<MountGroup> Client::mountGroup() {
  return std::make_unique<Group>(*this);
}

bool Client::drained() const {
  return controls_.size() == 0 && caughtUp() && unsentBytes() == 0 &&
         (connected() || onTheWay_.empty());
}

std::vector<int> Client::connections() const {
  return connected() ? std::vector<int>{connection_->fd()} : std::vector<int>{};
}

void Client::hello() {
  controls_.u8(static_cast<uint8_t>(Op::hello));
  controls_.varint(kWireMagic);
  controls_.varint(kWireVersion);
  controls_.text(agentName());
  wake();
}

void Client::sendMounts(Encoder& out) {
  for (; mountsSent_ < mounts_.size(); ++mountsSent_) {
    Mount& m = mounts_[mountsSent_];
    out.u8(static_cast<uint8_t>(Op::mount));
    out.varint(mountsSent_);
    // The number that this side will use for the mount's root; 0: it writes nothing there.
    m.handle = m.writable ? newHandle() : 0;
    out.varint(m.handle);
    out.text(m.request.path);
    out.text(m.request.typeName);
    out.text(m.request.mode);
    out.u8(resending_);
  }
}

// --- what arrives -------------------------------------------------------------------------------

bool Client::onFrame(std::string_view payload) {
  // What was written here and is not encoded yet counts as on its way: it is taken up first.
  for (bool all = false; !all && !caughtUp() && connected() && unsentBytes() < kSendAhead;)
    encodeSome(&all);
  if (frame(payload)) return true;
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
      adopt_ = incarnation_ != 0 && incarnation != incarnation_;
      incarnation_ = incarnation;
      if (adopt_)  // the generations of another life mean nothing: a removal is one of the key
        for (Ref<Entity>& e : lostRemovals_) e->generationIs(kProvisional);
      return true;
    }
    case Op::mounted:
      return mounted(d);
    case Op::synced: {
      uint64_t id = d.varint();
      if (id >= mounts_.size()) return broken("a mount that was not asked for");
      Mount& m = mounts_[id];
      if (m.root && resending_) sweepStale(*m.root, Reach::tree);
      if (m.group) m.group->ended(MountStatus::success);
      m.group = nullptr;
      return true;
    }
    case Op::applied:
      settle(d.varint());
      return true;
    case Op::ack:
      acknowledged_ = d.varint();
      return true;
    case Op::cut:
      replica_.clock().openGate();
      checkGroups();
      return true;
    case Op::refused:
      RYX_TRACE(trace(), 0, "the hub refused a write of " << agentName());
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
    if (m.group) m.group->ended(status);
    m.group = nullptr;
    return true;
  }
  uint64_t handle = d.varint();
  uint64_t generation = d.varint();
  const TypeInfo* type = TypeInfo::named(m.request.typeName);
  Entity* root = type ? replica_.make(m.request.path, *type) : nullptr;
  if (!root) return broken("a mount of a type that is not known here");
  root->generationIs(generation);
  root->flags |= kUpstream;
  m.root = Ref<Entity>(root);
  if (!numberIs(handle, root)) return false;
  if (m.writable) publish(*root, m.handle, true);
  return true;
}

void Client::checkGroups() {
  for (Group* g : std::vector<Group*>(groups_)) g->cut();
}

// Whether a removal of that very entity is on its way, or has to go again.
bool Client::removedHere(const Item& item) const {
  auto same = [&](const Entity& e) {
    return e.owner() == item.collection && item.type->keyKind->equal(e.keyData(), item.key) &&
           ((e.generation() & kProvisional) || e.generation() == item.generation);
  };
  if (removalsOnTheWay_ != 0)
    for (const Write& w : onTheWay_)
      if (w.removal && same(*w.entity)) return true;
  return std::any_of(lostRemovals_.begin(), lostRemovals_.end(),
                     [&](const Ref<Entity>& e) { return same(*e); });
}

Applier::Verdict Client::judge(const Item& item, Entity* there) {
  replica_.clock().gated = true;
  bool forced = item.flags & kItemForced;
  if (item.flags & kItemMade) {
    if (there && (there->generation() & kProvisional)) there->generationIs(item.generation);
    return {there, true, 0};
  }
  dirtyBefore_ = there ? there->dirty() : 0;
  if (!there) {
    return {nullptr, !forced && removedHere(item), 0};
  }
  auto at = pending_.find(there);
  Pending pending = at == pending_.end() ? Pending() : at->second;
  bool provisional = there->generation() & kProvisional || !(there->flags & kUpstream);
  if (forced) {
    dirtyBefore_ = 0;
    if (at != pending_.end()) pending_.erase(at);
  } else if (pending.creation() || !(there->flags & kUpstream)) {
    return {there, true, 0};
  }
  if (provisional || adopt_) {
    there->generationIs(item.generation);
  } else if (there->generation() != item.generation) {
    removeHere(*there);
    dirtyBefore_ = 0;
    return {};
  }
  return {there, false, forced ? 0 : dirtyBefore_ | pending.fields()};
}

void Client::applied(Entity& e, const Item& item, bool made) {
  if (made) e.generationIs(item.generation);
  e.dirtyIs(made ? 0 : dirtyBefore_);
  e.flags |= kUpstream;
}

void Client::remove(const Item& item, Entity* there) {
  replica_.clock().gated = true;
  if (!there) return;
  if (!(item.flags & kItemForced)) {
    auto at = pending_.find(there);
    if (!(there->flags & kUpstream) || (at != pending_.end() && at->second.creation())) return;
    // Of what is its own it may have never been told the generation.
    if (there->generation() != item.generation && !ownAlone(*there)) return;
  }
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
  auto at = pending_.find(&e);
  return e.dirty() | (at == pending_.end() ? 0 : at->second.fields());
}

// What is this participant's own stays, whatever the hub has of it; so does what it has yet to
// send.
bool Client::sweepable(Entity& e) {
  return (e.flags & kUpstream) && !ownAlone(e);
}

// The hub has applied every batch up to that one.
void Client::settle(uint64_t batch) {
  while (!onTheWay_.empty() && onTheWay_.front().batch <= batch) {
    Write w = std::move(onTheWay_.front());
    onTheWay_.pop_front();
    removalsOnTheWay_ -= w.removal;
    auto at = pending_.find(w.entity.get());
    if (w.removal || at == pending_.end()) continue;
    auto& writes = at->second.writes;
    std::erase_if(writes, [&](const Pending::One& one) { return one.batch <= w.batch; });
    if (writes.empty()) pending_.erase(at);
  }
}

// --- what goes ----------------------------------------------------------------------------------

bool Client::wants(Entity& e) {
  if (e.dirty() != 0 || !(e.flags & kUpstream)) return true;
  return resending_ && ownAlone(e);
}

uint8_t Client::itemFlags(Entity& e) {
  if (resending_ && ownAlone(e)) return kItemWhole | kItemCreate;
  return e.flags & kUpstream ? 0 : kItemCreate;
}

void Client::sent(Entity& e, uint32_t fields) {
  bool creation = !(e.flags & kUpstream);
  e.flags |= kUpstream;
  e.dirtyIs(e.dirty() & ~fields);
  if (creation) e.generationIs(kProvisional | e.generation());
  if (resending_ && ownAlone(e) && e.parent() && !ownAlone(*e.parent())) {
    // The top of what is its own: what the hub has below it and is not sent again now is gone.
    uint32_t handle = containerHandle(out_, e);
    out_.u8(static_cast<uint8_t>(Op::compare));
    out_.varint(handle);
    ownRoots_.push_back(Ref<Entity>(&e));
  }
  if (ownAlone(e)) return;  // nobody else writes it: nothing can cross
  onTheWay_.push_back({Ref<Entity>(&e), fields, batch_ + 1, creation, false});
  pending_[&e].writes.push_back({batch_ + 1, fields, creation});
}

void Client::removalSent(Entity& e) {
  if (!wantsRemoval(e)) return;
  onTheWay_.push_back({Ref<Entity>(&e), 0, batch_ + 1, false, true});
  ++removalsOnTheWay_;
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
  std::swap(out_.buffer(), controls_.buffer());
  size_t start = out_.size();
  out_.u8(static_cast<uint8_t>(Op::batch));
  out_.varint(batch_ + 1);
  size_t header = out_.size();
  // After a loss nothing goes before every mount is answered; then the deletions that may not have
  // arrived, since their keys may have been used again.
  bool ready = !resending_ || std::all_of(mounts_.begin(), mounts_.end(),
                                          [](const Mount& m) { return m.answered; });
  if (ready) encodeLostRemovals();
  *all = !ready || encode(out_, kFrameTarget);
  if (ready && *all && resending_) encodeSweeps();
  if (out_.size() == header) {
    out_.truncate(start);
  } else {
    ++batch_;
    cutOwed_ = true;
  }
  if (*all && std::exchange(cutOwed_, false)) out_.u8(static_cast<uint8_t>(Op::cut));
  if (out_.size() != 0) connection_->send(out_.bytes());
}

void Client::encodeLostRemovals() {
  for (Ref<Entity>& e : std::exchange(lostRemovals_, {})) {
    Entity* container = e->parent();
    if (container && !container->dead())
      encodeRemoval(out_, *container, e->owner()->info(), e->type(), e->keyData(),
                    itemGeneration(*e), 0);
    removalSent(*e);
  }
}

// All that is its own was sent again: what the hub has besides is gone.
void Client::encodeSweeps() {
  for (Ref<Entity>& root : std::exchange(ownRoots_, {})) {
    if (root->dead()) continue;
    uint32_t handle = containerHandle(out_, *root);
    out_.u8(static_cast<uint8_t>(Op::sweep));
    out_.varint(handle);
  }
  resending_ = false;
}

// --- loss and return ----------------------------------------------------------------------------

void Client::reconnected(int fd) {
  // What was on its way may or may not have arrived: it counts as not sent.
  std::deque<Write> lost = std::exchange(onTheWay_, {});
  std::unordered_map<const Entity*, Pending> none;
  pending_.swap(none);
  removalsOnTheWay_ = 0;
  lostRemovals_ = takeRemovals();
  ownRoots_.clear();
  for (Write& w : lost) {
    if (w.removal) lostRemovals_.push_back(w.entity);
    if (w.entity->dead()) continue;
    w.entity->dirtyIs(w.entity->dirty() | w.fields);
    if (w.creation)
      w.entity->flags = static_cast<uint8_t>((w.entity->flags & ~kUpstream) | kPerhaps);
  }
  resending_ = true;
  Publisher::reset();
  Applier::reset();
  controls_.clear();
  connection_ = std::make_unique<Connection>(fd, static_cast<Connection::Peer&>(*this));
  for (Mount& m : mounts_) {
    m.answered = false;
    if (m.root) markStale(*m.root, Reach::tree);
  }
  mountsSent_ = 0;
  hello();
  sendMounts(controls_);
}

}  // namespace ryx::platform
