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
  // `fromStart`: what is there already, too.
  void publish(Entity& root, uint32_t handle, bool fromStart);
  bool publishes(const Journal& journal) const { return feeds_.count(&journal) != 0; }
  // The root's number, 0 when it is not published.
  uint32_t handleOf(const Entity& container) const;
  uint32_t newHandle() { return nextHandle_++; }

  // Encodes operations until `out` holds `limit` bytes or there is nothing left; true in that case.
  bool encode(Encoder& out, size_t limit);
  bool caughtUp() const { return active_.empty(); }
  // First walks, over what was published from its start, that have not ended.
  int starting() const { return starting_; }
  // How far the cursor on that journal is; 0 when it is not published.
  uint64_t sentVersion(const Journal& journal) const;
  // All of it again, to be compared, from the next encode() on.
  void startOver(const Journal& journal);

  // Hands over the deletions that were not encoded.
  std::vector<Ref<Entity>> takeRemovals();
  // Everything is void: a new connection. What is published has to be published again.
  void reset();

  // One entity, in full, to hold against whatever the peer has written; and all below it.
  void encodeForced(Encoder& out, Entity& e, bool withChildren);
  void encodeForcedRoot(Encoder& out, Entity& root);
  // Tells the peer the generation of what it made.
  void encodeMade(Encoder& out, Entity& e);
  // The number of a container that the peer knows, or is told here and now.
  uint32_t containerHandle(Encoder& out, Entity& container);
  void encodeRemoval(Encoder& out, Entity& container, const CollectionInfo& collection,
                     const TypeInfo& type, const void* key, uint64_t generation, uint8_t flags);

 protected:
  // Whether a living entity has to be sent; whether a deletion has to be.
  virtual bool wants(Entity& e) = 0;
  virtual bool wantsRemoval(Entity& e) = 0;
  // Whether the peer may know of it at all (and so of everything below it).
  virtual bool visible(Entity& e) = 0;
  // The attributes to send, and how.
  virtual uint8_t itemFlags(Entity& e) = 0;
  virtual uint32_t itemFields(Entity& e) = 0;
  virtual uint64_t itemGeneration(Entity& e) { return e.generation(); }
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
  void encodeRoot(Encoder& out, const Entity& root, uint32_t handle, uint8_t flags,
                  uint32_t fields);
  void encodeFields(Encoder& out, const Entity& e, uint32_t fields, bool skipDefaults);
  void encodeType(Encoder& out, const TypeInfo& type);
  void forget(Encoder& out, const Entity& container);

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
  std::vector<bool> typesSent_;
};

}  // namespace ryx::platform
