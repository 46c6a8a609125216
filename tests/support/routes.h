// A switch that forwards, for tests of routes.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "platform/model/ip.h"
#include "ryx/ip_route.h"
#include "switch/sim/sim.h"
#include "tests/support/parsed.h"
#include "tests/support/statehub_fixture.h"
#include "tests/support/texts.h"

namespace ryx::testing {

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
    find<platform::Ip::Config>("ip/config")
        ->ipIntfConfig.create(test::id(intf))
        ->addrWithMask.set(test::parsed<platform::IpAddrMask>(addr));
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

}  // namespace ryx::testing
