#include "examples/mpls_pe.h"

#include <gtest/gtest.h>
#include <ryx/testing.h>

#include <sstream>
#include <string>
#include <utility>

namespace {

TEST(MplsPe, DeclaresWhatItsOptionsSay) {
  ryx::testing::simulated_switch sw;
  sw.command("interface-add Ethernet1\noper-status Ethernet1 1\nvrf-add red");
  ryx::testing::agent_sdk core_sdk(sw, "core"), sdk(sw, "pe");
  // Somebody knows the way to the next hop.
  ryx::ip_route_mgr* core = core_sdk.get_ip_route_mgr();
  core_sdk.start();
  const uint8_t net[4] = {192, 0, 2, 0};
  const ryx::ip_route_key_t key({{ryx::AF_IPV4, net}, 24}, 1);
  core->ip_route_set(ryx::ip_route_t(key));
  ryx::ip_route_via_t via(key);
  via.intf_is("Ethernet1");
  core->ip_route_via_set(via);

  std::ostringstream out;
  mpls_pe agent(sdk, out);
  sw.agent_option_set("pe", "vrf.red", "1000");
  sw.agent_option_set("pe", "vrf.blue", "15");
  sw.agent_option_set("pe", "uplinks", "192.0.2.1/2001 192.0.2.5/16,2002 192.0.2.7");
  sw.agent_option_set("pe", "prefixes", "10.1.0.0/16 10.2.0.0/16 x");
  sdk.start();
  sw.run();
  const std::string said = std::exchange(out, std::ostringstream()).str();
  for (const char* part : {"'15': expected a label, 16 to 1048575\n",
                           "'192.0.2.7': expected a next hop and labels, as 192.0.2.1/16,2001\n",
                           "'x': expected a prefix\n", "the group uplinks forwards\n"})
    EXPECT_NE(std::string::npos, said.find(part)) << part << "\n" << said;
  EXPECT_EQ("active", sw.agent_status("pe", "group"));
  EXPECT_NE(std::string::npos, sw.show("/routing/hardware/mpls/status").find("1000"))
      << "the label is programmed";
  const auto routes = [&] { return sw.show("/routing/vrf/input/default/RyxSdk-pe"); };
  EXPECT_NE(std::string::npos, routes().find("10.2.0.0/16"));

  sw.agent_option_set("pe", "prefixes", "10.1.0.0/16");
  sw.agent_option_del("pe", "vrf.red");
  sw.command("oper-status Ethernet1 2");
  sw.run();
  EXPECT_EQ(std::string::npos, routes().find("10.2.0.0/16"));
  EXPECT_NE(std::string::npos, routes().find("10.1.0.0/16"));
  EXPECT_EQ(std::string::npos, sw.show("/routing/hardware/mpls/status").find("1000"));
  EXPECT_EQ("inactive", sw.agent_status("pe", "group"));
}

}  // namespace
