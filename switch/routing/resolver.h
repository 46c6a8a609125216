// The resolver: what everybody asks to be routed, and what the data plane is told of it.
//
//   owners' routes  -->  one *entry* a destination  -->  the best usable route's *FEC*
//                                                           |  vias
//                              interfaces, up or down  <----+---->  *hops* (addresses without an
//                                                                   interface), which an entry
//                                                                   covers, which has a FEC ...
//
// A destination is a prefix in a VRF, or an incoming label. Of its routes the one of the lowest
// preference (administrative distance) that is usable is programmed; of equal ones that of the
// owner whose name comes first. A route is usable when it drops, or at least one of its vias leads
// out of the switch: by an interface that is up, or by a next hop.
//
// **Next hops.** An address is resolved by the most specific prefix in its VRF for which anybody
// has a route, usable or not: connected, it is a neighbour at that interface; else it goes where
// that prefix goes, through as many steps as there are. While that prefix has no usable route, or
// drops, the next hop is not resolved. A next hop that would be resolved by way of itself is not.
// So what is resolved follows from what there is, whatever came first.
//
// **FECs.** Routes of the same vias in one VRF share one, those to a nexthop group its own; a
// change of what vias resolve to is one change of a group, however many routes use it.
//
// **Nexthop groups** are resolved in the default VRF. Routes may name one that is not there: they
// are not usable until it comes. But a route that is in use and moves to a group that is not there
// goes on as it was until the group comes, or kGroupWait has passed. When a group goes its routes
// are not usable any more; when it comes again they are.
//
// Changes are noted when they are told, and worked off by the loop in slices: each touches what
// depends on it and nothing else. The programmer is told when nothing is left to be resolved, in
// its order. Under the activity lock. docs/routing.md tells the whole road.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "platform/model/nexthop_group.h"
#include "platform/model/routing.h"
#include "switch/routing/programmer.h"

namespace ryx::routing {

// Who has routes.
struct Owner {
  enum class Kind : uint8_t { receive, connected, agent, vrfLabel };  // the first counts first
  Kind kind = Kind::agent;
  platform::Name name;    // of an agent
  platform::IntfId intf;  // of what is connected
  bool operator==(const Owner&) const = default;
};

// What a nexthop group is configured as.
struct GroupConfig {
  struct Entry {
    uint16_t number = 0;
    platform::IpAddr destination;
    platform::Routing::NexthopGroup::MplsAction mpls;
    bool operator==(const Entry&) const = default;
  };
  platform::Routing::NexthopGroup::Type type = platform::Routing::NexthopGroup::Type::none;
  uint8_t ttl = 0;
  bool hasGreKey = false;
  platform::IpAddr source;
  platform::IntfId sourceIntf;
  std::vector<Entry> entries;  // those that have a destination, by their numbers
  bool operator==(const GroupConfig&) const = default;
};

class Resolver final {
 public:
  // Named bound, seconds: so long a route that moved to a group that is not there goes on as it
  // was.
  static constexpr double kGroupWait = 5;

  // `isHearing`: whether there is more to be told. What a deletion takes away is taken away only
  // when who tells has told on, or has told all: a route that is made anew is never missing.
  Resolver(Programmer& programmer, std::function<bool()> isHearing);
  ~Resolver();
  Resolver(const Resolver&) = delete;

  // --- what there is ---

  void vrfIs(const platform::Name& vrf, bool exists);
  void interfaceIs(platform::IntfId intf, bool isUp);
  void setGroup(const platform::Name& name, GroupConfig config);
  void removeGroup(const platform::Name& name);

  // --- routes: at each destination one of an owner and preference (of a label: metric) ---

  void setConnected(const platform::Name& vrf, const platform::IpPrefix& prefix,
                    const Owner& owner);
  void setRoute(const platform::Name& vrf, const platform::Routing::Route& route,
                const Owner& owner);
  void removeRoute(const platform::Name& vrf, const platform::IpPrefix& prefix, uint32_t preference,
                   const Owner& owner);
  void setLabelRoute(const platform::Mpls::Route& route, const Owner& owner);
  void setVrfLabel(uint32_t label, const platform::Name& vrf, const Owner& owner);
  void removeLabelRoute(uint32_t label, uint32_t metric, const Owner& owner);

  // --- what became of it ---

  struct Counters {
    uint64_t chosen = 0;      // how often an entry's routes were compared
    uint64_t programmed = 0;  // calls to the programmer
    size_t fecs = 0, nextHops = 0, refused = 0;
  };
  Counters counters() const;

 private:
  class Core;
  const std::unique_ptr<Core> core_;
};

}  // namespace ryx::routing
