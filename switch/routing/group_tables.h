// What is shown of nexthop groups that are programmed: the table of groups with their vias, and for
// each entry which counter counts it, with the counter. For programmers, which say what they have
// done. Under the activity lock.
//
//   routing/nexthopgroup/entrystatus          by the group's number: its name and vias
//   tunnel/nexthop/counterkeyinfo             by that number: feature, slice and key of the counter
//                                             of each entry
//   flexCounter/counterTable/FEATURE/SLICE    by that key: what was counted
//   flexCounter/snapshotCounterTable/...      by that key: what was counted when it was last
//   cleared
#pragma once

#include <cstdint>
#include <vector>

#include "platform/mirra/table.h"
#include "platform/model/tables.h"
#include "platform/qel/dir.h"
#include "switch/routing/programmer.h"

namespace ryx::routing {

// A kind of nexthop groups that the data plane can program, and how many labels and which actions.
struct Capability {
  platform::Routing::NexthopGroup::Type type;
  uint32_t maxLabels = 0;
  std::vector<platform::Mpls::Action> actions;
};

// As the forwarding tables show them.
platform::Fib::Via viaOf(const NextHop& nextHop, uint32_t weight);

// What of it agents may rely on: "routing/hardware/nexthopgroup/status".
void showCapabilities(platform::Tree& tree, const std::vector<Capability>& capabilities);

class GroupTables {
 public:
  // `tree` outlives it.
  explicit GroupTables(platform::Tree& tree);

  void show(const Group& group);
  void hide(GroupId id);

  // The number of a group that is shown; 0: none.
  GroupId named(const platform::Name& name) const;
  // Adds to what an entry has counted. False: it is not shown.
  bool count(GroupId group, uint16_t entry, uint64_t packets, uint64_t octets);
  // From now on the entry counts from zero, for whoever reads it.
  bool clear(GroupId group, uint16_t entry);

 private:
  using Keys = std::vector<platform::Tunnel::CounterKey>;
  using Counts = std::vector<platform::FlexCounter::Count>;
  using Counters = platform::mirra::Table<platform::FlexCounter::Counter>;

  Keys keysOf(GroupId group) const;
  static Counts countsOf(const Counters& table, const Keys& keys);
  // The entry's place in its group's block; null: it is not shown.
  static const platform::Tunnel::CounterKey* keyOf(const Keys& keys, uint16_t entry);
  void showCounters(const Group& group);

  platform::mirra::Table<platform::NexthopGroup::EntryStatus> groups_;
  platform::mirra::Table<platform::Tunnel::NexthopCounterKeyInfo> keys_;
  Counters counters_;
  Counters snapshots_;
  uint64_t lastBlock_ = 0;
};

}  // namespace ryx::routing
