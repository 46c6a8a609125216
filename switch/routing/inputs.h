// What the state asks to be routed, told to a resolver: the routes, label routes, VRF labels and
// nexthop groups of all agents, the addresses of interfaces, interfaces that are up, VRFs.
//
// A VRF is there while it has a directory for the agents' routes. An interface's addresses are
// networks that are connected, and destinations of the switch's own, in the interface's VRF. Of
// several agents' nexthop groups of one name that of the agent whose name comes first counts.
//
// Under the activity lock.
#pragma once

#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "platform/model/ip.h"
#include "platform/qel/reactor.h"
#include "switch/routing/resolver.h"

namespace ryx::routing {

class Inputs final : private platform::JournalReactor {
 public:
  // `tree` outlives it. What there is when it starts is told before it returns.
  Inputs(platform::Tree& tree, Programmer& programmer);

 private:
  void onEntity(platform::Entity& entity, platform::Change change) override;
  void onRoute(platform::Routing::Route& route, platform::Change change);
  void onLabelRoute(platform::Mpls::Route& route, platform::Change change);
  void onVrfLabel(platform::Mpls::VrfLabel& label, platform::Change change);
  void onGroup(platform::Routing::NexthopGroup::NexthopGroupConfigEntry& group,
               platform::Change change);
  void onDir(platform::Dir& dir, platform::Change change);
  void showAddresses(platform::IntfId intf);

  platform::Tree& tree_;
  platform::Dir& vrfs_;
  platform::Ip::Status& ip_;
  platform::Ip6::Status& ip6_;
  platform::Ip::IntfVrfConfig& intfVrfs_;
  Resolver resolver_;

  struct Network {
    platform::Name vrf;
    platform::IpPrefix prefix;
    Owner::Kind kind;
    bool operator==(const Network&) const = default;
    bool operator<(const Network& o) const {
      return std::tie(vrf, prefix, kind) < std::tie(o.vrf, o.prefix, o.kind);
    }
  };
  std::unordered_map<platform::IntfId, std::vector<Network>> networks_;  // as they were told
  // The groups of each name, mostly one.
  using Group = platform::Routing::NexthopGroup::NexthopGroupConfigEntry;
  std::unordered_map<platform::Name, std::vector<platform::Ref<Group>>> groups_;
  // Whose the input is that routes stand in.
  struct Input {
    platform::Ref<platform::Entity> entity;
    platform::Name agent, vrf;
  };
  const Input& inputOf(const platform::Entity& entity);
  Input input_;
};

}  // namespace ryx::routing
