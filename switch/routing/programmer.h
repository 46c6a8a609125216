// What a data plane is to the resolver: an object that programs what it is told and says what came
// of it. One is a simulation (switch/sim), one a kernel; the next is one more class.
//
//   a *next hop*   one way out of the switch: a neighbour at an interface, and what is done to a
//                  packet on the way there. Equal ones are one.
//   a *group*      what packets of one class do (a FEC, RFC 3031): a list of next hops with
//                  weights. One that agents configured has its name.
//   a *route*      a prefix, in a VRF, or an incoming label, and its group.
//
// The order of calls: next hops before the groups that have them, groups before the routes that
// use them; to take away, the other way round. So no call ever refers to what is not there, and
// what is replaced is never missing meanwhile: a group is set anew under its routes, a route moved
// to another group in one call.
//
// Under the activity lock.
#pragma once

#include <compare>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/model/nexthop_group.h"
#include "platform/types/eth.h"

namespace ryx::routing {

// A tunnel that packets are put into.
struct Tunnel {
  enum class Type : uint8_t { none, ipInIp, gre, vxlan };
  Type type = Type::none;
  uint8_t ttl = 0;  // 0: the packet's own
  bool hasGreKey = false;
  uint32_t vni = 0;  // of VXLAN (RFC 7348), with the router's MAC address
  platform::IpAddr source = {};
  platform::IntfId sourceIntf = {};  // whose address is the source when there is no other
  platform::IpAddr destination = {};
  platform::MacAddr routerMac = {};
  auto operator<=>(const Tunnel&) const = default;
};

struct NextHop {
  platform::IpAddr hop = {};  // none: where the packet goes to is itself at the interface's link
  platform::IntfId intf = {};
  // What is done with the label that the packet came with, or, of an IP packet, push or none.
  platform::Mpls::Action action = platform::Mpls::Action::none;
  std::vector<uint32_t> labels = {};  // that it leaves with, the outermost first
  Tunnel tunnel = {};
  auto operator<=>(const NextHop&) const = default;
};
using NextHopId = uint32_t;
using GroupId = uint64_t;  // from 1

struct GroupMember {
  const NextHop* nextHop;  // as long as it is programmed
  NextHopId id;
  uint32_t weight;
};

enum class GroupKind : uint8_t {
  forward,  // by its members
  drop,
  receive,  // packets are for the switch itself
  vrf,      // a label's: packets are looked up in a VRF
};

struct Group {
  GroupId id = 0;
  GroupKind kind = GroupKind::forward;
  platform::Name name;  // of a configured nexthop group, or of the VRF
  std::span<const GroupMember> members;
  // Of a configured group: the numbers of its entries, ascending.
  std::span<const uint16_t> entries;
};

struct RouteKey {
  bool isLabel = false;
  platform::Name vrf = {};         // of a prefix
  platform::IpPrefix prefix = {};  // of a prefix
  uint32_t label = 0;              // of a label
};

enum class RouteOrigin : uint8_t { receive, connected, agent };

struct RouteValue {
  RouteOrigin origin = RouteOrigin::agent;
  bool isOfGroup = false;   // an agent's route that names a nexthop group
  uint32_t preference = 0;  // administrative distance; of a label its metric
  GroupId group = 0;
  bool operator==(const RouteValue&) const = default;
};

// What a programmer says: at once, from within the call that asked for it, or later.
class Outcomes {
 public:
  virtual ~Outcomes() = default;
  // What was asked last of this group, or route, was done; or it was not, and why. What is not told
  // of counts as done: a programmer that never refuses needs to say nothing. A group that was
  // refused has no routes for as long, and is removed as others are; a route that was refused is
  // not there.
  virtual void groupOutcome(GroupId group, const std::string& refusal) = 0;
  virtual void routeOutcome(const RouteKey& route, const std::string& refusal) = 0;
  // What was refused may do now: it is asked again.
  virtual void retry() = 0;
};

class Programmer {
 public:
  virtual ~Programmer() = default;

  virtual void outcomesAre(Outcomes& outcomes) = 0;

  virtual void addVrf(const platform::Name& vrf) = 0;
  // It has no routes any more.
  virtual void removeVrf(const platform::Name& vrf) = 0;

  virtual void addNextHop(NextHopId id, const NextHop& nextHop) = 0;
  virtual void removeNextHop(NextHopId id) = 0;
  // A new group, or in the place of the one of this number.
  virtual void setGroup(const Group& group) = 0;
  virtual void removeGroup(GroupId id) = 0;
  // `before`: what the route was; null: it is new.
  virtual void setRoute(const RouteKey& key, const RouteValue& value, const RouteValue* before) = 0;
  virtual void removeRoute(const RouteKey& key, const RouteValue& before) = 0;

  // Nothing more is to be told for now: what was told is what there is to be.
  virtual void settled() {}
};

}  // namespace ryx::routing
