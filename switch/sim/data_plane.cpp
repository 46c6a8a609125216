#include "switch/sim/data_plane.h"

#include <iterator>
#include <span>

namespace ryx::sim {

using namespace platform;
using routing::GroupId;
using routing::GroupKind;
using routing::RouteKey;
using routing::RouteOrigin;
using routing::RouteValue;
using GroupType = platform::Routing::NexthopGroup::Type;
using Mpls::Action;
using Mpls::Hardware::AdjType;

namespace {

constexpr uint32_t kMaxLabels = 6;

constexpr std::pair<const char*, GroupType> kTypes[] = {{"ip-in-ip", GroupType::ipInIp},
                                                        {"gre", GroupType::gre},
                                                        {"mpls", GroupType::mpls},
                                                        {"mpls-over-gre", GroupType::mplsOverGre},
                                                        {"ip", GroupType::ip}};
constexpr std::pair<const char*, Action> kActions[] = {{"push", Action::push},
                                                       {"pop", Action::pop},
                                                       {"swap", Action::swap},
                                                       {"forward", Action::forward}};

template <class Value, size_t N>
const Value* named(const std::pair<const char*, Value> (&table)[N], std::string_view name) {
  for (const auto& [text, value] : table)
    if (name == text) return &value;
  return nullptr;
}

Fib::RouteType typeOf(const RouteValue& value) {
  switch (value.origin) {
    case RouteOrigin::receive:
      return Fib::RouteType::receive;
    case RouteOrigin::connected:
      return Fib::RouteType::connected;
    case RouteOrigin::agent:
      break;
  }
  return value.isOfGroup ? Fib::RouteType::nexthopGroup : Fib::RouteType::staticConfig;
}

}  // namespace

// --- the tables of a VRF ------------------------------------------------------------------------

// One family's: its routes, and the FECs that they use.
class DataPlane::Family {
 public:
  virtual ~Family() = default;
  virtual void offer() = 0;
  virtual bool set(const IpPrefix& prefix, const RouteValue& value) = 0;
  virtual void remove(const IpPrefix& prefix) = 0;
  // The FEC's vias are others, if it is used here.
  virtual void changed(GroupId id) = 0;
  // A route uses it no more.
  virtual void leave(GroupId id) = 0;
};

template <class RouteRow, class FecRow>
class DataPlane::FamilyOf final : public Family {
 public:
  FamilyOf(const DataPlane& plane, const std::string& version, const std::string& vrf)
      : plane_(plane),
        routes_(plane.tree_.tables(), "routing" + version + "/vrf/status/" + vrf,
                mirra::Mode::write),
        fecs_(plane.tree_.tables(), "forwarding" + version + "/vrf/status/" + vrf,
              mirra::Mode::write) {}

  void offer() override {
    fecs_.offer();
    routes_.offer();
  }
  // The FEC first: who sees the route finds it.
  bool set(const IpPrefix& prefix, const RouteValue& value) override {
    const bool hasFec = users_[value.group]++ != 0 || writeFec(value.group);
    RouteRow row;
    row.key = prefix;
    row.preference = static_cast<uint8_t>(value.preference);
    row.routeType = typeOf(value);
    row.fecId = value.group;
    if (hasFec && routes_.write(row)) return true;
    leave(value.group);
    return false;
  }
  void remove(const IpPrefix& prefix) override { routes_.remove(prefix); }
  void changed(GroupId id) override {
    if (users_.count(id)) writeFec(id);
  }
  void leave(GroupId id) override {
    const auto at = users_.find(id);
    if (at == users_.end() || --at->second != 0) return;
    users_.erase(at);
    fecs_.remove(id);
  }

 private:
  bool writeFec(GroupId id) {
    FecRow row;
    row.key = id;
    return fecs_.write(row, plane_.viasOf(plane_.groups_.at(id)));
  }

  const DataPlane& plane_;
  mirra::Table<RouteRow> routes_;
  mirra::Table<FecRow> fecs_;
  std::unordered_map<GroupId, size_t> users_;  // routes of each FEC
};

// --- the data plane -----------------------------------------------------------------------------

DataPlane::DataPlane(Tree& tree)
    : tree_(tree),
      mpls_(*tree.make<Mpls::Hardware::Status>("routing/hardware/mpls/status")),
      groupTables_(tree) {
  for (const auto& [name, type] : kTypes)
    capabilities_[type] = {
        type, kMaxLabels, {Action::push, Action::pop, Action::swap, Action::forward}};
  showCapabilities();
}

DataPlane::~DataPlane() = default;

void DataPlane::showCapabilities() const {
  std::vector<routing::Capability> all;
  for (const auto& [type, capability] : capabilities_) all.push_back(capability);
  routing::showCapabilities(tree_, all);
}

void DataPlane::addVrf(const Name& vrf) {
  const std::string name(vrf.view());
  Vrf& made = vrfs_[vrf];
  made.ip = std::make_unique<FamilyOf<Fib::RouteStatus, Fib::ForwardingStatus>>(*this, "", name);
  made.ip6 =
      std::make_unique<FamilyOf<Fib::RouteStatus6, Fib::ForwardingStatus6>>(*this, "6", name);
}

void DataPlane::removeVrf(const Name& vrf) {
  vrfs_.erase(vrf);
}

// A table is handed over when it is filled: who read that of an earlier life sees what differs.
void DataPlane::settled() {
  for (auto& [name, vrf] : vrfs_) {
    if (std::exchange(vrf.isOffered, true)) continue;
    vrf.ip->offer();
    vrf.ip6->offer();
  }
  if (std::exchange(hasSettled_, true)) return;
  eraseStrangers();
  if (const auto then = std::exchange(whenSettled_, nullptr)) then();
}

void DataPlane::whenSettled(std::function<void()> then) {
  if (hasSettled_) return then();
  whenSettled_ = std::move(then);
}

// What an earlier life left in the state.
void DataPlane::eraseStrangers() {
  for (auto it = mpls_.route.iterator(); it; it.next())
    if (!groups_.count(it->adj().index)) mpls_.route.remove(*it);
  for (auto it = mpls_.adjacency.iterator(); it; it.next())
    if (const auto at = groups_.find(it.key()); at == groups_.end() || at->second.labels == 0)
      mpls_.adjacency.remove(*it);
  for (auto it = mpls_.l2Adjacency.iterator(); it; it.next())
    if (!mpls_.adjacency.find(it.key())) mpls_.l2Adjacency.remove(*it);
}

DataPlane::Family& DataPlane::family(const RouteKey& key) {
  Vrf& vrf = vrfs_.at(key.vrf);
  return key.prefix.af() == Af::ipv4 ? *vrf.ip : *vrf.ip6;
}

void DataPlane::addNextHop(routing::NextHopId id, const routing::NextHop& nextHop) {
  if (nextHops_.size() <= id) nextHops_.resize(id + 1);
  nextHops_[id] = nextHop;
}

void DataPlane::removeNextHop(routing::NextHopId id) {
  nextHops_[id] = {};
}

std::vector<Fib::Via> DataPlane::viasOf(const Group& group) const {
  std::vector<Fib::Via> vias;
  vias.reserve(group.ways.size());
  for (const Group::Way& way : group.ways)
    vias.push_back(routing::viaOf(nextHops_[way.nextHop], way.weight));
  Fib::Via nowhere;
  if (group.kind == GroupKind::drop && parse("Null0", &nowhere.intf)) vias.push_back(nowhere);
  return vias;
}

SmallSet<Mpls::Hardware::L2Via> DataPlane::labelViasOf(const Group& group) const {
  SmallSet<Mpls::Hardware::L2Via> vias;
  for (const Group::Way& way : group.ways) {
    const routing::NextHop& next = nextHops_[way.nextHop];
    vias.insert({next.hop, next.intf, next.action,
                 next.labels.empty() ? Mpls::kNoLabel : next.labels.back()});
  }
  return vias;
}

void DataPlane::setGroup(const routing::Group& told) {
  Group& group = groups_[told.id];
  group.kind = told.kind;
  group.ways.clear();
  group.ways.reserve(told.members.size());
  for (const routing::GroupMember& member : told.members)
    group.ways.push_back({member.id, member.weight});
  for (auto& [name, vrf] : vrfs_) {
    vrf.ip->changed(told.id);
    vrf.ip6->changed(told.id);
  }
  if (group.labels != 0) mpls_.l2Adjacency.create(told.id)->via.set(labelViasOf(group));
  if (told.kind == GroupKind::forward && !told.name.empty()) groupTables_.show(told);
}

void DataPlane::removeGroup(GroupId id) {
  groups_.erase(id);
  groupTables_.hide(id);
}

void DataPlane::setRoute(const RouteKey& key, const RouteValue& value, const RouteValue* before) {
  if (key.isLabel) {
    setLabel(key.label, value);
    if (before) leaveLabel(before->group);
    return;
  }
  Family& there = family(key);
  const bool isSet = there.set(key.prefix, value);
  if (before && !isSet) there.remove(key.prefix);
  if (before) there.leave(before->group);
  if (isSet) return;
  hasRefused_ = true;
  outcomes_->routeOutcome(key, "the table is full");
}

void DataPlane::removeRoute(const RouteKey& key, const RouteValue& before) {
  if (key.isLabel) {
    mpls_.route.erase(Mpls::Label(key.label));
    return leaveLabel(before.group);
  }
  family(key).remove(key.prefix);
  family(key).leave(before.group);
  if (std::exchange(hasRefused_, false)) outcomes_->retry();  // there is room now
}

void DataPlane::setLabel(uint32_t label, const RouteValue& value) {
  Group& group = groups_.at(value.group);
  const bool isForwarded = group.kind == GroupKind::forward;
  if (group.labels++ == 0 && isForwarded) {
    mpls_.l2Adjacency.create(value.group)->via.set(labelViasOf(group));
    mpls_.adjacency.create(value.group)->l2Adjacency.set(value.group);
  }
  auto* route = mpls_.route.create(Mpls::Label(label));
  route->adj.set({isForwarded ? AdjType::mplsIp : AdjType::vrfLookup, value.group});
  route->metric.set(value.preference);
}

void DataPlane::leaveLabel(GroupId id) {
  Group& group = groups_.at(id);
  if (--group.labels != 0) return;
  mpls_.adjacency.erase(id);
  mpls_.l2Adjacency.erase(id);
}

// --- commands -----------------------------------------------------------------------------------

std::string DataPlane::capability(const Arguments& arguments) {
  const GroupType* type = named(kTypes, arguments[0].text);
  if (!type)
    return "the type " + inQuotes(arguments[0].text) +
           "; expected ip-in-ip, gre, mpls, mpls-over-gre or ip";
  routing::Capability made{*type, arguments[1].number, {}};
  std::string_view rest = arguments[2].text;
  while (rest != "-" && !rest.empty()) {
    const size_t comma = std::min(rest.find(','), rest.size());
    const Action* action = named(kActions, rest.substr(0, comma));
    if (!action)
      return "the action " + inQuotes(rest.substr(0, comma)) +
             "; expected push, pop, swap, forward, several with commas, or - for none";
    made.actions.push_back(*action);
    rest.remove_prefix(std::min(comma + 1, rest.size()));
  }
  if (arguments[1].text == "none")
    capabilities_.erase(*type);
  else
    capabilities_[*type] = made;
  showCapabilities();
  return {};
}

std::string DataPlane::count(const Arguments& arguments) {
  const GroupId group = groupTables_.named(Name(arguments[0].text));
  const auto entry = static_cast<uint16_t>(arguments[1].number);
  if (group && groupTables_.count(group, entry, arguments[2].number, arguments[3].number))
    return {};
  return "no nexthop group " + inQuotes(arguments[0].text) + " with an entry " + arguments[1].text +
         " is programmed; expected one that is";
}

std::string DataPlane::clear(const Arguments& arguments) {
  const GroupId group = groupTables_.named(Name(arguments[0].text));
  if (group && groupTables_.clear(group, static_cast<uint16_t>(arguments[1].number))) return {};
  return "no nexthop group " + inQuotes(arguments[0].text) + " with an entry " + arguments[1].text +
         " is programmed; expected one that is";
}

}  // namespace ryx::sim
