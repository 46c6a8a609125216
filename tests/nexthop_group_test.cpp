// Nexthop groups: refusals in their order, what is written and when, what comes of it in hardware.
#include "ryx/nexthop_group.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <set>
#include <string>

#include "platform/model/nexthop_group.h"
#include "ryx/fib.h"
#include "ryx/panic.h"
#include "tests/support/random_runs.h"
#include "tests/support/routes.h"

namespace ryx::testing {
namespace {

using platform::Routing::NexthopGroup::ConfigInput;

class NexthopGroupTest : public ForwardingTest {
 protected:
  // What the switch's side sees that an agent configured.
  std::string configured(const std::string& agent) {
    settle();
    const auto* input = find<ConfigInput>("routing/nexthopgroup/input/config/RyxSdk-" + agent);
    std::set<std::string> names;
    if (input)
      for (auto it = input->nexthopGroup.iterator(); it; it.next()) names.emplace(it.key().view());
    std::string text;
    for (const std::string& name : names) text += name + " ";
    return text;
  }
  static nexthop_group_t made(const std::string& name, const std::vector<std::string>& hops,
                              nexthop_group_encap_t type = NEXTHOP_GROUP_IP) {
    nexthop_group_t group(name, type);
    uint16_t index = 0;
    for (const std::string& hop : hops) group.destination_ip_set(index++, addrOf(hop));
    return group;
  }
};
RYX_OVER_BOTH(NexthopGroupTest);

class Watch : public nexthop_group_handler {
 public:
  explicit Watch(nexthop_group_mgr* mgr) : nexthop_group_handler(mgr) {}
  std::string told() { return std::exchange(lines_, ""); }
  void on_nexthop_group_active(const std::string& name, bool active) override {
    lines_ += name + (active ? " active\n" : " not\n");
  }

 private:
  std::string lines_;
};

TEST_P(NexthopGroupTest, WhatIsWrongIsToldInItsOrderAndChangesNothing) {
  TestSdk sdk(*this, "a");
  nexthop_group_mgr* mgr = sdk.get_nexthop_group_mgr();
  sdk.start();
  does("nexthop-group-capability gre none -");
  does("nexthop-group-capability mpls 2 push,swap");
  settle();
  // Everything is wrong with it; each that is put right shows the next.
  nexthop_group_t g;
  g.destination_ip_set(0, addrOf("10.0.0.1"));
  g.destination_ip_set(1, addrOf("2001:db8::1"));
  g.destination_ip_set(2, ip_addr_t());
  g.mpls_action_set(0, {MPLS_ACTION_POP, {mpls_label_t(16), mpls_label_t(17), mpls_label_t(18)}});
  g.mpls_action_set(1, {MPLS_ACTION_PUSH, {}});
  g.source_ip_is(addrOf("2001:db8::9"));
  const auto set = [&] { mgr->nexthop_group_set(g); };
  const auto argument = [&] { return errorOf<invalid_argument_error>(set); };
  const auto unsupported = [&] { return errorOf<unsupported_error>(set); };
  const auto says = [](const std::string& text, const std::string& part) {
    EXPECT_NE(std::string::npos, text.find(part)) << text << "\nand not\n" << part;
  };
  says(argument(), "group name must be non-empty");
  g.name_is(std::string(257, '.'));
  says(errorOf<invalid_range_error>(set), "nexthop_group.name.length");
  g.name_is("a.b");
  says(argument(), "nexthop group name may contain only chars 'a-zA-Z0-9_-'");
  g.name_is(std::string(256, 'x'));
  says(argument(), "type cannot be NEXTHOP_GROUP_TYPE_NULL");
  g.type_is(NEXTHOP_GROUP_GRE);
  says(argument(), "type is not supported on hardware");
  g.type_is(static_cast<nexthop_group_encap_t>(9));
  says(errorOf<legacy_exception>(set),
       "Must pass in MPLS, IP_IN_IP, IP, MPLS_OVER_GRE or GRE nexthop_group_type");
  g.type_is(NEXTHOP_GROUP_MPLS);
  says(argument(), "Cannot mix Ipv4 and Ipv6 destination entries");
  g.destination_ip_del(1);
  says(unsupported(),
       "No hardware support for 3 MPLS labels on NEXTHOP_GROUP_MPLS nexthop groups "
       "(max: 2 labels)");
  g.mpls_action_set(0, {MPLS_ACTION_POP, {mpls_label_t(8'388'609)}});
  says(argument(), "MPLS_ACTION_PUSH label action with no labels");
  g.mpls_action_del(1);
  says(unsupported(), "No hardware support for MPLS_ACTION_POP action on NEXTHOP_GROUP_MPLS");
  g.mpls_action_set(0, {MPLS_ACTION_PUSH, {mpls_label_t(8'388'609)}});
  says(argument(), "Invalid address family: AF_NULL");
  g.destination_ip_del(2);
  says(argument(), "source IP must be an IPv4 address");
  g.source_ip_is(addrOf("10.0.0.9"));
  says(argument(), "MPLS nexthop groups cannot specify source_ip");
  g.source_ip_is(ip_addr_t());
  says(errorOf<range_error>(set),
       "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed");
  EXPECT_EQ("", configured("a"));
  g.mpls_action_set(0, {MPLS_ACTION_PUSH, {mpls_label_t(16)}});
  mgr->nexthop_group_set(g);
  EXPECT_EQ(g, mgr->nexthop_group(g.name()));

  nexthop_group_t gre = made("g", {"10.0.0.1"}, NEXTHOP_GROUP_MPLS_OVER_GRE);
  gre.gre_key_type_is(GRE_KEY_TYPE_HARDWARE);
  says(errorOf<invalid_argument_error>([&] { mgr->nexthop_group_set(gre); }),
       "MPLS-over-GRE nexthop groups cannot specify gre_key_type");
  does("nexthop-group-capability mpls 100 push");
  settle();
  g.mpls_action_set(0, {MPLS_ACTION_PUSH, std::list<mpls_label_t>(33, mpls_label_t(16))});
  says(errorOf<range_error>(set), "MplsStackEntryIndex::value < MplsStackEntryIndex::min");
  EXPECT_EQ(1u, mgr->nexthop_group(g.name()).mpls_actions().at(0).label_stack().size());
}

TEST_P(NexthopGroupTest, IsWrittenAtOnceReadBackAndActiveWhenItIsProgrammed) {
  address("Ethernet1", "10.1.0.1/24");
  address("Ethernet2", "10.2.0.1/24");
  TestSdk sdk(*this, "a");
  nexthop_group_mgr* mgr = sdk.get_nexthop_group_mgr();
  Watch all(mgr), one(mgr);
  all.watch_all_nexthop_groups(true);
  one.watch_nexthop_group("h", true);
  sdk.start();
  nexthop_group_t g = made("g", {"10.1.0.9", "10.2.0.9"}, NEXTHOP_GROUP_IP_IN_IP);
  g.source_ip_is(addrOf("10.0.0.1"));
  g.ttl_is(7);
  mgr->nexthop_group_set(g);
  EXPECT_EQ(g, mgr->nexthop_group("g"));
  EXPECT_EQ(2, mgr->nexthop_group("g").size());
  mgr->nexthop_group_set(made("h", {"10.9.0.9"}));  // no way leads there
  EXPECT_EQ("g h ", configured("a"));
  EXPECT_EQ("g active\n", all.told());
  EXPECT_EQ("", one.told());

  g.destination_ip_del(1);
  mgr->nexthop_group_set(g);
  settle();
  EXPECT_EQ(g, mgr->nexthop_group("g"));
  EXPECT_EQ("", all.told()) << "it is what it was";
  does("oper-status Ethernet1 2");
  settle();
  EXPECT_EQ("g not\n", all.told());
  does("oper-status Ethernet1 1");
  mgr->nexthop_group_set(made("h", {"10.2.0.7"}));
  settle();
  EXPECT_EQ("h active\n", one.told());
  mgr->nexthop_group_del("h");
  mgr->nexthop_group_del("h");
  EXPECT_FALSE(mgr->exists("h"));
  EXPECT_EQ(nexthop_group_t(), mgr->nexthop_group("h"));
  EXPECT_EQ("g ", configured("a"));
  EXPECT_EQ("h not\n", one.told());

  // Of two agents' groups of one name that of the first by name counts.
  TestSdk other(*this, "b");
  nexthop_group_mgr* others = other.get_nexthop_group_mgr();
  Watch theirs(others);
  theirs.watch_all_nexthop_groups(true);
  other.start();
  settle();
  EXPECT_EQ("g active\n", theirs.told()) << "told of all agents' groups";
  others->nexthop_group_set(made("g", {"10.9.0.9"}));
  settle();
  EXPECT_EQ("", theirs.told());
  mgr->nexthop_group_del("g");
  settle();
  EXPECT_EQ("g not\n", theirs.told());
}

TEST_P(NexthopGroupTest, EntriesAreCounted) {
  address("Ethernet1", "10.1.0.1/24");
  TestSdk sdk(*this, "a");
  nexthop_group_mgr* mgr = sdk.get_nexthop_group_mgr();
  sdk.start();
  nexthop_group_t g("g", NEXTHOP_GROUP_IP);
  g.destination_ip_set(3, addrOf("10.1.0.9"));
  g.destination_ip_set(5, addrOf("10.1.0.7"));
  mgr->nexthop_group_set(g);
  settle();
  EXPECT_EQ(nexthop_group_counter_t(), mgr->counter("g", 3));
  does("nexthop-group-count g 3 10 640");
  does("nexthop-group-count g 5 1 64");
  EXPECT_EQ(nexthop_group_counter_t(10, 640), mgr->counter("g", 3));
  does("nexthop-group-clear g 3");
  settle();
  does("nexthop-group-count g 3 2 128");
  EXPECT_EQ(nexthop_group_counter_t(2, 128), mgr->counter("g", 3));
  EXPECT_EQ(nexthop_group_counter_t(1, 64), mgr->counter("g", 5));
  g.destination_ip_del(5);
  mgr->nexthop_group_set(g);
  settle();
  EXPECT_EQ(nexthop_group_counter_t(2, 128), mgr->counter("g", 3)) << "it counts on";
  EXPECT_EQ("Invalid entry (5) in nexthop g",
            errorOf<legacy_exception>([&] { mgr->counter("g", 5); }));
  EXPECT_EQ("Invalid entry (0) in nexthop none",
            errorOf<legacy_exception>([&] { mgr->counter("none", 0); }));
}

TEST_P(NexthopGroupTest, AResyncDeletesWhatIsNotDeclaredAndWritesNothingElse) {
  TestSdk sdk(*this, "a");
  nexthop_group_mgr* mgr = sdk.get_nexthop_group_mgr();
  sdk.start();
  EXPECT_EQ("Resync mode was not initialized; cannot complete resync",
            errorOf<legacy_exception>([&] { mgr->resync_complete(); }));
  for (const char* name : {"g", "h", "i", "j"}) mgr->nexthop_group_set(made(name, {"10.1.0.9"}));
  settle();
  const uint64_t version = tree().clock().version;
  mgr->resync_init();
  for (const char* name : {"g", "h", "i", "j"}) mgr->nexthop_group_set(made(name, {"10.1.0.9"}));
  mgr->resync_complete();
  settle();
  EXPECT_EQ(version, tree().clock().version);
  mgr->resync_init();
  mgr->nexthop_group_set(made("g", {"10.1.0.9"}));
  mgr->nexthop_group_set(made("h", {"10.1.0.9"}));
  mgr->nexthop_group_del("h");
  clogged(sdk, true);
  mgr->nexthop_group_set(made("j", {"10.1.0.9"}));
  mgr->resync_complete();
  clogged(sdk, false);
  EXPECT_EQ("g j ", configured("a"));
}

// A route moves from one group to another, which is made, and the first is deleted, while nothing
// can be told to the switch: it forwards all the time.
TEST_P(NexthopGroupTest, WhatWaitsKeepsItsOrder) {
  address("Ethernet1", "10.1.0.1/24");
  TestSdk sdk(*this, "a");
  nexthop_group_mgr* groups = sdk.get_nexthop_group_mgr();
  ip_route_mgr* routes = sdk.get_ip_route_mgr();
  struct Fib : fib_handler {
    using fib_handler::fib_handler;
    void on_route_set(const fib_route_t&) override { ++set; }
    void on_route_del(const fib_route_key_t&) override { ++deleted; }
    int set = 0, deleted = 0;
  } fib(sdk.get_fib_mgr(MGR_MODE_READ_NOTIFYING));
  sdk.start();
  groups->nexthop_group_set(made("old", {"10.1.0.9"}));
  group(routes, "20.0.0.0/8", "old");
  settle();
  fib.set = 0;

  clogged(sdk, true);
  groups->nexthop_group_del("old");
  group(routes, "20.0.0.0/8", "new");
  groups->nexthop_group_set(made("new", {"10.1.0.7"}));
  groups->nexthop_group_set(made("more", {"10.1.0.7"}));
  groups->nexthop_group_set(made("never", {"10.1.0.7"}));
  groups->nexthop_group_del("never");
  std::set<std::string> seen;
  for (auto it = groups->nexthop_group_iter(); it; ++it) seen.insert(*it);
  EXPECT_EQ((std::set<std::string>{"more", "new"}), seen) << "as if nothing waited";
  EXPECT_FALSE(groups->exists("old"));
  EXPECT_EQ("old ", configured("a"));
  clogged(sdk, false);
  EXPECT_EQ("more new ", configured("a"));
  EXPECT_EQ(1, fib.set);
  EXPECT_EQ(0, fib.deleted);

  // And so when nothing is clogged: the deletion goes behind the routes that wait for the loop.
  groups->nexthop_group_set(made("old", {"10.1.0.9"}));
  group(routes, "20.0.0.0/8", "old");
  groups->nexthop_group_del("new");
  EXPECT_FALSE(groups->exists("new"));
  EXPECT_EQ("more old ", configured("a"));
  EXPECT_EQ(2, fib.set);
  EXPECT_EQ(0, fib.deleted);
}

// Sets, refusals, deletions, clogs and resyncs in any order, against a plain map.
TEST_P(NexthopGroupTest, RandomOperationsAgainstAModel) {
  test::randomRuns(10, [this](std::mt19937& random) {
    TestSdk sdk(*this, "a");
    nexthop_group_mgr* mgr = sdk.get_nexthop_group_mgr();
    sdk.start();
    std::map<std::string, nexthop_group_t> model;      // as the agent sees it
    std::map<std::string, nexthop_group_t> committed;  // as the switch does
    std::optional<std::set<std::string>> declared;
    bool isClogged = false;
    const auto resync = [&] {
      if (!declared) return mgr->resync_init(), void(declared.emplace());
      mgr->resync_complete();
      std::erase_if(model, [&](const auto& entry) { return !declared->count(entry.first); });
      declared.reset();
    };
    resync();
    resync();  // what an earlier run left
    for (int step = 0; step < 300; ++step) {
      const std::string name(1, static_cast<char>('g' + random() % 5));
      switch (random() % 8) {
        case 0:
          model.erase(name);
          if (declared) declared->erase(name);
          mgr->nexthop_group_del(name);
          break;
        case 1:
          clogged(sdk, isClogged = !isClogged);
          break;
        case 2:
          resync();
          break;
        case 3: {  // refused, by one check or another
          nexthop_group_t bad = made(name, {"10.1.0.9"});
          if (random() % 2) bad.destination_ip_set(1, addrOf("2001:db8::1"));
          bad.mpls_action_set(0, {MPLS_ACTION_PUSH, {}});
          EXPECT_THROW(mgr->nexthop_group_set(bad), invalid_argument_error);
          break;
        }
        default: {
          std::vector<std::string> hops;
          for (uint32_t n = random() % 3; n > 0; --n) hops.push_back("10.1.0." + std::to_string(n));
          const nexthop_group_t group = made(name, hops);
          mgr->nexthop_group_set(group);
          model[name] = group;
          if (declared) declared->insert(name);
        }
      }
      std::set<std::string> names, seen;
      for (const auto& [one, group] : model) {
        names.insert(one);
        ASSERT_EQ(group, mgr->nexthop_group(one));
      }
      for (auto it = mgr->nexthop_group_iter(); it; ++it) EXPECT_TRUE(seen.insert(*it).second);
      ASSERT_EQ(names, seen);
      ASSERT_EQ(model.count(name) != 0, mgr->exists(name));
      settle();
      if (!isClogged) committed = model;
      std::string text;
      for (const auto& [one, group] : committed) text += one + " ";
      ASSERT_EQ(text, configured("a"));
    }
    clogged(sdk, false);
    if (declared) resync();
  });
}

}  // namespace
}  // namespace ryx::testing
