// Static routes: what an agent sets, what it sees of that at once, and what comes to stand in its
// inputs; refusals, resync, VRFs that come and go.
#include "ryx/ip_route.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/model/routing.h"
#include "platform/model/vrf.h"
#include "ryx/panic.h"
#include "switch/base/vrfs.h"
#include "tests/support/random_runs.h"
#include "tests/support/statehub_fixture.h"
#include "tests/support/texts.h"

namespace ryx::testing {
namespace {

using platform::Dir;
using platform::Routing::Route;
using platform::Routing::RouteInput;
using platform::Routing::RouteType;

ip_route_t route(const ip_route_key_t& key, uint32_t tag = 0) {
  ip_route_t result(key);
  result.tag_is(tag);
  return result;
}
ip_route_via_t toHop(const ip_route_key_t& key, const std::string& hop) {
  ip_route_via_t via(key);
  via.hop_is(addrOf(hop));
  return via;
}
ip_route_via_t toIntf(const ip_route_key_t& key, const std::string& intf) {
  ip_route_via_t via(key);
  via.intf_is(intf);
  return via;
}
ip_route_via_t toGroup(const ip_route_key_t& key, const std::string& group) {
  ip_route_via_t via(key);
  via.nexthop_group_is(group);
  return via;
}

class IpRouteTest : public StatehubTest {
 protected:
  // As it stands in the state: "10.0.0.0/8 1 forward tag 5 10.0.0.1 Ethernet1|...", sorted.
  std::string inputs(const std::string& agent, const std::string& vrf = "default") {
    std::set<std::string> lines;
    for (const char* family : {"routing", "routing6"}) {
      auto* input =
          find<RouteInput>(std::string(family) + "/vrf/input/" + vrf + "/RyxSdk-" + agent);
      if (!input) continue;
      for (auto it = input->route.iterator(); it; it.next()) lines.insert(textOf(*it));
    }
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
  }
  static std::string textOf(const Route& route) {
    std::ostringstream line;
    line << route.key().prefix.toString() << " " << route.key().preference;
    line << (route.routeType() == RouteType::forward ? " forward"
             : route.routeType() == RouteType::drop  ? " drop"
                                                     : " group ");
    if (route.routeType() == RouteType::nexthopGroup) line << route.nexthopGroup().view();
    if (route.tag() != 0) line << " tag " << route.tag();
    if (route.routeType() == RouteType::forward)
      for (const auto& via : route.via())
        line << " [" << via.hop.toString() << " " << via.intf.toString() << "]";
    EXPECT_TRUE(route.dynamic());
    return line.str();
  }
  void vrfIs(const std::string& name, bool isThere) {
    const AsSwitch writes(*this);
    if (isThere)
      feeds::showVrf(tree(), platform::VrfName(name), platform::Ip::VrfState::active, "");
    else
      feeds::eraseVrf(tree(), platform::VrfName(name));
  }
};
RYX_OVER_BOTH(IpRouteTest);

std::vector<std::string> viasOf(const ip_route_mgr& mgr, const ip_route_key_t& key,
                                const std::string& vrf = "default") {
  std::vector<std::string> vias;
  for (auto it = mgr.ip_route_via_iter(key, vrf); it; ++it) vias.push_back(it->to_string());
  return vias;
}

TEST_P(IpRouteTest, WhatIsSetIsReadableAtOnceAndCommittedInTheNextTurn) {
  TestSdk sdk(*this, "a");
  ip_route_mgr* mgr = sdk.get_ip_route_mgr();
  EXPECT_THROW(mgr->ip_route_iter(), legacy_exception);
  sdk.start();
  auto* input = find<RouteInput>("routing/vrf/input/default/RyxSdk-a");
  ASSERT_NE(nullptr, input);
  EXPECT_EQ(4, input->routingProtocol());
  EXPECT_EQ("S", input->showRouteKey());
  EXPECT_EQ("Static", input->redistributionName());
  EXPECT_EQ(1u, input->defaultPreference());

  const ip_route_key_t ten = keyOf("10.0.0.0/8"), other = keyOf("10.0.0.0/8", 200),
                       six = keyOf("2001:db8::/32");
  mgr->ip_route_set(route(ten, 7));
  mgr->ip_route_via_set(toHop(ten, "192.0.2.1"));
  mgr->ip_route_via_set(toHop(ten, "192.0.2.1"));
  mgr->ip_route_via_set(toIntf(ten, "Ethernet1"));
  mgr->ip_route_set(route(other), IP_ROUTE_ACTION_DROP);
  mgr->ip_route_set(route(six), IP_ROUTE_ACTION_NEXTHOP_GROUP);
  mgr->ip_route_via_set(toGroup(six, "g"));
  EXPECT_EQ("", inputs("a")) << "not within the call";
  EXPECT_EQ(3u, mgr->uncommitted());
  EXPECT_TRUE(mgr->exists(ten) && mgr->exists(other) && mgr->exists(six));
  EXPECT_EQ(route(ten, 7), mgr->ip_route(ten));
  EXPECT_EQ(2u, viasOf(*mgr, ten).size());
  EXPECT_TRUE(mgr->exists(toHop(ten, "192.0.2.1")) && mgr->exists(toIntf(ten, "Ethernet1")));
  EXPECT_FALSE(mgr->exists(toHop(ten, "192.0.2.2")));
  EXPECT_EQ((std::vector<std::string>{toIntf(other, "Null0").to_string()}), viasOf(*mgr, other));
  EXPECT_EQ((std::vector<std::string>{toGroup(six, "g").to_string()}), viasOf(*mgr, six));
  settle();
  EXPECT_EQ(0u, mgr->uncommitted());
  const std::string all =
      "10.0.0.0/8 1 forward tag 7 [ Ethernet1] [192.0.2.1 ]\n10.0.0.0/8 200 drop\n"
      "2001:db8::/32 1 group g\n";
  EXPECT_EQ(all, inputs("a"));
  EXPECT_EQ(2u, viasOf(*mgr, ten).size());
  // Both what is committed and what is not is iterated once.
  const ip_route_key_t more = keyOf("172.16.0.0/12");
  mgr->ip_route_set(route(more));
  mgr->ip_route_set(route(ten, 8));
  mgr->ip_route_del(other);
  std::multiset<std::string> seen;
  for (auto it = mgr->ip_route_iter(); it; ++it) seen.insert(it->to_string());
  EXPECT_EQ((std::multiset<std::string>{route(ten, 8).to_string(), route(more).to_string(),
                                        route(six).to_string()}),
            seen);
  // Deleted and set again before the commit is one route, without what it had.
  mgr->ip_route_del(ten);
  EXPECT_FALSE(mgr->exists(ten));
  mgr->ip_route_set(route(ten));
  EXPECT_TRUE(viasOf(*mgr, ten).empty());
  settle();
  EXPECT_EQ("10.0.0.0/8 1 forward\n172.16.0.0/12 1 forward\n2001:db8::/32 1 group g\n",
            inputs("a"));
}

TEST_P(IpRouteTest, AnotherTypeMakesItAnewWithWhatItHad) {
  TestSdk sdk(*this, "a");
  ip_route_mgr* mgr = sdk.get_ip_route_mgr();
  sdk.start();
  const ip_route_key_t ten = keyOf("10.0.0.0/8");
  mgr->ip_route_set(route(ten, 3));
  mgr->ip_route_via_set(toHop(ten, "192.0.2.1"));
  settle();
  auto* input = find<RouteInput>("routing/vrf/input/default/RyxSdk-a");
  ASSERT_NE(nullptr, input);
  const uint64_t first = input->route.iterator()->generation();
  mgr->ip_route_via_set(toIntf(ten, "Null0"));
  settle();
  EXPECT_EQ("10.0.0.0/8 1 drop tag 3\n", inputs("a"));
  EXPECT_NE(first, input->route.iterator()->generation()) << "another entity";
  EXPECT_EQ(1u, input->route.iterator()->via().size()) << "which has its vias";
  mgr->ip_route_via_set(toGroup(ten, "g"));
  mgr->ip_route_via_set(toGroup(ten, "h"));
  settle();
  EXPECT_EQ("10.0.0.0/8 1 group h tag 3\n", inputs("a"));
  mgr->ip_route_via_del(toGroup(ten, "g"));
  settle();
  EXPECT_EQ("10.0.0.0/8 1 group h tag 3\n", inputs("a")) << "that is not its group";
  mgr->ip_route_set(route(ten, 4));
  settle();
  EXPECT_EQ("10.0.0.0/8 1 forward tag 4 [192.0.2.1 ]\n", inputs("a")) << "it forwards again";
  // Restricted to another tag, what it had goes.
  mgr->tag_is(9);
  mgr->ip_route_set(route(ten, 9));
  settle();
  EXPECT_EQ("10.0.0.0/8 1 forward tag 9\n", inputs("a"));
  EXPECT_EQ(9u, mgr->tag());
}

TEST_P(IpRouteTest, WhatIsWrongIsToldInItsOrderAndChangesNothing) {
  TestSdk sdk(*this, "a");
  ip_route_mgr* mgr = sdk.get_ip_route_mgr();
  sdk.start();
  const ip_route_key_t ten = keyOf("10.0.0.0/8"), absent = keyOf("11.0.0.0/8"), none;
  mgr->ip_route_set(route(ten, 5));
  mgr->tag_is(5);
  settle();
  const std::string before = inputs("a");
  const auto says = [&](const std::string& text, const std::function<void()>& call) {
    try {
      call();
      ADD_FAILURE() << "no error; expected " << text;
    } catch (const error& e) {
      EXPECT_EQ(text, e.what());
      const bool isRange = text.find("MplsLabel") == 0 || text.find("VrfName") == 0;
      EXPECT_EQ(isRange, dynamic_cast<const range_error*>(&e) != nullptr) << text;
      EXPECT_EQ(text.find("'route_via'") != text.npos,
                dynamic_cast<const invalid_argument_error*>(&e) != nullptr);
    }
  };
  ip_route_via_t both = toGroup(ten, "g"), label = toHop(ten, "192.0.2.1"),
                 mixed = toHop(ten, "2001:db8::1"), vxlan = toHop(ten, "192.0.2.1");
  both.hop_is(addrOf("192.0.2.1"));
  label.mpls_label_is(mpls_label_t(8'388'609));
  says("Tried to insert a route with tag 6 while restricted to tag set 5",
       [&] { mgr->ip_route_set(route(none, 6)); });
  says("Cannot call ip_route_set() for an unknown address family",
       [&] { mgr->ip_route_set(route(none, 5)); });
  says("Cannot call ip_route_del() for an unknown address family",
       [&] { mgr->ip_route_del(none); });
  says("Cannot call exists() for an unknown address family", [&] { mgr->exists(none); });
  says("Cannot get a route with an unknown address family", [&] { mgr->ip_route(none); });
  says("Cannot call ip_route_via_iter() for an unknown address family",
       [&] { mgr->ip_route_via_iter(none); });
  says("Cannot call ip_route_via_iter() for nonexistent route",
       [&] { mgr->ip_route_via_iter(absent); });
  says("VrfName::bytes > VrfName::maxLength not allowed",
       [&] { mgr->ip_route_set(route(ten, 5), std::string(101, 'x')); });
  says("Invalid argument 'route_via': Supplied via must have nexthop information",
       [&] { mgr->ip_route_via_set(ip_route_via_t(absent)); });
  says("Invalid argument 'route_via': Can't specify both a nexthop group and either a hop or intf",
       [&] { mgr->ip_route_via_set(both); });
  says("Cannot set a via on a nonexistent route",
       [&] { mgr->ip_route_via_set(toHop(absent, "2001:db8::1")); });
  says("Mixing IPv4/6 nexthops on IPv6/4 routes not yet supported",
       [&] { mgr->ip_route_via_set(mixed); });
  says("MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed",
       [&] { mgr->ip_route_via_set(label); });
  for (int set = 1; set < 7; ++set) {
    vxlan.vtep_addr_is(set & 1 ? addrOf("198.51.100.1") : ip_addr_t());
    vxlan.vni_is(set & 2 ? 10 : 0);
    vxlan.router_mac_is(set & 4 ? eth_addr_t(0, 0x1c, 0x73, 0, 0, 1) : eth_addr_t());
    says(set == 5     ? "Invalid vni, vni must be set if vtep_addr and router_mac are set"
         : !(set & 4) ? "Invalid router_mac, router_mac must be set if vtep_addr and vni are set"
                      : "Invalid vtep_addr, vtep_addr must be set if vni and router_mac are set",
         [&] { mgr->ip_route_via_set(vxlan); });
  }
  says("Resync mode was not initialized; cannot complete resync", [&] { mgr->resync_complete(); });
  mgr->resync_init();
  says("Cannot change tag while resyncing", [&] { mgr->tag_is(0); });
  mgr->ip_route_set(route(ten, 5));
  mgr->resync_complete();
  mgr->tag_is(4);
  says("Tried to insert a via on route tagged with 5 while restricted to tag set 4",
       [&] { mgr->ip_route_via_set(mixed); });
  mgr->ip_route_via_del(toHop(absent, "192.0.2.1"));
  settle();
  EXPECT_EQ(before, inputs("a"));
  // The largest label there is, and a whole tunnel.
  mgr->tag_is(0);
  label.mpls_label_is(mpls_label_t(8'388'608));
  vxlan.vtep_addr_is(addrOf("198.51.100.1"));
  vxlan.vni_is(10);
  vxlan.router_mac_is(eth_addr_t(0, 0x1c, 0x73, 0, 0, 1));
  mgr->ip_route_via_set(label);
  mgr->ip_route_via_set(vxlan);
  settle();
  EXPECT_TRUE(mgr->exists(label) && mgr->exists(vxlan));
  EXPECT_EQ(2u, viasOf(*mgr, ten).size());
}

TEST_P(IpRouteTest, ADirectoryOfAVrfMayComeLateAndGo) {
  TestSdk sdk(*this, "a");
  ip_route_mgr* mgr = sdk.get_ip_route_mgr();
  sdk.start();
  const ip_route_key_t ten = keyOf("10.0.0.0/8");
  mgr->ip_route_set(route(ten), "red");
  EXPECT_TRUE(mgr->exists(ten, "red"));
  EXPECT_FALSE(mgr->exists(ten));
  settle();
  EXPECT_FALSE(mgr->exists(ten, "red")) << "dropped";
  vrfIs("red", true);
  settle();
  EXPECT_FALSE(mgr->exists(ten, "red")) << "for good";
  mgr->ip_route_set(route(ten, 1), "red");
  mgr->ip_route_set(route(ten, 2));
  settle();
  EXPECT_EQ("10.0.0.0/8 1 forward tag 1\n", inputs("a", "red"));
  EXPECT_EQ("10.0.0.0/8 1 forward tag 2\n", inputs("a"));
  vrfIs("red", false);
  settle();
  EXPECT_FALSE(mgr->exists(ten, "red"));
  vrfIs("red", true);
  settle();
  mgr->ip_route_set(route(ten, 3), "red");
  settle();
  EXPECT_EQ("10.0.0.0/8 1 forward tag 3\n", inputs("a", "red"));
}

// --- at random ----------------------------------------------------------------------------------

// The manager, as it should be, by maps.
struct Model {
  struct Entry {
    RouteType type = RouteType::forward;
    uint32_t tag = 0;
    std::set<std::string> vias;  // hops
    std::string group;
    bool operator==(const Entry&) const = default;
  };
  struct Declared {
    std::set<std::string> vias;
    std::string group;
  };
  using Key = std::pair<std::string, ip_route_key_t>;  // VRF and route

  std::map<Key, std::optional<Entry>> dirty;
  std::map<Key, Entry> committed;
  std::map<Key, Declared> declared;
  bool isResyncing = false;
  uint32_t tag = 0;

  const Entry* current(const Key& key) const {
    if (const auto at = dirty.find(key); at != dirty.end())
      return at->second ? &*at->second : nullptr;
    const auto at = committed.find(key);
    return at == committed.end() ? nullptr : &at->second;
  }
  // True when it passes.
  bool set(const Key& key, RouteType type, uint32_t newTag) {
    if (tag != 0 && newTag != tag) return false;
    if (isResyncing) declared[key] = {};
    const Entry* before = current(key);
    Entry entry = before && (tag == 0 || before->tag == tag) ? *before : Entry();
    entry.type = type;
    entry.tag = newTag;
    dirty[key] = entry;
    return true;
  }
  bool viaSet(const Key& key, RouteType type, const std::string& what) {
    const Entry* before = current(key);
    if (!before || (tag != 0 && before->tag != tag)) return false;
    Entry entry = *before;
    entry.type = type;
    const auto at = declared.find(key);
    if (type == RouteType::forward) {
      entry.vias.insert(what);
      if (at != declared.end()) at->second.vias.insert(what);
    } else if (type == RouteType::nexthopGroup) {
      entry.group = what;
      if (at != declared.end()) at->second.group = what;
    }
    dirty[key] = entry;
    return true;
  }
  void viaDel(const Key& key, const std::string& hop) {
    const Entry* before = current(key);
    if (!before) return;
    Entry entry = *before;
    entry.vias.erase(hop);
    if (const auto at = declared.find(key); at != declared.end()) at->second.vias.erase(hop);
    dirty[key] = entry;
  }
  void del(const Key& key) {
    declared.erase(key);
    dirty[key] = {};
  }
  void complete() {
    const auto prune = [](Entry entry, const Declared& by) {
      std::erase_if(entry.vias, [&](const auto& via) { return !by.vias.count(via); });
      if (entry.type == RouteType::nexthopGroup && entry.group != by.group) entry.group.clear();
      return entry;
    };
    for (auto& [key, copy] : dirty) {
      if (!copy) continue;
      const auto at = declared.find(key);
      copy = at == declared.end() ? std::optional<Entry>() : prune(*copy, at->second);
    }
    for (auto& [key, entry] : committed) {
      if ((tag != 0 && entry.tag != tag) || dirty.count(key)) continue;
      const auto at = declared.find(key);
      if (at == declared.end())
        dirty[key] = {};
      else if (Entry less = prune(entry, at->second); less != entry)
        dirty[key] = less;
    }
    declared.clear();
    isResyncing = false;
  }
  void commit(const std::set<std::string>& vrfs) {
    for (auto& [key, copy] : dirty) {
      if (!vrfs.count(key.first) || !copy)
        committed.erase(key);
      else
        committed[key] = *copy;
    }
    dirty.clear();
  }
};

TEST_P(IpRouteTest, RandomOperationsAgainstAModel) {
  test::randomRuns(15, [this](std::mt19937& random) {
    TestSdk sdk(*this, "a");
    ip_route_mgr* mgr = sdk.get_ip_route_mgr();
    sdk.start();
    mgr->resync_init();
    mgr->resync_complete();  // what an earlier run left
    settle();
    Model model;
    std::set<std::string> vrfs = {"default"};
    bool isClogged = false;
    const auto clogged = [&](bool is) {
      isClogged = is;
      sdk.connection().tree().cloggedIs(is);
      clock.advance(0.01);
    };
    const auto commit = [&] {
      settle();
      if (!isClogged) model.commit(vrfs);
    };
    const auto pick = [&](size_t n) { return random() % n; };
    for (const char* vrf : {"red", "blue"}) vrfIs(vrf, false);
    settle();
    const char* const kPrefixes[] = {"10.0.0.0/8", "10.1.0.0/16",   "192.0.2.0/24",
                                     "0.0.0.0/0",  "2001:db8::/32", "::/0"};
    const char* const kVrfs[] = {"default", "default", "red", "blue"};
    for (int n = 0; n < 300; ++n) {
      const std::string vrf = kVrfs[pick(4)];
      const std::string text = kPrefixes[pick(6)];
      const ip_route_key_t k = keyOf(text, static_cast<uint8_t>(1 + pick(2)));
      const Model::Key at(vrf, k);
      const uint32_t tag = static_cast<uint32_t>(pick(3));
      const std::string hop = (text.find(':') == text.npos ? "198.51.100." : "2001:db8::") +
                              std::to_string(1 + pick(4));
      const auto agrees = [&](bool passes, const std::function<void()>& call) {
        bool passed = true;
        try {
          call();
        } catch (const error&) {
          passed = false;
        }
        EXPECT_EQ(passes, passed);
      };
      switch (pick(15)) {
        case 0:
        case 1:
        case 2: {
          const ip_route_action_t action = static_cast<ip_route_action_t>(pick(4));
          const RouteType type = action == IP_ROUTE_ACTION_DROP            ? RouteType::drop
                                 : action == IP_ROUTE_ACTION_NEXTHOP_GROUP ? RouteType::nexthopGroup
                                                                           : RouteType::forward;
          agrees(model.set(at, type, tag), [&] { mgr->ip_route_set(route(k, tag), action, vrf); });
          break;
        }
        case 3:
        case 4:
        case 5:
          agrees(model.viaSet(at, RouteType::forward, hop),
                 [&] { mgr->ip_route_via_set(toHop(k, hop), vrf); });
          break;
        case 6:
          agrees(model.viaSet(at, RouteType::nexthopGroup, "g" + std::to_string(tag)),
                 [&] { mgr->ip_route_via_set(toGroup(k, "g" + std::to_string(tag)), vrf); });
          break;
        case 7:
          agrees(model.viaSet(at, RouteType::drop, ""),
                 [&] { mgr->ip_route_via_set(toIntf(k, "Null0"), vrf); });
          break;
        case 8:
          model.viaDel(at, hop);
          mgr->ip_route_via_del(toHop(k, hop), vrf);
          break;
        case 9:
          model.del(at);
          mgr->ip_route_del(k, vrf);
          break;
        case 10:
          if (model.isResyncing) {
            model.complete();
            mgr->resync_complete();
          } else {
            model.isResyncing = true;
            model.declared.clear();
            mgr->resync_init();
          }
          break;
        case 11:
          if (model.isResyncing) break;
          model.tag = tag;
          mgr->tag_is(tag);
          break;
        case 12:
          commit();
          if (vrf == "default") break;
          vrfIs(vrf, !vrfs.count(vrf));
          settle();
          if (vrfs.erase(vrf) == 0)
            vrfs.insert(vrf);
          else
            std::erase_if(model.committed, [&](const auto& e) { return e.first.first == vrf; });
          break;
        case 13:
          clogged(!isClogged);
          break;
        default:
          commit();
      }
      if (pick(6) != 0) continue;
      // What the agent sees, committed or not.
      std::multiset<std::string> expected, seen;
      std::set<Model::Key> keys;
      for (const auto& [one, entry] : model.committed) keys.insert(one);
      for (const auto& [one, entry] : model.dirty) keys.insert(one);
      for (const Model::Key& one : keys) {
        const Model::Entry* entry = model.current(one);
        ASSERT_EQ(entry != nullptr, mgr->exists(one.second, one.first)) << one.second;
        if (!entry) continue;
        expected.insert(route(one.second, entry->tag).to_string());
        std::set<std::string> vias;
        if (entry->type == RouteType::drop) vias.insert(toIntf(one.second, "Null0").to_string());
        if (entry->type == RouteType::nexthopGroup)
          vias.insert(toGroup(one.second, entry->group).to_string());
        if (entry->type == RouteType::forward)
          for (const std::string& via : entry->vias)
            vias.insert(toHop(one.second, via).to_string());
        const auto told = viasOf(*mgr, one.second, one.first);
        ASSERT_EQ(vias, std::set<std::string>(told.begin(), told.end())) << one.second;
      }
      for (auto it = mgr->ip_route_iter(); it; ++it) seen.insert(it->to_string());
      ASSERT_EQ(expected, seen);
      // And what stands in the state.
      clogged(false);
      commit();
      for (const std::string& name : vrfs) {
        std::set<std::string> lines;
        for (const auto& [one, entry] : model.committed) {
          if (one.first != name) continue;
          std::string line = one.second.prefix().to_string() + " " +
                             std::to_string(int{one.second.preference()}) +
                             (entry.type == RouteType::forward ? " forward"
                              : entry.type == RouteType::drop  ? " drop"
                                                               : " group " + entry.group);
          if (entry.tag != 0) line += " tag " + std::to_string(entry.tag);
          if (entry.type == RouteType::forward)
            for (const std::string& via : entry.vias) line += " [" + via + " ]";
          lines.insert(line);
        }
        std::string all;
        for (const std::string& line : lines) all += line + "\n";
        ASSERT_EQ(all, inputs("a", name)) << name;
      }
    }
    clogged(false);
    if (model.isResyncing) mgr->resync_complete();
    mgr->tag_is(0);
  });
}

}  // namespace
}  // namespace ryx::testing
