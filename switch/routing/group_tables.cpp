#include "switch/routing/group_tables.h"

#include <algorithm>
#include <set>

namespace ryx::routing {

using namespace platform;
using Routing::Hardware::NexthopGroupStatus;
using GroupType = Routing::NexthopGroup::Type;

namespace {

constexpr uint32_t kFeature = 1;  // of nexthop groups
constexpr uint32_t kSlice = 1;    // the machine is one
constexpr const char* kCounters = "flexCounter/counterTable/1/1";
constexpr const char* kSnapshots = "flexCounter/snapshotCounterTable/1/1";

uint64_t counterKey(GroupId group, uint16_t entry) {
  return group << 16 | entry;
}

}  // namespace

Fib::Via viaOf(const NextHop& nextHop, uint32_t weight) {
  Fib::Via via;
  via.hop = nextHop.hop;
  via.intf = nextHop.intf;
  if (!nextHop.labels.empty()) via.mplsLabel = nextHop.labels.front();
  via.weight = weight;
  if (nextHop.tunnel.type == Tunnel::Type::vxlan) {
    via.vni = nextHop.tunnel.vni;
    via.vtepAddr = nextHop.tunnel.destination;
    via.routerMac = nextHop.tunnel.routerMac;
  }
  return via;
}

void showCapabilities(Tree& tree, const std::vector<Capability>& capabilities) {
  auto& shown = tree.make<NexthopGroupStatus>("routing/hardware/nexthopgroup/status")->capability;
  std::set<GroupType> there;
  for (const Capability& c : capabilities) {
    there.insert(c.type);
    auto* entry = shown.create(c.type);
    entry->maxLabelStackSize.set(c.maxLabels);
    entry->mplsAction.set(SmallSet<Mpls::Action>(c.actions));
  }
  for (auto it = shown.iterator(); it; it.next())
    if (!there.count(it.key())) shown.remove(*it);
}

GroupTables::GroupTables(Tree& tree)
    : groups_(tree.tables(), "routing/nexthopgroup/entrystatus", mirra::Mode::write),
      keys_(tree.tables(), "tunnel/nexthop/counterkeyinfo", mirra::Mode::write),
      counters_(tree.tables(), kCounters, mirra::Mode::write),
      snapshots_(tree.tables(), kSnapshots, mirra::Mode::write) {
  counters_.offer();
  snapshots_.offer();
  keys_.offer();
  groups_.offer();
}

void GroupTables::show(const Group& group) {
  Shown& shown = shown_[group.id];
  shown.name = group.name;
  const std::vector<uint16_t> now(group.entries.begin(), group.entries.end());
  for (const uint16_t entry : now) {
    if (std::binary_search(shown.entries.begin(), shown.entries.end(), entry)) continue;
    const uint64_t key = counterKey(group.id, entry);
    counters_.write({key, 0, 0});
  }
  for (const uint16_t entry : shown.entries) {
    if (std::binary_search(now.begin(), now.end(), entry)) continue;
    counters_.remove(counterKey(group.id, entry));
    snapshots_.remove(counterKey(group.id, entry));
  }
  if (shown.entries != now) {
    std::vector<platform::Tunnel::CounterKey> keys;
    keys.reserve(now.size());
    for (const uint16_t entry : now)
      keys.push_back({entry, kFeature, kSlice, counterKey(group.id, entry)});
    keys_.write({group.id}, keys);
  }
  shown.entries = now;

  NexthopGroup::EntryStatus row;
  row.key = group.id;
  row.name = FixedText<256>(group.name.view());
  std::vector<Fib::Via> vias;
  vias.reserve(group.members.size());
  for (const GroupMember& member : group.members)
    vias.push_back(viaOf(*member.nextHop, member.weight));
  groups_.write(row, vias);
}

void GroupTables::hide(GroupId id) {
  const auto at = shown_.find(id);
  if (at == shown_.end()) return;
  groups_.remove(id);
  keys_.remove(id);
  for (const uint16_t entry : at->second.entries) {
    counters_.remove(counterKey(id, entry));
    snapshots_.remove(counterKey(id, entry));
  }
  shown_.erase(at);
}

GroupId GroupTables::named(const Name& name) const {
  for (const auto& [id, shown] : shown_)
    if (shown.name == name) return id;
  return 0;
}

bool GroupTables::find(GroupId group, uint16_t entry, FlexCounter::Counter* counter) const {
  return counters_.find(counterKey(group, entry), counter);
}

bool GroupTables::count(GroupId group, uint16_t entry, uint64_t packets, uint64_t octets) {
  FlexCounter::Counter counter;
  if (!find(group, entry, &counter)) return false;
  counter.packets += packets;
  counter.octets += octets;
  return counters_.write(counter);
}

bool GroupTables::clear(GroupId group, uint16_t entry) {
  FlexCounter::Counter counter;
  return find(group, entry, &counter) && snapshots_.write(counter);
}

}  // namespace ryx::routing
