// The receiving half of a link: decodes operations and applies the state in them to a tree. Every
// byte is taken as hostile: lengths, numbers and types are checked, and what breaks the protocol
// ends the connection with everything before it applied and nothing after. What a newer peer knows
// and this side does not (types, attributes) is passed over and counted.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/qel/collection.h"
#include "platform/qel/dir.h"
#include "platform/statehub/wire.h"

namespace ryx::platform {

class RYX_PRIVATE Applier {
 public:
  // Entity flags of the link (entity.h has the store's own).
  static constexpr uint8_t kStale = 0x10;  // not met yet by the comparison in progress

  explicit Applier(Tree& tree) : tree_(tree) {}
  virtual ~Applier() = default;

  // Applies one frame. False: the peer broke the protocol; error() says how.
  bool frame(std::string_view payload);
  const std::string& error() const { return error_; }

  uint64_t items() const { return items_; }
  uint64_t refusals() const { return refusals_; }
  uint64_t unknown() const { return unknown_; }  // items and attributes passed over

 protected:
  struct Item {
    Entity* container;
    CollectionBase* collection;
    const TypeInfo* type;
    uint8_t flags;
    uint64_t generation;
    const void* key;
    uint64_t hash;
    const Entity* like;  // an entity of that type with that key, in no tree
  };
  // What is to be done with an item before its attributes are decoded.
  struct Verdict {
    Entity* target = nullptr;  // apply to it; null: make it
    bool skip = false;         // apply nothing; the peer's number, if any, means the target
    uint32_t keep = 0;         // attributes that must not be touched
  };

  // The policies. `there`: what stands under the item's key now, or null.
  virtual Verdict judge(const Item& item, Entity* there) = 0;
  // Every attribute was applied; `made`: it is new.
  virtual void applied(Entity& e, const Item& item, bool made) = 0;
  // The writer may not: an attribute (there is one), a creation (there is none), a removal.
  virtual void refused(const Item& item, Entity* there, bool removal) = 0;
  virtual void remove(const Item& item, Entity* there) = 0;
  // Something was to be done below a container that is dead here; nothing was.
  virtual void below(Entity& /*dead*/, uint8_t /*flags*/) {}
  // The same for a container's own attributes.
  virtual uint32_t rootKeep(Entity&) { return 0; }
  virtual void rootApplied(Entity&, uint32_t /*dirtyBefore*/, uint8_t /*flags*/) {}
  virtual void rootRefused(Entity&) {}
  // An entity that a comparison did not meet is gone at the peer.
  virtual void sweep(Entity& e) = 0;
  // Whether a comparison may sweep it (and all below it) away.
  virtual bool sweepable(Entity&) { return true; }
  // Operations that are not state. False: broken.
  virtual bool control(Op op, Decoder& d) = 0;

  // Numbers a container of the peer's. False: the bound is passed.
  bool numberIs(uint64_t handle, Entity* e);
  Entity* numbered(uint64_t handle) const;
  // Marks all below `e`, as far as its journal goes or into the journals below it too; then takes
  // away what no item met since.
  void markStale(Entity& e, Reach reach);
  void sweepStale(Entity& e, Reach reach);
  // What is in the journal of `e` stands.
  void markMet(Entity& e);
  // All numbers and types are void: a new connection.
  void reset();
  bool broken(std::string text) {
    if (error_.empty()) error_ = std::move(text);
    return false;
  }
  Tree& tree() { return tree_; }

 private:
  // An item that was decoded and waits to be applied.
  struct Slot {
    Ref<Entity> entity;
    uint64_t hash = 0;
    uint64_t generation = 0;
    uint32_t present = 0;
    uint8_t flags = 0;
  };
  static constexpr size_t kBatch = 16;
  struct PeerType {
    const TypeInfo* mine = nullptr;
    Wire keyWire = Wire::bytes;
    std::vector<const FieldInfo*> fields;  // by the peer's index; null: not known here
    std::vector<const CollectionInfo*> collections;
    std::array<Slot, kBatch> slots;
  };

  bool op(Op op, Decoder& d);
  bool declareType(Decoder& d);
  bool item(Decoder& d);
  bool removal(Decoder& d);
  bool rootFields(Decoder& d);
  // Reads place and key. `skip`: it is well formed, but means nothing here.
  bool place(Decoder& d, Item* item, uint64_t* handle, PeerType** type, bool* skip,
             bool withHandle);
  Entity& slot(size_t n);
  bool decodeFields(Decoder& d, const PeerType& type, Entity& to, uint32_t* present);
  static void clearFields(Entity& e, uint32_t present);
  bool assignFields(Entity& to, const Entity& from, uint32_t which);
  bool flush(Entity** last = nullptr);
  bool apply(Slot& s, Entity** target);
  bool skipFields(Decoder& d);
  PeerType* declared(const TypeInfo& mine) {
    return mine.id < peerOf_.size() && peerOf_[mine.id] ? &types_[peerOf_[mine.id] - 1u] : nullptr;
  }
  PeerType* peerType(uint64_t id) { return id < types_.size() ? &types_[id] : nullptr; }

  Tree& tree_;
  std::vector<PeerType> types_;
  std::vector<uint16_t> peerOf_;  // by this side's type number: the peer's, and 1
  std::vector<Ref<Entity>> numbers_;
  PeerType* batchType_ = nullptr;
  CollectionBase* batchCollection_ = nullptr;
  size_t batchSize_ = 0;
  std::string error_;
  uint64_t items_ = 0;
  uint64_t unknown_ = 0;
  uint64_t refusals_ = 0;
};

}  // namespace ryx::platform
