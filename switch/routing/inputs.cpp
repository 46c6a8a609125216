#include "switch/routing/inputs.h"

#include <algorithm>

#include "platform/model/interface.h"

namespace ryx::routing {

using namespace platform;
using Routing::NexthopGroup::NexthopGroupConfigEntry;

namespace {

constexpr const char* kVrfs = "routing/vrf/input";

GroupConfig configOf(const NexthopGroupConfigEntry& group) {
  GroupConfig config;
  config.type = group.type();
  config.ttl = group.ttl();
  config.hasGreKey = group.greKeyType();
  config.source = group.sourceIp();
  config.sourceIntf = group.intfId();
  config.entries.reserve(group.destinationIp().size());
  for (const auto& destination : group.destinationIp())
    if (!destination.addr.isNull())
      config.entries.push_back({destination.entry, destination.addr, {}});
  // Whoever wrote it: each number once, ascending.
  const auto isBefore = [](const auto& a, const auto& b) { return a.number < b.number; };
  const auto isSame = [](const auto& a, const auto& b) { return a.number == b.number; };
  std::stable_sort(config.entries.begin(), config.entries.end(), isBefore);
  config.entries.erase(std::unique(config.entries.begin(), config.entries.end(), isSame),
                       config.entries.end());
  const auto& stacks = group.mplsLabelStack();
  if (!stacks.empty())
    for (GroupConfig::Entry& entry : config.entries)
      if (const auto at = stacks.find(entry.number); at != stacks.end()) entry.mpls = at->second;
  return config;
}

const Name& agentOf(const Entity& entity) {
  return *static_cast<const Name*>(entity.parent()->keyData());
}

}  // namespace

Inputs::Inputs(Tree& tree, Programmer& programmer)
    : JournalReactor("routing inputs"),
      tree_(tree),
      vrfs_(*tree.make<Dir>(kVrfs)),
      ip_(*tree.make<Ip::Status>("ip/status")),
      ip6_(*tree.make<Ip6::Status>("ip6/status")),
      intfVrfs_(*tree.make<Ip::IntfVrfConfig>("ip/vrf/intf")),
      resolver_(programmer, [this] { return queued(); }) {
  for (const char* place : {kVrfs, "routing6/vrf/input", "routing/nexthopgroup/input/config",
                            "routing/mpls/route/input/dynamic",
                            "routing/mpls/vrfLabel/input/dynamic", "interface/status"})
    follow(*tree.make<Dir>(place)->childJournal(), true);
  follow(ip_.journal);
  follow(ip6_.journal);
  follow(intfVrfs_.journal);
  hearAll();
}

void Inputs::onEntity(Entity& entity, Change change) {
  if (auto* route = entity.as<Routing::Route>()) return onRoute(*route, change);
  if (auto* group = entity.as<NexthopGroupConfigEntry>()) return onGroup(*group, change);
  if (auto* route = entity.as<Mpls::Route>()) return onLabelRoute(*route, change);
  if (auto* label = entity.as<Mpls::VrfLabel>()) return onVrfLabel(*label, change);
  if (auto* dir = entity.as<Dir>()) return onDir(*dir, change);
  if (const auto* intf = entity.as<Interface::IntfStatus>()) {
    const bool isUp = intf->operStatus() == static_cast<uint8_t>(Interface::OperStatus::up);
    return resolver_.interfaceIs(intf->key(), isUp && change != Change::deleted);
  }
  if (const auto* status = entity.as<Ip::IpIntfStatus>()) return showAddresses(status->key());
  if (const auto* status = entity.as<Ip6::IntfStatus>()) return showAddresses(status->key());
  if (const auto* vrf = entity.as<Ip::IntfVrf>()) return showAddresses(vrf->key());
}

const Inputs::Input& Inputs::inputOf(const Entity& entity) {
  Entity* parent = entity.parent();
  if (parent != input_.entity.get()) {
    input_.entity = Ref<Entity>(parent);
    input_.agent = *static_cast<const Name*>(parent->keyData());
    input_.vrf = *static_cast<const Name*>(parent->parent()->keyData());
  }
  return input_;
}

void Inputs::onRoute(Routing::Route& route, Change change) {
  const Input& from = inputOf(route);
  const Owner owner{Owner::Kind::agent, from.agent, {}};
  if (change == Change::deleted)
    resolver_.removeRoute(from.vrf, route.key().prefix, route.key().preference, owner);
  else
    resolver_.setRoute(from.vrf, route, owner);
}

void Inputs::onLabelRoute(Mpls::Route& route, Change change) {
  const Owner owner{Owner::Kind::agent, inputOf(route).agent, {}};
  if (change == Change::deleted)
    resolver_.removeLabelRoute(route.key().label.value(), route.key().metric, owner);
  else
    resolver_.setLabelRoute(route, owner);
}

void Inputs::onVrfLabel(Mpls::VrfLabel& label, Change change) {
  const Owner owner{Owner::Kind::vrfLabel, inputOf(label).agent, {}};
  if (change == Change::deleted)
    resolver_.removeLabelRoute(label.key().value(), 0, owner);
  else
    resolver_.setVrfLabel(label.key().value(), Name(label.vrfName().bytes()), owner);
}

void Inputs::onGroup(NexthopGroupConfigEntry& group, Change change) {
  const Name name = group.key();
  auto& there = groups_[name];
  const auto at = std::find(there.begin(), there.end(), Ref<Group>(&group));
  if (change == Change::deleted && at != there.end()) there.erase(at);
  if (change != Change::deleted && at == there.end()) there.emplace_back(&group);
  if (there.empty()) {
    groups_.erase(name);
    return resolver_.removeGroup(name);
  }
  const auto byAgent = [](const Ref<Group>& a, const Ref<Group>& b) {
    return agentOf(*a) < agentOf(*b);
  };
  resolver_.setGroup(name, configOf(**std::min_element(there.begin(), there.end(), byAgent)));
}

void Inputs::onDir(Dir& dir, Change change) {
  if (dir.parent() != &vrfs_ || change == Change::changed) return;
  resolver_.vrfIs(dir.key(), change == Change::created);
}

void Inputs::showAddresses(IntfId intf) {
  const auto* vrf = intfVrfs_.intf.find(intf);
  const Name in = vrf && !vrf->vrf().empty() ? vrf->vrf() : Name(kDefaultVrf);
  std::vector<IpAddrMask> addrs;
  if (const auto* status = ip_.ipIntfStatus.find(intf))
    addrs = Ip::allOf(status->activeAddrWithMask(), status->activeSecondaryWithMask());
  if (const auto* status = ip6_.intf.find(intf))
    addrs.insert(addrs.end(), status->activeAddr().begin(), status->activeAddr().end());

  std::vector<Network> now;
  for (const IpAddrMask& addr : addrs) {
    now.push_back({in, addr.subnet(), Owner::Kind::connected});
    now.push_back({in, {addr.addr(), addr.addr().maxLength()}, Owner::Kind::receive});
  }
  std::sort(now.begin(), now.end());
  now.erase(std::unique(now.begin(), now.end()), now.end());
  std::vector<Network>& before = networks_[intf];
  for (const Network& net : now)
    if (!std::binary_search(before.begin(), before.end(), net))
      resolver_.setConnected(net.vrf, net.prefix, {net.kind, {}, intf});
  for (const Network& net : before)
    if (!std::binary_search(now.begin(), now.end(), net))
      resolver_.removeRoute(net.vrf, net.prefix, 0, {net.kind, {}, intf});
  before = std::move(now);
  if (before.empty()) networks_.erase(intf);
}

}  // namespace ryx::routing
