// Shorthand for tests of routes: values from text, and a switch that forwards.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "platform/model/ip.h"
#include "ryx/ip.h"
#include "ryx/ip_route.h"
#include "switch/sim/sim.h"
#include "tests/support/parsed.h"
#include "tests/support/statehub_fixture.h"

namespace ryx::testing {

inline ip_prefix_t prefixOf(const std::string& text) {
  ip_prefix_t result;
  EXPECT_TRUE(parse_ip_prefix(text.c_str(), &result)) << text;
  return result;
}
inline ip_addr_t addrOf(const std::string& text) {
  ip_addr_t result;
  EXPECT_TRUE(parse_ip_addr(text.c_str(), &result)) << text;
  return result;
}
inline ip_route_key_t keyOf(const std::string& text, uint8_t preference = 1) {
  return {prefixOf(text), preference};
}

// With the simulated switch at the other end: Ethernet1 and Ethernet2 are up.
class ForwardingTest : public StatehubTest {
 protected:
  ForwardingTest() {
    for (const char* name : {"Ethernet1", "Ethernet2"}) {
      does(std::string("interface-add ") + name);
      does(std::string("oper-status ") + name + " 1");
    }
  }
  void does(const std::string& line) {
    const AsSwitch writes(*this);
    EXPECT_EQ("", sim.command(line)) << line;
  }
  // An operator gives the interface an address.
  void address(const std::string& intf, const std::string& addr) {
    const AsSwitch writes(*this);
    platform::IntfId id;
    platform::IpAddrMask mask;
    ASSERT_TRUE(parse(intf, &id) && parse(addr, &mask));
    find<platform::Ip::Config>("ip/config")->ipIntfConfig.create(id)->addrWithMask.set(mask);
  }
  void clogged(TestSdk& sdk, bool isClogged) {
    sdk.connection().tree().cloggedIs(isClogged);
    clock.advance(0.01);
  }
  static void hop(ip_route_mgr* mgr, const std::string& net, const std::string& hop,
                  const std::string& vrf = "default") {
    mgr->ip_route_set(ip_route_t(keyOf(net)), IP_ROUTE_ACTION_FORWARD, vrf);
    ip_route_via_t via(keyOf(net));
    via.hop_is(addrOf(hop));
    mgr->ip_route_via_set(via, vrf);
  }
  static void intf(ip_route_mgr* mgr, const std::string& net, const std::string& intf,
                   const std::string& vrf = "default") {
    mgr->ip_route_set(ip_route_t(keyOf(net)), IP_ROUTE_ACTION_FORWARD, vrf);
    ip_route_via_t via(keyOf(net));
    via.intf_is(intf);
    mgr->ip_route_via_set(via, vrf);
  }
  static void group(ip_route_mgr* mgr, const std::string& net, const std::string& group) {
    mgr->ip_route_set(ip_route_t(keyOf(net)), IP_ROUTE_ACTION_NEXTHOP_GROUP);
    ip_route_via_t via(keyOf(net));
    via.nexthop_group_is(group);
    mgr->ip_route_via_set(via);
  }

  sim::Sim sim{tree()};
};

// The error of a call, its class by `Error`.
template <class Error, class Call>
std::string errorOf(Call&& call) {
  try {
    call();
  } catch (const Error& e) {
    return e.what();
  } catch (const error& e) {
    return std::string("of another class: ") + e.what();
  }
  return "no error";
}

}  // namespace ryx::testing
