#include "examples/addr_guard.h"

#include <gtest/gtest.h>
#include <ryx/testing.h>

#include <sstream>
#include <string>
#include <utility>

namespace {

// Somebody else who configures addresses.
class meddler : public ryx::agent_handler {
 public:
  explicit meddler(ryx::sdk& sdk) : agent_handler(sdk.get_agent_mgr()), ip(sdk.get_ip_intf_mgr()) {}
  ryx::ip_intf_mgr* ip;
};

ryx::ip_addr_mask_t v4(uint8_t last) {
  const uint8_t bytes[4] = {10, 0, 0, last};
  return {{ryx::AF_IPV4, bytes}, 24};
}

TEST(AddrGuard, KeepsAddressesAsTheyAreGiven) {
  ryx::testing::simulated_switch sw;
  sw.command("interface-add Ethernet1\ninterface-add Ethernet2");
  ryx::testing::agent_sdk sdk(sw, "guard"), other(sw, "meddler");
  meddler someone(other);
  std::ostringstream out;
  addr_guard agent(sdk, out);
  sw.agent_option_set("guard", "Ethernet1", "10.0.0.1/24 10.0.0.2/24 2001:db8::1/64");
  sdk.start();
  other.start();
  const auto told = [&] {
    sw.run_for(1);
    return std::exchange(out, std::ostringstream()).str();
  };
  EXPECT_EQ("", told());
  EXPECT_EQ(3u, someone.ip->ip_addrs("Ethernet1").size());
  someone.ip->ip_addr_del("Ethernet1", v4(1));
  EXPECT_EQ("Ethernet1: puts 10.0.0.1/24 back\n", told());
  someone.ip->ip_addr_add("Ethernet1", v4(66));
  EXPECT_EQ("Ethernet1: takes 10.0.0.66/24 away\n", told());
  EXPECT_EQ(3u, someone.ip->ip_addrs("Ethernet1").size());
  EXPECT_EQ("2", sw.agent_status("guard", "mended"));
  // An interface that goes takes its addresses along, and has them when it comes back.
  sw.command("interface-del Ethernet1");
  EXPECT_EQ("", told());
  sw.command("interface-add Ethernet1");
  EXPECT_EQ("", told());
  // What is not guarded is nobody's business.
  const uint8_t elsewhere[4] = {10, 9, 0, 1};
  someone.ip->ip_addr_add("Ethernet2", {{ryx::AF_IPV4, elsewhere}, 24});
  sw.agent_option_del("guard", "Ethernet1");
  sw.run();
  someone.ip->ip_addr_del("Ethernet1", v4(1));
  EXPECT_EQ("", told());
  EXPECT_EQ("0", sw.agent_status("guard", "guarded"));
}

TEST(AddrGuard, SaysWhatAnOptionShouldBe) {
  ryx::testing::simulated_switch sw;
  ryx::testing::agent_sdk sdk(sw, "guard");
  std::ostringstream out;
  addr_guard agent(sdk, out);
  sw.agent_option_set("guard", "eth7", "10.0.0.1/24");
  sdk.start();
  const auto told = [&](const std::string& value) {
    sw.agent_option_set("guard", "Ethernet1", value);
    sw.run();
    return std::exchange(out, std::ostringstream()).str();
  };
  EXPECT_EQ("the option eth7: expected the name of an interface\n", told(""));
  for (const char* value : {"10.0.0.1", "10.0.0.1/", "10.0.0.1/24x", "10.0.0.1/240", "10.0.0/24"})
    EXPECT_EQ(
        "Ethernet1=" + std::string(value) + ": expected addresses, as 10.0.0.1/24 2001:db8::1/64\n",
        told(value));
  EXPECT_EQ("Ethernet1: Invalid argument 'addr': Link-local addresses unsupported\n",
            told("fe80::1/64"));
  EXPECT_EQ("", told("10.0.0.1/24"));
}

}  // namespace
