// A participant's side of a link: its replica of what it mounted, kept by a connection to a hub.
//
// What it writes applies here at once and goes to the hub as its cursors find it. A key with a
// write on its way ignores what the hub says of it until the hub has applied that write; the hub
// then tells what stands under that key, whatever became of the write, and that is taken. What is
// this participant's alone needs none of that: nobody else writes it. Reactors run at cuts alone.
//
// A connection that dies leaves the replica as it is; with reconnected() the participant mounts
// again, sends what is its own, with a comparison, and what else it wrote meanwhile, and its
// reactors hear only the differences.
#pragma once

#include <algorithm>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/activity/task.h"
#include "platform/activity/timer.h"
#include "platform/statehub/applier.h"
#include "platform/statehub/authority.h"
#include "platform/statehub/connection.h"
#include "platform/statehub/entity_manager.h"
#include "platform/statehub/publisher.h"
#include "platform/statehub/tables.h"

namespace ryx::platform {

class RYX_PRIVATE Client final : public EntityManager,
                                 private Connection::Peer,
                                 private Applier,
                                 private Publisher,
                                 private Task {
 public:
  Client(int fd, const Participant& who, double heartbeat);
  ~Client() override;

  std::unique_ptr<MountGroup> mountGroup() override;
  Tree& tree() override { return replica_; }
  size_t unsentBytes() const override { return connection_ ? connection_->unsent() : 0; }
  bool drained() const override;
  std::vector<int> connections() const override;

  bool connected() const override { return connection_ && connection_->open(); }
  // A new connection takes the place of the one that died.
  void reconnected(int fd) override;
  void onLostIs(std::function<void()> lost) override { lost_ = std::move(lost); }
  bool welcomed() const override { return incarnation_ != 0; }
  std::string farewell() const override { return farewell_; }

  uint64_t acknowledged() const override { return acknowledged_; }
  uint64_t bytesSent() const override { return connection_ ? connection_->bytesSent() : 0; }
  uint64_t batches() const override { return batch_; }

 private:
  class Group;
  friend class Group;
  // Entity flags of this side (Applier has one too).
  static constexpr uint8_t kUpstream = 0x20;  // the hub has it
  static constexpr uint8_t kGone = 0x40;      // deleted because the hub said so
  static constexpr uint8_t kPerhaps =
      0x80;  // the hub may have it: it was sent to a connection that died
  // A creation of this side that the hub has not numbered yet.
  static constexpr uint64_t kProvisional = uint64_t{1} << 63;

  struct Mount {
    MountRequest request;
    Group* group = nullptr;  // that waits for it
    bool writable = false;
    bool answered = false;
    bool ended = false;
    bool complete = false;  // all of it was here, once
    uint32_t handle = 0;    // this side's number for the root
    Ref<Entity> root = {};
  };
  enum class WriteKind : uint8_t { attributes, creation, removal };
  struct Write {
    Ref<Entity> entity;
    uint64_t place;  // placeOf() it
    uint64_t batch;
    uint32_t fields;
    WriteKind kind;
  };
  // What is on its way, or has to go again, under one key: each write ends on its own.
  struct Pending {
    struct One {
      uint64_t batch;
      uint32_t fields;
      bool identity;  // which entity stands there is open
    };
    std::vector<One> writes;
    uint32_t fields() const {
      uint32_t all = 0;
      for (const One& w : writes) all |= w.fields;
      return all;
    }
    bool identity() const {
      return std::any_of(writes.begin(), writes.end(), [](const One& w) { return w.identity; });
    }
  };
  // The batch of a removal that has to go again and did not yet.
  static constexpr uint64_t kNotSent = ~uint64_t{0};

  // --- Connection::Peer ---
  bool onFrame(std::string_view payload) override;
  void onWritable() override { wake(); }
  void onClosed() override;

  // --- Applier ---
  Verdict judge(const Item& item, Entity* there) override;
  void applied(Entity& e, const Item& item, bool made) override;
  void refused(const Item&, Entity*, bool) override {}
  void remove(const Item& item, Entity* there) override;
  uint32_t rootKeep(Entity& e) override;
  void rootApplied(Entity& e, uint32_t dirtyBefore, uint8_t) override { e.dirtyIs(dirtyBefore); }
  void sweep(Entity& e) override;
  bool sweepable(Entity& e) override;
  bool control(Op op, Decoder& d) override;
  bool mounted(Decoder& d);

  // --- Publisher ---
  bool wants(Entity& e) override;
  bool wantsRemoval(Entity& e) override {
    return (e.flags & (kUpstream | kPerhaps)) && !(e.flags & kGone);
  }
  bool visible(Entity&) override { return true; }
  uint8_t itemFlags(Entity& e) override;
  uint32_t itemFields(Entity& e) override { return e.flags & kUpstream ? e.dirty() : ~0u; }
  uint64_t itemGeneration(Entity& e) override {
    return (e.generation() & kProvisional) || !(e.flags & kUpstream) ? 0 : e.generation();
  }
  uint8_t removalFlags(Entity& e) override { return tracked(e) ? kItemTell : 0; }
  // What is its own alone may be compared at the hub; of all else each deletion has to be sent.
  bool isBounded(Entity& root) override { return ownAlone(root); }
  void sent(Entity& e, uint32_t fields) override;
  void removalSent(Entity& e) override;
  void activated() override { wake(); }

  // --- Task: sending ---
  bool run(Slice& slice) override;
  void encodeSome(bool* all);
  void encodeLostRemovals();
  void encodeSweeps();

  void hello();
  void beat();
  void sendMounts(Encoder& out);
  void removeHere(Entity& e);
  void adopt(Entity& e, uint64_t generation);
  void forgetGenerations(Entity& below);
  // Where a key is; two places share a number with negligible probability.
  static uint64_t placeOf(const CollectionBase* collection, uint64_t hash) {
    return hash ^ (reinterpret_cast<uintptr_t>(collection) * 0x9e3779b97f4a7c15u);
  }
  static uint64_t placeOf(const Entity& e);
  const Pending* pendingAt(uint64_t place) const {
    auto at = pending_.find(place);
    return at == pending_.end() ? nullptr : &at->second;
  }
  void wrote(Entity& e, uint32_t fields, WriteKind kind);
  void ends(uint64_t place, uint64_t firstBatch, uint64_t lastBatch);
  // Written by this participant alone.
  bool ownAlone(Entity& e) { return owned_.of(who(), e, e.parent()) == Ownership::own; }
  // In a mount that was not complete when the connection died: what is its own comes from the hub.
  bool fresh(const Entity& e) const;
  // What is its own, and goes to the hub anew.
  bool resends(Entity& e) { return resending_ && ownAlone(e) && !fresh(e); }
  // The top of what is its own.
  bool ownTop(Entity& e);
  // Whether the hub's word may cross a write of it.
  bool tracked(Entity& e);
  bool returning() const { return resync_ && unsynced_ != 0; }
  void settle(uint64_t batch);
  void ended(Mount& m, MountStatus status);
  void gatherLost(std::vector<Ref<Entity>> removals);
  void checkGroups();

  class Heartbeat final : public Timer {
   public:
    explicit Heartbeat(Client& client) : Timer("StatehubHeartbeat"), client_(client) {}
    void onTimer() override { client_.beat(); }

   private:
    Client& client_;
  };

  Tree replica_;
  std::unique_ptr<Connection> connection_;
  std::string farewell_;
  const double beats_;  // seconds between two, 0: none
  Heartbeat heartbeat_{*this};
  std::function<void()> lost_;
  std::vector<Mount> mounts_;
  size_t mountsSent_ = 0;
  std::vector<Group*> groups_;
  std::deque<Write> onTheWay_;
  std::vector<Ref<Entity>> lostRemovals_;  // to be sent again
  OwnershipCache owned_;
  std::unordered_map<uint64_t, Pending> pending_;
  std::vector<Ref<Entity>> fresh_;     // roots of mounts that are fresh()
  std::vector<Ref<Entity>> ownRoots_;  // to be swept at the hub when all of it was sent again
  TableClient tables_{[this] { wake(); }};
  Encoder out_;
  std::vector<File> outFiles_;
  Encoder controls_;
  uint32_t dirtyBefore_ = 0;
  uint64_t batch_ = 0;
  uint64_t acknowledged_ = 0;
  uint64_t incarnation_ = 0;
  uint64_t lastCut_ = 0;     // the hub's version up to which all is here
  bool answersDue_ = false;  // since then some writes were applied: what became of them may be lost
  bool resending_ = false;   // after a reconnection, until all was sent again
  bool resync_ = false;      // after a reconnection, until all was received again
  size_t unsynced_ = 0;      // mounts that did not end yet
  bool cutOwed_ = false;
};

}  // namespace ryx::platform
