// The sending half of a link: walks its cursors along the journals of what it publishes and encodes
// the current state of what they meet. The same class serves the hub (everything that a client
// mounted, but its own echoes) and a participant (what it wrote itself); they differ in what they
// skip. Nothing is queued here: what is not encoded yet stands in the journals.
#pragma once

#include <deque>
#include <memory>
#include <unordered_map>
#include <vector>

#include "platform/qel/collection.h"
#include "platform/qel/journal.h"
#include "platform/statehub/wire.h"

namespace ryx::platform {

class RYX_PRIVATE Publisher {
 public:
  Publisher();
  virtual ~Publisher();

  // Publishes all below `root`, an entity with a journal of its own, whose number on the wire is
  // `handle` (0: the publisher numbers it itself, and the peer learns it from `item`s).
  // `fromStart`: what is there already, too; of journals that remember all that happened after the
  // version `since` (0: nothing is known), that alone, where the peer has been told all up to it.
  void publish(Entity& root, uint32_t handle, bool fromStart, uint64_t since = 0);
  bool publishes(const Journal& journal) const { return feeds_.count(&journal) != 0; }
  // The root's number, 0 when it is not published.
  uint32_t handleOf(const Entity& container) const;
  uint32_t newHandle();

  // Encodes operations until `out` holds `limit` bytes or there is nothing left; true in that case.
  bool encode(Encoder& out, size_t limit);
  bool caughtUp() const { return active_.empty(); }
  // First walks, over what was published from its start, that have not ended.
  int starting() const { return starting_; }
  // How far the cursor on that journal is; 0 when it is not published.
  uint64_t sentVersion(const Journal& journal) const;

  // A new connection: the numbers and types that the peer was told are void.
  void reset();
  // All that is published goes to the peer from its start. Hands over the deletions that were not
  // encoded, and are not going to be.
  std::vector<Ref<Entity>> rewind();
  void unpublish(Entity& root);

  // What stands, in full: the entity and, with `deep`, all below it, to be compared. `whenLarge` is
  // called where `out` may be taken and emptied.
  template <class WhenLarge>
  void encodeTold(Encoder& out, Entity& e, bool deep, WhenLarge&& whenLarge);
  void encodeToldRoot(Encoder& out, Entity& root);
  // The number of a container that the peer knows, or is told here and now.
  uint32_t containerHandle(Encoder& out, Entity& container);
  // The peer's notion of that number is outdated: the next use tells it anew.
  void renumber(Encoder& out, const Entity& container);
  void encodeReach(Encoder& out, Op op, uint32_t handle, Reach reach);
  void encodeRemoval(Encoder& out, Entity& container, const CollectionInfo& collection,
                     const TypeInfo& type, const void* key, uint64_t generation, uint8_t flags);

 protected:
  // Whether a living entity has to be sent; whether one has to that is going to be compared;
  // whether a deletion has to be.
  virtual bool wants(Entity& e) = 0;
  virtual bool compares(Entity&) { return true; }
  virtual bool wantsRemoval(Entity& e) = 0;
  // Whether the peer may know of it at all (and so of everything below it).
  virtual bool visible(Entity& e) = 0;
  // The attributes to send, and how.
  virtual uint8_t itemFlags(Entity& e) = 0;
  virtual uint32_t itemFields(Entity& e) = 0;
  // Those that the peer may know, whatever is to be sent.
  virtual uint32_t readable(Entity& /*e*/) { return ~0u; }
  virtual uint64_t itemGeneration(Entity& e) { return e.generation(); }
  virtual uint8_t removalFlags(Entity&) { return 0; }
  // Whether a walk over all of it, to be compared, may take the place of its deletions.
  virtual bool isBounded(Entity& /*root*/) { return true; }
  // It was encoded with those attributes.
  virtual void sent(Entity&, uint32_t /*fields*/) {}
  virtual void removalSent(Entity&) {}
  // There is something to encode.
  virtual void activated() = 0;

 private:
  class Feed;
  friend class Feed;

  bool encodeFeed(Feed& feed, Encoder& out, size_t limit);
  void encodeItem(Encoder& out, Entity& e, uint8_t extraFlags);
  void encodeToldItem(Encoder& out, Entity& e, bool numbered);
  void encodeRoot(Encoder& out, Entity& root, uint32_t handle, uint8_t flags, uint32_t fields);
  void encodeFields(Encoder& out, Entity& e, uint32_t fields, bool skipDefaults);
  void encodeType(Encoder& out, const TypeInfo& type);
  void forget(Encoder& out, const Entity& container);
  void forgetDead(Encoder& out, Feed& feed);
  bool waitsForOuter(Feed& feed) const;
  void publishBelow(Entity& root, uint64_t since);

  struct Numbered {
    Ref<Entity> entity;
    uint32_t handle;
  };
  std::unordered_map<const Journal*, std::unique_ptr<Feed>> feeds_;
  std::deque<Feed*> active_;
  int starting_ = 0;
  std::unordered_map<const Entity*, Numbered> handles_;
  const Entity* lastContainer_ = nullptr;
  uint32_t lastHandle_ = 0;
  uint32_t nextHandle_ = 1;
  std::vector<uint32_t> freeHandles_;
  std::vector<bool> typesSent_;
};

template <class WhenLarge>
void Publisher::encodeTold(Encoder& out, Entity& e, bool deep, WhenLarge&& whenLarge) {
  if (!visible(e)) return;
  bool container = !e.type().collections.empty();
  bool compare = deep && container && compares(e);
  encodeToldItem(out, e, container);
  if (!compare) return;
  uint32_t handle = containerHandle(out, e);
  encodeReach(out, Op::compare, handle, Reach::tree);
  auto below = [&](auto& self, Entity& of) -> void {
    for (const CollectionInfo& c : of.type().collections) {
      if (c.marks & kLocal) continue;
      for (CollectionIterator it(of.collection(c)); it; it.next()) {
        Entity& child = *it.get();
        if (!visible(child) || !compares(child)) continue;
        encodeToldItem(out, child, !child.type().collections.empty());
        whenLarge();
        self(self, child);
      }
    }
  };
  below(below, e);
  encodeReach(out, Op::sweep, containerHandle(out, e), Reach::tree);
}

}  // namespace ryx::platform
