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
  showCounters(group);
  NexthopGroup::EntryStatus row;
  row.key = group.id;
  row.name = FixedText<256>(group.name.view());
  std::vector<Fib::Via> vias;
  vias.reserve(group.members.size());
  for (const GroupMember& member : group.members)
    vias.push_back(viaOf(*member.nextHop, member.weight));
  groups_.write(row, vias);
}

// When the entries are others, they have another block, filled before it is pointed to: whoever
// reads meanwhile finds what an entry has counted, or nothing.
void GroupTables::showCounters(const Group& group) {
  const Keys before = keysOf(group.id);
  const auto isSame = [](const platform::Tunnel::CounterKey& key, uint16_t entry) {
    return key.entry == entry;
  };
  if (std::equal(before.begin(), before.end(), group.entries.begin(), group.entries.end(), isSame))
    return;
  const Counts counted = countsOf(counters_, before), cleared = countsOf(snapshots_, before);
  const uint64_t block = ++lastBlock_;
  Keys keys;
  Counts counts(group.entries.size()), snapshot(cleared.empty() ? 0 : group.entries.size());
  keys.reserve(group.entries.size());
  for (const uint16_t entry : group.entries) {
    const auto place = static_cast<uint32_t>(keys.size());
    keys.push_back({entry, kFeature, kSlice, place, block});
    const platform::Tunnel::CounterKey* old = keyOf(before, entry);
    if (!old) continue;
    counts[place] = counted[old->place];
    if (!cleared.empty()) snapshot[place] = cleared[old->place];
  }
  if (!snapshot.empty()) snapshots_.write({block}, snapshot);
  counters_.write({block}, counts);
  keys_.write({group.id}, keys);
  if (before.empty()) return;
  counters_.remove(before.front().block);
  snapshots_.remove(before.front().block);
}

void GroupTables::hide(GroupId id) {
  groups_.remove(id);
  const Keys keys = keysOf(id);
  keys_.remove(id);
  if (keys.empty()) return;
  counters_.remove(keys.front().block);
  snapshots_.remove(keys.front().block);
}

GroupId GroupTables::named(const Name& name) const {
  for (auto it = groups_.iterator(); it; it.next())
    if (it.row().name.view() == name.view()) return it.key();
  return 0;
}

GroupTables::Keys GroupTables::keysOf(GroupId group) const {
  platform::Tunnel::NexthopCounterKeyInfo row;
  Keys keys;
  keys_.find(group, &row, &keys);
  return keys;
}

GroupTables::Counts GroupTables::countsOf(const Counters& table, const Keys& keys) {
  FlexCounter::Counter row;
  Counts counts;
  if (!keys.empty()) table.find(keys.front().block, &row, &counts);
  return counts;
}

const platform::Tunnel::CounterKey* GroupTables::keyOf(const Keys& keys, uint16_t entry) {
  const auto at = std::find_if(keys.begin(), keys.end(),
                               [entry](const auto& key) { return key.entry == entry; });
  return at == keys.end() ? nullptr : &*at;
}

bool GroupTables::count(GroupId group, uint16_t entry, uint64_t packets, uint64_t octets) {
  const Keys keys = keysOf(group);
  const platform::Tunnel::CounterKey* key = keyOf(keys, entry);
  if (!key) return false;
  Counts counts = countsOf(counters_, keys);
  counts[key->place].packets += packets;
  counts[key->place].octets += octets;
  return counters_.write({key->block}, counts);
}

bool GroupTables::clear(GroupId group, uint16_t entry) {
  const Keys keys = keysOf(group);
  const platform::Tunnel::CounterKey* key = keyOf(keys, entry);
  if (!key) return false;
  const Counts counts = countsOf(counters_, keys);
  Counts snapshot = countsOf(snapshots_, keys);
  snapshot.resize(counts.size());
  snapshot[key->place] = counts[key->place];
  return snapshots_.write({key->block}, snapshot);
}

}  // namespace ryx::routing
