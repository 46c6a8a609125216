// The resolver against one that computes everything anew, over random histories; and what it must
// not do: touch what a change does not concern, or break before it makes.
#include "switch/routing/resolver.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <set>
#include <tuple>

#include "platform/activity/activity.h"
#include "platform/base/clock.h"
#include "tests/support/parsed.h"
#include "tests/support/random_runs.h"

namespace ryx {
namespace {

using namespace platform;
using namespace routing;
using platform::Routing::RouteType;
using GroupType = platform::Routing::NexthopGroup::Type;
using Ways = std::map<NextHop, uint32_t>;

IpPrefix prefix(const std::string& text) {
  return test::parsed<IpPrefix>(text);
}
IpAddr addr(const std::string& text) {
  return test::parsed<IpAddr>(text);
}
IntfId intf(const std::string& text) {
  return test::id(text);
}

struct Forwarding {
  GroupKind kind = GroupKind::forward;
  Name vrf;  // that a label is looked up in
  RouteOrigin origin = RouteOrigin::agent;
  uint32_t preference = 0;
  Ways ways;
  bool operator==(const Forwarding&) const = default;
};

// A label is a destination of no VRF.
using Destination = std::tuple<std::string, IpPrefix, uint32_t>;

// A data plane that holds what it is told, and insists on the order.
class DataPlane final : public Programmer {
 public:
  void outcomesAre(Outcomes& listener) override { outcomes = &listener; }
  void addVrf(const Name& vrf) override { EXPECT_TRUE(vrfs_.insert(std::string(vrf)).second); }
  void removeVrf(const Name& vrf) override {
    EXPECT_EQ(1u, vrfs_.erase(std::string(vrf)));
    for (const auto& [at, value] : routes_) EXPECT_NE(vrf.view(), std::get<0>(at));
  }
  void addNextHop(NextHopId id, const NextHop& nextHop) override {
    EXPECT_TRUE(nextHops_.emplace(id, nextHop).second);
  }
  void removeNextHop(NextHopId id) override {
    EXPECT_EQ(1u, nextHops_.erase(id));
    for (const auto& [group, value] : groups_)
      for (const GroupMember& member : value.members)
        EXPECT_NE(id, member.id) << "still in a group";
  }
  void setGroup(const Group& group) override {
    ++calls;
    Stored& stored = groups_[group.id];
    stored = {group.kind, group.name, {group.members.begin(), group.members.end()}};
    for (const GroupMember& member : group.members) EXPECT_EQ(1u, nextHops_.count(member.id));
  }
  void removeGroup(GroupId id) override {
    ++calls;
    EXPECT_EQ(1u, groups_.erase(id));
    for (const auto& [at, value] : routes_) EXPECT_NE(id, value.group) << "still has a route";
  }
  void setRoute(const RouteKey& key, const RouteValue& value, const RouteValue* before) override {
    ++calls;
    EXPECT_EQ(1u, groups_.count(value.group));
    EXPECT_TRUE(key.isLabel || vrfs_.count(std::string(key.vrf)));
    const auto at = routes_.find(destination(key));
    ASSERT_EQ(before != nullptr, at != routes_.end());
    EXPECT_TRUE(!before || at->second == *before);
    routes_[destination(key)] = value;
  }
  void removeRoute(const RouteKey& key, const RouteValue& before) override {
    ++calls;
    ++removals;
    const auto at = routes_.find(destination(key));
    ASSERT_NE(at, routes_.end());
    EXPECT_TRUE(at->second == before);
    routes_.erase(at);
  }

  GroupId groupOf(const RouteKey& key) const { return routes_.at(destination(key)).group; }
  // It has it not.
  void refuse(const RouteKey& key) { routes_.erase(destination(key)); }

  std::map<Destination, Forwarding> all() const {
    std::map<Destination, Forwarding> all;
    for (const auto& [at, value] : routes_) {
      const Stored& group = groups_.at(value.group);
      Forwarding f{group.kind, {}, value.origin, value.preference, waysOf(group)};
      if (group.kind == GroupKind::vrf) f.vrf = group.name;
      all.emplace(at, f);
    }
    return all;
  }
  std::map<std::string, Ways> named() const {
    std::map<std::string, Ways> all;
    for (const auto& [id, group] : groups_)
      if (group.kind == GroupKind::forward && !group.name.empty())
        all.emplace(group.name.view(), waysOf(group));
    return all;
  }
  size_t groups() const { return groups_.size(); }
  size_t nextHops() const { return nextHops_.size(); }

  Outcomes* outcomes = nullptr;
  uint64_t calls = 0, removals = 0;

 private:
  struct Stored {
    GroupKind kind;
    Name name;
    std::vector<GroupMember> members;
  };
  static Destination destination(const RouteKey& key) {
    return {std::string(key.vrf), key.prefix, key.label};
  }
  Ways waysOf(const Stored& group) const {
    Ways ways;
    for (const GroupMember& member : group.members) ways[nextHops_.at(member.id)] += member.weight;
    return ways;
  }

  std::set<std::string> vrfs_;
  std::map<NextHopId, NextHop> nextHops_;
  std::map<GroupId, Stored> groups_;
  std::map<Destination, RouteValue> routes_;
};

struct Fixture : ::testing::Test {
  VirtualClock clock;
  DataPlane plane;
  const Task* hearing = nullptr;  // who has more to tell while it is queued
  Resolver resolver{plane, [this] { return hearing && hearing->queued(); }};
  const Owner agent{Owner::Kind::agent, Name("a"), {}};

  Fixture() {
    resolver.vrfIs(Name("default"), true);
    for (const char* name : {"Ethernet1", "Ethernet2", "Ethernet3"})
      resolver.interfaceIs(intf(name), true);
  }
  void connected(const std::string& net, const std::string& at) {
    resolver.setConnected(Name("default"), prefix(net), {Owner::Kind::connected, {}, intf(at)});
  }
  void route(const std::string& net, std::vector<Routing::Via> vias,
             RouteType type = RouteType::forward, const std::string& group = {},
             uint32_t preference = 1) {
    auto made = make<Routing::Route>(Routing::RouteKey{prefix(net), preference});
    made->routeType.init(type);
    made->nexthopGroup.init(Name(group));
    made->via.init(SmallSet<Routing::Via>(std::move(vias)));
    resolver.setRoute(Name("default"), *made, agent);
  }
  void remove(const std::string& net) {
    resolver.removeRoute(Name("default"), prefix(net), 1, agent);
  }
  void group(const std::string& name, const std::vector<std::string>& destinations,
             GroupType type = GroupType::ip) {
    GroupConfig config;
    config.type = type;
    for (const std::string& d : destinations)
      config.entries.push_back({static_cast<uint16_t>(config.entries.size()), addr(d), {}});
    resolver.setGroup(Name(name), config);
  }
  static Routing::Via via(const std::string& hop, const std::string& at = {}) {
    Routing::Via v;
    if (!hop.empty()) v.hop = addr(hop);
    if (!at.empty()) v.intf = intf(at);
    return v;
  }
  Forwarding at(const std::string& net) {
    run();
    const auto all = plane.all();
    const auto found = all.find({"default", prefix(net), 0});
    return found == all.end() ? Forwarding{GroupKind::receive, {}, {}, 0, {}} : found->second;
  }
  bool has(const std::string& net) {
    run();
    return plane.all().count({"default", prefix(net), 0}) != 0;
  }
  void run() { activity().run(0); }
};

NextHop way(const std::string& hop, const std::string& at) {
  NextHop n;
  n.hop = addr(hop);
  n.intf = intf(at);
  return n;
}

// --- what a change touches ----------------------------------------------------------------------

TEST_F(Fixture, AChangeOfAGroupIsOneCallHoweverManyRoutesUseIt) {
  connected("10.1.0.0/24", "Ethernet1");
  connected("10.2.0.0/24", "Ethernet2");
  group("g", {"10.1.0.9", "10.2.0.9"});
  route("99.0.0.0/8", {via("10.1.0.9"), via("10.2.0.9")});
  for (int n = 0; n < 500; ++n) {
    const std::string net = std::to_string(n / 250 + 20) + "." + std::to_string(n % 250) + ".0.0/";
    route(net + "16", {}, RouteType::nexthopGroup, "g");
    route(net + "17", {via("10.1.0.9"), via("10.2.0.9")});
    route(net + "18", {via("99.1.1.1")});
  }
  run();
  const uint64_t before = plane.calls, chosen = resolver.counters().chosen;
  resolver.interfaceIs(intf("Ethernet2"), false);
  EXPECT_EQ((Ways{{way("10.1.0.9", "Ethernet1"), 1}}), at("20.0.0.0/16").ways);
  EXPECT_EQ((Ways{{way("10.1.0.9", "Ethernet1"), 1}}), at("20.3.0.0/17").ways);
  EXPECT_EQ((Ways{{way("10.1.0.9", "Ethernet1"), 1}}), at("20.3.0.0/18").ways);
  // The group, the vias of one kind, those of the other, and the network that is gone with its own.
  EXPECT_EQ(5u, plane.calls - before);
  EXPECT_LE(resolver.counters().chosen - chosen, 2u);
}

// Tells in two turns of the loop.
class Teller final : public Task {
 public:
  Teller(std::function<void()> first, std::function<void()> second)
      : Task("teller"), turns_{std::move(second), std::move(first)} {}

 private:
  bool run(Slice&) override {
    const auto turn = std::move(turns_.back());
    turns_.pop_back();
    turn();
    return !turns_.empty();
  }
  std::vector<std::function<void()>> turns_;
};

TEST_F(Fixture, WhatIsMadeAnewIsNeverMissing) {
  connected("10.1.0.0/24", "Ethernet1");
  group("g", {"10.1.0.9"});
  route("50.0.0.0/8", {via("10.1.0.9")});
  route("60.0.0.0/8", {via("50.0.0.1")});
  run();
  Teller teller([this] { remove("50.0.0.0/8"); },
                [this] { route("50.0.0.0/8", {}, RouteType::nexthopGroup, "g"); });
  hearing = &teller;
  teller.wake();
  EXPECT_EQ((Ways{{way("10.1.0.9", "Ethernet1"), 1}}), at("60.0.0.0/8").ways);
  EXPECT_EQ((Ways{{way("10.1.0.9", "Ethernet1"), 1}}), at("50.0.0.0/8").ways);
  EXPECT_EQ(0u, plane.removals);
  remove("50.0.0.0/8");
  EXPECT_FALSE(has("50.0.0.0/8"));
  EXPECT_FALSE(has("60.0.0.0/8"));
}

// --- groups that are not there ------------------------------------------------------------------

TEST_F(Fixture, ARouteThatMovesToAGroupThatIsNotThereGoesOnUntilItComes) {
  connected("10.1.0.0/24", "Ethernet1");
  connected("10.2.0.0/24", "Ethernet2");
  group("g", {"10.1.0.9"});
  route("50.0.0.0/8", {}, RouteType::nexthopGroup, "g");
  route("51.0.0.0/8", {}, RouteType::nexthopGroup, "h");
  EXPECT_TRUE(has("50.0.0.0/8"));
  EXPECT_FALSE(has("51.0.0.0/8")) << "it never was anything";

  route("50.0.0.0/8", {}, RouteType::nexthopGroup, "h");
  clock.advance(Resolver::kGroupWait - 0.1);
  EXPECT_EQ((Ways{{way("10.1.0.9", "Ethernet1"), 1}}), at("50.0.0.0/8").ways);
  group("h", {"10.2.0.9"});
  EXPECT_EQ((Ways{{way("10.2.0.9", "Ethernet2"), 1}}), at("50.0.0.0/8").ways);
  EXPECT_TRUE(has("51.0.0.0/8"));

  resolver.removeGroup(Name("h"));
  EXPECT_FALSE(has("50.0.0.0/8")) << "its own group went";
  group("h", {"10.2.0.9"});
  EXPECT_TRUE(has("50.0.0.0/8"));

  route("50.0.0.0/8", {}, RouteType::nexthopGroup, "i");
  EXPECT_TRUE(has("50.0.0.0/8"));
  clock.advance(Resolver::kGroupWait + 0.1);
  EXPECT_FALSE(has("50.0.0.0/8"));
}

// --- what was refused ---------------------------------------------------------------------------

TEST_F(Fixture, WhatWasRefusedIsAskedAgainWhenItMayDo) {
  route("50.0.0.0/8", {via("", "Ethernet1")});
  run();
  plane.outcomes->routeOutcome({.vrf = Name("default"), .prefix = prefix("50.0.0.0/8")}, "full");
  EXPECT_EQ(1u, resolver.counters().refused);
  plane.refuse({.vrf = Name("default"), .prefix = prefix("50.0.0.0/8")});
  plane.outcomes->retry();
  EXPECT_TRUE(has("50.0.0.0/8"));
  EXPECT_EQ(0u, resolver.counters().refused);
}

TEST_F(Fixture, ARefusedGroupHasNoRoutesUntilItIsAskedAgain) {
  group("g", {"10.1.0.9"});
  connected("10.1.0.0/24", "Ethernet1");
  route("50.0.0.0/8", {}, RouteType::nexthopGroup, "g");
  route("50.0.0.0/8", {via("", "Ethernet2")}, RouteType::forward, {}, 7);
  EXPECT_EQ((Ways{{way("10.1.0.9", "Ethernet1"), 1}}), at("50.0.0.0/8").ways);
  plane.outcomes->groupOutcome(
      plane.groupOf({.vrf = Name("default"), .prefix = prefix("50.0.0.0/8")}), "no space");
  EXPECT_EQ(7u, at("50.0.0.0/8").preference) << "the next best";
  EXPECT_EQ(0u, plane.named().count("g")) << "it is removed as others are";
  plane.outcomes->retry();
  EXPECT_EQ(1u, at("50.0.0.0/8").preference);
  EXPECT_EQ(1u, plane.named().count("g"));
}

// --- against one that computes everything anew --------------------------------------------------

struct Spec {  // what a route says
  enum Kind { vias, drop, receive, group, labels, lookup } kind = vias;
  std::vector<Routing::Via> list;
  std::vector<Mpls::Via> labelList;
  std::string name;
  bool operator==(const Spec&) const = default;
};

struct World {
  std::set<std::string> vrfs;
  std::set<IntfId> up;
  std::map<std::string, GroupConfig> groups;
  // By kind of owner, preference, and owner.
  using Rank = std::tuple<int, uint32_t, std::string, IntfId>;
  struct Route {
    Spec spec;
    bool hasWaited = false;
  };
  std::map<Destination, std::map<Rank, Route>> routes;

  // What was used when it was looked at last.
  struct Used {
    Rank rank;
    Spec spec;
  };
  std::map<Destination, Used> used;
  std::set<Destination> waits;
  std::set<Destination> goesOn;  // with what was used before

  using Hop = std::pair<std::string, IpAddr>;

  const Destination* covering(const Hop& hop) const {
    const Destination* best = nullptr;
    for (const auto& [at, there] : routes)
      if (std::get<0>(at) == hop.first && std::get<1>(at).contains(hop.second) &&
          (!best || std::get<1>(at).length() > std::get<1>(*best).length()))
        best = &at;
    return best;
  }
  std::vector<Hop> hopsOf(const std::string& vrf, const Spec& spec) const {
    std::vector<Hop> hops;
    for (const Routing::Via& v : spec.list)
      if (v.intf.isEmpty()) hops.push_back(v.vni ? Hop{"default", v.vtepAddr} : Hop{vrf, v.hop});
    if (spec.kind == Spec::group && groups.count(spec.name))
      for (const GroupConfig::Entry& e : groups.at(spec.name).entries)
        if (!e.destination.isNull()) hops.push_back({"default", e.destination});
    return hops;
  }
  bool leadsTo(const Hop& from, const Hop& goal, std::set<Hop>* seen) const {
    const Destination* by = covering(from);
    if (!by) return false;
    std::vector<Spec> specs;
    for (const auto& [rank, route] : routes.at(*by)) specs.push_back(route.spec);
    if (goesOn.count(*by)) specs.push_back(used.at(*by).spec);
    for (const Spec& spec : specs)
      for (const Hop& next : hopsOf(std::get<0>(*by), spec))
        if (next == goal || (seen->insert(next).second && leadsTo(next, goal, seen))) return true;
    return false;
  }
  static std::vector<std::pair<NextHop, uint32_t>> listOf(const Ways& ways) {
    return {ways.begin(), ways.end()};
  }
  Ways waysOf(const Hop& hop) const {
    const auto known = ways_.find(hop);
    return known != ways_.end() ? known->second : ways_[hop] = waysAnew(hop);
  }
  Ways waysAnew(const Hop& hop) const {
    std::set<Hop> seen;
    const Destination* by = covering(hop);
    if (!by || leadsTo(hop, hop, &seen)) return {};
    const auto chosen = choose(*by);
    if (!chosen) return {};
    Ways ways;
    for (auto [next, weight] : listOf(waysOf(std::get<0>(*by), *chosen))) {
      if (next.hop.isNull()) next.hop = hop.second;
      ways[next] += weight;
    }
    return ways;
  }
  Ways waysOf(const std::string& vrf, const Spec& spec) const {
    Ways ways;
    const auto base = [&](IntfId at, const IpAddr& hop, const Hop& resolved) {
      if (at.isEmpty()) return waysOf(resolved);
      NextHop n;
      n.hop = hop;
      n.intf = at;
      return up.count(at) ? Ways{{n, 1}} : Ways{};
    };
    for (const Routing::Via& v : spec.list)
      for (auto [n, weight] :
           listOf(base(v.intf, v.hop, v.vni ? Hop{"default", v.vtepAddr} : Hop{vrf, v.hop}))) {
        if (v.mplsLabel != 0xffffffff) {
          n.labels.push_back(v.mplsLabel);
          n.action = Mpls::Action::push;
        }
        if (v.vni && n.tunnel.type != Tunnel::Type::none) continue;
        if (v.vni) {
          n.tunnel.type = Tunnel::Type::vxlan;
          n.tunnel.vni = v.vni;
          n.tunnel.destination = v.vtepAddr;
          n.tunnel.routerMac = v.routerMac;
        }
        ways[n] += weight;
      }
    for (const Mpls::Via& v : spec.labelList) {
      const Ways from = v.nexthopGroup.empty()
                            ? base(v.intf, v.hop, {"default", v.hop})
                            : waysOf("", {Spec::group, {}, {}, std::string(v.nexthopGroup)});
      for (auto [n, weight] : listOf(from)) {
        if (v.action == Mpls::Action::swap) n.labels.push_back(v.outLabel);
        n.action = v.action;
        ways[n] += weight;
      }
    }
    if (spec.kind == Spec::group && groups.count(spec.name)) {
      const GroupConfig& g = groups.at(spec.name);
      for (const GroupConfig::Entry& entry : g.entries)
        for (auto [n, weight] : listOf(waysOf(Hop{"default", entry.destination}))) {
          if (g.type == GroupType::gre) {
            if (n.tunnel.type != Tunnel::Type::none) continue;
            n.tunnel.type = Tunnel::Type::gre;
            n.tunnel.ttl = g.ttl;
            n.tunnel.destination = entry.destination;
          }
          for (const Mpls::Label label : entry.mpls.labels) n.labels.push_back(label.value());
          if (entry.mpls.action != Mpls::Action::none) n.action = entry.mpls.action;
          ways[n] += weight;
        }
    }
    return ways;
  }
  bool isUsable(const std::string& vrf, const Spec& spec) const {
    if (spec.kind == Spec::lookup) return vrfs.count(spec.name) != 0;
    return spec.kind == Spec::drop || spec.kind == Spec::receive || !waysOf(vrf, spec).empty();
  }
  // What is used; `settles`: from now on.
  std::optional<Spec> choose(const Destination& at, Rank* by = nullptr,
                             bool* waits_ = nullptr) const {
    const std::string& vrf = std::get<0>(at);
    if (!vrf.empty() && !vrfs.count(vrf)) return {};
    for (const auto& [rank, route] : routes.at(at)) {
      if (by) *by = rank;
      if (isUsable(vrf, route.spec)) return route.spec;
      const auto before = used.find(at);
      if (isMissing(route) && goesOn.count(at) && before->second.rank == rank &&
          !(before->second.spec == route.spec) && isUsable(vrf, before->second.spec)) {
        if (waits_) *waits_ = true;
        return before->second.spec;
      }
    }
    return {};
  }
  std::map<Destination, Forwarding> all() const {
    std::map<Destination, Forwarding> all;
    for (const auto& [at, there] : routes) {
      Rank rank;
      const auto spec = choose(at, &rank);
      if (!spec) continue;
      Forwarding f;
      f.kind = spec->kind == Spec::drop      ? GroupKind::drop
               : spec->kind == Spec::receive ? GroupKind::receive
               : spec->kind == Spec::lookup  ? GroupKind::vrf
                                             : GroupKind::forward;
      if (spec->kind == Spec::lookup) f.vrf = Name(spec->name);
      const auto kind = static_cast<Owner::Kind>(std::get<0>(rank));
      f.origin = kind == Owner::Kind::receive     ? RouteOrigin::receive
                 : kind == Owner::Kind::connected ? RouteOrigin::connected
                                                  : RouteOrigin::agent;
      f.preference = std::get<1>(rank);
      f.ways = waysOf(std::get<0>(at), *spec);
      all.emplace(at, f);
    }
    return all;
  }
  bool isMissing(const Route& route) const {
    return route.spec.kind == Spec::group && !groups.count(route.spec.name) && !route.hasWaited;
  }
  // Something is different. Finds out who goes on as it was.
  void changed() {
    goesOn.clear();
    for (const auto& [at, there] : routes)
      for (const auto& [rank, route] : there)
        if (used.count(at) && used.at(at).rank == rank && isMissing(route)) goesOn.insert(at);
    for (bool isSettled = false; !isSettled;) {
      ways_.clear();
      std::vector<Destination> not_;
      for (const Destination& at : goesOn) {
        bool isWaiting = false;
        if (!choose(at, nullptr, &isWaiting) || !isWaiting) not_.push_back(at);
      }
      for (const Destination& at : not_) goesOn.erase(at);
      isSettled = not_.empty();
    }
  }
  // The present is what was.
  void settle() {
    std::map<Destination, Used> now;
    waits.clear();
    for (const auto& [at, there] : routes) {
      Rank rank;
      bool isWaiting = false;
      if (const auto spec = choose(at, &rank, &isWaiting)) now.emplace(at, Used{rank, *spec});
      if (isWaiting) waits.insert(at);
    }
    used = std::move(now);
    changed();
  }
  void waited() {
    for (const Destination& at : waits)
      for (auto& [rank, route] : routes[at])
        if (route.spec.kind == Spec::group && !groups.count(route.spec.name))
          route.hasWaited = true;
    changed();
  }

 private:
  mutable std::map<Hop, Ways> ways_;  // until something changes
};

class History {
 public:
  History(Resolver& resolver, std::mt19937& random) : resolver_(resolver), random_(random) {
    world.vrfs = {"default"};
    for (const char* name : {"Ethernet1", "Ethernet2", "Ethernet3"}) world.up.insert(intf(name));
  }

  World world;

  void change() {
    const uint32_t what = below(100);
    if (what < 45) return setRoute();
    if (what < 60) return removeRoute();
    if (what < 75) return changeGroup();
    if (what < 83) return changeConnected();
    if (what < 91) return changeInterface();
    if (what < 94) return changeVrf();
    changeLabel();
  }

 private:
  uint32_t below(uint32_t n) { return random_() % n; }
  template <class T>
  const T& one(const std::vector<T>& of) {
    return of[below(static_cast<uint32_t>(of.size()))];
  }
  std::string vrf() { return below(4) ? "default" : "red"; }
  IpPrefix net() {
    const auto length = one(std::vector<uint8_t>{0, 8, 16, 24, 32});
    return IpPrefix::containing(host(), length);
  }
  IpAddr host() { return IpAddr::v4(10u << 24 | below(3) << 16 | below(2) << 8 | below(3)); }
  IntfId port() { return intf("Ethernet" + std::to_string(below(3) + 1)); }
  std::string groupName() { return std::string(1, static_cast<char>('g' + below(4))); }

  Spec spec() {
    Spec s;
    const uint32_t what = below(10);
    if (what == 0) {
      s.kind = Spec::drop;
    } else if (what < 4) {
      s.kind = Spec::group;
      s.name = groupName();
    } else {
      SmallSet<Routing::Via> vias;
      for (uint32_t n = below(3) + 1; n > 0; --n) {
        Routing::Via v;
        if (below(4)) v.hop = host();
        if (v.hop.isNull() || below(4) == 0) v.intf = port();
        if (below(6) == 0) v.mplsLabel = 100 + below(3);
        if (below(8) == 0) {
          v.vni = 7;
          v.vtepAddr = host();
          v.routerMac = MacAddr();
        }
        vias.insert(v);
      }
      s.list.assign(vias.begin(), vias.end());
    }
    return s;
  }
  void put(const Destination& at, const World::Rank& rank, const Spec& s) {
    auto& route = world.routes[at][rank];
    if (route.spec == s) return;
    const auto used = world.used.find(at);
    const bool wasUsed = used != world.used.end() && used->second.spec == route.spec;
    route = {s};
    if (!wasUsed || (used->second.rank == rank && world.isMissing(route))) return;
    for (const auto& [other, there] : world.routes[at])
      if (there.spec == used->second.spec) return;
    world.used.erase(used);  // it is forgotten at once
  }
  void take(const Destination& at, const World::Rank& rank) {
    const auto there = world.routes.find(at);
    if (there == world.routes.end()) return;
    there->second.erase(rank);
    if (there->second.empty()) world.routes.erase(there);
  }

  void setRoute() {
    const std::string in = vrf();
    const std::string owner(1, static_cast<char>('a' + below(2)));
    const uint32_t preference = below(3);
    const IpPrefix to = net();
    const Spec s = spec();
    auto route = make<Routing::Route>(Routing::RouteKey{to, preference});
    route->routeType.init(s.kind == Spec::drop    ? RouteType::drop
                          : s.kind == Spec::group ? RouteType::nexthopGroup
                                                  : RouteType::forward);
    route->nexthopGroup.init(Name(s.name));
    route->via.init(SmallSet<Routing::Via>(s.list));
    if (below(4) == 0)
      resolver_.removeRoute(Name(in), to, preference, {Owner::Kind::agent, owner, {}});
    resolver_.setRoute(Name(in), *route, {Owner::Kind::agent, owner, {}});
    put({in, to, 0}, {2, preference, owner, {}}, s);
  }
  void removeRoute() {
    if (world.routes.empty()) return;
    auto at = std::next(world.routes.begin(), below(static_cast<uint32_t>(world.routes.size())));
    for (const auto& [rank, route] : at->second) {
      if (std::get<0>(rank) != 2 || std::get<0>(at->first).empty()) continue;
      resolver_.removeRoute(Name(std::get<0>(at->first)), std::get<1>(at->first), std::get<1>(rank),
                            {Owner::Kind::agent, std::get<2>(rank), {}});
      return take(Destination(at->first), World::Rank(rank));
    }
  }
  void changeGroup() {
    const std::string name = groupName();
    if (below(3) == 0) {
      world.groups.erase(name);
      return resolver_.removeGroup(Name(name));
    }
    GroupConfig config;
    config.type = below(2) ? GroupType::ip : GroupType::gre;
    config.ttl = 64;
    for (uint32_t n = 0; n < below(3) + 1; ++n) {
      GroupConfig::Entry& entry = config.entries.emplace_back();
      entry.number = static_cast<uint16_t>(n);
      entry.destination = host();
      if (below(4) == 0) entry.mpls = {Mpls::Action::push, {Mpls::Label(200 + below(2))}};
    }
    world.groups[name] = config;
    resolver_.setGroup(Name(name), config);
  }
  void changeConnected() {
    const bool isOwn = below(4) == 0;
    const Owner owner{isOwn ? Owner::Kind::receive : Owner::Kind::connected, {}, port()};
    const IpPrefix to = IpPrefix::containing(host(), isOwn ? 32 : below(2) ? 24 : 16);
    const std::string in = vrf();
    const World::Rank rank{isOwn ? 0 : 1, 0, "", owner.intf};
    if (below(3)) {
      Spec s;
      s.kind = isOwn ? Spec::receive : Spec::vias;
      Routing::Via v;
      v.intf = owner.intf;
      if (!isOwn) s.list.push_back(v);
      resolver_.setConnected(Name(in), to, owner);
      put({in, to, 0}, rank, s);
    } else {
      resolver_.removeRoute(Name(in), to, 0, owner);
      take({in, to, 0}, rank);
    }
  }
  void changeInterface() {
    const IntfId at = port();
    if (!world.up.erase(at)) world.up.insert(at);
    resolver_.interfaceIs(at, world.up.count(at) != 0);
  }
  void changeVrf() {
    if (!world.vrfs.erase("red")) world.vrfs.insert("red");
    resolver_.vrfIs(Name("red"), world.vrfs.count("red") != 0);
  }
  void changeLabel() {
    const uint32_t label = 16 + below(2), metric = below(2);
    const Owner owner{Owner::Kind::agent, "a", {}}, binds{Owner::Kind::vrfLabel, "a", {}};
    const Destination at{"", {}, label};
    if (below(4) == 0) {
      resolver_.removeLabelRoute(label, metric, owner);
      return take(at, {2, metric, "a", {}});
    }
    if (below(4) == 0) {
      Spec s;
      s.kind = Spec::lookup;
      s.name = vrf();
      resolver_.setVrfLabel(label, Name(s.name), binds);
      return put(at, {3, 0, "a", {}}, s);
    }
    Mpls::Via v;
    v.action = below(2) ? Mpls::Action::pop : Mpls::Action::swap;
    if (v.action == Mpls::Action::swap) v.outLabel = 300;
    if (below(2)) {
      v.nexthopGroup = Name(groupName());
      v.action = Mpls::Action::pop;
      v.outLabel = Mpls::kNoLabel;
    } else {
      v.hop = host();
    }
    auto route = make<Mpls::Route>(Mpls::RouteKeyAndMetric{Mpls::Label(label), metric});
    route->via.init(SmallSet<Mpls::Via>(std::vector<Mpls::Via>{v}));
    resolver_.setLabelRoute(*route, owner);
    Spec s;
    s.kind = Spec::labels;
    s.labelList = {v};
    put(at, {2, metric, "a", {}}, s);
  }

  Resolver& resolver_;
  std::mt19937& random_;
};

std::string textOf(const std::map<Destination, Forwarding>& all) {
  std::string text;
  for (const auto& [at, f] : all) {
    text += std::get<0>(at) + " " + std::get<1>(at).toString() + " label " +
            std::to_string(std::get<2>(at)) + " kind " + std::to_string(static_cast<int>(f.kind)) +
            " preference " + std::to_string(f.preference) + ":";
    for (const auto& [n, weight] : f.ways)
      text += " " + n.hop.toString() + "@" + n.intf.toString() + "*" + std::to_string(weight) +
              "/" + std::to_string(n.labels.size()) + "/" +
              std::to_string(static_cast<int>(n.tunnel.type));
    text += "\n";
  }
  return text;
}

TEST(Resolver, AgreesWithOneThatComputesEverythingAnew) {
  size_t forwarded = 0, waited = 0;
  test::randomRuns(150, [&](std::mt19937& random) {
    VirtualClock clock;
    DataPlane plane;
    Resolver resolver(plane, [] { return false; });
    History history(resolver, random);
    resolver.vrfIs(Name("default"), true);
    for (const char* name : {"Ethernet1", "Ethernet2", "Ethernet3"})
      resolver.interfaceIs(intf(name), true);
    for (int step = 0; step < 60; ++step) {
      for (uint32_t n = random() % 3 + 1; n > 0; --n) history.change();
      history.world.changed();
      activity().run(0);
      const auto expected = history.world.all(), there = plane.all();
      ASSERT_EQ(textOf(expected), textOf(there)) << "step " << step;
      ASSERT_TRUE(expected == there) << "step " << step;
      for (const auto& [name, config] : history.world.groups) {
        const Ways ways = history.world.waysOf("", {Spec::group, {}, {}, name});
        ASSERT_EQ(!ways.empty(), plane.named().count(name) != 0);
        ASSERT_TRUE(ways.empty() || ways == plane.named().at(name));
      }
      history.world.settle();
      forwarded += expected.size();
      waited += history.world.waits.size();
      if (random() % 8 == 0) {
        clock.advance(Resolver::kGroupWait + 1);
        history.world.waited();
        activity().run(0);
        ASSERT_EQ(textOf(history.world.all()), textOf(plane.all()));
        history.world.settle();
      }
    }
  });
  EXPECT_GT(forwarded, 20000u) << "the histories are about something";
  EXPECT_GT(waited, 100u);
}

}  // namespace
}  // namespace ryx
