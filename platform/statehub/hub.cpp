#include "platform/statehub/hub.h"

#include <sys/random.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <deque>

#include "platform/activity/task.h"
#include "platform/base/clock.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/applier.h"
#include "platform/statehub/authority.h"
#include "platform/statehub/connection.h"
#include "platform/statehub/entity_manager.h"
#include "platform/statehub/publisher.h"
#include "platform/statehub/tables.h"
#include "platform/trace/trace.h"

namespace ryx::platform {
namespace {

TraceFacility& trace() {
  static TraceFacility& facility = TraceFacility::named("RyxHub");
  return facility;
}

// The upper bit tells a connection's number from the marks of attributes, which use the other bits
// of the same word.
constexpr uint32_t kOriginBit = 0x80000000u;

bool isName(std::string_view name) {
  return name.size() <= 64 && std::all_of(name.begin(), name.end(), [](char c) {
           return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_';
         });
}

}  // namespace

class Hub::Session final : public Writer,
                           public Connection::Peer,
                           public Applier,
                           public Publisher,
                           public Task {
 public:
  Session(Hub& hub, int fd, uint32_t origin, const HubPeer& peer)
      : Applier(hub.tree_),
        Task("HubSession"),
        hub_(hub),
        origin_(origin),
        peer_(peer),
        since_(clock().now()),
        heard_(since_),
        connection_(std::make_unique<Connection>(fd, *this)) {
    connection_->longestFrameIs(kMaxFirstFrame);
  }
  ~Session() override { closeBatch(); }

  Participant who() const { return {role_, name_}; }
  bool greeted() const { return greeted_; }
  bool open() const { return connection_->open(); }
  bool peerIsGone() const { return connection_->peerIsGone(); }
  void readNow() { connection_->readNow(); }
  uint64_t number() const { return origin_ & ~kOriginBit; }
  HubParticipant description() const {
    double now = clock().now();
    return {number(),
            peer_,
            role_,
            name_,
            mountPaths_,
            connection_->bytesSent(),
            connection_->bytesReceived(),
            connection_->unsent(),
            refusals_,
            pastLimits_,
            since_,
            clogged_ + (cloggedSince_ != 0 ? now - cloggedSince_ : 0),
            heard_,
            heartbeat_};
  }
  uint32_t origin() const { return origin_; }
  bool batchOpen() const { return batchOpen_; }
  void cutPossible() {
    if (cutOwed_ || applied_ != acked_) wake();
  }
  void end() {
    connection_->close();
    onClosed();
  }

  // --- Writer ---
  Admission admits(const Journal&, const Entity& entity, const Entity* parent) override {
    return judgeWrite(who(), entity, parent);
  }

  // --- Connection::Peer ---
  bool onFrame(std::string_view payload) override {
    StoreClock& store = hub_.tree_.clock();
    Writer* outerWriter = std::exchange(store.writer, this);
    uint32_t outerOrigin = std::exchange(store.origin, origin_);
    Session* outerApplying = std::exchange(hub_.applying_, this);
    heard_ = clock().now();
    held_ += payload.size();
    bool good = frame(payload);
    hub_.applying_ = outerApplying;
    store.writer = outerWriter;
    store.origin = outerOrigin;
    if (!good) {
      if (!turnedAway_) {
        ++hub_.counters_.broken;
        sayFarewell(Farewell::brokeProtocol, "it broke the protocol: " + error());
      }
      RYX_TRACE(trace(), 0, nameOf(role_) << " '" << name_ << "' is disconnected: " << error());
    }
    wake();
    return good;
  }
  void onWritable() override {
    if (cloggedSince_ != 0) clogged_ += clock().now() - std::exchange(cloggedSince_, 0);
    wake();
  }
  void onClosed() override {
    RYX_TRACE(trace(), 1, nameOf(role_) << " '" << name_ << "' is gone");
    closeBatch();
    hub_.gone(*this);
  }

 private:
  // What a participant is owed after a write of its own: what stands under that key.
  struct Told {
    Ref<Entity> container;
    const CollectionInfo* collection;  // null: the container's own attributes
    Ref<Entity> like;                  // has the key
    bool deep;                         // and all below it
    bool refused;
  };

  // --- Applier ---
  Verdict judge(const Item& item, Entity* there) override {
    openBatch();
    bool create = item.flags & kItemCreate;
    if (there && &there->type() != item.type) {  // another made it, as something else
      refused(item, there, true);
      return {nullptr, true, 0};
    }
    if ((create && !there && made_ >= hub_.limits_.entities && !roomAgain()) || !mayHoldMore()) {
      tellPastLimits();
      refused(item, there, false);
      return {there, true, 0};
    }
    if (create || (there && (item.generation == 0 || item.generation == there->generation())))
      return {there, false, 0};
    if (item.flags & kItemTell) tell(item, there, true);
    // A write to what is gone is lost with it.
    return {nullptr, true, 0};
  }
  void applied(Entity& e, const Item& item, bool made) override {
    if (made) {
      ++made_;
      held_ += item.type->size;
    }
    if (item.flags & kItemTell) tell(item, &e, (item.flags & kItemCreate) || item.generation == 0);
  }
  void remove(const Item& item, Entity* there) override {
    openBatch();
    Ref<Entity> hold(there);
    bool same = there && (item.generation == 0 || item.generation == there->generation());
    if (same && (standsForGood(*there) || !there->owner()->remove(*there)))
      return refused(item, there, true);
    if (same && made_ != 0) --made_;
    if (item.flags & kItemTell) tell(item, there, true);
  }
  void below(Entity& dead, uint8_t flags) override {
    if ((flags & kItemTell) && dead.parent())
      tellOf(*dead.parent(), &dead.owner()->info(), Ref<Entity>(&dead), true);
  }
  uint32_t rootKeep(Entity& root) override {
    if (mayHoldMore()) return 0;
    tellPastLimits();
    rootRefused(root);
    return ~0u;
  }
  void rootApplied(Entity& root, uint32_t, uint8_t flags) override {
    if (flags & kItemTell) tellOf(root, nullptr, {}, false);
  }
  void tell(const Item& item, Entity* there, bool deep) {
    Ref<Entity> like(there);
    if (!like) {
      like = EntityOps::make(*item.type);
      item.type->keyKind->assign(like->at(item.type->keyOffset), item.key);
    }
    tellOf(*item.container, &item.collection->info(), std::move(like), deep);
  }
  void tellOf(Entity& container, const CollectionInfo* collection, Ref<Entity> like, bool deep) {
    if (!told_.empty()) {
      Told& last = told_.back();
      if (last.container.get() == &container && last.collection == collection &&
          last.like == like) {
        last.deep |= deep;
        return;
      }
    }
    told_.push_back({Ref<Entity>(&container), collection, std::move(like), deep, false});
    if (told_.size() == kMaxTold) connection_->readingIs(false);
  }
  // What it made and wrote may be gone since: counts what stands of it where it writes. That takes
  // a twentieth of the hub's time at most.
  bool roomAgain() {
    double start = clock().now();
    if (start < recountAt_) return false;
    Encoder values;
    auto count = [&](auto& self, Entity& of) -> void {
      for (const CollectionInfo& c : of.type().collections)
        for (CollectionIterator it(of.collection(c)); it; it.next()) {
          Entity& e = *it.get();
          if (e.dirty() == origin_ || owned_.of(who(), e, &of) == Ownership::own) {
            ++made_;
            values.clear();
            e.type().keyKind->encode(values, e.keyData());
            for (const FieldInfo& f : e.type().fields) f.kind->encode(values, e.at(f.offset));
            held_ += e.type().size + values.size();
          }
          if (!e.type().collections.empty()) self(self, e);
        }
    };
    made_ = held_ = 0;
    for (auto& root : written_) count(count, *root);
    double end = clock().now();
    recountAt_ = end + std::max(1.0, 20 * (end - start));
    return made_ < hub_.limits_.entities && held_ < hub_.limits_.bytes;
  }
  bool mayHoldMore() { return held_ < hub_.limits_.bytes || roomAgain(); }
  void tellPastLimits() {
    ++hub_.counters_.pastLimits;
    if (pastLimits_++ == 0)
      RYX_TRACE(trace(), 0,
                nameOf(role_) << " '" << name_ << "' is past a limit: " << made_ << " entities, "
                              << held_ << " bytes, " << mountPaths_.size() << " mounts");
  }
  void sweep(Entity& e) override { EntityOps::remove(e); }
  // A participant compares what is its own: everything else stays.
  bool sweepable(Entity& e) override { return owned_.of(who(), e, e.parent()) == Ownership::own; }
  void refused(const Item& item, Entity* there, bool removal) override {
    note(item.type->name, *item.container);
    tell(item, there, removal || !there);
    told_.back().refused = true;
  }
  void rootRefused(Entity& root) override {
    note(root.type().name, root);
    tellOf(root, nullptr, {}, false);
    told_.back().refused = true;
  }
  void note(const std::string& type, const Entity& container) {
    ++hub_.counters_.refusedWrites;
    ++refusals_;
    RYX_TRACE(trace(), 0,
              "refused a write of " << type << " by '" << name_ << "' below " << container.path());
  }

  bool control(Op op, Decoder& d) override {
    if (op == Op::hello) return hello(d);
    if (!greeted_) return broken("an operation before hello");
    switch (op) {
      case Op::mount:
        return mount(d);
      case Op::batch:
        applied_ = d.varint();
        openBatch();
        return true;
      case Op::cut:
        closeBatch();
        return true;
      case Op::heartbeat:  // being heard is all there is to it
        return true;
      default:
        if (const std::string fault =
                tables_.take(op, d, [this] { return connection_->takeFile(); });
            !fault.empty())
          return broken(fault);
        return true;
    }
  }

  bool hello(Decoder& d) {
    if (greeted_) return broken("a second hello");
    uint64_t magic = d.varint(), version = d.varint();
    if (d.failed() || magic != kWireMagic) return broken("no hello of this protocol");
    if (version != kWireVersion)
      return broken("protocol version " + std::to_string(version) + ", expected " +
                    std::to_string(kWireVersion));
    uint64_t role = d.varint();
    std::string_view name = d.text();
    uint64_t heartbeat = d.varint();
    knowsThisLife_ = d.varint() == hub_.incarnation_;
    if (d.failed() || role > static_cast<uint64_t>(Role::operators))
      return broken("no hello of this protocol");
    role_ = static_cast<Role>(role);
    if (!isName(name) || (role_ == Role::agent && name.empty()))
      return turnAway(Farewell::notPermitted,
                      "expected a name of 1 to 64 letters, digits, dashes and underscores");
    if (hub_.doorkeeper_)
      if (std::string why = hub_.doorkeeper_->turnsAway({role_, name}, peer_); !why.empty())
        return turnAway(Farewell::notPermitted, why);
    if (role_ == Role::agent) {
      // One that died is heard to its last word here and now, and its place is free.
      Session* other;
      while ((other = hub_.agentNamed(name)) && other->peerIsGone()) other->readNow();
      if (other)
        return turnAway(
            Farewell::nameTaken,
            "another agent named '" + std::string(name) + "' is connected" +
                (other->peer_.pid > 0 ? " (process " + std::to_string(other->peer_.pid) + ")"
                                      : ""));
    }
    name_ = name;
    heartbeat_ = static_cast<double>(heartbeat) / 1000;
    greeted_ = true;
    connection_->longestFrameIs(kMaxFrame);
    const bool isService = role_ == Role::service;
    connection_->mostFilesIs(isService ? 2 * kMaxFilesOfFrame : 0);
    tables_.rightsAre({isService, connection_->carriesFiles(), knowsThisLife_, name_});
    ++hub_.counters_.accepted;
    if (hub_.participantsChanged_) hub_.participantsChanged_();
    controls_.u8(static_cast<uint8_t>(Op::hello));
    controls_.varint(kWireMagic);
    controls_.varint(kWireVersion);
    controls_.varint(hub_.incarnation_);
    return true;
  }

  bool turnAway(Farewell reason, const std::string& why) {
    ++hub_.counters_.refusedNames;
    turnedAway_ = true;
    sayFarewell(reason, why);
    return broken(why);
  }
  void sayFarewell(Farewell reason, std::string_view text) {
    Encoder e;
    e.u8(static_cast<uint8_t>(Op::farewell));
    e.varint(static_cast<uint64_t>(reason));
    e.text(text);
    connection_->send(e.view());
  }

  bool mount(Decoder& d) {
    uint64_t id = d.varint(), handle = d.varint();
    std::string path(d.text()), typeName(d.text());
    std::string_view mode = d.text();
    uint8_t mine = d.u8();
    uint64_t since = d.varint();
    if (d.failed() || path.size() > kMaxPath) return broken("a malformed mount");
    Entity* root = nullptr;
    MountStatus status = MountStatus::refused;
    if (mountPaths_.size() < hub_.limits_.mounts)
      status = resolve(path, typeName, mode, &root);
    else if (tellPastLimits(); pastLimits_ > hub_.limits_.mounts)
      return broken("too many mounts");
    controls_.u8(static_cast<uint8_t>(Op::mounted));
    controls_.varint(id);
    controls_.varint(static_cast<uint64_t>(status));
    RYX_TRACE(trace(), 1,
              "'" << name_ << "' mounts " << path << " (" << mode << "): status "
                  << static_cast<int>(status));
    if (status != MountStatus::success) return true;
    if (handle != 0 && !numberIs(handle, root)) return false;
    mountPaths_.push_back(path);
    if (handle != 0) written_.push_back(Ref<Entity>(root));
    if (mine != 0) resent_.push_back(Ref<Entity>(root));
    uint32_t number = handleOf(*root);
    if (number == 0) number = newHandle();
    controls_.varint(number);
    controls_.varint(root->generation());
    controls_.text(root->type().name);
    publish(*root, number, true, knowsThisLife_ ? since : 0);
    unsynced_.push_back(id);
    return true;
  }

  MountStatus resolve(const std::string& path, const std::string& typeName, std::string_view mode,
                      Entity** root) {
    if (mode.empty() || mode.find_first_not_of("rwciS") != std::string_view::npos)
      return MountStatus::badMode;
    if (typeName.empty()) {  // whatever stands there
      *root = tree().find(path);
      if (!*root) return MountStatus::noSuchPath;
      return (*root)->type().journalOffset != 0 ? MountStatus::success : MountStatus::wrongType;
    }
    const TypeInfo* type = TypeInfo::named(typeName);
    if (!type || type->journalOffset == 0) return MountStatus::wrongType;
    *root = tree().find(path);
    if (!*root && mode.find('c') == std::string_view::npos) return MountStatus::noSuchPath;
    if (!*root) *root = tree().make(path, *type);
    if (!*root) return MountStatus::refused;
    return (*root)->type().is(*type) ? MountStatus::success : MountStatus::wrongType;
  }

  // --- Publisher ---
  bool wants(Entity& e) override { return e.dirty() != origin_; }
  bool wantsRemoval(Entity& e) override { return e.dirty() != origin_; }
  // Of a private place others see the directory level, not each other's entities; what a
  // participant is going to send again is not sent to it.
  bool visible(Entity& e) override {
    Entity* parent = e.parent();
    if (parent && e.owner()->info().marks & kSecret && !maySeeSecrets(who(), e, parent))
      return false;
    if (!parent || !parent->as<Dir>() || role_ != Role::agent) return true;
    if (ownership(who(), e, parent) == Ownership::own)
      return !(e.type().journalOffset != 0 && isResent(e));
    const WellKnown* place = wellKnownAbove(std::string_view(e.path()).substr(1));
    if (!place || !place->isPrivate) return true;
    std::string path = e.path();
    auto depth = std::count(path.begin(), path.end(), '/');
    return depth < std::count(place->path.begin(), place->path.end(), '/') + 1 + place->ownDepth;
  }
  // What is the participant's own it knows best.
  bool compares(Entity& e) override { return owned_.of(who(), e, e.parent()) != Ownership::own; }
  bool isResent(const Entity& e) const {
    for (const Entity* at = &e; at && !resent_.empty(); at = at->parent())
      for (const Ref<Entity>& root : resent_)
        if (root.get() == at) return true;
    return false;
  }
  uint32_t readable(Entity& e) override {
    uint32_t secret = e.type().secretFields;
    return secret == 0 || maySeeSecrets(who(), e, e.parent()) ? ~0u : ~secret;
  }
  // Of somebody who is in the middle of what it sends, this one has a part now, or may have.
  void sent(Entity& e, uint32_t) override { noteMixed(e); }
  void removalSent(Entity& e) override { noteMixed(e); }
  void noteMixed(Entity& e) { mixed_ = mixed_ || hub_.inBatch(e.dirty()); }
  uint8_t itemFlags(Entity&) override { return kItemWhole; }
  uint32_t itemFields(Entity&) override { return ~0u; }
  void activated() override { wake(); }

  // --- sending ---
  // One frame, then it is the others' turn.
  bool run(Slice&) override {
    if (!connection_->open()) return false;
    if (connection_->unsent() >= kSendAhead) {
      if (cloggedSince_ == 0) cloggedSince_ = clock().now();
      return false;
    }
    out_.clear();
    out_.swap(controls_);
    tables_.encode(out_, &outFiles_);
    bool state = mayLinger() && !std::exchange(lingered_, false);
    bool all = state && encode(out_, kFrameOfHub);
    if (all && out_.size() == 0) {  // there are answers alone
      if (!linger_.armed()) linger_.armAt(clock().now() + hub_.linger_);
      return false;
    }
    linger_.disarm();
    if (applied_ != appliedTold_) {
      appliedTold_ = applied_;
      out_.u8(static_cast<uint8_t>(Op::applied));
      out_.varint(applied_);
    }
    encodeAllTold();
    all = told_.empty() && (state ? all : encode(out_, kFrameOfHub));
    if (starting() == 0) {
      for (uint64_t mount : std::exchange(unsynced_, {})) {
        out_.u8(static_cast<uint8_t>(Op::synced));
        out_.varint(mount);
      }
    }
    bool free = hub_.mayCut();
    cutOwed_ |= out_.size() != 0 || (free && applied_ != acked_);
    if (all && cutOwed_ && (free || !mixed_)) {
      encodeCut(tree().clock().version);
    } else if (cutOwed_ && !all && starting() == 0 &&
               clock().now() - lastCut_ > kForcedCutSeconds) {
      ++hub_.counters_.forcedCuts;
      encodeCut(0);
    }
    sendOut();
    return !all || tables_.owes();
  }
  void sendOut() {
    if (out_.size() != 0) connection_->send(out_.view(), std::exchange(outFiles_, {}));
    out_.clear();
  }
  bool mayLinger() const {
    return hub_.linger_ > 0 && applied_ != acked_ && out_.size() == 0 && unsynced_.empty() &&
           !cutOwed_ && told_.size() <= kLingering;
  }
  // `version`: all that happened up to it was sent; 0: not all that happened up to any.
  void encodeCut(uint64_t version) {
    cutOwed_ = mixed_ = false;
    lastCut_ = clock().now();
    if (applied_ != acked_ && caughtUp() && hub_.mayCut()) {
      acked_ = applied_;
      out_.u8(static_cast<uint8_t>(Op::ack));
      out_.varint(acked_);
    }
    out_.u8(static_cast<uint8_t>(Op::cut));
    out_.varint(version);
  }
  void encodeAllTold() {
    while (!told_.empty() && out_.size() < kFrameOfHub) {
      Told t = std::move(told_.front());
      told_.pop_front();
      encodeOneTold(std::move(t));
    }
    if (told_.empty()) connection_->readingIs(true);
  }
  void encodeOneTold(Told t) {
    if (t.refused) out_.u8(static_cast<uint8_t>(Op::refused));
    // What stood in something that is gone: what stands in its place.
    for (; t.container->dead(); t.deep = true) {
      Entity* outer = t.container->parent();
      if (!outer) return;
      t.collection = &t.container->owner()->info();
      t.like = std::exchange(t.container, Ref<Entity>(outer));
    }
    if (!t.collection) return encodeToldRoot(out_, *t.container);
    const TypeInfo& type = t.like->type();
    Entity* e = t.container->collection(*t.collection).findErased(t.like->keyData(), *type.keyKind);
    if (!e) return encodeRemoval(out_, *t.container, *t.collection, type, t.like->keyData(), 0, 0);
    noteMixed(*e);
    encodeTold(out_, *e, t.deep, [&] {
      if (out_.size() < kFrameOfHub) return;
      sendOut();
      cutOwed_ = true;
    });
  }

  void openBatch() {
    if (batchOpen_) return;
    batchOpen_ = true;
    hub_.batchOpened();
  }
  void closeBatch() {
    if (!batchOpen_) return;
    batchOpen_ = false;
    hub_.batchClosed();
  }

  Hub& hub_;
  const uint32_t origin_;
  const HubPeer peer_;
  Role role_ = Role::agent;
  std::string name_;
  OwnershipCache owned_;
  double since_;
  double heard_;
  double heartbeat_ = 0;
  double clogged_ = 0, cloggedSince_ = 0;
  uint64_t refusals_ = 0;
  uint64_t pastLimits_ = 0;
  bool greeted_ = false;
  bool turnedAway_ = false;
  bool knowsThisLife_ = false;  // it was connected to this life of the hub before
  bool batchOpen_ = false;
  bool cutOwed_ = false;
  bool mixed_ = false;  // since the last cut something was sent whose writer was in a batch
  double lastCut_ = 0;
  uint64_t applied_ = 0, acked_ = 0;
  uint64_t appliedTold_ = 0;
  uint64_t made_ = 0, held_ = 0;  // entities and bytes, no fewer than it has
  double recountAt_ = 0;
  std::vector<Ref<Entity>> written_;  // the roots of the mounts that it may write
  std::vector<Ref<Entity>> resent_;   // and of those where it sends its own again
  std::vector<std::string> mountPaths_;
  std::vector<uint64_t> unsynced_;
  std::deque<Told> told_;
  // The answers have waited long enough.
  class Linger final : public Timer {
   public:
    explicit Linger(Session& session) : Timer("HubLinger"), session_(session) {}
    void onTimer() override {
      session_.lingered_ = true;
      session_.wake();
    }

   private:
    Session& session_;
  };
  static constexpr size_t kLingering = 16;  // answers that may wait for company
  Linger linger_{*this};
  bool lingered_ = false;
  TableServer tables_{hub_.tree_.ownTables(), [this] { wake(); }};
  Encoder out_;
  std::vector<File> outFiles_;
  Encoder controls_;
  std::unique_ptr<Connection> connection_;
};

Hub::Hub(Tree& tree) : tree_(tree) {
  if (getrandom(&incarnation_, sizeof incarnation_, 0) != sizeof incarnation_)
    incarnation_ = static_cast<uint64_t>(clock().now() * 1e9);
  incarnation_ >>= 1;
  tree_.clock().origins = this;
}

Hub::~Hub() {
  sessions_.clear();
  tree_.clock().origins = nullptr;
  tree_.clock().openGate();
}

void Hub::accept(int fd) {
  HubPeer peer;
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0 && credentials.pid > 0) {
    peer.pid = credentials.pid;
    peer.uid = credentials.uid;
  }
  accept(fd, peer);
}

void Hub::accept(int fd, const HubPeer& peer) {
  boundMute();
  // Entities keep it longer than sessions and hubs live.
  static uint32_t last = 0;
  sessions_.push_back(std::make_unique<Session>(*this, fd, kOriginBit | ++last, peer));
}

void Hub::boundMute() {
  const auto isMute = [](auto& s) { return !s->greeted(); };
  if (static_cast<size_t>(std::count_if(sessions_.begin(), sessions_.end(), isMute)) < kMaxMute)
    return;
  ++counters_.mute;
  (*std::find_if(sessions_.begin(), sessions_.end(), isMute))->end();
}

std::vector<HubParticipant> Hub::participants() const {
  std::vector<HubParticipant> all;
  for (auto& s : sessions_)
    if (s->greeted()) all.push_back(s->description());
  return all;
}

void Hub::drop(uint64_t number) {
  auto at = std::find_if(sessions_.begin(), sessions_.end(),
                         [&](auto& s) { return s->number() == number; });
  if (at != sessions_.end()) (*at)->end();
}

Hub::Session* Hub::agentNamed(std::string_view name) const {
  auto at = std::find_if(sessions_.begin(), sessions_.end(), [&](auto& s) {
    return s->greeted() && s->open() && s->who().role == Role::agent && s->who().name == name;
  });
  return at == sessions_.end() ? nullptr : at->get();
}

void Hub::dropAll() {
  while (!sessions_.empty()) sessions_.back()->end();
}

bool Hub::caughtUp(const Journal& journal, uint64_t version) {
  return applying_ && applying_->sentVersion(journal) >= version;
}

bool Hub::inBatch(uint32_t origin) const {
  if (openBatches_ == 0) return false;
  if (origin == 0) return true;  // several wrote it
  return std::any_of(sessions_.begin(), sessions_.end(),
                     [&](auto& s) { return s->origin() == origin && s->batchOpen(); });
}

void Hub::batchOpened() {
  if (openBatches_++ != 0) return;
  tree_.clock().gated = true;
  armAt(clock().now() + kForcedCutSeconds);
}

void Hub::batchClosed() {
  if (--openBatches_ != 0) return;
  forced_ = false;
  disarm();
  tree_.clock().openGate();
  for (auto& s : sessions_) s->cutPossible();
}

// Somebody has been sending for too long: the others go on.
void Hub::onTimer() {
  ++counters_.forcedCuts;
  forced_ = true;
  tree_.clock().openGate();
  for (auto& s : sessions_) s->cutPossible();
}

void Hub::gone(Session& session) {
  auto at = std::find_if(sessions_.begin(), sessions_.end(),
                         [&](auto& s) { return s.get() == &session; });
  if (at == sessions_.end()) return;
  std::unique_ptr<Session> last = std::move(*at);
  sessions_.erase(at);
  if (participantsChanged_) participantsChanged_();
}

}  // namespace ryx::platform
