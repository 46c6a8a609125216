// Addresses of interfaces: what agents configure, what the switch makes active, and what handlers
// are told of it, in whatever order and steps the switch shows it.
#include "ryx/ip_intf.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/model/ip.h"
#include "ryx/panic.h"
#include "switch/base/addresses.h"
#include "switch/sim/sim.h"
#include "tests/support/parsed.h"
#include "tests/support/random_runs.h"
#include "tests/support/statehub_fixture.h"

namespace ryx::testing {
namespace {

using platform::IntfId;
using platform::IpAddrMask;
using platform::SmallSet;
using test::id;

IpAddrMask at(const std::string& text) {
  return test::parsed<IpAddrMask>(text);
}

ip_addr_mask_t addr(const std::string& text) {
  const IpAddrMask mask = at(text);
  return {{static_cast<af_t>(mask.addr().af()), mask.addr().bytes()}, mask.length()};
}
std::set<ip_addr_mask_t> addrs(const std::string& texts) {
  std::set<ip_addr_mask_t> all;
  std::istringstream words(texts);
  for (std::string word; words >> word;) all.insert(addr(word));
  return all;
}
std::string textOf(const std::set<ip_addr_mask_t>& all) {
  std::string text;
  for (const ip_addr_mask_t& one : all) text += (text.empty() ? "" : " ") + one.to_string();
  return text;
}
// Each call as a line, and what is left of all.
class Watch : public ip_intf_handler {
 public:
  explicit Watch(ip_intf_mgr* mgr) : ip_intf_handler(mgr) {}
  std::string told() { return std::exchange(lines_, ""); }
  std::map<intf_id_t, std::set<ip_addr_mask_t>> known;
  std::set<ip_addr_mask_t> announced;

  void on_ip_addr_add(intf_id_t intf, const ip_addr_mask_t& addr) override {
    lines_ += "+" + addr.to_string() + " " + intf.to_string() + "\n";
    EXPECT_TRUE(known[intf].insert(addr).second) << addr.to_string();
    announced.insert(addr);
  }
  void on_ip_addr_del(intf_id_t intf, const ip_addr_mask_t& addr) override {
    lines_ += "-" + addr.to_string() + " " + intf.to_string() + "\n";
    EXPECT_EQ(1u, known[intf].erase(addr)) << addr.to_string();
    announced.insert(addr);
  }
  void on_internal_vlan_id(intf_id_t intf, vlan_id_t vlan) override {
    lines_ += "vlan " + std::to_string(vlan) + " " + intf.to_string() + "\n";
  }

 private:
  std::string lines_;
};

// What is configured, "PRIMARY | SECONDARIES | IPv6".
std::string configText(StatehubTest& test, const std::string& intf) {
  std::string text;
  const auto put = [&](const SmallSet<IpAddrMask>& set) {
    for (const IpAddrMask& one : set) text += " " + one.toString();
  };
  const auto* ip = test.find<platform::Ip::Config>("ip/config")->ipIntfConfig.find(id(intf));
  const auto* ip6 = test.find<platform::Ip6::Config>("ip6/config")->intf.find(id(intf));
  if (ip && platform::Ip::isAssigned(ip->addrWithMask())) text += ip->addrWithMask().toString();
  text += " |";
  if (ip) put(ip->secondaryWithMask());
  text += " |";
  if (ip6) put(ip6->addr());
  return ip || ip6 ? text : "none";
}

// --- on the simulated switch --------------------------------------------------------------------

class IpIntfTest : public StatehubTest {
 protected:
  void does(const std::string& line) {
    const AsSwitch writes(*this);
    EXPECT_EQ("", sim.command(line)) << line;
    settle();
  }
  std::string config() { return configText(*this, "Ethernet1"); }

  sim::Sim sim{tree()};
};
RYX_OVER_BOTH(IpIntfTest);

TEST_P(IpIntfTest, AddressesComeAndGoAndAPrimaryOneIsFollowedSilently) {
  does("interface-add Ethernet1");
  TestSdk sdk(*this, "tester");
  ip_intf_mgr* mgr = sdk.get_ip_intf_mgr();
  Watch all(mgr), other(mgr);
  all.watch_all_ip_intfs(true);
  other.watch_ip_intf("Ethernet2", true);
  EXPECT_THROW(mgr->ip_addrs("Ethernet1"), legacy_exception);
  sdk.start();
  EXPECT_FALSE(mgr->exists("Ethernet1"));
  mgr->ip_addr_del("Ethernet1", addr("10.0.0.1/24"));
  EXPECT_FALSE(mgr->exists("Ethernet1"));

  for (const char* one : {"10.0.0.9/24", "10.0.0.1/24", "10.0.0.17/28", "2001:db8::1/64"}) {
    mgr->ip_addr_add("Ethernet1", addr(one));
    mgr->ip_addr_add("Ethernet1", addr(one));
    EXPECT_EQ(1u, mgr->ip_addrs("Ethernet1").count(addr(one))) << "at once";
    settle();
    EXPECT_EQ("+" + std::string(one) + " Ethernet1\n", all.told());
  }
  EXPECT_EQ("10.0.0.9/24 | 10.0.0.1/24 10.0.0.17/28 | 2001:db8::1/64", config());
  EXPECT_EQ("10.0.0.1/24 10.0.0.9/24 10.0.0.17/28 2001:db8::1/64",
            textOf(mgr->ip_addrs("Ethernet1")));

  // The primary one goes, twice, and a secondary one; what has another mask is another address.
  mgr->ip_addr_del("Ethernet1", addr("10.0.0.9/25"));
  mgr->ip_addr_del("Ethernet1", addr("10.0.0.9/24"));
  settle();
  EXPECT_EQ("-10.0.0.9/24 Ethernet1\n", all.told());
  EXPECT_EQ("10.0.0.1/24 | 10.0.0.17/28 | 2001:db8::1/64", config());
  mgr->ip_addr_del("Ethernet1", addr("10.0.0.1/24"));
  mgr->ip_addr_del("Ethernet1", addr("2001:db8::1/64"));
  settle();
  EXPECT_EQ("-10.0.0.1/24 Ethernet1\n-2001:db8::1/64 Ethernet1\n", all.told());
  EXPECT_EQ("10.0.0.17/28 | |", config());
  mgr->ip_addr_del("Ethernet1", addr("10.0.0.17/28"));
  settle();
  EXPECT_EQ("-10.0.0.17/28 Ethernet1\n", all.told());
  EXPECT_EQ(" | |", config());
  EXPECT_TRUE(mgr->exists("Ethernet1")) << "its configuration stays";
  EXPECT_EQ("", other.told());
}

TEST_P(IpIntfTest, WhatIsNoAddressIsRefused) {
  TestSdk sdk(*this, "tester");
  ip_intf_mgr* mgr = sdk.get_ip_intf_mgr();
  sdk.start();
  const auto why = [&](const ip_addr_mask_t& one) {
    std::string text;
    const auto tries = [&](auto&& call) {
      try {
        call();
        text += "done; ";
      } catch (const invalid_argument_error& e) {
        EXPECT_EQ("addr", e.argument_name());
        text += std::string(e.what()) + "; ";
      }
    };
    tries([&] { mgr->ip_addr_add("Ethernet1", one); });
    tries([&] { mgr->ip_addrs_is("Ethernet1", {addr("10.0.0.1/24"), one}); });
    EXPECT_FALSE(mgr->exists("Ethernet1")) << "it left something behind";
    return text.substr(0, text.find(';')) + (text.find("done") == text.npos ? "" : "?");
  };
  const uint8_t four[4] = {10, 0, 0, 2};
  const std::string af = why(ip_addr_mask_t());
  EXPECT_NE(af.npos, af.find("Unsupported AF type")) << af;
  EXPECT_THROW(mgr->ip_addr_del("Ethernet1", ip_addr_mask_t()), invalid_argument_error);
  for (const char* local : {"fe80::1/64", "febf::1/10"})
    EXPECT_NE(af.npos, why(addr(local)).find("Link-local addresses unsupported"));
  EXPECT_NE(af.npos, why({{AF_IPV4, four}, 33}).find("at most 32 bits"));
  EXPECT_NE(af.npos, why(addr("0.0.0.0/0")).find("0.0.0.0/0 is no address"));
  mgr->ip_addr_add("Ethernet1", addr("fec0::1/10"));
  mgr->ip_addr_add("Ethernet1", addr("10.0.0.1/0"));  // a mask of 0 is one
  mgr->ip_addr_add("Ethernet1", addr("169.254.0.1/16"));
}

TEST_P(IpIntfTest, WhatOverlapsIsRefused) {
  TestSdk sdk(*this, "tester"), other(*this, "other");
  ip_intf_mgr* mgr = sdk.get_ip_intf_mgr();
  ip_intf_mgr* others = other.get_ip_intf_mgr();
  sdk.start();
  other.start();
  others->ip_addrs_is("Ethernet1", addrs("10.1.0.1/16 10.2.0.1/24 2001:db8:1::1/48"));
  if (!hub()) mgr->ip_addrs("Ethernet1");  // seen at once in one tree
  settle();
  struct Case {
    const char* intf;
    const char* addr;
    bool fits;
  };
  for (const Case& c : std::initializer_list<Case>{
           {"Ethernet2", "10.1.0.1/16", false},     // the same
           {"Ethernet2", "10.1.2.3/32", false},     // inside
           {"Ethernet2", "10.0.0.1/15", false},     // around
           {"Ethernet2", "10.2.0.0/23", false},     // around the secondary one
           {"Management1", "10.1.0.2/24", false},   // a management interface is one as well
           {"Ethernet2", "10.2.1.1/24", true},      // beside it
           {"Ethernet2", "2001:db8::1/32", false},  // IPv6 likewise
           {"Ethernet2", "2001:db8:1:5::1/64", false},
           {"Ethernet2", "2001:db8:2::1/48", true},
           {"Ethernet1", "10.1.0.1/24", false},  // the same address under another mask
           {"Ethernet1", "10.2.0.1/32", false},
           {"Ethernet1", "2001:db8:1::1/64", false},
           {"Ethernet1", "10.1.0.2/16", true},  // one subnet, and one inside
           {"Ethernet1", "10.1.7.1/24", true},
           {"Ethernet1", "2001:db8:1::2/48", true},
           {"Ethernet1", "10.1.7.2/20", true},   // around a smaller one, inside a larger
           {"Ethernet1", "10.2.0.2/20", false},  // around, and inside none
           {"Ethernet1", "2001:db8:1::3/40", false},
       }) {
    bool fits = true;
    const bool existed = mgr->exists(c.intf);
    try {
      mgr->ip_addr_add(c.intf, addr(c.addr));
    } catch (const address_overlap_error& e) {
      fits = false;
      EXPECT_EQ(addr(c.addr), e.addr());
      EXPECT_EQ("Address " + std::string(c.addr) + " overlaps with an already configured address",
                std::string(e.what()));
      EXPECT_EQ(existed, mgr->exists(c.intf));
    }
    EXPECT_EQ(c.fits, fits) << c.intf << " " << c.addr;
  }
  // In another VRF it may stand; moved back, it blocks what comes later.
  const auto vrfIs = [&](const char* intf, const char* vrf) {
    const AsSwitch writes(*this);
    find<platform::Ip::IntfVrfConfig>("ip/vrf/intf")
        ->intf.create(id(intf))
        ->vrf.set(platform::Name(vrf));
    settle();
  };
  vrfIs("Ethernet3", "red");
  mgr->ip_addr_add("Ethernet3", addr("10.1.0.1/16"));
  vrfIs("Ethernet4", "red");
  EXPECT_THROW(mgr->ip_addr_add("Ethernet4", addr("10.1.0.9/24")), address_overlap_error);
  vrfIs("Ethernet4", "");
  EXPECT_THROW(mgr->ip_addr_add("Ethernet4", addr("10.2.0.9/24")), address_overlap_error);
  // What another agent deletes is free, what it adds is taken; a set frees what it drops.
  settle();
  others->ip_addrs_is("Ethernet1", {});
  settle();
  mgr->ip_addrs_is("Ethernet2", addrs("10.1.0.1/16"));
  mgr->ip_addrs_is("Ethernet2", addrs("10.1.0.1/24 10.1.1.1/24"));
  EXPECT_THROW(mgr->ip_addrs_is("Ethernet2", addrs("10.1.0.1/24 10.1.0.2/16 10.3.0.1/24")),
               address_overlap_error);
  EXPECT_EQ("10.1.0.1/24 10.1.1.1/24", textOf(mgr->ip_addrs("Ethernet2")));
  mgr->ip_addr_add("Ethernet4", addr("10.3.0.1/24"));
  settle();
  EXPECT_THROW(others->ip_addr_add("Ethernet5", addr("10.1.1.9/25")), address_overlap_error);
}

TEST_P(IpIntfTest, ASetIsTakenInOneChange) {
  does("interface-add Ethernet1");
  TestSdk sdk(*this, "tester");
  ip_intf_mgr* mgr = sdk.get_ip_intf_mgr();
  Watch all(mgr);
  all.watch_all_ip_intfs(true);
  sdk.start();
  mgr->ip_addrs_is("Ethernet1", {});
  EXPECT_FALSE(mgr->exists("Ethernet1"));
  const auto is = [&](const std::string& texts) {
    mgr->ip_addrs_is("Ethernet1", addrs(texts));
    EXPECT_EQ(addrs(texts), mgr->ip_addrs("Ethernet1"));
    settle();
    EXPECT_EQ(addrs(texts), all.known["Ethernet1"]);
    all.told();
    return config();
  };
  EXPECT_EQ("10.0.0.5/24 | 10.0.0.7/24 | 2001:db8::1/64",
            is("10.0.0.7/24 10.0.0.5/24 2001:db8::1/64"));
  all.announced.clear();
  // A smaller one comes: the primary one is demoted, and not announced.
  EXPECT_EQ("10.0.0.3/24 | 10.0.0.5/24 10.0.0.7/24 |", is("10.0.0.3/24 10.0.0.5/24 10.0.0.7/24"));
  EXPECT_EQ(addrs("10.0.0.3/24 2001:db8::1/64"), std::exchange(all.announced, {}));
  // The primary one goes, a secondary one with it: the smallest that is left is promoted.
  EXPECT_EQ("10.0.0.7/24 | 10.0.0.9/24 | 2001:db8::2/64",
            is("10.0.0.7/24 10.0.0.9/24 2001:db8::2/64"));
  EXPECT_EQ(addrs("10.0.0.3/24 10.0.0.5/24 10.0.0.9/24 2001:db8::2/64"),
            std::exchange(all.announced, {}));
  // What was primary by the order of additions is not the smallest, and is demoted by its own set.
  EXPECT_EQ(" | |", is(""));
  mgr->ip_addr_add("Ethernet1", addr("10.0.0.2/24"));
  mgr->ip_addr_add("Ethernet1", addr("10.0.0.1/24"));
  settle();
  all.announced.clear();
  EXPECT_EQ("10.0.0.1/24 | 10.0.0.2/24 |", is("10.0.0.1/24 10.0.0.2/24"));
  EXPECT_EQ(addrs(""), all.announced);
}

TEST_P(IpIntfTest, InterfacesComeAndGoAndSoDoTheirAddresses) {
  does("interface-add Ethernet1");
  {
    const AsSwitch writes(*this);
    find<platform::Ip::Config>("ip/config")
        ->ipIntfConfig.create(id("Ethernet1"))
        ->addrWithMask.set(at("10.9.0.1/24"));
  }
  settle();
  TestSdk sdk(*this, "tester");
  ip_intf_mgr* mgr = sdk.get_ip_intf_mgr();
  Watch all(mgr);
  all.watch_all_ip_intfs(true);
  sdk.start();
  settle();
  EXPECT_EQ("", all.told()) << "what stands at the start is no news";
  EXPECT_EQ("10.9.0.1/24", textOf(mgr->ip_addrs("Ethernet1")));
  all.known["Ethernet1"] = mgr->ip_addrs("Ethernet1");
  does("interface-del Ethernet1");
  EXPECT_EQ("-10.9.0.1/24 Ethernet1\n", all.told());

  // Of every kind, before there is one; with an address of each family.
  int n = 0;
  for (const char* kind : {"Ethernet7", "Ethernet3/1", "Port-Channel5", "Vlan100", "Loopback0",
                           "Management1", "Ethernet4.100", "Vxlan1"}) {
    SCOPED_TRACE(kind);
    EXPECT_FALSE(mgr->exists(kind));
    const std::string net = "10.0." + std::to_string(++n) + ".1/24",
                      net6 = "2001:db8:" + std::to_string(n) + "::1/64";
    mgr->ip_addrs_is(kind, addrs(net + " " + net6));
    settle();
    EXPECT_TRUE(mgr->exists(kind));
    EXPECT_EQ("", all.told()) << "it is not there";
    does("interface-add " + std::string(kind));
    EXPECT_EQ("+" + net + " " + kind + "\n+" + net6 + " " + kind + "\n", all.told());
  }
  // It goes and comes back before anyone looked: another interface.
  {
    const AsSwitch writes(*this);
    EXPECT_EQ("", sim.command("interface-del Vlan100"));
    EXPECT_EQ("", sim.command("interface-add Vlan100"));
  }
  settle();
  EXPECT_EQ(
      "-10.0.4.1/24 Vlan100\n-2001:db8:4::1/64 Vlan100\n+10.0.4.1/24 Vlan100\n"
      "+2001:db8:4::1/64 Vlan100\n",
      all.told());

  EXPECT_EQ(0, mgr->internal_vlan_id("Ethernet7"));
  does("internal-vlan Ethernet7 1006");
  EXPECT_EQ(1006, mgr->internal_vlan_id("Ethernet7"));
  does("internal-vlan Ethernet7 4094");
  does("internal-vlan Ethernet7 0");
  does("internal-vlan Ethernet7 7");
  does("interface-del Ethernet7");
  EXPECT_EQ(
      "vlan 1006 Ethernet7\nvlan 4094 Ethernet7\nvlan 0 Ethernet7\nvlan 7 Ethernet7\n"
      "vlan 0 Ethernet7\n-10.0.1.1/24 Ethernet7\n-2001:db8:1::1/64 Ethernet7\n",
      all.told());
  EXPECT_EQ(0, mgr->internal_vlan_id("Ethernet7"));
}

class Throwing : public Watch {
 public:
  using Watch::Watch;
  void on_ip_addr_add(intf_id_t intf, const ip_addr_mask_t& addr) override {
    Watch::on_ip_addr_add(intf, addr);
    if (std::exchange(throws, false)) throw 7;
  }
  bool throws = true;
};

TEST_P(IpIntfTest, AHandlerThatThrowsTakesNoOtherAddressAlong) {
  does("interface-add Ethernet1");
  TestSdk sdk(*this, "tester");
  ip_intf_mgr* mgr = sdk.get_ip_intf_mgr();
  Throwing all(mgr);
  all.watch_all_ip_intfs(true);
  sdk.start();
  mgr->ip_addrs_is("Ethernet1", addrs("10.0.0.1/24 10.0.0.2/24 10.0.0.3/24"));
  EXPECT_THROW(settle(), int);
  settle();
  EXPECT_EQ("+10.0.0.1/24 Ethernet1\n+10.0.0.2/24 Ethernet1\n+10.0.0.3/24 Ethernet1\n", all.told());
}

// --- on a switch that shows its addresses in steps ----------------------------------------------

class SteppingSwitchTest : public StatehubTest {
 protected:
  void primaryIs(const char* intf, const IpAddrMask& addr) {
    const AsSwitch writes(*this);
    status(intf)->activeAddrWithMask.set(addr);
  }
  void secondariesAre(const char* intf, const std::vector<std::string>& texts) {
    const AsSwitch writes(*this);
    SmallSet<IpAddrMask> set;
    for (const std::string& text : texts) set.insert(at(text));
    status(intf)->activeSecondaryWithMask.set(set);
  }
  platform::Ip::IpIntfStatus* status(const char* intf) {
    return find<platform::Ip::Status>("ip/status")->ipIntfStatus.create(id(intf));
  }
};
RYX_OVER_BOTH(SteppingSwitchTest);

TEST_P(SteppingSwitchTest, APromotedOrDemotedAddressIsNeverAnnounced) {
  primaryIs("Ethernet1", at("10.0.0.1/24"));
  secondariesAre("Ethernet1", {"10.0.0.2/24", "10.0.0.3/24"});
  TestSdk sdk(*this, "tester");
  ip_intf_mgr* mgr = sdk.get_ip_intf_mgr();
  Watch all(mgr);
  all.watch_all_ip_intfs(true);
  sdk.start();
  mgr->ip_addrs_is("Ethernet1", addrs("10.0.0.1/24 10.0.0.2/24 10.0.0.3/24"));
  settle();
  EXPECT_EQ("", all.told());
  all.known["Ethernet1"] = mgr->ip_addrs("Ethernet1");
  // Promotion, the secondaries first: for a while the address is nowhere.
  mgr->ip_addr_del("Ethernet1", addr("10.0.0.1/24"));
  settle();
  secondariesAre("Ethernet1", {"10.0.0.3/24"});
  settle();
  EXPECT_EQ("", all.told());
  primaryIs("Ethernet1", at("10.0.0.2/24"));
  settle();
  EXPECT_EQ("-10.0.0.1/24 Ethernet1\n", all.told());
  // Demotion, the primary first.
  mgr->ip_addrs_is("Ethernet1", addrs("10.0.0.1/24 10.0.0.2/24 10.0.0.3/24"));
  settle();
  primaryIs("Ethernet1", at("10.0.0.1/24"));
  settle();
  EXPECT_EQ("+10.0.0.1/24 Ethernet1\n", all.told());
  secondariesAre("Ethernet1", {"10.0.0.2/24", "10.0.0.3/24"});
  settle();
  EXPECT_EQ("", all.told());
  // What then happens to it is told as ever.
  secondariesAre("Ethernet1", {"10.0.0.3/24"});
  settle();
  EXPECT_EQ("-10.0.0.2/24 Ethernet1\n", all.told());
  secondariesAre("Ethernet1", {"10.0.0.2/24", "10.0.0.3/24"});
  settle();
  EXPECT_EQ("+10.0.0.2/24 Ethernet1\n", all.told());
  // Two promotions in a turn, of which the status shows the last alone.
  mgr->ip_addr_del("Ethernet1", addr("10.0.0.1/24"));
  mgr->ip_addr_del("Ethernet1", addr("10.0.0.2/24"));
  settle();
  secondariesAre("Ethernet1", {});
  settle();
  EXPECT_EQ("-10.0.0.2/24 Ethernet1\n", all.told());
  primaryIs("Ethernet1", at("10.0.0.3/24"));
  settle();
  EXPECT_EQ("-10.0.0.1/24 Ethernet1\n", all.told());
}

TEST_P(SteppingSwitchTest, AnAddressThatIsLostOnItsWayIsToldInTime) {
  TestSdk sdk(*this, "tester");
  ip_intf_mgr* mgr = sdk.get_ip_intf_mgr();
  Watch all(mgr);
  all.watch_all_ip_intfs(true);
  sdk.start();
  mgr->ip_addrs_is("Ethernet1", addrs("10.0.0.1/24 10.0.0.2/24"));
  settle();
  primaryIs("Ethernet1", at("10.0.0.1/24"));
  secondariesAre("Ethernet1", {"10.0.0.2/24"});
  settle();
  all.told();
  mgr->ip_addr_del("Ethernet1", addr("10.0.0.1/24"));
  settle();
  primaryIs("Ethernet1", {});
  secondariesAre("Ethernet1", {});
  settle();
  EXPECT_EQ("-10.0.0.1/24 Ethernet1\n", all.told());
  clock.advance(4.9);
  settle();
  EXPECT_EQ("", all.told());
  clock.advance(0.2);
  settle();
  EXPECT_EQ("-10.0.0.2/24 Ethernet1\n", all.told());
}

// --- at random ----------------------------------------------------------------------------------

// Two agents configure, or one of them; a switch takes over, an attribute at a time and in any
// order. At every rest both agents know exactly what is active, both read what a model says, and
// neither was told of what stood all the time.
class Random {
 public:
  Random(SteppingSwitchTest& test, std::mt19937& rng, bool alone) : test_(test), rng_(rng) {
    for (const char* intf : kIntfs) {
      test.find<platform::Ip::Config>("ip/config")->ipIntfConfig.erase(id(intf));
      test.find<platform::Ip6::Config>("ip6/config")->intf.erase(id(intf));
      feeds::showNoAddresses(test.tree(), id(intf));
    }
    for (const char* name : {"one", "two"}) {
      sdks_.push_back(std::make_unique<TestSdk>(test, name));
      watches_.push_back(std::make_unique<Watch>(sdks_.back()->get_ip_intf_mgr()));
      watches_.back()->watch_all_ip_intfs(true);
      sdks_.back()->start();
    }
    writers_ = alone ? 1 : 2;
  }

  void round() {
    stayed_ = model_;
    for (Watch* watch : {watches_[0].get(), watches_[1].get()}) watch->announced.clear();
    for (size_t n = 1 + pick(6); n > 0; --n) {
      change();
      for (size_t steps = pick(4); steps > 0; --steps) step();
    }
    rest();
  }

 private:
  using Set = std::set<ip_addr_mask_t>;
  static constexpr const char* kIntfs[] = {"Ethernet1", "Ethernet2", "Ethernet3"};

  size_t pick(size_t below) { return rng_() % below; }
  ip_intf_mgr& mgr(size_t agent) { return *sdks_[agent]->get_ip_intf_mgr(); }
  // One of few addresses of the interface's own net, so that they meet.
  ip_addr_mask_t any(size_t intf) {
    const uint8_t four[4] = {10, static_cast<uint8_t>(intf), 0, static_cast<uint8_t>(1 + pick(6))};
    uint8_t six[16] = {0x20, 1, 0xd, 0xb8, static_cast<uint8_t>(intf)};
    six[15] = static_cast<uint8_t>(1 + pick(3));
    return pick(4) ? ip_addr_mask_t({AF_IPV4, four}, 24) : ip_addr_mask_t({AF_IPV6, six}, 64);
  }

  void change() {
    const size_t at = pick(3);
    const std::string intf = "Ethernet" + std::to_string(at + 1);
    const size_t agent = pick(writers_);
    if (writers_ > 1) settle();  // each sees what the other wrote
    Set& model = model_[intf];
    switch (pick(5)) {
      case 0:
      case 1: {
        const ip_addr_mask_t one = any(at);
        mgr(agent).ip_addr_add(intf, one);
        model.insert(one);
        break;
      }
      case 2:
      case 3: {
        const ip_addr_mask_t one = any(at);
        mgr(agent).ip_addr_del(intf, one);
        model.erase(one);
        break;
      }
      case 4:
        model.clear();
        for (size_t n = pick(5); n > 0; --n) model.insert(any(at));
        mgr(agent).ip_addrs_is(intf, model);
        break;
    }
    EXPECT_EQ(textOf(model), textOf(mgr(agent).ip_addrs(intf)));
    for (auto& [name, set] : stayed_) {
      const Set& now = model_[name];
      std::erase_if(set, [&](const auto& one) { return !now.count(one); });
    }
  }

  // One attribute of one status, or one whole status that goes, or comes back. Like everybody, the
  // switch sees what is configured in turns of the loop.
  void step() {
    platform::activity().run(0);
    const std::string name = "Ethernet" + std::to_string(pick(3) + 1);
    const char* intf = name.c_str();
    const AsSwitch writes(test_);
    if (pick(12) == 0) {
      test_.find<platform::Ip::Status>("ip/status")->ipIntfStatus.erase(id(name));
      stayed_[name].clear();
    } else if (pick(3) == 0) {
      showIp6(intf);
    } else {
      show(intf, pick(2) == 0);
    }
    if (pick(2)) settle();
  }
  void show(const char* intf, bool primary) {
    const auto* config = configOfIntf(intf);
    auto* status = test_.find<platform::Ip::Status>("ip/status")->ipIntfStatus.create(id(intf));
    if (!config) return;
    if (primary)
      status->activeAddrWithMask.set(config->addrWithMask());
    else
      status->activeSecondaryWithMask.set(config->secondaryWithMask());
  }
  void showIp6(const char* intf) {
    const auto* config = test_.find<platform::Ip6::Config>("ip6/config")->intf.find(id(intf));
    auto& statuses = test_.find<platform::Ip6::Status>("ip6/status")->intf;
    if (config) statuses.create(id(intf))->activeAddr.set(config->addr());
  }
  const platform::Ip::IpIntfConfig* configOfIntf(const char* intf) {
    return test_.find<platform::Ip::Config>("ip/config")->ipIntfConfig.find(id(intf));
  }

  void rest() {
    settle();
    for (const char* intf : kIntfs) {
      const AsSwitch writes(test_);
      const bool first = pick(2);
      show(intf, first);
      if (pick(2)) settle();
      show(intf, !first);
      showIp6(intf);
    }
    settle();
    for (size_t agent = 0; agent < 2; ++agent) {
      for (const auto& [name, set] : model_) {
        EXPECT_EQ(textOf(set), textOf(watches_[agent]->known[intf_id_t(name)])) << agent << name;
        EXPECT_EQ(textOf(set), textOf(mgr(agent).ip_addrs(name)));
      }
    }
    for (const auto& [name, set] : stayed_)
      for (const auto& watch : watches_)
        for (const auto& one : set) EXPECT_EQ(0u, watch->announced.count(one)) << textOf({one});
  }

  SteppingSwitchTest& test_;
  std::mt19937& rng_;
  size_t writers_;
  std::vector<std::unique_ptr<TestSdk>> sdks_;
  std::vector<std::unique_ptr<Watch>> watches_;
  std::map<std::string, Set> model_, stayed_;
};

TEST_P(SteppingSwitchTest, WhatIsToldAddsUpToWhatIsActive) {
  for (const bool alone : {true, false}) {
    test::randomRuns(20, [&](std::mt19937& rng) {
      Random random(*this, rng, alone);
      for (size_t i = 0; i < 20 && !HasFailure(); ++i) random.round();
    });
  }
}

}  // namespace
}  // namespace ryx::testing
