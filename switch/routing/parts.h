// What the resolver (resolver.h) is made of: destinations with their routes, FECs, and what FECs
// depend on. Owned by it, and seen by nobody else.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

#include "platform/model/routing.h"
#include "platform/qel/collection.h"
#include "switch/routing/programmer.h"
#include "switch/routing/resolver.h"

namespace ryx::routing {

using namespace platform;

struct Candidate;
struct Entry;
struct Fec;
struct Hop;
struct Destinations;

// What routes have in common that share a FEC.
struct FecKey {
  enum class Kind : uint8_t { vias, drop, receive, group, labelVias, vrf };
  Kind kind = Kind::vias;
  Destinations* table = nullptr;  // that next hops are resolved in
  Name name = {};                 // of a group, or of a VRF
  SmallSet<Routing::Via> vias = {};
  SmallSet<Mpls::Via> labelVias = {};
  bool operator==(const FecKey&) const = default;
};

// What FECs depend on.
struct Source {
  enum class Kind : uint8_t { port, hop, group };
  struct Use {
    Fec* fec;
    size_t member;
  };
  explicit Source(Kind k) : kind(k) {}
  const Kind kind;
  std::vector<Use> users;
};

struct Port : Source {
  Port(IntfId i) : Source(Kind::port), intf(i) {}
  const IntfId intf;
  bool isUp = false;
};

struct Hop : Source {
  Hop(Destinations& t, const IpAddr& a) : Source(Kind::hop), table(t), addr(a) {}
  Destinations& table;
  const IpAddr addr;
  Entry* by = nullptr;  // the entry that covers it
  size_t placeAtEntry = 0;
  Fec* through = nullptr;  // where that goes, when it goes anywhere
  size_t placeAtFec = 0;
  uint64_t loop = 0;  // the loop it would be in; 0: none
  bool isDirty = false;
};

struct Fec : Source {
  struct Dependency {
    Source* source;
    size_t place;  // in its users
  };
  Fec() : Source(Kind::group) {}

  const FecKey* key = nullptr;
  GroupId id = 0;
  std::unique_ptr<GroupConfig> config;  // of a group that is there
  std::vector<uint16_t> numbers;        // of its entries, one a member
  std::vector<Dependency> members;      // one a via
  std::vector<GroupMember> resolved;    // what packets are to do
  std::vector<GroupMember> told;        // what the programmer was told, when that is stale
  Candidate* candidates = nullptr;
  size_t entries = 0;      // that have chosen it, and that were programmed with it
  std::vector<Hop*> hops;  // that are resolved through it
  bool isTold = false;     // the programmer has it
  bool isStale = false;    // as it was
  bool isRefused = false;
  bool vrfIsThere = false;
  bool isDirty = false, isToProgram = false, isToWithdraw = false;

  GroupKind kind() const {
    switch (key->kind) {
      case FecKey::Kind::drop:
        return GroupKind::drop;
      case FecKey::Kind::receive:
        return GroupKind::receive;
      case FecKey::Kind::vrf:
        return GroupKind::vrf;
      default:
        return GroupKind::forward;
    }
  }
  bool isNamed() const { return key->kind == FecKey::Kind::group; }
  bool isUnknown() const { return isNamed() && !config; }
  bool isUsable() const {
    if (isRefused) return false;
    if (kind() == GroupKind::vrf) return vrfIsThere;
    return kind() != GroupKind::forward || !resolved.empty();
  }
  bool isWanted() const { return entries != 0 || config; }
  bool isReferred() const { return isWanted() || candidates || !users.empty() || !hops.empty(); }
};

// One owner's route.
struct Candidate {
  Entry* entry;
  Candidate* next;  // at the entry, the next best
  Fec* fec;
  Candidate *before, *behind;  // of the FEC
  const Owner* owner;
  uint32_t preference;
  bool isGone;     // removed, unless it is set again at once
  bool hasWaited;  // for its group, long enough

  bool isBefore(const Owner& o, uint32_t p) const {
    if (owner->kind != o.kind) return owner->kind < o.kind;
    if (preference != p) return preference < p;
    if (!(owner->name == o.name)) return owner->name < o.name;
    return owner->intf < o.intf;
  }
};

// Of a chosen route, what the programmer hears of it beside its group.
struct Choice {
  uint32_t preference = 0;
  RouteOrigin origin = RouteOrigin::agent;
  bool isOfGroup = false;
  bool operator==(const Choice&) const = default;
  RouteValue with(const Fec& fec) const { return {origin, isOfGroup, preference, fec.id}; }
};

// A destination.
struct Entry : EntityType<Entry> {
  static constexpr const char* kTypeName = "Routing::Resolver::Entry";
  KeyOf<Entry, IpPrefix> key;
  Destinations* table = nullptr;
  Candidate* candidates = nullptr;          // the best first
  Fec* chosen = nullptr;                    // that it is to be forwarded by
  const Owner* chosenOwner = nullptr;       // whose route that is; to be compared alone
  Fec* told = nullptr;                      // that the programmer forwards it by
  std::unique_ptr<std::vector<Hop*>> hops;  // that it covers; null: none
  Choice choice, toldChoice;
  bool isDirty = false, isToProgram = false, isLost = false;
  double waitsSince = 0;  // for a group, and goes on as it was; 0: it does not

  bool isWaiting() const { return waitsSince != 0; }
  bool coversHops() const { return hops && !hops->empty(); }
};

struct Entries : EntityType<Entries> {
  static constexpr const char* kTypeName = "Routing::Resolver::Entries";
  CollectionOf<Entries, "entry", Entry, kLocal> entry;
};

// The destinations of one family in one VRF, or the labels.
struct Destinations {
  Name vrf;
  Af af = Af::null;
  bool isThere = false;
  Ref<Entries> entries = make<Entries>();
  std::array<uint32_t, 129> lengths{};  // how many prefixes of each have routes
  std::unordered_map<IpAddr, Hop> hops;
  std::map<IpAddr, Hop*> hopsInOrder;

  RouteKey keyOf(const Entry& entry) const {
    if (af == Af::null) return {.isLabel = true, .label = entry.key().addr().v4()};
    return {.vrf = vrf, .prefix = entry.key()};
  }
};

struct Hash {
  size_t operator()(const FecKey& key) const {
    uint64_t hash = hashMix(reinterpret_cast<uintptr_t>(key.table),
                            key.name.hash() + static_cast<uint64_t>(key.kind));
    for (const Routing::Via& via : key.vias) hash = hashMix(hash, kinds::hashValue(via));
    for (const Mpls::Via& via : key.labelVias) hash = hashMix(hash, kinds::hashValue(via));
    return hash;
  }
  size_t operator()(const Owner& owner) const {
    return hashMix(owner.name.hash() + static_cast<uint64_t>(owner.kind), owner.intf.hash());
  }
};

// What is to be done, each once, first come first served.
template <class T>
class Worklist {
 public:
  bool empty() const { return at_ == items_.size(); }
  void push(T item) { items_.push_back(std::move(item)); }
  T pop() {
    T item = std::move(items_[at_++]);
    if (empty()) {
      items_.clear();
      if (items_.capacity() > kKept) items_.shrink_to_fit();
      at_ = 0;
    }
    return item;
  }

 private:
  static constexpr size_t kKept = 4096;
  std::vector<T> items_;
  size_t at_ = 0;
};

}  // namespace ryx::routing
